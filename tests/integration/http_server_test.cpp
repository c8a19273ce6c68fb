// The HTTP server over real sockets on 127.0.0.1: started in-process with
// the server lifecycle, with a few test routes in front of the real route
// table. Clients are curl and a small raw-socket client that may bind any
// source in 127.0.0.0/8. Every read has a timeout and every loop a bound.
#include <velmora/dapi_dms.h>

#include "config/upnp_ini.h"
#include "control/upnp_control.h"
#include "control/upnp_mediaserver.h"
#include "http/http_server.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_string.h"
#include "support/test_host.h"
#include "support/test_net.h"
#include "support/test_support.h"
#include "upnp/upnp_client.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

// ---- Test routes ----------------------------------------------------------

int route_echo(HTTP_request* r)
{
    const char* text = r->body ? r->body : "no body";
    r->content_length = r->body ? r->content_length : 7;
    r->mime_type = "text/plain";
    return HTTP_send_buffer(r, text);
}

int route_info(HTTP_request* r)
{
    char text[1400];
    snprintf(text, sizeof text, "method=%d version=%d close=%d dlna=%d url=%s", r->method, r->version, r->close,
             r->dlna_version, r->url);
    r->content_length = int64_t(strlen(text));
    r->mime_type = "text/plain";
    return HTTP_send_buffer(r, text);
}

const std::string& big_data()
{
    static const std::string data(16 * 1024 * 1024, 'b');
    return data;
}

int route_big(HTTP_request* r)
{
    r->content_length = int64_t(big_data().size());
    r->mime_type = "application/octet-stream";
    return HTTP_send_buffer(r, big_data().c_str());
}

int route_chunked(HTTP_request* r)
{
    if (HTTP_send_chunked_header(r->socket))
        return HTTP_KILL_CONNECTION;
    upnp_string* s = nullptr;
    for (const char* part : {"<a>", "hello", "</a>"}) {
        s = upnp_string_append(s, part);
        HTTP_send_chunk(r->socket, s);
    }
    upnp_string_free(s);
    HTTP_send_last_chunk(r->socket);
    return HTTP_KILL_CONNECTION;
}

// ---- A raw client -----------------------------------------------------------

int port_in_use;

int connect_from(const char* source, int timeout_ms = 5000)
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        return -1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, source, &a.sin_addr);
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(port_in_use));
    inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        connect(s, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        close(s);
        return -1;
    }
    return s;
}

bool send_text(int s, const std::string& text)
{
    return send(s, text.data(), text.size(), MSG_NOSIGNAL) == ssize_t(text.size());
}

// One response: its head and, by its Content-Length, its body. "" when
// nothing came within the socket's timeout.
std::string read_response(int s)
{
    std::string got;
    char c;
    while (got.size() < 64 * 1024 && got.find("\r\n\r\n") == std::string::npos && recv(s, &c, 1, 0) == 1)
        got += c;
    size_t at = got.find("Content-Length: ");
    if (got.find("\r\n\r\n") == std::string::npos || at == std::string::npos)
        return got;
    size_t length = std::stoul(got.substr(at + 16));
    std::string body(length, 0);
    size_t have = 0;
    while (have < length) {
        ssize_t n = recv(s, body.data() + have, length - have, 0);
        if (n <= 0)
            break;
        have += size_t(n);
    }
    return got + body.substr(0, have);
}

// Everything until the peer closes (or the timeout passes).
std::string read_to_close(int s)
{
    std::string got;
    char buffer[4096];
    ssize_t n;
    while (got.size() < 1024 * 1024 && (n = recv(s, buffer, sizeof buffer, 0)) > 0)
        got.append(buffer, size_t(n));
    return got;
}

// True when the peer closed (not a timeout) before timeout_ms.
bool closed_by_server(int s, int timeout_ms)
{
    pollfd p{s, POLLIN, 0};
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    char buffer[4096];
    while (std::chrono::steady_clock::now() < until) {
        if (poll(&p, 1, 50) != 1)
            continue;
        ssize_t n = recv(s, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return true;
    }
    return false;
}

std::string body_of(const std::string& response)
{
    size_t end = response.find("\r\n\r\n");
    return end == std::string::npos ? "" : response.substr(end + 4);
}

std::string exchange(const std::string& request, const char* source = "127.0.0.1")
{
    int s = connect_from(source);
    if (s < 0)
        return "<no connection>";
    send_text(s, request);
    std::string got = read_response(s);
    close(s);
    return got;
}

std::string curl(const std::string& arguments)
{
    std::string command = "curl -s --max-time 10 " + arguments + " 2>&1";
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, p)) > 0)
            out.append(buffer, n);
        pclose(p);
    }
    return out;
}

