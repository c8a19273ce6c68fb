// How the store judges the file behind an item: shared, excluded, gone or
// an address, by the shared folders, dbdir and the upload folder.
#include "database/db_tree.h"

#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>

TEST(DbTree, FileStatusFollowsTheLongestFittingSharedFolder)
{
    test_dir dir;
    for (const char* sub : {"music", "music/hidden", "MUSIC", "pics", "db", "up"})
        ASSERT_EQ(mkdir(dir.file(sub).c_str(), 0700), 0);
    for (const char* f : {"music/a.mp3", "music/hidden/b.mp3", "MUSIC/c.mp3", "pics/d.jpg", "db/e.mp3", "up/f.mp3",
                          "g.mp3"})
        ASSERT_TRUE(test_write_file(dir.file(f), "x"));
    std::string folders = "+M|" + dir.file("music") + ",-A|" + dir.file("music/hidden") + ",+P|" + dir.file("pics");
    upnp_ini_set(UPNP_OPT_CONTENTDIR, folders.c_str());
    upnp_ini_set(UPNP_OPT_DBDIR, dir.file("db").c_str());
    db_set_upload_dir(dir.file("up").c_str());
    struct { const char* name; std::string path; int32_t type; int32_t status; } cases[] = {
        {"shared music", dir.file("music/a.mp3"), DB_OBJ_AUDIO, DB_FILE_SHARED},
        {"disabled folder inside it wins", dir.file("music/hidden/b.mp3"), DB_OBJ_AUDIO, DB_FILE_EXCLUDED},
        {"music folder does not admit a photo", dir.file("music/a.mp3"), DB_OBJ_PHOTO, DB_FILE_GONE},
        {"picture folder", dir.file("pics/d.jpg"), DB_OBJ_PHOTO, DB_FILE_SHARED},
        {"folders compare byte for byte", dir.file("MUSIC/c.mp3"), DB_OBJ_AUDIO, DB_FILE_GONE},
        {"dbdir", dir.file("db/e.mp3"), DB_OBJ_AUDIO, DB_FILE_SHARED},
        {"upload folder", dir.file("up/f.mp3"), DB_OBJ_AUDIO, DB_FILE_SHARED},
        {"outside every folder", dir.file("g.mp3"), DB_OBJ_AUDIO, DB_FILE_GONE},
        {"missing file", dir.file("music/none.mp3"), DB_OBJ_AUDIO, DB_FILE_GONE},
        {"web address", "http://radio.example/stream", DB_OBJ_AUDIO_STREAM, DB_FILE_URL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(db_file_status(c.path.c_str(), c.type), c.status);
    }
    EXPECT_EQ(db_file_status(nullptr, DB_OBJ_AUDIO), DB_FILE_GONE);
    db_set_upload_dir(nullptr);
    upnp_ini_set(UPNP_OPT_DBDIR, "");
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "");
    EXPECT_EQ(db_file_status(dir.file("up/f.mp3").c_str(), DB_OBJ_AUDIO), DB_FILE_GONE);
}
