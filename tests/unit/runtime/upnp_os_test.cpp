// Threads, sockets, name lookup and child processes; traffic stays on 127.0.0.1, waits are bounded.
#include "runtime/upnp_os.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using namespace std::string_literals;

constexpr int32_t WAIT_MS = 5000;

static void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
static const char* or_null(const char* text) { return text ? text : "(null)"; }
static bool is_cloexec(int fd) { return fd >= 3 && fcntl(fd, F_GETFD) == FD_CLOEXEC; }

// A listener on 127.0.0.1 with a port of the system's choice, a client
// connected to it and the accepted end.
struct loopback_pair {
    int32_t listener = -1, client = -1, served = -1;

    bool open()
    {
        listener = upnp_socket_tcp();
        if (listener < 0 || upnp_socket_bind(listener, "127.0.0.1", 0) != 0 || upnp_socket_listen(listener) != 0)
            return false;
        int32_t port = upnp_socket_local_port(listener);
        client = upnp_socket_tcp();
        if (port <= 0 || client < 0 || upnp_socket_connect_timeout(client, "127.0.0.1", port, WAIT_MS) != 0)
            return false;
        served = upnp_socket_accept(listener);
        return served >= 0;
    }
    ~loopback_pair()
    {
        for (int32_t s : {listener, client, served})
            if (s >= 0)
                upnp_socket_close(s);
    }
};

// A process that no longer exists, or is only a zombie waiting for a reaper
// that is not us.
static bool process_gone(pid_t pid)
{
    if (kill(pid, 0) != 0)
        return errno == ESRCH;
    std::string stat = test_read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close_paren = stat.rfind(')');
    return close_paren != std::string::npos && close_paren + 2 < stat.size() && stat[close_paren + 2] == 'Z';
}

// Reads one line from fd, waiting at most WAIT_MS.
static std::string read_line(int fd)
{
    std::string line;
    char c;
    while (line.size() < 64) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, WAIT_MS) != 1 || read(fd, &c, 1) != 1 || c == '\n')
            break;
        line += c;
    }
    return line;
}


TEST(OsThread, SpawnedThreadRunsWithSigpipeBlockedAShortNameAndIsCountedUntilItEnds)
{
    static struct { std::atomic<int> ran{0}, sigpipe_blocked{-1}, idle{-1}; char name[32] = ""; } seen;
    ASSERT_EQ(1, upnp_thread_spawn(
                     [](void* arg) {
                         auto* s = static_cast<decltype(seen)*>(arg);
                         upnp_thread_set_name("upnp_notify_new_contents_thread");
                         pthread_getname_np(pthread_self(), s->name, sizeof(s->name));
                         sigset_t now;
                         pthread_sigmask(SIG_BLOCK, nullptr, &now);
                         s->sigpipe_blocked = sigismember(&now, SIGPIPE);
                         s->idle = upnp_thread_wait_idle(WAIT_MS);   // does not wait for itself
                         s->ran = 1;
                     },
                     &seen, 1));
    EXPECT_EQ(1, upnp_thread_wait_idle(WAIT_MS));
    EXPECT_EQ(std::make_tuple(1, 1, 1, "upnp_notify_new"s, 0),       // the name as far as the kernel keeps it
              std::make_tuple(seen.ran.load(), seen.sigpipe_blocked.load(), seen.idle.load(), seen.name,
                              upnp_thread_count()));
    EXPECT_EQ(0, upnp_thread_spawn(nullptr, nullptr, 0));
}

TEST(OsThread, WaitIdleGivesUpWhileAThreadRunsAndJoinedThreadsLeaveTheCount)
{
    static std::atomic<int> release{0}, ran{0};
    release = ran = 0;
    ASSERT_EQ(1, upnp_thread_spawn(
                     [](void*) {
                         for (int i = 0; i < 2000 && !release.load(); i++)
                             sleep_ms(5);
                     },
                     nullptr, -2));
    uint64_t handle = upnp_thread_start([](void*) { ran = 1; }, nullptr, 0);
    ASSERT_NE(0u, handle);
    EXPECT_EQ(1, upnp_thread_join(handle));
    EXPECT_EQ(1, ran.load());
    EXPECT_EQ(1, upnp_thread_count());
    EXPECT_EQ(0, upnp_thread_wait_idle(30));
    release = 1;
    EXPECT_EQ(1, upnp_thread_wait_idle(WAIT_MS));
    EXPECT_EQ(0, upnp_thread_count());
}

