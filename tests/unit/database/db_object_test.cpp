// The object store: record sizes and the memory account, the string pool,
// the accessors and their delegation, adding and removing items, change
// events and the browsing policy.
#include "database/db_object.h"

#include "config/upnp_ini.h"
#include "unit/database/db_test_support.h"

#include <ctime>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using DbObject = DbStoreTest;

TEST_F(DbObject, AccountCountsEachShapeAndSlotAtItsSizeAndDestroyEmptiesIt)
{
    int64_t base = db_object_get_used_mem();
    db_object* c = folder(DB_OBJ_CONTAINER, "c");
    db_object* item = add("/m/a.mp3", DB_OBJ_AUDIO, {{DBK_ALBUM, "A"}, {DBK_GENRE, "G"}});
    // Two slots, and the All container's first 10 child slots of 4 bytes.
    int64_t with_item = base + int64_t(sizeof(db_container) + sizeof(db_item) + 2 * sizeof(db_meta_entry)) + 40;
    EXPECT_EQ(with_item, db_object_get_used_mem());
    db_object* plain = ref(item);
    db_object* numbered = ref(item, nullptr, 3);
    EXPECT_EQ(with_item + int64_t(sizeof(db_ref) + sizeof(db_ref_track)), db_object_get_used_mem());
    for (db_object* o : {numbered, plain, c})
        db_object_free(o);
    db_object_set_str(item, DBK_ARTIST, "X");
    db_object_set_int(item, DBK_BITRATE, 128000);
    db_object_set_char(item, DBK_SOURCE_KIND, 'd');
    EXPECT_EQ(with_item - int64_t(sizeof(db_container) - 3 * sizeof(db_meta_entry)), db_object_get_used_mem());
    db_container_remove_child(db_all_music, item);
    int64_t detached = db_object_get_used_mem();
    db_object_free(item);
    EXPECT_EQ(detached - int64_t(sizeof(db_item) + 5 * sizeof(db_meta_entry)), db_object_get_used_mem());
    db_destroy();
    EXPECT_EQ(std::make_tuple(int64_t(0), 0, int64_t(0)),
              std::make_tuple(db_object_get_used_mem(), db_string_pool_count(), db_string_pool_get_used_mem()));
    db_create();                // for TearDown
}

TEST_F(DbObject, ChildrenGrowByTheRoundingRuleAndShrinkKeepingTheirOrder)
{
    db_object* c = folder(DB_OBJ_CONTAINER, "c");
    struct step { int count; int capacity; };
    const step steps[] = {{1, 10}, {10, 10}, {11, 20}, {100, 100}, {101, 200}, {250, 300}, {1500, 1500}};
    int64_t base = db_object_get_used_mem() - 24;
    std::vector<db_object*> kids;
    for (const step& s : steps) {
        SCOPED_TRACE(s.count);
        while (int(kids.size()) < s.count)
            kids.push_back(folder(DB_OBJ_CONTAINER, nullptr, c));
        EXPECT_EQ(base + 24 + 4 * s.capacity + 24 * int64_t(kids.size()), db_object_get_used_mem());
    }
    db_container_remove_child(c, kids[1]);
    db_container_remove_child(c, kids[1]);          // not there any more: nothing
    EXPECT_EQ(nullptr, db_object_parent(kids[1]));
    for (size_t i = 2; i < 1490; i++)
        db_container_remove_child(c, kids[i]);
    ASSERT_EQ(11, db_container_child_count(c));
    for (int i = 0; i < 11; i++)
        EXPECT_EQ(kids[i ? size_t(1489 + i) : 0], db_container_child(c, i));
    int64_t before = db_object_get_used_mem();
    db_container_remove_child(c, kids[1499]);       // the eleventh of eleven: back to ten slots
    ASSERT_EQ(10, db_container_child_count(c));     // the array closes before it is read
    EXPECT_EQ(before - 40, db_object_get_used_mem());
}

