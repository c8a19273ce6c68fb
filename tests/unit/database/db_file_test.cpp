#include "database/db_file.h"

#include "config/upnp_ini.h"
#include "control/upnp_control.h"
#include "control/upnp_log.h"
#include "database/db_object.h"
#include "database/db_record.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_string.h"
#include "support/test_support.h"
#include "unit/database/db_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <sys/stat.h>
#include <vector>

// ---------------------------------------------------------------- helpers

// A block file built byte by byte, for the shapes a damaged file can take.
struct db_image {
    std::string bytes = std::string(512, '\0');
    db_image() { memcpy(&bytes[0], DB_FILE_VERSION, sizeof DB_FILE_VERSION); }

    void put32(size_t at, uint32_t v)
    {
        if (bytes.size() < at + 4)
            bytes.resize(at + 4, '\0');
        for (int i = 0; i < 4; i++)
            bytes[at + i] = char(v >> (8 * i));
    }
    void block(uint32_t n, uint32_t length, char kind, uint32_t next, const std::string& payload = "")
    {
        if (bytes.size() < size_t(n + 1) * 512)
            bytes.resize(size_t(n + 1) * 512, '\0');
        put32(n * 512, length);
        bytes[n * 512 + 4] = kind;
        put32(n * 512 + 6, next);
        memcpy(&bytes[n * 512 + 10], payload.data(), payload.size() < 502 ? payload.size() : 502);
    }
    void free_head(uint32_t b) { put32(16, b); }
    void folder(uint32_t slot, uint32_t b) { put32(20 + 4 * slot, b); }
    uint32_t get32(size_t at) const
    {
        uint32_t v = 0;
        for (int i = 3; i >= 0; i--)
            v = v << 8 | uint8_t(bytes[at + i]);
        return v;
    }
};

static std::string db_text(size_t n, char seed)
{
    std::string s(n, ' ');
    for (size_t i = 0; i < n; i++)
        s[i] = char('a' + (seed + i * 7) % 26);
    return s;
}

static void db_collect(uint32_t block, const char* text, int32_t length, void* context)
{
    (*static_cast<std::map<uint32_t, std::string>*>(context))[block] = std::string(text, size_t(length));
}

// Every record the file holds now, by first block.
static std::map<uint32_t, std::string> db_records(db_file_walk_result* result = nullptr)
{
    std::map<uint32_t, std::string> found;
    db_file_walk_result r;
    db_file_walk(nullptr, db_collect, &found, &r);
    if (result)
        *result = r;
    return found;
}

static std::string db_read(uint32_t block)
{
    upnp_string* s = nullptr;
    std::string out = !db_file_read_record(block, &s) ? "<none>" : s ? std::string(s->text, size_t(s->length)) : "";
    upnp_string_free(s);
    return out;
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

static db_image db_current_image()
{
    const uint8_t* b = nullptr;
    size_t n = db_file_memory_image(&b);
    db_image image;
    image.bytes.assign(reinterpret_cast<const char*>(b), n);
    return image;
}

struct DbFileMemory : ::testing::Test {
    void SetUp() override { ASSERT_TRUE(db_file_open_memory(nullptr, 0)); }
    void TearDown() override { db_file_close(); }
};

// A dbdir of its own, in full mode.
struct DbFileDir : ::testing::Test {
    test_dir dir;
    std::string dbdir = dir.file("db");
    int32_t saved_full_mode = full_mode;

    void SetUp() override
    {
        full_mode = 1;
        mkdir(dbdir.c_str(), 0755);
        upnp_ini_set(UPNP_OPT_DBDIR, dbdir.c_str());
    }
    void TearDown() override
    {
        db_file_close();
        upnp_ini_set(UPNP_OPT_DBDIR, "");
        upnp_log_set_mode(0);
        upnp_log_init(nullptr);
        full_mode = saved_full_mode;
    }
    std::string db_path() const { return dbdir + "/velmoramedia.main.db"; }
    void log_to(const std::string& path)
    {
        upnp_log_init(path.c_str());
        upnp_log_set_mode(UPNP_LOG_ALL_CHANNELS);
        upnp_log_set_level(15);
    }
};

static bool db_exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// ---------------------------------------------------------------- chains

TEST_F(DbFileMemory, EmptyFileGetsAHeaderAndIsValid)
{
    db_image image = db_current_image();
    ASSERT_EQ(512u, image.bytes.size());
    EXPECT_STREQ(DB_FILE_VERSION, image.bytes.c_str());
    EXPECT_EQ(0u, db_file_last_block());
    EXPECT_TRUE(db_records().empty());
}

struct chain_case { int32_t length; uint32_t blocks; uint32_t first_piece; };
static const chain_case chain_cases[] = {
    {2, 1, 2},      {502, 1, 502},  {503, 0, 0} /* a first piece of one byte */,
    {504, 2, 2},    {1004, 2, 502}, {1005, 0, 0},
    {1006, 3, 2},   {1, 0, 0},      {0, 0, 0},
    {int32_t(DB_FILE_RECORD_MAX) + 2, 0, 0} /* too long to read back: refused */,
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
        ASSERT_NE(0u, block);
        EXPECT_EQ(text, db_read(block));
        db_image image = db_current_image();
        EXPECT_EQ(c.first_piece, image.get32(block * 512));
        EXPECT_EQ('s', image.bytes[block * 512 + 4]);
    }
}