TEST(OsSocket, LoopbackTrafficOnBlockingSocketsAndAClosedPeerGivesAFailureNotSigpipe)
{
    int32_t open_before = upnp_socket_open_count();
    {
        loopback_pair pair;
        ASSERT_TRUE(pair.open());
        EXPECT_EQ(open_before + 3, upnp_socket_open_count());
        EXPECT_EQ(0, fcntl(pair.client, F_GETFL) & O_NONBLOCK);     // blocking again after the timed connect
        EXPECT_TRUE(is_cloexec(pair.listener) && is_cloexec(pair.client) && is_cloexec(pair.served));
        int nodelay = 0;
        socklen_t size = sizeof nodelay;
        EXPECT_TRUE(getsockopt(pair.served, IPPROTO_TCP, TCP_NODELAY, &nodelay, &size) == 0 && nodelay);
        const char request[] = "GET / HTTP/1.1\r\n\r\n";
        ASSERT_EQ(int32_t(sizeof(request)), upnp_socket_send_all(pair.client, request, sizeof(request)));
        char got[64] = {};
        for (int32_t total = 0, n = 1; n > 0 && total < int32_t(sizeof(request)); total += n)
            n = upnp_socket_recv(pair.served, got + total, sizeof(got) - total);
        EXPECT_STREQ(request, got);
        char ip[UPNP_IP_TEXT_SIZE];
        int32_t peer_port = 0;
        ASSERT_EQ(0, upnp_socket_get_peer(pair.served, ip, &peer_port));
        EXPECT_EQ(std::make_tuple("127.0.0.1"s, upnp_socket_local_port(pair.client)), std::make_tuple(ip, peer_port));

        ASSERT_EQ(0, upnp_socket_set_recv_timeout(pair.client, 50));
        errno = 0;
        EXPECT_TRUE(upnp_socket_recv(pair.client, got, sizeof(got)) == -1 && (errno == EAGAIN || errno == EWOULDBLOCK));
        upnp_socket_close(pair.served);
        pair.served = -1;
        // The first sends may still be taken by the kernel; a reset follows.
        char block[4096] = {};
        int32_t rc = 0;
        for (int i = 0; i < 200 && rc >= 0; i++)
            if ((rc = upnp_socket_send(pair.client, block, sizeof(block))) >= 0)
                sleep_ms(5);
        EXPECT_EQ(-1, rc);                 // and the process is still here
    }
    EXPECT_EQ(open_before, upnp_socket_open_count());
}

