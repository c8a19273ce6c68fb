// The HTTP server over real sockets on 127.0.0.1: started in-process with
// the server lifecycle, with a few test routes in front of the real route
// table. Clients are curl and a small raw-socket client that may bind any
// source in 127.0.0.0/8. Every read has a timeout and every loop a bound.
#include <velmora/dapi_dms.h>

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "control/upnp_mediaserver.h"
#include "http/http_server.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "support/test_net.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

int send_text_reply(HTTP_request* r, const char* text, int64_t length, const char* mime = "text/plain")
{
    r->content_length = length;
    r->mime_type = mime;
    return HTTP_send_buffer(r, text);
}

int route_echo(HTTP_request* r) { return send_text_reply(r, r->body ? r->body : "no body", r->body ? r->content_length : 7); }

int route_info(HTTP_request* r)
{
    char text[1400];
    snprintf(text, sizeof text, "method=%d version=%d close=%d dlna=%d url=%s", r->method, r->version, r->close,
             r->dlna_version, r->url);
    return send_text_reply(r, text, int64_t(strlen(text)));
}

// What route_info answers.
std::string info(const std::string& url, int version = 11, int close = 0, int dlna = 0)
{
    return "method=1 version=" + std::to_string(version) + " close=" + std::to_string(close) +
           " dlna=" + std::to_string(dlna) + " url=" + url;
}

int route_big(HTTP_request* r)
{
    static const std::string data(16 * 1024 * 1024, 'b');
    return send_text_reply(r, data.c_str(), int64_t(data.size()), "application/octet-stream");
}

int port_in_use;

int connect_from(const char* source, int timeout_ms = 5000) { return test_connect_from(source, port_in_use, timeout_ms); }
void shrink_receive_buffer(int s, int small = 4096) { setsockopt(s, SOL_SOCKET, SO_RCVBUF, &small, sizeof small); }

const std::string GOOD = "GET /t/info HTTP/1.1\r\nHost: a\r\n\r\n";

struct HttpServer : ::testing::Test {
    std::string base;

