// The navigation rules: which folders a rule makes for an item, and which
// references leave with it.
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
        node = db_container_new(uint32_t(12), "Artist", 1);
        db_container_add_child(db_music_root, node);
    }

    void TearDown() override
    {
        for (int32_t id : {UPNP_OPT_MUSICNODE1, UPNP_OPT_CONTENTDIR, UPNP_OPT_FOLDERPREFIX})
            upnp_ini_set(id, "");
        DbStoreTest::TearDown();
    }

    // "title#type/..." down to each reference below c, sorted.
    static void outline(db_object* c, const std::string& at, std::vector<std::string>* out)
    {
        for (int32_t i = 0; i < db_container_child_count(c); i++) {
            db_object* x = db_container_child(c, i);
            int32_t t = db_object_type_of(x);
            if (db_type_is_ref(t))
                out->push_back(at.empty() ? "." : at);
            else if (t < 12)
                outline(x, at + (at.empty() ? "" : "/") + db_object_get_str(x, DBK_TITLE) + "#" + std::to_string(t),
                        out);
        }
        std::sort(out->begin(), out->end());
    }

    static std::vector<std::string> outline(db_object* c)
    {
        std::vector<std::string> out;
        outline(c, "", &out);
        return out;
    }
};

TEST(DbRules, LetterGroups)
{
    struct { const char* title; int32_t n; const char* group; } cases[] = {
        {"9 Crimes", 3, "ABC"}, {"\xC3\x84rger", 3, "ABC"}, {"\xC3\x85sa", 3, "YZ"}, {"mozart", 3, "MNO"},
        {"Zappa", 3, "YZ"}, {"~tilde", 3, "YZ"}, {"Abba", 1, "A"}, {"Abba", 0, ""},
    };
    for (const auto& c : cases) {
        char group[32];
        db_letter_group(c.title, c.n, group, sizeof group);
        EXPECT_STREQ(group, c.group) << c.title << " " << c.n;
    }
}

TEST_F(DbRulesTest, RulesPlaceOneReferencePerPath)
{
    struct { const char* rule; db_test_fields meta; std::vector<std::string> refs; } cases[] = {
        {"Artist,%ARTIST,%ALBUM", {{DBK_ARTIST, "Abba"}, {DBK_ALBUM, "Gold"}},
         {"Abba#8/All#2", "Abba#8/Gold#6", "All#2/All#2", "All#2/Gold#6"}},
        {"Artist,[3]%artist,%ALBUM", {{DBK_ARTIST, "Abba"}, {DBK_ALBUM, "Gold"}},
         {"ABC#0/Abba#8/All#2", "ABC#0/Abba#8/Gold#6"}},
        {"Artist,[0]%ARTIST", {{DBK_ARTIST, "Abba"}}, {"Abba#8", "All#2"}},
        {"Artist,%FOO,%ALBUM", {{DBK_ALBUM, "Gold"}}, {"All#2/All#2", "All#2/Gold#6"}},
        {"Artist,%ARTIST", {{DBK_ARTIST, "Abba"}, {DBK_COMPILATION, "1"}}, {"All#2", "Various#8"}},
        {"Artist,%ALBUMARTIST", {{DBK_ALBUM_ARTIST, "Abba"}, {DBK_COMPILATION, "1"}}, {"Abba#8", "All#2"}},
        {"Artist,%GENRE", {{DBK_ALBUM, "Gold"}}, {"All#2", "Unknown#9"}},
        {"Artist,%YEAR,%MONTH", {{DBK_DATE, "2001-07-04"}}, {"2001#2/07#2", "2001#2/All#2", "All#2/07#2", "All#2/All#2"}},
        {"Artist,%KEYWORD", {{DBK_ALBUM, "Gold"}}, {"All#2"}},
        {"Artist,%RATING", {{DBK_RATING, "3"}}, {"***#2", "All#2"}},
        {"Artist,%DURATION", {{DBK_DURATION, "0:01:01:5"}}, {"0:01:01.005#2", "All#2"}},
        {"Artist,[3", {{DBK_ARTIST, "Abba"}}, {}},
    };
    int32_t file = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        ASSERT_EQ(upnp_ini_set(UPNP_OPT_MUSICNODE1, c.rule), 1);
        db_object* item = add("/m/" + std::to_string(file++) + ".mp3", DB_OBJ_AUDIO, c.meta);
        ASSERT_TRUE(item);
        EXPECT_EQ(outline(node), c.refs);
        EXPECT_EQ(db_object_remove_refs(db_root, item), int32_t(c.refs.size()));
        while (db_object* x = db_container_child(node, 0)) {
            db_container_remove_child(node, x);
            db_object_free_tree(x);
        }
    }
}

