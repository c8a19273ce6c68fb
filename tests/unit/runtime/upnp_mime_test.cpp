// Tests of the MIME table's rules both ways and of the extension helpers.
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

TEST(Mime, ExtensionFromTypeAnswersTheFirstRowContainedInTheType)
{
    struct reverse_case { const char* type; const char* extension; };
    static const reverse_case cases[] = {
        {"video/x-msvideo", "avi"}, {"video/mpeg2", "mpg"},   // by its second type; "video/mpeg" is part of it
        {"AUDIO/MPEG", nullptr} /* exact in case */, {"foo/bar", nullptr}, {nullptr, nullptr},
    };
    for (const reverse_case& c : cases)
        EXPECT_EQ(or_null(c.extension), or_null(upnp_extension_from_mime(c.type))) << or_null(c.type);
}

TEST(Mime, PathExtensionIsTheTextBehindTheLastDotInsideThePath)
{
    struct extension_case { const char* path; const char* path_extension; const char* stream_extension; };
    static const extension_case cases[] = {
        {"/music/a.b.flac", "flac", "flac"}, {"noext", "noext", "noext"}, {".a.mkv", "mkv", "mkv"},
        {".hidden", ".hidden", ".hidden"},          // a leading dot is no extension
        {"/dir.d/file", "d/file", "d/file"},        // the last dot of the whole path
        {"trailing.", "", ""}, {"MOVIE.VoB", "VoB", "mpg"}, {"movie.vob2", "vob2", "vob2"}, {"a.xvob", "xvob", "xvob"},
    };
    for (const extension_case& c : cases) {
        SCOPED_TRACE(c.path);
        const char* extension = upnp_path_extension(c.path);
        EXPECT_EQ(c.path + strlen(c.path) - strlen(c.path_extension), extension);   // no copy
        EXPECT_STREQ(c.stream_extension, upnp_stream_extension(c.path));
    }
    EXPECT_EQ(nullptr, upnp_stream_extension(nullptr));
}
