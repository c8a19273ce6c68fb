// What the server writes: status texts, the one response head with its
// DLNA refusals, replies from memory with Range, the error pages and the
// chunked reply. Each sender writes into one end of a socket pair and the
// test reads the other.
#include "http/http_server.h"
#include "runtime/upnp_string.h"
#include "upnp/upnp_client.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <string>
#include <thread>

namespace {

struct wire {
    int fds[2] = {-1, -1};
    wire() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds)); }
    ~wire()
    {
        close(fds[0]);
        close(fds[1]);
    }
    int32_t out() const { return fds[0]; }
    // Everything written so far.
    std::string taken()
    {
        std::string all;
        char buffer[8192];
        pollfd p{fds[1], POLLIN, 0};
        while (poll(&p, 1, 50) == 1) {
            ssize_t n = recv(fds[1], buffer, sizeof buffer, MSG_DONTWAIT);
            if (n <= 0)
                break;
            all.append(buffer, size_t(n));
        }
        return all;
    }
};

struct request_on_wire {
    wire w;
    HTTP_request r{};
    explicit request_on_wire(const std::string& head, int32_t version = 11)
    {
        r.socket = w.out();
        r.version = version;
        r.method = head.compare(0, 4, "HEAD") == 0 ? HTTP_METHOD_HEAD : HTTP_METHOD_GET;
        snprintf(r.head, sizeof r.head, "%s", head.c_str());
        snprintf(r.url, sizeof r.url, "%s", "/x");
    }
};

const std::string GET = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";

std::string body_of(const std::string& response)
{
    size_t end = response.find("\r\n\r\n");
    return end == std::string::npos ? "" : response.substr(end + 4);
}

struct status_case {
    int32_t status;
    const char* text;
    int html;
};

TEST(HttpStatus, TextsByCodeAndUnlistedCodesReadAsOk)
{
    const status_case cases[] = {
        {200, "200 OK", 0},           {206, "206 Partial Content", 0},
        {400, "400 Bad Request", 1},  {401, "401 Unauthorised", 1},
        {402, "402 Invalid Args", 1}, {404, "404 Not Found", 1},
        {406, "406 Not Acceptable", 1}, {412, "412 Precondition Failed", 1},
        {416, "416 Requested Range Not Satisfiable", 1}, {500, "500 Internal Server Error", 1},
        {403, "200 OK", 0},           {405, "200 OK", 0},
        {501, "200 OK", 0},           {0, "200 OK", 0},
    };
    for (const status_case& c : cases) {
        SCOPED_TRACE(c.status);
        int html = -1;
        EXPECT_STREQ(c.text, HTTP_status_text(c.status, &html));
        EXPECT_EQ(c.html, html);
    }
}

TEST(HttpHeader, TheFullFormHasItsHeadersInTheirOrder)
{
    request_on_wire q(GET);
    q.r.mime_type = "text/xml";
    q.r.content_length = 5;
    HTTP_add_header(&q.r, "X-A: 1\r\n");
    EXPECT_EQ(0, HTTP_send_header(&q.r, 200));
    std::string got = q.w.taken();
    std::regex form("HTTP/1\\.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: 5\r\n"
                    "Date: [A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} GMT\r\n"
                    "Connection: keep-alive\r\nAccept-Ranges: bytes\r\nX-A: 1\r\nEXT:\r\n"
                    "Server:Windows NT/5\\.0, UPnP/1\\.0, Velmora UPnP SDK/1\\.0\r\n\r\n");
    EXPECT_TRUE(std::regex_match(got, form)) << got;
}

TEST(HttpHeader, AnUnknownLengthGivesTheShortHttp10Form)
{
    request_on_wire q(GET);
    q.r.mime_type = "video/mpeg";
    q.r.content_length = -1;
    HTTP_add_header(&q.r, "X-A: 1\r\n");
    EXPECT_EQ(0, HTTP_send_header(&q.r, 200));
    EXPECT_EQ("HTTP/1.0 200 OK\r\nContent-Type: video/mpeg\r\nConnection: close\r\nX-A: 1\r\n\r\n", q.w.taken());
    EXPECT_EQ(1, q.r.close);
}

