// Tests of the MIME table's rules and of the extension helpers.
#include "runtime/upnp_mime.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

static std::string or_null(const char* text) { return text ? text : "<null>"; }

TEST(Mime, FindsTheTypeOfTheFirstRowThatHasTheExtension)
{
    const char* const last = "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet";
    struct mime_case { const char* url; const char* extension; int column; const char* type; };   // type null: none
    static const mime_case cases[] = {
        {nullptr, "MP3", 0, "audio/mpeg"}, {nullptr, "ts", -1, "video/mpeg"},   // any non-zero column is the second
        {nullptr, "3gp.a", 1, "audio/3gpp"},   // its first row wins over the "aac" row
        {nullptr, "mp33", 1, last} /* no row has it: the last row */, {"/disk/music/a.mp4", nullptr, 1, nullptr},
        // An MP4 track served from the music tree is audio.
        {nullptr, "mp4", 0, "video/mp4"}, {"/DISK/Music/x.mp4", "mp4", 0, "audio/mp4"},
        {"/disk/musi", "mp4", 0, "video/mp4"}, {"x/disk/music/a.mp4", "mp4", 0, "video/mp4"},
        {"/disk/music/a.mp4", "mp4", 1, "video/MP4V-ES"},   // only the type "video/mp4" turns
    };
    for (const mime_case& c : cases)
        EXPECT_EQ(or_null(c.type), or_null(upnp_mime_from_extension(c.url, c.extension, c.column)))
            << or_null(c.url) + " " + or_null(c.extension) + " column " + std::to_string(c.column);
}

TEST(Mime, PathExtensionIsTheTextBehindTheLastDotInsideThePath)
{
    struct extension_case { const char* path; const char* extension; };
    static const extension_case cases[] = {
        {"/music/a.b.flac", "flac"}, {"noext", "noext"}, {".a.mkv", "mkv"}, {"trailing.", ""},
        {".hidden", ".hidden"}, {"/dir.d/file", "d/file"},   // a leading dot is no extension; the last dot of the path
    };
    for (const extension_case& c : cases)   // a pointer into the path, no copy
        EXPECT_EQ(c.path + strlen(c.path) - strlen(c.extension), upnp_path_extension(c.path)) << c.path;
}
