#include "config/upnp_ini.h"
#include "media/upnp_m3u.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_string.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <sys/stat.h>

namespace {

// Every entry resolves to itself in brackets.
int bracket(const char* line, char* out_path, void*)
{
    return snprintf(out_path, UPNP_PLAYLIST_PATH_MAX, "<%s>", line) > 0;
}

TEST(UpnpM3u, FirstEntryDecidesTheKindAndExtinfTitlesGoBeforeTheirEntries)
{
    const std::string list = "#PLAYLIST\n#NAME:Cafe\n#FILE:/p/Cafe.m3u\n";
    struct { const char* name; std::string bytes, want; } cases[] = {
        {"radio", "#EXTM3U\r\nhttp://r/1\r\nb.mp3\r\n", "#RADIO-STATIONS" + list.substr(9) + "<http://r/1>\n<b.mp3>\n"},
        {"mms is no radio", "mms://r/1\nhttp://r/2\n", list + "<mms://r/1>\n<http://r/2>\n"},
        {"titles", "#EXTINF:1,Caf\xE9, live\nC:\\a.mp3\n#EXTINF:2\nb.mp3",
         list + "#TITLE:Caf\xC3\xA9, live\n<C:\\a.mp3>\n<b.mp3>\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        upnp_string* s = upnp_m3u_import_text(c.bytes.data(), c.bytes.size(), "/p/Cafe.m3u", bracket, nullptr);
        EXPECT_EQ(s ? s->text : "<null>", c.want);
        upnp_string_free(s);
    }
}

struct UpnpPlaylist : ::testing::Test {
    test_dir dir;
    std::string root = dir.file("root");
    void SetUp() override
    {
        for (const char* folder : {"root", "root/Album", "off", "db"})
            ASSERT_EQ(mkdir(dir.file(folder).c_str(), 0700), 0);
        for (const char* name : {"root/Album/a.mp3", "root/a.mp3", "root/x.mp3", "secret.mp3", "off/o.mp3"})
            ASSERT_TRUE(test_write_file(dir.file(name), "x"));
        upnp_ini_set(UPNP_OPT_CONTENTDIR, ("-A|" + dir.file("off") + ",+M|" + root + "/").c_str());
        upnp_ini_set(UPNP_OPT_DBDIR, dir.file("db").c_str());
    }
    void TearDown() override
    {
        upnp_ini_set(UPNP_OPT_CONTENTDIR, "");
        upnp_ini_set(UPNP_OPT_DBDIR, "");
    }
};

TEST_F(UpnpPlaylist, EntriesResolveUnderEnabledSharedFoldersByTheirLongestTailAndNeverClimbOut)
{
    struct { std::string line; int result, is_url; std::string path; } cases[] = {
        {"http://radio/x.mp3", 1, 1, "http://radio/x.mp3"},
        {"mms://radio/x", 2, 1, "mms://radio/x"},
        {"D:\\Music\\Album\\a.mp3", 1, 0, root + "/Album/a.mp3"},
        {"/home/me/Other/a.mp3", 1, 0, root + "/a.mp3"},
        {"../../x.mp3\x01tail", 1, 0, root + "/x.mp3"},
        {"Album/./../a.mp3", 1, 0, root + "/a.mp3"},
        {"Album/../../secret.mp3", 0, 0, ""},
        {"o.mp3", 0, 0, ""},                            // in a folder that is not shared
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        char out[UPNP_PLAYLIST_PATH_MAX];
        int is_url = -1;
        EXPECT_EQ(upnp_playlist_resolve_entry(c.line.c_str(), "list.m3u", out, &is_url), c.result);
        EXPECT_EQ(out + std::to_string(is_url), c.path + std::to_string(c.is_url));
    }
}

TEST_F(UpnpPlaylist, HandlerLeavesOneImportFileInTheDatabaseFolderEvenForAListOfComments)
{
    ASSERT_TRUE(test_write_file(dir.file("root/a.m3u"), "#EXTM3U\n#EXTINF:1,x\n"));
    ASSERT_TRUE(test_write_file(dir.file("root/b.m3u"), "#EXTINF:1,B\r\nAlbum\\a.mp3\r\nnothing.mp3\r\n"));
    for (const char* name : {"a.m3u", "b.m3u", "none.m3u"})
        upnp_m3u_handler(dir.file(std::string("root/") + name).c_str(), 0);
    std::multiset<std::string> found;
    for (upnp_dir* w = upnp_dir_open(dir.file("db").c_str()); w; w = upnp_dir_next(w))
        if (!w->is_dir)
            found.insert(strstr(w->name, ".import.playlists") ? test_read_file(w->path) : w->name);
    const std::string b = "#PLAYLIST\n#NAME:b\n#FILE:" + root + "/b.m3u\n#TITLE:B\n" + root + "/Album/a.mp3\n";
    EXPECT_EQ(found, std::multiset<std::string>({"", b}));
}

}  // namespace