TEST(HttpHeader, TheUnknownLengthMarkerIsShortFormOnlyForDlnaClients)
{
    request_on_wire dlna(GET);
    dlna.r.mime_type = "video/mpeg";
    dlna.r.content_length = HTTP_UNKNOWN_LENGTH;
    dlna.r.dlna_version = 15;
    EXPECT_EQ(0, HTTP_send_header(&dlna.r, 200));
    EXPECT_EQ(0u, dlna.w.taken().find("HTTP/1.0 200 OK\r\nContent-Type: video/mpeg\r\nConnection: close\r\n"));

    request_on_wire other(GET);
    other.r.mime_type = "video/mpeg";
    other.r.content_length = HTTP_UNKNOWN_LENGTH;
    EXPECT_EQ(0, HTTP_send_header(&other.r, 200));
    EXPECT_NE(std::string::npos, other.w.taken().find("Content-Length: 9999999999999999\r\n"));
}

struct refusal_case {
    const char* why;
    std::string head;
    int32_t version;
    const char* status_line;
};

TEST(HttpHeader, DlnaPreconditionsTurnAnOkAwayWithAnEmptyBody)
{
    const std::string image = "GET /disk/photo/DLNA-PNJPEG_SM-OP01-FLAGS00f00000/O1.jpg HTTP/1.1\r\nHost: a\r\n";
    const std::string stream = "GET /disk/DLNA-PNMP3-OP01-FLAGS01700000/music/O1.mp3 HTTP/1.1\r\nHost: a\r\n";
    const refusal_case cases[] = {
        {"no host", "GET /x HTTP/1.1\r\n\r\n", 11, "HTTP/1.1 400 Bad Request"},
        {"content features 2", GET.substr(0, GET.size() - 2) + "getcontentFeatures.dlna.org: 2\r\n\r\n", 11,
         "HTTP/1.1 400 Bad Request"},
        {"TLAG without streaming", GET.substr(0, GET.size() - 2) + "X: DLNA.ORG_TLAG=1\r\n\r\n", 11,
         "HTTP/1.1 400 Bad Request"},
        {"play speed on an image", image + "PlaySpeed.dlna.org: speed=1\r\n\r\n", 11, "HTTP/1.1 400 Bad Request"},
        {"real time info on an image", image + "realTimeInfo.dlna.org: DLNA.ORG_TLAG=*\r\n\r\n", 11,
         "HTTP/1.1 400 Bad Request"},
        {"streaming an image", image + "transferMode.dlna.org: Streaming\r\n\r\n", 11, "HTTP/1.1 406 Not Acceptable"},
        {"interactive stream", stream + "transferMode.dlna.org: Interactive\r\n\r\n", 11,
         "HTTP/1.1 406 Not Acceptable"},
        {"no host beats 406", "GET /O.jpg-FLAGS00f HTTP/1.1\r\ntransferMode.dlna.org: Streaming\r\n\r\n", 11,
         "HTTP/1.1 400 Bad Request"},
    };
    for (const refusal_case& c : cases) {
        SCOPED_TRACE(c.why);
        request_on_wire q(c.head, c.version);
        q.r.mime_type = "image/jpeg";
        q.r.content_length = 1234;
        EXPECT_EQ(1, HTTP_send_header(&q.r, 200));   // no body may follow
        std::string got = q.w.taken();
        EXPECT_EQ(0u, got.find(std::string(c.status_line) + "\r\nContent-Type: text/html; charset=utf-8\r\n"
                                                            "Content-Length: 0\r\n"))
            << got;
        EXPECT_NE(std::string::npos, got.find("Connection: close\r\n"));
        EXPECT_EQ("", body_of(got));
    }
}

