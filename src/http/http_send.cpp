// http_send.cpp: everything the server writes. HTTP_send_header is the one
// place where a response head is assembled, and the one place where the
// DLNA preconditions of a request are enforced for every kind of resource;
// the other senders (status, reply from memory, error pages, chunked XML)
// go through it. No state, no lock: a request belongs to its thread.
//
// The head goes out in a fixed buffer of 1024 bytes; a head that does not
// fit is not sent at all. A small body is sent together with its head, so
// that it does not wait on the peer's delayed acknowledgement.
#include "http/http_server.h"

#include "config/upnp_client.h"
#include "http/http_dlna.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_string.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

const char server_string[] = "Windows NT/5.0, UPnP/1.0, Velmora UPnP SDK/1.0";

static const char HTTP_HTML_TYPE[] = "text/html; charset=utf-8";

enum { HTTP_HEAD_OUT_SIZE = 1024, HTTP_SEND_TOGETHER = 8192 };

int32_t HTTP_send_bytes(int32_t socket, const void* data, int32_t length)
{
    if (length == 0)
        return 0;
    return upnp_socket_send_all(socket, data, length);
}

// ---- Status texts and extra headers -----------------------------------------

struct http_status_row {
    int32_t status;
    const char* text;
    int force_html;
};

static const http_status_row http_status_rows[] = {
    {200, "200 OK", 0},
    {206, "206 Partial Content", 0},
    {400, "400 Bad Request", 1},
    {401, "401 Unauthorised", 1},
    {402, "402 Invalid Args", 1},
    {404, "404 Not Found", 1},
    {406, "406 Not Acceptable", 1},
    {412, "412 Precondition Failed", 1},
    {416, "416 Requested Range Not Satisfiable", 1},
    {500, "500 Internal Server Error", 1},
};

// Codes without a row (403, 405, 501 among them) go out as "200 OK":
// clients have always seen them so.
const char* HTTP_status_text(int32_t status, int* force_html)
{
    for (const http_status_row& row : http_status_rows)
        if (row.status == status) {
            if (force_html)
                *force_html = row.force_html;
            return row.text;
        }
    if (force_html)
        *force_html = 0;
    return "200 OK";
}

// Control bytes other than line ends never reach a head, wherever the
// handler took its text from.
void HTTP_add_header(HTTP_request* request, const char* text)
{
    if (!request || !text)
        return;
    size_t at = strnlen(request->extra_headers, sizeof request->extra_headers - 1);
    for (const char* p = text; *p && at < sizeof request->extra_headers - 1; p++)
        if (uint8_t(*p) >= 0x20 || *p == '\r' || *p == '\n')
            request->extra_headers[at++] = *p;
    request->extra_headers[at] = 0;
}

void HTTP_add_no_cache(HTTP_request* request)
{
    HTTP_add_header(request, "Expires: 0\r\nPragma: no-cache\r\n");
}

// ---- The response head ------------------------------------------------------

static bool http_has(const char* head, const char* text)
{
    return strstr(head, text) != nullptr;
}

static bool http_image_flags(const char* head)
{
    return http_has(head, "FLAGS00d") || http_has(head, "FLAGS00f");
}

static bool http_stream_flags(const char* head)
{
    return http_has(head, "FLAGS015") || http_has(head, "FLAGS017");
}

// What a request asked for that the resource in its URL cannot give.
static int32_t http_check_preconditions(const HTTP_request* r, int32_t status)
{
    const char* head = r->head;
    if (http_has(head, "getcontentFeatures.dlna.org: 2"))
        status = 400;
    else if (http_has(head, "DLNA.ORG_TLAG=") && !http_has(head, "Streaming"))
        status = 400;
    else if (http_image_flags(head) && (http_has(head, "PlaySpeed.dlna.org") || http_has(head, "realTimeInfo.dlna.org")))
        status = 400;
    if (const char* mode = upnp_stristr(head, "transferMode.dlna.org:")) {
        if (http_has(mode, "Streaming") && http_image_flags(head))
            status = 406;
        else if (http_has(mode, "Interactive") && http_stream_flags(head))
            status = 406;
    }
    if (!upnp_stristr(head, "HOST:") && r->version != 10)
        status = 400;
    return status;
}

