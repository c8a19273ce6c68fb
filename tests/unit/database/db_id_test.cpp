// Object ids and their texts, lookups by id and by path, the children list
// operations, and the sort orders.
#include "database/db_id.h"

#include "config/upnp_ini.h"
#include "unit/database/db_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <random>
#include <set>
#include <string>
#include <vector>

using DbId = DbStoreTest;

// A client's request, for the flag probe: such a client has both flags.
static int db_client_tag;
static const HTTP_request* const db_client = reinterpret_cast<const HTTP_request*>(&db_client_tag);

static int probe_flags(const HTTP_request*, const char* flag)
{
    return !strcmp(flag, "AV:M") || !strcmp(flag, "XM:NOUTF8SORT");
}

TEST_F(DbId, WordsHoldTypeAndBlockAndCountersRiseBeforeUseAndNeverRestart)
{
    EXPECT_EQ(1744830471u, db_make_id(7, DB_OBJ_PHOTO));
    upnp_switches.oid_seed = 120000;
    uint32_t id = db_make_id(7, DB_OBJ_PHOTO);
    EXPECT_EQ(120007u, id & DB_ID_SEQ_MASK);
    EXPECT_EQ(uint32_t(DB_OBJ_PHOTO), id >> DB_ID_TYPE_SHIFT);
    EXPECT_EQ(7u, db_id_to_block(id));
    uint32_t a = db_next_id(DB_OBJ_MUSIC_GENRE);
    uint32_t b = db_next_id(DB_OBJ_MUSIC_GENRE);
    EXPECT_EQ(uint32_t(DB_OBJ_MUSIC_GENRE), a >> DB_ID_TYPE_SHIFT);
    EXPECT_EQ(a + 1, b);
    EXPECT_NE(0u, a & DB_ID_SEQ_MASK);
    db_destroy();
    db_create();
    EXPECT_EQ(b + 1, db_next_id(DB_OBJ_MUSIC_GENRE));
}

TEST_F(DbId, TextIsThePathOfWordsBelowTheRootAndLeadsBackToItsObject)
{
    char text[DB_ID_TEXT_SIZE], cut[6];
    EXPECT_STREQ("-1", db_object_id_text(nullptr, text, sizeof text));
    EXPECT_STREQ("0", db_object_id_text(db_root, text, sizeof text));
    EXPECT_STREQ("268435466", db_object_id_text(db_music_root, text, sizeof text));
    EXPECT_STREQ("26843", db_object_id_text(db_music_root, cut, sizeof cut));
    files.blocks[5] = {"/m/five.mp3", DB_OBJ_AUDIO, ""};
    db_meta_list* l = db_test_list({{DBK_TITLE, "Five"}});
    db_object* item = db_object_add(l, "/m/five.mp3", DB_OBJ_AUDIO, 5, nullptr, 0);
    db_meta_list_free(l);
    EXPECT_STREQ("268435466$1879048197", db_object_id_text(item, text, sizeof text));
    db_object* artist = folder(DB_OBJ_MUSIC_ARTIST, "Abba", db_music_root);
    db_object* album = folder(DB_OBJ_MUSIC_ALBUM, "Gold", artist);
    db_object* track = ref(item, album);
    for (db_object* o : {db_root, db_music_root, item, artist, album, track, db_document_root}) {
        db_object_id_text(o, text, sizeof text);
        SCOPED_TRACE(text);
        EXPECT_EQ(o, db_get_item_by_id(text, nullptr));
    }
    EXPECT_STRNE(db_object_id_text(item, text, sizeof text), db_object_id_text(track, text + 128, 128));
}

TEST_F(DbId, AliasesNameTheFilledSlotsMalformedTextsFindNothingAndMusicClientsStartInMusic)
{
    db_object* four = db_container_new(4, "four", 0);
    db_container_add_child(db_root, four);
    struct lookup_case { const char* text; db_object* found; };
    const lookup_case cases[] = {
        {"4", four}, {"4$", nullptr}, {"4$$", nullptr}, {"abc", nullptr}, {"", nullptr}, {"$", nullptr},
        {"268435466$", nullptr}, {"99999999999999999999", nullptr}, {"-1", nullptr}, {nullptr, nullptr},
        {"0\\Music\\", db_music_root}, {"0\\Photo\\", db_picture_root}, {"0\\Movie\\", db_video_root},
        {"0\\AllMovie\\", db_all_video}, {"0\\Document\\", db_document_root},
        {"0\\Radio\\", nullptr} /* never filled */, {"0\\LiveVideo\\", nullptr}, {"0\\music\\", nullptr},
    };
    for (const lookup_case& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "null");
        EXPECT_EQ(c.found, db_get_item_by_id(c.text, nullptr));
    }
    EXPECT_EQ(db_root, db_get_item_by_id("0", db_client));          // no probe: no flags
    db_set_client_flag_probe(probe_flags);
    EXPECT_EQ(db_root, db_get_item_by_id("0", nullptr));
    EXPECT_EQ(db_music_root, db_get_item_by_id("0", db_client));
}

