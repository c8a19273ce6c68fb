// http_client.cpp: the outgoing HTTP client. It owns the User-Agent text
// (behind a small lock of its own, since any thread may set it) and
// nothing else: every call runs on its caller's thread.
//
// Order of work: build the request head (refused rather than cut when it
// does not fit), resolve and connect with a time limit, send, then read
// into one buffer until the reply parser says the reply is complete, the
// peer closes, the time is up or the cap is passed. The reply parser works
// on the bytes alone, so tests and the fuzzer can feed it directly.
#include "http/http_client.h"

#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_string.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <strings.h>
#include <vector>

static const char HTTP_DEFAULT_USER_AGENT[] = "Velmora User-Agent DLNADOC/1.50";
static const size_t HTTP_HEAD_SIZE = 1024;
static const size_t HTTP_HOST_FIELD_MAX = 255;

static std::mutex http_user_agent_lock;
static char http_user_agent[128];
static int http_user_agent_set;

#define HTTP_TRACE(...) upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, __VA_ARGS__)

// ---- User-Agent ---------------------------------------------------------

static int http_text_is_clean(const char* text)
{
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; p++)
        if (*p < 32 || *p == 127)
            return 0;
    return 1;
}

void HTTP_set_user_agent(const char* text)
{
    if (!text || !http_text_is_clean(text))
        return;    // a CR or LF here would write headers of its own
    std::lock_guard<std::mutex> hold(http_user_agent_lock);
    snprintf(http_user_agent, sizeof http_user_agent, "%s", text);
    http_user_agent_set = 1;
}

void HTTP_get_user_agent(char* buffer, size_t size)
{
    if (!buffer || !size)
        return;
    std::lock_guard<std::mutex> hold(http_user_agent_lock);
    if (!http_user_agent_set) {
        snprintf(http_user_agent, sizeof http_user_agent, "%s", HTTP_DEFAULT_USER_AGENT);
        http_user_agent_set = 1;
    }
    snprintf(buffer, size, "%s", http_user_agent);
}

// ---- URL and request head -----------------------------------------------

// The default port of the scheme and the length of its text; 0 for others.
static int32_t http_scheme(const char* url, size_t* skip)
{
    if (strncmp(url, "http://", 7) == 0) {
        *skip = 7;
        return 80;
    }
    if (strncmp(url, "ftp://", 6) == 0) {
        *skip = 6;
        return 21;
    }
    return 0;
}

// Digits behind the colon; any number that fits 64 bits, masked to 16 bits
// as a port. A longer one gives 0, which no connection reaches.
static int32_t http_port_digits(const char* p, const char* end)
{
    size_t digits = upnp_digit_run(p, size_t(end - p));
    uint64_t value = 0;
    if (digits && !upnp_parse_u64(p, digits, &value))
        return 0;
    return int32_t(value & 0xFFFF);
}

int HTTP_url_target(const char* url, char* host_out, size_t host_size, int32_t* port_out)
{
    size_t skip = 0;
    int32_t port = url && http_text_is_clean(url) && !strchr(url, ' ') ? http_scheme(url, &skip) : 0;
    if (!port || !host_out || !host_size || !port_out)
        return 0;
    const char* start = url + skip;
    const char* end = strchr(start, '/');
    if (!end)
        end = start + strlen(start);
    if (const char* at = static_cast<const char*>(memchr(start, '@', size_t(end - start))))
        start = at + 1;
    const char* colon = static_cast<const char*>(memchr(start, ':', size_t(end - start)));
    const char* host_end = colon ? colon : end;
    size_t n = size_t(host_end - start);
    if (n == 0 || n >= host_size)
        return 0;
    memcpy(host_out, start, n);
    host_out[n] = 0;
    *port_out = colon ? http_port_digits(colon + 1, end) : port;
    return 1;
}

// The Host field is the URL behind the scheme's first 7 bytes, up to the
// first '/', at most 255 bytes: a user part and the port stay in it.
static void http_host_field(const char* url, char* out, size_t size)
{
    const char* start = strlen(url) >= 7 ? url + 7 : "";
    size_t n = strcspn(start, "/");
    n = std::min(n, std::min(HTTP_HOST_FIELD_MAX, size - 1));
    memcpy(out, start, n);
    out[n] = 0;
}

