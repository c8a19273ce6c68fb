// The velmora-dms program as a user runs it: started with a folder, an
// address pinned to 127.0.0.1 and a free port, stopped with SIGINT; and the
// library's export table.
#include "support/test_net.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <set>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

struct host_run {
    pid_t pid = -1;
    int out = -1;          // the program's standard output and error
    std::string seen;

    explicit host_run(std::vector<std::string> args)
    {
        args.insert(args.begin(), VELMORA_HOST_BINARY);
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        int pipe_fds[2];
        if (pipe2(pipe_fds, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
        posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 2);
        posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(pipe_fds[1]);
        out = pipe_fds[0];
    }
    ~host_run()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (out >= 0)
            close(out);
    }
    // Reads output until text appears, the program closes it, or 10 s pass.
    bool wait_for(const std::string& text)
    {
        char buffer[4096];
        pollfd p{out, POLLIN, 0};
        for (int rounds = 0; seen.find(text) == std::string::npos && rounds < 100; rounds++) {
            if (poll(&p, 1, 100) != 1)
                continue;
            ssize_t n = read(out, buffer, sizeof buffer);
            if (n <= 0)
                break;
            seen.append(buffer, size_t(n));
        }
        return seen.find(text) != std::string::npos;
    }
    // The exit status, or -1 when the program did not end within 10 s.
    int wait_exit()
    {
        for (int rounds = 0; rounds < 1000; rounds++) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            usleep(10 * 1000);
        }
        return -1;
    }
};

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
