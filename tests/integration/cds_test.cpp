// ContentDirectory as real clients use it: the library in-process, its
// threads in a network namespace of the test's own, sharing a library made
// by bench/make-corpus.sh in the full tree; in the second namespace a GUPnP
// control point (upnp_walk.py) finds it, walks the whole tree in pages of
// 7 and of 500 and sends odd requests. What the walk reached must be the
// item of every file the scanner admitted. Then players take what it
// offers (upnp_play.py): ffprobe, gupnp-dlna-info and a GStreamer playbin
// against every resource. The working folder is the one that
// dapi_dms_test.cpp's environment made; its ini file is swapped and put
// back.
#include <velmora/dapi_dms.h>

#include "database/db_object.h"
#include "runtime/upnp_run.h"
#include "support/test_netns.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <iostream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>

namespace {

std::mutex seen_lock;
std::set<std::string> admitted;    // paths of DAPI_EVENT_FILE_ADDED
int finishes;

int32_t cds_on_event(int32_t code, const char* text)
{
    std::lock_guard<std::mutex> hold(seen_lock);
    if (code == DAPI_EVENT_FILE_ADDED && text)
        admitted.insert(text);
    if (code == DAPI_EVENT_SCAN && text && std::string(text).rfind("finished ", 0) == 0)
        finishes++;
    return 0;
}

struct CdsNetns : ::testing::Test {
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

// Whether /usr/bin/python3 can load these GObject typelibs, name and version each.
bool python_has(std::initializer_list<const char*> typelibs)
{
    std::string check = "import gi";
    for (const char* t : typelibs)
        check += "; gi.require_version(" + std::string(t) + ")";
    return system(("/usr/bin/python3 -c \"" + check + "\" >/dev/null 2>&1").c_str()) == 0;
}

// The library in the server namespace of ns on a corpus of 40 files, its
// first scan finished.
void serve_corpus(const test_netns_pair& ns, const test_dir& media, const std::string& ini)
{
    ASSERT_EQ(0, system((VELMORA_SOURCE_DIR "/bench/make-corpus.sh 40 '" + media.path + "' >/dev/null").c_str()));
    ASSERT_TRUE(test_write_file(ini, "[main]\r\nip=192.0.2.1\r\nhttpport=9000\r\nnicrestart=0\r\ncontentdir=" +
                                         media.path + "\r\ndbdir=" + media.file("velmoramedia.db") + "\r\n"));
    {
        std::lock_guard<std::mutex> h(seen_lock);
        admitted.clear();
        finishes = 0;
    }
    dapi_dms_register_callback(cds_on_event);
    ASSERT_TRUE(test_netns_inside(ns.server, [] {
        EXPECT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, DAPI_FLAG_NESTED_TREE | DAPI_FLAG_DOCUMENT_ROOT));
    }));
    ASSERT_TRUE(test_eventually([] { std::lock_guard<std::mutex> h(seen_lock); return finishes >= 1; }, 60000));
}

// What a script prints, run in the client namespace against the server.
std::string run_client(const test_netns_pair& ns, const char* script, int* status)
{
    return test_output("ip netns exec " + ns.client + " /usr/bin/python3 " VELMORA_SOURCE_DIR "/tests/integration/" +
                           script + " --interface " + ns.client_link + " --address 192.0.2.2 --timeout 20",
                       status);
}

TEST_F(CdsNetns, GupnpWalksTheWholeTreeInPagesOf7And500ReachesEveryAdmittedFileAndEachOddRequestGetsItsAnswer)
{
    if (!python_has({"'GUPnP', '1.6'", "'GUPnPAV', '1.0'"}))
        GTEST_SKIP() << "needs Debian's python3-gi, gir1.2-gupnp-1.6 and gir1.2-gupnp-av-1.0";
    if (system("command -v ffmpeg >/dev/null") != 0)
        GTEST_SKIP() << "ffmpeg makes the library's base files; tools/test.sh installs it";
    test_netns_pair ns("cds");
    if (!ns.made)
        GTEST_SKIP() << "this machine does not let the test create network namespaces (needs root)";
    test_dir media;
    serve_corpus(ns, media, ini);
    if (HasFatalFailure())
        return;
    std::set<std::string> expected;    // the id words of the admitted files' items; playlists have none
    {
        std::lock_guard<std::mutex> h(seen_lock);
        db_lock_guard hold;
        for (const std::string& path : admitted)
            if (db_object* o = db_object_find_by_path(path.c_str()))
                expected.insert(std::to_string(uint32_t(o->id)));
    }
    ASSERT_GE(expected.size(), 30u);

    int status = -1;
    std::string output = run_client(ns, "upnp_walk.py", &status);
    EXPECT_EQ(0, status) << output;
    EXPECT_NE(std::string::npos, output.find("\ndone\n")) << output;
    std::set<std::string> reached;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("reached ", 0) == 0)
            reached.insert(line.substr(8));
    EXPECT_EQ(expected, reached) << output;
}

// Every resource of every item is fetched and demuxed, its protocolInfo
// parsed, its DLNA profile matched; an MP3 and an MP4 play to the end.
TEST_F(CdsNetns, PlayersFetchDemuxAndPlayEveryResourceAsItsDidlDescribesIt)
{
    if (!python_has({"'GUPnP', '1.6'", "'GUPnPAV', '1.0'", "'Gst', '1.0'"}))
        GTEST_SKIP() << "needs Debian's python3-gi, gir1.2-gupnp-1.6, gir1.2-gupnp-av-1.0 and gir1.2-gstreamer-1.0";
    if (system("command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null") != 0)
        GTEST_SKIP() << "ffmpeg makes the library's base files and ffprobe reads them; tools/test.sh installs both";
    test_netns_pair ns("play");
    if (!ns.made)
        GTEST_SKIP() << "this machine does not let the test create network namespaces (needs root)";
    test_dir media;
    serve_corpus(ns, media, ini);
    if (HasFatalFailure())
        return;
    int status = -1;
    std::string output = run_client(ns, "upnp_play.py", &status);
    std::cout << output;           // what each check found, whether or not it passed
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, output.find("\ndone\n"));
}

}  // namespace
