// The Range and DLNA time seek of a request head, and the npt time reader,
// on arbitrary bytes: nothing may read past the text, and every result
// must be one the streaming side can judge: a marker, or a start no later
// than its end, and npt times within 32 bits.
#include "http/http_server.h"

#include <cstdint>
#include <string>

static bool fuzz_marker(int64_t v)
{
    return v == HTTP_RANGE_NONE || v == HTTP_RANGE_BAD || v == HTTP_RANGE_REFUSED;
}

static void fuzz_check_range(const char* head)
{
    int64_t start = 7, end = 7;
    int32_t time_seek = 7;
    HTTP_parse_range(head, &start, &end, &time_seek);
    if (time_seek != 0 && time_seek != 1)
        __builtin_trap();
    if (end >= 0 && start > end)
        __builtin_trap();
    if (!fuzz_marker(end) && end < 0)
        __builtin_trap();
    // Only a byte range's suffix form reads as a negative start.
    if (time_seek && ((!fuzz_marker(start) && (start < 0 || start > INT32_MAX)) || end > INT32_MAX))
        __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4096)
        return 0;
    std::string text(reinterpret_cast<const char*>(data), size);   // a head ends at its first NUL
    int32_t ms = HTTP_parse_npt(text.c_str());
    if (ms < 0 && ms != HTTP_RANGE_BAD)
        __builtin_trap();
    fuzz_check_range(text.c_str());
    // The same bytes behind a request line and as the value of each header.
    for (const char* name : {"Range: bytes=", "TimeSeekRange.dlna.org: npt=", "X-Seek-Range: npt="})
        fuzz_check_range(("GET /disk/music/O1.mp3 HTTP/1.1\r\n" + std::string(name) + text).c_str());
    return 0;
}