TEST(HttpHeader, RequestsThatMayBeServedKeepTheirStatus)
{
    const refusal_case cases[] = {
        {"1.0 without host", "GET /x HTTP/1.0\r\n\r\n", 10, "HTTP/1.1 200 OK"},
        {"interactive image", "GET /O.jpg-FLAGS00f HTTP/1.1\r\nHost: a\r\ntransferMode.dlna.org: Interactive\r\n\r\n",
         11, "HTTP/1.1 200 OK"},
        {"TLAG with streaming", "GET /x HTTP/1.1\r\nHost: a\r\nX: DLNA.ORG_TLAG=1 Streaming\r\n\r\n", 11,
         "HTTP/1.1 200 OK"},
    };
    for (const refusal_case& c : cases) {
        SCOPED_TRACE(c.why);
        request_on_wire q(c.head, c.version);
        q.r.mime_type = "image/jpeg";
        EXPECT_EQ(0, HTTP_send_header(&q.r, 200));
        EXPECT_EQ(0u, q.w.taken().find(c.status_line));
    }
    // The checks are for answers that would carry the resource only.
    request_on_wire q("GET /x HTTP/1.1\r\n\r\n");
    EXPECT_EQ(0, HTTP_send_status(&q.r, 404));
    EXPECT_EQ(0u, q.w.taken().find("HTTP/1.1 404 Not Found\r\n"));
}

TEST(HttpHeader, ContentTypeFallsBackAndLpcmCarriesItsParameters)
{
    request_on_wire none(GET);
    HTTP_send_status(&none.r, 200);
    EXPECT_NE(std::string::npos, none.w.taken().find("Content-Type: application/octet-stream\r\n"));

    request_on_wire pcm(GET);
    snprintf(pcm.r.url, sizeof pcm.r.url, "%s", "/disk/DLNA-PNLPCM-rate44100-channels2/music/O1.pcm");
    pcm.r.mime_type = "audio/L16";
    HTTP_send_status(&pcm.r, 200);
    EXPECT_NE(std::string::npos, pcm.w.taken().find("Content-Type: audio/L16;rate=44100;channels=2\r\n"));

    request_on_wire bare(GET);
    bare.r.mime_type = "audio/L16";
    HTTP_send_status(&bare.r, 200);
    EXPECT_NE(std::string::npos, bare.w.taken().find("Content-Type: audio/L16;rate=0;channels=0\r\n"));
}

TEST(HttpHeader, OldClientsGetAnHttp10StatusLineAndNoRangeStatus)
{
    static const char db[] = "ID:001\nNA:Old set\nHP:1.0RESPONSE\nID:002\nNA:Other\n\n";
    ASSERT_EQ(1, upnp_client_db_load_text(db, sizeof db - 1));
    request_on_wire q("GET /x HTTP/1.0\r\n\r\n", 10);
    q.r.client_id = 1;
    q.r.mime_type = "audio/mpeg";
    HTTP_send_status(&q.r, 200);
    EXPECT_EQ(0u, q.w.taken().find("HTTP/1.0 200 OK\r\n"));
    HTTP_send_status(&q.r, 416);
    EXPECT_EQ(0u, q.w.taken().find("HTTP/1.0 404 Not Found\r\n"));
    EXPECT_EQ(1, q.r.close);

    request_on_wire newer(GET);
    newer.r.client_id = 1;     // HTTP/1.1: the flag does not apply
    HTTP_send_status(&newer.r, 416);
    EXPECT_EQ(0u, newer.w.taken().find("HTTP/1.1 416 Requested Range Not Satisfiable\r\n"));
    upnp_client_db_free();
}

TEST(HttpHeader, AHeadThatDoesNotFitIsNotSentAtAll)
{
    request_on_wire q(GET);
    q.r.mime_type = "text/plain";
    HTTP_add_header(&q.r, ("X-Long: " + std::string(1000, 'a') + "\r\n").c_str());
    EXPECT_EQ(1, HTTP_send_status(&q.r, 200));
    EXPECT_EQ("", q.w.taken());
}