    void SetUp() override
    {
        HTTP_set_limits(nullptr);
        upnp_switches.ssdp_enabled = upnp_switches.scanner_enabled = upnp_switches.scheduler_enabled = upnp_switches.rpc_enabled = 0;
        upnp_ini_set(UPNP_OPT_IP, "127.0.0.1");
        upnp_ini_set(UPNP_OPT_HTTPPORT, std::to_string(test_free_port()).c_str());
        upnp_ini_set(UPNP_OPT_STARTUPMB, "0");
        // In front of the real routes: the first entry that fits wins.
        HTTP_register_handler(route_echo, HTTP_METHOD_GET | HTTP_METHOD_POST, "/t/echo", 1);
        HTTP_register_handler(route_info, HTTP_METHOD_GET | HTTP_METHOD_HEAD, "/t/info", 0);
        HTTP_register_handler(route_big, HTTP_METHOD_GET, "/t/big", 0);
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
    static void lower_limits(int32_t head_ms, int32_t idle_ms, int32_t send_ms, int32_t per_peer = HTTP_MAX_PER_PEER,
                             int32_t total = HTTP_MAX_CONNECTIONS)
    {
        HTTP_limits l;
        HTTP_get_limits(&l);
        l = {head_ms, idle_ms, send_ms, per_peer, total, l.body_max};
        HTTP_set_limits(&l);
    }
    // The good request on a connection of its own must still be answered.
    static void still_serves(const char* source = "127.0.0.1")
    {
        int s = connect_from(source);
        test_send_text(s, GOOD);
        std::string got = test_read_response(s);
        close(s);
        EXPECT_EQ(0u, got.find("HTTP/1.1 200 OK\r\n")) << got;
        EXPECT_EQ(info("/t/info"), test_body(got));
    }
};

TEST_F(HttpServer, CurlGetsTheDefaultPageAndALargeBodyReusesItsConnectionAndSendsAChunkedBody)
{
    const struct { std::string arguments, want; bool whole; } cases[] = {
        {"-i " + base + "/", "<H1>Not Found</H1>/configpage was not found on this server.", false},
        {"-w ' connects=%{num_connects}\\n' " + base + "/t/info " + base + "/t/info?b",
         "url=/t/info connects=1\nmethod=1 version=11 close=0 dlna=0 url=/t/info?b connects=0\n", false},
        {"-H 'Transfer-Encoding: chunked' --data-binary chunked-by-curl " + base + "/t/echo", "chunked-by-curl", true},
        {"-o /dev/null -w '%{size_download}' " + base + "/t/big", "16777216", true},   // sent in many parts
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        std::string got = test_output("curl -s --max-time 10 " + c.arguments);
        EXPECT_EQ(c.whole ? c.want : got, got);
        EXPECT_NE(std::string::npos, got.find(c.want)) << got;
    }
}

// What is sent (nothing: read on), and the answer's body, or the whole
// answer when it starts with "HTTP/".
struct talk_step { std::string send, answer; };
struct talk_case { const char* why; std::vector<talk_step> steps; bool closes; const char* source = "127.0.0.1"; };

TEST_F(HttpServer, PipelinedHttp10AndExpectConversations)
{
    static const char db[] = "ID:001\nNA:Default\nID:007\nNA:Red\nHH:RedSonicBox\nDX:REDSONIC\n\n";
    ASSERT_EQ(1, upnp_client_db_load_text(db, sizeof db - 1));
    const std::string get = "GET /t/info?", host = " HTTP/1.1\r\nHost: a\r\n", post = "POST /t/echo" + host;
    const std::string v10 = "GET /t/info HTTP/1.0\r\n", keep = "Connection: Keep-Alive\r\n\r\n";
    const std::string dlna = v10 + "User-Agent: TV DLNADOC/1.50\r\n" + keep;
    const std::string red = v10 + "User-Agent: RedSonicBox DLNADOC/1.50\r\n" + keep;
    const std::string pipeline = get + "0" + host + "\r\n" + get + "1" + host + "\r\n" + post +
                                 "Content-Length: 5\r\n\r\nhello" + get + "last" + host + "Connection: close\r\n\r\n";
    const talk_case cases[] = {
        {"pipelined", {{pipeline, info("/t/info?0")}, {"", info("/t/info?1")}, {"", "hello"},
                       {"", info("/t/info?last", 11, 1)}}, true},
        {"HTTP/1.0 alive until DLNA", {{v10 + keep, info("/t/info", 10)}, {dlna, info("/t/info", 10, 1, 15)}}, true},
        // Clients with the REDSONIC flag stay connected over HTTP/1.0.
        {"kept alive for REDSONIC", {{red, info("/t/info", 10, 0, 15)}, {red, info("/t/info", 10, 0, 15)}}, false,
         "127.0.0.12"},
        {"expect", {{post + "Expect: 100-continue\r\nContent-Length: 4\r\n\r\n",
                     "HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n"}, {"body", "body"}}, false},
    };
    for (const talk_case& c : cases) {
        SCOPED_TRACE(c.why);
        int s = connect_from(c.source);
        ASSERT_GE(s, 0);
        for (size_t i = 0; i < c.steps.size(); i++) {
            SCOPED_TRACE(i);
            const talk_step& step = c.steps[i];
            ASSERT_TRUE(step.send.empty() || test_send_text(s, step.send));
            std::string got = test_read_response(s);
            bool whole = step.answer.compare(0, 5, "HTTP/") == 0;
            EXPECT_EQ(step.answer, whole ? got : test_body(got));
            bool last_of_closing = c.closes && i + 1 == c.steps.size();
            std::string connection = last_of_closing ? "Connection: close\r\n" : "Connection: keep-alive\r\n";
            EXPECT_NE(std::string::npos, got.find(whole ? "" : connection)) << got;
        }
        EXPECT_EQ(c.closes, test_closed_by_peer(s, c.closes ? 5000 : 200));
        close(s);
    }
    EXPECT_EQ(7, upnp_client_get_id("127.0.0.12"));
    upnp_ini_set(UPNP_OPT_CLIENTS, nullptr);
}

// starts: how the answer begins ("" none); closes: the server closes after
// its answer, or without one; has / absent: what the answer holds or not;
// the limits are lowered for the case. A case with a lower send_ms stops
// reading its answer: the server must drop it while others are served.
struct hostile_case {
    const char* why;
    std::string request;
    const char* starts;
    bool closes = false;
    std::string has = "";
    const char* absent = "";
    int32_t head_ms = HTTP_HEAD_TIMEOUT_MS, idle_ms = HTTP_IDLE_TIMEOUT_MS, send_ms = HTTP_SEND_TIMEOUT_MS;
};

TEST_F(HttpServer, EachHostileRequestIsAnsweredOrDroppedAndAGoodRequestIsStillServed)
{
    std::string fillers;
    for (int i = 0; i < 2000; i++)
        fillers += "X-Filler-" + std::to_string(i) + ": " + std::string(40, 'f') + "\r\n";
    const char *bad = "HTTP/1.1 400 Bad Request\r\n", *ok = "HTTP/1.1 200 OK\r\n";
    const std::string get = "GET /t/info", host = " HTTP/1.1\r\nHost: a\r\n\r\n";
    const std::string post = "POST /t/echo HTTP/1.1\r\nHost: a\r\n";
    const std::string chunked = post + "Transfer-Encoding: chunked\r\n\r\n";
    const hostile_case cases[] = {
        {"no method", "/t/info" + host, "HTTP/1.1 404 Not Found\r\n"},
        {"huge head, answered from its cut head", get + " HTTP/1.1\r\nHost: a\r\n" + fillers + "\r\n", ok, false,
         "\r\n\r\n" + info("/t/info")},
        {"huge head that never ends", get + " HTTP/1.1\r\n" + std::string(2 * HTTP_HEAD_DRAIN_MAX, 'h'), "", true},
        // Trickled bytes do not stretch the limit of the whole head.
        {"head without end, trickled byte by byte", "", "", true, "", "", 300},
        {"idle after a keep-alive answer", GOOD, ok, true, "\r\n\r\n" + info("/t/info"), "", HTTP_HEAD_TIMEOUT_MS, 300},
        {"NUL in the URL", std::string("GET /t/in\0fo HTTP/1.1\r\nHost: a\r\n\r\n", 34), bad, true},
        {"encoded CR LF in the URL", get + "%0d%0aX-Injected:%20yes" + host, bad, true, "", "X-Injected"},
        {"encoded dot dot", "GET /images/%2e%2e/%2e%2e/etc/passwd" + host, bad, true},
        {"negative Content-Length", post + "Content-Length: -5\r\nConnection: close\r\n\r\nhello", ok, true,
         "\r\n\r\nno body"},
        {"Content-Length beyond any number", post + "Content-Length: 99999999999999999999999\r\n\r\nab", bad, true},
        {"Content-Length over the cap", post + "Content-Length: 2097152\r\n\r\nab", bad, true},
        {"chunk size beyond any number", chunked + "FFFFFFFFFFFFFFFFFFF\r\nab", bad, true},
        {"chunk over the cap", chunked + "200001\r\nab", bad, true},
        {"a client that stops reading", "GET /t/big" + host, "", true, "", "", HTTP_HEAD_TIMEOUT_MS,
         HTTP_IDLE_TIMEOUT_MS, 500},
    };
    for (const hostile_case& c : cases) {
        SCOPED_TRACE(c.why);
        lower_limits(c.head_ms, c.idle_ms, c.send_ms);
        int s = connect_from("127.0.0.1");
        ASSERT_GE(s, 0);
        bool stalls = c.send_ms != HTTP_SEND_TIMEOUT_MS, closed = false;
        if (stalls)
            shrink_receive_buffer(s);
        test_send_text(s, c.request);
        for (int i = 0; c.request.empty() && i < 50 && !closed; i++)
            closed = !test_send_text(s, "X") || test_closed_by_peer(s, 100);
        if (stalls) {
            still_serves();
            EXPECT_TRUE(test_eventually([] { return HTTP_connection_count() == 0; }, 10000));
        }
        std::string got = closed || stalls ? "" : test_read_response(s);
        EXPECT_EQ(0u, got.find(c.starts)) << got;
        EXPECT_NE(std::string::npos, got.find(c.has)) << got;
        EXPECT_EQ(std::string::npos, *c.absent ? got.find(c.absent) : std::string::npos) << got;
        EXPECT_TRUE(!c.closes || closed || stalls || test_closed_by_peer(s, 5000));
        close(s);
        HTTP_set_limits(nullptr);
        still_serves();
    }
}

// busy: each held connection is inside a request, its answer stalled.
struct cap_case { int32_t per_peer, total; std::vector<const char*> held; const char* extra; bool busy; };

TEST_F(HttpServer, ConnectionsBeyondAPeersCapOrTheTotalCapAreRefusedAtOnce)
{
    const cap_case cases[] = {
        {3, HTTP_MAX_CONNECTIONS, {"127.0.0.5", "127.0.0.5", "127.0.0.5"}, "127.0.0.5", false},
        // A full table pushes out a waiting connection, never a busy one.
        {HTTP_MAX_PER_PEER, 4, {"127.0.0.7", "127.0.0.8", "127.0.0.9", "127.0.0.10"}, "127.0.0.11", true},
    };
    for (const cap_case& c : cases) {
        SCOPED_TRACE(c.extra);
        // The last case's good request may still hold a slot.
        ASSERT_TRUE(test_eventually([] { return HTTP_connection_count() == 0; }));
        lower_limits(HTTP_HEAD_TIMEOUT_MS, HTTP_IDLE_TIMEOUT_MS, HTTP_SEND_TIMEOUT_MS, c.per_peer, c.total);
        std::vector<int> held;
        for (const char* source : c.held) {
            held.push_back(connect_from(source));
            char first;
            if (c.busy) {
                shrink_receive_buffer(held.back());
                test_send_text(held.back(), "GET /t/big HTTP/1.1\r\nHost: a\r\n\r\n");
                EXPECT_EQ(1, recv(held.back(), &first, 1, 0));
            }
        }
        EXPECT_TRUE(test_eventually([&] { return HTTP_connection_count() == int(held.size()); }));
        int extra = connect_from(c.extra);
        EXPECT_TRUE(test_closed_by_peer(extra, 2000));
        close(extra);
        for (int s : held)
            close(s);
        EXPECT_TRUE(test_eventually([] { return HTTP_connection_count() == 0; }));
        still_serves(c.extra);
    }
}

// The descriptor limit, raised toward 4096 where the hard limit allows.
rlim_t raise_descriptor_limit()
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = std::max(files.rlim_cur, std::min<rlim_t>(files.rlim_max, 4096));
    setrlimit(RLIMIT_NOFILE, &files);
    return files.rlim_cur;
}

