// test_support.h: small helpers shared by the unit and integration tests.
#pragma once
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>

struct test_dir {
    std::string path;
    test_dir();               // a fresh folder under $TMPDIR (or /tmp)
    ~test_dir();              // removes it with everything inside
    std::string file(const std::string& name) const { return path + "/" + name; }
};

std::string test_read_file(const std::string& path);
bool test_write_file(const std::string& path, const std::string& bytes);
int test_count_fds();        // entries of /proc/self/fd
int test_count_threads(pid_t pid = 0);   // entries of /proc/<pid or self>/task; -1 without one

// Polls every 10 ms until done() holds or timeout_ms pass; done()'s last
// answer. done() runs once per round, so it may take what it finds.
template <typename F> bool test_eventually(F done, int timeout_ms = 5000)
{
    for (int waited = 0;; waited += 10) {
        if (done())
            return true;
        if (waited >= timeout_ms)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// The value of header "name: " in a message head; missing when it has none.
std::string test_header(const std::string& message, const std::string& name, const char* missing = "<none>");
// What follows the head's blank line; "" without one.
std::string test_body(const std::string& message);
// What the shell command prints on standard output and error; status gets
// pclose's answer when given.
std::string test_output(const std::string& command, int* status = nullptr);

// A TCP server on a loopback address, one connection at a time: it reads a
// request head (and a body of its Content-Length), sends reply and closes.
// With an empty reply it holds each connection silently until destroyed,
// at most 10 s. port is 0 when it could not listen.
struct test_peer {
    std::string ip, reply;
    int port = 0;
    std::atomic<int> accepted{0};

    explicit test_peer(std::string answer, std::string address = "127.0.0.1");
    ~test_peer();
    std::string url(const std::string& path = "/") const;
    std::string seen();       // the last request read, head and body

private:
    int listen_fd = -1;
    std::atomic<bool> stopping{false};
    std::mutex lock;
    std::string request;
    std::thread thread;
    void serve(int connection);
};
