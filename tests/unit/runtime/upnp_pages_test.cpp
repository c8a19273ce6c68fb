#include "runtime/upnp_pages.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

constexpr size_t MiB = size_t(1) << 20;

bool all_zero(const char* p, size_t size)
{
    for (size_t i = 0; i < size; i++)
        if (p[i])
            return false;
    return true;
}

TEST(UpnpPages, DecommittedRangeComesBackZeroFilled)
{
    // The stores hand out new records from committed memory without clearing
    // it, so a range used, dropped and committed again must read as zeros,
    // also past the first 32 MiB where huge pages are asked for.
    const size_t size = 64 * MiB;
    char* p = static_cast<char*>(upnp_pages_reserve(size));
    ASSERT_NE(p, nullptr);
    for (size_t at : {size_t(0), 40 * MiB}) {
        SCOPED_TRACE(at);
        ASSERT_EQ(upnp_pages_commit(p + at, 4 * MiB), 1);
        memset(p + at, 0x5A, 4 * MiB);
        upnp_pages_decommit(p + at, 4 * MiB);
        ASSERT_EQ(upnp_pages_commit(p + at, 4 * MiB), 1);
        EXPECT_TRUE(all_zero(p + at, 4 * MiB));
    }
    upnp_pages_release(p, size);
}

TEST(UpnpPages, MappingGrowsAndShrinksKeepingItsContents)
{
    for (size_t first : {size_t(4096), 8 * MiB}) {
        SCOPED_TRACE(first);
        char* p = static_cast<char*>(upnp_pages_map(first));
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(all_zero(p, first));
        memset(p, 0x33, first);
        char* q = static_cast<char*>(upnp_pages_remap(p, first, first * 4));
        ASSERT_NE(q, nullptr);
        EXPECT_EQ(q[0], 0x33);
        EXPECT_EQ(q[first - 1], 0x33);
        EXPECT_TRUE(all_zero(q + first, first * 3));
        char* r = static_cast<char*>(upnp_pages_remap(q, first * 4, first / 2));
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r[first / 2 - 1], 0x33);
        upnp_pages_release(r, first / 2);
    }
}

}  // namespace
