// The scanner's first pass, in-process as a host runs it, over a library
// made by bench/make-corpus.sh, read back through the store's lookups by
// path. The working folder is the one that dapi_dms_test.cpp's environment
// made; its ini file is swapped and put back.
#include <velmora/dapi_dms.h>

#include "database/db_object.h"
#include "database/db_store.h"
#include "runtime/upnp_run.h"
#include "support/test_net.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

// The stored type by extension; -1: read, but no item of its own (a playlist).
const struct { const char* extension; int32_t type; } scan_types[] = {
    {".mp3", DB_OBJ_AUDIO}, {".m4a", DB_OBJ_AUDIO}, {".jpg", DB_OBJ_PHOTO}, {".mp4", DB_OBJ_VIDEO},
    {".txt", DB_OBJ_DOCUMENT}, {".pdf", DB_OBJ_DOCUMENT}, {".m3u", -1},
};

// Beside the library, files the scanner passes over: empty, dot file, no
// extension, an unknown one, one inside the database folder.
const char* const scan_refused[] = {"empty.txt", ".hidden.txt", "README", "data.xyz", "velmoramedia.db/in/x.txt"};

std::mutex seen_lock;
std::set<std::string> added;       // paths of DAPI_EVENT_FILE_ADDED
int finishes;                      // "finished" events of DAPI_EVENT_SCAN

int32_t scan_on_event(int32_t code, const char* text)
{
    std::lock_guard<std::mutex> hold(seen_lock);
    if (code == DAPI_EVENT_FILE_ADDED && text)
        added.insert(text);
    if (code == DAPI_EVENT_SCAN && text && std::string(text).rfind("finished ", 0) == 0)
        finishes++;
    return 0;
}

// Path to id word of every stored item among the files (type -1: none); on
// the way each item's type, a JPEG's frame size as ffprobe reads it and a
// photo's EXIF day, which the corpus also gave the file as its mtime.
std::map<std::string, uint32_t> stored_items(const std::map<std::string, int32_t>& files)
{
    std::map<std::string, uint32_t> ids;
    db_lock_guard hold;
    for (const auto& [path, type] : files) {
        db_object* o = db_object_find_by_path(path.c_str());
        EXPECT_EQ(type < 0, o == nullptr) << path;
        if (type < 0 || !o)
            continue;
        uint32_t id = ids[path] = o->id;   // packed: copied before it is compared
        EXPECT_EQ(type, db_object_type_of(o)) << path;
        EXPECT_EQ(id, upnp_cds_db_file_get_id_by_res(path.c_str())) << path;
        if (type != DB_OBJ_PHOTO)
            continue;
        std::string size = test_output("ffprobe -v error -show_entries stream=width,height -of csv=p=0:s=x '" +
                                       path + "'");
        EXPECT_STREQ(size.substr(0, size.find('\n')).c_str(), db_object_get_str(o, DBK_RESOLUTION)) << path;
        struct stat st {};
        struct tm utc {};
        char day[16] = "";
        if (fs::path(path).filename().string().rfind("IMG_", 0) == 0 && stat(path.c_str(), &st) == 0) {
            strftime(day, sizeof day, "%Y-%m-%d", gmtime_r(&st.st_mtime, &utc));
            EXPECT_STREQ(day, db_object_get_str(o, DBK_DATE)) << path;
        }
    }
    return ids;
}

struct Scan : ::testing::Test {
    const std::string ini = "velmora-mediaserver.ini", saved = test_read_file(ini);
    void TearDown() override
    {
        dapi_dms_register_callback(nullptr);
        dapi_dms_terminate();
        upnp_switches.document_root = 0;
        upnp_switches.tree_flat = 1;
        test_write_file(ini, saved);
    }
};

TEST_F(Scan, AFirstPassStoresEveryFileWithItsTypeRefusesTheRestAndARestartKeepsTheIds)
{
    if (system("command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null") != 0)
        GTEST_SKIP() << "ffmpeg makes the library's base files; tools/test.sh installs it";
    test_dir media;
    ASSERT_EQ(0, system((VELMORA_SOURCE_DIR "/bench/make-corpus.sh 40 '" + media.path + "'").c_str()));
    std::set<std::string> expected;
    std::map<std::string, int32_t> files;
    for (const auto& entry : fs::recursive_directory_iterator(media.path))
        for (const auto& t : scan_types)
            if (entry.path().extension() == t.extension) {
                files[entry.path()] = t.type;
                expected.insert(entry.path());
            }
    for (const char* name : scan_refused) {
        fs::create_directories(fs::path(media.file(name)).parent_path());
        ASSERT_TRUE(test_write_file(media.file(name), name[0] == 'e' ? "" : "bytes"));
        files[media.file(name)] = -1;
    }
    ASSERT_TRUE(test_write_file(ini, "[main]\r\nip=127.0.0.1\r\nhttpport=" + std::to_string(test_free_port()) +
                                         "\r\nnicrestart=0\r\ncontentdir=" + media.path +
                                         "\r\ndbdir=" + media.file("velmoramedia.db") + "\r\n"));
    dapi_dms_register_callback(scan_on_event);
    auto pass = [&](int count) {
        ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, DAPI_FLAG_NO_SSDP | DAPI_FLAG_DOCUMENT_ROOT));
        ASSERT_TRUE(test_eventually([&] { std::lock_guard<std::mutex> h(seen_lock); return finishes >= count; },
                                    60000));
    };
    ASSERT_NO_FATAL_FAILURE(pass(1));
    {
        std::lock_guard<std::mutex> hold(seen_lock);
        EXPECT_EQ(expected, added);
    }
    std::map<std::string, uint32_t> first = stored_items(files);
    dapi_dms_terminate();
    ASSERT_NO_FATAL_FAILURE(pass(2));
    EXPECT_EQ(first, stored_items(files));

    // The full tree: the preset's nodes beside "All Music", and every
    // track, photo and video reached through them as well.
    dapi_dms_terminate();
    ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, DAPI_FLAG_NO_SSDP | DAPI_FLAG_NESTED_TREE));
    ASSERT_TRUE(test_eventually([&] { std::lock_guard<std::mutex> h(seen_lock); return finishes >= 3; }, 60000));
    db_lock_guard hold;
    EXPECT_NE(db_music_root, db_all_music);
    EXPECT_GE(db_container_child_count(db_music_root), 5);
    for (const auto& [path, type] : files) {
        if (type == DB_OBJ_AUDIO || type == DB_OBJ_PHOTO || type == DB_OBJ_VIDEO) {
            EXPECT_GT(db_ref_index_count(db_object_find_by_path(path.c_str())), 0) << path;
        }
    }
}

}  // namespace