TEST(OsSocket, NewSocketsStayAboveStdioWhichIsNeverClosed)
{
    int saved = fcntl(0, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(saved, 3);
    close(0);
    int32_t s = upnp_socket_tcp();
    bool stdin_free = fcntl(0, F_GETFD) < 0;
    dup2(saved, 0);
    close(saved);
    EXPECT_TRUE(stdin_free);
    EXPECT_TRUE(is_cloexec(s)) << s;   // also when moved up from 0
    upnp_socket_close(s);
    for (int32_t bad : {-1, 0, 1, 2})
        EXPECT_EQ(-1, upnp_socket_close(bad)) << bad;
    EXPECT_TRUE(fcntl(1, F_GETFD) >= 0 && fcntl(2, F_GETFD) >= 0);
}

TEST(OsSocket, MalformedAddressTextAndAClosedPortAreRefused)
{
    int32_t s = upnp_socket_udp(), closed = upnp_socket_tcp(), c = upnp_socket_tcp();
    EXPECT_TRUE(is_cloexec(s)) << s;
    ASSERT_EQ(0, upnp_socket_bind(closed, "127.0.0.1", 0));   // bound, never listening
    EXPECT_EQ(-1, upnp_socket_connect_timeout(c, "127.0.0.1", upnp_socket_local_port(closed), WAIT_MS));
    EXPECT_EQ(std::make_tuple(-1, -1, -1, -1, -1, -1, -1),
              std::make_tuple(upnp_socket_bind(s, "999.1.1.1", 0), upnp_socket_bind(s, "127.0.0.1", 70000),
                              upnp_socket_sendto(s, "x", 1, "not-an-ip", 9), upnp_socket_sendto(s, "x", 1, nullptr, 9),
                              upnp_socket_join_group(s, "239.255.255.", "127.0.0.1"),
                              upnp_socket_set_multicast_if(s, "1.2.3"), upnp_socket_set_multicast_ttl(s, 256)));
    for (int32_t each : {s, closed, c})
        upnp_socket_close(each);
}

TEST(OsLookup, ResolvesLocalNamesRefusesTheRestAndAlwaysTerminatesTheHostName)
{
    struct resolve_case { const char* name; int result; const char* ip; };
    static const resolve_case cases[] = {
        {"localhost", 1, "127.0.0.1"}, {"LOCALHOST.", 1, "127.0.0.1"}, {"10.1.2.3", 1, "10.1.2.3"},
        {"nonexistent.invalid", 0, ""} /* a failure, never the loopback */, {"", 0, ""}, {nullptr, 0, ""},
    };
    for (const resolve_case& c : cases) {
        char ip[UPNP_IP_TEXT_SIZE] = "x";
        EXPECT_EQ(std::make_tuple(c.result, std::string(c.ip)), std::make_tuple(upnp_resolve_host(c.name, ip), ip))
            << or_null(c.name);
    }
    char name[256], tiny[3] = {'x', 'x', 'x'};
    EXPECT_TRUE(upnp_get_hostname(name, sizeof(name)) == 1 && name[0]);
    upnp_get_hostname(tiny, sizeof(tiny));
    EXPECT_LT(strnlen(tiny, sizeof(tiny)), sizeof(tiny));
}

// Every case runs from a library thread, whose mask blocks SIGPIPE; the
// child must start with an empty mask all the same.
TEST(OsProcess, RunWaitStartsFromAnArgumentArrayInAnOwnGroupWithNullInputAndAnEmptyMask)
{
    test_dir dir;
    std::string marker = dir.file("x");
    int stray = open("/dev/null", O_RDONLY);          // deliberately inheritable
    ASSERT_GE(stray, 3);
    struct run_case { const char* program; std::vector<std::string> argv; int expected, status; };   // no argv: null
    std::vector<run_case> cases = {
        {"/bin/true", {}, 0, -2}, {"/bin/sh", {"sh", "-c", "exit 3"}, 3, -2},
        {"/nonexistent/program", {}, -1, -2}, {"/etc/hostname", {}, -1, -2}, {nullptr, {}, -1, -2},
        {"/bin/echo", {"echo", "a; touch " + marker + " $(touch " + marker + ")"}, 0, -2},   // no shell reads it
        {"/bin/sh", {"sh", "-c", "set -- $(cat /proc/$$/stat); test \"$5\" = \"$$\""}, 0, -2},   // own group
        {"/bin/sh", {"sh", "-c", "test \"$(readlink /proc/$$/fd/0)\" = /dev/null"}, 0, -2},
        {"/bin/sh", {"sh", "-c", "test ! -e /proc/$$/fd/" + std::to_string(stray)}, 0, -2},
        {"/bin/sh", {"sh", "-c", "exec grep -q '^SigBlk:[[:space:]]*0*$' /proc/self/status"}, 0, -2},
    };
    ASSERT_EQ(1, upnp_thread_spawn(
                     [](void* arg) {
                         for (run_case& c : *static_cast<std::vector<run_case>*>(arg)) {
                             std::vector<const char*> argv;
                             for (const std::string& a : c.argv)
                                 argv.push_back(a.c_str());
                             argv.push_back(nullptr);
                             c.status = upnp_process_run_wait(c.program, c.argv.empty() ? nullptr : argv.data());
                         }
                     },
                     &cases, 0));
    ASSERT_EQ(1, upnp_thread_wait_idle(4 * WAIT_MS));
    close(stray);
    for (const run_case& c : cases)
        EXPECT_EQ(c.expected, c.status) << or_null(c.program) << " " << (c.argv.empty() ? "" : c.argv.back());
    EXPECT_NE(0, access(marker.c_str(), F_OK));
    EXPECT_EQ(0, upnp_process_count());
}

TEST(OsProcess, SpawnedOutputArrivesThroughThePipeAndEndedChildrenAreReaped)
{
    const char* const argv[] = {"echo", "hello", nullptr};
    int32_t out = -1;
    int32_t pid = upnp_process_spawn("/bin/echo", argv, &out);
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(is_cloexec(out));
    EXPECT_EQ("hello", read_line(out));
    close(out);
    int status = -2;
    EXPECT_TRUE(test_eventually([&] { return upnp_process_poll(pid, &status) == 1; }));
    EXPECT_EQ(0, status);
    EXPECT_EQ(-1, upnp_process_poll(pid, &status));
    EXPECT_EQ(0, upnp_process_count());

    ASSERT_GT(upnp_process_spawn("/bin/true", nullptr, nullptr), 0);
    ASSERT_GT(upnp_process_spawn("/bin/true", nullptr, nullptr), 0);
    EXPECT_EQ(2, upnp_process_count());
    int removed = 0;
    EXPECT_TRUE(test_eventually([&] { return (removed += upnp_process_reap()) && upnp_process_count() == 0; }));
    EXPECT_EQ(2, removed);
}

// Both a spawned child (with a child of its own in its group) and one that
// a library thread waits for are ended and reaped.
TEST(OsProcess, KillAllEndsAndReapsEveryChildWithItsOwnChildren)
{
    static std::atomic<int> status{-2};
    status = -2;
    ASSERT_EQ(1, upnp_thread_spawn(
                     [](void*) {
                         const char* const argv[] = {"sleep", "30", nullptr};
                         status = upnp_process_run_wait("/bin/sleep", argv);
                     },
                     nullptr, 0));
    ASSERT_TRUE(test_eventually([] { return upnp_process_count() == 1; }));
    const char* const argv[] = {"sh", "-c", "sleep 30 & echo $!; wait", nullptr};
    int32_t out = -1;
    int32_t pid = upnp_process_spawn("/bin/sh", argv, &out);
    ASSERT_GT(pid, 0);
    std::string line = read_line(out);
    close(out);
    pid_t grandchild = pid_t(atoi(line.c_str()));
    ASSERT_GT(grandchild, 1) << line;
    EXPECT_EQ(2, upnp_process_count());
    upnp_process_kill_all();
    EXPECT_EQ(0, upnp_process_count());
    int raw;
    EXPECT_EQ(-1, waitpid(pid, &raw, WNOHANG));        // already reaped: no zombie
    EXPECT_EQ(ECHILD, errno);
    EXPECT_TRUE(process_gone(pid));
    EXPECT_TRUE(test_eventually([&] { return process_gone(grandchild); }));
    EXPECT_EQ(1, upnp_thread_wait_idle(WAIT_MS));
    EXPECT_EQ(-1, status.load());
}

TEST(OsProcess, ChildThatIgnoresTermIsKilled)
{
    const char* const argv[] = {"sh", "-c", "trap '' TERM; sleep 30", nullptr};
    int32_t pid = upnp_process_spawn("/bin/sh", argv, nullptr);
    ASSERT_GT(pid, 0);
    sleep_ms(100);                     // let the trap be set
    EXPECT_EQ(1, upnp_process_end(pid));
    EXPECT_EQ(0, upnp_process_count());
    EXPECT_TRUE(process_gone(pid));
    EXPECT_EQ(0, upnp_process_end(pid));
}
