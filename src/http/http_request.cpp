// http_request.cpp: reading a request off the wire. It owns no state: a
// head and a body are read through an HTTP_source (a socket with a
// deadline, or bytes in memory for tests and fuzzing), and the head is
// parsed into the request record by substring searches over the whole head.
//
// The server must never read past the head of a request whose body it
// leaves on the socket, so bytes are peeked, scanned, and only those up to
// the end of the head are taken. Every count from the wire is checked
// before it sizes a read or an allocation.
#include "http/http_server.h"

#include "config/upnp_client.h"

#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <string_view>

enum { HTTP_SCAN_CHUNK = 2048, HTTP_CHUNK_LINE = 20, HTTP_HEX_DIGITS_MAX = 15 };

int32_t HTTP_recv_bytes(int32_t socket, void* buffer, int32_t length, int32_t flags)
{
    if (flags & HTTP_RECV_PEEK)
        return upnp_socket_peek(socket, buffer, length);
    return upnp_socket_recv(socket, buffer, length);
}

// Up to n bytes of the source: 0 at its end, -1 on an error or a passed
// deadline. A peek leaves them for the next read.
static int32_t http_source_recv(HTTP_source* source, char* buffer, int32_t n, int peek)
{
    if (source->data) {
        int32_t left = source->size - source->at;
        if (n > left)
            n = left;
        memcpy(buffer, source->data + source->at, size_t(n));
        if (!peek)
            source->at += n;
        return n;
    }
    if (source->deadline_ms > 0) {
        int64_t left = source->deadline_ms - upnp_clock_ms();
        if (left <= 0) {
            errno = EAGAIN;
            return -1;
        }
        upnp_socket_set_recv_timeout(source->socket, int32_t(left > INT32_MAX ? INT32_MAX : left));
    }
    return HTTP_recv_bytes(source->socket, buffer, n, peek ? HTTP_RECV_PEEK : 0);
}

// Takes bytes one scan at a time and hands each to stop(), which answers
// true at the last byte to take; nothing behind that byte leaves the
// source. 1 when stop() said so, 0 at the end or on an error, -1 when max
// bytes went by first.
template <typename Stop>
static int http_source_take_until(HTTP_source* source, Stop stop, int64_t max)
{
    char chunk[HTTP_SCAN_CHUNK];
    int64_t taken = 0;
    while (taken < max) {
        int32_t want = int32_t(max - taken < int64_t(HTTP_SCAN_CHUNK) ? max - taken : int64_t(HTTP_SCAN_CHUNK));
        int32_t n = http_source_recv(source, chunk, want, 1);
        if (n <= 0)
            return 0;
        int32_t use = 0;
        bool found = false;
        while (use < n && !found)
            found = stop(chunk[use++]);
        if (http_source_recv(source, chunk, use, 0) != use)
            return 0;
        taken += use;
        if (found)
            return 1;
    }
    return -1;
}

// Exactly n bytes into buffer, or as many as came before the end: the count.
static int32_t http_source_take(HTTP_source* source, char* buffer, int32_t n)
{
    int32_t got = 0;
    while (got < n) {
        int32_t r = http_source_recv(source, buffer + got, n - got, 0);
        if (r <= 0)
            break;
        got += r;
    }
    return got;
}

// The blank line that ends a head: CR and LF in turn, any other byte
// starts over.
static int http_head_state(int state, char c)
{
    if (c == '\r' && (state == 0 || state == 2))
        return state + 1;
    if (c == '\n' && (state == 1 || state == 3))
        return state + 1;
    return 0;
}

// The rest of a head that did not fit, up to its blank line. The window
// starts with the head's own last bytes, so that a blank line split at the
// cut is still seen. 0 when the head goes on beyond any sane length.
static int http_drain_head(HTTP_source* source, const char* last4)
{
    uint32_t window = 0;
    for (int i = 0; i < 4; i++)
        window = window << 8 | uint8_t(last4[i]);
    if (window == 0x0D0A0D0A)
        return 1;
    auto stop = [&window](char c) {
        window = window << 8 | uint8_t(c);
        return window == 0x0D0A0D0A;
    };
    return http_source_take_until(source, stop, HTTP_HEAD_DRAIN_MAX) >= 0;
}

