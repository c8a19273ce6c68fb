// upnp_date.cpp: HTTP dates, compact timestamps and calendar dates.
//
// Every HTTP reply carries a date, so the broken-down UTC date of the
// present day is cached and the time of day is derived from the seconds
// since midnight; only the first call of a new day converts afresh. Each
// cache is one atomic 64-bit word holding the day number and its date
// fields together, so concurrent callers always read a matching pair and
// never a date with mixed fields. No lock.
#include "runtime/upnp_string.h"

#include <atomic>
#include <cstdio>
#include <ctime>

static constexpr int64_t DATE_DAY = 86400;

// The cached day: bits 0-31 day number since 1970, 32-47 year, 48-51 month
// (0-11), 52-56 day of month, 57-59 weekday. 0 means empty.
struct date_cache {
    std::atomic<uint64_t> word{0};
};

struct date_parts {
    int year, month, mday, wday, hour, minute, second;
};

static date_cache date_http_cache;
static date_cache date_stamp_cache;

static int64_t date_day_of(int64_t t)
{
    return t >= 0 ? t / DATE_DAY : -((-t + DATE_DAY - 1) / DATE_DAY);
}

static uint64_t date_pack(int64_t day, const tm& d)
{
    return uint64_t(uint32_t(day)) | uint64_t(uint16_t(d.tm_year + 1900)) << 32 |
           uint64_t(d.tm_mon & 15) << 48 | uint64_t(d.tm_mday & 31) << 52 | uint64_t(d.tm_wday & 7) << 57;
}

// Splits t with the cache when t falls on the cached day, else converts
// and stores the new day.
static int date_split(date_cache* cache, int64_t t, date_parts* out)
{
    int64_t day = date_day_of(t);
    uint64_t word = cache->word.load(std::memory_order_acquire);
    if (word == 0 || uint32_t(word) != uint32_t(day)) {
        time_t now = time_t(t);
        tm d;
        if (!gmtime_r(&now, &d))
            return 0;
        word = date_pack(day, d);
        cache->word.store(word, std::memory_order_release);
    }
    int64_t second_of_day = t - day * DATE_DAY;
    *out = {int(word >> 32 & 0xFFFF), int(word >> 48 & 15), int(word >> 52 & 31), int(word >> 57 & 7),
            int(second_of_day / 3600), int(second_of_day / 60 % 60), int(second_of_day % 60)};
    return 1;
}

void upnp_http_date(char* buffer, size_t size)
{
    static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (!buffer || size == 0)
        return;
    date_parts p;
    if (!date_split(&date_http_cache, int64_t(time(nullptr)), &p) || p.wday > 6 || p.month > 11) {
        buffer[0] = 0;
        return;
    }
    snprintf(buffer, size, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[p.wday], p.mday, months[p.month],
             p.year, p.hour, p.minute, p.second);
}

void upnp_timestamp(char* buffer, size_t size)
{
    if (!buffer || size == 0)
        return;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    date_parts p;
    if (!date_split(&date_stamp_cache, int64_t(now.tv_sec), &p)) {
        buffer[0] = 0;
        return;
    }
    snprintf(buffer, size, "%04d%02d%02d%02d%02d%02d%03d", p.year, p.month + 1, p.mday, p.hour, p.minute,
             p.second, int(now.tv_nsec / 1000000));
}

void upnp_date_ymd(int64_t time, char* buffer, size_t size)
{
    if (!buffer || size == 0)
        return;
    time_t t = time_t(time);
    tm d;
    if (!gmtime_r(&t, &d)) {
        buffer[0] = 0;
        return;
    }
    snprintf(buffer, size, "%04d-%02d-%02d", d.tm_year + 1900, d.tm_mon + 1, d.tm_mday);
}
