// test_net.cpp: see test_net.h.
#include "support/test_net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

static sockaddr_in test_address(const char* ip, int port)
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

static int test_connect(const char* ip, int port, int timeout_ms)
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in a = test_address(ip, port);
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 && errno != EINPROGRESS) {
        close(s);
        return -1;
    }
    pollfd p{s, POLLOUT, 0};
    int error = 0;
    socklen_t n = sizeof error;
    if (poll(&p, 1, timeout_ms) != 1 || getsockopt(s, SOL_SOCKET, SO_ERROR, &error, &n) != 0 || error) {
        close(s);
        return -1;
    }
    return s;
}

bool test_can_connect(const char* ip, int port)
{
    int s = test_connect(ip, port, 2000);
    if (s < 0)
        return false;
    close(s);
    return true;
}

std::string test_exchange(const char* ip, int port, const std::string& request, int timeout_ms)
{
    int s = test_connect(ip, port, 2000);
    if (s < 0)
        return "";
    send(s, request.data(), request.size(), MSG_NOSIGNAL);
    std::string reply;
    char buffer[4096];
    pollfd p{s, POLLIN, 0};
    while (poll(&p, 1, timeout_ms) == 1) {
        ssize_t n = recv(s, buffer, sizeof buffer, 0);
        if (n <= 0)
            break;
        reply.append(buffer, size_t(n));
    }
    close(s);
    return reply;
}