template <typename F>
bool eventually(F cond, int timeout_ms = 5000)
{
    for (int waited = 0; waited < timeout_ms; waited += 10) {
        if (cond())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return cond();
}

const std::string GOOD = "GET /t/info HTTP/1.1\r\nHost: a\r\n\r\n";

// ---- The server ---------------------------------------------------------------

struct HttpServer : ::testing::Test {
    std::string base;

    void SetUp() override
    {
        HTTP_set_limits(nullptr);
        ssdp_enabled = scanner_enabled = scheduler_enabled = rpc_enabled = 0;
        upnp_ini_set(UPNP_OPT_IP, "127.0.0.1");
        upnp_ini_set(UPNP_OPT_HTTPPORT, std::to_string(test_free_port()).c_str());
        upnp_ini_set(UPNP_OPT_STARTUPMB, "0");
        // In front of the real routes: the first entry that fits wins.
        HTTP_register_handler(route_echo, HTTP_METHOD_GET | HTTP_METHOD_POST | HTTP_METHOD_NOTIFY, "/t/echo", 1);
        HTTP_register_handler(route_info, HTTP_METHOD_GET | HTTP_METHOD_HEAD, "/t/info", 0);
        HTTP_register_handler(route_big, HTTP_METHOD_GET, "/t/big", 0);
        HTTP_register_handler(route_chunked, HTTP_METHOD_GET, "/t/chunked", 0);
        upnp_mediaserver_start();
        ASSERT_EQ(1, upnp_server_get_status());
        nic_entry* list = nullptr;
        ASSERT_EQ(1u, upnp_nic_table(&list));
        port_in_use = list[0].port;
        base = "http://127.0.0.1:" + std::to_string(port_in_use);
    }
    void TearDown() override
    {
        upnp_mediaserver_stop();
        HTTP_set_limits(nullptr);
        upnp_ini_set(UPNP_OPT_IP, nullptr);
        EXPECT_EQ(0, HTTP_connection_count());
        EXPECT_EQ(0, upnp_thread_count());
    }
    void lower_limits(int32_t head_ms, int32_t idle_ms, int32_t send_ms, int32_t per_peer = HTTP_MAX_PER_PEER,
                      int32_t total = HTTP_MAX_CONNECTIONS)
    {
        HTTP_limits l;
        HTTP_get_limits(&l);
        l = {head_ms, idle_ms, send_ms, per_peer, total, l.body_max};
        HTTP_set_limits(&l);
    }
    // The good request on a connection of its own must still be answered.
    void still_serves(const char* source = "127.0.0.1")
    {
        std::string got = exchange(GOOD, source);
        EXPECT_EQ(0u, got.find("HTTP/1.1 200 OK\r\n")) << got;
        EXPECT_EQ("method=1 version=11 close=0 dlna=0 url=/t/info", body_of(got));
    }
};

// ---- Ordinary clients -----------------------------------------------------------

TEST_F(HttpServer, CurlGetsTheDefaultPageAnsweredByTheErrorPage)
{
    std::string got = curl("-i " + base + "/");
    EXPECT_EQ(0u, got.find("HTTP/1.1 404 Not Found\r\n")) << got;
    EXPECT_NE(std::string::npos, got.find("<H1>Not Found</H1>/configpage was not found on this server."));
    got = curl("-i " + base + "/DeviceDescription.xml");
    EXPECT_NE(std::string::npos, got.find("/DeviceDescription.xml was not found"));
}

TEST_F(HttpServer, PostToTheRootReachesTheContentDirectoryControl)
{
    std::string got = curl("-i -X POST --data x " + base + "/");
    EXPECT_NE(std::string::npos, got.find("/ContentDirectory/Control was not found")) << got;
}

TEST_F(HttpServer, CurlReusesOneConnectionForSeveralRequests)
{
    std::string got = curl("-w ' connects=%{num_connects}\\n' " + base + "/t/info " + base + "/t/info?b");
    EXPECT_NE(std::string::npos, got.find("url=/t/info connects=1\n")) << got;
    EXPECT_NE(std::string::npos, got.find("url=/t/info?b connects=0\n")) << got;
}

TEST_F(HttpServer, KeepAliveServesRequestsInTurnOnOneConnection)
{
    int s = connect_from("127.0.0.1");
    ASSERT_GE(s, 0);
    for (int i = 0; i < 5; i++) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(send_text(s, "GET /t/info?" + std::to_string(i) + " HTTP/1.1\r\nHost: a\r\n\r\n"));
        std::string got = read_response(s);
        EXPECT_NE(std::string::npos, got.find("Connection: keep-alive\r\n"));
        EXPECT_EQ("method=1 version=11 close=0 dlna=0 url=/t/info?" + std::to_string(i), body_of(got));
    }
    close(s);
}

