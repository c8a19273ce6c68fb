// Tests of the date formats: whole dates of the present second under many threads; small buffers cut cleanly.
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

// Seconds since 1970 of an HTTP date or a 17-digit timestamp ("YYYYMMDDhhmmss"
// and milliseconds), or -1 when the text is neither or its weekday is wrong.
static int64_t date_seconds(const char* text, bool http)
{
    tm d = {};
    if (http) {
        const char* end = strptime(text, "%a, %d %b %Y %H:%M:%S GMT", &d);
        if (!end || *end || strlen(text) != 29)
            return -1;
    } else if (strlen(text) != 17 || strspn(text, "0123456789") != 17
               || !strptime(std::string(text, 14).c_str(), "%Y%m%d%H%M%S", &d)) {
        return -1;
    }
    int weekday = d.tm_wday;
    int64_t at = int64_t(timegm(&d));
    return http && weekday != d.tm_wday ? -1 : at;
}

TEST(UpnpDate, ConcurrentCallersAlwaysSeeWholeDatesOfThePresentSecond)
{
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([&bad] {
            for (int i = 0; i < 2000; i++) {
                int64_t before = time(nullptr);
                char http[64], stamp[32];
                upnp_http_date(http, sizeof http);
                upnp_timestamp(stamp, sizeof stamp);
                int64_t after = time(nullptr);
                int64_t a = date_seconds(http, true), b = date_seconds(stamp, false);
                // time() reads a coarser clock that may trail the precise one
                // by a tick, so a date may already show the next second.
                if (a < before || a > after + 1 || b < before || b > after + 1)
                    bad++;
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(0, bad.load());
}

TEST(UpnpDate, YmdIsTheUtcDateAndSmallBuffersAreCutAndTerminated)
{
    char text[16];
    for (auto [time, ymd] : {std::pair<int64_t, const char*>{0, "1970-01-01"}, {951782400, "2000-02-29"},
                             {-86400, "1969-12-31"}, {4102444799, "2099-12-31"}})
        EXPECT_STREQ(ymd, (upnp_date_ymd(time, text, sizeof text), text));
    memset(text, '#', sizeof text);
    upnp_http_date(text, 5);
    EXPECT_EQ(std::make_tuple(4ul, '#'), std::make_tuple(strlen(text), text[5]));
    upnp_timestamp(text, 5);
    EXPECT_EQ(4u, strlen(text));
    upnp_date_ymd(0, text, 5);
    upnp_http_date(nullptr, 10);
    upnp_http_date(text, 0);
    EXPECT_STREQ("1970", text);
}