// Milliseconds of a byte position, by plain proportion.
static int64_t http_bytes_to_ms(int64_t bytes, int64_t total, int64_t duration)
{
    if (duration <= 0 || total / duration == 0)
        return 0;
    double per_ms = double(total) / double(duration);
    return int64_t(std::trunc(double(bytes) / per_ms + 0.5));
}

// The range line of a 206, and its status text: a DLNA time seek answers
// "200 OK" with its own line.
static const char* http_range_line(const HTTP_request* r, char* line, size_t size)
{
    line[0] = 0;
    if (!upnp_stristr(r->head, "TimeSeekRange") || upnp_stristr(r->head, "Range:")) {
        snprintf(line, size, "Content-Range: bytes %" PRId64 "-%" PRId64 "/%" PRId64 "\r\n", r->range_start,
                 r->range_end, r->total_length);
        return "206 Partial Content";
    }
    int64_t duration = r->duration_ms;
    if (duration > 0) {
        int64_t from = http_bytes_to_ms(r->range_start, r->total_length, duration);
        int64_t to = http_bytes_to_ms(r->range_end, r->total_length, duration);
        if (to >= duration)
            to = duration;
        snprintf(line, size,
                 "TimeSeekRange.dlna.org: npt=%03" PRId64 ".%" PRId64 "-%03" PRId64 ".%" PRId64 "/%03" PRId64
                 ".%" PRId64 " bytes=%" PRId64 "-%" PRId64 "/%" PRId64 "\r\n",
                 from / 1000, from % 1000, to / 1000, to % 1000, duration / 1000, duration % 1000, r->range_start,
                 r->range_end, r->total_length);
    }
    return "200 OK";
}

// The number behind a word of the URL, 0 when absent or not a number.
static int32_t http_url_number(const char* url, const char* word)
{
    const char* at = strstr(url, word);
    if (!at)
        return 0;
    const char* p = at + strlen(word);
    size_t n = upnp_digit_run(p, SIZE_MAX);
    uint64_t v = 0;
    return upnp_parse_u64(p, n, &v) && v <= INT32_MAX ? int32_t(v) : 0;
}

struct http_head_parts {
    char status_line[64];
    char mime_params[64];
    char length_line[64];
    char range_line[256];
    char date[64];
};

// Status line, MIME type and the lines that depend on them; the status as
// it finally stands.
static int32_t http_head_prepare(HTTP_request* r, int32_t status, http_head_parts* p)
{
    bool old_client = r->version == 10 && upnp_client_http10_response(r->client_id);
    int force_html = 0;
    const char* text = HTTP_status_text(status, &force_html);
    p->range_line[0] = 0;
    if (status == 206)
        text = http_range_line(r, p->range_line, sizeof p->range_line);
    if (status == 416 && old_client) {
        text = "404 Not Found";
        r->close = 1;
    }
    snprintf(p->status_line, sizeof p->status_line, "%s%s", old_client ? "HTTP/1.0 " : "HTTP/1.1 ", text);
    if (force_html)
        r->mime_type = HTTP_HTML_TYPE;
    if (!r->mime_type) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_HTTP, "NO MIME TYPE given!\n%s\n", r->url);
        r->mime_type = "application/octet-stream";
    }
    p->mime_params[0] = 0;
    if (strcmp(r->mime_type, "audio/L16") == 0)
        snprintf(p->mime_params, sizeof p->mime_params, ";rate=%d;channels=%d", http_url_number(r->url, "rate"),
                 http_url_number(r->url, "channels"));
    p->length_line[0] = 0;
    if (r->content_length >= 0)
        snprintf(p->length_line, sizeof p->length_line, "Content-Length: %" PRId64 "\r\n", r->content_length);
    if (r->dlna_version && r->content_length == HTTP_UNKNOWN_LENGTH) {
        r->content_length = -1;
        r->close = 1;
    }
    upnp_http_date(p->date, sizeof p->date);
    return status;
}