// The path behind the first '/' after the URL's 8th byte, or null.
static const char* http_path(const char* url)
{
    if (strlen(url) < 8)
        return nullptr;
    const char* slash = strchr(url + 8, '/');
    return slash ? slash + 1 : nullptr;
}

static int http_fits(int n, size_t size)
{
    return n > 0 && size_t(n) < size;
}

int HTTP_build_request(int32_t kind, const char* url, const char* soap_action, int32_t body_length, char* out,
                       size_t size)
{
    if (!url || !out || !size || !http_text_is_clean(url) || (soap_action && !http_text_is_clean(soap_action)))
        return 0;
    char host[HTTP_HOST_FIELD_MAX + 1];
    char agent[128];
    http_host_field(url, host, sizeof host);
    HTTP_get_user_agent(agent, sizeof agent);
    const char* path = http_path(url);
    if (kind == HTTP_KIND_GET) {
        char agent_line[160];
        snprintf(agent_line, sizeof agent_line, "USER-AGENT: %s\r\n", agent);
        return http_fits(snprintf(out, size,
                                  "%s /%s HTTP/1.1\r\nAccept: */*\r\nHost: %s\r\nConnection: Keep-Alive\r\n%s%s\r\n",
                                  "GET", path ? path : "", host, agent_line, ""),
                         size);
    }
    if (kind != HTTP_KIND_POST || !path || body_length < 0)
        return 0;
    return http_fits(snprintf(out, size,
                              "POST /%s HTTP/1.1\r\nAccept: */*\r\nUSER-AGENT: %s\r\nHost: %s\r\nSOAPACTION: %s\r\n"
                              "CONTENT-TYPE: %s\r\nContent-Length: %d\r\nConnection: Keep-Alive\r\n\r\n",
                              path, agent, host, soap_action ? soap_action : "", " text/xml; charset=\"utf-8\"",
                              int(body_length)),
                     size);
}

// ---- Connecting ---------------------------------------------------------

static int32_t http_connect(const char* url, int32_t connect_ms)
{
    if (!url) {
        HTTP_TRACE("HTTP_open(%d): no URL\n", __LINE__);
        return -1;
    }
    char host[256];
    int32_t port = 0;
    if (!HTTP_url_target(url, host, sizeof host, &port)) {
        HTTP_TRACE("HTTP_open(%d): URL refused\n", __LINE__);
        return -1;
    }
    char ip[UPNP_IP_TEXT_SIZE];
    if (!upnp_resolve_host(host, ip)) {
        HTTP_TRACE("HTTP_open(%d): no address for %s\n", __LINE__, host);
        return -1;
    }
    int32_t s = upnp_socket_tcp();
    if (s < 0) {
        HTTP_TRACE("HTTP_open(%d): no socket\n", __LINE__);
        return -1;
    }
    if (upnp_socket_connect_timeout(s, ip, port, connect_ms) != 0) {
        HTTP_TRACE("HTTP_open(%d): connect to %s:%d failed\n", __LINE__, ip, int(port));
        upnp_socket_close(s);
        return -1;
    }
    HTTP_TRACE("HTTP_open(%d): connected to %s:%d\n", __LINE__, ip, int(port));
    return s;
}

int32_t HTTP_open(const char* url)
{
    return http_connect(url, HTTP_CLIENT_CONNECT_MS);
}

// ---- Reply parsing ------------------------------------------------------

static const char* http_find(const char* data, size_t size, const char* needle)
{
    if (!data || !size)
        return nullptr;
    return static_cast<const char*>(memmem(data, size, needle, strlen(needle)));
}

static const char* http_find_nocase(const char* data, size_t size, const char* needle)
{
    size_t n = strlen(needle);
    for (size_t i = 0; n <= size && i <= size - n; i++)
        if (strncasecmp(data + i, needle, n) == 0)
            return data + i;
    return nullptr;
}

// The offset just behind the blank line that ends a head starting at from,
// or 0 while none has arrived.
static size_t http_head_end(const char* data, size_t size, size_t from)
{
    const char* end = http_find(data + from, size - from, "\r\n\r\n");
    return end ? size_t(end - data) + 4 : 0;
}

