// Object ids and their texts, lookups by id and by path, the children list
// operations, and what a stream and a cover route need.
#include "database/db_id.h"

#include "unit/database/db_test_support.h"

#include <ctime>
#include <string>
#include <tuple>
#include <vector>

using DbId = DbStoreTest;

TEST_F(DbId, WordsHoldTypeAndBlockAndCountersRiseBeforeUseAndNeverRestart)
{
    upnp_switches.oid_seed = 120000;
    uint32_t id = db_make_id(7, DB_OBJ_PHOTO);
    EXPECT_EQ(std::make_tuple(120007u, uint32_t(DB_OBJ_PHOTO), 7u),
              std::make_tuple(id & DB_ID_SEQ_MASK, id >> DB_ID_TYPE_SHIFT, db_id_to_block(id)));
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
    db_object* item = add("/m/one.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "One"}});
    EXPECT_STREQ("268435466$1879048193", db_object_id_text(item, text, sizeof text));
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
        {"4", four}, {"4$", nullptr}, {"", nullptr}, {"-1", nullptr}, {nullptr, nullptr}, {"0\\Music\\", db_music_root},
        {"0\\AllMovie\\", db_all_video}, {"0\\Radio\\", nullptr} /* never filled */, {"0\\music\\", nullptr},
    };
    for (const lookup_case& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "null");
        EXPECT_EQ(c.found, db_get_item_by_id(c.text, nullptr));
    }
    EXPECT_EQ(db_root, db_get_item_by_id("0", db_client));          // no probe: no flags
    db_set_client_flag_probe(db_test_probe_flags);
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
    for (uint32_t none : {db_make_id(999, DB_OBJ_AUDIO), db_make_id(1, DB_OBJ_VIDEO_BROADCAST) /* empty slot */})
        EXPECT_EQ(nullptr, db_get_pItem_by_id(none));
    EXPECT_EQ(track, db_container_find(db_all_music, track->id));
    EXPECT_TRUE(!db_container_find(db_all_video, track->id) && !db_container_find(track, track->id));
    db_container_remove_child(db_all_music, track);
    EXPECT_EQ(nullptr, db_get_pItem_by_id(track->id));              // out of the tree
}