TEST_F(HttpServer, PipelinedRequestsAreAnsweredInOrder)
{
    int s = connect_from("127.0.0.1");
    ASSERT_GE(s, 0);
    std::string three;
    for (int i = 0; i < 3; i++)
        three += "GET /t/info?" + std::to_string(i) + " HTTP/1.1\r\nHost: a\r\n\r\n";
    three += "POST /t/echo HTTP/1.1\r\nHost: a\r\nContent-Length: 5\r\n\r\nhello";
    three += "GET /t/info?last HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n";
    ASSERT_TRUE(send_text(s, three));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ("method=1 version=11 close=0 dlna=0 url=/t/info?" + std::to_string(i), body_of(read_response(s)));
    EXPECT_EQ("hello", body_of(read_response(s)));
    std::string last = read_response(s);
    EXPECT_NE(std::string::npos, last.find("Connection: close\r\n"));
    EXPECT_EQ("method=1 version=11 close=1 dlna=0 url=/t/info?last", body_of(last));
    EXPECT_TRUE(closed_by_server(s, 5000));
    close(s);
}

TEST_F(HttpServer, Http10ClosesUnlessAskedToKeepAlive)
{
    int s = connect_from("127.0.0.1");
    ASSERT_TRUE(send_text(s, "GET /t/info HTTP/1.0\r\n\r\n"));
    std::string got = read_response(s);
    EXPECT_NE(std::string::npos, got.find("Connection: close\r\n"));
    EXPECT_EQ("method=1 version=10 close=1 dlna=0 url=/t/info", body_of(got));
    EXPECT_TRUE(closed_by_server(s, 5000));
    close(s);

    s = connect_from("127.0.0.1");
    ASSERT_TRUE(send_text(s, "GET /t/info HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n"));
    EXPECT_EQ("method=1 version=10 close=0 dlna=0 url=/t/info", body_of(read_response(s)));
    ASSERT_TRUE(send_text(s, "GET /t/info HTTP/1.0\r\nUser-Agent: TV DLNADOC/1.50\r\nConnection: Keep-Alive\r\n\r\n"));
    EXPECT_EQ("method=1 version=10 close=1 dlna=15 url=/t/info", body_of(read_response(s)));
    EXPECT_TRUE(closed_by_server(s, 5000));
    close(s);
}