TEST_F(DbFileMemory, FreedBlocksAreReusedLastFreedFirst)
{
    uint32_t a = db_store(db_text(1004, 1));    // a start block and one continuation
    uint32_t b = db_store(db_text(100, 2));
    uint32_t continuation = db_current_image().get32(a * 512 + 6);
    ASSERT_NE(0u, continuation);
    uint32_t last = db_file_last_block();

    db_file_free_chain(a);
    EXPECT_EQ(continuation, db_file_free_head());
    EXPECT_EQ("", db_read(a));                        // a free block holds no record
    EXPECT_EQ(continuation, db_store(db_text(100, 3)));
    EXPECT_EQ(a, db_store(db_text(100, 4)));
    EXPECT_EQ(last, db_file_last_block());
    EXPECT_EQ(0u, db_file_free_head());
    EXPECT_EQ(last + 1, db_store(db_text(100, 5)));
    EXPECT_EQ(db_text(100, 2), db_read(b));
}

TEST_F(DbFileMemory, RewriteKeepsTheFirstBlockAndFreesTheRest)
{
    uint32_t block = db_store(db_text(1500, 1));   // three blocks
    uint32_t other = db_store(db_text(300, 2));
    uint32_t last = db_file_last_block();

    ASSERT_TRUE(db_rewrite(block, db_text(100, 3)));
    EXPECT_EQ(db_text(100, 3), db_read(block));
    EXPECT_NE(0u, db_file_free_head());
    // The two freed continuations hold the next two-block record.
    uint32_t again = db_store(db_text(1004, 4));
    EXPECT_EQ(last, db_file_last_block());
    EXPECT_EQ(db_text(1004, 4), db_read(again));

    ASSERT_TRUE(db_rewrite(block, db_text(2000, 5)));
    EXPECT_EQ(db_text(2000, 5), db_read(block));
    EXPECT_EQ(db_text(300, 2), db_read(other));
    EXPECT_EQ(db_text(1004, 4), db_read(again));
    EXPECT_EQ(3u, db_records().size());
}

TEST_F(DbFileMemory, RewriteThatCannotBeStoredLeavesTheOldRecord)
{
    uint32_t block = db_store(db_text(600, 1));
    uint32_t continuation = db_current_image().get32(block * 512 + 6);
    EXPECT_FALSE(db_rewrite(block, db_text(503, 2)));
    EXPECT_FALSE(db_rewrite(continuation, db_text(100, 2)));   // not a start block
    EXPECT_FALSE(db_rewrite(block + 50, db_text(100, 2)));     // past the end
    EXPECT_EQ(db_text(600, 1), db_read(block));
}