TEST_F(DbId, PathsLeadToTheirItemsByExactTextWhateverTheirHashAsTheIndexAndThePoolGrow)
{
    db_object* a = add("/music/a.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "a"}});
    db_object* b = add("/photos/b.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "b"}});
    EXPECT_EQ(uint32_t(a->id), upnp_cds_db_file_get_id_by_res("/music/a.mp3"));
    EXPECT_EQ(uint32_t(b->id), upnp_cds_db_file_get_id_by_res("/photos/b.jpg"));
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
        EXPECT_EQ(uint32_t(o->id), upnp_cds_db_file_get_id_by_res(p));
    }
    EXPECT_EQ(uint32_t(a->id), upnp_cds_db_file_get_id_by_res("/music/a.mp3"));
    // Each path is its title too, so that the string pool grows as well.
    std::vector<std::tuple<std::string, uint32_t, const char*>> added;
    for (int i = 0; i < 12000; i++) {
        std::string p = "/music/artist" + std::to_string(i % 37) + "/track" + std::to_string(i) + ".mp3";
        db_object* o = add(p, DB_OBJ_AUDIO, {{DBK_TITLE, p.c_str()}});
        ASSERT_NE(nullptr, o);
        added.push_back({p, o->id, db_object_get_str(o, DBK_TITLE)});
    }
    for (size_t i = 0; i < added.size(); i += 101) {
        auto [p, id, title] = added[i];
        SCOPED_TRACE(p);
        EXPECT_EQ(id, upnp_cds_db_file_get_id_by_res(p.c_str()));
        EXPECT_NE(nullptr, db_get_pItem_by_id(id));
        EXPECT_EQ(title, db_string_pool_add(p.c_str()));
        EXPECT_EQ(p, title);
    }
}

TEST_F(DbId, ADeletedItemLeavesAStalePairThatFindsNothingAndSeededIdsLeadBack)
{
    db_object_delete(add("/m/stale.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "s"}}));
    EXPECT_EQ(1, db_path_index_count());
    EXPECT_EQ(0u, upnp_cds_db_file_get_id_by_res("/m/stale.mp3"));
    db_object* again = add("/m/stale.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "s"}});
    ASSERT_NE(nullptr, again);
    EXPECT_EQ(uint32_t(again->id), upnp_cds_db_file_get_id_by_res("/m/stale.mp3"));
    upnp_switches.oid_seed = 120000;
    db_object* seeded = add("/p/seed.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "s"}});
    ASSERT_NE(nullptr, seeded);
    EXPECT_EQ(120000u + db_file_last_block(), db_object_seq(seeded));
    EXPECT_EQ(seeded, db_object_find_by_path("/p/seed.jpg"));
    EXPECT_EQ(1, db_object_remove("/p/seed.jpg"));           // frees the block, not the seeded number
    EXPECT_EQ(db_file_last_block(), db_file_free_head());
}

TEST_F(DbId, ChildAccessStaysInsideTheListAndHasAndFindTitleCompareExactly)
{
    EXPECT_EQ(db_music_root, db_container_child(db_root, 0));
    EXPECT_TRUE(!db_container_child(db_root, -1) && !db_container_child(db_root, 4));
    db_object* item = add("/m/Photo.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "Folder"}});
    EXPECT_EQ(nullptr, db_container_child(item, 0));
    EXPECT_EQ(0, db_container_child_count(item));
    db_object* out[8];
    EXPECT_EQ(4, db_container_children(db_root, out, 8));
    EXPECT_EQ(2, db_container_children(db_root, out, 2));
    EXPECT_EQ(db_picture_root, out[1]);
    db_object* list = folder(DB_OBJ_PLAYLIST_CONTAINER, "pl");
    db_object* track = ref(item, list, 1);
    EXPECT_EQ(1, db_container_has(list, track));
    EXPECT_EQ(0, db_container_has(list, item));
    EXPECT_EQ(1, db_container_has(db_all_music, item));
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
    EXPECT_EQ(before - 13 * 12 - 4 * (20 - 10), db_object_get_used_mem());
    EXPECT_EQ(std::make_tuple(f1, f2, update_id, '1', '0'),
              std::make_tuple(db_container_child(c, 0), db_container_child(c, 1), db_object_get_int(c, DBK_UPDATE_ID),
                              db_object_get_char(c, DBK_EVENT_PENDING), db_object_get_char(c, DBK_SORTED)));
    EXPECT_EQ(item, db_container_child(db_all_music, 0));
}

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

TEST_F(DbId, StreamLookupGivesPathAndDurationOfMediaItemsAndCountsPlaysOfAudio)
{
    db_object* a = add("/m/a.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "a"}, {DBK_DURATION, "0:03:35.000"}});
    db_object* zero = add("/m/z.mp3", DB_OBJ_AUDIO, {{DBK_PLAY_COUNT, "0"}});
    db_object* ts = add("/v/t.ts", DB_OBJ_VIDEO, {{DBK_EXTENSION, "spts"}, {DBK_DURATION, "0:01:00.000"}});
    db_object* photo = add("/p/p.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "p"}});
    db_object* r = ref(a, folder(DB_OBJ_MUSIC_ALBUM, "Album", db_music_root));
    int64_t before = int64_t(time(nullptr));
    struct { const char* name; db_object* o; std::string path; int32_t duration, plays; } cases[] = {
        {"track", a, "/m/a.mp3", 215000, 1},
        {"a reference stands for its target", r, "/m/a.mp3", 215000, 2},
        {"no duration, and zero plays become one", zero, "/m/z.mp3", 0, 1},
        {"transport stream of unknown end", ts, "/v/t.ts", -1, -1},
        {"a picture is no play", photo, "/p/p.jpg", 0, -1},
        {"a container is no media item", db_video_root, "(null)", 99, -1},
        {"nor is a text that finds nothing", nullptr, "(null)", 99, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int32_t duration = 99;
        std::string path = res_of(c.o, &duration);
        EXPECT_EQ(std::make_tuple(path, duration, db_object_get_int(c.o, DBK_PLAY_COUNT)),
                  std::make_tuple(c.path, c.duration, c.plays));
    }
    EXPECT_GE(db_object_get_int(a, DBK_LAST_PLAYED), before);
    for (auto [o, plays] : {std::pair{a, "2"}, std::pair{zero, "1"}})
        EXPECT_NE(db_test_read(db_id_to_block(o->id)).find(db_test_field(DBK_PLAY_COUNT, plays)), std::string::npos);
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
        {"folder of folders", outer, "(null)", -1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int64_t offset = 0, length = 0;
        char* path = db_get_album_art(id_of(c.o).c_str(), nullptr, &offset, &length);
        EXPECT_EQ(std::make_tuple(std::string(path ? path : "(null)"), offset, length),
                  std::make_tuple(std::string(c.path), c.offset, c.length));
        free(path);
    }
}
