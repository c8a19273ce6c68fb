// The velmora-dms program as a user runs it: started with a folder, an
// address pinned to 127.0.0.1 and a free port, stopped with SIGINT; and the
// library's export table.
#include "support/test_host.h"
#include "support/test_net.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <set>
#include <string>

namespace {

TEST(Host, ServesTheFolderAndStopsCleanlyOnSigint)
{
    test_dir media, work;
    int port = test_free_port();
    host_run host({media.path, "--workdir", work.path, "--ip", "127.0.0.1", "--port", std::to_string(port),
                   "--name", "Test Shelf"});
    std::string serving = "Serving on http://127.0.0.1:" + std::to_string(port) + "/";
    ASSERT_TRUE(host.wait_for(serving)) << host.seen;
    EXPECT_NE(std::string::npos, host.seen.find("\"Test Shelf\""));
    EXPECT_TRUE(test_can_connect("127.0.0.1", port));
    kill(host.pid, SIGINT);
    EXPECT_EQ(0, host.wait_exit()) << host.seen;
    EXPECT_FALSE(test_can_connect("127.0.0.1", port));
    std::string ini = test_read_file(work.file("velmora-mediaserver.ini"));
    EXPECT_EQ(0u, ini.find("\xFF\xFE"));    // the library wrote it back as UTF-16
}

TEST(Host, ASecondStartUsesTheNewOptions)
{
    test_dir media, work;
    int first = test_free_port();
    {
        host_run host({media.path, "--workdir", work.path, "--ip", "127.0.0.1", "--port", std::to_string(first)});
        ASSERT_TRUE(host.wait_for("127.0.0.1:" + std::to_string(first))) << host.seen;
        kill(host.pid, SIGTERM);
        EXPECT_EQ(0, host.wait_exit());
    }
    int second = test_free_port();
    host_run host({media.path, "--workdir", work.path, "--ip", "127.0.0.1", "--port", std::to_string(second),
                   "--name", "Renamed"});
    ASSERT_TRUE(host.wait_for("127.0.0.1:" + std::to_string(second))) << host.seen;
    EXPECT_NE(std::string::npos, host.seen.find("\"Renamed\""));
    kill(host.pid, SIGTERM);
    EXPECT_EQ(0, host.wait_exit());
}

TEST(Host, TwoServersOnOnePortEndUpOnTwoPortsTheSecondHigher)
{
    test_dir media, work1, work2;
    int port = test_free_port();
    host_run first({media.path, "--workdir", work1.path, "--ip", "127.0.0.1", "--port", std::to_string(port)});
    ASSERT_TRUE(first.wait_for("127.0.0.1:" + std::to_string(port) + "/")) << first.seen;
    host_run second({media.path, "--workdir", work2.path, "--ip", "127.0.0.1", "--port", std::to_string(port)});
    ASSERT_TRUE(second.wait_for("Serving on http://127.0.0.1:")) << second.seen;
    size_t at = second.seen.find("127.0.0.1:") + 10;
    int second_port = std::stoi(second.seen.substr(at));
    EXPECT_GT(second_port, port);
    EXPECT_TRUE(test_can_connect("127.0.0.1", second_port));
    kill(first.pid, SIGTERM);
    kill(second.pid, SIGTERM);
    EXPECT_EQ(0, first.wait_exit());
    EXPECT_EQ(0, second.wait_exit());
}

struct refusal_case { const char* why; std::vector<std::string> args; const char* message; };

TEST(Host, RefusesWhatItCannotServeWithOneLine)
{
    test_dir media;
    test_write_file(media.file("blocker"), "a file where a folder should be");
    const refusal_case cases[] = {
        {"missing folder", {"/nonexistent/velmora-media"}, "folder not found: /nonexistent/velmora-media"},
        {"work dir under a file", {media.path, "--workdir", media.file("blocker") + "/state"}, "working folder"},
        {"bad port", {media.path, "--port", "70000"}, "--port"},
        {"unknown option", {"--bogus"}, "unknown option --bogus"},
    };
    for (const refusal_case& c : cases) {
        SCOPED_TRACE(c.why);
        host_run host(c.args);
        host.wait_for("\n");
        EXPECT_NE(0, host.wait_exit());
        EXPECT_NE(std::string::npos, host.seen.find(c.message)) << host.seen;
        EXPECT_EQ(1, std::count(host.seen.begin(), host.seen.end(), '\n')) << host.seen;
    }
}

// The library shows the control API and nothing else of ours.
TEST(Library, ExportsExactlyTheControlApi)
{
    std::string command = std::string("nm -D --defined-only ") + VELMORA_SHARED_LIBRARY;
    FILE* nm = popen(command.c_str(), "r");
    ASSERT_NE(nullptr, nm);
    std::set<std::string> exported;
    char line[512];
    while (fgets(line, sizeof line, nm)) {
        std::string name = line;
        name = name.substr(name.rfind(' ') + 1);
        name.erase(name.find_last_not_of("\r\n") + 1);
        exported.insert(name);
    }
    pclose(nm);
    std::set<std::string> dapi;
    for (const std::string& name : exported)
        if (name.rfind("dapi_dms_", 0) == 0)
            dapi.insert(name);
    EXPECT_EQ(26u, dapi.size());
    EXPECT_EQ(dapi, exported);
}

}  // namespace
