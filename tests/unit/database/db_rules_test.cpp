// The navigation rules beyond what the golden trees show: tag folders, an
// update moving the references, and which references leave with an item
// (random trees against a plain walk).
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

    // A real item in c, as a scan below a shared folder puts one.
    static db_object* real(db_object* c, const std::string& name)
    {
        db_object* x = add("/m/" + name + ".mp3", DB_OBJ_AUDIO, {});
        db_container_remove_child(db_all_music, x);
        db_container_add_child(c, x);
        return x;
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

// The walk that the title lookup and reference removal answer for without
// walking: children in order, the first container of a title; containers
// searched in turn, stopped by the first real item except in %PATH folders,
// all references to the target or the last one of each container.
static db_object* walk_title(db_object* c, const char* title)
{
    for (int32_t i = 0; i < db_container_child_count(c); i++)
        if (db_object* x = db_container_child(c, i); db_object_type_of(x) < 12 && !strcmp(db_object_get_str(x, DBK_TITLE), title))
            return x;
    return nullptr;
}

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

// Random trees of folders (titled alike or not at all), real items, shadows
// and references, sorted in place, folders retitled and moved, references
// removed: the lookups answer what the walks answer.
TEST_F(DbRulesTest, LookupsMatchTheWalk)
{
    const char* titles[] = {"a", "b", "Unknown", nullptr};   // no title reads "Unknown"
    const int32_t types[] = {DB_OBJ_CONTAINER, DB_OBJ_MUSIC_ALBUM, DB_OBJ_STORAGE_ROOT};
    std::minstd_rand pick(11);      // the shuffle reseeds rand() at each sort: the same run each time
    std::vector<db_object*> folders{node}, targets;
    std::vector<std::pair<db_object*, db_object*>> refs;     // and the folder each went into
    for (int i = 0; i < 2; i++)
        targets.push_back(add("/m/t" + std::to_string(i) + ".mp3", DB_OBJ_AUDIO, {}));
    for (int round = 0; round < 80; round++) {
        for (int step = 0; step < 30; step++) {
            int32_t op = int32_t(pick() % 8);     // folders made, retitled, removed: half in node
            db_object* in = (op == 0 || op == 3 || op == 4) && pick() % 2 ? node : folders[pick() % folders.size()];
            int32_t n = db_container_child_count(in);
            db_object* some = n ? db_container_child(in, int32_t(pick() % n)) : nullptr;
            bool is_folder = some && db_object_type_of(some) < 12;
            if (op == 0)
                folders.push_back(folder(types[pick() % 3], titles[pick() % 4], in));
            else if (op == 1 && pick() % 4)
                real(in, std::to_string(round * 30 + step));
            else if (op == 1)      // a shadow doesn't stop the walk
                db_object_retype(real(in, std::to_string(round * 30 + step)), DB_OBJ_SHADOW);
            else if (op == 2)
                db_sort_prepare("Philips:shuffle", DB_OBJ_CONTAINER, nullptr), db_container_sort(in);
            else if (op == 3 && is_folder)
                db_object_set_str(some, DBK_TITLE, titles[pick() % 3]);
            else if (op == 4 && is_folder)      // to the end of node
                db_container_remove_child(in, some), db_container_add_child(node, some);
            else
                refs.emplace_back(ref(targets[pick() % targets.size()], in), in);
            for (const char* t : {"a", "b", "Unknown"})
                ASSERT_EQ(db_container_find_title(in, t), walk_title(in, t)) << "round " << round << " step " << step;
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