TEST_F(DbFileMemory, WriteBlockRefusesPayloadsAboveTheBlock)
{
    char payload[503] = {};
    EXPECT_EQ(0u, db_file_write_block(payload, 503, 'c', 0));
    EXPECT_NE(0u, db_file_write_block(payload, 502, 'c', 0));
}

TEST_F(DbFileDir, RecordsFreeListAndFolderTimesSurviveAReopen)
{
    ASSERT_TRUE(db_file_open());
    std::map<uint32_t, std::string> expected;
    for (int i = 0; i < 12; i++) {
        std::string text = db_text(size_t(100 + i * 170), char(i));
        if (i % 3 == 2)
            text += "xy";            // keep the first piece above one byte
        uint32_t block = db_store(text);
        ASSERT_NE(0u, block) << i;
        expected[block] = text;
    }
    db_file_set_folder_time("A|/music", 1234567890123);
    auto it = expected.begin();
    ASSERT_TRUE(db_rewrite(it->first, db_text(1200, 40)));
    it->second = db_text(1200, 40);
    ++it;
    db_file_free_chain(it->first);
    uint32_t freed = it->first;
    expected.erase(it);
    db_file_close();

    ASSERT_TRUE(db_file_open());
    EXPECT_EQ(expected, db_records());
    EXPECT_EQ(1234567890123, db_file_get_folder_time("A|/music"));
    EXPECT_EQ(freed, db_file_free_head());
}

TEST_F(DbFileDir, ReadsSeeEachWriteAtOnce)
{
    ASSERT_TRUE(db_file_open());
    std::map<uint32_t, std::string> expected;
    for (int i = 0; i < 120; i++) {
        std::string text = db_text(size_t(2 + (i * 389) % 2500), char(i));
        if ((text.size() - 1) % 502 == 0)
            text += "z";
        uint32_t block = i % 4 == 3 && !expected.empty() ? expected.begin()->first : 0;
        if (block)
            ASSERT_TRUE(db_rewrite(block, text));
        else
            block = db_store(text);
        ASSERT_NE(0u, block);
        expected[block] = text;
        ASSERT_EQ(text, db_read(block)) << i;
        if (i % 5 == 4) {
            auto last = std::prev(expected.end());
            db_file_free_chain(last->first);
            ASSERT_EQ("", db_read(last->first));
            expected.erase(last);
        }
    }
    EXPECT_EQ(expected, db_records());
}

TEST_F(DbFileMemory, PartialLastBlockIsOutsideTheCountButStillRead)
{
    db_image image;
    image.block(1, 20, 's', 0, db_text(20, 1));
    image.block(2, 30, 's', 0, db_text(30, 2));
    image.bytes.resize(2 * 512 + 10 + 30);            // block 2 cut behind its payload
    ASSERT_TRUE(db_file_open_memory(image.bytes.data(), image.bytes.size()));
    EXPECT_EQ(1u, db_file_last_block());
    auto records = db_records();
    EXPECT_EQ(2u, records.size());
    EXPECT_EQ(2u, db_store(db_text(40, 3)));         // the partial block is overwritten
    EXPECT_EQ(db_text(40, 3), db_read(2));
}

// ---------------------------------------------------------------- damaged files

struct damage_case {
    const char* name;
    void (*damage)(db_image&);
};

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

static const damage_case damage_cases[] = {
    {"continuation loops to itself", [](db_image& i) { i.put32(4 * 512 + 6, 4); }},
    {"continuation loops back to the start", [](db_image& i) { i.put32(4 * 512 + 6, 3); }},
    {"two continuations loop", [](db_image& i) { i.block(4, 502, 'c', 6); i.block(6, 502, 'c', 4); }},
    {"next points past the end", [](db_image& i) { i.put32(3 * 512 + 6, 90000); }},
    {"next points far past any file", [](db_image& i) { i.put32(3 * 512 + 6, 0xFFFFFFFF); }},
    {"start length 0", [](db_image& i) { i.put32(3 * 512, 0); }},
    {"start length 503", [](db_image& i) { i.put32(3 * 512, 503); }},
    {"start length huge", [](db_image& i) { i.put32(3 * 512, 0xFFFFFFF0); }},
    {"continuation length lies", [](db_image& i) { i.put32(4 * 512, 100); }},
    {"continuation is free", [](db_image& i) { i.bytes[4 * 512 + 4] = 'x'; }},
    {"continuation is another start", [](db_image& i) { i.bytes[4 * 512 + 4] = 's'; }},
};

