// Reading and parsing a request: the head up to its blank line, the body
// in its three forms, URL decoding and the URL guard, and the fields the
// head parser fills. Bytes come from memory through an HTTP_source.
#include "http/http_server.h"
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

HTTP_source memory(const std::string& bytes)
{
    return HTTP_source{-1, bytes.data(), int32_t(bytes.size()), 0, 0};
}

std::string read_head(const std::string& bytes, int32_t size = HTTP_HEAD_SIZE, int32_t* at = nullptr)
{
    HTTP_source s = memory(bytes);
    std::string buffer(size_t(size), '\x7f');
    int32_t n = HTTP_source_read_header(&s, buffer.data(), size);
    if (at)
        *at = s.at;
    if (n == 0)
        return "<none>";
    EXPECT_EQ(size_t(n), strlen(buffer.c_str()));
    return std::string(buffer.c_str());
}

TEST(HttpHead, EndsAtTheBlankLineAndLeavesTheBodyUnread)
{
    int32_t at = 0;
    std::string head = "POST /x HTTP/1.1\r\nContent-Length: 4\r\n\r\n";
    EXPECT_EQ(head, read_head(head + "abcdGET / HTTP/1.1\r\n\r\n", HTTP_HEAD_SIZE, &at));
    EXPECT_EQ(int32_t(head.size()), at);
}

TEST(HttpHead, IsNothingWhenThePeerClosesBeforeTheBlankLine)
{
    EXPECT_EQ("<none>", read_head(""));
    EXPECT_EQ("<none>", read_head("GET / HTTP/1.1\r\nHost: a\r\n"));
    EXPECT_EQ("<none>", read_head("GET / HTTP/1.1\n\n"));
}

TEST(HttpHead, NeedsCrLfCrLfWithNothingBetween)
{
    // A CR straight after a CR starts the count over.
    EXPECT_EQ("<none>", read_head("GET / HTTP/1.1\r\r\n\r"));
    EXPECT_EQ("GET / HTTP/1.1\r\r\n\r\n\r\n", read_head("GET / HTTP/1.1\r\r\n\r\n\r\n"));
}