// A GET with a chunked body: the body is dropped until a "0" has been seen
// behind at least two line feeds.
static int http_drain_get_body(HTTP_source* source)
{
    int lines = 0, zero = 0;
    auto stop = [&](char c) {
        lines += c == '\n';
        zero |= c == '0';
        return zero && lines > 1;
    };
    return http_source_take_until(source, stop, HTTP_BODY_MAX) == 1;
}

int32_t HTTP_source_read_header(HTTP_source* source, char* buffer, int32_t size)
{
    if (!source || !buffer || size < 5)
        return 0;
    int32_t length = 0;
    int state = 0;
    auto stop = [&](char c) {
        buffer[length++] = c;
        state = http_head_state(state, c);
        return state == 4 || length == size - 1;
    };
    if (http_source_take_until(source, stop, size - 1) != 1)
        return 0;
    if (state != 4) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_HTTP, "header buffer too small!\n");
        char last4[4];
        memcpy(last4, buffer + length - 4, 4);
        memcpy(buffer + length - 4, "\r\n\r\n", 4);
        if (!http_drain_head(source, last4))
            return 0;
    }
    buffer[length] = 0;
    if (strncmp(buffer, "GET", 3) == 0 && HTTP_is_chunked(buffer) && !http_drain_get_body(source))
        return 0;
    return length;
}

int32_t HTTP_read_header(int32_t socket, char* buffer, int32_t size)
{
    HTTP_source source = {socket, nullptr, 0, 0, 0};
    return HTTP_source_read_header(&source, buffer, size);
}

int HTTP_is_chunked(const char* head)
{
    return upnp_stristr(head, "chunked\r\n") != nullptr;
}

// The digits of a decimal field: its value, or -1 when it does not fit.
static int64_t http_digits_value(const char* p)
{
    size_t n = upnp_digit_run(p, SIZE_MAX);
    uint64_t v = 0;
    if (n == 0)
        return 0;
    if (!upnp_parse_u64(p, n, &v) || v > uint64_t(INT64_MAX))
        return -1;
    return int64_t(v);
}

// The value stands one byte behind the colon, the blank that clients put.
int64_t HTTP_content_length(const char* head)
{
    const char* at = upnp_stristr(head, "content-length:");
    if (!at || !at[15])
        return 0;
    const char* p = at + 16;
    while (*p == ' ' || *p == '\t')
        p++;
    if (*p == '-')
        return 0;
    return http_digits_value(p);
}

// ---- Bodies ---------------------------------------------------------------

// One chunk size line, up to its LF or 20 bytes: the size, 0 for the last
// chunk or an unreadable line, -1 for a size no chunk may have.
static int64_t http_chunk_size(HTTP_source* source, int64_t room)
{
    char line[HTTP_CHUNK_LINE + 1] = {};
    int32_t length = 0;
    auto stop = [&](char c) {
        line[length++] = c;
        return c == '\n' || length == HTTP_CHUNK_LINE;
    };
    if (http_source_take_until(source, stop, HTTP_CHUNK_LINE) != 1)
        return 0;
    int digits = 0;
    while (upnp_hex_digit(uint8_t(line[digits])) >= 0)
        digits++;
    int leading = 0;
    while (leading < digits && line[leading] == '0')
        leading++;
    if (digits - leading > HTTP_HEX_DIGITS_MAX)
        return -1;
    int64_t size = upnp_hex_to_i64(line, digits);
    return size > room ? -1 : size;
}

