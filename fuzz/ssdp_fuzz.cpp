// Feeds arbitrary datagrams to the readers of searches and announcements,
// as the listening thread would after a receive: any bytes, any length, no
// terminator. A value read must lie inside the input, and an accepted
// search must carry a terminated target and an MX in range.
#include "upnp/ssdp.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = reinterpret_cast<const char*>(data);
    ssdp_search search;
    if (ssdp_parse_search(text, size, &search) == 1) {
        size_t length = strnlen(search.target, sizeof search.target);
        if (length == 0 || length >= sizeof search.target || search.mx < 1 || search.mx > SSDP_MAX_MX)
            abort();
    }
    const char* url = nullptr;
    size_t url_length = 0;
    if (ssdp_parse_notify(text, size, &url, &url_length) &&
        (url < text || url + url_length != text + size || memcmp(url, "http://", 7) != 0))
        abort();
    // The addresses of a datagram's sender come as text too.
    char ip[16];
    size_t n = size < sizeof ip - 1 ? size : sizeof ip - 1;
    memcpy(ip, data, n);
    ip[n] = 0;
    ssdp_same_subnet("192.0.2.1", "255.255.255.0", ip);
    return 0;
}
