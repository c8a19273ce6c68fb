// Tests of the page mappings under the stores.
#include "runtime/upnp_pages.h"

#include <gtest/gtest.h>

#include <algorithm>

constexpr size_t MiB = size_t(1) << 20;

static bool all_zero(const char* p, size_t size) { return std::all_of(p, p + size, [](char c) { return c == 0; }); }

// The stores hand out new records from committed memory without clearing
// it, so a range used, dropped and committed again must read as zeros,
// also past the first 32 MiB where huge pages are asked for.
TEST(UpnpPages, DecommittedRangeComesBackZeroFilled)
{
    char* p = static_cast<char*>(upnp_pages_reserve(64 * MiB));
    ASSERT_NE(p, nullptr);
    for (size_t at : {size_t(0), 40 * MiB}) {
        SCOPED_TRACE(at);
        ASSERT_EQ(upnp_pages_commit(p + at, 4 * MiB), 1);
        std::fill(p + at, p + at + 4 * MiB, 0x5A);
        upnp_pages_decommit(p + at, 4 * MiB);
        ASSERT_EQ(upnp_pages_commit(p + at, 4 * MiB), 1);
        EXPECT_TRUE(all_zero(p + at, 4 * MiB));
    }
    upnp_pages_release(p, 64 * MiB);
}

TEST(UpnpPages, MappingGrowsAndShrinksKeepingItsContents)
{
    const size_t first = 8 * MiB;
    char* p = static_cast<char*>(upnp_pages_map(first));
    ASSERT_TRUE(p && all_zero(p, first));
    std::fill(p, p + first, 0x33);
    char* q = static_cast<char*>(upnp_pages_remap(p, first, first * 4));
    ASSERT_NE(q, nullptr);
    EXPECT_TRUE(q[0] == 0x33 && q[first - 1] == 0x33 && all_zero(q + first, first * 3));
    char* r = static_cast<char*>(upnp_pages_remap(q, first * 4, first / 2));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r[first / 2 - 1], 0x33);
    upnp_pages_release(r, first / 2);
}
