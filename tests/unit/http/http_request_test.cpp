// Reading and parsing a request from memory through an HTTP_source.
#include "http/http_server.h"
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

namespace {

HTTP_source memory(const std::string& bytes) { return HTTP_source{-1, bytes.data(), int32_t(bytes.size()), 0, 0}; }

// head: "<none>" when refused, "" when only the position counts; at: where
// reading stopped, -1 when it does not matter.
TEST(HttpHead, IsReadToItsBlankLineWithinItsBuffer)
{
    const std::string post = "POST /x HTTP/1.1\r\nContent-Length: 4\r\n\r\n";
    const std::string get = "GET /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string long_head = "GET /" + std::string(2000, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n";
    const struct { const char* why; std::string bytes; int32_t size; std::string head; int32_t at; } cases[] = {
        {"body left unread", post + "abcdGET / HTTP/1.1\r\n\r\n", HTTP_HEAD_SIZE, post, int32_t(post.size())},
        {"peer gone at once", "", HTTP_HEAD_SIZE, "<none>", -1},
        {"peer gone before the blank line", "GET / HTTP/1.1\r\nHost: a\r\n", HTTP_HEAD_SIZE, "<none>", -1},
        {"bare line feeds", "GET / HTTP/1.1\n\n", HTTP_HEAD_SIZE, "<none>", -1},
        {"too long: cut, closed, rest dropped", long_head + "NEXT", 64, long_head.substr(0, 59) + "\r\n\r\n",
         int32_t(long_head.size())},
        {"blank line straddles the cut", std::string(61, 'a') + "\r\n\r\nNEXT", 64, "", 65},
        {"too long and never ended", std::string(500, 'a'), 64, std::string(59, 'a') + "\r\n\r\n", -1},
        {"rest never ends", "GET / HTTP/1.1\r\n" + std::string(HTTP_HEAD_DRAIN_MAX + 2000, 'h'), 64, "<none>", -1},
        // A chunked body of a GET is drained; the drain ends at the "0"
        // that follows two line feeds.
        {"chunked GET drained", get + "5\r\nhello\r\n0\r\n\r\nGET", HTTP_HEAD_SIZE, get, int32_t(get.size() + 11)},
        {"chunked GET cut", get + "5\r\nhel", HTTP_HEAD_SIZE, "<none>", -1},
        {"buffer too small for any head", "GET / HTTP/1.1\r\n\r\n", 4, "<none>", -1},
    };
    for (const auto& c : cases) {
        HTTP_source s = memory(c.bytes);
        std::string buffer(size_t(c.size), '\x7f');
        int32_t n = HTTP_source_read_header(&s, buffer.data(), c.size);
        std::string got = n ? std::string(buffer.c_str()) : "<none>";
        EXPECT_EQ(std::make_tuple(c.head.empty() ? got : c.head, n ? n : int32_t(got.size()), c.at < 0 ? s.at : c.at),
                  std::make_tuple(got, int32_t(got.size()), s.at)) << c.why;
    }
}

// text: nullptr when there is no body; refused and at: -1 when it does not matter.
struct body_case { const char* why; std::string head, bytes; int64_t max; const char* text; int refused; int32_t at; };

TEST(HttpBody, IsFramedByLengthChunksOrCloseWithinItsCap)
{
    const std::string chunked = "POST /c HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string five = "POST /s HTTP/1.1\r\nContent-Length: 5\r\n\r\n";
    const std::string closing = "POST / HTTP/1.0\r\nConnection: close\r\n\r\n";
    const std::string L = "POST / HTTP/1.1\r\nContent-Length: ", x3000(3000, 'x'), a300(300, 'a');
    const int64_t MAX = HTTP_BODY_MAX;
    const body_case cases[] = {
        {"chunks joined", chunked, "5\r\nhello\r\n1;ext=1\r\n \r\nA\r\n0123456789\r\n0\r\n\r\n", MAX,
         "hello 0123456789", 0, -1},
        {"chunks until the peer went", chunked, "5\r\nhello\r\n10\r\n wo", MAX, "hello wo", -1, -1},
        {"chunk size wraps 64 bits", chunked, "10000000000000005\r\nhello", 256, nullptr, 1, -1},
        {"chunk over the cap", chunked, "101\r\n" + std::string(257, 'a') + "\r\n0\r\n\r\n", 256, nullptr, 1, -1},
        {"chunks summed over the cap", chunked,
         "80\r\n" + std::string(128, 'a') + "\r\n81\r\n" + std::string(129, 'b') + "\r\n0\r\n\r\n", 256, nullptr, 1,
         -1},
        {"leading zeros are no size of their own", chunked, "00000000000000005\r\nhello\r\n0\r\n\r\n", 256, "hello", -1,
         -1},
        {"length, no further", five, "helloGET", MAX, "hello", -1, 5},
        {"length, the peer went early", five, "hel", MAX, "hel", -1, -1},
        {"length over the cap", L + "257\r\n\r\n", a300, 256, nullptr, 1, -1},
        {"length just past 63 bits", L + "9223372036854775808\r\n\r\n", a300, 256, nullptr, 1, -1},
        {"zero length", L + "0\r\nConnection: close\r\n\r\n", "abc", MAX, nullptr, -1, -1},
        {"no length, kept open", "POST / HTTP/1.1\r\n\r\n", "abc", MAX, nullptr, -1, -1},
        {"no length, closing", closing, x3000, MAX, x3000.c_str(), -1, -1},
        {"no length, closing, over the cap", closing, x3000, 2048, nullptr, 1, -1},
    };
    for (const body_case& c : cases) {
        HTTP_source s = memory(c.bytes);
        int refused = -1;
        upnp_string* got = HTTP_source_read_body(&s, c.head.c_str(), c.max, &refused);
        EXPECT_EQ(std::make_tuple(std::string(c.text ? c.text : "<null>"), c.refused < 0 ? refused : c.refused,
                                  c.at < 0 ? s.at : c.at),
                  std::make_tuple(got ? std::string(got->text, size_t(got->length)) : "<null>", refused, s.at))
            << c.why;
        upnp_string_free(got);
    }
}

TEST(HttpHead, ContentLengthIsReadOneByteBehindTheColonAndChunkedAnywhere)
{
    const std::string P = "POST / HTTP/1.1\r\n", L = P + "Content-Length: ";
    const struct { std::string head; int64_t length; } cases[] = {
        {L + "42\r\n\r\n", 42}, {P + "content-LENGTH: 7\r\n\r\n", 7}, {L + "-3\r\n\r\n", 0}, {L + "x\r\n\r\n", 0},
        {P + "\r\n", 0}, {"Content-Length:", 0}, {L + "9223372036854775807\r\n\r\n", INT64_MAX},
        {L + "9223372036854775808\r\n\r\n", -1}, {L + "18446744073709551616\r\n\r\n", -1},
        {P + "Content-Length:123\r\n\r\n", 23},   // one byte is always skipped
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.length, HTTP_content_length(c.head.c_str())) << c.head;
    EXPECT_TRUE(HTTP_is_chunked("POST / HTTP/1.1\r\nTransfer-Encoding: CHUNKED\r\n\r\n"));
    EXPECT_FALSE(HTTP_is_chunked("POST / HTTP/1.1\r\nTransfer-Encoding: chunked-ish\r\n\r\n"));
}

struct url_text_case { const char* in; std::string decoded; int safe; };   // decoded "": only safety asked

TEST(HttpUrl, DecodesPairsAndPlusSignsAndRefusesControlBytesAndDotDotSegments)
{
    const url_text_case cases[] = {
        {"/a%20b+c", "/a b c", 1}, {"/%41%4a%4A", "/AJJ", 1}, {"/100%", "/100%", 1}, {"/%4", "/%4", 1},
        {"/%zz", "/%zz", 1}, {"/%00x", std::string("/\0x", 3), 0}, {"/%0d%0a", "/\r\n", 0},
        {"/disk/music/O12$3.mp3", "", 1}, {"/music//O5.m4a", "", 1}, {"/a/..b/c..", "", 1}, {"/a/.../b", "", 1},
        {"/images/../../etc/passwd", "", 0}, {"/images/%2e%2e/x", "", 0}, {"/images/%2E%2E%2Fx", "", 0},
        {"/images/..", "", 0}, {"/images/..%5cx", "", 0}, {"/a%09b", "", 0},
    };
    for (const url_text_case& c : cases) {
        char text[256];
        snprintf(text, sizeof text, "%s", c.in);
        int32_t n = HTTP_url_decode(text);
        std::string decoded(text, size_t(n));
        EXPECT_EQ(std::make_pair(c.decoded.empty() ? decoded : c.decoded, c.safe),
                  std::make_pair(decoded, HTTP_url_is_safe(text, n))) << c.in;
    }
}

struct parsed { int safe; HTTP_request r; };

parsed parse(const std::string& head)
{
    parsed p{};
    snprintf(p.r.head, sizeof p.r.head, "%s", head.c_str());
    p.safe = HTTP_parse_request_head(&p.r);
    return p;
}

TEST(HttpParse, MethodsAreReadByPrefixInTheirOrder)
{
    const struct { const char* head; int32_t method; } cases[] = {
        {"HEAD / HTTP/1.1\r\n\r\n", HTTP_METHOD_HEAD}, {"UNSUBSCRIBE / HTTP/1.1\r\n\r\n", HTTP_METHOD_UNSUBSCRIBE},
        {"GETX / HTTP/1.1\r\n\r\n", HTTP_METHOD_GET}, {"OPTIONS /disk HTTP/1.1\r\n\r\n", 0},
        {"get / HTTP/1.1\r\n\r\n", 0}, {"\r\n\r\n", 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.method, parse(c.head).r.method) << c.head;
}

struct target_case { std::string head, url; int32_t version; };   // url "" when the target is unsafe

TEST(HttpParse, TheTargetIsDecodedRewrittenCheckedAndItsVersionRead)
{
    HTTP_set_default_page("/configpage");
    const std::string longest = "/" + std::string(HTTP_HEAD_SIZE - 6, 'a');
    const target_case cases[] = {
        {"GET /a%20b HTTP/1.1\r\n\r\n", "/a b", 11}, {"GET /a HTTP/1.0\r\n\r\n", "/a", 10},
        {"GET /a\r\nHost: x\r\n\r\n", "/a", 10}, {"GET /a  HTTP/1.1\r\n\r\n", "/a", 10},
        {"GET http://192.168.1.2:9000/disk/x?y=1 HTTP/1.1\r\n\r\n", "/disk/x?y=1", 11},
        {"GET http://host HTTP/1.1\r\n\r\n", "/configpage", 11}, {"GET / HTTP/1.1\r\n\r\n", "/configpage", 11},
        {"GET  HTTP/1.1\r\n\r\n", "/configpage", 11}, {"POST / HTTP/1.1\r\n\r\n", "/ContentDirectory/Control", 11},
        {"GET /favicon.ico HTTP/1.1\r\n\r\n", "/images/favicon.ico", 11},
        {"GET /favicon.icox HTTP/1.1\r\n\r\n", "/favicon.icox", 11}, {"GARBAGE\r\n\r\n", "/configpage", 10},
        {"GET " + longest + " HTTP/1.1\r\n\r\n", longest, 10},    // kept whole; the version fell behind the cut
        {"GET /images/%2e%2e/%2e%2e/etc/passwd HTTP/1.1\r\n\r\n", "", 11},
    };
    for (const target_case& c : cases) {
        parsed p = parse(c.head);
        EXPECT_EQ(std::make_tuple(!c.url.empty(), c.url.empty() ? p.r.url : c.url, c.version),
                  std::make_tuple(p.safe != 0, std::string(p.r.url), p.r.version)) << c.head;
    }
}

TEST(HttpParse, PersistenceFollowsVersionConnectionAndDlna)
{
    const struct { const char* head; int close; int dlna; } cases[] = {   // the usual forms are talked over sockets
        {"GET / HTTP/1.1\r\nconnection: CLOSE\r\n\r\n", 1, 0},
        {"GET / HTTP/1.1\r\nUser-Agent: X DLNADOC/1.00\r\n\r\n", 0, 10},
        {"GET / HTTP/1.1\r\nX: DLNADOC/1.50 DLNADOC/1.00\r\n\r\n", 0, 10},
    };
    for (const auto& c : cases) {
        parsed p = parse(c.head);
        EXPECT_EQ(std::make_pair(c.close, c.dlna), std::make_pair(int(p.r.close), int(p.r.dlna_version))) << c.head;
    }
}

}  // namespace
