// The first pass of the scanner, driven in-process as a host drives the
// library, over a small library made by bench/make-corpus.sh plus files the
// scanner must refuse; the store is read back through its own lookups by
// path. The library reads its options from the working folder, which the
// environment of dapi_dms_test.cpp made this process's; its ini file is
// swapped for one that shares the library, and put back after.
#include <velmora/dapi_dms.h>

#include "database/db_object.h"
#include "runtime/upnp_run.h"
#include "support/test_net.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <sys/stat.h>

namespace {

// The stored type by extension; -1: read, but no item of its own (a playlist).
const struct { const char* extension; int32_t type; } scan_types[] = {
    {".mp3", DB_OBJ_AUDIO}, {".m4a", DB_OBJ_AUDIO}, {".jpg", DB_OBJ_PHOTO}, {".mp4", DB_OBJ_VIDEO},
    {".txt", DB_OBJ_DOCUMENT}, {".pdf", DB_OBJ_DOCUMENT}, {".m3u", -1},
};

// Files the scanner must pass over, put beside the library.
const struct { const char* why; const char* name; const char* bytes; } scan_refused[] = {
    {"empty", "empty.txt", ""},
    {"dot file", ".hidden.txt", "a companion file"},
    {"no extension", "README", "a name without a dot"},
    {"unknown extension", "data.xyz", "bytes of no known kind"},
    {"in the database folder", "velmoramedia.db/kept/inside.txt", "the database folder is never shared"},
};

std::mutex seen_lock;
std::set<std::string> added;       // paths of DAPI_EVENT_FILE_ADDED
std::string finished;              // the text of the last "finished" event
int finishes;

int32_t scan_on_event(int32_t code, const char* text)
{
    std::lock_guard<std::mutex> hold(seen_lock);
    if (code == DAPI_EVENT_FILE_ADDED && text)
        added.insert(text);
    if (code == DAPI_EVENT_SCAN && text && std::string(text).rfind("finished ", 0) == 0)
        finished = text, finishes++;
    return 0;
}

// A photo's EXIF day is also the day of its modification time in the corpus.
std::string mtime_day(const std::string& path)
{
    struct stat st {};
    struct tm utc {};
    char day[16] = "";
    if (stat(path.c_str(), &st) == 0)
        strftime(day, sizeof day, "%Y-%m-%d", gmtime_r(&st.st_mtime, &utc));
    return day;
}

// Path to id word of every stored item; on the way each item's type, and a
// JPEG's frame size as ffprobe reads it and, for a photo, its EXIF day.
std::map<std::string, uint32_t> stored_items(const std::set<std::string>& admitted)
{
    std::map<std::string, uint32_t> ids;
    db_lock_guard hold;
    for (const std::string& path : admitted) {
        int32_t type = -2;
        for (const auto& t : scan_types)
            type = std::filesystem::path(path).extension() == t.extension ? t.type : type;
        db_object* o = db_object_find_by_path(path.c_str());
        EXPECT_EQ(type < 0, o == nullptr) << path;
        if (type < 0 || !o)
            continue;
        uint32_t id = o->id;   // packed: copied before it is compared
        ids[path] = id;
        EXPECT_EQ(type, db_object_type_of(o)) << path;
        EXPECT_EQ(id, upnp_cds_db_file_get_id_by_res(path.c_str())) << path;
        if (type != DB_OBJ_PHOTO)
            continue;
        std::string size = test_output("ffprobe -v error -show_entries stream=width,height -of csv=p=0:s=x '" +
                                       path + "'");
        const char* resolution = db_object_get_str(o, DBK_RESOLUTION);
        EXPECT_EQ(size.substr(0, size.find('\n')), resolution ? resolution : "") << path;
        if (std::filesystem::path(path).filename().string().rfind("IMG_", 0) == 0) {
            const char* date = db_object_get_str(o, DBK_DATE);
            EXPECT_EQ(mtime_day(path), date ? date : "") << path;
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
        test_write_file(ini, saved);
    }
};

TEST_F(Scan, AFirstPassStoresEveryAdmittedFileWithItsTypeRefusesTheRestAndARestartKeepsTheIds)
{
    if (system("command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null") != 0)
        GTEST_SKIP() << "ffmpeg makes the library's base files; tools/test.sh installs it";
    test_dir media;
    int status = 0;
    std::string made = test_output(VELMORA_SOURCE_DIR "/bench/make-corpus.sh 40 '" + media.path + "'", &status);
    ASSERT_EQ(0, status) << made;
    std::set<std::string> expected;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(media.path))
        if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
            expected.insert(entry.path().string());
    for (const auto& r : scan_refused) {
        std::filesystem::create_directories(std::filesystem::path(media.file(r.name)).parent_path());
        ASSERT_TRUE(test_write_file(media.file(r.name), r.bytes)) << r.why;
    }
    ASSERT_TRUE(test_write_file(ini, "[main]\r\nip=127.0.0.1\r\nhttpport=" + std::to_string(test_free_port()) +
                                         "\r\nnicrestart=0\r\ncontentdir=" + media.path +
                                         "\r\ndbdir=" + media.file("velmoramedia.db") + "\r\n"));
    dapi_dms_register_callback(scan_on_event);
    const uint32_t flags = DAPI_FLAG_NO_SSDP | DAPI_FLAG_DOCUMENT_ROOT;
    auto pass = [&](int count) {
        ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, flags));
        ASSERT_TRUE(test_eventually([&] { std::lock_guard<std::mutex> h(seen_lock); return finishes >= count; },
                                    60000));
    };
    ASSERT_NO_FATAL_FAILURE(pass(1));
    {
        std::lock_guard<std::mutex> hold(seen_lock);
        EXPECT_EQ(expected, added);   // so no refused file either
        unsigned folders = 0, seen = 0, admitted = 0;
        EXPECT_EQ(3, sscanf(finished.c_str(), "finished %u %u %u", &folders, &seen, &admitted)) << finished;
        EXPECT_EQ(expected.size(), admitted) << finished;
    }
    std::map<std::string, uint32_t> first = stored_items(expected);
    for (const auto& r : scan_refused) {
        db_lock_guard hold;
        EXPECT_EQ(nullptr, db_object_find_by_path(media.file(r.name).c_str())) << r.why;
    }
    dapi_dms_terminate();
    ASSERT_NO_FATAL_FAILURE(pass(2));
    EXPECT_EQ(first, stored_items(expected));
}

}  // namespace