TEST(HttpHeader, ExtraHeadersAreBoundedAndCarryNoControlBytes)
{
    HTTP_request r{};
    HTTP_add_header(&r, "A: 1\x01\x7f\t\r\n");
    EXPECT_STREQ("A: 1\x7f\r\n", r.extra_headers);
    HTTP_add_no_cache(&r);
    EXPECT_STREQ("A: 1\x7f\r\nExpires: 0\r\nPragma: no-cache\r\n", r.extra_headers);
    HTTP_add_header(&r, std::string(3000, 'b').c_str());
    EXPECT_EQ(size_t(HTTP_EXTRA_SIZE - 1), strlen(r.extra_headers));
}

TEST(HttpHeader, ARangeAnswerNamesItsBytesOrItsTimes)
{
    request_on_wire bytes(GET);
    bytes.r.mime_type = "audio/mpeg";
    bytes.r.range_start = 0;
    bytes.r.range_end = 999;
    bytes.r.total_length = 1000;
    bytes.r.content_length = 1000;
    HTTP_send_header(&bytes.r, 206);
    std::string got = bytes.w.taken();
    EXPECT_EQ(0u, got.find("HTTP/1.1 206 Partial Content\r\n"));
    EXPECT_NE(std::string::npos, got.find("Accept-Ranges: bytes\r\nContent-Range: bytes 0-999/1000\r\nEXT:"));

    request_on_wire time("GET /x HTTP/1.1\r\nHost: a\r\nTimeSeekRange.dlna.org: npt=0.000-\r\n\r\n");
    time.r.mime_type = "audio/mpeg";
    time.r.range_start = 0;
    time.r.range_end = 99999;
    time.r.total_length = 100000;
    time.r.content_length = 100000;
    time.r.duration_ms = 10000;
    HTTP_send_header(&time.r, 206);
    got = time.w.taken();
    EXPECT_EQ(0u, got.find("HTTP/1.1 200 OK\r\n"));
    EXPECT_NE(std::string::npos,
              got.find("TimeSeekRange.dlna.org: npt=000.0-010.0/010.0 bytes=0-99999/100000\r\n"));

    // "X-Seek-Range:" holds "Range:", so it is answered in bytes.
    request_on_wire x("GET /x HTTP/1.1\r\nHost: a\r\nX-Seek-Range: npt=0.000-\r\n\r\n");
    x.r.mime_type = "audio/mpeg";
    x.r.duration_ms = 10000;
    HTTP_send_header(&x.r, 206);
    EXPECT_NE(std::string::npos, x.w.taken().find("206 Partial Content"));
}

// ---- Replies from memory ----------------------------------------------------

struct buffer_case {
    const char* why;
    std::string range;
    std::string status_line;
    std::string content_range;   // "" when none
    std::string body;
};