// Up to n bytes of the body appended to s; the count that arrived.
static int64_t http_body_append(HTTP_source* source, upnp_string* s, int64_t n)
{
    char piece[16 * 1024];
    int64_t got = 0;
    while (got < n) {
        int32_t want = int32_t(n - got < int64_t(sizeof piece) ? n - got : int64_t(sizeof piece));
        int32_t r = http_source_take(source, piece, want);
        if (r > 0)
            upnp_string_append_bytes(s, piece, r);
        got += r;
        if (r < want)
            break;
    }
    return got;
}

static upnp_string* http_read_chunked(HTTP_source* source, int64_t max, int* refused)
{
    upnp_string* s = upnp_string_new(nullptr, 256);
    if (!s)
        return nullptr;
    for (;;) {
        int64_t size = http_chunk_size(source, max - s->length);
        if (size < 0) {
            *refused = 1;
            upnp_string_free(s);
            return nullptr;
        }
        if (size == 0)
            break;
        if (http_body_append(source, s, size) < size)
            break;
        char end[2];
        if (http_source_take(source, end, 2) != 2)
            break;
    }
    return s;
}

static upnp_string* http_read_length(HTTP_source* source, int64_t length)
{
    upnp_string* s = upnp_string_new(nullptr, int32_t(length + 1));
    if (s)
        http_body_append(source, s, length);
    return s;
}

// A body that ends with the connection.
static upnp_string* http_read_to_close(HTTP_source* source, int64_t max, int* refused)
{
    upnp_string* s = upnp_string_new(nullptr, 1024);
    char piece[1023];
    int32_t r;
    while (s && (r = http_source_recv(source, piece, sizeof piece, 0)) > 0) {
        if (s->length + int64_t(r) > max) {
            *refused = 1;
            upnp_string_free(s);
            return nullptr;
        }
        upnp_string_append_bytes(s, piece, r);
    }
    return s;
}

upnp_string* HTTP_source_read_body(HTTP_source* source, const char* head, int64_t max, int* refused)
{
    int dummy = 0;
    if (!refused)
        refused = &dummy;
    *refused = 0;
    if (!source || !head)
        return nullptr;
    if (max > INT32_MAX - 1)
        max = INT32_MAX - 1;
    if (HTTP_is_chunked(head))
        return http_read_chunked(source, max, refused);
    int64_t length = HTTP_content_length(head);
    if (length < 0 || length > max) {
        *refused = 1;
        return nullptr;
    }
    if (length > 0)
        return http_read_length(source, length);
    // With a Content-Length of 0 the body is known to be empty; waiting for
    // the close would only stall the client.
    if (upnp_stristr(head, "connection: close\r\n") && !upnp_stristr(head, "content-length:"))
        return http_read_to_close(source, max, refused);
    return nullptr;
}

upnp_string* HTTP_read_body(int32_t socket, const char* head)
{
    HTTP_source source = {socket, nullptr, 0, 0, 0};
    HTTP_limits limits;
    HTTP_get_limits(&limits);
    return HTTP_source_read_body(&source, head, limits.body_max, nullptr);
}

// ---- The head -------------------------------------------------------------

int32_t HTTP_url_decode(char* text)
{
    if (!text)
        return 0;
    char* out = text;
    for (const char* p = text; *p; p++) {
        int hi, lo;
        if (*p == '%' && (hi = upnp_hex_digit(uint8_t(p[1]))) >= 0 && (lo = upnp_hex_digit(uint8_t(p[2]))) >= 0) {
            *out++ = char(hi << 4 | lo);
            p += 2;
        } else {
            *out++ = *p == '+' ? ' ' : *p;
        }
    }
    *out = 0;
    return int32_t(out - text);
}

static bool http_is_separator(char c)
{
    return c == '/' || c == '\\';
}

int HTTP_url_is_safe(const char* url, int32_t length)
{
    if (!url || length < 0 || size_t(length) != strlen(url))
        return 0;
    for (int32_t i = 0; i < length; i++) {
        if (uint8_t(url[i]) < 0x20)
            return 0;
        bool starts = i == 0 || http_is_separator(url[i - 1]);
        bool ends = i + 2 == length || (i + 2 < length && http_is_separator(url[i + 2]));
        if (starts && url[i] == '.' && i + 1 < length && url[i + 1] == '.' && ends)
            return 0;
    }
    return 1;
}