static int http_is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// An interim answer ("HTTP/1.1 100 Continue") comes before the real one.
static int http_is_interim(const char* head, size_t size)
{
    static const char mark[] = "HTTP/1.1 1";
    const size_t n = sizeof mark - 1;
    for (const char* p = head; (p = http_find(p, size - size_t(p - head), mark)); p++) {
        size_t at = size_t(p - head) + n;
        if (at + 2 <= size && http_is_digit(head[at]) && http_is_digit(head[at + 1]))
            return 1;
    }
    return 0;
}

static int http_is_chunked(const char* head, size_t size)
{
    const char* field = http_find_nocase(head, size, "transfer-encoding:");
    if (!field)
        return 0;
    size_t left = size - size_t(field - head);
    const char* line_end = static_cast<const char*>(memchr(field, '\n', left));
    return http_find_nocase(field, line_end ? size_t(line_end - field) : left, "chunked") != nullptr;
}

// The value of Content-Length, or 0 when it is missing or not a number; a
// number too large for 64 bits reads as the largest, which no cap admits.
static uint64_t http_content_length(const char* head, size_t size)
{
    const char* field = http_find_nocase(head, size, "content-length:");
    if (!field)
        return 0;
    const char* p = field + 15;
    const char* end = head + size;
    while (p < end && (*p == ' ' || *p == '\t'))
        p++;
    size_t digits = upnp_digit_run(p, size_t(end - p));
    uint64_t value = 0;
    if (digits == 0)
        return 0;
    return upnp_parse_u64(p, digits, &value) ? value : UINT64_MAX;
}

// A chunk size line: hexadecimal digits from its start, saturating.
static uint64_t http_chunk_size(const char* line, size_t n)
{
    uint64_t value = 0;
    for (size_t i = 0; i < n; i++) {
        int d = upnp_hex_digit(line[i]);
        if (d < 0)
            break;
        value = value > (UINT64_MAX >> 4) ? UINT64_MAX : value << 4 | uint64_t(d);
    }
    return value;
}

static void http_append(upnp_string** out, const char* data, size_t n)
{
    if (out && n && n <= size_t(INT32_MAX))
        *out = upnp_string_append_bytes(*out, data, int32_t(n));
}

// Walks the chunks from offset p; appends their bytes to *out when out is
// given. A size line ends at LF or after 20 bytes; a size of 0 or no digits
// ends the body; a peer that closes mid-way leaves what had arrived.
static int http_chunks(const char* data, size_t size, size_t p, int closed, upnp_string** out)
{
    for (;;) {
        size_t left = size - p;
        const char* lf = static_cast<const char*>(memchr(data + p, '\n', std::min<size_t>(left, 20)));
        size_t line = lf ? size_t(lf - (data + p)) + 1 : 20;
        if (!lf && left < 20)
            return closed ? HTTP_REPLY_DONE : HTTP_REPLY_MORE;
        uint64_t n = http_chunk_size(data + p, line);
        p += line;
        if (n == 0)
            return HTTP_REPLY_DONE;
        if (size - p < n) {
            if (!closed)
                return HTTP_REPLY_MORE;
            http_append(out, data + p, size - p);
            return HTTP_REPLY_DONE;
        }
        http_append(out, data + p, size_t(n));
        p += size_t(n);
        if (size - p < 2)
            return closed ? HTTP_REPLY_DONE : HTTP_REPLY_MORE;
        p += 2;
    }
}

static int http_body(const char* data, size_t size, size_t head, size_t start, int closed, upnp_string** body)
{
    const char* h = data + head;
    size_t head_size = start - head;
    size_t have = size - start;
    if (http_is_chunked(h, head_size)) {
        int state = http_chunks(data, size, start, closed, nullptr);
        if (state == HTTP_REPLY_DONE) {
            *body = upnp_string_new("", 64);
            http_chunks(data, size, start, closed, body);
        }
        return state;
    }
    if (uint64_t length = http_content_length(h, head_size)) {
        if (have < length && !closed)
            return HTTP_REPLY_MORE;
        *body = upnp_string_new("", 64);
        http_append(body, data + start, size_t(std::min<uint64_t>(have, length)));
        return HTTP_REPLY_DONE;
    }
    if (http_find_nocase(h, head_size, "connection: close\r\n")) {
        if (!closed)
            return HTTP_REPLY_MORE;
        *body = upnp_string_new("", 64);
        http_append(body, data + start, have);
    }
    return HTTP_REPLY_DONE;
}

