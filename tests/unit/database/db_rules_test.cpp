// The navigation rules beyond what the golden trees show: tag folders, an
// update moving the references, and which references leave with an item.
#include "database/db_tree.h"

#include "config/upnp_ini.h"
#include "db_test_support.h"

#include <algorithm>
#include <random>
#include <string>
#include <vector>

class DbRulesTest : public DbStoreTest {
protected:
    db_object* node = nullptr;

    void SetUp() override
    {
        DbStoreTest::SetUp();
        db_set_tree_rules(db_tree_attach);
        db_music_root = add_top(DB_OBJ_CONTAINER, 1, "Music nodes");
        db_container_add_child(db_music_root, node = db_container_new(uint32_t(12), "Artist", 1));
        upnp_ini_set(UPNP_OPT_MUSICNODE1, "Artist,[3");     // places nothing
    }

    void TearDown() override
    {
        upnp_ini_set(UPNP_OPT_MUSICNODE1, "");
        DbStoreTest::TearDown();
    }

    // "title#type/..." down to each reference below c ("." for c), sorted.
    static std::vector<std::string> outline(db_object* c, const std::string& at = "")
    {
        std::vector<std::string> out;
        for (int32_t i = 0; i < db_container_child_count(c); i++) {
            db_object* x = db_container_child(c, i);
            int32_t t = db_object_type_of(x);
            if (db_type_is_ref(t))
                out.push_back(at.empty() ? "." : at.substr(1));
            else if (t < 12)
                for (const std::string& s : outline(x, at + "/" + db_object_get_str(x, DBK_TITLE) + "#" + std::to_string(t)))
                    out.push_back(s);
        }
        std::sort(out.begin(), out.end());
        return out;
    }
};

TEST_F(DbRulesTest, TagPathsUnderTheTagsFolder)
{
    db_object* photo = add("/p/a.jpg", DB_OBJ_PHOTO, {{DBK_TAGS, "Holiday/Beach,Family"}});
    ASSERT_TRUE(photo && db_tags_root);
    EXPECT_EQ(db_object_parent(db_tags_root), db_picture_root);
    EXPECT_STREQ(db_object_get_str(db_tags_root, DBK_TITLE), "- Tags -");
    EXPECT_EQ(outline(db_tags_root), (std::vector<std::string>{"Family#7", "Holiday#7/Beach#7"}));
}

TEST_F(DbRulesTest, UpdateMovesTheReferences)
{
    upnp_ini_set(UPNP_OPT_MUSICNODE1, "Artist,[3]%ARTIST");
    db_object* item = add("/m/a.mp3", DB_OBJ_AUDIO, {{DBK_ARTIST, "Abba"}});
    add("/m/a.mp3", DB_OBJ_AUDIO, {{DBK_ARTIST, "Queen"}});
    EXPECT_EQ(outline(node), (std::vector<std::string>{"PQR#0/Queen#8"}));
    EXPECT_EQ(db_container_child_count(db_container_find_title(db_container_find_title(node, "ABC"), "Abba")), 0);
    EXPECT_EQ(db_object_remove_refs(db_root, item), 1);
}

TEST_F(DbRulesTest, RemoveRefsTakesTheLastOfEachContainerTheWalkMeets)
{
    db_object* item = add("/m/a.mp3", DB_OBJ_AUDIO, {{DBK_ARTIST, "Abba"}});
    db_object* real[2] = {add("/m/b.mp3", DB_OBJ_AUDIO, {}), add("/m/c.mp3", DB_OBJ_AUDIO, {})};
    db_object* inner = folder(DB_OBJ_MUSIC_ALBUM, "inner", node);
    db_object* mixed = folder(DB_OBJ_STORAGE_ROOT, "mixed", node);
    db_object* kept_inner = ref(item, inner);
    ref(item, inner);
    db_object* first = ref(item, node);
    ref(item, node);
    for (int i = 0; i < 2; i++) {
        db_container_remove_child(db_all_music, real[i]);
        db_container_add_child(i ? node : mixed, real[i]);
    }
    ref(item, mixed);                                    // behind a real item, in a %PATH folder: met
    db_object* hidden = ref(item, node);                 // behind a real item: the walk stopped
    EXPECT_EQ(db_tree_remove_refs(node, item), 3);
    EXPECT_EQ(outline(node), (std::vector<std::string>{".", ".", "inner#6"}));
    EXPECT_TRUE(db_container_has(node, first) && db_container_has(node, hidden) && db_container_has(inner, kept_inner));
    EXPECT_EQ(db_container_child_count(mixed), 1);
}