struct http_method_word {
    std::string_view word;
    int32_t method;
};

// Compared as prefixes, in this order, as clients have always been read.
static constexpr http_method_word http_methods[] = {
    {"GET", HTTP_METHOD_GET},           {"HEAD", HTTP_METHOD_HEAD},
    {"POST", HTTP_METHOD_POST},         {"SUBSCRIBE", HTTP_METHOD_SUBSCRIBE},
    {"UNSUBSCRIBE", HTTP_METHOD_UNSUBSCRIBE}, {"NOTIFY", HTTP_METHOD_NOTIFY},
};

static int32_t http_parse_method(const char* head)
{
    for (const http_method_word& m : http_methods)
        if (strncmp(head, m.word.data(), m.word.size()) == 0)
            return m.method;
    return 0;
}

// The request target: behind the first blank, up to the next blank or
// line end. Returns where the target really ends, cut or not.
static const char* http_copy_target(const char* head, char* url)
{
    const char* p = strchr(head, ' ');
    url[0] = 0;
    if (!p)
        return nullptr;
    p++;
    const char* end = p;
    while (uint8_t(*end) > ' ')
        end++;
    size_t n = size_t(end - p) < HTTP_URL_SIZE - 1 ? size_t(end - p) : HTTP_URL_SIZE - 1;
    memcpy(url, p, n);
    url[n] = 0;
    // Absolute form, as proxies and some players send it.
    if (strncmp(url, "http://", 7) == 0) {
        char* path = strchr(url + 7, '/');
        if (path)
            memmove(url, path, strlen(path) + 1);
        else
            url[0] = 0;
    }
    return end;
}

static void http_rewrite_url(HTTP_request* r)
{
    if (r->url[0] == 0 || strcmp(r->url, "/") == 0) {
        const char* page = r->method == HTTP_METHOD_POST ? "/ContentDirectory/Control" : HTTP_get_default_page();
        snprintf(r->url, sizeof r->url, "%s", page);
    } else if (strcmp(r->url, "/favicon.ico") == 0) {
        snprintf(r->url, sizeof r->url, "%s", "/images/favicon.ico");
    }
}

static uint8_t http_parse_close(const char* head, int32_t version, uint8_t dlna)
{
    uint8_t close = version == 10;
    if (const char* at = upnp_stristr(head, "\nConnection:")) {
        if (const char* blank = strchr(at + 12, ' ')) {
            if (strncasecmp(blank, " close", 6) == 0)
                close = 1;
            else if (strncasecmp(blank, " Keep-Alive", 11) == 0)
                close = 0;
        }
    }
    // DLNA clients that speak HTTP/1.0 cannot be trusted to keep a
    // connection, whatever they announce.
    if (dlna && version == 10)
        close = 1;
    return close;
}

int HTTP_parse_request_head(HTTP_request* r)
{
    const char* head = r->head;
    r->method = http_parse_method(head);
    const char* end = http_copy_target(head, r->url);
    r->version = end && *end == ' ' && strncmp(end + 1, "HTTP/1.1", 8) == 0 ? 11 : 10;
    int32_t length = HTTP_url_decode(r->url);
    int safe = HTTP_url_is_safe(r->url, length);
    http_rewrite_url(r);
    if (strstr(head, "DLNADOC/1.00"))
        r->dlna_version = 10;
    else if (strstr(head, "DLNADOC/1.50"))
        r->dlna_version = 15;
    else
        r->dlna_version = 0;
    r->close = http_parse_close(head, r->version, r->dlna_version);
    return safe;
}

int HTTP_request_has_flag(const HTTP_request* request, const char* flag)
{
    return request ? upnp_client_has_flag(request->client_id, flag) : 0;
}