// The whole head into out: its length, or -1 when it does not fit.
// *refused is set when the request's preconditions turned a 200 away.
static int32_t http_build_head(HTTP_request* r, int32_t status, char* out, int32_t size, int* refused)
{
    *refused = 0;
    if (status == 200) {
        status = http_check_preconditions(r, status);
        if (status != 200) {
            *refused = 1;
            r->content_length = 0;
            r->close = 1;
        }
    }
    http_head_parts p;
    http_head_prepare(r, status, &p);
    HTTP_add_dlna_headers(r);
    int n;
    if (r->content_length < 0) {
        // Without a length the body ends with the connection, which only
        // HTTP/1.0 allows.
        p.status_line[7] = '0';
        r->close = 1;
        n = snprintf(out, size_t(size), "%s\r\nContent-Type: %s%s\r\nConnection: close\r\n%s\r\n", p.status_line,
                     r->mime_type, p.mime_params, r->extra_headers);
    } else {
        n = snprintf(out, size_t(size),
                     "%s\r\nContent-Type: %s%s\r\n%sDate: %s\r\nConnection: %s\r\nAccept-Ranges: bytes\r\n%s%sEXT:\r\n"
                     "Server:%s\r\n\r\n",
                     p.status_line, r->mime_type, p.mime_params, p.length_line, p.date,
                     r->close ? "close" : "keep-alive", p.range_line, r->extra_headers, server_string);
    }
    if (n < 0 || n >= size)
        return -1;
    if (upnp_log_channel_enabled(UPNP_LOG_HTTP))
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, "%s", out);
    return n;
}

int HTTP_send_header(HTTP_request* request, int32_t status)
{
    char head[HTTP_HEAD_OUT_SIZE];
    int refused = 0;
    int32_t n = http_build_head(request, status, head, sizeof head, &refused);
    if (n < 0) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_HTTP, "response head too long for %s\n", request->url);
        return 1;
    }
    if (HTTP_send_bytes(request->socket, head, n) != n)
        return 1;
    return refused;
}

int HTTP_send_status(HTTP_request* request, int32_t status)
{
    request->content_length = 0;
    return HTTP_send_header(request, status);
}

// Head and body, in one send when they are small together. tail_nul adds
// one NUL byte behind the body without reading it from the caller.
static int http_send_with_body(HTTP_request* r, int32_t status, const char* body, int32_t n, int tail_nul)
{
    char head[HTTP_HEAD_OUT_SIZE + HTTP_SEND_TOGETHER];
    int refused = 0;
    int32_t h = http_build_head(r, status, head, HTTP_HEAD_OUT_SIZE, &refused);
    if (h < 0)
        return 1;
    if (refused || r->method == HTTP_METHOD_HEAD)
        return HTTP_send_bytes(r->socket, head, h) != h || refused;
    if (n + tail_nul <= HTTP_SEND_TOGETHER) {
        if (n > 0)              // an empty body may come as a null pointer
            memcpy(head + h, body, size_t(n));
        if (tail_nul)
            head[h + n] = 0;
        int32_t all = h + n + tail_nul;
        return HTTP_send_bytes(r->socket, head, all) != all;
    }
    if (HTTP_send_bytes(r->socket, head, h) != h || HTTP_send_bytes(r->socket, body, n) != n)
        return 1;
    return tail_nul && HTTP_send_bytes(r->socket, "", 1) != 1;
}

int HTTP_send_buffer(HTTP_request* request, const char* data)
{
    HTTP_request* r = request;
    int64_t length = r->content_length;
    int64_t start, end;
    int32_t time_seek;
    HTTP_parse_range(r->head, &start, &end, &time_seek);
    if (start == HTTP_RANGE_BAD || end == HTTP_RANGE_BAD)
        return HTTP_send_status(r, 400);
    if (start == HTTP_RANGE_REFUSED || end == HTTP_RANGE_REFUSED)
        return HTTP_send_status(r, 406);
    if (end >= 0 && end < start)
        return HTTP_send_status(r, 416);
    if (start > length || end > length)
        return HTTP_send_status(r, 416);
    if (time_seek)
        return HTTP_send_status(r, 400);     // memory has no time axis
    if (length < 0 || length > INT32_MAX - 1 || (length > 0 && !data))
        return HTTP_send_status(r, 500);
    // A suffix range reads as a negative start: it is served whole.
    if (start < 0)
        return http_send_with_body(r, 200, data, int32_t(length), 0);
    if (end < 0)
        end = length - 1;
    r->range_start = start;
    r->range_end = end;
    r->total_length = length;
    r->content_length = end - start + 1;
    // An end equal to the length takes one byte more than the data: the
    // terminating NUL, which is sent without reading it.
    int tail_nul = end == length;
    return http_send_with_body(r, 206, data + start, int32_t(r->content_length - tail_nul), tail_nul);
}

