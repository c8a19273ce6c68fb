// Arbitrary bytes as the reply the HTTP client has received so far, as an
// open and as a closed connection, and as a URL: the parser must stay
// inside the bytes and hand back a body no longer than them.
#include "http/http_client.h"
#include "runtime/upnp_string.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* bytes = reinterpret_cast<const char*>(data);
    for (int closed = 0; closed < 2; closed++) {
        upnp_string* body = nullptr;
        int state = HTTP_reply_parse(bytes, size, closed, &body);
        if (state != HTTP_REPLY_DONE && body)
            abort();
        if (closed && state == HTTP_REPLY_MORE)
            abort();     // a closed connection always ends the reply
        if (body && size_t(body->length) > size)
            abort();
        upnp_string_free(body);
    }
    std::string url(bytes, size);
    char host[256];
    int32_t port = 0;
    HTTP_url_target(url.c_str(), host, sizeof host, &port);
    char head[1024];
    HTTP_build_request(HTTP_KIND_GET, url.c_str(), nullptr, 0, head, sizeof head);
    HTTP_build_request(HTTP_KIND_POST, url.c_str(), url.c_str(), 10, head, sizeof head);
    return 0;
}
