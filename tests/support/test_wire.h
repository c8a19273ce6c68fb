// test_wire.h: a request whose answer goes into one end of a socket pair,
// for tests of what a sender or a handler writes; taken() reads everything
// written so far from the other end.
#pragma once
#include "http/http_server.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

struct request_on_wire {
    int fds[2] = {-1, -1};
    HTTP_request r{};
    explicit request_on_wire(const std::string& head, int32_t version = 11, const char* url = "/x")
    {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
        r.socket = fds[0];
        r.version = version;
        r.method = head.compare(0, 4, "HEAD") == 0 ? HTTP_METHOD_HEAD : HTTP_METHOD_GET;
        snprintf(r.head, sizeof r.head, "%s", head.c_str());
        snprintf(r.url, sizeof r.url, "%s", url);
    }
    ~request_on_wire()
    {
        close(fds[0]);
        close(fds[1]);
    }
    std::string taken()
    {
        std::string all;
        char buffer[8192];
        for (ssize_t n; (n = recv(fds[1], buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            all.append(buffer, size_t(n));
        return all;
    }
};
