// How the store judges the file behind an item: shared, excluded, gone or
// an address, by the shared folders, dbdir and the upload folder.
#include "database/db_tree.h"

#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "runtime/upnp_run.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <vector>

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

// What may be streamed is judged on the path as the store holds it, by
// whole components, whatever the folder's kind.
TEST(DbTree, ServedFilesLieWithinAnEnabledFolderByWholeComponents)
{
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+M|/srv/music/,-A|/srv/music/off,+V|/srv/video");
    upnp_ini_set(UPNP_OPT_DBDIR, "/var/db");
    db_set_upload_dir("/var/up");
    const struct { const char* path; int served; } cases[] = {
        {"/srv/music/a.mp3", 1}, {"/srv/video/a.mp3", 1}, {"/var/db/a.mp3", 1}, {"/var/up/a.mp3", 1},
        {"/srv/music/off/a.mp3", 0}, {"/srv/musicx/a.mp3", 0}, {"/srv/video", 0}, {"/etc/passwd", 0},
        {"/srv/video/../../etc/passwd", 0}, {"/srv/video/./a.mp3", 0}, {"/srv/video//a.mp3", 0},
        {"srv/video/a.mp3", 0}, {"", 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.served, db_file_is_served(c.path)) << c.path;
    EXPECT_EQ(0, db_file_is_served(nullptr));
    db_set_upload_dir(nullptr);
    upnp_ini_set(UPNP_OPT_DBDIR, "");
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "");
}

// The fixed top: the same ids in every run, titles from the options, the
// played lists and nodes only where their options ask for them.
TEST(DbRoot, TheFixedTopKeepsItsIdsInEveryLayout)
{
    auto id = [](int32_t type, uint32_t sequence) { return uint32_t(type) << DB_ID_TYPE_SHIFT | sequence; };
    auto id_of = [](const db_object* o) { return o ? uint32_t(o->id) : 0u; };
    const struct { int flat, document, played; const char* music_title; uint32_t music, playlists, document_id;
                   int32_t root_children, music_children; } cases[] = {
        {1, 1, 10, "Musik", id(2, 10), 0, id(5, 57), 4, 0},
        {0, 0, 0, "", id(0, 1), id(0, 11), 0, 3, 3},
        {0, 1, 10, "", id(0, 1), id(0, 11), id(5, 57), 4, 3},
    };
    upnp_ini_set(UPNP_OPT_MUSICNODE1, "Artist,%ARTIST");
    upnp_ini_set(UPNP_OPT_MUSICNODE2, "");
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.flat << c.document << c.played);
        upnp_switches.tree_flat = c.flat;
        upnp_switches.document_root = c.document;
        upnp_ini_set(UPNP_OPT_PLAYLISTNUMENTRIES, std::to_string(c.played).c_str());
        upnp_ini_set(UPNP_OPT_ROOTMUSIC, c.music_title);
        db_create();
        db_build_root();
        EXPECT_EQ(id_of(db_music_root), c.music);
        EXPECT_EQ(id_of(db_playlist_root), c.playlists);
        EXPECT_EQ(id_of(db_document_root), c.document_id);
        EXPECT_EQ(std::vector<uint32_t>({id_of(db_all_music), id_of(db_all_pictures), id_of(db_all_video)}),
                  std::vector<uint32_t>({id(2, 10), id(7, 30), id(4, 50)}));
        EXPECT_EQ(db_object_parent(db_all_music), c.flat ? db_root : db_music_root);
        EXPECT_EQ(db_object_get_int(db_root, DBK_CHILD_COUNT), c.root_children);
        EXPECT_EQ(db_object_get_int(db_music_root, DBK_CHILD_COUNT), c.music_children);
        EXPECT_STREQ(db_object_get_str(db_music_root, DBK_TITLE), *c.music_title ? c.music_title : "Music");
        EXPECT_EQ(db_most_played != nullptr, !c.flat && c.played != 0);
        db_destroy();
    }
    upnp_switches.tree_flat = 1;
    upnp_switches.document_root = 0;
    upnp_ini_set(UPNP_OPT_MUSICNODE1, "");
}
