// Threads, sockets, name lookup and child processes of the runtime layer.
// All traffic stays on 127.0.0.1; every wait is bounded.
#include "runtime/upnp_os.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

namespace {

constexpr int32_t WAIT_MS = 5000;

// Polls cond every 10 ms for at most WAIT_MS.
template <typename F>
bool eventually(F cond)
{
    for (int i = 0; i < WAIT_MS / 10; i++) {
        if (cond())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return cond();
}

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

bool is_cloexec(int fd)
{
    int flags = fcntl(fd, F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC);
}

// A listener on 127.0.0.1 with a port of the system's choice.
struct loopback_pair {
    int32_t listener = -1, client = -1, served = -1;
    int32_t port = 0;

    bool open()
    {
        listener = upnp_socket_tcp();
        if (listener < 0 || upnp_socket_bind(listener, "127.0.0.1", 0) != 0 || upnp_socket_listen(listener) != 0)
            return false;
        port = upnp_socket_local_port(listener);
        client = upnp_socket_tcp();
        if (port <= 0 || client < 0 || upnp_socket_connect(client, "127.0.0.1", port) != 0)
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
bool process_gone(pid_t pid)
{
    if (kill(pid, 0) != 0)
        return errno == ESRCH;
    std::string stat = test_read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close_paren = stat.rfind(')');
    return close_paren != std::string::npos && close_paren + 2 < stat.size() && stat[close_paren + 2] == 'Z';
}

// Reads one line from fd, waiting at most WAIT_MS.
std::string read_line(int fd)
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

}  // namespace


struct thread_seen {
    std::atomic<int> ran{0}, sigpipe_blocked{-1}, idle{-1};
    char name[32] = "";
};

TEST(OsThread, SpawnedThreadRunsWithSigpipeBlockedAShortNameAndIsCountedUntilItEnds)
{
    static thread_seen seen;
    ASSERT_EQ(1, upnp_thread_spawn(
                     [](void* arg) {
                         auto* s = static_cast<thread_seen*>(arg);
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
    EXPECT_EQ(1, seen.ran.load());
    EXPECT_EQ(1, seen.sigpipe_blocked.load());
    EXPECT_EQ(1, seen.idle.load());
    EXPECT_STREQ("upnp_notify_new", seen.name);     // what the kernel keeps
    EXPECT_EQ(0, upnp_thread_count());
    EXPECT_EQ(0, upnp_thread_spawn(nullptr, nullptr, 0));
}

TEST(OsThread, WaitIdleGivesUpWhileAThreadStillRuns)
{
    static std::atomic<int> release{0};
    release = 0;
    ASSERT_EQ(1, upnp_thread_spawn(
                     [](void*) {
                         for (int i = 0; i < 2000 && !release.load(); i++)
                             sleep_ms(5);
                     },
                     nullptr, -2));
    EXPECT_EQ(1, upnp_thread_count());
    EXPECT_EQ(0, upnp_thread_wait_idle(30));
    release = 1;
    EXPECT_EQ(1, upnp_thread_wait_idle(WAIT_MS));
}

TEST(OsThread, StartedThreadCanBeJoined)
{
    static std::atomic<int> ran{0};
    ran = 0;
    uint64_t handle = upnp_thread_start([](void*) { ran = 1; }, nullptr, 0);
    ASSERT_NE(0u, handle);
    EXPECT_EQ(1, upnp_thread_join(handle));
    EXPECT_EQ(1, ran.load());
    EXPECT_EQ(0, upnp_thread_count());
}


TEST(OsSocket, TcpRoundTripOnLoopbackAndCountReturns)
{
    int32_t open_before = upnp_socket_open_count();
    {
        loopback_pair pair;
        ASSERT_TRUE(pair.open());
        EXPECT_EQ(open_before + 3, upnp_socket_open_count());
        const char request[] = "GET / HTTP/1.1\r\n\r\n";
        ASSERT_EQ(int32_t(sizeof(request)), upnp_socket_send_all(pair.client, request, sizeof(request)));
        char got[64] = {};
        for (int32_t total = 0, n = 1; n > 0 && total < int32_t(sizeof(request)); total += n)
            n = upnp_socket_recv(pair.served, got + total, sizeof(got) - total);
        EXPECT_STREQ(request, got);
        char ip[UPNP_IP_TEXT_SIZE];
        int32_t peer_port = 0;
        ASSERT_EQ(0, upnp_socket_get_peer(pair.served, ip, &peer_port));
        EXPECT_STREQ("127.0.0.1", ip);
        EXPECT_EQ(upnp_socket_local_port(pair.client), peer_port);
    }
    EXPECT_EQ(open_before, upnp_socket_open_count());
}

// Closing the listener wakes a blocked accept; shutting a connection down
// wakes a blocked recv.
TEST(OsSocket, CloseOrShutdownFromAnotherThreadWakesABlockedCall)
{
    static std::atomic<int32_t> result{0};
    loopback_pair pair;
    ASSERT_TRUE(pair.open());
    struct wake_case { int32_t socket; upnp_thread_entry call; int (*wake)(int32_t); };
    const wake_case cases[] = {
        {pair.listener, [](void* s) { result = upnp_socket_accept(int32_t(intptr_t(s))); }, upnp_socket_close},
        {pair.served,
         [](void* s) {
             char buffer[16];
             result = upnp_socket_recv(int32_t(intptr_t(s)), buffer, sizeof(buffer));
         },
         upnp_socket_shutdown},
    };
    for (const wake_case& c : cases) {
        result = 1;
        ASSERT_EQ(1, upnp_thread_spawn(c.call, reinterpret_cast<void*>(intptr_t(c.socket)), 0));
        sleep_ms(50);                                               // let it block
        EXPECT_EQ(0, c.wake(c.socket));
        EXPECT_EQ(1, upnp_thread_wait_idle(WAIT_MS));
        EXPECT_LE(result.load(), 0);
    }
    pair.listener = -1;
}

TEST(OsSocket, SocketsAreCloseOnExecAboveStdioWhichIsNeverClosed)
{
    loopback_pair pair;
    ASSERT_TRUE(pair.open());
    int32_t udp = upnp_socket_udp();
    for (int32_t s : {pair.listener, pair.client, pair.served, udp}) {
        SCOPED_TRACE(s);
        EXPECT_GE(s, 3);
        EXPECT_TRUE(is_cloexec(s));
    }
    upnp_socket_close(udp);

    int saved = fcntl(0, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(saved, 3);
    close(0);
    int32_t s = upnp_socket_tcp();
    bool stdin_free = fcntl(0, F_GETFD) < 0;
    dup2(saved, 0);
    close(saved);
    EXPECT_GE(s, 3);
    EXPECT_TRUE(stdin_free);
    EXPECT_TRUE(is_cloexec(s));          // also when moved up from 0
    upnp_socket_close(s);

    for (int32_t bad : {-1, 0, 1, 2})
        EXPECT_EQ(-1, upnp_socket_close(bad)) << bad;
    EXPECT_GE(fcntl(1, F_GETFD), 0);
    EXPECT_GE(fcntl(2, F_GETFD), 0);
}

TEST(OsSocket, SendToAClosedPeerFailsWithoutSigpipeAndRecvTimeoutIsAFailure)
{
    loopback_pair pair;
    ASSERT_TRUE(pair.open());
    ASSERT_EQ(0, upnp_socket_set_recv_timeout(pair.client, 50));
    char buffer[8];
    errno = 0;
    EXPECT_EQ(-1, upnp_socket_recv(pair.client, buffer, sizeof(buffer)));
    EXPECT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK);

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

TEST(OsSocket, DatagramCarriesSenderAndArrivalAddressOrClearsThem)
{
    int32_t receiver = upnp_socket_udp(), sender = upnp_socket_udp();
    ASSERT_EQ(0, upnp_socket_bind(receiver, "127.0.0.1", 0));
    ASSERT_EQ(0, upnp_socket_bind(sender, "127.0.0.1", 0));
    ASSERT_EQ(0, upnp_socket_set_pktinfo(receiver));
    ASSERT_EQ(0, upnp_socket_set_recv_timeout(receiver, WAIT_MS));
    int32_t port = upnp_socket_local_port(receiver);
    ASSERT_EQ(5, upnp_socket_sendto(sender, "hello", 5, "127.0.0.1", port));
    char buffer[16] = {};
    char ip[UPNP_IP_TEXT_SIZE], local_ip[UPNP_IP_TEXT_SIZE];
    int32_t from_port = 0;
    ASSERT_EQ(5, upnp_socket_recvfrom_pktinfo(receiver, buffer, sizeof(buffer), ip, &from_port, local_ip));
    EXPECT_STREQ("hello", buffer);
    EXPECT_STREQ("127.0.0.1", ip);
    EXPECT_EQ(upnp_socket_local_port(sender), from_port);
    EXPECT_STREQ("127.0.0.1", local_ip);
    ASSERT_EQ(3, upnp_socket_sendto(sender, "abc", 3, "127.0.0.1", port));
    ASSERT_EQ(3, upnp_socket_recvfrom(receiver, buffer, sizeof(buffer), ip, nullptr));
    EXPECT_STREQ("127.0.0.1", ip);

    ASSERT_EQ(0, upnp_socket_set_recv_timeout(receiver, 30));
    strcpy(ip, "9.9.9.9");
    from_port = 1234;
    EXPECT_EQ(-1, upnp_socket_recvfrom(receiver, buffer, sizeof(buffer), ip, &from_port));
    EXPECT_STREQ("", ip);
    EXPECT_EQ(0, from_port);
    upnp_socket_close(receiver);
    upnp_socket_close(sender);
}

TEST(OsSocket, ConnectWithTimeoutReachesListenerAndFailsOnClosedPort)
{
    int32_t listener = upnp_socket_tcp();
    ASSERT_EQ(0, upnp_socket_bind(listener, "127.0.0.1", 0));
    ASSERT_EQ(0, upnp_socket_listen(listener));
    int32_t port = upnp_socket_local_port(listener);
    int32_t c = upnp_socket_tcp();
    EXPECT_EQ(0, upnp_socket_connect_timeout(c, "127.0.0.1", port, WAIT_MS));
    EXPECT_EQ(0, fcntl(c, F_GETFL) & O_NONBLOCK);     // blocking again for the caller
    upnp_socket_close(c);
    upnp_socket_close(listener);
    c = upnp_socket_tcp();
    EXPECT_EQ(-1, upnp_socket_connect_timeout(c, "127.0.0.1", port, WAIT_MS));
    upnp_socket_close(c);
}

TEST(OsSocket, MalformedAddressTextIsRefused)
{
    int32_t s = upnp_socket_udp();
    ASSERT_GE(s, 3);
    EXPECT_EQ(-1, upnp_socket_bind(s, "999.1.1.1", 0));
    EXPECT_EQ(-1, upnp_socket_bind(s, "127.0.0.1", 70000));
    EXPECT_EQ(-1, upnp_socket_sendto(s, "x", 1, "not-an-ip", 9));
    EXPECT_EQ(-1, upnp_socket_sendto(s, "x", 1, nullptr, 9));
    EXPECT_EQ(-1, upnp_socket_join_group(s, "239.255.255.", "127.0.0.1"));
    EXPECT_EQ(-1, upnp_socket_set_multicast_if(s, "1.2.3"));
    EXPECT_EQ(-1, upnp_socket_set_multicast_ttl(s, 256));
    EXPECT_EQ(0, upnp_socket_set_multicast_ttl(s, 4));
    EXPECT_EQ(0, upnp_socket_set_multicast_all_off(s));
    EXPECT_EQ(0, upnp_socket_set_multicast_if(s, "127.0.0.1"));
    upnp_socket_close(s);
}


TEST(OsLookup, ResolvesLocalNamesAndRefusesTheRest)
{
    struct resolve_case { const char* name; int result; const char* ip; };
    static const resolve_case cases[] = {
        {"localhost", 1, "127.0.0.1"}, {"LOCALHOST.", 1, "127.0.0.1"}, {"10.1.2.3", 1, "10.1.2.3"},
        {"nonexistent.invalid", 0, ""},          // a failure, never the loopback
        {"invalid", 0, ""}, {"", 0, ""}, {nullptr, 0, ""},
    };
    for (const resolve_case& c : cases) {
        SCOPED_TRACE(c.name ? c.name : "(null)");
        char ip[UPNP_IP_TEXT_SIZE] = "x";
        EXPECT_EQ(c.result, upnp_resolve_host(c.name, ip));
        EXPECT_STREQ(c.ip, ip);
    }
    EXPECT_EQ(0, upnp_resolve_host("localhost", nullptr));
}

TEST(OsLookup, HostNameIsAlwaysTerminated)
{
    char name[256];
    ASSERT_EQ(1, upnp_get_hostname(name, sizeof(name)));
    EXPECT_GT(strlen(name), 0u);
    char tiny[3] = {'x', 'x', 'x'};
    upnp_get_hostname(tiny, sizeof(tiny));
    EXPECT_LT(strnlen(tiny, sizeof(tiny)), sizeof(tiny));
    EXPECT_EQ(0, upnp_get_hostname(nullptr, 10));
}


TEST(OsProcess, RunWaitGivesTheExitStatusAndNeverAsksAShell)
{
    test_dir dir;
    std::string marker = dir.file("x");
    std::string injection = "a; touch " + marker + " $(touch " + marker + ")";
    const char* const true_argv[] = {"true", nullptr};
    const char* const exit3_argv[] = {"sh", "-c", "exit 3", nullptr};
    const char* const echo_argv[] = {"echo", injection.c_str(), nullptr};
    EXPECT_EQ(0, upnp_process_run_wait("/bin/true", true_argv));
    EXPECT_EQ(0, upnp_process_run_wait("/bin/true", nullptr));
    EXPECT_EQ(3, upnp_process_run_wait("/bin/sh", exit3_argv));
    EXPECT_EQ(-1, upnp_process_run_wait("/nonexistent/program", nullptr));
    EXPECT_EQ(-1, upnp_process_run_wait("/etc/hostname", nullptr));        // not executable
    EXPECT_EQ(-1, upnp_process_run_wait(nullptr, nullptr));
    EXPECT_EQ(0, upnp_process_run_wait("/bin/echo", echo_argv));
    EXPECT_NE(0, access(marker.c_str(), F_OK));
    EXPECT_EQ(0, upnp_process_count());
}

TEST(OsProcess, ChildGetsOwnGroupNullInputAndNoStrayDescriptors)
{
    int stray = open("/dev/null", O_RDONLY);          // deliberately inheritable
    ASSERT_GE(stray, 3);
    const std::string scripts[] = {
        "set -- $(cat /proc/$$/stat); test \"$5\" = \"$$\"",          // own process group
        "test \"$(readlink /proc/$$/fd/0)\" = /dev/null",             // stdin is /dev/null
        "test ! -e /proc/$$/fd/" + std::to_string(stray),             // no stray descriptor
    };
    for (const std::string& script : scripts) {
        SCOPED_TRACE(script);
        const char* const argv[] = {"sh", "-c", script.c_str(), nullptr};
        EXPECT_EQ(0, upnp_process_run_wait("/bin/sh", argv));
    }
    close(stray);
}

TEST(OsProcess, ChildStartsWithEmptySignalMaskFromALibraryThread)
{
    static std::atomic<int> status{-2};
    status = -2;
    ASSERT_EQ(1, upnp_thread_spawn(
                     [](void*) {
                         // grep reads its own mask, the one it was started with
                         const char* const argv[] = {"grep", "-q", "^SigBlk:[[:space:]]*0*$", "/proc/self/status",
                                                     nullptr};
                         status = upnp_process_run_wait("/bin/grep", argv);
                     },
                     nullptr, 0));
    ASSERT_EQ(1, upnp_thread_wait_idle(WAIT_MS));
    EXPECT_EQ(0, status.load());
}

TEST(OsProcess, SpawnedOutputArrivesThroughThePipeAndEndedChildrenAreReaped)
{
    const char* const argv[] = {"echo", "hello", nullptr};
    int32_t out = -1;
    int32_t pid = upnp_process_spawn("/bin/echo", argv, &out);
    ASSERT_GT(pid, 0);
    ASSERT_GE(out, 3);
    EXPECT_TRUE(is_cloexec(out));
    EXPECT_EQ("hello", read_line(out));
    close(out);
    int status = -2;
    EXPECT_TRUE(eventually([&] { return upnp_process_poll(pid, &status) == 1; }));
    EXPECT_EQ(0, status);
    EXPECT_EQ(-1, upnp_process_poll(pid, &status));
    EXPECT_EQ(0, upnp_process_count());

    ASSERT_GT(upnp_process_spawn("/bin/true", nullptr, nullptr), 0);
    ASSERT_GT(upnp_process_spawn("/bin/true", nullptr, nullptr), 0);
    EXPECT_EQ(2, upnp_process_count());
    int removed = 0;
    EXPECT_TRUE(eventually([&] {
        removed += upnp_process_reap();
        return upnp_process_count() == 0;
    }));
    EXPECT_EQ(2, removed);
}

TEST(OsProcess, KillAllEndsAndReapsChildrenAndTheirOwnChildren)
{
    const char* const argv[] = {"sh", "-c", "sleep 30 & echo $!; wait", nullptr};
    int32_t out = -1;
    int32_t pid = upnp_process_spawn("/bin/sh", argv, &out);
    ASSERT_GT(pid, 0);
    std::string line = read_line(out);
    close(out);
    pid_t grandchild = pid_t(atoi(line.c_str()));
    ASSERT_GT(grandchild, 1) << line;
    EXPECT_EQ(1, upnp_process_count());
    upnp_process_kill_all();
    EXPECT_EQ(0, upnp_process_count());
    int raw;
    EXPECT_EQ(-1, waitpid(pid, &raw, WNOHANG));        // already reaped: no zombie
    EXPECT_EQ(ECHILD, errno);
    EXPECT_TRUE(process_gone(pid));
    EXPECT_TRUE(eventually([&] { return process_gone(grandchild); }));
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

TEST(OsProcess, KillAllEndsAChildSomeoneWaitsFor)
{
    static std::atomic<int> status{-2};
    status = -2;
    ASSERT_EQ(1, upnp_thread_spawn(
                     [](void*) {
                         const char* const argv[] = {"sleep", "30", nullptr};
                         status = upnp_process_run_wait("/bin/sleep", argv);
                     },
                     nullptr, 0));
    ASSERT_TRUE(eventually([] { return upnp_process_count() == 1; }));
    upnp_process_kill_all();
    EXPECT_EQ(1, upnp_thread_wait_idle(WAIT_MS));
    EXPECT_EQ(-1, status.load());
    EXPECT_EQ(0, upnp_process_count());
}
