// The block file: record chains, the free list, folder times, damaged
// files, the version marker and reset, loading into the store and imports.
#include "database/db_file.h"

#include "config/upnp_ini.h"
#include "database/db_tree.h"
#include "runtime/upnp_file.h"
#include "support/test_support.h"
#include "unit/database/db_test_support.h"

#include <algorithm>
#include <map>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

// A block file built byte by byte, for the shapes a damaged file can take.
// The header keeps the free list head at 16 and folder slots from 20 on.
struct db_image {
    std::string bytes = std::string(512, '\0');
    db_image() { memcpy(&bytes[0], DB_FILE_VERSION, strlen(DB_FILE_VERSION) + 1); }

    void put32(size_t at, uint32_t v)
    {
        bytes.resize(std::max(bytes.size(), at + 4));
        for (int i = 0; i < 4; i++)
            bytes[at + i] = char(v >> (8 * i));
    }
    uint32_t get32(size_t at) const
    {
        const uint8_t* b = reinterpret_cast<const uint8_t*>(&bytes[at]);
        return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    }
    void block(uint32_t n, uint32_t length, char kind, uint32_t next, const std::string& payload = "")
    {
        bytes.resize(std::max(bytes.size(), size_t(n + 1) * 512));
        put32(n * 512, length);
        bytes[n * 512 + 4] = kind;
        put32(n * 512 + 6, next);
        memcpy(&bytes[n * 512 + 10], payload.data(), payload.size() < 502 ? payload.size() : 502);
    }
};

static std::string db_text(size_t n, char seed)
{
    std::string s(n, ' ');
    for (size_t i = 0; i < n; i++)
        s[i] = char('a' + (seed + i * 7) % 26);
    return s;
}

static std::map<uint32_t, std::string> db_records(db_file_walk_result* result = nullptr)
{
    std::map<uint32_t, std::string> found;
    db_file_walk_result r;
    db_file_walk(nullptr, [](uint32_t block, const char* text, int32_t length, void* context) {
        (*static_cast<std::map<uint32_t, std::string>*>(context))[block] = std::string(text, size_t(length));
    }, &found, &r);
    if (result)
        *result = r;
    return found;
}

static uint32_t db_store(const std::string& text)
{
    return db_file_store(text.data(), int32_t(text.size()));
}

static int db_rewrite(uint32_t block, const std::string& text)
{
    upnp_string* s = upnp_string_append_bytes(nullptr, text.data(), int32_t(text.size()));
    int ok = db_file_rewrite(block, s);
    upnp_string_free(s);
    return ok;
}

static db_image db_image_now()
{
    const uint8_t* b = nullptr;
    size_t n = db_file_memory_image(&b);
    db_image image;
    image.bytes.assign(reinterpret_cast<const char*>(b), n);
    return image;
}

static bool db_exists(const std::string& path)
{
    return !access(path.c_str(), F_OK);
}

static int32_t db_stopped() { return 0; }

struct DbFileMemory : ::testing::Test {
    void SetUp() override { ASSERT_TRUE(db_file_open_memory(nullptr, 0)); }
    void TearDown() override { db_file_close(); }
};
using DbFileDamage = DbFileMemory;

struct DbFileDir : ::testing::Test {
    test_dir dir;
    std::string dbdir = dir.file("db");
    int32_t saved_full_mode = upnp_switches.full_mode;

    void SetUp() override
    {
        upnp_switches.full_mode = 1;
        mkdir(dbdir.c_str(), 0755);
        upnp_ini_set(UPNP_OPT_DBDIR, dbdir.c_str());
    }
    void TearDown() override
    {
        db_file_close();
        upnp_ini_set(UPNP_OPT_DBDIR, "");
        upnp_switches.full_mode = saved_full_mode;
    }
};

struct chain_case { int32_t length; uint32_t blocks; };
static const chain_case chain_cases[] = {
    {2, 1}, {502, 1}, {503, 0} /* a first piece of one byte */, {504, 2}, {1004, 2}, {1005, 0}, {1006, 3},
    {1, 0}, {0, 0}, {int32_t(DB_FILE_RECORD_MAX) + 2, 0} /* too long to read back: refused */,
};