TEST(HttpHead, ATooLongHeadIsCutClosedAndItsRestDropped)
{
    std::string head = "GET /" + std::string(2000, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n";
    int32_t at = 0;
    std::string got = read_head(head + "NEXT", 64, &at);
    ASSERT_EQ(63u, got.size());
    EXPECT_EQ(head.substr(0, 59) + "\r\n\r\n", got);
    EXPECT_EQ(int32_t(head.size()), at);
}

TEST(HttpHead, ACutHeadStillEndsWhenItsBlankLineStraddlesTheCut)
{
    std::string head = std::string(61, 'a') + "\r\n\r\nNEXT";
    int32_t at = 0;
    read_head(head, 64, &at);
    EXPECT_EQ(65, at);
}

TEST(HttpHead, ATooLongHeadWithoutEndIsKeptWhenThePeerCloses)
{
    EXPECT_EQ(63u, read_head(std::string(500, 'a'), 64).size());
}

TEST(HttpHead, AHeadWhoseRestNeverEndsIsRefused)
{
    EXPECT_EQ("<none>", read_head("GET / HTTP/1.1\r\n" + std::string(HTTP_HEAD_DRAIN_MAX + 2000, 'h'), 64));
}

TEST(HttpHead, AChunkedBodyOfAGetIsDrained)
{
    std::string head = "GET /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    int32_t at = 0;
    EXPECT_EQ(head, read_head(head + "5\r\nhello\r\n0\r\n\r\nGET", HTTP_HEAD_SIZE, &at));
    // The drain ends at the "0" that follows two line feeds.
    EXPECT_EQ(int32_t(head.size() + 11), at);
    EXPECT_EQ("<none>", read_head(head + "5\r\nhel"));
}

TEST(HttpHead, ABufferTooSmallForAnyHeadIsRefused)
{
    std::string bytes = "GET / HTTP/1.1\r\n\r\n";
    HTTP_source s = memory(bytes);
    char buffer[4];
    EXPECT_EQ(0, HTTP_source_read_header(&s, buffer, sizeof buffer));
}

// ---- Bodies ---------------------------------------------------------------

struct body_result {
    std::string text;
    bool present;
    int refused;
};

body_result read_body(const std::string& head, const std::string& body, int64_t max = HTTP_BODY_MAX)
{
    HTTP_source s = memory(body);
    int refused = -1;
    upnp_string* got = HTTP_source_read_body(&s, head.c_str(), max, &refused);
    body_result r{got ? std::string(got->text, size_t(got->length)) : "", got != nullptr, refused};
    upnp_string_free(got);
    return r;
}

const std::string CHUNKED = "POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";

TEST(HttpBody, ChunkedBodiesAreJoined)
{
    body_result r = read_body(CHUNKED, "5\r\nhello\r\n1;ext=1\r\n \r\nA\r\n0123456789\r\n0\r\n\r\n");
    EXPECT_TRUE(r.present);
    EXPECT_EQ(0, r.refused);
    EXPECT_EQ("hello 0123456789", r.text);
}

TEST(HttpBody, AChunkedBodyKeepsWhatArrivedBeforeThePeerWent)
{
    EXPECT_EQ("hello wo", read_body(CHUNKED, "5\r\nhello\r\n10\r\n wo").text);
    EXPECT_EQ("hello", read_body(CHUNKED, "5\r\nhello\r\nzz\r\nmore").text);   // no size: the end
}

struct chunk_case {
    const char* why;
    std::string body;
};

TEST(HttpBody, ChunkSizesBeyondTheCapAreRefused)
{
    const chunk_case cases[] = {
        {"huge", "FFFFFFFFFFFFFFFFFFF\r\nxx"},
        {"wraps 64 bits", "10000000000000005\r\nhello"},
        {"over the cap", "101\r\n" + std::string(257, 'a') + "\r\n0\r\n\r\n"},
        {"sum over the cap", "80\r\n" + std::string(128, 'a') + "\r\n81\r\n" + std::string(129, 'b') + "\r\n0\r\n\r\n"},
    };
    for (const chunk_case& c : cases) {
        SCOPED_TRACE(c.why);
        body_result r = read_body(CHUNKED, c.body, 256);
        EXPECT_FALSE(r.present);
        EXPECT_EQ(1, r.refused);
    }
    // Leading zeros are no size of their own.
    EXPECT_EQ("hello", read_body(CHUNKED, "00000000000000005\r\nhello\r\n0\r\n\r\n", 256).text);
}

TEST(HttpBody, AContentLengthBodyIsReadToItsLengthAndNoFurther)
{
    std::string head = "POST /s HTTP/1.1\r\nContent-Length: 5\r\n\r\n";
    std::string bytes = "helloGET";
    HTTP_source s = memory(bytes);
    upnp_string* got = HTTP_source_read_body(&s, head.c_str(), HTTP_BODY_MAX, nullptr);
    ASSERT_NE(nullptr, got);
    EXPECT_STREQ("hello", got->text);
    EXPECT_EQ(5, s.at);
    upnp_string_free(got);
    EXPECT_EQ("hel", read_body(head, "hel").text);   // the peer went early
}

TEST(HttpBody, LengthsThatCannotBeServedAreRefusedBeforeAnyRead)
{
    const char* heads[] = {
        "POST / HTTP/1.1\r\nContent-Length: 257\r\n\r\n",
        "POST / HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n",
        "POST / HTTP/1.1\r\nContent-Length: 9223372036854775808\r\n\r\n",
    };
    for (const char* head : heads) {
        SCOPED_TRACE(head);
        body_result r = read_body(head, std::string(300, 'a'), 256);
        EXPECT_FALSE(r.present);
        EXPECT_EQ(1, r.refused);
    }
}

TEST(HttpBody, ANegativeOrZeroLengthMeansNoBody)
{
    EXPECT_FALSE(read_body("POST / HTTP/1.1\r\nContent-Length: -5\r\n\r\n", "abc").present);
    EXPECT_FALSE(read_body("POST / HTTP/1.1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", "abc").present);
    EXPECT_FALSE(read_body("POST / HTTP/1.1\r\n\r\n", "abc").present);
}

TEST(HttpBody, WithoutALengthAClosingConnectionCarriesTheBodyToItsEnd)
{
    std::string head = "POST / HTTP/1.0\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(std::string(3000, 'x'), read_body(head, std::string(3000, 'x')).text);
    body_result r = read_body(head, std::string(3000, 'x'), 2048);
    EXPECT_FALSE(r.present);
    EXPECT_EQ(1, r.refused);
}

// ---- Header fields ----------------------------------------------------------

struct length_case {
    const char* head;
    int64_t length;
};

TEST(HttpHead, ContentLengthIsReadOneByteBehindTheColon)
{
    const length_case cases[] = {
        {"POST / HTTP/1.1\r\nContent-Length: 42\r\n\r\n", 42},
        {"POST / HTTP/1.1\r\ncontent-LENGTH: 7\r\n\r\n", 7},
        {"POST / HTTP/1.1\r\nContent-Length: -3\r\n\r\n", 0},
        {"POST / HTTP/1.1\r\nContent-Length: x\r\n\r\n", 0},
        {"POST / HTTP/1.1\r\n\r\n", 0},
        {"Content-Length:", 0},
        {"POST / HTTP/1.1\r\nContent-Length: 9223372036854775807\r\n\r\n", INT64_MAX},
        {"POST / HTTP/1.1\r\nContent-Length: 9223372036854775808\r\n\r\n", -1},
        {"POST / HTTP/1.1\r\nContent-Length: 18446744073709551616\r\n\r\n", -1},
        {"POST / HTTP/1.1\r\nContent-Length:123\r\n\r\n", 23},   // one byte is always skipped
    };
    for (const length_case& c : cases) {
        SCOPED_TRACE(c.head);
        EXPECT_EQ(c.length, HTTP_content_length(c.head));
    }
}

TEST(HttpHead, ChunkedIsFoundAnywhereIgnoringCase)
{
    EXPECT_TRUE(HTTP_is_chunked("POST / HTTP/1.1\r\nTransfer-Encoding: CHUNKED\r\n\r\n"));
    EXPECT_FALSE(HTTP_is_chunked("POST / HTTP/1.1\r\nTransfer-Encoding: chunked-ish\r\n\r\n"));
}

// ---- URLs -------------------------------------------------------------------

struct decode_case {
    const char* in;
    std::string out;
};

TEST(HttpUrl, DecodesPercentPairsAndPlusSigns)
{
    const decode_case cases[] = {
        {"/a%20b+c", "/a b c"}, {"/%41%4a%4A", "/AJJ"}, {"/100%", "/100%"},   {"/%4", "/%4"},
        {"/%zz", "/%zz"},       {"/%00x", std::string("/\0x", 3)},           {"/%0d%0a", "/\r\n"},
    };
    for (const decode_case& c : cases) {
        SCOPED_TRACE(c.in);
        char text[64];
        snprintf(text, sizeof text, "%s", c.in);
        int32_t n = HTTP_url_decode(text);
        EXPECT_EQ(c.out, std::string(text, size_t(n)));
    }
}

struct safe_case {
    const char* url;
    int safe;
};

TEST(HttpUrl, RefusesControlBytesAndDotDotSegmentsAfterDecoding)
{
    const safe_case cases[] = {
        {"/disk/music/O12$3.mp3", 1},
        {"/disk/DLNA-PNMP3-OP01-FLAGS01700000/music/O1.mp3", 1},
        {"/music//O5.m4a", 1},
        {"/a/..b/c..", 1},
        {"/a/.../b", 1},
        {"/Hello... World.mp3", 1},
        {"/images/../../etc/passwd", 0},
        {"/images/%2e%2e/x", 0},
        {"/images/%2E%2E%2Fx", 0},
        {"/images/..", 0},
        {"..", 0},
        {"/images/..%5cx", 0},
        {"/images\\..\\x", 0},
        {"/a%0d%0aSet-Cookie:%20x", 0},
        {"/a%09b", 0},
        {"/a%00.jpg", 0},
    };
    for (const safe_case& c : cases) {
        SCOPED_TRACE(c.url);
        char text[256];
        snprintf(text, sizeof text, "%s", c.url);
        int32_t n = HTTP_url_decode(text);
        EXPECT_EQ(c.safe, HTTP_url_is_safe(text, n));
    }
}

// ---- The head parser ----------------------------------------------------------

struct parsed {
    int safe;
    HTTP_request r;
};

parsed parse(const std::string& head)
{
    parsed p{};
    snprintf(p.r.head, sizeof p.r.head, "%s", head.c_str());
    p.safe = HTTP_parse_request_head(&p.r);
    return p;
}

struct method_case {
    const char* head;
    int32_t method;
};

TEST(HttpParse, MethodsAreReadByPrefixInTheirOrder)
{
    const method_case cases[] = {
        {"GET / HTTP/1.1\r\n\r\n", HTTP_METHOD_GET},
        {"HEAD / HTTP/1.1\r\n\r\n", HTTP_METHOD_HEAD},
        {"POST / HTTP/1.1\r\n\r\n", HTTP_METHOD_POST},
        {"SUBSCRIBE / HTTP/1.1\r\n\r\n", HTTP_METHOD_SUBSCRIBE},
        {"UNSUBSCRIBE / HTTP/1.1\r\n\r\n", HTTP_METHOD_UNSUBSCRIBE},
        {"NOTIFY / HTTP/1.1\r\n\r\n", HTTP_METHOD_NOTIFY},
        {"GETX / HTTP/1.1\r\n\r\n", HTTP_METHOD_GET},
        {"OPTIONS /disk HTTP/1.1\r\n\r\n", 0},
        {"get / HTTP/1.1\r\n\r\n", 0},
        {"\r\n\r\n", 0},
    };
    for (const method_case& c : cases) {
        SCOPED_TRACE(c.head);
        EXPECT_EQ(c.method, parse(c.head).r.method);
    }
}

struct url_case {
    const char* head;
    const char* url;
    int32_t version;
};

TEST(HttpParse, TheTargetIsDecodedRewrittenAndItsVersionRead)
{
    HTTP_set_default_page("/configpage");
    const url_case cases[] = {
        {"GET /a%20b HTTP/1.1\r\n\r\n", "/a b", 11},
        {"GET /a HTTP/1.0\r\n\r\n", "/a", 10},
        {"GET /a\r\nHost: x\r\n\r\n", "/a", 10},
        {"GET /a  HTTP/1.1\r\n\r\n", "/a", 10},
        {"GET http://192.168.1.2:9000/disk/x?y=1 HTTP/1.1\r\n\r\n", "/disk/x?y=1", 11},
        {"GET http://host HTTP/1.1\r\n\r\n", "/configpage", 11},
        {"GET / HTTP/1.1\r\n\r\n", "/configpage", 11},
        {"GET  HTTP/1.1\r\n\r\n", "/configpage", 11},
        {"POST / HTTP/1.1\r\n\r\n", "/ContentDirectory/Control", 11},
        {"GET /favicon.ico HTTP/1.1\r\n\r\n", "/images/favicon.ico", 11},
        {"GET /favicon.icox HTTP/1.1\r\n\r\n", "/favicon.icox", 11},
        {"GARBAGE\r\n\r\n", "/configpage", 10},
    };
    for (const url_case& c : cases) {
        SCOPED_TRACE(c.head);
        parsed p = parse(c.head);
        EXPECT_EQ(1, p.safe);
        EXPECT_STREQ(c.url, p.r.url);
        EXPECT_EQ(c.version, p.r.version);
    }
}

TEST(HttpParse, ATargetAsLongAsTheHeadAllowsIsKeptWhole)
{
    std::string target = "/" + std::string(HTTP_HEAD_SIZE - 6, 'a');
    parsed p = parse("GET " + target + " HTTP/1.1\r\n\r\n");
    EXPECT_EQ(target, p.r.url);
    EXPECT_EQ(10, p.r.version);    // the version fell behind the cut
}

TEST(HttpParse, UnsafeTargetsAreReported)
{
    EXPECT_EQ(0, parse("GET /images/%2e%2e/%2e%2e/etc/passwd HTTP/1.1\r\n\r\n").safe);
    EXPECT_EQ(0, parse("GET /a%0d%0aX:%20y HTTP/1.1\r\n\r\n").safe);
    EXPECT_EQ(0, parse("GET /a%00 HTTP/1.1\r\n\r\n").safe);
}

struct close_case {
    const char* head;
    int close;
    int dlna;
};

TEST(HttpParse, PersistenceFollowsVersionConnectionAndDlna)
{
    const close_case cases[] = {
        {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", 0, 0},
        {"GET / HTTP/1.0\r\n\r\n", 1, 0},
        {"GET / HTTP/1.1\r\nConnection: close\r\n\r\n", 1, 0},
        {"GET / HTTP/1.1\r\nconnection: CLOSE\r\n\r\n", 1, 0},
        {"GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n", 0, 0},
        {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", 0, 0},
        {"GET / HTTP/1.0\r\nUser-Agent: X DLNADOC/1.50\r\nConnection: Keep-Alive\r\n\r\n", 1, 15},
        {"GET / HTTP/1.1\r\nUser-Agent: X DLNADOC/1.00\r\n\r\n", 0, 10},
        {"GET / HTTP/1.1\r\nX: DLNADOC/1.50 DLNADOC/1.00\r\n\r\n", 0, 10},
    };
    for (const close_case& c : cases) {
        SCOPED_TRACE(c.head);
        parsed p = parse(c.head);
        EXPECT_EQ(c.close, p.r.close);
        EXPECT_EQ(c.dlna, p.r.dlna_version);
    }
}

}  // namespace