TEST_F(HttpServer, ExpectContinueIsAnsweredBeforeTheBody)
{
    int s = connect_from("127.0.0.1");
    ASSERT_TRUE(send_text(s, "POST /t/echo HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
    char go_on[44];
    ASSERT_EQ(44, recv(s, go_on, sizeof go_on, MSG_WAITALL));
    EXPECT_EQ("HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n", std::string(go_on, 44));
    ASSERT_TRUE(send_text(s, "body"));
    EXPECT_EQ("body", body_of(read_response(s)));
    close(s);

    std::string got = curl("-H 'Expect: 100-continue' --data-binary hello-there " + base + "/t/echo");
    EXPECT_EQ("hello-there", got);
}

TEST_F(HttpServer, ChunkedBodiesArriveJoined)
{
    std::string got = exchange("POST /t/echo HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"
                               "4\r\nWiki\r\n5\r\npedia\r\ne\r\n in\r\n\r\nchunks.\r\n0\r\n\r\n");
    EXPECT_EQ("Wikipedia in\r\n\r\nchunks.", body_of(got));
    got = curl("-H 'Transfer-Encoding: chunked' --data-binary chunked-by-curl " + base + "/t/echo");
    EXPECT_EQ("chunked-by-curl", got);
}

TEST_F(HttpServer, AChunkedReplyIsReadWholeByCurl)
{
    EXPECT_EQ("<a>hello</a>", curl(base + "/t/chunked"));
    int s = connect_from("127.0.0.1");
    send_text(s, "GET /t/chunked HTTP/1.1\r\nHost: a\r\n\r\n");
    std::string got = read_to_close(s);
    close(s);
    EXPECT_EQ("3\r\n<a>\r\n5\r\nhello\r\n4\r\n</a>\r\n0\r\n\r\n", body_of(got));
}

TEST_F(HttpServer, UnknownMethodsAndAbsoluteUrisFindTheirRoutes)
{
    EXPECT_EQ("method=0 version=11 close=0 dlna=0 url=/t/info",
              body_of(exchange("OPTIONS /t/info HTTP/1.1\r\nHost: a\r\n\r\n")));
    EXPECT_EQ("method=1 version=11 close=0 dlna=0 url=/t/info?x=1",
              body_of(exchange("GET http://127.0.0.1:1/t/info?x=1 HTTP/1.1\r\nHost: a\r\n\r\n")));
    std::string sub = exchange("SUBSCRIBE /anything HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_NE(std::string::npos, sub.find("/anything was not found"));   // the GENA route, not built yet
}

TEST_F(HttpServer, AnHttp11RequestWithoutHostGetsAnEmptyBadRequest)
{
    std::string got = exchange("GET /t/info HTTP/1.1\r\n\r\n");
    EXPECT_EQ(0u, got.find("HTTP/1.1 400 Bad Request\r\n")) << got;
    EXPECT_NE(std::string::npos, got.find("Content-Length: 0\r\n"));
    EXPECT_EQ("", body_of(got));
    EXPECT_EQ("method=1 version=10 close=1 dlna=0 url=/t/info", body_of(exchange("GET /t/info HTTP/1.0\r\n\r\n")));
}

TEST_F(HttpServer, ClientsWithTheRedsonicFlagStayConnectedOverHttp10)
{
    static const char db[] = "ID:001\nNA:Default\nID:007\nNA:Red\nHH:RedSonicBox\nDX:REDSONIC\n\n";
    ASSERT_EQ(1, upnp_client_db_load_text(db, sizeof db - 1));
    int s = connect_from("127.0.0.12");
    const std::string request = "GET /t/info HTTP/1.0\r\nUser-Agent: RedSonicBox DLNADOC/1.50\r\n"
                                "Connection: Keep-Alive\r\n\r\n";
    for (int i = 0; i < 2; i++) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(send_text(s, request));
        EXPECT_EQ("method=1 version=10 close=0 dlna=15 url=/t/info", body_of(read_response(s)));
    }
    close(s);
    EXPECT_EQ(7, upnp_client_get_id("127.0.0.12"));
    upnp_ini_set(UPNP_OPT_CLIENTS, nullptr);
}

// ---- The hostile battery: one shape each, then a good request -------------------

TEST_F(HttpServer, HostileNoMethod)
{
    std::string got = exchange("/t/info HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(0u, got.find("HTTP/1.1 404 Not Found\r\n")) << got;
    got = exchange("\r\n\r\n");
    EXPECT_EQ(0u, got.find("HTTP/1.1 ")) << got;
    still_serves();
}

TEST_F(HttpServer, HostileHugeHead)
{
    std::string head = "GET /t/info HTTP/1.1\r\nHost: a\r\n";
    for (int i = 0; i < 2000; i++)
        head += "X-Filler-" + std::to_string(i) + ": " + std::string(40, 'f') + "\r\n";
    std::string got = exchange(head + "\r\n");
    EXPECT_EQ("method=1 version=11 close=0 dlna=0 url=/t/info", body_of(got));   // answered from its cut head
    std::string endless = "GET /t/info HTTP/1.1\r\n" + std::string(2 * HTTP_HEAD_DRAIN_MAX, 'h');
    int s = connect_from("127.0.0.1");
    send_text(s, endless);
    EXPECT_TRUE(closed_by_server(s, 5000));
    close(s);
    still_serves();
}

TEST_F(HttpServer, HostileHeadWithoutEnd)
{
    lower_limits(300, 60000, HTTP_SEND_TIMEOUT_MS);
    int s = connect_from("127.0.0.1");
    send_text(s, "GET /t/info HTTP/1.1\r\nHost: a\r\n");
    EXPECT_TRUE(closed_by_server(s, 5000));
    close(s);
    // Trickled bytes do not stretch the limit of the whole head.
    s = connect_from("127.0.0.1");
    bool closed = false;
    for (int i = 0; i < 50 && !closed; i++) {
        send_text(s, "X");
        closed = closed_by_server(s, 100);
    }
    EXPECT_TRUE(closed);
    close(s);
    still_serves();
}

TEST_F(HttpServer, HostileNulInTheUrl)
{
    int s = connect_from("127.0.0.1");
    send_text(s, std::string("GET /t/in\0fo HTTP/1.1\r\nHost: a\r\n\r\n", 34));
    std::string got = read_to_close(s);
    close(s);
    EXPECT_EQ(0u, got.find("HTTP/1.1 400 Bad Request\r\n")) << got;
    EXPECT_EQ(0u, exchange("GET /t/info%00.jpg HTTP/1.1\r\nHost: a\r\n\r\n").find("HTTP/1.1 400 Bad Request\r\n"));
    still_serves();
}

TEST_F(HttpServer, HostileCrLfInTheUrl)
{
    std::string got = exchange("GET /t/info%0d%0aX-Injected:%20yes HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(0u, got.find("HTTP/1.1 400 Bad Request\r\n")) << got;
    EXPECT_EQ(std::string::npos, got.find("X-Injected"));
    got = exchange("GET /nowhere%0d%0aX-Injected:%20yes HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(std::string::npos, got.find("\r\nX-Injected"));
    // A raw CR ends the target; nothing behind it reaches the answer.
    got = exchange("GET /t/info\rX-Injected: yes HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(std::string::npos, got.find("\r\nX-Injected")) << got;
    still_serves();
}

TEST_F(HttpServer, HostilePercentEncodedDotDot)
{
    const char* urls[] = {"/images/%2e%2e/%2e%2e/etc/passwd", "/images/..%2f..%2fetc/passwd", "/images/../x",
                          "/images/%2E%2E%5Cx"};
    for (const char* url : urls) {
        SCOPED_TRACE(url);
        std::string got = exchange(std::string("GET ") + url + " HTTP/1.1\r\nHost: a\r\n\r\n");
        EXPECT_EQ(0u, got.find("HTTP/1.1 400 Bad Request\r\n")) << got;
    }
    still_serves();
}

TEST_F(HttpServer, HostileNegativeContentLength)
{
    std::string got = exchange("POST /t/echo HTTP/1.1\r\nHost: a\r\nContent-Length: -5\r\nConnection: close\r\n\r\nhello");
    EXPECT_EQ("no body", body_of(got));
    still_serves();
}

TEST_F(HttpServer, HostileHugeContentLength)
{
    const char* lengths[] = {"99999999999999999999999", "9223372036854775807", "2097152"};
    for (const char* length : lengths) {
        SCOPED_TRACE(length);
        int s = connect_from("127.0.0.1");
        send_text(s, std::string("POST /t/echo HTTP/1.1\r\nHost: a\r\nContent-Length: ") + length + "\r\n\r\nab");
        std::string got = read_to_close(s);
        close(s);
        EXPECT_EQ(0u, got.find("HTTP/1.1 400 Bad Request\r\n")) << got;
    }
    still_serves();
}

TEST_F(HttpServer, HostileBadChunkSizes)
{
    const char* bodies[] = {"FFFFFFFFFFFFFFFFFFF\r\nab", "7fffffffffffffff\r\nab", "200001\r\nab"};
    for (const char* body : bodies) {
        SCOPED_TRACE(body);
        int s = connect_from("127.0.0.1");
        send_text(s, std::string("POST /t/echo HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n") + body);
        std::string got = read_to_close(s);
        close(s);
        EXPECT_EQ(0u, got.find("HTTP/1.1 400 Bad Request\r\n")) << got;
    }
    // A size that is no number ends the body with what came before it.
    EXPECT_EQ("ab", body_of(exchange("POST /t/echo HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"
                                     "2\r\nab\r\nzz\r\n\r\n")));
    still_serves();
}

TEST_F(HttpServer, HostileClientThatStopsReading)
{
    lower_limits(HTTP_HEAD_TIMEOUT_MS, HTTP_IDLE_TIMEOUT_MS, 500);
    int before = HTTP_connection_count();
    int s = connect_from("127.0.0.1");
    int small = 4096;
    setsockopt(s, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    send_text(s, "GET /t/big HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_TRUE(eventually([&] { return HTTP_connection_count() > before; }));
    still_serves();
    EXPECT_TRUE(eventually([&] { return HTTP_connection_count() == before; }, 10000));
    close(s);
    still_serves();
}

// ---- Limits -----------------------------------------------------------------------

TEST_F(HttpServer, AnIdleKeepAliveConnectionIsClosed)
{
    lower_limits(HTTP_HEAD_TIMEOUT_MS, 300, HTTP_SEND_TIMEOUT_MS);
    int s = connect_from("127.0.0.1");
    send_text(s, GOOD);
    EXPECT_EQ("method=1 version=11 close=0 dlna=0 url=/t/info", body_of(read_response(s)));
    EXPECT_TRUE(closed_by_server(s, 5000));
    close(s);
}

TEST_F(HttpServer, OnePeerBeyondItsCapIsRefusedAtOnce)
{
    lower_limits(HTTP_HEAD_TIMEOUT_MS, HTTP_IDLE_TIMEOUT_MS, HTTP_SEND_TIMEOUT_MS, 3);
    std::vector<int> held;
    for (int i = 0; i < 3; i++)
        held.push_back(connect_from("127.0.0.5"));
    EXPECT_TRUE(eventually([] { return HTTP_connection_count() == 3; }));
    int extra = connect_from("127.0.0.5");
    EXPECT_TRUE(closed_by_server(extra, 2000));
    close(extra);
    still_serves("127.0.0.6");
    for (int s : held)
        close(s);
}

TEST_F(HttpServer, AllPeersBeyondTheTotalCapAreRefusedAtOnce)
{
    lower_limits(HTTP_HEAD_TIMEOUT_MS, HTTP_IDLE_TIMEOUT_MS, HTTP_SEND_TIMEOUT_MS, HTTP_MAX_PER_PEER, 4);
    std::vector<int> held;
    const char* sources[] = {"127.0.0.7", "127.0.0.8", "127.0.0.9", "127.0.0.10"};
    for (const char* source : sources)
        held.push_back(connect_from(source));
    EXPECT_TRUE(eventually([] { return HTTP_connection_count() == 4; }));
    int extra = connect_from("127.0.0.11");
    EXPECT_TRUE(closed_by_server(extra, 2000));
    close(extra);
    for (int s : held)
        close(s);
    EXPECT_TRUE(eventually([] { return HTTP_connection_count() == 0; }));
    still_serves("127.0.0.11");
}

TEST_F(HttpServer, AThousandIdleConnectionsFromOnePeerDoNotStopAnother)
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    if (files.rlim_cur < 4096) {
        files.rlim_cur = files.rlim_max < 4096 ? files.rlim_max : 4096;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    if (files.rlim_cur < 1200)
        GTEST_SKIP() << "needs 1200 descriptors, has " << files.rlim_cur;
    std::vector<int> held;
    for (int i = 0; i < 1000; i++) {
        int s = connect_from("127.0.0.2", 2000);
        ASSERT_GE(s, 0) << "connection " << i;
        held.push_back(s);
    }
    EXPECT_TRUE(eventually([] { return HTTP_connection_count() == HTTP_MAX_PER_PEER; }));
    still_serves("127.0.0.3");
    EXPECT_LE(HTTP_connection_count(), HTTP_MAX_PER_PEER + 1);
    for (int s : held)
        close(s);
}

TEST_F(HttpServer, StopWakesIdleAndBlockedConnections)
{
    std::vector<int> held;
    for (int i = 0; i < 5; i++)
        held.push_back(connect_from("127.0.0.1"));
    int reader = connect_from("127.0.0.1");
    send_text(reader, GOOD);
    read_response(reader);                     // now idle between requests
    int stuck = connect_from("127.0.0.1");
    int small = 4096;
    setsockopt(stuck, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    send_text(stuck, "GET /t/big HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_TRUE(eventually([] { return HTTP_connection_count() == 7; }));
    upnp_mediaserver_stop();
    EXPECT_EQ(0, HTTP_connection_count());
    EXPECT_EQ(0, upnp_thread_count());
    EXPECT_TRUE(closed_by_server(reader, 2000));
    for (int s : held)
        close(s);
    close(reader);
    close(stuck);
}

TEST(HttpHost, TheRunCommandAnswersOnItsAddressWithTheDefaultPage)
{
    test_dir media, work;
    int port = test_free_port();
    host_run host({media.path, "--workdir", work.path, "--ip", "127.0.0.1", "--port", std::to_string(port)});
    ASSERT_TRUE(host.wait_for("Serving on http://127.0.0.1:")) << host.seen;
    size_t at = host.seen.find("127.0.0.1:") + 10;
    std::string base = "http://127.0.0.1:" + std::to_string(std::stoi(host.seen.substr(at)));
    std::string got = curl("-i " + base + "/");
    EXPECT_EQ(0u, got.find("HTTP/1.1 404 Not Found\r\n")) << got;
    EXPECT_NE(std::string::npos, got.find("/configpage was not found on this server."));
    kill(host.pid, SIGTERM);
    EXPECT_EQ(0, host.wait_exit());
}

}  // namespace
