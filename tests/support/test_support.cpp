// test_support.cpp: see test_support.h.
#include "support/test_support.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <cstdio>
#include <cstdlib>
#include <ftw.h>
#include <sys/socket.h>
#include <unistd.h>

test_dir::test_dir()
{
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/velmora-test-XXXXXX";
    char* made = mkdtemp(pattern.data());
    path = made ? made : "";
}

static int test_remove_entry(const char* p, const struct stat*, int, struct FTW*)
{
    return remove(p);
}

test_dir::~test_dir()
{
    if (!path.empty())
        nftw(path.c_str(), test_remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string test_read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

bool test_write_file(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    return bool(out);
}

static int test_count_entries(const std::string& folder)
{
    DIR* d = opendir(folder.c_str());
    if (!d)
        return -1;
    int n = 0;
    while (dirent* e = readdir(d))
        n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

int test_count_fds()
{
    return test_count_entries("/proc/self/fd") - 1;   // less the one opendir holds
}

int test_count_threads(pid_t pid)
{
    return test_count_entries(pid ? "/proc/" + std::to_string(pid) + "/task" : "/proc/self/task");
}

std::string test_header(const std::string& message, const std::string& name, const char* missing)
{
    size_t at = message.find("\r\n" + name + ": ");
    if (at == std::string::npos)
        return missing;
    at += name.size() + 4;
    return message.substr(at, message.find("\r\n", at) - at);
}

std::string test_body(const std::string& message)
{
    size_t end = message.find("\r\n\r\n");
    return end == std::string::npos ? "" : message.substr(end + 4);
}

std::string test_output(const std::string& command, int* status)
{
    std::string out;
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (size_t n; p && (n = fread(buffer, 1, sizeof buffer, p)) > 0;)
        out.append(buffer, n);
    int rc = p ? pclose(p) : -1;
    if (status)
        *status = rc;
    return out;
}

test_peer::test_peer(std::string answer, std::string address) : ip(std::move(address)), reply(std::move(answer))
{
    listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    socklen_t n = sizeof a;
    if (inet_pton(AF_INET, ip.c_str(), &a.sin_addr) != 1 || bind(listen_fd, reinterpret_cast<sockaddr*>(&a), n) != 0 ||
        listen(listen_fd, 8) != 0 || getsockname(listen_fd, reinterpret_cast<sockaddr*>(&a), &n) != 0)
        return;
    port = ntohs(a.sin_port);
    thread = std::thread([this] {
        for (int c; (c = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(c)) {
            accepted++;
            serve(c);
        }
    });
}

test_peer::~test_peer()
{
    stopping = true;
    shutdown(listen_fd, SHUT_RDWR);
    if (thread.joinable())
        thread.join();
    close(listen_fd);
}

std::string test_peer::url(const std::string& path) const
{
    return "http://" + ip + ":" + std::to_string(port) + path;
}

std::string test_peer::seen()
{
    std::lock_guard<std::mutex> hold(lock);
    return request;
}

void test_peer::serve(int c)
{
    timeval tv{5, 0};
    setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::string got;
    char b[2048];
    for (ssize_t r = 0; got.size() < (1 << 20); got.append(b, size_t(r))) {
        size_t end = got.find("\r\n\r\n"), length = got.find("Content-Length: ");
        if (end != std::string::npos &&
            got.size() >= end + 4 + (length < end ? size_t(atol(got.c_str() + length + 16)) : 0))
            break;
        if ((r = recv(c, b, sizeof b, 0)) <= 0)
            break;
    }
    {
        std::lock_guard<std::mutex> hold(lock);
        request = got;
    }
    for (int i = 0; reply.empty() && !stopping && i < 1000; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    for (size_t sent = 0; sent < reply.size();) {
        ssize_t r = send(c, reply.data() + sent, reply.size() - sent, MSG_NOSIGNAL);
        if (r <= 0)
            return;
        sent += size_t(r);
    }
}