TEST_F(DbObject, PoolSharesOneCopyAndCountsItOnce)
{
    int32_t count = db_string_pool_count();
    int64_t used = db_string_pool_get_used_mem();
    std::string text = "Abbey Road";
    const char* a = db_string_pool_add(text.c_str());
    EXPECT_EQ(a, db_string_pool_add("Abbey Road"));
    EXPECT_NE(text.c_str(), a);
    EXPECT_EQ(2u, db_string_pool_refs(a));
    EXPECT_EQ(count + 1, db_string_pool_count());
    EXPECT_EQ(used + 10 + 13, db_string_pool_get_used_mem());
    EXPECT_NE(nullptr, db_string_pool_add(""));
    EXPECT_EQ(db_string_pool_add(""), db_string_pool_add(""));
    EXPECT_EQ(nullptr, db_string_pool_add(nullptr));
    EXPECT_EQ(0u, db_string_pool_refs("not pooled"));
}

// The text shows the order of the list: new pairs go in front.
TEST(DbMetaList, KeepsABorrowedValueAndWritesHexFieldsLeavingOutWhatIsEmptyOrTooLong)
{
    char borrowed[] = "kept by caller";
    db_meta_list* l = db_meta_list_add(db_meta_list_add(nullptr, DBK_TITLE, nullptr, 0), DBK_ARTIST, borrowed, 1);
    ASSERT_TRUE(l && !l->next);                         // a null value adds nothing
    EXPECT_EQ(borrowed, l->value);
    db_meta_list_free(l);
    EXPECT_STREQ("kept by caller", borrowed);

    std::string longest(1017, 'x'), over(1018, 'y');
    struct text_case { db_meta_list* list; std::string text; };
    const text_case cases[] = {
        {db_test_list({{DBK_TITLE, "Song"}, {DBK_ALBUM, ""}, {DBK_PATH, "/m/s.mp3"}}),
         ">>>>\n3C008/m/s.mp3\n14004Song\n0300214\n"},
        {db_test_list({{DBK_DESCRIPTION, longest.c_str()}, {DBK_KEYWORDS, over.c_str()}, {DBK_TITLE, "t"}}),
         ">>>>\n14001t\n1C3F9" + longest + "\n0300214\n"},
    };
    for (const text_case& c : cases) {
        upnp_string* s = db_meta_list_to_text(c.list);
        ASSERT_NE(nullptr, s);
        EXPECT_EQ(c.text, std::string(s->text));
        upnp_string_free(s);
        db_meta_list_free(c.list);
    }
}

// A read as text: 's' a text ("<null>" for none), 'i' a number, 'c' a
// character, 'k' the class.
static std::string read(const db_object* o, int32_t key, char kind)
{
    const char* text = kind == 's' ? db_object_get_str(o, key) : kind == 'k' ? db_object_class(o) : nullptr;
    return kind == 'i' ? std::to_string(db_object_get_int(o, key))
           : kind == 'c' ? std::string(1, db_object_get_char(o, key)) : text ? text : "<null>";
}

struct read_case { const char* why; const db_object* o; int32_t key; char kind; std::string want; };