TEST_F(HttpServer, AThousandIdleConnectionsFromOnePeerDoNotStopAnother)
{
    rlim_t files = raise_descriptor_limit();
    if (files < 1200)
        GTEST_SKIP() << "needs 1200 descriptors, has " << files;
    std::vector<int> held;
    for (int i = 0; i < 1000; i++) {
        held.push_back(connect_from("127.0.0.2", 2000));
        ASSERT_GE(held.back(), 0) << "connection " << i;
    }
    EXPECT_TRUE(test_eventually([] { return HTTP_connection_count() == HTTP_MAX_PER_PEER; }));
    still_serves("127.0.0.3");
    EXPECT_LE(HTTP_connection_count(), HTTP_MAX_PER_PEER + 1);
    for (int s : held)
        close(s);
}

// Half heads fill every slot long before the head limit would free one.
TEST_F(HttpServer, HalfHeadsFromSixteenPeersFillingAllSlotsDoNotKeepAPlayerOut)
{
    rlim_t files = raise_descriptor_limit();
    if (files < 3000)
        GTEST_SKIP() << "needs 3000 descriptors, has " << files;
    std::vector<int> held;
    for (int peer = 2; peer <= 17; peer++) {
        std::string source = "127.0.0." + std::to_string(peer);
        for (int i = 0; i < 125; i++) {
            held.push_back(connect_from(source.c_str(), 2000));
            EXPECT_GE(held.back(), 0) << source << " connection " << i;
            test_send_text(held.back(), "GET /t/info HTTP/1.1\r\nHost: a\r\n");
        }
    }
    EXPECT_TRUE(test_eventually([] { return HTTP_connection_count() >= HTTP_MAX_CONNECTIONS; }));
    for (int i = 0; i < 20; i++) {
        SCOPED_TRACE(i);
        still_serves("127.0.0.30");
    }
    for (int s : held)
        close(s);
}

TEST_F(HttpServer, StopWakesIdleAndBlockedConnections)
{
    std::vector<int> held;
    for (int i = 0; i < 5; i++)
        held.push_back(connect_from("127.0.0.1"));
    int reader = connect_from("127.0.0.1");
    test_send_text(reader, GOOD);
    test_read_response(reader);                     // now idle between requests
    int stuck = connect_from("127.0.0.1");
    shrink_receive_buffer(stuck);
    test_send_text(stuck, "GET /t/big HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_TRUE(test_eventually([] { return HTTP_connection_count() == 7; }));
    upnp_mediaserver_stop();
    EXPECT_EQ(0, HTTP_connection_count());
    EXPECT_EQ(0, upnp_thread_count());
    EXPECT_TRUE(test_closed_by_peer(reader, 2000));
    for (int s : held)
        close(s);
    close(reader);
    close(stuck);
}

}  // namespace