int HTTP_reply_parse(const char* data, size_t size, int closed, upnp_string** body)
{
    if (!body)
        return HTTP_REPLY_NO_HEAD;
    *body = nullptr;
    if (!data || !size)
        return closed ? HTTP_REPLY_NO_HEAD : HTTP_REPLY_MORE;
    size_t head = 0;
    for (;;) {
        size_t end = http_head_end(data, size, head);
        if (!end)
            return closed ? HTTP_REPLY_NO_HEAD : HTTP_REPLY_MORE;
        if (!http_is_interim(data + head, end - head))
            return http_body(data, size, head, end, closed, body);
        head = end;
    }
}

// ---- The exchange -------------------------------------------------------

static int32_t http_limit(int32_t value, int32_t fallback)
{
    return value > 0 ? value : fallback;
}

static int http_send_request(int32_t s, const char* head, const char* body)
{
    if (upnp_socket_send_all(s, head, int32_t(strlen(head))) < 0)
        return 0;
    return !body || !*body || upnp_socket_send_all(s, body, int32_t(strlen(body))) >= 0;
}

// Reads until the parser is content, within reply_ms and max_reply bytes.
static upnp_string* http_receive(int32_t s, int32_t reply_ms, int32_t max_reply)
{
    using clock = std::chrono::steady_clock;
    const clock::time_point deadline = clock::now() + std::chrono::milliseconds(reply_ms);
    std::vector<char> data;
    char chunk[4096];
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
        if (left <= 0 || upnp_socket_set_recv_timeout(s, int32_t(std::max<int64_t>(left, 1))) != 0)
            break;
        size_t room = size_t(max_reply) + 1 - data.size();
        int32_t n = upnp_socket_recv(s, chunk, int32_t(std::min(room, sizeof chunk)));
        if (n < 0)
            break;
        data.insert(data.end(), chunk, chunk + n);
        if (data.size() > size_t(max_reply)) {
            upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "HTTP_talk: reply larger than %d bytes dropped\n", int(max_reply));
            return nullptr;
        }
        upnp_string* body = nullptr;
        int state = HTTP_reply_parse(data.data(), data.size(), n == 0, &body);
        if (state == HTTP_REPLY_DONE)
            return body;
        if (state == HTTP_REPLY_NO_HEAD || n == 0)
            break;
    }
    upnp_string* none = nullptr;
    if (HTTP_reply_parse(data.data(), data.size(), 1, &none) == HTTP_REPLY_NO_HEAD)
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_HTTP, "received no header in HTTP_talk!\n");
    else
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "HTTP_talk: reply cut off after %d bytes\n", int(data.size()));
    upnp_string_free(none);
    return nullptr;
}

upnp_string* HTTP_talk_limited(int32_t kind, const char* url, const char* soap_action, const char* body,
                               const HTTP_client_limits* limits)
{
    if ((kind != HTTP_KIND_POST && kind != HTTP_KIND_GET) || !url)
        return nullptr;
    size_t body_length = kind == HTTP_KIND_POST && body ? strlen(body) : 0;
    char head[HTTP_HEAD_SIZE];
    if (body_length > size_t(INT32_MAX) ||
        !HTTP_build_request(kind, url, soap_action, int32_t(body_length), head, sizeof head)) {
        HTTP_TRACE("HTTP_talk(%d): request refused\n", __LINE__);
        return nullptr;
    }
    HTTP_client_limits none = {0, 0, 0};
    const HTTP_client_limits* l = limits ? limits : &none;
    int32_t s = http_connect(url, http_limit(l->connect_ms, HTTP_CLIENT_CONNECT_MS));
    if (s < 0)
        return nullptr;
    upnp_string* reply = nullptr;
    if (http_send_request(s, head, kind == HTTP_KIND_POST ? body : nullptr))
        reply = http_receive(s, http_limit(l->reply_ms, HTTP_CLIENT_REPLY_MS),
                             http_limit(l->max_reply, HTTP_CLIENT_MAX_REPLY));
    else
        HTTP_TRACE("HTTP_talk(%d): send failed\n", __LINE__);
    upnp_socket_close(s);
    return reply;
}

upnp_string* HTTP_talk(int32_t kind, const char* url, const char* soap_action, const char* body)
{
    return HTTP_talk_limited(kind, url, soap_action, body, nullptr);
}

upnp_string* HTTP_get(const char* url)
{
    return HTTP_talk(HTTP_KIND_GET, url, nullptr, nullptr);
}