TEST_F(DbRulesTest, PathFoldersBelowTheSharedFolder)
{
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+M|/Music/");
    upnp_ini_set(UPNP_OPT_MUSICNODE1, "Folder,%PATH");
    upnp_ini_set(UPNP_OPT_FOLDERPREFIX, "+");
    add("/music/top.mp3", DB_OBJ_AUDIO, {{DBK_ARTIST, "A"}});
    add("/music/Rock/Live/b.mp3", DB_OBJ_AUDIO, {{DBK_ARTIST, "A"}});
    add("http://radio/x.mp3", DB_OBJ_AUDIO, {{DBK_ARTIST, "A"}});
    EXPECT_EQ(outline(node), (std::vector<std::string>{"+Rock#10/+Live#10", ".", "All#2", "All#2", "All#2"}));
}

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
    upnp_ini_set(UPNP_OPT_MUSICNODE1, "Artist,[3");     // places nothing
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

TEST_F(DbRulesTest, TitleLookupFollowsTheChildren)
{
    db_object* a = folder(DB_OBJ_CONTAINER, "X", node), *b = folder(DB_OBJ_CONTAINER, "X", node);
    EXPECT_EQ(db_container_find_title(node, "X"), a);
    db_container_remove_child(node, a);
    EXPECT_EQ(db_container_find_title(node, "X"), b);
    db_object_set_str(b, DBK_TITLE, "Y");
    EXPECT_EQ(db_container_find_title(node, "X"), nullptr);
    EXPECT_EQ(db_container_find_title(node, "Y"), b);
    db_object_free(a);
}

// The title lookup answers what a walk of the children answers, through
// appends, removals, sorts in place and retitles.
TEST_F(DbRulesTest, TitleLookupMatchesTheWalk)
{
    const char* titles[] = {"a", "b", "Unknown", nullptr};   // no title reads "Unknown"
    const int32_t types[] = {DB_OBJ_CONTAINER, DB_OBJ_MUSIC_ALBUM, DB_OBJ_MUSIC_ARTIST};
    auto walk = [&](const char* t) -> db_object* {
        for (int32_t i = 0; i < db_container_child_count(node); i++)
            if (db_object* x = db_container_child(node, i);
                db_object_type_of(x) < 12 && !strcmp(db_object_get_str(x, DBK_TITLE), t))
                return x;
        return nullptr;
    };
    std::minstd_rand pick(7);      // the shuffle reseeds rand() at each sort
    for (int step = 0; step < 300; step++) {
        int32_t n = db_container_child_count(node), op = pick() % 4;
        db_object* some = n ? db_container_child(node, pick() % n) : nullptr;
        if (op == 0 || !some) {
            folder(types[pick() % 3], titles[pick() % 4], node);
        } else if (op == 1) {
            db_container_remove_child(node, some);
            db_object_free(some);
        } else if (op == 2) {
            db_sort_prepare("Philips:shuffle", DB_OBJ_CONTAINER, nullptr);   // reseeds: the same run each time
            db_container_sort(node);
        } else {
            db_object_set_str(some, DBK_TITLE, titles[pick() % 3]);
        }
        for (const char* t : {"a", "b", "Unknown"})
            ASSERT_EQ(db_container_find_title(node, t), walk(t)) << "step " << step << " " << t;
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
    upnp_ini_set(UPNP_OPT_MUSICNODE1, "Artist,[3");
    std::minstd_rand pick(11);
    std::vector<db_object*> folders{node}, targets, refs;
    const int32_t types[] = {DB_OBJ_CONTAINER, DB_OBJ_MUSIC_ALBUM, DB_OBJ_STORAGE_ROOT};
    for (int i = 0; i < 4; i++)
        targets.push_back(add("/m/t" + std::to_string(i) + ".mp3", DB_OBJ_AUDIO, {}));
    for (int round = 0; round < 40; round++) {
        for (int step = 0; step < 30; step++) {
            db_object* in = folders[pick() % folders.size()];
            int op = int(pick() % 5);
            if (op == 0) {
                folders.push_back(folder(types[pick() % 3], "f", in));
            } else if (op == 1) {
                db_object* real = add("/m/r" + std::to_string(round * 30 + step) + ".mp3", DB_OBJ_AUDIO, {});
                db_container_remove_child(db_all_music, real);
                db_container_add_child(in, real);
                if (pick() % 4 == 0)
                    db_object_retype(real, DB_OBJ_SHADOW);      // a shadow doesn't stop the walk
            } else {
                refs.push_back(ref(targets[pick() % targets.size()], in));
            }
        }
        db_object* from = folders[pick() % folders.size()];
        db_object* target = targets[pick() % targets.size()];
        bool last_only = pick() % 2;
        std::vector<db_object*> expect, parents;
        walk_refs(from, target, last_only, &expect);
        for (db_object* r : refs)
            parents.push_back(db_object_parent(r));
        int32_t freed = last_only ? db_tree_remove_refs(from, target) : db_object_remove_refs(from, target);
        ASSERT_EQ(freed, int32_t(expect.size())) << "round " << round;
        std::vector<db_object*> left;
        for (size_t i = 0; i < refs.size(); i++) {
            bool gone = std::find(expect.begin(), expect.end(), refs[i]) != expect.end();
            ASSERT_EQ(db_container_has(parents[i], refs[i]), !gone) << "round " << round;
            if (!gone)
                left.push_back(refs[i]);
        }
        refs.swap(left);
    }
}