TEST(DbFileDamage, DamagedRecordsAreSkippedAndTheRestLoads)
{
    for (const damage_case& c : damage_cases) {
        SCOPED_TRACE(c.name);
        db_image image = db_three_records();
        c.damage(image);
        ASSERT_TRUE(db_file_open_memory(image.bytes.data(), image.bytes.size()));
        db_file_walk_result result;
        auto records = db_records(&result);
        EXPECT_EQ("ab" + db_text(502, 1), records[1]);
        EXPECT_EQ(db_text(10, 3), records[5]);
        EXPECT_EQ(0u, records.count(3));
        EXPECT_EQ(1u, result.skipped);
        // Writing goes on without touching what was sound.
        uint32_t block = db_store(db_text(1004, 9));
        ASSERT_NE(0u, block);
        EXPECT_EQ(db_text(1004, 9), db_read(block));
        db_file_free_chain(3);
        EXPECT_EQ("ab" + db_text(502, 1), db_read(1));
        EXPECT_EQ(db_text(10, 3), db_read(5));
        db_file_close();
    }
}

TEST(DbFileDamage, FileCutAnywhereLoadsTheRecordsBeforeTheCut)
{
    db_image whole = db_three_records();
    for (size_t cut = 0; cut <= whole.bytes.size(); cut += 37) {
        SCOPED_TRACE(cut);
        std::string bytes = whole.bytes.substr(0, cut);
        ASSERT_TRUE(db_file_open_memory(bytes.data(), bytes.size()));
        auto records = db_records();
        EXPECT_EQ(cut >= 3 * 512, records.count(1) == 1);
        EXPECT_EQ(cut >= 5 * 512 + 20, records.count(5) == 1);
        db_file_close();
    }
}

struct free_case {
    const char* name;
    uint32_t head;
    void (*extra)(db_image&);
};
static const free_case free_cases[] = {
    {"head is a live start block", 3, nullptr},
    {"head is a live continuation", 4, nullptr},
    {"head is past the end", 77, nullptr},
    {"free block loops to itself", 6, [](db_image& i) { i.block(6, 0, 'x', 6); }},
    {"free list runs into a live block", 6, [](db_image& i) { i.block(6, 0, 'x', 1); }},
    {"free list runs past the end", 6, [](db_image& i) { i.block(6, 0, 'x', 0xFFFFFFFF); }},
};

TEST(DbFileDamage, BrokenFreeListNeverHandsOutALiveBlock)
{
    for (const free_case& c : free_cases) {
        SCOPED_TRACE(c.name);
        db_image image = db_three_records();
        if (c.extra)
            c.extra(image);
        image.free_head(c.head);
        ASSERT_TRUE(db_file_open_memory(image.bytes.data(), image.bytes.size()));
        std::map<uint32_t, std::string> expected = db_records();
        ASSERT_EQ(3u, expected.size());
        for (int i = 0; i < 6; i++) {
            std::string text = db_text(size_t(200 + 300 * i), char(i));
            uint32_t block = db_store(text);
            ASSERT_NE(0u, block);
            ASSERT_EQ(0u, expected.count(block));
            expected[block] = text;
        }
        EXPECT_EQ(expected, db_records());
        db_file_close();
    }
}