TEST_F(DbFileMemory, RecordLengthsTakeTheBlocksOfTheFormat)
{
    for (const chain_case& c : chain_cases) {
        SCOPED_TRACE(c.length);
        std::string text = db_text(size_t(c.length), char(c.length));
        uint32_t before = db_file_last_block();
        uint32_t block = db_store(text);
        EXPECT_EQ(c.blocks, db_file_last_block() - before);
        if (!c.blocks) {
            EXPECT_EQ(0u, block);
            continue;
        }
        EXPECT_EQ(text, db_test_read(block));
    }
    char payload[503] = {};
    EXPECT_EQ(0u, db_file_write_block(payload, 503, 'c', 0));
    EXPECT_NE(0u, db_file_write_block(payload, 502, 'c', 0));
}

TEST_F(DbFileMemory, FreedBlocksAreReusedLastFreedFirst)
{
    uint32_t a = db_store(db_text(1004, 1));    // a start block and one continuation
    uint32_t b = db_store(db_text(100, 2));
    uint32_t continuation = db_image_now().get32(a * 512 + 6);
    ASSERT_NE(0u, continuation);
    uint32_t last = db_file_last_block();
    db_file_free_chain(a);
    EXPECT_EQ(continuation, db_file_free_head());
    EXPECT_EQ("", db_test_read(a));                        // a free block holds no record
    EXPECT_EQ(continuation, db_store(db_text(100, 3)));
    EXPECT_EQ(a, db_store(db_text(100, 4)));
    EXPECT_EQ(last, db_file_last_block());
    EXPECT_EQ(0u, db_file_free_head());
    EXPECT_EQ(last + 1, db_store(db_text(100, 5)));
    EXPECT_EQ(db_text(100, 2), db_test_read(b));
}

TEST_F(DbFileMemory, RewriteKeepsTheFirstBlockAndFreesTheRestOrLeavesTheOldRecord)
{
    uint32_t block = db_store(db_text(1500, 1));   // three blocks
    uint32_t other = db_store(db_text(300, 2));
    uint32_t last = db_file_last_block();
    uint32_t continuation = db_image_now().get32(block * 512 + 6);
    EXPECT_FALSE(db_rewrite(block, db_text(503, 2)));
    EXPECT_FALSE(db_rewrite(continuation, db_text(100, 2)));   // not a start block
    EXPECT_FALSE(db_rewrite(last + 50, db_text(100, 2)));      // past the end
    EXPECT_EQ(db_text(1500, 1), db_test_read(block));
    ASSERT_TRUE(db_rewrite(block, db_text(100, 3)));
    EXPECT_EQ(db_text(100, 3), db_test_read(block));
    // The two freed continuations hold the next two-block record.
    uint32_t again = db_store(db_text(1004, 4));
    EXPECT_EQ(last, db_file_last_block());
    EXPECT_EQ(db_text(1004, 4), db_test_read(again));
    ASSERT_TRUE(db_rewrite(block, db_text(2000, 5)));
    EXPECT_EQ(db_text(2000, 5), db_test_read(block));
    EXPECT_EQ(db_text(300, 2), db_test_read(other));
    EXPECT_EQ(db_text(1004, 4), db_test_read(again));
    EXPECT_EQ(3u, db_records().size());
}

// Three records: block 1 (two blocks, 1-2), block 3 (the victim, 3-4), block 5.
static db_image db_three_records()
{
    db_image image;
    image.block(1, 2, 's', 2, "ab");
    image.block(2, 502, 'c', 0, db_text(502, 1));
    image.block(3, 2, 's', 4, "cd");
    image.block(4, 502, 'c', 0, db_text(502, 2));
    image.block(5, 10, 's', 0, db_text(10, 3));
    return image;
}

