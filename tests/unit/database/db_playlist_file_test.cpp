#include "database/db_file.h"

#include "runtime/upnp_file.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

static std::string db_le32(uint32_t v)
{
    return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
}

static std::string db_head_bytes(const std::string& path, const std::string& name, uint32_t kind, uint32_t count)
{
    return db_le32(uint32_t(path.size())) + path + db_le32(uint32_t(name.size())) + name + db_le32(kind)
           + db_le32(count);
}

TEST(DbPlaylistFile, HeadsAndBlocksReadBackAsWritten)
{
    test_dir dir;
    std::string path = dir.file("lists");
    upnp_file* f = upnp_file_open_write(path.c_str());
    ASSERT_NE(nullptr, f);
    int64_t at = db_playlist_write_head(f, "/m/list.m3u", "Rock/Old", 1);
    ASSERT_GT(at, 0);
    EXPECT_TRUE(db_playlist_write_block(f, 7) && db_playlist_write_block(f, 0x01020304));
    EXPECT_TRUE(db_playlist_write_count(f, at, 2));
    EXPECT_TRUE(db_playlist_write_block(f, 9));            // the count went back to the end
    EXPECT_EQ(-1, db_playlist_write_head(f, "", "x", 1));
    EXPECT_EQ(-1, db_playlist_write_head(f, "x", std::string(1024, 'n').c_str(), 1));
    upnp_file_close(f);

    f = upnp_file_open_read(path.c_str());
    db_playlist_head head;
    ASSERT_EQ(1, db_playlist_read_head(f, &head));
    EXPECT_EQ(std::make_tuple(std::string("/m/list.m3u"), std::string("Rock/Old"), 1, 2),
              std::make_tuple(std::string(head.path), std::string(head.name), head.kind, head.count));
    std::vector<uint32_t> blocks;
    for (uint32_t block = 0; blocks.size() < 4 && db_playlist_read_block(f, &block);)
        blocks.push_back(block);
    EXPECT_EQ((std::vector<uint32_t>{7, 0x01020304, 9}), blocks);
    EXPECT_EQ(0, db_playlist_read_head(f, &head));
    upnp_file_close(f);
}

struct head_case { const char* name; std::string bytes; int result; };

static const head_case head_cases[] = {
    {"empty file", "", 0},
    {"path length 1024", db_le32(1024) + std::string(1024, 'p'), 0},
    {"file ends inside the path", db_le32(10) + "abc", -1},
    {"file ends before the name length", db_le32(1) + "p", -1},
    {"file ends inside the count", db_le32(1) + "p" + db_le32(1) + "n" + db_le32(1) + "\x01", -1},
    {"count beyond the file", db_head_bytes("p", "n", 1, 3) + db_le32(1) + db_le32(2), -1},
    {"count that fits", db_head_bytes("p", "n", 1, 2) + db_le32(1) + db_le32(2), 1},
    {"longest texts", db_head_bytes(std::string(1023, 'p'), std::string(1023, 'n'), 3, 0), 1},
};

TEST(DbPlaylistFile, DamagedHeadsEndTheListOrFault)
{
    test_dir dir;
    for (const head_case& c : head_cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir.file("lists");
        ASSERT_TRUE(test_write_file(path, c.bytes));
        upnp_file* f = upnp_file_open_read(path.c_str());
        ASSERT_NE(nullptr, f);
        db_playlist_head head;
        EXPECT_EQ(c.result, db_playlist_read_head(f, &head));
        upnp_file_close(f);
    }
}

// One directive of each shape; the rest would copy the directive table.
struct line_case { const char* line; int32_t kind; const char* argument; };

static const line_case line_cases[] = {
    {"#PLAYLIST", DB_PLAYLIST_LINE_AUDIO, nullptr},
    {"#PLAYLISTS", DB_PLAYLIST_LINE_COMMENT, "#PLAYLISTS"},      // whole names only
    {"#TITLE:Radio One", DB_PLAYLIST_LINE_TITLE, "Radio One"},
    {"#title:x", DB_PLAYLIST_LINE_COMMENT, "#title:x"},
    {"/m/a.mp3", DB_PLAYLIST_LINE_ENTRY, "/m/a.mp3"},
    {"", DB_PLAYLIST_LINE_ENTRY, ""},
};

TEST(DbPlaylistFile, ImportLinesAreToldApartByTheirWholeDirective)
{
    for (const line_case& c : line_cases) {
        SCOPED_TRACE(c.line);
        const char* argument = "unset";
        EXPECT_EQ(c.kind, db_playlist_line_kind(c.line, &argument));
        EXPECT_STREQ(c.argument, argument);
    }
}

TEST(DbPlaylistFile, LinesLoseTheirTrailingControlBytesAndAnOverlongOneComesInPieces)
{
    test_dir dir;
    std::string path = dir.file("a.import.playlists");
    ASSERT_TRUE(test_write_file(path, "#NAME:x\r\n/m/a.mp3 \t\x01\n\n" + std::string(5000, 'L')));
    upnp_file* f = upnp_file_open_read(path.c_str());
    char line[DB_PLAYLIST_LINE_MAX + 1];
    EXPECT_EQ(7, db_playlist_read_line(f, line, sizeof line));
    EXPECT_STREQ("#NAME:x", line);
    EXPECT_EQ(9, db_playlist_read_line(f, line, sizeof line));
    EXPECT_STREQ("/m/a.mp3 ", line);
    EXPECT_EQ(0, db_playlist_read_line(f, line, sizeof line));
    EXPECT_EQ(DB_PLAYLIST_LINE_MAX, db_playlist_read_line(f, line, sizeof line));
    EXPECT_EQ(5000 - DB_PLAYLIST_LINE_MAX, db_playlist_read_line(f, line, sizeof line));
    EXPECT_EQ(-1, db_playlist_read_line(f, line, sizeof line));
    upnp_file_close(f);
}