TEST(DbFileDamage, ArbitraryBytesOpenLoadAndTakeWrites)
{
    uint32_t seed = 12345;
    for (int round = 0; round < 60; round++) {
        SCOPED_TRACE(round);
        db_image image;
        size_t size = 512 + (round * 997) % 9000;
        image.bytes.resize(size);
        for (size_t i = round % 2 ? 16 : 9; i < size; i++) {
            seed = seed * 1103515245 + 12345;
            uint8_t b = uint8_t(seed >> 16);
            // Mostly small numbers and kind letters, so that chains form.
            image.bytes[i] = char(b < 128 ? b % 24 : b < 192 ? "scxd"[b % 4] : b);
        }
        ASSERT_TRUE(db_file_open_memory(image.bytes.data(), image.bytes.size()));
        db_records();
        uint32_t block = db_store(db_text(700, 1));
        ASSERT_NE(0u, block);
        EXPECT_EQ(db_text(700, 1), db_read(block));
        db_file_set_folder_time("A|/x", 5);
        db_file_get_folder_time("A|/x");
        db_file_prune_folders();
        EXPECT_EQ(db_text(700, 1), db_read(block));
        db_file_close();
    }
}

TEST(DbFileDamage, OtherVersionIsDiscardedAndMadeAnew)
{
    db_image image = db_three_records();
    memcpy(&image.bytes[0], "1.59.1.7", 8);
    ASSERT_TRUE(db_file_open_memory(image.bytes.data(), image.bytes.size()));
    EXPECT_TRUE(db_records().empty());
    EXPECT_EQ(512u, db_current_image().bytes.size());
    EXPECT_STREQ(DB_FILE_VERSION, db_current_image().bytes.c_str());
    db_file_close();
}

TEST_F(DbFileDir, FileOfAnotherVersionIsDeletedAndMadeAnew)
{
    db_image image = db_three_records();
    memcpy(&image.bytes[0], "9.9", 4);
    ASSERT_TRUE(test_write_file(db_path(), image.bytes));
    ASSERT_TRUE(db_file_open());
    EXPECT_TRUE(db_records().empty());
    EXPECT_EQ(std::string(DB_FILE_VERSION), test_read_file(db_path()).c_str());
    EXPECT_EQ(512u, test_read_file(db_path()).size());
}

// ---------------------------------------------------------------- marker and reset

TEST_F(DbFileDir, FirstStartBuildsAndLaterStartsFindTheMarker)
{
    std::string log = dir.file("log.txt");
    log_to(log);
    mkdir((dbdir + "/watch").c_str(), 0755);
    ASSERT_TRUE(test_write_file(dbdir + "/watch/change1", "x"));
    ASSERT_TRUE(db_file_open());
    EXPECT_TRUE(db_exists(dbdir + "/1.59.1.8"));
    EXPECT_FALSE(db_exists(dbdir + "/watch/change1"));
    EXPECT_NE(std::string::npos, test_read_file(log).find("invoking initial database build"));
    db_file_close();

    ASSERT_TRUE(test_write_file(dbdir + "/watch/change2", "x"));
    ASSERT_TRUE(db_file_open());
    EXPECT_TRUE(db_exists(dbdir + "/watch/change2"));
    EXPECT_NE(std::string::npos, test_read_file(log).find("database check ok"));
}

TEST_F(DbFileDir, SimpleModeUsesItsOwnNames)
{
    full_mode = 0;
    ASSERT_TRUE(db_file_open());
    EXPECT_TRUE(db_exists(dbdir + "/velmoramedia.simple.db"));
    EXPECT_TRUE(db_exists(dbdir + "/1.59.1.8_simple"));
    EXPECT_FALSE(db_exists(db_path()));
    char* playlists = db_file_path_of(DB_FILE_PLAYLISTS_TEMP);
    EXPECT_EQ(dbdir + "/velmoramedia.simple.playlists.temp", playlists);
    free(playlists);
}