// Damage to record 3's chain loses that record alone; a broken free list or
// folder entries that are no folder records lose nothing. One shape per
// check in the reader; the other shapes are fuzz seeds.
struct damage_case { const char* name; bool victim_lost; void (*damage)(db_image&); };
static const damage_case damage_cases[] = {
    {"continuation loops to itself", true, [](db_image& i) { i.put32(4 * 512 + 6, 4); }},
    {"next points past the end", true, [](db_image& i) { i.put32(3 * 512 + 6, 90000); }},
    {"start length 503", true, [](db_image& i) { i.put32(3 * 512, 503); }},
    {"continuation length lies", true, [](db_image& i) { i.put32(4 * 512, 100); }},
    {"continuation is free", true, [](db_image& i) { i.bytes[4 * 512 + 4] = 'x'; }},
    {"free list head is a live start block", false, [](db_image& i) { i.put32(16, 3); }},
    {"free list head is past the end", false, [](db_image& i) { i.put32(16, 77); }},
    {"folder entries name a record and a block past the end", false,
     [](db_image& i) { i.put32(20, 3); i.put32(24, 900); }},
};

TEST_F(DbFileDamage, DamagedRecordsAreSkippedTheRestLoadsAndWritesSpareIt)
{
    for (const damage_case& c : damage_cases) {
        SCOPED_TRACE(c.name);
        db_image image = db_three_records();
        c.damage(image);
        ASSERT_TRUE(db_file_open_memory(image.bytes.data(), image.bytes.size()));
        db_file_walk_result result;
        std::map<uint32_t, std::string> expected = db_records(&result);
        EXPECT_EQ("ab" + db_text(502, 1), expected[1]);
        EXPECT_EQ(db_text(10, 3), expected[5]);
        EXPECT_EQ(c.victim_lost ? 0u : 1u, expected.count(3));
        EXPECT_EQ(c.victim_lost ? 1u : 0u, result.skipped);
        EXPECT_EQ(0, db_file_get_folder_time("cd"));
        uint32_t free_head = db_file_free_head();
        db_file_prune_folders();
        EXPECT_EQ(free_head, db_file_free_head());
        db_file_set_folder_time("A|/new", 9);
        EXPECT_EQ(9, db_file_get_folder_time("A|/new"));
        for (int i = 0; i < 6; i++) {
            std::string text = db_text(size_t(200 + 300 * i), char(i));
            uint32_t block = db_store(text);
            ASSERT_NE(0u, block);
            ASSERT_EQ(0u, expected.count(block));
            expected[block] = text;
        }
        EXPECT_EQ(expected, db_records());
        db_file_free_chain(3);
        EXPECT_EQ("ab" + db_text(502, 1), db_test_read(1));
        EXPECT_EQ(db_text(10, 3), db_test_read(5));
    }
}

TEST_F(DbFileDir, VersionMarkerAndResetDecideWhatIsKeptAndWithoutAFolderNothingOpens)
{
    db_image image = db_three_records();
    memcpy(&image.bytes[0], "9.9", 4);
    std::string path = dbdir + "/velmoramedia.main.db";
    ASSERT_TRUE(test_write_file(path, image.bytes));
    mkdir((dbdir + "/watch").c_str(), 0755);
    ASSERT_TRUE(test_write_file(dbdir + "/watch/change1", "x"));
    ASSERT_TRUE(db_file_open());
    EXPECT_EQ(db_image().bytes, test_read_file(path));
    EXPECT_TRUE(db_exists(dbdir + "/" + DB_FILE_VERSION));
    EXPECT_FALSE(db_exists(dbdir + "/watch/change1"));
    uint32_t block = db_store(db_text(800, 1));
    db_file_close();
    ASSERT_TRUE(test_write_file(dbdir + "/watch/change2", "x"));
    ASSERT_TRUE(db_file_open());
    EXPECT_TRUE(db_exists(dbdir + "/watch/change2"));
    db_file_request_reset();
    db_file_close();
    EXPECT_FALSE(db_exists(dbdir + "/watch/change2"));
    EXPECT_FALSE(db_file_reset_requested());
    ASSERT_TRUE(db_file_open());
    EXPECT_EQ(db_text(800, 1), db_test_read(block));
    db_file_close();
    upnp_ini_set(UPNP_OPT_DBDIR, "");
    EXPECT_FALSE(db_file_open());
    EXPECT_EQ(std::make_tuple(0, 0u, int64_t(0)),
              std::make_tuple(db_file_is_open(), db_store(db_text(10, 1)), db_file_get_folder_time("A|/x")));
}

