// The velmora-dms program as a user runs it: started with a folder, an
// address pinned to 127.0.0.1 and a free port, stopped with a signal; and
// the library's export table.
#include "support/test_host.h"
#include "support/test_net.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sstream>
#include <set>
#include <string>

namespace {

std::vector<std::string> host_args(const test_dir& media, const test_dir& work, int port,
                                   std::vector<std::string> more = {})
{
    std::vector<std::string> args = {media.path, "--workdir", work.path, "--ip", "127.0.0.1", "--port",
                                     std::to_string(port)};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

// The second start in the same working folder takes the command line's
// options over the ini file that the first one wrote. Each start walks the
// folder once and says when the pass begins and ends.
TEST(Host, ServesTheFolderStopsCleanlyOnSigintOrSigtermAndASecondStartTakesNewOptions)
{
    test_dir media, work;
    for (const char* name : {"notes.txt", "report.pdf", "letter.txt"})
        test_write_file(media.file(name), std::string("plain bytes of ") + name + "\n");
    const struct { const char* name; int signal; } runs[] = {{"Test Shelf", SIGINT}, {"Renamed", SIGTERM}};
    for (const auto& run : runs) {
        SCOPED_TRACE(run.name);
        int port = test_free_port();
        host_run host(host_args(media, work, port, {"--name", run.name}));
        ASSERT_TRUE(host.wait_for("Serving on http://127.0.0.1:" + std::to_string(port) + "/")) << host.seen;
        EXPECT_NE(std::string::npos, host.seen.find("\"" + std::string(run.name) + "\"")) << host.seen;
        EXPECT_TRUE(test_can_connect("127.0.0.1", port));
        EXPECT_TRUE(host.wait_for("Scanning the shared folders...\n")) << host.seen;
        EXPECT_TRUE(host.wait_for("Scan finished: 1 folders, 3 files seen, 3 admitted in ")) << host.seen;
        kill(host.pid, run.signal);
        EXPECT_EQ(0, host.wait_exit()) << host.seen;
        EXPECT_FALSE(test_can_connect("127.0.0.1", port));
        EXPECT_EQ(0u, test_read_file(work.file("velmora-mediaserver.ini")).find("\xFF\xFE"));   // written back
        // The library's start-up traces go to a file, not to the terminal.
        EXPECT_EQ(std::string::npos, host.seen.find("upnp_mediaserver_start")) << host.seen;
        EXPECT_NE(std::string::npos, test_read_file(work.file("velmora-output.txt")).find("upnp_mediaserver_start"));
    }
}

TEST(Host, TwoServersOnOnePortEndUpOnTwoPortsTheSecondHigher)
{
    test_dir media, work1, work2;
    int port = test_free_port();
    host_run first(host_args(media, work1, port));
    ASSERT_TRUE(first.wait_for("127.0.0.1:" + std::to_string(port) + "/")) << first.seen;
    host_run second(host_args(media, work2, port));
    ASSERT_TRUE(second.wait_for("Serving on http://127.0.0.1:")) << second.seen;
    int second_port = std::stoi(second.seen.substr(second.seen.find("127.0.0.1:") + 10));
    EXPECT_GT(second_port, port);
    EXPECT_TRUE(test_can_connect("127.0.0.1", second_port));
    kill(first.pid, SIGTERM);
    kill(second.pid, SIGTERM);
    EXPECT_EQ(0, first.wait_exit());
    EXPECT_EQ(0, second.wait_exit());
}

TEST(Host, RefusesWhatItCannotServeWithOneLine)
{
    test_dir media;
    test_write_file(media.file("blocker"), "a file where a folder should be");
    const struct { const char* why; std::vector<std::string> args; const char* message; } cases[] = {
        {"missing folder", {"/nonexistent/velmora-media"}, "folder not found: /nonexistent/velmora-media"},
        {"work dir under a file", {media.path, "--workdir", media.file("blocker") + "/state"}, "working folder"},
        {"unknown option", {"--bogus"}, "unknown option --bogus"},
        {"address no interface has", {media.path, "--ip", "192.0.2.77"}, "no interface of this machine has"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        host_run host(c.args);
        host.wait_for("\n");
        EXPECT_NE(0, host.wait_exit());
        EXPECT_NE(std::string::npos, host.seen.find(c.message)) << host.seen;
        EXPECT_EQ(1, std::count(host.seen.begin(), host.seen.end(), '\n')) << host.seen;
    }
}

// The library shows the functions its header declares and nothing else.
TEST(Library, ExportsExactlyTheControlApi)
{
    std::set<std::string> declared, exported;
    std::istringstream header(test_read_file(VELMORA_SOURCE_DIR "/include/velmora/dapi_dms.h"));
    for (std::string line; std::getline(header, line);)
        if (line.rfind("DAPI_DMS_EXPORT ", 0) == 0)
            declared.insert(line.substr(line.find("dapi_dms_"), line.find('(') - line.find("dapi_dms_")));
    std::istringstream nm(test_output(std::string("nm -D --defined-only ") + VELMORA_SHARED_LIBRARY));
    for (std::string line; std::getline(nm, line);)
        exported.insert(line.substr(line.rfind(' ') + 1));
    EXPECT_FALSE(declared.empty());
    EXPECT_EQ(declared, exported);
}

}  // namespace
