// What the server writes, read from the other end of a socket pair.
#include "config/upnp_client.h"
#include "http/http_server.h"
#include "runtime/upnp_string.h"
#include "support/test_support.h"
#include "support/test_wire.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <string>

namespace {

const std::string GET = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";

TEST(HttpStatus, UnlistedCodesReadAsOkWithoutAPage)
{
    int html = -1;
    EXPECT_STREQ("402 Invalid Args", HTTP_status_text(402, &html));
    EXPECT_EQ(1, html);
    EXPECT_STREQ("200 OK", HTTP_status_text(403, &html));
    EXPECT_EQ(0, html);
}

// What a handler sets before the head goes out.
void jpeg(HTTP_request* r) { r->mime_type = "image/jpeg", r->content_length = 1234; }
void jpeg_extra(HTTP_request* r) { jpeg(r), HTTP_add_header(r, "X-A: 1\r\n"); }
void mpeg_no_length(HTTP_request* r) { jpeg_extra(r), r->mime_type = "video/mpeg", r->content_length = -1; }
void mpeg_unknown(HTTP_request* r) { r->mime_type = "video/mpeg", r->content_length = HTTP_UNKNOWN_LENGTH; }
void mpeg_unknown_dlna(HTTP_request* r) { mpeg_unknown(r), r->dlna_version = 15; }
void lpcm(HTTP_request* r)
{
    snprintf(r->url, sizeof r->url, "%s", "/disk/DLNA-PNLPCM-rate44100-channels2/music/O1.pcm");
    r->mime_type = "audio/L16";
}
void l16(HTTP_request* r) { r->mime_type = "audio/L16"; }
void mp3(HTTP_request* r, int64_t end, int32_t duration_ms)
{
    r->mime_type = "audio/mpeg", r->range_start = 0, r->range_end = end, r->duration_ms = duration_ms;
    r->total_length = r->content_length = end + 1;
}
void bytes_range(HTTP_request* r) { mp3(r, 999, 0); }
void time_range(HTTP_request* r) { mp3(r, 99999, 10000); }

// head: request line and headers without the blank line; result 1: refused
// here, no body may follow.
struct header_case { const char* why; std::string head; void (*set)(HTTP_request*); int32_t status, result;
                     std::string starts, has; };

TEST(HttpHeader, FormsRefusalsTypesAndRangesOfTheResponseHead)
{
    const std::string image = "GET /disk/photo/DLNA-PNJPEG_SM-OP01-FLAGS00f00000/O1.jpg HTTP/1.1\r\nHost: a\r\n";
    const std::string host = "GET /x HTTP/1.1\r\nHost: a\r\n";
    const std::string empty = "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: 0\r\n";
    const std::string bad = "HTTP/1.1 400 Bad Request" + empty, unacceptable = "HTTP/1.1 406 Not Acceptable" + empty;
    const std::string closing = "Connection: close\r\n";
    const header_case cases[] = {
        {"the full form", host, jpeg_extra, 200, 0,
         "HTTP/1.1 200 OK\r\nContent-Type: image/jpeg\r\nContent-Length: 1234\r\nDate: ",
         " GMT\r\nConnection: keep-alive\r\nAccept-Ranges: bytes\r\nX-A: 1\r\nEXT:\r\nServer:"},
        {"unknown length: the short HTTP/1.0 form", host, mpeg_no_length, 200, 0,
         "HTTP/1.0 200 OK\r\nContent-Type: video/mpeg\r\nConnection: close\r\nX-A: 1\r\n\r\n", ""},
        {"unknown length marker, DLNA client", host, mpeg_unknown_dlna, 200, 0,
         "HTTP/1.0 200 OK\r\nContent-Type: video/mpeg\r\nConnection: close\r\n", ""},
        {"unknown length marker, other client", host, mpeg_unknown, 200, 0, "HTTP/1.1 200 OK\r\n",
         "Content-Length: 9999999999999999\r\n"},
        // DLNA preconditions turn an OK away with an empty body.
        {"no host", "GET /x HTTP/1.1\r\n", jpeg, 200, 1, bad, closing},
        {"content features 2", host + "getcontentFeatures.dlna.org: 2\r\n", jpeg, 200, 1, bad, closing},
        {"TLAG without streaming", host + "X: DLNA.ORG_TLAG=1\r\n", jpeg, 200, 1, bad, closing},
        {"play speed on an image", image + "PlaySpeed.dlna.org: speed=1\r\n", jpeg, 200, 1, bad, closing},
        {"streaming an image", image + "transferMode.dlna.org: Streaming\r\n", jpeg, 200, 1, unacceptable, closing},
        {"no host beats 406", "GET /O.jpg-FLAGS00f HTTP/1.1\r\ntransferMode.dlna.org: Streaming\r\n", jpeg, 200, 1,
         bad, closing},
        {"1.0 without host", "GET /x HTTP/1.0\r\n", jpeg, 200, 0, "HTTP/1.1 200 OK", ""},
        {"interactive image", "GET /O.jpg-FLAGS00f HTTP/1.1\r\nHost: a\r\ntransferMode.dlna.org: Interactive\r\n",
         jpeg, 200, 0, "HTTP/1.1 200 OK", ""},
        {"TLAG with streaming", host + "X: DLNA.ORG_TLAG=1 Streaming\r\n", jpeg, 200, 0, "HTTP/1.1 200 OK", ""},
        {"interactive on a stream", "GET /O1-FLAGS01500000 HTTP/1.1\r\nHost: a\r\ntransferMode.dlna.org: "
         "Interactive\r\n", jpeg, 200, 1, unacceptable, closing},
        {"real time info on an image", "GET /O1-FLAGS00d00000 HTTP/1.1\r\nHost: a\r\nrealTimeInfo.dlna.org: x\r\n",
         jpeg, 200, 1, bad, closing},
        {"406 beats 400", image + "getcontentFeatures.dlna.org: 2\r\ntransferMode.dlna.org: Streaming\r\n", jpeg, 200,
         1, unacceptable, closing},
        {"DLNA headers behind the extras", image + "getContentFeatures.dlna.org: 1\r\n", jpeg_extra, 200, 0,
         "HTTP/1.1 200", "X-A: 1\r\ncontentFeatures.dlna.org: *\r\ntransferMode.dlna.org: Interactive\r\nEXT:"},
        // The checks are for answers that would carry the resource only.
        {"an error without host", "GET /x HTTP/1.1\r\n", nullptr, 404, 0, "HTTP/1.1 404 Not Found\r\n", ""},
        {"no type", host, nullptr, 200, 0, "HTTP/1.1 200 OK", "Content-Type: application/octet-stream\r\n"},
        {"LPCM with its parameters", host, lpcm, 200, 0, "HTTP/1.1 200 OK",
         "Content-Type: audio/L16;rate=44100;channels=2\r\n"},
        {"LPCM without", host, l16, 200, 0, "HTTP/1.1 200 OK", "Content-Type: audio/L16;rate=0;channels=0\r\n"},
        {"byte range", host, bytes_range, 206, 0, "HTTP/1.1 206 Partial Content\r\n",
         "Accept-Ranges: bytes\r\nContent-Range: bytes 0-999/1000\r\nEXT:"},
        {"time range", host + "TimeSeekRange.dlna.org: npt=0.000-\r\n", time_range, 206, 0, "HTTP/1.1 200 OK\r\n",
         "TimeSeekRange.dlna.org: npt=000.0-010.0/010.0 bytes=0-99999/100000\r\n"},
        // "X-Seek-Range:" holds "Range:", so it is answered in bytes.
        {"X-Seek-Range", host + "X-Seek-Range: npt=0.000-\r\n", time_range, 206, 0, "HTTP/1.1 206 Partial Content",
         ""},
    };
    for (const header_case& c : cases) {
        SCOPED_TRACE(c.why);
        request_on_wire q(c.head + "\r\n", c.head.find(" HTTP/1.0\r\n") != std::string::npos ? 10 : 11);
        if (c.set)
            c.set(&q.r);
        EXPECT_EQ(c.result, HTTP_send_header(&q.r, c.status));
        std::string got = q.taken();
        EXPECT_EQ(0u, got.find(c.starts)) << got;
        EXPECT_NE(std::string::npos, got.find(c.has)) << got;
        EXPECT_EQ(got.find("Connection: close\r\n") != std::string::npos, q.r.close != 0) << got;
    }
}

TEST(HttpHeader, OldClientsGetAnHttp10StatusLineAndNoRangeStatus)
{
    static const char db[] = "ID:001\nNA:Old set\nHP:1.0RESPONSE\nID:002\nNA:Other\n\n";
    ASSERT_EQ(1, upnp_client_db_load_text(db, sizeof db - 1));
    request_on_wire q("GET /x HTTP/1.0\r\n\r\n", 10);
    q.r.client_id = 1;
    q.r.mime_type = "audio/mpeg";
    HTTP_send_status(&q.r, 200);
    EXPECT_EQ(0u, q.taken().find("HTTP/1.0 200 OK\r\n"));
    HTTP_send_status(&q.r, 416);
    EXPECT_EQ(0u, q.taken().find("HTTP/1.0 404 Not Found\r\n"));
    EXPECT_EQ(1, q.r.close);

    request_on_wire newer(GET);
    newer.r.client_id = 1;     // HTTP/1.1: the flag does not apply
    HTTP_send_status(&newer.r, 416);
    EXPECT_EQ(0u, newer.taken().find("HTTP/1.1 416 Requested Range Not Satisfiable\r\n"));
    upnp_client_db_free();
}

TEST(HttpHeader, ExtraHeadersAreBoundedAndCarryNoControlBytesAndAHeadTooLongIsNotSent)
{
    HTTP_request r{};
    HTTP_add_header(&r, "A: 1\x01\x7f\t\r\n");
    EXPECT_STREQ("A: 1\x7f\r\n", r.extra_headers);
    HTTP_add_no_cache(&r);
    EXPECT_STREQ("A: 1\x7f\r\nExpires: 0\r\nPragma: no-cache\r\n", r.extra_headers);
    HTTP_add_header(&r, std::string(3000, 'b').c_str());
    EXPECT_EQ(size_t(HTTP_EXTRA_SIZE - 1), strlen(r.extra_headers));

    request_on_wire q(GET);
    q.r.mime_type = "text/plain";
    HTTP_add_header(&q.r, ("X-Long: " + std::string(1000, 'a') + "\r\n").c_str());
    EXPECT_EQ(1, HTTP_send_status(&q.r, 200));
    EXPECT_EQ("", q.taken());
}

TEST(HttpBuffer, RangesAreJudgedAndServedFromMemory)
{
    static const char data[] = "abcdefghij";   // ten bytes and the terminator
    const std::string bad = "HTTP/1.1 400 Bad Request", beyond = "HTTP/1.1 416 Requested Range Not Satisfiable";
    const std::string partial = "HTTP/1.1 206 Partial Content";
    const struct { const char* why; std::string range, status_line, content_range, body, target = "/x"; } cases[] = {
        {"whole", "", "HTTP/1.1 200 OK", "", "abcdefghij"},
        {"middle", "Range: bytes=2-4\r\n", partial, "bytes 2-4/10", "cde"},
        {"open end", "Range: bytes=7-\r\n", partial, "bytes 7-9/10", "hij"},
        {"start at the length", "Range: bytes=10-\r\n", partial, "bytes 10-9/10", ""},
        {"end at the length", "Range: bytes=8-10\r\n", partial, "bytes 8-10/10", std::string("ij\0", 3)},
        {"start beyond", "Range: bytes=11-\r\n", beyond, "", ""},
        {"end beyond", "Range: bytes=0-11\r\n", beyond, "", ""},
        {"end before start", "Range: bytes=5-2\r\n", bad, "", ""},
        {"time seek", "TimeSeekRange.dlna.org: npt=0.000-\r\n", bad, "", ""},
        {"time beyond the length", "TimeSeekRange.dlna.org: npt=1.000-\r\n", beyond, "", ""},
        {"suffix", "Range: bytes=-5\r\nX: a-b\r\n", "HTTP/1.1 200 OK", "", "abcdefghij"},
        // A suffix of 3 reads as the start -3, the mark of a refused range.
        {"suffix of 3", "Range: bytes=-3\r\nX: a-b\r\n", "HTTP/1.1 406 Not Acceptable", "", ""},
        {"resource without byte seek", "Range: bytes=0-\r\n", "HTTP/1.1 406 Not Acceptable", "", "",
         "/DLNA-PNMP3-OP10-FLAGS01700000/O1.mp3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        request_on_wire q("GET " + c.target + " HTTP/1.1\r\nHost: a\r\n" + c.range + "\r\n");
        q.r.mime_type = "text/plain";
        q.r.content_length = 10;
        EXPECT_EQ(0, HTTP_send_buffer(&q.r, data));
        std::string got = q.taken();
        EXPECT_EQ(0u, got.find(c.status_line + "\r\n")) << got;
        EXPECT_EQ((c.content_range.empty() ? "<none>" : c.content_range) + " " + std::to_string(c.body.size()) + " " +
                      c.body, test_header(got, "Content-Range") + " " + test_header(got, "Content-Length") + " " +
                                  test_body(got));
    }
    request_on_wire head("HEAD /x HTTP/1.1\r\nHost: a\r\n\r\n");
    head.r.mime_type = "text/plain";
    head.r.content_length = 3;
    EXPECT_EQ(0, HTTP_send_buffer(&head.r, "abc"));
    std::string got = head.taken();
    EXPECT_EQ("3 ", test_header(got, "Content-Length") + " " + test_body(got));   // the head alone
}

TEST(HttpErrorPage, NotFoundShowsTheEscapedUrlCutWholeAndLeavesTheCallersLength)
{
    request_on_wire q(GET);
    snprintf(q.r.url, sizeof q.r.url, "%s", "/a<b>&\"c'");
    q.r.content_length = 77;
    EXPECT_EQ(0, HTTP_send_file_not_found(&q.r));
    std::string got = q.taken(), page = test_body(got);
    EXPECT_EQ(0u, got.find("HTTP/1.1 404 Not Found\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " +
                           std::to_string(page.size()) + "\r\n"));
    EXPECT_NE(std::string::npos, page.find("/a&lt;b&gt;&amp;&quot;c&#39; was not found on this server."));
    EXPECT_EQ(77, q.r.content_length);

    request_on_wire long_url(GET);
    snprintf(long_url.r.url, sizeof long_url.r.url, "%s", std::string(HTTP_URL_SIZE - 1, '&').c_str());
    EXPECT_EQ(0, HTTP_send_file_not_found(&long_url.r));
    std::string body = test_body(long_url.taken());
    EXPECT_LE(body.size(), 1023u);
    EXPECT_GT(body.size(), 1000u);
    EXPECT_EQ(std::string::npos, body.find("&amp<"));   // no entity is cut in two
    EXPECT_EQ(body.size() - 49, body.find("&amp; was not found on this server.</BODY></HTML>"));
}

TEST(HttpErrorPage, UnauthorizedAsksForBasicCredentials)
{
    request_on_wire q(GET);
    EXPECT_EQ(0, HTTP_send_unauthorized(&q.r));
    std::string got = q.taken();
    EXPECT_EQ(0u, got.find("HTTP/1.1 401 Unauthorised\r\n"));
    EXPECT_NE(std::string::npos, got.find("\r\nWWW-Authenticate: Basic realm=\""));
}

TEST(HttpChunked, HeaderChunksAndTheLastChunkAndAClosedPeerFails)
{
    request_on_wire w(GET);
    EXPECT_EQ(0, HTTP_send_chunked_header(w.r.socket));
    std::string got = w.taken();
    EXPECT_EQ(0u, got.find("HTTP/1.1 200 OK\r\n")) << got;
    EXPECT_EQ(got.size() - 32, got.find("\r\nTransfer-Encoding: chunked\r\n\r\n")) << got;

    upnp_string* s = upnp_string_append(nullptr, "hello");
    EXPECT_EQ(0, HTTP_send_chunk(w.r.socket, s));
    EXPECT_EQ(0, s->length);                           // emptied for reuse
    EXPECT_EQ(0, HTTP_send_chunk(w.r.socket, s));      // nothing for an empty text
    s = upnp_string_append(s, std::string(300, 'x').c_str());
    EXPECT_EQ(0, HTTP_send_chunk(w.r.socket, s));
    EXPECT_EQ(0, HTTP_send_last_chunk(w.r.socket));
    EXPECT_EQ("5\r\nhello\r\n12c\r\n" + std::string(300, 'x') + "\r\n0\r\n\r\n", w.taken());

    close(w.fds[1]);
    w.fds[1] = -1;
    s = upnp_string_append(s, "hello");
    EXPECT_EQ(1, HTTP_send_chunk(w.r.socket, s));
    EXPECT_EQ(1, HTTP_send_last_chunk(w.r.socket));
    EXPECT_EQ(1, HTTP_send_chunked_header(w.r.socket));
    upnp_string_free(s);
}

}  // namespace