TEST(HttpBuffer, RangesAreJudgedAndServedFromMemory)
{
    static const char data[] = "abcdefghij";   // ten bytes and the terminator
    const buffer_case cases[] = {
        {"whole", "", "HTTP/1.1 200 OK", "", "abcdefghij"},
        {"middle", "Range: bytes=2-4\r\n", "HTTP/1.1 206 Partial Content", "bytes 2-4/10", "cde"},
        {"open end", "Range: bytes=7-\r\n", "HTTP/1.1 206 Partial Content", "bytes 7-9/10", "hij"},
        {"start at the length", "Range: bytes=10-\r\n", "HTTP/1.1 206 Partial Content", "bytes 10-9/10", ""},
        {"end at the length", "Range: bytes=8-10\r\n", "HTTP/1.1 206 Partial Content", "bytes 8-10/10",
         std::string("ij\0", 3)},
        {"start beyond", "Range: bytes=11-\r\n", "HTTP/1.1 416 Requested Range Not Satisfiable", "", ""},
        {"end beyond", "Range: bytes=0-11\r\n", "HTTP/1.1 416 Requested Range Not Satisfiable", "", ""},
        {"end before start", "Range: bytes=5-2\r\n", "HTTP/1.1 400 Bad Request", "", ""},
        {"no unit", "Range: 1-2\r\n", "HTTP/1.1 400 Bad Request", "", ""},
        {"time seek", "TimeSeekRange.dlna.org: npt=0.000-\r\n", "HTTP/1.1 400 Bad Request", "", ""},
        {"time beyond the length", "TimeSeekRange.dlna.org: npt=1.000-\r\n",
         "HTTP/1.1 416 Requested Range Not Satisfiable", "", ""},
        {"suffix", "Range: bytes=-5\r\nX: a-b\r\n", "HTTP/1.1 200 OK", "", "abcdefghij"},
        // A suffix of 3 reads as the start -3, the mark of a refused range.
        {"suffix of 3", "Range: bytes=-3\r\nX: a-b\r\n", "HTTP/1.1 406 Not Acceptable", "", ""},
    };
    for (const buffer_case& c : cases) {
        SCOPED_TRACE(c.why);
        request_on_wire q("GET /x HTTP/1.1\r\nHost: a\r\n" + c.range + "\r\n");
        q.r.mime_type = "text/plain";
        q.r.content_length = 10;
        EXPECT_EQ(0, HTTP_send_buffer(&q.r, data));
        std::string got = q.w.taken();
        EXPECT_EQ(0u, got.find(c.status_line + "\r\n")) << got;
        if (!c.content_range.empty()) {
            EXPECT_NE(std::string::npos, got.find("Content-Range: " + c.content_range + "\r\n"));
        }
        EXPECT_NE(std::string::npos, got.find("Content-Length: " + std::to_string(c.body.size()) + "\r\n"));
        EXPECT_EQ(c.body, body_of(got));
    }
}

TEST(HttpBuffer, RangesOnAResourceWithoutByteSeekAreNotAcceptable)
{
    request_on_wire q("GET /DLNA-PNMP3-OP10-FLAGS01700000/O1.mp3 HTTP/1.1\r\nHost: a\r\nRange: bytes=0-\r\n\r\n");
    q.r.mime_type = "audio/mpeg";
    q.r.content_length = 3;
    HTTP_send_buffer(&q.r, "abc");
    EXPECT_EQ(0u, q.w.taken().find("HTTP/1.1 406 Not Acceptable\r\n"));
}

TEST(HttpBuffer, HeadRequestsGetTheHeadAlone)
{
    request_on_wire q("HEAD /x HTTP/1.1\r\nHost: a\r\n\r\n");
    q.r.mime_type = "text/plain";
    q.r.content_length = 3;
    EXPECT_EQ(0, HTTP_send_buffer(&q.r, "abc"));
    std::string got = q.w.taken();
    EXPECT_NE(std::string::npos, got.find("Content-Length: 3\r\n"));
    EXPECT_EQ("", body_of(got));
}

TEST(HttpBuffer, ALargeBodyArrivesWhole)
{
    std::string data(100000, 'z');
    data[99999] = '!';
    request_on_wire q(GET);
    q.r.mime_type = "text/plain";
    q.r.content_length = int64_t(data.size());
    std::string got;
    std::thread reader([&] {
        for (int i = 0; i < 200 && body_of(got).size() < data.size(); i++)
            got += q.w.taken();
    });
    EXPECT_EQ(0, HTTP_send_buffer(&q.r, data.c_str()));
    reader.join();
    EXPECT_EQ(data, body_of(got));
}

// ---- Error pages ----------------------------------------------------------------

TEST(HttpErrorPage, NotFoundShowsTheEscapedUrlAndLeavesTheCallersLength)
{
    request_on_wire q(GET);
    snprintf(q.r.url, sizeof q.r.url, "%s", "/a<b>&\"c'");
    q.r.content_length = 77;
    EXPECT_EQ(0, HTTP_send_file_not_found(&q.r));
    std::string got = q.w.taken();
    std::string page = "<HTML><HEAD><TITLE>404 Not Found</TITLE></HEAD><BODY><H1>Not Found</H1>"
                       "/a&lt;b&gt;&amp;&quot;c&#39; was not found on this server.</BODY></HTML>";
    EXPECT_EQ(0u, got.find("HTTP/1.1 404 Not Found\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " +
                           std::to_string(page.size()) + "\r\n"));
    EXPECT_EQ(page, body_of(got));
    EXPECT_EQ(77, q.r.content_length);
}

