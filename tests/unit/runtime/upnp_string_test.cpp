// Tests of the growing text record: growth rules, byte appends, checked
// appends, formatted appends and the 2 GiB refusal.
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

TEST(UpnpString, AppendToNullWithNullGivesEmptyRecordOf256)
{
    upnp_string* s = upnp_string_append(nullptr, nullptr);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(0, s->length);
    EXPECT_EQ(256, s->capacity);
    EXPECT_STREQ("", s->text);
    upnp_string_free(s);
}

TEST(UpnpString, NewBufferIsZeroFilledBehindTheText)
{
    upnp_string* s = upnp_string_new("ab", 16);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(2, s->length);
    EXPECT_EQ(16, s->capacity);
    for (int i = 2; i < 16; i++)
        EXPECT_EQ(0, s->text[i]) << i;
    upnp_string_free(s);
}

TEST(UpnpString, FillingToCapacityLessOneDoesNotGrowAndOneMoreDoubles)
{
    upnp_string* s = upnp_string_new("", 8);
    s = upnp_string_append(s, "1234567");
    EXPECT_EQ(8, s->capacity);
    EXPECT_EQ(7, s->length);
    s = upnp_string_append(s, "8");
    EXPECT_EQ(16, s->capacity);
    EXPECT_STREQ("12345678", s->text);
    upnp_string_free(s);
}

TEST(UpnpString, GrowthTakesExactFitWhenDoublingIsNotEnough)
{
    upnp_string* s = upnp_string_new("ab", 4);
    s = upnp_string_append(s, "0123456789");
    EXPECT_EQ(13, s->capacity);      // 2 + 10 + 1 is more than 8
    EXPECT_STREQ("ab0123456789", s->text);
    EXPECT_EQ(12, s->length);
    upnp_string_free(s);
}

TEST(UpnpString, AppendOfNullTextKeepsTheRecord)
{
    upnp_string* s = upnp_string_new("x", 8);
    EXPECT_EQ(s, upnp_string_append(s, nullptr));
    EXPECT_STREQ("x", s->text);
    upnp_string_free(s);
}

TEST(UpnpString, AppendBytesKeepsNulBytesAndTheTerminator)
{
    upnp_string* s = upnp_string_append_bytes(nullptr, "a\0b", 3);
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(256, s->capacity);
    EXPECT_EQ(3, s->length);
    EXPECT_EQ(0, memcmp(s->text, "a\0b\0", 4));
    EXPECT_EQ(s, upnp_string_append_bytes(s, "zz", 0));
    EXPECT_EQ(3, s->length);
    upnp_string_free(s);
}

TEST(UpnpString, AppendBytesGrowsIntoZeroFilledBuffer)
{
    upnp_string* s = upnp_string_new("abc", 4);
    s = upnp_string_append_bytes(s, "de", 2);
    EXPECT_EQ(8, s->capacity);
    EXPECT_STREQ("abcde", s->text);
    for (int i = 5; i < 8; i++)
        EXPECT_EQ(0, s->text[i]) << i;
    upnp_string_free(s);
}

TEST(UpnpString, AppendCheckedConvertsByMode)
{
    upnp_string* s = upnp_string_append_checked(nullptr, "\xE4 ok", 1);
    ASSERT_NE(nullptr, s);
    EXPECT_STREQ("\xC3\xA4 ok", s->text);
    s = upnp_string_append_checked(s, "|\xC3\xA4\xE2\x82\xAC", 0);
    EXPECT_STREQ("\xC3\xA4 ok|\xE4?", s->text);
    upnp_string_free(s);
}

TEST(UpnpString, AppendCheckedReservesTwiceTheText)
{
    upnp_string* s = upnp_string_new("", 16);
    s = upnp_string_append_checked(s, "1234567", 1);
    EXPECT_EQ(16, s->capacity);      // 0 + 14 fits in 15
    s = upnp_string_append_checked(s, "8", 1);
    EXPECT_EQ(16, s->capacity);      // 7 + 2 fits
    upnp_string_empty(s);
    s = upnp_string_append_checked(s, "12345678", 1);
    EXPECT_EQ(32, s->capacity);      // 0 + 16 does not fit, though 8 bytes would
    EXPECT_EQ(8, s->length);
    upnp_string_free(s);
}

TEST(UpnpString, AppendfFormatsAndGrows)
{
    upnp_string* s = upnp_string_appendf(nullptr, "<%s id=\"%d\">", "item", 42);
    ASSERT_NE(nullptr, s);
    EXPECT_STREQ("<item id=\"42\">", s->text);
    std::string long_text(1000, 'x');
    s = upnp_string_appendf(s, "%s|", long_text.c_str());
    EXPECT_EQ(int32_t(14 + 1001), s->length);
    EXPECT_EQ('|', s->text[s->length - 1]);
    EXPECT_EQ(0, s->text[s->length]);
    upnp_string_free(s);
}

TEST(UpnpString, EmptyKeepsTheBuffer)
{
    upnp_string* s = upnp_string_new("some text", 64);
    char* buffer = s->text;
    upnp_string_empty(s);
    EXPECT_EQ(0, s->length);
    EXPECT_EQ(64, s->capacity);
    EXPECT_EQ(buffer, s->text);
    EXPECT_STREQ("", s->text);
    upnp_string_empty(nullptr);
    upnp_string_free(s);
    upnp_string_free(nullptr);
}

// A record claiming nearly 2 GiB of text: growth must be refused before
// anything is allocated or copied.
TEST(UpnpString, GrowthPastTwoGibIsRefusedAndLeavesTheRecord)
{
    char small[8] = "abc";
    upnp_string fake = {INT32_MAX - 3, INT32_MAX - 2, small};
    EXPECT_EQ(&fake, upnp_string_append(&fake, "0123456789"));
    EXPECT_EQ(&fake, upnp_string_append_bytes(&fake, "0123456789", 10));
    EXPECT_EQ(&fake, upnp_string_appendf(&fake, "%s", "0123456789"));
    EXPECT_EQ(&fake, upnp_string_append_checked(&fake, "0123456789", 1));
    EXPECT_EQ(INT32_MAX - 3, fake.length);
    EXPECT_EQ(INT32_MAX - 2, fake.capacity);
    EXPECT_EQ(small, fake.text);
    EXPECT_STREQ("abc", small);
}
