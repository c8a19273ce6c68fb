// The request reader: a head read from arbitrary bytes, parsed into the
// request record with its URL guard, Range and Content-Length; the DLNA
// response headers derived from it; the rest of the bytes as its body; and
// the same bytes as a chunked body on their own.
#include "http/http_dlna.h"
#include "http/http_server.h"
#include "runtime/upnp_string.h"

#include <cstdint>
#include <cstring>

static void fuzz_body(HTTP_source* source, const char* head)
{
    int refused = 0;
    upnp_string* body = HTTP_source_read_body(source, head, 64 * 1024, &refused);
    if (body && (body->length < 0 || body->length > 64 * 1024 || refused))
        __builtin_trap();
    upnp_string_free(body);
}

// Whatever the URL held, a derived header has no control byte but the line
// end of its own line.
static void fuzz_dlna_headers(HTTP_request* request)
{
    HTTP_add_dlna_headers(request);
    for (const char* p = request->extra_headers; *p; p++) {
        if (p[0] == '\r' && p[1] == '\n')
            p++;
        else if (static_cast<unsigned char>(*p) < 0x20)
            __builtin_trap();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1 << 20)
        return 0;
    const char* bytes = reinterpret_cast<const char*>(data);
    HTTP_source source = {-1, bytes, int32_t(size), 0, 0};
    static HTTP_request request;
    memset(&request, 0, sizeof request);
    int32_t n = HTTP_source_read_header(&source, request.head, sizeof request.head);
    if (n > 0) {
        if (n >= int32_t(sizeof request.head) || request.head[n] != 0)
            __builtin_trap();
        HTTP_parse_request_head(&request);
        if (strlen(request.url) >= sizeof request.url)
            __builtin_trap();
        int64_t start, end;
        int32_t time_seek;
        HTTP_parse_range(request.head, &start, &end, &time_seek);
        HTTP_content_length(request.head);
        fuzz_dlna_headers(&request);
        fuzz_body(&source, request.head);
    }
    HTTP_source whole = {-1, bytes, int32_t(size), 0, 0};
    fuzz_body(&whole, "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
    return 0;
}