TEST(HttpErrorPage, NotFoundIsSentWithItsPageEvenForHead)
{
    request_on_wire q("HEAD /x HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ(0, HTTP_send_file_not_found(&q.r));
    EXPECT_NE(std::string::npos, body_of(q.w.taken()).find("/x was not found"));
}

TEST(HttpErrorPage, ALongUrlIsCutWithinThePage)
{
    request_on_wire q(GET);
    std::string url(HTTP_URL_SIZE - 1, '&');
    snprintf(q.r.url, sizeof q.r.url, "%s", url.c_str());
    EXPECT_EQ(0, HTTP_send_file_not_found(&q.r));
    std::string body = body_of(q.w.taken());
    EXPECT_LE(body.size(), 1023u);
    EXPECT_GT(body.size(), 1000u);
    EXPECT_EQ(std::string::npos, body.find("&amp<"));   // no entity is cut in two
    EXPECT_EQ(body.size() - 49, body.find("&amp; was not found on this server.</BODY></HTML>"));
}

TEST(HttpErrorPage, UnauthorizedNamesTheRealmWithABareLineFeed)
{
    request_on_wire q(GET);
    EXPECT_EQ(0, HTTP_send_unauthorized(&q.r));
    std::string got = q.w.taken();
    EXPECT_EQ(0u, got.find("HTTP/1.1 401 Unauthorised\r\n"));
    char host[129];
    gethostname(host, sizeof host);
    host[128] = 0;
    EXPECT_NE(std::string::npos, got.find(std::string("WWW-Authenticate: Basic realm=\"") + host + "\"\nEXT:"));
    EXPECT_NE(std::string::npos, got.find("<H1>Unauthorized</H1>Access to this page is restricted.</BODY></HTML>"));
}

// ---- Chunked reply ------------------------------------------------------------

TEST(HttpChunked, HeaderChunksAndTheLastChunk)
{
    wire w;
    EXPECT_EQ(0, HTTP_send_chunked_header(w.out()));
    std::regex form("HTTP/1\\.1 200 OK\r\nCONTENT-TYPE: text/xml; charset=\"utf-8\"\r\nDATE: [^\r\n]+ GMT\r\n"
                    "Connection: close\r\nEXT:\r\nSERVER: Windows NT/5\\.0, UPnP/1\\.0, Velmora UPnP SDK/1\\.0\r\n"
                    "Transfer-Encoding: chunked\r\n\r\n");
    std::string got = w.taken();
    EXPECT_TRUE(std::regex_match(got, form)) << got;

    upnp_string* s = upnp_string_append(nullptr, "hello");
    EXPECT_EQ(0, HTTP_send_chunk(w.out(), s));
    EXPECT_EQ(0, s->length);                       // emptied for reuse
    EXPECT_EQ(0, HTTP_send_chunk(w.out(), s));     // nothing for an empty text
    s = upnp_string_append(s, std::string(300, 'x').c_str());
    EXPECT_EQ(0, HTTP_send_chunk(w.out(), s));
    EXPECT_EQ(0, HTTP_send_last_chunk(w.out()));
    EXPECT_EQ("5\r\nhello\r\n12c\r\n" + std::string(300, 'x') + "\r\n0\r\n\r\n", w.taken());
    upnp_string_free(s);
}

TEST(HttpChunked, AClosedPeerIsAFailedSend)
{
    wire w;
    close(w.fds[1]);
    w.fds[1] = -1;
    upnp_string* s = upnp_string_append(nullptr, "hello");
    EXPECT_EQ(1, HTTP_send_chunk(w.out(), s));
    EXPECT_EQ(1, HTTP_send_last_chunk(w.out()));
    EXPECT_EQ(1, HTTP_send_chunked_header(w.out()));
    upnp_string_free(s);
}

}  // namespace
