// http_range.cpp: the Range and DLNA time seek of a request head. No state.
// The DLNA parameters of a resource travel in its URL, which stands in the
// request line, so the seek permissions ("-OP" digits, "DLNA-PN") are read
// from the same head as the Range itself. Byte positions go through the
// one decimal reader of the runtime; npt times keep their historic
// arithmetic, which players have been served with all along.
#include "http/http_server.h"

#include "runtime/upnp_string.h"

#include <cstdint>
#include <cstring>

// A signed decimal behind p: 1 with *value and *next set, 0 when there are
// no digits or they do not fit.
static int range_signed(const char* p, int64_t* value, const char** next)
{
    int negative = *p == '-';
    p += negative;
    size_t n = upnp_digit_run(p, SIZE_MAX);
    uint64_t v = 0;
    if (!upnp_parse_u64(p, n, &v) || v > uint64_t(INT64_MAX))
        return 0;
    *value = negative ? -int64_t(v) : int64_t(v);
    *next = p + n;
    return 1;
}

// An npt time and where its text ends.
static int32_t range_npt(const char* text, const char** next)
{
    uint32_t accumulator = 0, total = 0, unit = 3600000;
    int digit = 0, fraction = 0;
    const char* p = text;
    for (; *p; p++) {
        if (*p >= '0' && *p <= '9') {
            accumulator = accumulator * 10 + uint32_t(*p - '0');
            digit = 1;
        } else if (*p == ':') {
            total += unit * accumulator;
            unit /= 60;
            accumulator = 0;
        } else if (*p == '.') {
            total += accumulator * 1000;
            accumulator = 0;
            fraction = 1;
        } else if (*p != ' ') {
            break;
        }
    }
    if (next)
        *next = p;
    total += accumulator;
    if (!fraction)
        total *= 1000;
    if (!digit)
        return HTTP_RANGE_BAD;
    int32_t ms = int32_t(total);
    return ms < 0 ? INT32_MAX : ms;
}

int32_t HTTP_parse_npt(const char* text)
{
    return text ? range_npt(text, nullptr) : HTTP_RANGE_BAD;
}

// One value behind p, bytes or npt; 0 when it cannot be read.
static int range_value(const char* p, int time, int64_t* value, const char** next)
{
    if (!time)
        return range_signed(p, value, next);
    *value = range_npt(p, next);
    return 1;
}

// "=" gives the start, "-" the end; the scan is not bounded by the line.
static void range_scan(const char* text, int time, int64_t* start, int64_t* end)
{
    for (const char* p = text; *p;) {
        if (*p == '=') {
            p++;
            while (*p == ' ')
                p++;
            if (!range_value(p, time, start, &p)) {
                *start = *end = HTTP_RANGE_BAD;
                return;
            }
        } else if (*p == '-') {
            *end = HTTP_RANGE_NONE;
            p++;
            while (*p == ' ')
                p++;
            if (*p >= '0' && *p <= '9' && !range_value(p, time, end, &p))
                *start = *end = HTTP_RANGE_BAD;
            return;
        } else {
            p++;
        }
    }
}

static bool range_image_flags(const char* head)
{
    return strstr(head, "FLAGS00d") || strstr(head, "FLAGS00f");
}

// A byte range on a resource published without byte seek is refused.
static void range_bytes(const char* head, const char* at, int64_t* start, int64_t* end)
{
    *start = *end = HTTP_RANGE_BAD;
    if (!strstr(at, "bytes"))
        return;
    const char* op = strstr(head, "-OP");
    if ((op && op[3] && op[4] == '0') || (!op && strstr(head, "DLNA-PN"))) {
        *start = *end = HTTP_RANGE_REFUSED;
        return;
    }
    range_scan(at, 0, start, end);
}

static void range_time(const char* head, const char* text, int64_t* start, int64_t* end)
{
    *start = *end = HTTP_RANGE_BAD;
    const char* op = strstr(head, "-OP");
    if (op && (op[3] == '0' || strstr(head, "PlaySpeed.dlna.org") || strstr(head, "Background"))) {
        if (!range_image_flags(head) && !strstr(head, "Background"))
            *start = *end = HTTP_RANGE_REFUSED;
        return;
    }
    if (!op && strstr(head, "DLNA-PN")) {
        if (!range_image_flags(head))
            *start = *end = HTTP_RANGE_REFUSED;
        return;
    }
    range_scan(text, 1, start, end);
}

void HTTP_parse_range(const char* head, int64_t* start, int64_t* end, int32_t* time_seek)
{
    *start = *end = HTTP_RANGE_NONE;
    *time_seek = 0;
    if (!head)
        return;
    const char* at = upnp_stristr(head, "\nRange:");
    if (at) {
        range_bytes(head, at, start, end);
    } else if ((at = upnp_stristr(head, "TimeSeekRange.dlna.org:")) || (at = upnp_stristr(head, "X-Seek-Range:"))) {
        *time_seek = 1;
        range_time(head, at + 12, start, end);
    }
    if (*end >= 0 && *end < *start)
        *start = *end = HTTP_RANGE_BAD;
}