// ---- Error pages --------------------------------------------------------------

// HTML-escapes text into out, never cutting an entity in two.
static void http_html_escape(const char* text, char* out, size_t size)
{
    size_t at = 0;
    for (const char* p = text; *p; p++) {
        const char* put;
        char one[2] = {*p, 0};
        switch (*p) {
        case '&': put = "&amp;"; break;
        case '<': put = "&lt;"; break;
        case '>': put = "&gt;"; break;
        case '"': put = "&quot;"; break;
        case '\'': put = "&#39;"; break;
        default: put = one; break;
        }
        size_t n = strlen(put);
        if (at + n >= size)
            break;
        memcpy(out + at, put, n);
        at += n;
    }
    out[at] = 0;
}

static int http_send_page(const HTTP_request* request, int32_t status, const char* page, const char* header)
{
    HTTP_request copy = *request;
    copy.content_length = int64_t(strlen(page));
    copy.mime_type = HTTP_HTML_TYPE;
    if (header)
        HTTP_add_header(&copy, header);
    // The page goes out for HEAD too, as clients have always had it.
    copy.method = HTTP_METHOD_GET;
    return http_send_with_body(&copy, status, page, int32_t(copy.content_length), 0);
}

int HTTP_send_file_not_found(HTTP_request* request)
{
    static const char form[] = "<HTML><HEAD><TITLE>404 Not Found</TITLE></HEAD><BODY><H1>Not Found</H1>%s was "
                               "not found on this server.</BODY></HTML>";
    char page[1024];
    // The page is bounded; a long URL is cut where it still fits.
    char url[sizeof page - (sizeof form - 3)];
    http_html_escape(request->url, url, sizeof url);
    snprintf(page, sizeof page, form, url);
    return http_send_page(request, 404, page, nullptr);
}

int HTTP_send_unauthorized(HTTP_request* request)
{
    char host[129];
    upnp_get_hostname(host, sizeof host);
    char header[200];
    snprintf(header, sizeof header, "WWW-Authenticate: Basic realm=\"%s\"\n", host);
    return http_send_page(request, 401,
                          "<HTML><HEAD><TITLE>401 Unauthorized</TITLE></HEAD><BODY><H1>Unauthorized</H1>Access to "
                          "this page is restricted.</BODY></HTML>",
                          header);
}

// ---- Chunked XML reply ------------------------------------------------------

int HTTP_send_chunked_header(int32_t socket)
{
    char date[64];
    upnp_http_date(date, sizeof date);
    char head[512];
    int n = snprintf(head, sizeof head,
                     "HTTP/1.1 200 OK\r\nCONTENT-TYPE: text/xml; charset=\"utf-8\"\r\nDATE: %s\r\nConnection: "
                     "close\r\nEXT:\r\nSERVER: %s\r\nTransfer-Encoding: chunked\r\n\r\n",
                     date, server_string);
    return HTTP_send_bytes(socket, head, n) != n;
}

int HTTP_send_chunk(int32_t socket, upnp_string* text)
{
    if (!text || text->length <= 0)
        return 0;
    char size_line[24];
    int h = snprintf(size_line, sizeof size_line, "%lx\r\n", static_cast<unsigned long>(text->length));
    size_t all = size_t(h) + size_t(text->length) + 2;
    char* chunk = static_cast<char*>(malloc(all));
    if (!chunk)
        return 1;
    memcpy(chunk, size_line, size_t(h));
    memcpy(chunk + h, text->text, size_t(text->length));
    memcpy(chunk + all - 2, "\r\n", 2);
    int failed = HTTP_send_bytes(socket, chunk, int32_t(all)) != int32_t(all);
    free(chunk);
    upnp_string_empty(text);
    return failed;
}

int HTTP_send_last_chunk(int32_t socket)
{
    return HTTP_send_bytes(socket, "0\r\n\r\n", 5) != 5;
}