TEST_F(DbObject, ReadsAnswerFromTheRecordTheSlotsOrWhatTheyDelegateTo)
{
    db_object* item = add("/m/t.mp3", DB_OBJ_AUDIO, {{DBK_TRACK, "7"}});
    db_object_set_char(item, DBK_SOURCE_KIND, 'h');
    db_object* plain = ref(item);
    db_object* numbered = ref(item, nullptr, 3);
    db_object* bare = add("/m/bare.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "only a title"}});
    db_object* tagged = add("/m/tagged.mp3", DB_OBJ_AUDIO, {{DBK_BITRATE, "128"}});
    db_object* video = add("/v/a.avi", DB_OBJ_VIDEO, {{DBK_BITRATE, "1"}});
    db_object* photo = add("/p/a.jpg", DB_OBJ_PHOTO, {{DBK_BITRATE, "1"}});
    db_object* album = folder(DB_OBJ_MUSIC_ALBUM, "Gold", db_music_root);
    ref(add("/m/g1.mp3", DB_OBJ_AUDIO, {{DBK_ALBUM, "Gold"}, {DBK_ARTIST, "Abba"}, {DBK_GENRE, "Pop"}}), album);
    ref(add("/m/g2.mp3", DB_OBJ_AUDIO, {{DBK_ALBUM, "Other"}, {DBK_ART_OFFSET, "4096"}}), album);
    db_object* various = folder(DB_OBJ_MUSIC_ALBUM, "Various");
    ref(add("/m/g3.mp3", DB_OBJ_AUDIO, {{DBK_ARTIST, "Abba"}, {DBK_ALBUM_ARTIST, "Various"}}), various);
    db_object* outer = folder(DB_OBJ_CONTAINER, "o");
    db_object* empty = folder(DB_OBJ_CONTAINER, "e", outer);
    upnp_ini_set(UPNP_OPT_ADAPTCASE, "1");
    db_object* adapted = add("/m/adapt.mp3", DB_OBJ_AUDIO, {{DBK_ARTIST, "the BEATLES"}, {DBK_DESCRIPTION, "the X"}});
    upnp_ini_set(UPNP_OPT_ADAPTCASE, "0");
    db_object* shadow = add("/m/gone.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "T"}, {DBK_ALBUM, "A"}, {DBK_BITRATE, "5"}});
    db_object_retype(shadow, DB_OBJ_SHADOW);
    const read_case cases[] = {
        {"title falls back", item, DBK_TITLE, 's', "Unknown"},
        {"no object", nullptr, DBK_TITLE, 's', "<null>"},
        // Audio without an artist is unknown only when it has some slot.
        {"bare album", bare, DBK_ALBUM, 's', "<null>"},
        {"audio artist", tagged, DBK_ARTIST, 's', "Unknown"},
        {"video genre", video, DBK_GENRE, 's', "Unknown"},
        {"video artist", video, DBK_ARTIST, 's', "<null>"},
        {"photo genre", photo, DBK_GENRE, 's', "<null>"},
        // Folders report their first track; the cover comes from any track.
        {"folder artist", album, DBK_ARTIST, 's', "Abba"},
        {"folder artist from the album artist", various, DBK_ARTIST, 's', "Various"},
        {"the track keeps its artist", db_container_child(various, 0), DBK_ARTIST, 's', "Abba"},
        {"folder cover", album, DBK_ART_OFFSET, 'i', "4096"},
        {"other keys look at the first track only", album, DBK_BITRATE + 1, 'i', "-1"},
        {"empty folder", empty, DBK_ALBUM, 's', "<null>"},
        {"folder of folders", outer, DBK_ALBUM, 's', "<null>"},
        {"shadow title", shadow, DBK_TITLE, 's', "<null>"},
        {"shadow number", shadow, DBK_BITRATE, 'i', "5"},
        {"track through a reference", plain, DBK_TRACK, 'i', "7"},
        {"track of a numbered reference", numbered, DBK_TRACK, 'i', "3"},
        {"track of a container", db_music_root, DBK_TRACK, 'i', "-2"},
        {"parent id", item, DBK_PARENT_ID, 'i', std::to_string(int32_t(db_music_root->id))},
        {"child count", various, DBK_CHILD_COUNT, 'i', "1"},
        {"target id", plain, DBK_TARGET_ID, 'i', std::to_string(int32_t(item->id))},
        {"character slot", item, DBK_SOURCE_KIND, 'c', "h"},
        {"names adapted to their case", adapted, DBK_ARTIST, 's', "Beatles, The"},
        {"other texts are not", adapted, DBK_DESCRIPTION, 's', "the X"},
        {"class of a music container", db_music_root, 0, 'k', "object.container.musicContainer"},
    };
    for (const read_case& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(c.want, read(c.o, c.key, c.kind));
    }
    EXPECT_EQ(DB_OBJ_SHADOW, db_object_type_of(shadow));
    EXPECT_EQ(item, db_object_get_ptr(plain, DBK_TARGET));
    EXPECT_STREQ("Music", static_cast<const char*>(db_object_get_ptr(db_music_root, DBK_TARGET)));
}

// In order: each row sees what the rows before it wrote.
struct write_case {
    const char* why; db_object* o; int32_t key; char kind; const char* value; int result; std::string want;
};

TEST_F(DbObject, WritesChangeOnlyWhatDiffersInTheRightShape)
{
    db_object* c = db_container_new(db_next_id(DB_OBJ_CONTAINER), "c", 1);
    db_object* item =
        add("/m/case.mp3", DB_OBJ_AUDIO, {{DBK_ALBUM, "gold"}, {DBK_TITLE, "song"}, {DBK_DESCRIPTION, "d"}});
    db_object* kids = folder(DB_OBJ_CONTAINER, "k");
    folder(DB_OBJ_CONTAINER, "a", kids);
    db_object* b = folder(DB_OBJ_CONTAINER, "b", kids);
    db_object* numbered = ref(item, nullptr, 3);
    std::string container_id = std::to_string(uint32_t(DB_OBJ_CONTAINER) << DB_ID_TYPE_SHIFT | 5);
    std::string item_id = std::to_string(int32_t(item->id));
    const write_case cases[] = {
        {"flag already set", c, DBK_RESTRICTED, 'c', "1", 0, "1"},
        {"anything but 1 clears", c, DBK_RESTRICTED, 'c', "x", 1, "0"},
        {"a zero byte adds nothing", item, DBK_SOURCE_KIND, 'c', "", 0, "0"},
        {"one byte", item, DBK_SOURCE_KIND, 'c', "h", 1, "h"},
        {"a change of case alone", item, DBK_ALBUM, 's', "GOLD", 0, "gold"},
        {"is a change for titles", item, DBK_TITLE, 's', "SONG", 1, "SONG"},
        {"null on no slot", item, DBK_KEYWORDS, 's', nullptr, 0, "<null>"},
        {"null clears a slot", item, DBK_DESCRIPTION, 's', nullptr, 1, "<null>"},
        {"a number into a text key", item, DBK_ALBUM, 'i', "5", 0, "-1"},
        {"a text into a number key", item, DBK_BITRATE, 's', "5", 0, "<null>"},
        {"containers take no slots", c, DBK_ALBUM, 's', "A", 0, "<null>"},
        {"but a title", c, DBK_TITLE, 's', "Tunes", 1, "Tunes"},
        {"track of a numbered reference", numbered, DBK_TRACK, 'i', "4", 1, "4"},
        {"track of a container", c, DBK_TRACK, 'i', "4", 0, "-2"},
        {"an id of another shape", item, DBK_OBJECT_ID, 'i', container_id.c_str(), 0, item_id},
        {"child count never grows", kids, DBK_CHILD_COUNT, 'i', "5", 0, "2"},
        {"child count shrinks", kids, DBK_CHILD_COUNT, 'i', "1", 1, "1"},
    };
    for (const write_case& w : cases) {
        SCOPED_TRACE(w.why);
        int result = w.kind == 's'   ? db_object_set_str(w.o, w.key, w.value)
                     : w.kind == 'i' ? db_object_set_int(w.o, w.key, atoi(w.value))
                                     : db_object_set_char(w.o, w.key, w.value[0]);
        EXPECT_EQ(w.result, result);
        EXPECT_EQ(w.want, read(w.o, w.key, w.kind));
    }
    EXPECT_EQ(nullptr, db_object_parent(b));
    uint32_t video_id = uint32_t(DB_OBJ_VIDEO) << DB_ID_TYPE_SHIFT | 99;
    EXPECT_EQ(1, db_object_set_int(item, DBK_OBJECT_ID, int32_t(video_id)));
    EXPECT_EQ(video_id, uint32_t(item->id));
}

TEST_F(DbObject, SizeTextBecomesANumberBelowTheLimitAndSlotsStopAtTheirCap)
{
    db_object* item = add("/m/size.mp3", DB_OBJ_AUDIO, {});
    EXPECT_EQ(1, db_object_set_str(item, DBK_SIZE_TEXT, "2147483646"));
    EXPECT_EQ(2147483646, db_object_get_int(item, DBK_SIZE));
    EXPECT_EQ(nullptr, db_object_get_str(item, DBK_SIZE_TEXT));
    db_object* big = add("/m/big.mp3", DB_OBJ_AUDIO, {});
    EXPECT_EQ(1, db_object_set_str(big, DBK_SIZE_TEXT, "2147483647"));
    EXPECT_STREQ("2147483647", db_object_get_str(big, DBK_SIZE_TEXT));
    EXPECT_EQ(-1, db_object_get_int(big, DBK_SIZE));
    for (int key = 100; key < 1200; key++)
        db_object_set_str(item, key, "v");
    EXPECT_EQ(1001, db_object_meta_count(item));
    EXPECT_STREQ("v", db_object_get_str(item, 1199));
    EXPECT_EQ(nullptr, db_object_get_str(item, 1100));   // overwritten by later keys
}

TEST_F(DbObject, ApplyMetaStoresEachKeyByItsClassAndClampsNumbersTo32Bits)
{
    db_object* item = add("/m/apply.mp3", DB_OBJ_AUDIO, {});
    db_meta_list* l = db_test_list({{DBK_ALBUM, "Album"}, {DBK_SOURCE_KIND, "dfile"}, {DBK_OBJECT_ID, "5"},
                                    {DBK_MIME_OVERRIDE, "x"}, {DBK_TITLE, "Title"}});
    EXPECT_EQ(1, db_object_apply_meta(item, l));
    EXPECT_EQ(0, db_object_apply_meta(item, l));                    // the same again changes nothing
    db_meta_list_free(l);
    // The override's key class is none: ignored.
    EXPECT_EQ("Album Title d <null>", read(item, DBK_ALBUM, 's') + " " + read(item, DBK_TITLE, 's') + " "
                  + read(item, DBK_SOURCE_KIND, 'c') + " " + read(item, DBK_MIME_OVERRIDE, 's'));
    EXPECT_NE(5u, uint32_t(item->id));
    struct meta_case { int32_t key; const char* text; int32_t value; };
    static const meta_case cases[] = {
        {DBK_BITRATE, " 128kbps", 128}, {DBK_BITRATE, "4294967297", INT32_MAX}, {DBK_BITRATE, "-4294967297", INT32_MIN},
        {DBK_DURATION, "1:02:03.500", 3723000} /* the fraction is dropped */, {DBK_DURATION, "0:00:05:250", 5250},
        {DBK_DURATION, "0:0:0:99999999999", INT32_MAX},
    };
    for (const meta_case& c : cases) {
        SCOPED_TRACE(c.text);
        l = db_test_list({{c.key, c.text}});
        db_object_apply_meta(item, l);
        EXPECT_EQ(c.value, db_object_get_int(item, c.key));
        db_meta_list_free(l);
    }
}

TEST_F(DbObject, AddEntersTheItemInItsAllContainerWritesOnlyANewRecordAndRefusesWhatHasNoPlace)
{
    db_object* item = add("/m/new.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "New"}});
    ASSERT_NE(nullptr, item);
    EXPECT_EQ(db_all_music, db_object_parent(item));
    EXPECT_GT(db_get_last_change(), 0);
    std::string raw = db_test_raw("/m/loaded.mp3", DB_OBJ_AUDIO);
    uint32_t block = db_file_store(raw.c_str(), int32_t(raw.size()));            // a record from the file
    EXPECT_EQ(item, add("/m/new.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "New"}}));      // an unchanged rescan
    db_meta_list* l = db_test_list({{DBK_TITLE, "Loaded"}});
    db_object* loaded = db_object_add(l, "/m/loaded.mp3", DB_OBJ_AUDIO, block, nullptr, 0);
    db_meta_list_free(l);
    ASSERT_NE(nullptr, loaded);
    EXPECT_EQ(db_make_id(block, DB_OBJ_AUDIO), uint32_t(loaded->id));
    EXPECT_EQ(loaded, db_object_find_by_path("/m/loaded.mp3"));
    // Neither the rescan nor the load wrote: the new item's record is the reader's text.
    EXPECT_EQ(block, db_file_last_block());
    EXPECT_EQ(db_test_raw("/m/new.mp3", DB_OBJ_AUDIO), db_test_read(db_id_to_block(item->id)));
    for (int type : {int(DB_OBJ_CONTAINER), int(DB_OBJ_AUDIO_BROADCAST), int(DB_OBJ_AUDIO_STREAM), int(DB_OBJ_REF),
                     int(DB_OBJ_SHADOW), 24}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(nullptr, add("/x/" + std::to_string(type), type, {{DBK_TITLE, "t"}}));
    }
    l = db_test_list({{DBK_TITLE, "t"}});
    EXPECT_EQ(nullptr, db_object_add(l, nullptr, DB_OBJ_AUDIO, 5, nullptr, 0));
    EXPECT_EQ(nullptr, db_object_add(nullptr, "/m/n.mp3", DB_OBJ_AUDIO, 5, nullptr, 0));
    // Types 12 and 18 have no "All" container: nothing is kept.
    EXPECT_EQ(nullptr, db_object_add(l, "/m/movie", DB_OBJ_VIDEO_MOVIE, 9, nullptr, 0));
    db_meta_list_free(l);
    EXPECT_EQ(0, db_count_videos());
    EXPECT_EQ(2, db_count_music());
    db_set_record_store(nullptr);     // no record store: no new files
    EXPECT_EQ(nullptr, add("/m/nofile.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "t"}}));
}

TEST_F(DbObject, AChangedFileIsRewrittenInPlaceAndRefiledAndARemovedOneTakesItsReferencesAndRecord)
{
    db_object* item = add("/m/upd.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "Old"}});
    uint32_t id = item->id;
    db_object* album = folder(DB_OBJ_MUSIC_ALBUM, "f", db_root);
    ref(item, album);
    static int rules;
    rules = 0;
    db_set_tree_rules([](db_object*, db_object*, db_object*, const char*) { rules++; });
    db_object* updated = add("/m/upd.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "New"}});
    EXPECT_EQ(item, updated);
    EXPECT_EQ(id, uint32_t(updated->id));
    EXPECT_NE(std::string::npos, db_test_read(db_id_to_block(id)).find(db_test_field(DBK_TITLE, "New")));
    EXPECT_EQ(0, db_container_child_count(album));           // its old references are gone
    EXPECT_EQ(1, db_take_container_sweep());
    EXPECT_EQ(0, db_take_container_sweep());                  // taken once
    EXPECT_EQ(1, rules);
    EXPECT_EQ(1, db_count_music());                           // still once in All
    EXPECT_STREQ("New", db_object_get_str(item, DBK_TITLE));
    db_object* list = folder(DB_OBJ_PLAYLIST_CONTAINER, "pl", db_music_root);
    ref(item, list, 1);
    ref(item, list, 2);
    EXPECT_EQ(1, db_object_remove("/m/upd.mp3"));
    EXPECT_EQ(0, db_container_child_count(list));
    EXPECT_EQ(db_id_to_block(id), db_file_free_head());
    EXPECT_EQ(0, db_object_remove("/m/upd.mp3"));
    EXPECT_EQ(0, db_object_remove(nullptr));
    EXPECT_EQ(1, db_count_music());                            // only the playlist folder is left
}

TEST_F(DbObject, MemoryLimitRefusesEveryLaterFile)
{
    ASSERT_NE(nullptr, add("/m/fits.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "fits"}}));
    db_string_pool_add(std::string(2000, 'p').c_str());
    g_db_max_mem = 1;               // 1 KiB, long passed
    EXPECT_EQ(nullptr, add("/m/over.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "over"}}));
    EXPECT_EQ(nullptr, add("/m/fits.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "changed"}}));
    EXPECT_EQ(1, db_count_music());
    g_db_max_mem = 0;
    EXPECT_NE(nullptr, add("/m/over.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "over"}}));
}

// Each event as the sink saw it, and whether another thread could take the
// lock meanwhile: the sink runs without it.
struct event_seen { uint32_t id; std::string list; bool had_list; bool lock_free; };
static std::vector<event_seen> events_seen;

class DbEvents : public DbStoreTest {
protected:
    std::vector<event_seen>& seen = events_seen;
    void SetUp() override
    {
        DbStoreTest::SetUp();
        seen.clear();
        db_set_event_sink([](uint32_t id, const char* list) {
            bool lock_free = false;
            std::thread([&lock_free] { db_lock(); db_unlock(); lock_free = true; }).join();
            events_seen.push_back({id, list ? list : "", !!list, lock_free});
        });
    }
};

TEST_F(DbEvents, ChangesWithinTwoSecondsMakeOneEventAndEventsComeAtMostEveryTwoSeconds)
{
    uint32_t before = db_get_system_update_id();
    int32_t music_uid = db_object_get_int(db_music_root, DBK_UPDATE_ID);
    db_container_mark_changed(db_music_root);
    db_container_mark_changed(db_music_root);          // still pending: no second raise
    db_container_mark_changed(db_video_root);
    db_event_check(5000);
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ(std::make_pair(before + 1, true), std::make_pair(seen[0].id, seen[0].lock_free));
    char m[DB_ID_TEXT_SIZE], v[DB_ID_TEXT_SIZE];
    db_object_id_text(db_music_root, m, sizeof m);
    db_object_id_text(db_video_root, v, sizeof v);
    EXPECT_EQ(std::string(m) + "," + std::to_string(music_uid + 1) + "," + v + "," +
                  std::to_string(db_object_get_int(db_video_root, DBK_UPDATE_ID)),
              seen[0].list);
    db_container_mark_changed(db_music_root);
    db_event_check(5001);                               // at most one event every two seconds
    EXPECT_EQ(1u, seen.size());
    db_event_check(5002);
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(seen[0].id + 1, seen[1].id);
    db_event_check(5010);
    EXPECT_EQ(2u, seen.size());                         // nothing new is dirty
}

TEST_F(DbEvents, PolicyCoversTheFourMediaKindsAndRepeatsAnEmptyEventUntilAContainerChanges)
{
    uint32_t before = db_get_system_update_id();
    EXPECT_EQ(0, db_set_browsing_policy(DB_OBJ_CONTAINER, 0));
    EXPECT_EQ(0, db_set_browsing_policy(DB_OBJ_AUDIO_BROADCAST, 0));
    EXPECT_EQ(1, db_set_browsing_policy(DB_OBJ_PHOTO, 0));
    EXPECT_EQ(1, db_set_browsing_policy(DB_OBJ_AUDIO, 0));
    size_t first = seen.size();
    ASSERT_GE(first, 1u);                               // sent at once
    EXPECT_FALSE(seen.back().had_list);
    EXPECT_EQ(before, seen.back().id);
    for (auto [type, allowed] : {std::pair{2, 0}, {6, 0}, {14, 0}, {3, 0}, {13, 0}, {4, 1}, {16, 1}, {0, 1}, {22, 1}})
        EXPECT_EQ(allowed, db_browsing_allowed(type)) << type;
    db_set_browsing_policy(DB_OBJ_PHOTO, 1);
    EXPECT_EQ(1, db_browsing_allowed(DB_OBJ_PHOTO_ALBUM));
    first = seen.size();
    int64_t now = int64_t(time(nullptr)) + 10;
    db_event_check(now);
    db_event_check(now + 2);
    EXPECT_EQ(first + 2, seen.size());
    EXPECT_EQ(before, seen.back().id);
    db_container_mark_changed(db_music_root);
    db_event_check(now + 4);
    db_event_check(now + 6);
    EXPECT_EQ(first + 3, seen.size());
    EXPECT_TRUE(seen.back().had_list);
    EXPECT_EQ(before + 1, seen.back().id);
    db_set_browsing_policy(DB_OBJ_AUDIO, 1);
}

TEST_F(DbEvents, AnOverlongListGoesOutInParts)
{
    std::vector<db_object*> folders;
    // About 22 characters a pair: two events' worth.
    for (int i = 0; i < 1000; i++) {
        folders.push_back(folder(DB_OBJ_MUSIC_ALBUM, "f", db_music_root));
        db_container_mark_changed(folders.back());
    }
    uint32_t before = db_get_system_update_id();
    db_event_check(7000);
    ASSERT_EQ(1u, seen.size());
    EXPECT_GE(seen[0].list.size(), 20001u);
    EXPECT_EQ(before, seen[0].id);                      // the id rises only with a whole list
    db_event_check(7002);
    ASSERT_EQ(2u, seen.size());
    EXPECT_LT(seen[1].list.size(), 20000u);
    EXPECT_EQ(before + 1, seen[1].id);
    for (db_object* f : folders)
        ASSERT_EQ('0', db_object_get_char(f, DBK_EVENT_PENDING));
}