TEST_F(DbFileDir, ResetEmptiesTheWatchFolderAndKeepsTheDatabase)
{
    ASSERT_TRUE(db_file_open());
    uint32_t block = db_store(db_text(800, 1));
    mkdir((dbdir + "/watch").c_str(), 0755);
    ASSERT_TRUE(test_write_file(dbdir + "/watch/pending", "x"));
    db_file_close();
    EXPECT_TRUE(db_exists(dbdir + "/watch/pending"));   // no reset was asked for

    ASSERT_TRUE(db_file_open());
    db_file_request_reset();
    db_file_close();
    EXPECT_FALSE(db_exists(dbdir + "/watch/pending"));
    EXPECT_FALSE(db_file_reset_requested());
    ASSERT_TRUE(db_file_open());
    EXPECT_EQ(db_text(800, 1), db_read(block));
}

TEST(DbFileOpen, WithoutADatabaseFolderNothingOpens)
{
    upnp_ini_set(UPNP_OPT_DBDIR, "");
    EXPECT_FALSE(db_file_open());
    EXPECT_FALSE(db_file_is_open());
    EXPECT_EQ(0u, db_store(db_text(10, 1)));
    EXPECT_EQ(0, db_file_get_folder_time("A|/x"));
}

// ---------------------------------------------------------------- folder times

TEST_F(DbFileMemory, FolderTimesAreSetOverwrittenAndFound)
{
    db_file_set_folder_time("A|/music", 100);
    db_file_set_folder_time("P|/photos", 200);
    uint32_t last = db_file_last_block();
    db_file_set_folder_time("A|/music", 300);
    EXPECT_EQ(last, db_file_last_block());
    EXPECT_EQ(300, db_file_get_folder_time("A|/music"));
    EXPECT_EQ(200, db_file_get_folder_time("P|/photos"));
    EXPECT_EQ(0, db_file_get_folder_time("A|/Music"));     // identity is exact
    db_image image = db_current_image();
    uint32_t block = image.get32(20);
    EXPECT_EQ(std::string(10, '\0'), image.bytes.substr(block * 512, 10));
    EXPECT_EQ("A|/music", std::string(image.bytes.c_str() + block * 512 + 18));
}

TEST_F(DbFileMemory, A123rdFolderIsDroppedAndLongNamesAreRefused)
{
    for (int i = 0; i < 123; i++)
        db_file_set_folder_time(("A|/f" + std::to_string(i)).c_str(), 1000 + i);
    EXPECT_EQ(1121, db_file_get_folder_time("A|/f121"));
    EXPECT_EQ(0, db_file_get_folder_time("A|/f122"));

    ASSERT_TRUE(db_file_open_memory(nullptr, 0));
    std::string longest(493, 'n'), too_long(494, 'n');
    db_file_set_folder_time(longest.c_str(), 7);
    db_file_set_folder_time(too_long.c_str(), 8);
    EXPECT_EQ(7, db_file_get_folder_time(longest.c_str()));
    EXPECT_EQ(0, db_file_get_folder_time(too_long.c_str()));
}

TEST_F(DbFileMemory, PruneDropsFoldersNoLongerSharedAndFreesTheirBlocks)
{
    db_file_set_folder_time("A|/keep", 1);
    db_file_set_folder_time("A|/gone", 2);
    db_file_set_folder_time("M|/also", 3);
    uint32_t gone = db_current_image().get32(24);
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+A|/keep,-M|/also");
    db_file_prune_folders();
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "");
    EXPECT_EQ(1, db_file_get_folder_time("A|/keep"));
    EXPECT_EQ(0, db_file_get_folder_time("A|/gone"));
    EXPECT_EQ(3, db_file_get_folder_time("M|/also"));       // disabled, still configured
    EXPECT_EQ(gone, db_file_free_head());
    db_image image = db_current_image();
    EXPECT_EQ(0u, image.get32(28));
}

TEST(DbFileDamage, FolderEntriesThatAreNoFolderRecordsAreIgnored)
{
    db_image image = db_three_records();
    image.folder(0, 3);              // a live record
    image.folder(1, 900);            // past the end
    ASSERT_TRUE(db_file_open_memory(image.bytes.data(), image.bytes.size()));
    EXPECT_EQ(0, db_file_get_folder_time("cd"));
    db_file_prune_folders();
    EXPECT_EQ(0u, db_file_free_head());
    EXPECT_EQ(3u, db_records().size());
    db_file_set_folder_time("A|/new", 9);
    EXPECT_EQ(9, db_file_get_folder_time("A|/new"));
    db_file_close();
}