TEST_F(DbFileMemory, FolderTimesAreSetOverwrittenAndFoundAndTheirCountAndNamesBounded)
{
    db_file_set_folder_time("A|/music", 100);
    db_file_set_folder_time("P|/photos", 200);
    uint32_t last = db_file_last_block();
    db_file_set_folder_time("A|/music", 300);
    EXPECT_EQ(last, db_file_last_block());
    auto at = [](const std::string& folder) { return int(db_file_get_folder_time(folder.c_str())); };
    EXPECT_EQ(std::make_tuple(300, 200, 0), std::make_tuple(at("A|/music"), at("P|/photos"), at("A|/Music")));
    std::string longest(493, 'n'), too_long(494, 'n');
    db_file_set_folder_time(longest.c_str(), 7);
    db_file_set_folder_time(too_long.c_str(), 8);
    EXPECT_EQ(std::make_pair(7, 0), std::make_pair(at(longest), at(too_long)));
    for (int i = 3; i < 123; i++)                          // three slots are taken
        db_file_set_folder_time(("A|/f" + std::to_string(i)).c_str(), 1000 + i);
    // The 122nd folder is kept, a 123rd dropped.
    EXPECT_EQ(std::make_pair(1121, 0), std::make_pair(at("A|/f121"), at("A|/f122")));
}

TEST_F(DbFileMemory, PruneDropsFoldersNoLongerSharedAndFreesTheirBlocks)
{
    db_file_set_folder_time("A|/keep", 1);
    db_file_set_folder_time("A|/gone", 2);
    db_file_set_folder_time("M|/also", 3);
    uint32_t gone = db_image_now().get32(24);
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+A|/keep,-M|/also");
    db_file_prune_folders();
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "");
    EXPECT_EQ(1, db_file_get_folder_time("A|/keep"));
    EXPECT_EQ(0, db_file_get_folder_time("A|/gone"));
    EXPECT_EQ(3, db_file_get_folder_time("M|/also"));       // disabled, still configured
    EXPECT_EQ(gone, db_file_free_head());
}

struct DbFileStore : DbStoreTest {
    test_dir dir;
    int32_t saved_full_mode = upnp_switches.full_mode;
    void SetUp() override
    {
        upnp_switches.full_mode = 1;
        DbStoreTest::SetUp();
        upnp_ini_set(UPNP_OPT_DBDIR, dir.path.c_str());
    }
    void TearDown() override
    {
        db_file_set_playlist_handlers(nullptr, nullptr);
        DbStoreTest::TearDown();
        upnp_ini_set(UPNP_OPT_DBDIR, "");
        upnp_switches.full_mode = saved_full_mode;
    }
    void restart()
    {
        std::string image = db_image_now().bytes;
        DbStoreTest::TearDown();
        DbStoreTest::SetUp();
        ASSERT_TRUE(db_file_open_memory(image.data(), image.size()));
    }
};

// The first item's record is the reader's text; the second, changed, is
// written by the store from its slots, over two blocks.
TEST_F(DbFileStore, ItemsComeBackAfterARestartWithTheirIdsAndTheirLastRecord)
{
    ASSERT_TRUE(submit({{DBK_TITLE, "One"}, {DBK_TYPE, "14"}, {DBK_PATH, "/m/one.mp3"}, {DBK_SOURCE_KIND, "d"}}));
    ASSERT_TRUE(submit({{DBK_TITLE, "Old"}, {DBK_TYPE, "16"}, {DBK_PATH, "/v/clip.mp4"}}));
    uint32_t one = db_object_find_by_path("/m/one.mp3")->id, clip = db_object_find_by_path("/v/clip.mp4")->id;
    std::string genre(900, 'g');
    ASSERT_TRUE(submit({{DBK_TITLE, "Clip"}, {DBK_GENRE, genre.c_str()}, {DBK_SIZE_TEXT, "3000000000"},
                        {DBK_DURATION, "0:03:25"}, {DBK_TYPE, "16"}, {DBK_PATH, "/v/clip.mp4"}}));
    EXPECT_EQ(2u, db_records().size());
    restart();
    EXPECT_EQ(nullptr, db_object_find_by_path("/m/one.mp3"));
    db_file_load_all(nullptr);
    db_object* a = db_object_find_by_path("/m/one.mp3");
    db_object* v = db_object_find_by_path("/v/clip.mp4");
    ASSERT_TRUE(a && v);
    auto t = [](db_object* o, int32_t key) { return std::string(db_object_get_str(o, key)); };
    EXPECT_EQ(std::make_tuple(one, clip, "One", 'd', "Clip", genre, "3000000000", 205000),
              std::make_tuple(uint32_t(a->id), uint32_t(v->id), t(a, DBK_TITLE), db_object_get_char(a, DBK_SOURCE_KIND), t(v, DBK_TITLE),
                              t(v, DBK_GENRE), t(v, DBK_SIZE_TEXT), db_object_get_int(v, DBK_DURATION)));
    char* path = db_file_get_path(one);
    EXPECT_STREQ("/m/one.mp3", path);
    free(path);
}