// The title lookup answers what a walk of the children answers (the first
// match), through appends, removals, sorts in place and retitles.
TEST_F(DbRulesTest, TitleLookupMatchesTheWalk)
{
    const char* titles[] = {"a", "b", "Unknown", nullptr};   // no title reads "Unknown"
    const int32_t types[] = {DB_OBJ_CONTAINER, DB_OBJ_MUSIC_ALBUM, DB_OBJ_MUSIC_ARTIST};
    std::minstd_rand pick(7);      // the shuffle reseeds rand() at each sort: the same run each time
    for (int step = 0; step < 300; step++) {
        int32_t n = db_container_child_count(node), op = pick() % 4;
        db_object* some = n ? db_container_child(node, pick() % n) : nullptr;
        if (op == 0 || !some)
            folder(types[pick() % 3], titles[pick() % 4], node);
        else if (op == 1)
            db_container_remove_child(node, some), db_object_free(some);
        else if (op == 2)
            db_sort_prepare("Philips:shuffle", DB_OBJ_CONTAINER, nullptr), db_container_sort(node);
        else
            db_object_set_str(some, DBK_TITLE, titles[pick() % 3]);
        for (const char* t : {"a", "b", "Unknown"}) {
            db_object* first = nullptr;
            for (int32_t i = db_container_child_count(node); i-- > 0;)
                if (!strcmp(db_object_get_str(db_container_child(node, i), DBK_TITLE), t))
                    first = db_container_child(node, i);
            ASSERT_EQ(db_container_find_title(node, t), first) << "step " << step << " " << t;
        }
    }
}

// The walk that reference removal answers for without walking: children in
// order, containers searched in turn, stopped by the first real item except
// in %PATH folders; all matches, or the last one of each container.
static void walk_refs(db_object* c, db_object* target, bool last_only, std::vector<db_object*>* out)
{
    db_object* last = nullptr;
    for (int32_t i = 0; i < db_container_child_count(c); i++) {
        db_object* x = db_container_child(c, i);
        int32_t t = db_object_type_of(x);
        if (t < 12)
            walk_refs(x, target, last_only, out);
        else if (db_type_is_item(t) && db_object_type_of(c) != DB_OBJ_STORAGE_ROOT)
            break;
        if (db_type_is_ref(t) && db_object_target(x) == target)
            last_only ? void(last = x) : out->push_back(x);
    }
    if (last)
        out->push_back(last);
}

TEST_F(DbRulesTest, RemoveRefsMatchesTheWalk)
{
    std::minstd_rand pick(11);
    std::vector<db_object*> folders{node}, targets;
    std::vector<std::pair<db_object*, db_object*>> refs;     // and the folder each went into
    const int32_t types[] = {DB_OBJ_CONTAINER, DB_OBJ_MUSIC_ALBUM, DB_OBJ_STORAGE_ROOT};
    for (int i = 0; i < 4; i++)
        targets.push_back(add("/m/t" + std::to_string(i) + ".mp3", DB_OBJ_AUDIO, {}));
    for (int round = 0; round < 40; round++) {
        for (int step = 0; step < 30; step++) {
            db_object* in = folders[pick() % folders.size()];
            if (int op = int(pick() % 5); op == 0) {
                folders.push_back(folder(types[pick() % 3], "f", in));
            } else if (op == 1) {
                db_object* real = add("/m/r" + std::to_string(round * 30 + step) + ".mp3", DB_OBJ_AUDIO, {});
                db_container_remove_child(db_all_music, real);
                db_container_add_child(in, real);
                if (pick() % 4 == 0)
                    db_object_retype(real, DB_OBJ_SHADOW);      // a shadow doesn't stop the walk
            } else {
                refs.emplace_back(ref(targets[pick() % targets.size()], in), in);
            }
        }
        db_object *from = folders[pick() % folders.size()], *target = targets[pick() % targets.size()];
        bool last_only = pick() % 2;
        std::vector<db_object*> gone;
        walk_refs(from, target, last_only, &gone);
        int32_t freed = last_only ? db_tree_remove_refs(from, target) : db_object_remove_refs(from, target);
        ASSERT_EQ(freed, int32_t(gone.size())) << "round " << round;
        auto went = [&](const auto& r) { return std::count(gone.begin(), gone.end(), r.first) > 0; };
        for (const auto& r : refs)
            ASSERT_NE(db_container_has(r.second, r.first), went(r)) << "round " << round;
        std::erase_if(refs, went);
    }
}
