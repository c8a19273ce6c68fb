#include "media/media_cursor.h"

#include <gtest/gtest.h>

namespace {

const uint8_t bytes[] = {0x12, 0x34, 0x56, 0x78, 0x9A};

TEST(MediaCursor, ReadPastTheEndGivesZeroAndStaysBad)
{
    media_cursor c = media_open(bytes, sizeof bytes);
    EXPECT_EQ(media_be16(&c), 0x1234u);
    EXPECT_EQ(media_le16(&c), 0x7856u);
    EXPECT_EQ(media_be32(&c), 0u);
    EXPECT_TRUE(c.bad);
    EXPECT_EQ(media_u8(&c) + media_left(&c), 0u);    // the byte left before the failed read is gone
    EXPECT_TRUE(c.bad);
}

TEST(MediaCursor, SubCursorNeverExceedsItsParent)
{
    media_cursor c = media_open(bytes, sizeof bytes);
    media_cursor sub = media_sub(&c, 3);
    EXPECT_EQ(media_be32(&sub), 0u);
    EXPECT_TRUE(sub.bad && !c.bad);
    media_cursor past = media_sub(&c, 3);
    EXPECT_TRUE(past.bad && c.bad);
    EXPECT_EQ(media_left(&past), 0u);
    media_cursor whole = media_open(bytes, sizeof bytes), at = media_at(&whole, 4);
    EXPECT_EQ(media_be16(&at), 0u);
    EXPECT_TRUE(at.bad && media_at(&whole, 6).bad);
}

}  // namespace