TEST_F(DbFileStore, RecordsTheStoreCannotPlaceStayInTheFileAndALoadStopsWithTheServer)
{
    db_store(db_test_raw("http://radio", DB_OBJ_AUDIO_BROADCAST));
    db_store("14005hello\n");
    db_store(db_test_raw("/m/b.mp3", DB_OBJ_AUDIO));
    db_file_load_all(db_stopped);
    EXPECT_EQ(nullptr, db_object_find_by_path("/m/b.mp3"));
    db_file_load_all(nullptr);
    EXPECT_EQ(nullptr, db_object_find_by_path("http://radio"));
    EXPECT_NE(nullptr, db_object_find_by_path("/m/b.mp3"));
    EXPECT_EQ(3u, db_records().size());
}

static std::vector<std::string> db_imported_lists;

TEST_F(DbFileStore, ImportFilesEnterTheStoreAndAreDeletedUnlessStopped)
{
    std::string items = dir.file("host.import.items"), lists = dir.file("host.import.playlists");
    ASSERT_TRUE(test_write_file(items, "#C00Ea host comment\n" + db_test_raw("/m/x.mp3", DB_OBJ_AUDIO) +
                                           "14001X\n>>>>\n" + db_test_raw("/m/y.mp3", DB_OBJ_AUDIO)));
    ASSERT_TRUE(test_write_file(lists, "#NAME:list\n/m/x.mp3\n"));
    db_file_import_all(db_stopped);
    EXPECT_TRUE(db_exists(items));
    EXPECT_NE(nullptr, db_object_find_by_path("/m/x.mp3"));
    EXPECT_EQ(nullptr, db_object_find_by_path("/m/y.mp3"));
    db_file_import_all(nullptr);
    EXPECT_NE(nullptr, db_object_find_by_path("/m/y.mp3"));
    EXPECT_FALSE(db_exists(items));
    EXPECT_FALSE(db_exists(lists));                // no list builder: each pass writes them anew
    ASSERT_TRUE(test_write_file(lists, "#NAME:list\n/m/x.mp3\n"));
    db_imported_lists.clear();
    db_file_set_playlist_handlers([](const char* path, upnp_file* playlists, db_file_run_flag) {
        db_imported_lists.push_back(path);
        db_playlist_write_head(playlists, path, "list", 1);
    }, nullptr);
    db_file_import_all(nullptr);
    EXPECT_EQ(std::vector<std::string>{lists}, db_imported_lists);
    EXPECT_FALSE(db_exists(lists));
    EXPECT_NE(std::string::npos, test_read_file(dir.file("velmoramedia.main.playlists")).find("list"));
}

TEST_F(DbFileMemory, StatusOfABlockJudgesThePathItsRecordHolds)
{
    uint32_t address = db_store(db_test_raw("http://radio/a.mp3", DB_OBJ_AUDIO));
    uint32_t no_path = db_store("0300214\n");
    EXPECT_EQ(db_file_status_of_block(address), DB_FILE_URL);
    EXPECT_EQ(db_file_status_of_block(no_path), 0);
    db_file_free_chain(address);
    EXPECT_EQ(db_file_status_of_block(address), DB_FILE_GONE);
    EXPECT_EQ(db_file_status_of_block(9999), DB_FILE_GONE);
}
