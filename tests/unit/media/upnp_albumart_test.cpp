#include "database/db_object.h"
#include "media/upnp_albumart.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <tuple>

namespace {

struct resolved { std::string path; int64_t offset, size; };

resolved resolve(const std::string& path, int64_t offset, int64_t size)
{
    char* p = strdup(path.c_str());
    upnp_albumart_resolve(&p, &offset, &size);
    resolved r = {p, offset, size};
    free(p);
    return r;
}

TEST(UpnpAlbumart, OnlyTheMarkerPairIsResolvedToTheFolderPicture)
{
    test_dir dir;
    for (const char* sub : {"both", "cases", "sub"})
        ASSERT_EQ(mkdir(dir.file(sub).c_str(), 0700), 0);
    const std::string files[][2] = {
        {"AlbumArtSmall.jpg", std::string(99, 'S')}, {"both/Folder.jpg", std::string(1234, 'F')},
        {"both/AlbumArtSmall.jpg", "S"}, {"cases/FOLDER.JPG", "upper"}, {"cases/Folder.jpg", "exact"},
        {"sub/folder.jpg", "x"},
    };
    for (const auto& f : files)
        ASSERT_TRUE(test_write_file(dir.file(f[0]), f[1]));
    const std::string song = dir.file("song.mp3");
    struct { const char* name; std::string path; int64_t offset, size; resolved want; } cases[] = {
        {"small picture only", song, 1, 1, {dir.file("AlbumArtSmall.jpg"), 0, 99}},
        {"the folder picture is preferred", dir.file("both/a.mp3"), 1, 1, {dir.file("both/Folder.jpg"), 0, 1234}},
        {"the exact name wins over another case", dir.file("cases/a.mp3"), 1, 1, {dir.file("cases/Folder.jpg"), 0, 5}},
        {"embedded cover", song, 4096, 1, {song, 4096, 1}},
        {"path without a folder", "song.mp3", 1, 1, {"song.mp3", 1, 1}},
        {"no picture in that folder", "/nonexistent/velmora/song.mp3", 1, 1, {"/nonexistent/velmora/song.mp3", 1, 1}},
        // Folders copied from Windows name the picture in any case.
        {"other case", dir.file("sub/song.mp3"), 1, 1, {dir.file("sub/folder.jpg"), 0, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        resolved r = resolve(c.path, c.offset, c.size);
        EXPECT_EQ(std::tie(r.path, r.offset, r.size), std::tie(c.want.path, c.want.offset, c.want.size));
    }
}

// Whether the folder art adds its marker pair (offset and size 1) for path.
bool has_marker(const std::string& path)
{
    db_meta_list* list = upnp_albumart_add_folder_art(path.c_str(), nullptr);
    int pairs = 0;
    for (db_meta_list* n = list; n; n = n->next)
        pairs += (n->key == DBK_ART_OFFSET || n->key == DBK_ART_SIZE) && !strcmp(n->value, "1");
    db_meta_list_free(list);
    return pairs == 2;
}

void set_folder_time(const std::string& folder, time_t when)
{
    timeval times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimes(folder.c_str(), times), 0);
}

TEST(UpnpAlbumart, FolderArtAddsTheMarkerPairOnlyWhenAPictureIsThereAndAKeptAnswerGoesWhenTheFolderChanges)
{
    test_dir dir;
    time_t long_ago = time(nullptr) - 3600;
    set_folder_time(dir.path, long_ago);
    EXPECT_FALSE(has_marker(dir.file("1.mp3")));
    EXPECT_FALSE(has_marker(dir.file("2.mp3")));
    ASSERT_TRUE(test_write_file(dir.file("albumartsmall.JPG"), "jpeg"));
    set_folder_time(dir.path, long_ago + 60);
    EXPECT_TRUE(has_marker(dir.file("3.mp3")));
}

}  // namespace
