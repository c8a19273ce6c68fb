// Byte ranges and DLNA time seek, with the permissions the resource URL carries.
#include "http/http_server.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

const std::string LINE = "GET /disk/music/O12.mp3 HTTP/1.1\r\nHost: a\r\n";
const std::string DLNA_LINE = "GET /disk/DLNA-PNMP3-OP01-FLAGS01700000/music/O1.mp3 HTTP/1.1\r\n";
const std::string NO_BYTE_SEEK = "GET /disk/DLNA-PNMP3-OP10-FLAGS01700000/music/O1.mp3 HTTP/1.1\r\n";
const std::string PROFILE_ONLY = "GET /disk/DLNA-PNMP3-FLAGS01700000/music/O1.mp3 HTTP/1.1\r\n";
const std::string PHOTO_NO_SEEK = "GET /disk/photo/DLNA-PNJPEG_SM-OP00-FLAGS00f00000/O1.jpg HTTP/1.1\r\n";

TEST(HttpRange, ByteRangesTimeSeekAndTheirRefusals)
{
    const std::string seekable = "GET /disk/DLNA-PNMP3-OP11-FLAGS01700000/music/O1.mp3 HTTP/1.1\r\n";
    const std::string npt = "TimeSeekRange.dlna.org: npt=1.000-\r\n\r\n";
    const struct { const char* why; std::string head; int64_t start, end; int32_t time; } cases[] = {
        {"none", LINE + "\r\n", -1, -1, 0}, {"open end", LINE + "Range: bytes=0-\r\n\r\n", 0, -1, 0},
        {"blanks, any case", LINE + "range: bytes= 10- 20\r\n\r\n", 10, 20, 0},
        {"end before start", LINE + "Range: bytes=5-2\r\n\r\n", -2, -2, 0},
        {"no unit", LINE + "Range: 0-5\r\n\r\n", -2, -2, 0}, {"no hyphen", LINE + "Range: bytes=7\r\n\r\n", 7, -2, 0},
        {"too large", LINE + "Range: bytes=99999999999999999999-\r\n\r\n", -2, -2, 0},
        {"end too large", LINE + "Range: bytes=1-99999999999999999999\r\n\r\n", -2, -2, 0},
        {"suffix alone", LINE + "Range: bytes=-500\r\n\r\n", -500, -2, 0},
        {"suffix, hyphen later", LINE + "Range: bytes=-500\r\nUser-Agent: a-b\r\n\r\n", -500, -1, 0},
        {"byte seek allowed", DLNA_LINE + "Range: bytes=0-99\r\n\r\n", 0, 99, 0},
        {"byte seek digit 0", NO_BYTE_SEEK + "Range: bytes=0-99\r\n\r\n", -3, -3, 0},
        {"profile without OP", PROFILE_ONLY + "Range: bytes=0-99\r\n\r\n", -3, -3, 0},
        {"range wins over time", LINE + "TimeSeekRange.dlna.org: npt=1.000-\r\nRange: bytes=3-4\r\n\r\n", 3, 4, 0},
        {"time, plain URL", LINE + "TimeSeekRange.dlna.org: npt=10.000-20.000\r\n\r\n", 10000, 20000, 1},
        {"time, open end", seekable + "TimeSeekRange.dlna.org: npt=10.000-\r\n\r\n", 10000, -1, 1},
        {"time, end before start", LINE + "TimeSeekRange.dlna.org: npt=20.000-10.000\r\n\r\n", -2, -2, 1},
        {"time seek digit 0", DLNA_LINE + npt, -3, -3, 1},
        {"play speed", seekable + "PlaySpeed.dlna.org: speed=2\r\n" + npt, -3, -3, 1},
        {"background", seekable + "transferMode.dlna.org: Background\r\n" + npt, -2, -2, 1},
        {"photo flags", PHOTO_NO_SEEK + npt, -2, -2, 1}, {"time, profile without OP", PROFILE_ONLY + npt, -3, -3, 1},
    };
    for (const auto& c : cases) {
        int64_t start = 0, end = 0;
        int32_t time = 9;
        HTTP_parse_range(c.head.c_str(), &start, &end, &time);
        EXPECT_EQ(std::make_tuple(c.start, c.end, c.time), std::make_tuple(start, end, time)) << c.why;
    }
}

TEST(HttpRange, NptTimesKeepTheirHistoricArithmetic)
{
    const struct { const char* text; int32_t ms; } cases[] = {
        {"1.500", 1500}, {"1.5", 1005}, {"10", 10000}, {"0:00:10.000", 10000}, {" 12.000", 12000},
        {"1:00", INT32_MAX}, {"abc", -2}, {"", -2}, {"2.000-3.000", 2000}, {"2147484.000", INT32_MAX},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.ms, HTTP_parse_npt(c.text)) << c.text;
    EXPECT_EQ(-2, HTTP_parse_npt(nullptr));
}

}  // namespace
