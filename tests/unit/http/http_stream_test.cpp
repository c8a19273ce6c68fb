// The two readers of an open file: each stays where a player left it.
#include "http/http_stream.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <string>

TEST(HttpStream, ReadersStayWhereAPlayerAlternatesBetweenTheEndAndTheFront)
{
    test_dir dir;
    std::string bytes;
    while (bytes.size() < 10000)
        bytes += char(bytes.size() * 7 + bytes.size() / 256);
    ASSERT_TRUE(test_write_file(dir.file("f"), bytes));
    HTTP_stream* s = HTTP_stream_open_path(dir.file("f").c_str(), "/u", 0, 'x');
    ASSERT_TRUE(s);
    char buffer[100];
    // The tail reader is opened at the end, so the last byte alone reads nothing.
    const struct { int64_t at, size, got; int32_t seeks; } reads[] = {
        {9999, 1, 0, 0}, {9990, 5, 5, 1}, {0, 100, 100, 1}, {9995, 100, 5, 1}, {100, 100, 100, 1}, {5000, 10, 10, 2},
        {10000, 10, 0, 2},
    };
    for (const auto& r : reads) {
        int64_t p = r.at;
        EXPECT_EQ(r.got, HTTP_stream_read(s, &p, buffer, 100, r.size)) << r.at;
        EXPECT_EQ(r.at + r.got, p);
        EXPECT_EQ(bytes.substr(size_t(r.at), size_t(r.got)), std::string(buffer, size_t(r.got))) << r.at;
        EXPECT_EQ(r.seeks, s->seeks) << r.at;
    }
    HTTP_close_stream(s);
    EXPECT_EQ(nullptr, HTTP_stream_open_path(dir.file("none").c_str(), "/u", 0, 'x'));
}