// ---------------------------------------------------------------- loading into the store

struct DbFileStore : DbStoreTest {
    void SetUp() override
    {
        DbStoreTest::SetUp();
        ASSERT_TRUE(db_file_open_memory(nullptr, 0));
    }
    void TearDown() override
    {
        DbStoreTest::TearDown();
        db_file_close();
    }
    // Drops the tree and builds it again over the same file.
    void restart()
    {
        std::string image = db_current_image().bytes;
        DbStoreTest::TearDown();
        DbStoreTest::SetUp();
        ASSERT_TRUE(db_file_open_memory(image.data(), image.size()));
    }
    static int submit(std::initializer_list<std::pair<int, const char*>> fields)
    {
        db_meta_list* list = db_test_list(fields);
        int ok = db_scan_submit(list);
        db_meta_list_free(list);
        return ok;
    }
};

TEST_F(DbFileStore, StoredItemsComeBackWithTheirIdsAfterARestart)
{
    ASSERT_TRUE(submit({{DBK_TITLE, "One"}, {DBK_ALBUM, "Album"}, {DBK_DURATION, "0:03:25.500"},
                        {DBK_TYPE, "14"}, {DBK_PATH, "/m/one.mp3"}, {DBK_SOURCE_KIND, "d"}}));
    ASSERT_TRUE(submit({{DBK_TITLE, "Two"}, {DBK_TYPE, "13"}, {DBK_PATH, "/p/two.jpg"}}));
    db_object* one = db_object_find_by_path("/m/one.mp3");
    ASSERT_NE(nullptr, one);
    uint32_t id = one->id;
    EXPECT_EQ(uint32_t(DB_OBJ_AUDIO) << 27 | 1u, id);

    restart();
    EXPECT_EQ(nullptr, db_object_find_by_path("/m/one.mp3"));
    db_file_load_all(nullptr);
    one = db_object_find_by_path("/m/one.mp3");
    ASSERT_NE(nullptr, one);
    EXPECT_EQ(id, one->id);
    EXPECT_STREQ("One", db_object_get_str(one, DBK_TITLE));
    EXPECT_STREQ("Album", db_object_get_str(one, DBK_ALBUM));
    EXPECT_STREQ("mp3", db_object_get_str(one, DBK_EXTENSION));
    EXPECT_EQ(205000, db_object_get_int(one, DBK_DURATION));   // the fraction is not read back
    EXPECT_NE(nullptr, db_object_find_by_path("/p/two.jpg"));
    char* path = db_file_get_path(id);
    EXPECT_STREQ("/m/one.mp3", path);
    free(path);
}

TEST_F(DbFileStore, AChangedItemIsRewrittenInItsOwnBlock)
{
    ASSERT_TRUE(submit({{DBK_TITLE, "Old"}, {DBK_TYPE, "14"}, {DBK_PATH, "/m/a.mp3"}}));
    uint32_t id = db_object_find_by_path("/m/a.mp3")->id;
    std::string long_genre(900, 'g');
    ASSERT_TRUE(submit({{DBK_TITLE, "New"}, {DBK_GENRE, long_genre.c_str()}, {DBK_TYPE, "14"},
                        {DBK_PATH, "/m/a.mp3"}}));
    EXPECT_EQ(1u, db_records().size());
    restart();
    db_file_load_all(nullptr);
    db_object* a = db_object_find_by_path("/m/a.mp3");
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(id, a->id);
    EXPECT_STREQ("New", db_object_get_str(a, DBK_TITLE));
    EXPECT_EQ(long_genre, db_object_get_str(a, DBK_GENRE));
}