TEST_F(DbId, WordsAreFoundBelowTheirAllContainerAndItemsOnlyInTheirOwn)
{
    db_object* track = add("/m/w.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "w"}});
    db_object* photo = add("/p/w.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "w"}});
    db_object* album = folder(DB_OBJ_MUSIC_ALBUM, "f", db_music_root);
    for (db_object* o : {track, photo, album, ref(track, album)})
        EXPECT_EQ(o, db_get_pItem_by_id(o->id));
    EXPECT_EQ(nullptr, db_get_pItem_by_id(db_make_id(999, DB_OBJ_AUDIO)));
    EXPECT_EQ(nullptr, db_get_pItem_by_id(db_make_id(1, DB_OBJ_VIDEO_BROADCAST)));   // empty slot
    EXPECT_EQ(track, db_container_find(db_all_music, track->id));
    EXPECT_EQ(nullptr, db_container_find(db_all_video, track->id));
    EXPECT_EQ(nullptr, db_container_find(track, track->id));
    db_container_remove_child(db_all_music, track);
    EXPECT_EQ(nullptr, db_get_pItem_by_id(track->id));              // out of the tree
}

TEST_F(DbId, DlnaManagedAndImportUriWorkByIdText)
{
    db_object* item = add("/m/up.mp3", DB_OBJ_AUDIO, {{DBK_DLNA_MANAGED, "4"}});
    db_object_set_str(item, DBK_MIME_OVERRIDE, "http://upload");
    char text[DB_ID_TEXT_SIZE];
    EXPECT_EQ(4, db_get_dlna_managed(db_object_id_text(item, text, sizeof text)));
    EXPECT_EQ(-1, db_get_dlna_managed("nonsense"));
    db_clear_import_uri(text);
    EXPECT_EQ(nullptr, db_object_get_str(item, DBK_MIME_OVERRIDE));
}

TEST_F(DbId, PathsLeadToTheirItemsByExactTextWhateverTheirHashAsTheIndexGrows)
{
    db_object* a = add("/music/a.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "a"}});
    db_object* b = add("/photos/b.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "b"}});
    EXPECT_EQ(a->id, upnp_cds_db_file_get_id_by_res("/music/a.mp3"));
    EXPECT_EQ(b->id, upnp_cds_db_file_get_id_by_res("/photos/b.jpg"));
    EXPECT_EQ(b, db_object_find_by_path("/photos/b.jpg"));
    EXPECT_EQ(0u, upnp_cds_db_file_get_id_by_res("/music/none.mp3"));
    EXPECT_EQ(0u, upnp_cds_db_file_get_id_by_res(nullptr));
    EXPECT_EQ(2, db_path_index_count());
    // The hash folds case, but identity is exact.
    EXPECT_EQ(db_path_hash("/Music/A.MP3"), db_path_hash("/music/a.mp3"));
    EXPECT_EQ(0u, upnp_cds_db_file_get_id_by_res("/Music/A.MP3"));
    // Words summed: swapping two 4-byte words keeps the hash.
    ASSERT_EQ(db_path_hash("/aaa/bbb"), db_path_hash("/bbb/aaa"));
    std::string long_a = "/" + std::string(300, 'x') + "a", long_b = "/" + std::string(300, 'x') + "b";
    ASSERT_EQ(db_path_hash(long_a.c_str()), db_path_hash(long_b.c_str()));
    for (const char* p : {"/Music/A.MP3", "/aaa/bbb", "/bbb/aaa", long_a.c_str(), long_b.c_str()}) {
        SCOPED_TRACE(p);
        db_object* o = add(p, DB_OBJ_DOCUMENT, {{DBK_TITLE, "t"}});
        ASSERT_NE(nullptr, o);
        EXPECT_EQ(o->id, upnp_cds_db_file_get_id_by_res(p));
    }
    EXPECT_EQ(a->id, upnp_cds_db_file_get_id_by_res("/music/a.mp3"));
    // The index grows and keeps every path.
    std::vector<std::pair<std::string, uint32_t>> added;
    for (int i = 0; i < 12000; i++) {
        std::string p = "/music/artist" + std::to_string(i % 37) + "/track" + std::to_string(i) + ".mp3";
        db_object* o = add(p, DB_OBJ_AUDIO, {{DBK_TITLE, "t"}});
        ASSERT_NE(nullptr, o);
        added.push_back({p, o->id});
    }
    for (size_t i = 0; i < added.size(); i += 101) {
        SCOPED_TRACE(added[i].first);
        EXPECT_EQ(added[i].second, upnp_cds_db_file_get_id_by_res(added[i].first.c_str()));
        EXPECT_NE(nullptr, db_get_pItem_by_id(added[i].second));
    }
}

TEST_F(DbId, ADeletedItemLeavesAStalePairThatFindsNothingAndSeededIdsLeadBack)
{
    db_object_delete(add("/m/stale.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "s"}}));
    EXPECT_EQ(1, db_path_index_count());
    EXPECT_EQ(0u, upnp_cds_db_file_get_id_by_res("/m/stale.mp3"));
    db_object* again = add("/m/stale.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "s"}});
    ASSERT_NE(nullptr, again);
    EXPECT_EQ(again->id, upnp_cds_db_file_get_id_by_res("/m/stale.mp3"));
    upnp_switches.oid_seed = 120000;
    db_object* seeded = add("/p/seed.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "s"}});
    ASSERT_NE(nullptr, seeded);
    EXPECT_EQ(120000u + files.next_block - 1, db_object_seq(seeded));
    EXPECT_EQ(seeded, db_object_find_by_path("/p/seed.jpg"));
    int frees = files.frees;
    EXPECT_EQ(1, db_object_remove("/p/seed.jpg"));
    EXPECT_EQ(frees + 1, files.frees);
    EXPECT_EQ(0u, files.blocks.count(files.next_block - 1));
}

TEST_F(DbId, ChildAccessStaysInsideTheListAndHasAndFindTitleCompareExactly)
{
    EXPECT_EQ(db_music_root, db_container_child(db_root, 0));
    EXPECT_EQ(nullptr, db_container_child(db_root, -1));
    EXPECT_EQ(nullptr, db_container_child(db_root, 4));
    db_object* item = add("/m/Photo.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "Folder"}});
    EXPECT_EQ(nullptr, db_container_child(item, 0));
    EXPECT_EQ(0, db_container_child_count(item));
    db_object* out[8];
    EXPECT_EQ(4, db_container_children(db_root, out, 8));
    EXPECT_EQ(2, db_container_children(db_root, out, 2));
    EXPECT_EQ(db_picture_root, out[1]);
    // Has looks at pointers, not at their targets.
    db_object* list = folder(DB_OBJ_PLAYLIST_CONTAINER, "pl");
    db_object* track = ref(item, list, 1);
    EXPECT_EQ(1, db_container_has(list, track));
    EXPECT_EQ(0, db_container_has(list, item));
    EXPECT_EQ(1, db_container_has(db_all_music, item));
    // Find title takes containers with the exact title.
    db_object* named = folder(DB_OBJ_CONTAINER, "Folder", db_music_root);
    EXPECT_EQ(named, db_container_find_title(db_music_root, "Folder"));
    EXPECT_EQ(nullptr, db_container_find_title(db_music_root, "folder"));
    EXPECT_EQ(db_music_root, db_container_find_title(db_root, "Music"));
    EXPECT_EQ(nullptr, db_container_find_title(db_root, nullptr));
}

TEST_F(DbId, ClearItemsKeepsContainersAndMarksQuietly)
{
    db_object* c = folder(DB_OBJ_PLAYLIST_CONTAINER, "c");
    db_object* item = add("/m/cl.mp3", DB_OBJ_AUDIO, {});
    for (int i = 0; i < 12; i++)
        ref(item, c);
    db_object* f1 = folder(DB_OBJ_CONTAINER, "f1", c);
    ref(item, c);
    db_object* f2 = folder(DB_OBJ_CONTAINER, "f2", c);
    db_object_set_char(c, DBK_SORTED, '1');
    db_object_set_char(c, DBK_EVENT_PENDING, '0');
    int32_t update_id = db_object_get_int(c, DBK_UPDATE_ID);
    settle_events();
    int64_t before = db_object_get_used_mem();
    db_container_clear_items(c);
    ASSERT_EQ(2, db_container_child_count(c));
    EXPECT_EQ(f1, db_container_child(c, 0));
    EXPECT_EQ(f2, db_container_child(c, 1));
    EXPECT_EQ(before - 13 * 12 - 4 * (20 - 10), db_object_get_used_mem());
    EXPECT_EQ(update_id, db_object_get_int(c, DBK_UPDATE_ID));
    EXPECT_EQ('1', db_object_get_char(c, DBK_EVENT_PENDING));
    EXPECT_EQ('0', db_object_get_char(c, DBK_SORTED));
    EXPECT_EQ(item, db_container_child(db_all_music, 0));
}

class DbSort : public DbStoreTest {
protected:
    typedef std::vector<std::string> titles;
    int next = 0;
    db_object* track(db_test_fields fields)
    {
        return add("/m/sort" + std::to_string(next++) + ".mp3", DB_OBJ_AUDIO, fields);
    }
    // The titles of db_all_music's children in the order db_sort_objects gives.
    static titles sorted(const char* criteria, int32_t type = DB_OBJ_CONTAINER, const HTTP_request* request = nullptr)
    {
        std::vector<db_object*> v(size_t(db_container_child_count(db_all_music)));
        db_container_children(db_all_music, v.data(), int32_t(v.size()));
        db_sort_prepare(criteria, type, request);
        db_sort_objects(v.data(), int32_t(v.size()));
        titles out;
        for (db_object* o : v)
            out.push_back(db_object_get_str(o, DBK_TITLE));
        return out;
    }
};

struct sort_case { const char* criteria; int32_t type; const HTTP_request* request; std::vector<std::string> order; };

TEST_F(DbSort, FoldedTextPutsAccentsWithTheirLettersUnlessTheClientSortsBytes)
{
    // Ä, ä, Å (with Z, on purpose), the multiplication sign, ñ, © (stays), a plain byte.
    const int folds[][3] = {{0xC3, 0x84, 'A'}, {0xC3, 0xA4, 'A'}, {0xC3, 0x85, 'Z'}, {0xC3, 0x97, 'O'},
                            {0xC3, 0xB1, 'N'}, {0xC2, 0xA9, 0xC2}, {'x', 0, 'x'}};
    for (const auto& f : folds)
        EXPECT_EQ(f[2], db_fold_char(f[0], f[1])) << f[0] << " " << f[1];
    EXPECT_EQ(0, db_compare_text("abc", "ABC"));
    EXPECT_EQ(-1, db_compare_text("ab", "abc"));
    EXPECT_EQ(1, db_compare_text("abc", "ab"));
    EXPECT_EQ(-1, db_compare_text(nullptr, ""));
    EXPECT_EQ(0, db_compare_text(nullptr, nullptr));
    for (const char* t : {"Zebra", "\xC3\x85sa", "Yes", "apple", "\xC3\x84rger", "banana"})
        track({{DBK_TITLE, t}});
    db_set_client_flag_probe(probe_flags);
    const sort_case cases[] = {
        {"+dc:title", 0, nullptr, {"\xC3\x84rger", "apple", "banana", "Yes", "\xC3\x85sa", "Zebra"}},
        {"-dc:title", 0, nullptr, {"Zebra", "\xC3\x85sa", "Yes", "banana", "apple", "\xC3\x84rger"}},
        {"+dc:title", 0, db_client, {"apple", "banana", "Yes", "Zebra", "\xC3\x84rger", "\xC3\x85sa"}},
    };
    for (const sort_case& c : cases) {
        SCOPED_TRACE(std::string(c.criteria) + (c.request ? " bytes" : ""));
        EXPECT_EQ(c.order, sorted(c.criteria, c.type, c.request));
    }
}

TEST_F(DbSort, EachCriterionOrdersByItsFieldAndTheDefaultDependsOnTheContainer)
{
    track({{DBK_TITLE, "one"}, {DBK_ARTIST, "Cher"}, {DBK_ALBUM, "Z"}, {DBK_GENRE, "Rock"}, {DBK_TRACK, "3"},
           {DBK_RATING, "1"}, {DBK_DATE, "2001-01-01"}});
    track({{DBK_TITLE, "two"}, {DBK_ARTIST, "Abba"}, {DBK_ALBUM, "Y"}, {DBK_GENRE, "Jazz"}, {DBK_TRACK, "1"},
           {DBK_RATING, "5"}, {DBK_DATE, "1999-05-05"}});
    track({{DBK_TITLE, "three"}, {DBK_ARTIST, "Bono"}, {DBK_ALBUM, "X"}, {DBK_GENRE, "Pop"}, {DBK_TRACK, "2"},
           {DBK_RATING, "3"}, {DBK_DATE, "2010-12-12"}});
    const sort_case cases[] = {
        {"+upnp:artist", 0, nullptr, {"two", "three", "one"}},
        {"dc:creator", 0, nullptr, {"two", "three", "one"}},
        {"-upnp:artist", 0, nullptr, {"one", "three", "two"}},
        {"+upnp:album", 0, nullptr, {"three", "two", "one"}},
        {"+upnp:genre", 0, nullptr, {"two", "three", "one"}},
        {"+upnp:originalTrackNumber", 0, nullptr, {"two", "three", "one"}},
        {"-pv:rating", 0, nullptr, {"two", "three", "one"}},
        {"+dc:date", 0, nullptr, {"two", "one", "three"}},
        {"-dc:date", 0, nullptr, {"three", "one", "two"}},
        {"+foo:bar,+dc:title", 0, nullptr, {"one", "three", "two"}},
        {"+dc:titleX", 0, nullptr, {"one", "three", "two"}},       // tokens match by prefix
        // No criteria: newest first, but music containers by title.
        {nullptr, DB_OBJ_MUSIC_ALBUM, nullptr, {"three", "one", "two"}},
        {"", DB_OBJ_CONTAINER, nullptr, {"three", "one", "two"}},
        {nullptr, DB_OBJ_MUSIC_CONTAINER, nullptr, {"one", "three", "two"}},
    };
    for (const sort_case& c : cases) {
        SCOPED_TRACE(c.criteria ? c.criteria : "null");
        EXPECT_EQ(c.order, sorted(c.criteria, c.type));
    }
}

TEST_F(DbSort, DateTiesGoByMtimeThenTitleInTheLastDirection)
{
    track({{DBK_TITLE, "b"}, {DBK_DATE, "2001-01-01"}, {DBK_MTIME, "5"}});
    track({{DBK_TITLE, "a"}, {DBK_DATE, "2001-01-01"}, {DBK_MTIME, "5"}});
    track({{DBK_TITLE, "c"}, {DBK_DATE, "2001-01-01"}, {DBK_MTIME, "0"}});
    track({{DBK_TITLE, "d"}, {DBK_DATE, "2001-01-01"}, {DBK_MTIME, "9"}});
    EXPECT_EQ((titles{"c", "a", "b", "d"}), sorted("+dc:date"));
    EXPECT_EQ((titles{"d", "b", "a", "c"}), sorted("-dc:date"));
}

TEST_F(DbSort, ContainersComeFirstByAOneSidedTest)
{
    db_object* item = track({{DBK_TITLE, "a track"}});
    db_object* box = folder(DB_OBJ_CONTAINER, "zz folder");
    db_sort_prepare("+dc:title", DB_OBJ_CONTAINER, nullptr);
    EXPECT_EQ(-1, db_sort_compare(&box, &item));
    EXPECT_EQ(-1, db_sort_compare(&item, &box));      // an item on the left goes on to the fields
    db_sort_prepare("-dc:title", DB_OBJ_CONTAINER, nullptr);
    EXPECT_EQ(-1, db_sort_compare(&box, &item));
    EXPECT_EQ(1, db_sort_compare(&item, &box));
}

TEST_F(DbSort, ShuffleIsAPermutationThatRepeats)
{
    for (int i = 0; i < 40; i++)
        track({{DBK_TITLE, ("t" + std::to_string(i)).c_str()}});
    titles first = sorted("Philips:shuffle");
    EXPECT_EQ(first, sorted("Philips:shuffle"));
    EXPECT_EQ(40u, std::set<std::string>(first.begin(), first.end()).size());
}

// Many titles that share long prefixes (beyond the 16 positions a sort
// keeps of each), end inside them, fold alike or hold bytes that fold to
// negative characters, in shuffled order: every sort must give exactly the
// order of a stable sort by the plain comparison, equal titles keeping the
// order they came in, and the "All" title goes first whatever its letters.
TEST_F(DbSort, LargeListsOrderLikeAStableSortByThePlainComparison)
{
    const char* stems[] = {"Song 0000000000000", "song 00000000000000", "Song 00", "S", "", "\xC3\x84rger ist gut",
                           "\xC3\xA4rger ist gut", "\xC3\x85sa", "Ar", "a\x80\x80", "\x80", "\xFF\xFE", "Zed",
                           "zed \xC3\xA9t\xC3\xA9", "Picture 00000000001", "\xC3\xA4\x80", "A\x80", "A"};
    const size_t stem_count = sizeof stems / sizeof *stems;
    std::vector<std::string> texts;
    for (int i = 0; i < 6000; i++) {
        std::string t = stems[size_t(i) % stem_count];
        if (i % 7)
            t += std::to_string(i % 501);
        if (i % 11 == 0)
            t += "\xC3\xB1\x80";
        texts.push_back(t);
    }
    std::shuffle(texts.begin(), texts.end(), std::mt19937(7));
    for (const std::string& t : texts)
        track({{DBK_TITLE, t.c_str()}});
    upnp_ini_set(UPNP_OPT_ALLNAME, "Zed");
    std::vector<db_object*> input(size_t(db_container_child_count(db_all_music)));
    db_container_children(db_all_music, input.data(), int32_t(input.size()));
    const std::vector<db_object*> stored = input;
    // Out of the order of their memory, so that equal titles must keep
    // their places in the list, not in the store.
    std::shuffle(input.begin(), input.end(), std::mt19937(11));
    db_set_client_flag_probe(probe_flags);
    auto stable = [](std::vector<db_object*> want) {
        // Titles equal to the "All" folder's keep their order among themselves.
        auto before = [](db_object* a, db_object* b) {
            bool both_all = !strcmp(db_object_get_str(a, DBK_TITLE), "Zed") &&
                            !strcmp(db_object_get_str(b, DBK_TITLE), "Zed");
            return !both_all && db_sort_compare(&a, &b) < 0;
        };
        std::stable_sort(want.begin(), want.end(), before);
        return want;
    };
    const sort_case cases[] = {{"+dc:title", 0, nullptr, {}}, {"-dc:title", 0, nullptr, {}},
                               {"+dc:title", 0, db_client, {}}, {"+upnp:genre,-dc:title", 0, nullptr, {}}};
    for (const sort_case& c : cases) {
        SCOPED_TRACE(std::string(c.criteria) + (c.request ? " bytes" : ""));
        db_sort_prepare(c.criteria, DB_OBJ_CONTAINER, c.request);
        std::vector<db_object*> got = input;
        db_sort_objects(got.data(), int32_t(got.size()));
        EXPECT_TRUE(got == stable(input));
    }
    db_sort_prepare("+dc:title", DB_OBJ_CONTAINER, nullptr);
    int64_t used = db_object_get_used_mem();
    db_container_sort(db_all_music);
    std::vector<db_object*> got(input.size());
    db_container_children(db_all_music, got.data(), int32_t(got.size()));
    upnp_ini_set(UPNP_OPT_ALLNAME, "");
    EXPECT_TRUE(got == stable(stored));
    EXPECT_EQ("Zed", std::string(db_object_get_str(got[0], DBK_TITLE)));
    for (size_t i = 1; i < got.size(); i++) {
        const char* a = db_object_get_str(got[i - 1], DBK_TITLE);
        if (strcmp(a, "Zed")) {
            ASSERT_LE(db_compare_text(a, db_object_get_str(got[i], DBK_TITLE)), 0) << i;
        }
    }
    EXPECT_EQ('1', db_object_get_char(db_all_music, DBK_SORTED));
    EXPECT_EQ(used, db_object_get_used_mem());
    EXPECT_EQ(got[7], db_get_pItem_by_id(got[7]->id));
}

// ---- What a stream and a cover route need ----------------------------------------

static std::string id_of(const db_object* o)
{
    char text[DB_ID_TEXT_SIZE];
    return db_object_id_text(o, text, sizeof text);
}

static std::string res_of(const db_object* o, int32_t* duration)
{
    char* path = db_get_res_by_id(id_of(o).c_str(), nullptr, duration);
    std::string out = path ? path : "(null)";
    free(path);
    return out;
}

TEST_F(DbId, StreamingATrackCountsAPlayAndRewritesItsRecord)
{
    db_object* a = add("/m/a.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "a"}, {DBK_DURATION, "0:03:35.000"}});
    db_object* album = folder(DB_OBJ_MUSIC_ALBUM, "Album", db_music_root);
    db_object* r = ref(a, album);
    int32_t duration = 0;
    int64_t before = int64_t(time(nullptr));
    EXPECT_EQ(res_of(a, &duration), "/m/a.mp3");
    EXPECT_EQ(duration, 215000);
    EXPECT_EQ(res_of(r, &duration), "/m/a.mp3");        // a reference stands for its target
    EXPECT_EQ(db_object_get_int(a, DBK_PLAY_COUNT), 2);
    EXPECT_GE(db_object_get_int(a, DBK_LAST_PLAYED), before);
    EXPECT_EQ(files.rewrites, 2);
}

TEST_F(DbId, StreamLookupDurationAndPlayRules)
{
    struct {
        const char* name; int32_t type; db_test_fields fields; int32_t duration; int32_t plays_after;
    } cases[] = {
        {"no duration", DB_OBJ_AUDIO, {{DBK_TITLE, "t"}}, 0, 1},
        {"zero plays become one", DB_OBJ_AUDIO, {{DBK_PLAY_COUNT, "0"}}, 0, 1},
        {"transport stream of unknown end", DB_OBJ_VIDEO, {{DBK_EXTENSION, "spts"}, {DBK_DURATION, "0:01:00.000"}}, -1, -1},
        {"a picture is no play", DB_OBJ_PHOTO, {{DBK_TITLE, "p"}}, 0, -1},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        db_object* o = add("/x/" + std::to_string(n++), c.type, c.fields);
        ASSERT_NE(o, nullptr);
        int32_t duration = 99;
        EXPECT_NE(res_of(o, &duration), "(null)");
        EXPECT_EQ(duration, c.duration);
        EXPECT_EQ(db_object_get_int(o, DBK_PLAY_COUNT), c.plays_after);
    }
}

TEST_F(DbId, StreamLookupRefusesWhatIsNoMediaItem)
{
    int32_t duration = 0;
    EXPECT_EQ(res_of(db_music_root, &duration), "(null)");
    EXPECT_EQ(db_get_res_by_id("999$1", nullptr, &duration), nullptr);
    EXPECT_EQ(db_get_res_by_id("", nullptr, &duration), nullptr);
}

TEST_F(DbId, AFolderCoverIsThatOfItsFirstTrackWithOne)
{
    db_object* album = folder(DB_OBJ_MUSIC_ALBUM, "Album", db_music_root);
    ref(add("/m/1.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "1"}}), album);
    ref(add("/m/2.mp3", DB_OBJ_AUDIO, {{DBK_ART_OFFSET, "4096"}, {DBK_ART_SIZE, "100"}}), album);
    ref(add("/m/3.mp3", DB_OBJ_AUDIO, {{DBK_ART_OFFSET, "10"}, {DBK_ART_SIZE, "5"}}), album);
    db_object* outer = folder(DB_OBJ_MUSIC_ARTIST, "Artist", db_music_root);
    db_container_add_child(outer, folder(DB_OBJ_MUSIC_ALBUM, "Inner"));
    struct { const char* name; db_object* o; const char* path; int64_t offset, length; } cases[] = {
        {"album", album, "/m/2.mp3", 4096, 100},
        {"reference", db_container_child(album, 2), "/m/3.mp3", 10, 5},
        {"track without a cover", db_container_child(album, 0), "/m/1.mp3", -1, -1},
        {"folder of folders", outer, nullptr, -1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int64_t offset = 0, length = 0;
        char* path = db_get_album_art(id_of(c.o).c_str(), nullptr, &offset, &length);
        EXPECT_EQ(path ? std::string(path) : "(null)", c.path ? c.path : "(null)");
        EXPECT_EQ(offset, c.offset);
        EXPECT_EQ(length, c.length);
        free(path);
    }
}
