// Object ids and their texts, lookups by id and by path, the children list
// operations, and the sort orders.
#include "database/db_id.h"

#include "config/upnp_ini.h"
#include "upnp/upnp_cds.h"
#include "unit/database/db_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

using DbId = DbStoreTest;

// ---- Id words ---------------------------------------------------------------------

TEST_F(DbId, WordsHoldTypeAndBlockAndCountersRiseBeforeUseAndNeverRestart)
{
    EXPECT_EQ(1744830471u, db_make_id(7, DB_OBJ_PHOTO));
    oid_seed = 120000;
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

// ---- Id texts ----------------------------------------------------------------------

TEST_F(DbId, TextIsThePathOfWordsBelowTheRootAndLeadsBackToItsObject)
{
    char text[DB_ID_TEXT_SIZE];
    EXPECT_STREQ("-1", db_object_id_text(nullptr, text, sizeof text));
    EXPECT_STREQ("0", db_object_id_text(db_root, text, sizeof text));
    EXPECT_STREQ("268435466", db_object_id_text(db_music_root, text, sizeof text));
    char cut[6];
    EXPECT_STREQ("26843", db_object_id_text(db_music_root, cut, sizeof cut));
    files.blocks[5] = {"/m/five.mp3", DB_OBJ_AUDIO};
    db_meta_list* l = db_test_list({{DBK_TITLE, "Five"}});
    db_object* item = db_object_add(l, "/m/five.mp3", DB_OBJ_AUDIO, 5, nullptr, 0);
    db_meta_list_free(l);
    EXPECT_STREQ("268435466$1879048197", db_object_id_text(item, text, sizeof text));
    db_object* artist = db_container_new(db_next_id(DB_OBJ_MUSIC_ARTIST), "Abba", 0);
    db_object* album = db_container_new(db_next_id(DB_OBJ_MUSIC_ALBUM), "Gold", 0);
    db_object* ref = db_ref_new(DB_OBJ_REF, item, 0);
    db_container_add_child(db_music_root, artist);
    db_container_add_child(artist, album);
    db_container_add_child(album, ref);
    for (db_object* o : {db_root, db_music_root, item, artist, album, ref, db_document_root}) {
        db_object_id_text(o, text, sizeof text);
        SCOPED_TRACE(text);
        EXPECT_EQ(o, db_get_item_by_id(text, nullptr));
    }
    EXPECT_STRNE(db_object_id_text(item, text, sizeof text), db_object_id_text(ref, text + 128, 128));
}

struct lookup_case { const char* text; db_object* found; };

TEST_F(DbId, AliasesNameTheFilledSlotsAndMalformedTextsFindNothing)
{
    db_object* four = db_container_new(4, "four", 0);
    db_container_add_child(db_root, four);
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
}

static int probe_flags(const HTTP_request*, const char* flag)
{
    return !strcmp(flag, "AV:M") || !strcmp(flag, "XM:NOUTF8SORT");
}

TEST_F(DbId, RootOfAMusicOnlyClientIsTheMusicRoot)
{
    int dummy = 0;
    const HTTP_request* request = reinterpret_cast<const HTTP_request*>(&dummy);
    EXPECT_EQ(db_root, db_get_item_by_id("0", request));          // no probe: no flags
    db_set_client_flag_probe(probe_flags);
    EXPECT_EQ(db_root, db_get_item_by_id("0", nullptr));
    db_object* root = db_get_item_by_id("0", request);
    EXPECT_EQ(db_music_root, root);
    char text[DB_ID_TEXT_SIZE];
    EXPECT_STRNE("0", db_object_id_text(root, text, sizeof text));
}

// ---- Lookups by word ---------------------------------------------------------------

TEST_F(DbId, WordsAreFoundBelowTheirAllContainerAndItemsOnlyInTheirOwn)
{
    db_object* track = add("/m/w.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "w"}});
    db_object* photo = add("/p/w.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "w"}});
    db_object* folder = db_container_new(db_next_id(DB_OBJ_MUSIC_ALBUM), "f", 0);
    db_container_add_child(db_music_root, folder);
    db_object* ref = db_ref_new(DB_OBJ_REF, track, 0);
    db_container_add_child(folder, ref);
    for (db_object* o : {track, photo, folder, ref})
        EXPECT_EQ(o, db_get_pItem_by_id(o->id));
    EXPECT_EQ(nullptr, db_get_pItem_by_id(db_make_id(999, DB_OBJ_AUDIO)));
    EXPECT_EQ(nullptr, db_get_pItem_by_id(db_make_id(1, DB_OBJ_VIDEO_BROADCAST)));   // empty slot
    EXPECT_EQ(track, db_container_find(db_all_music, track->id));
    EXPECT_EQ(nullptr, db_container_find(db_all_video, track->id));
    EXPECT_EQ(nullptr, db_container_find(track, track->id));
    db_container_remove_child(db_all_music, track);
    EXPECT_EQ(nullptr, db_get_pItem_by_id(track->id));              // out of the tree
}

// ---- Path index ---------------------------------------------------------------------

TEST_F(DbId, PathsLeadToTheirItemsByExactTextWhateverTheirHash)
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
}

TEST_F(DbId, ADeletedItemLeavesAStalePairThatFindsNothingAndSeededIdsLeadBack)
{
    db_object* item = add("/m/stale.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "s"}});
    db_object_delete(item);
    EXPECT_EQ(1, db_path_index_count());
    EXPECT_EQ(0u, upnp_cds_db_file_get_id_by_res("/m/stale.mp3"));
    db_object* again = add("/m/stale.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "s"}});
    ASSERT_NE(nullptr, again);
    EXPECT_EQ(again->id, upnp_cds_db_file_get_id_by_res("/m/stale.mp3"));
    oid_seed = 120000;
    db_object* seeded = add("/p/seed.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "s"}});
    ASSERT_NE(nullptr, seeded);
    EXPECT_EQ(120000u + files.next_block - 1, db_object_seq(seeded));
    EXPECT_EQ(seeded, db_object_find_by_path("/p/seed.jpg"));
    int frees = files.frees;
    EXPECT_EQ(1, db_object_remove("/p/seed.jpg"));
    EXPECT_EQ(frees + 1, files.frees);
    EXPECT_EQ(0u, files.blocks.count(files.next_block - 1));
}

TEST_F(DbId, IndexGrowsAndKeepsEveryPath)
{
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

// ---- Lists ----------------------------------------------------------------------------

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
    db_object* list = db_container_new(db_next_id(DB_OBJ_PLAYLIST_CONTAINER), "pl", 0);
    db_object* ref = db_ref_new(DB_OBJ_REF_TRACK, item, 1);
    db_container_add_child(list, ref);
    EXPECT_EQ(1, db_container_has(list, ref));
    EXPECT_EQ(0, db_container_has(list, item));
    EXPECT_EQ(1, db_container_has(db_all_music, item));
    // Find title takes containers with the exact title.
    db_object* folder = db_container_new(db_next_id(DB_OBJ_CONTAINER), "Folder", 0);
    db_container_add_child(db_music_root, folder);
    EXPECT_EQ(folder, db_container_find_title(db_music_root, "Folder"));
    EXPECT_EQ(nullptr, db_container_find_title(db_music_root, "folder"));
    EXPECT_EQ(db_music_root, db_container_find_title(db_root, "Music"));
    EXPECT_EQ(nullptr, db_container_find_title(db_root, nullptr));
}

TEST_F(DbId, ClearItemsKeepsContainersAndMarksQuietly)
{
    db_object* c = db_container_new(db_next_id(DB_OBJ_PLAYLIST_CONTAINER), "c", 0);
    db_object* item = add("/m/cl.mp3", DB_OBJ_AUDIO, {});
    db_object* f1 = db_container_new(db_next_id(DB_OBJ_CONTAINER), "f1", 0);
    db_object* f2 = db_container_new(db_next_id(DB_OBJ_CONTAINER), "f2", 0);
    for (int i = 0; i < 12; i++)
        db_container_add_child(c, db_ref_new(DB_OBJ_REF, item, 0));
    db_container_add_child(c, f1);
    db_container_add_child(c, db_ref_new(DB_OBJ_REF, item, 0));
    db_container_add_child(c, f2);
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

TEST_F(DbId, DlnaManagedAndImportUriWorkByIdText)
{
    db_object* item = add("/m/up.mp3", DB_OBJ_AUDIO, {{DBK_DLNA_MANAGED, "4"}});
    db_object_set_str(item, DBK_MIME_OVERRIDE, "http://upload");
    char text[DB_ID_TEXT_SIZE];
    db_object_id_text(item, text, sizeof text);
    EXPECT_EQ(4, db_get_dlna_managed(text));
    EXPECT_EQ(-1, db_get_dlna_managed("nonsense"));
    db_clear_import_uri(text);
    EXPECT_EQ(nullptr, db_object_get_str(item, DBK_MIME_OVERRIDE));
}

// ---- Sorting ----------------------------------------------------------------------------

class DbSort : public DbStoreTest {
protected:
    int next = 0;
    db_object* track(std::initializer_list<std::pair<int, const char*>> fields)
    {
        return add("/m/sort" + std::to_string(next++) + ".mp3", DB_OBJ_AUDIO, fields);
    }
    std::vector<std::string> sorted(const char* criteria, int32_t type = DB_OBJ_CONTAINER,
                                    const HTTP_request* request = nullptr, db_object* c = nullptr)
    {
        c = c ? c : db_all_music;
        std::vector<db_object*> v(size_t(db_container_child_count(c)));
        db_container_children(c, v.data(), int32_t(v.size()));
        db_sort_prepare(criteria, type, request);
        db_sort_objects(v.data(), int32_t(v.size()));
        std::vector<std::string> titles;
        for (db_object* o : v)
            titles.push_back(db_object_get_str(o, DBK_TITLE));
        return titles;
    }
    typedef std::vector<std::string> titles;
};

TEST_F(DbSort, FoldedTextPutsAccentsWithTheirLetters)
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
    EXPECT_EQ((titles{"\xC3\x84rger", "apple", "banana", "Yes", "\xC3\x85sa", "Zebra"}), sorted("+dc:title"));
    EXPECT_EQ((titles{"Zebra", "\xC3\x85sa", "Yes", "banana", "apple", "\xC3\x84rger"}), sorted("-dc:title"));
}

TEST_F(DbSort, ClientsWithoutUtf8SortComparePlainBytes)
{
    for (const char* t : {"apple", "\xC3\x84rger", "Banana"})
        track({{DBK_TITLE, t}});
    int dummy = 0;
    const HTTP_request* request = reinterpret_cast<const HTTP_request*>(&dummy);
    db_set_client_flag_probe(probe_flags);
    EXPECT_EQ((titles{"apple", "Banana", "\xC3\x84rger"}), sorted("+dc:title", DB_OBJ_CONTAINER, request));
    EXPECT_EQ((titles{"\xC3\x84rger", "apple", "Banana"}), sorted("+dc:title"));
}

TEST_F(DbSort, EachCriterionOrdersByItsField)
{
    track({{DBK_TITLE, "one"}, {DBK_ARTIST, "Cher"}, {DBK_ALBUM, "Z"}, {DBK_GENRE, "Rock"}, {DBK_TRACK, "3"},
           {DBK_RATING, "1"}, {DBK_DATE, "2001-01-01"}});
    track({{DBK_TITLE, "two"}, {DBK_ARTIST, "Abba"}, {DBK_ALBUM, "Y"}, {DBK_GENRE, "Jazz"}, {DBK_TRACK, "1"},
           {DBK_RATING, "5"}, {DBK_DATE, "1999-05-05"}});
    track({{DBK_TITLE, "three"}, {DBK_ARTIST, "Bono"}, {DBK_ALBUM, "X"}, {DBK_GENRE, "Pop"}, {DBK_TRACK, "2"},
           {DBK_RATING, "3"}, {DBK_DATE, "2010-12-12"}});
    struct criterion_case { const char* criteria; titles order; };
    const criterion_case cases[] = {
        {"+upnp:artist", {"two", "three", "one"}},
        {"dc:creator", {"two", "three", "one"}},
        {"-upnp:artist", {"one", "three", "two"}},
        {"+upnp:album", {"three", "two", "one"}},
        {"+upnp:genre", {"two", "three", "one"}},
        {"+upnp:originalTrackNumber", {"two", "three", "one"}},
        {"-pv:rating", {"two", "three", "one"}},
        {"+dc:date", {"two", "one", "three"}},
        {"-dc:date", {"three", "one", "two"}},
        {"+foo:bar,+dc:title", {"one", "three", "two"}},
        {"+dc:titleX", {"one", "three", "two"}},       // tokens match by prefix
    };
    for (const criterion_case& c : cases) {
        SCOPED_TRACE(c.criteria);
        EXPECT_EQ(c.order, sorted(c.criteria));
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

TEST_F(DbSort, DefaultIsNewestFirstExceptForMusicContainers)
{
    track({{DBK_TITLE, "old"}, {DBK_DATE, "1990-01-01"}});
    track({{DBK_TITLE, "new"}, {DBK_DATE, "2020-01-01"}});
    track({{DBK_TITLE, "mid"}, {DBK_DATE, "2000-01-01"}});
    EXPECT_EQ((titles{"new", "mid", "old"}), sorted(nullptr, DB_OBJ_MUSIC_ALBUM));
    EXPECT_EQ((titles{"new", "mid", "old"}), sorted("", DB_OBJ_CONTAINER));
    EXPECT_EQ((titles{"mid", "new", "old"}), sorted(nullptr, DB_OBJ_MUSIC_CONTAINER));
}

TEST_F(DbSort, ContainersComeFirstByAOneSidedTest)
{
    db_object* item = track({{DBK_TITLE, "a track"}});
    db_object* folder = db_container_new(db_next_id(DB_OBJ_CONTAINER), "zz folder", 0);
    db_sort_prepare("+dc:title", DB_OBJ_CONTAINER, nullptr);
    EXPECT_EQ(-1, db_sort_compare(&folder, &item));
    // An item on the left goes on to the fields.
    EXPECT_EQ(-1, db_sort_compare(&item, &folder));
    db_sort_prepare("-dc:title", DB_OBJ_CONTAINER, nullptr);
    EXPECT_EQ(-1, db_sort_compare(&folder, &item));
    EXPECT_EQ(1, db_sort_compare(&item, &folder));
}

TEST_F(DbSort, TheAllFolderSortsFirstWhateverItsLetters)
{
    upnp_ini_set(UPNP_OPT_ALLNAME, "Zed");
    db_object* holder = db_container_new(db_next_id(DB_OBJ_CONTAINER), "h", 0);
    for (const char* t : {"Abc", "Zed", "Mmm"})
        db_container_add_child(holder, db_container_new(db_next_id(DB_OBJ_CONTAINER), t, 0));
    titles order = sorted("+dc:title", DB_OBJ_CONTAINER, nullptr, holder);
    upnp_ini_set(UPNP_OPT_ALLNAME, "");
    EXPECT_EQ((titles{"Zed", "Abc", "Mmm"}), order);
}

TEST_F(DbSort, ShuffleIsAPermutationThatRepeats)
{
    for (int i = 0; i < 40; i++)
        track({{DBK_TITLE, ("t" + std::to_string(i)).c_str()}});
    titles first = sorted("Philips:shuffle");
    titles second = sorted("Philips:shuffle");
    EXPECT_EQ(first, second);
    EXPECT_EQ(40u, std::set<std::string>(first.begin(), first.end()).size());
}

TEST_F(DbSort, SortingAContainerKeepsItsChildrenAndMarksItSorted)
{
    for (const char* t : {"c", "a", "b"})
        track({{DBK_TITLE, t}});
    int64_t used = db_object_get_used_mem();
    db_sort_prepare("+dc:title", DB_OBJ_MUSIC_CONTAINER, nullptr);
    db_container_sort(db_all_music);
    EXPECT_EQ('1', db_object_get_char(db_all_music, DBK_SORTED));
    EXPECT_STREQ("a", db_object_get_str(db_container_child(db_all_music, 0), DBK_TITLE));
    EXPECT_STREQ("c", db_object_get_str(db_container_child(db_all_music, 2), DBK_TITLE));
    EXPECT_EQ(used, db_object_get_used_mem());
    db_object* a = db_container_child(db_all_music, 0);
    EXPECT_EQ(a, db_get_pItem_by_id(a->id));
}

TEST_F(DbSort, LongSharedPrefixesAndEndsOrderLikeTheTextComparison)
{
    // Titles that agree beyond the first 16 positions, end inside them, or
    // hold bytes that fold to negative characters.
    const char* t[] = {"Song 0000000000001", "Song 0000000000002", "Song 000000000000", "Song 00000000000",
                       "song 0000000000001x", "\x80", "", "\xC3\xA4\x80", "\xC3\xA4", "A\x80", "A"};
    for (const char* title : t)
        track({{DBK_TITLE, title}});
    titles got = sorted("+dc:title");
    for (size_t i = 1; i < got.size(); i++) {
        SCOPED_TRACE(got[i]);
        EXPECT_LE(db_compare_text(got[i - 1].c_str(), got[i].c_str()), 0);
    }
}

// Many titles that share long prefixes or fold alike, in shuffled order:
// every sort must give exactly the order of a stable sort by the plain
// comparison, equal titles keeping the order they came in.
TEST_F(DbSort, LargeListsOrderLikeAStableSortByThePlainComparison)
{
    const char* stems[] = {"Song 0000000000000", "song 00000000000000", "Song 00", "S", "",
                           "\xC3\x84rger ist gut", "\xC3\xA4rger ist gut", "\xC3\x85sa", "Ar", "a\x80\x80",
                           "\x80", "\xFF\xFE", "Zed", "zed \xC3\xA9t\xC3\xA9", "Picture 00000000001"};
    std::vector<std::string> texts;
    for (int i = 0; i < 6000; i++) {
        std::string t = stems[i % 15];
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
    int dummy = 0;
    const HTTP_request* no_utf8 = reinterpret_cast<const HTTP_request*>(&dummy);
    db_set_client_flag_probe(probe_flags);
    struct order_case { const char* criteria; const HTTP_request* request; };
    for (const order_case& c : {order_case{"+dc:title", nullptr}, order_case{"-dc:title", nullptr},
                                order_case{"+dc:title", no_utf8}, order_case{"+upnp:genre,-dc:title", nullptr}}) {
        SCOPED_TRACE(std::string(c.criteria) + (c.request ? " no utf-8" : ""));
        db_sort_prepare(c.criteria, DB_OBJ_CONTAINER, c.request);
        std::vector<db_object*> want = input;
        std::stable_sort(want.begin(), want.end(),
                         [](db_object* a, db_object* b) { return db_sort_compare(&a, &b) < 0; });
        std::vector<db_object*> got = input;
        db_sort_objects(got.data(), int32_t(got.size()));
        EXPECT_TRUE(got == want);
    }
    db_sort_prepare("+dc:title", DB_OBJ_CONTAINER, nullptr);
    std::vector<db_object*> want = input;
    std::stable_sort(want.begin(), want.end(), [](db_object* a, db_object* b) { return db_sort_compare(&a, &b) < 0; });
    db_container_sort(db_all_music);
    std::vector<db_object*> got(want.size());
    db_container_children(db_all_music, got.data(), int32_t(got.size()));
    upnp_ini_set(UPNP_OPT_ALLNAME, "");
    EXPECT_TRUE(got == want);
    EXPECT_EQ("Zed", std::string(db_object_get_str(got[0], DBK_TITLE)));
}
