// test_net.cpp: see test_net.h.
#include "support/test_net.h"

#include <arpa/inet.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

sockaddr_in test_address(const char* ip, int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    inet_pton(AF_INET, ip, &a.sin_addr);
    return a;
}

int test_free_port()
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = test_address("127.0.0.1", 0);
    socklen_t n = sizeof a;
    int port = -1;
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &n) == 0)
        port = ntohs(a.sin_port);
    close(s);
    return port;
}

int test_connect_from(const char* source, int port, int timeout_ms)
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in from = test_address(source, 0), to = test_address("127.0.0.1", port);
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (s >= 0 && (bind(s, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
                   connect(s, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)) {
        close(s);
        return -1;
    }
    return s;
}

bool test_can_connect(const char* ip, int port)
{
    int s = test_connect_from(ip, port, 2000);
    if (s >= 0)
        close(s);
    return s >= 0;
}

bool test_send_text(int s, const std::string& text)
{
    return send(s, text.data(), text.size(), MSG_NOSIGNAL) == ssize_t(text.size());
}

std::string test_read_response(int s)
{
    std::string got;
    char c;
    while (got.size() < 64 * 1024 && got.find("\r\n\r\n") == std::string::npos && recv(s, &c, 1, 0) == 1)
        got += c;
    size_t at = got.find("Content-Length: ");
    size_t length = at == std::string::npos ? 1024 * 1024 : std::stoul(got.substr(at + 16));
    char buffer[4096];
    for (size_t have = 0; have < length;) {
        ssize_t n = recv(s, buffer, std::min(sizeof buffer, length - have), 0);
        if (n <= 0)
            break;
        got.append(buffer, size_t(n));
        have += size_t(n);
    }
    return got;
}

bool test_closed_by_peer(int s, int timeout_ms)
{
    pollfd p{s, POLLIN, 0};
    char buffer[4096];
    for (auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
         std::chrono::steady_clock::now() < until;) {
        ssize_t n = poll(&p, 1, 50) == 1 ? recv(s, buffer, sizeof buffer, MSG_DONTWAIT) : 1;
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return true;
    }
    return false;
}
