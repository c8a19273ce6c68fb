#include "config/upnp_ini.h"
#include "media/upnp_filetype.h"
#include "runtime/upnp_file.h"
#include "support/test_support.h"
#include "unit/database/db_test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <sys/time.h>

namespace {

TEST(UpnpFiletype, ExtensionAndClassPickTheHandler)
{
    struct { const char* extension; char media_class; upnp_filetype_handler want; } cases[] = {
        {"MP3", 'A', upnp_mp3_handler},              // any case, and 'A' takes every class
        {"mp3", 'V', nullptr},
        {"PDF", 'T', upnp_document_handler},
        {"mp3x", 'A', nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.extension) + " in " + c.media_class);
        const upnp_filetype* row = upnp_filetype_find("/media/file", c.extension, c.media_class);
        EXPECT_EQ(row ? row->handler : nullptr, c.want);
    }
}

struct UpnpFiletypeStore : DbStoreTest {
    test_dir dir;

    // Type, title, album, artist, size, compilation, cover pair, mtime,
    // date and source kind of the item at path.
    static std::string stored(const std::string& path)
    {
        db_object* o = db_object_find_by_path(path.c_str());
        if (!o)
            return "<none>";
        auto text = [o](int32_t key) { const char* t = db_object_get_str(o, key); return std::string(t ? t : "-"); };
        auto number = [o](int32_t key) { return std::to_string(db_object_get_int(o, key)); };
        return std::to_string(db_object_type_of(o)) + " " + text(DBK_TITLE) + " " + text(DBK_ALBUM) + " " +
               text(DBK_ARTIST) + " " + number(DBK_SIZE) + " " + number(DBK_COMPILATION) + " " +
               number(DBK_ART_OFFSET) + number(DBK_ART_SIZE) + " " + number(DBK_MTIME) + " " + text(DBK_DATE) +
               " " + db_object_get_char(o, DBK_SOURCE_KIND);
    }
};

TEST_F(UpnpFiletypeStore, HandlersWithoutAReaderStoreWhatTheFileGivesUnopened)
{
    ASSERT_EQ(mkdir(dir.file("Best Of").c_str(), 0700), 0);
    for (const char* name : {"Best Of/a.mp3", "Best Of/Folder.jpg", "Best Of/b.wav", "Best Of/c.png", "d.pdf",
                             "d.mov", "e.mp4", "Best Of/e.jpg", "index.vdr"})
        ASSERT_TRUE(test_write_file(dir.file(name), "12345"));
    upnp_ini_set(UPNP_OPT_CONTENTDIR, ("+M|" + dir.path).c_str());
    ASSERT_TRUE(test_write_file(dir.file("empty.avi"), ""));
    timeval when[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(dir.file("d.pdf").c_str(), when), 0);
    upnp_file_info info;
    ASSERT_EQ(upnp_file_stat(dir.file("d.pdf").c_str(), &info), 0);
    char day[16];
    upnp_date_ymd(info.created, day, sizeof day);
    struct { const char* name; upnp_filetype_handler handler; int compilation; std::string want; } cases[] = {
        {"d.pdf", upnp_document_handler, 1, "17 d - - 5 -1 -1-1 1000000000 " + std::string(day) + " d"},
        {"gone.pdf", upnp_document_handler, 0, "17 gone - - -1 -1 -1-1 -1 - d"},
        {"Best Of/a.mp3", upnp_mp3_handler, 1, "14 a Unknown Unknown 5 1 11 "},
        {"Best Of/b.wav", upnp_wav_handler, 1, "14 b Unknown Various 5 1 11 "},
        {"Best Of/c.png", upnp_image_handler, 0, "13 c Best Of - 5 -1 -1-1 "},
        {"gone.png", upnp_image_handler, 0, "<none>"},
        {"Best Of/e.jpg", upnp_jpeg_handler, 0, "13 e Best Of - 5 -1 -1-1 "},    // no EXIF, no frame
        {"empty.avi", upnp_video_handler, 0, "<none>"},
        {"d.mov", upnp_mp4_handler, 0, "16 d - - 5 -1 "},
        {"e.mp4", upnp_mp4_handler, 0, "14 e Unknown Unknown 5 -1 "},     // shared as music
        {"index.vdr", upnp_vdr_handler, 0, "<none>"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.file(c.name);
        c.handler(path.c_str(), c.compilation);
        EXPECT_EQ(stored(path).substr(0, c.want.size()), c.want);
    }
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "");
}

}  // namespace