TEST_F(DbFileStore, RecordsTheStoreCannotPlaceStayInTheFile)
{
    std::string radio = db_test_raw("http://radio", DB_OBJ_AUDIO_BROADCAST);
    std::string none = "14005hello\n";
    std::string good = db_test_raw("/m/b.mp3", DB_OBJ_AUDIO);
    db_store(radio);
    db_store(none);
    db_store(good);
    db_file_load_all(nullptr);
    EXPECT_EQ(nullptr, db_object_find_by_path("http://radio"));
    EXPECT_NE(nullptr, db_object_find_by_path("/m/b.mp3"));
    EXPECT_EQ(3u, db_records().size());
}

static int32_t db_test_stop()
{
    return 0;
}

TEST_F(DbFileStore, LoadStopsWhenTheServerStops)
{
    db_store(db_test_raw("/m/c.mp3", DB_OBJ_AUDIO));
    db_file_load_all(db_test_stop);
    EXPECT_EQ(nullptr, db_object_find_by_path("/m/c.mp3"));
}

// ---------------------------------------------------------------- imports

struct DbFileImport : DbStoreTest {
    test_dir dir;
    int32_t saved_full_mode = full_mode;
    void SetUp() override
    {
        full_mode = 1;
        DbStoreTest::SetUp();
        upnp_ini_set(UPNP_OPT_DBDIR, dir.path.c_str());
        ASSERT_TRUE(db_file_open_memory(nullptr, 0));
    }
    void TearDown() override
    {
        db_file_set_playlist_handlers(nullptr, nullptr);
        DbStoreTest::TearDown();
        db_file_close();
        upnp_ini_set(UPNP_OPT_DBDIR, "");
        full_mode = saved_full_mode;
    }
};

static std::vector<std::string> db_imported_lists;

static void db_test_playlist_import(const char* path, upnp_file* playlists, db_file_run_flag)
{
    db_imported_lists.push_back(path);
    db_playlist_write_head(playlists, path, "list", 1);
}

TEST_F(DbFileImport, ImportFilesEnterTheStoreAndAreDeleted)
{
    std::string items = "#C00Ea host comment\n" + db_test_raw("/m/x.mp3", DB_OBJ_AUDIO) + "14001X\n>>>>\n"
                        + db_test_raw("/m/y.mp3", DB_OBJ_AUDIO);
    ASSERT_TRUE(test_write_file(dir.file("host.import.items"), items));
    ASSERT_TRUE(test_write_file(dir.file("host.import.playlists"), "#NAME:list\n/m/x.mp3\n"));
    db_file_import_all(nullptr);
    EXPECT_NE(nullptr, db_object_find_by_path("/m/x.mp3"));
    EXPECT_NE(nullptr, db_object_find_by_path("/m/y.mp3"));
    EXPECT_FALSE(db_exists(dir.file("host.import.items")));
    // No list builder yet: the playlist import waits for one.
    EXPECT_TRUE(db_exists(dir.file("host.import.playlists")));

    db_imported_lists.clear();
    db_file_set_playlist_handlers(db_test_playlist_import, nullptr);
    db_file_import_all(nullptr);
    ASSERT_EQ(1u, db_imported_lists.size());
    EXPECT_EQ(dir.file("host.import.playlists"), db_imported_lists[0]);
    EXPECT_FALSE(db_exists(dir.file("host.import.playlists")));
    EXPECT_NE(std::string::npos, test_read_file(dir.file("velmoramedia.main.playlists")).find("list"));
}

TEST_F(DbFileImport, ImportStoppedByTheRunFlagKeepsItsFile)
{
    std::string items = db_test_raw("/m/x.mp3", DB_OBJ_AUDIO) + ">>>>\n" + db_test_raw("/m/y.mp3", DB_OBJ_AUDIO);
    ASSERT_TRUE(test_write_file(dir.file("a.import.items"), items));
    db_file_import_all(db_test_stop);
    EXPECT_TRUE(db_exists(dir.file("a.import.items")));
    EXPECT_NE(nullptr, db_object_find_by_path("/m/x.mp3"));
    EXPECT_EQ(nullptr, db_object_find_by_path("/m/y.mp3"));
}
