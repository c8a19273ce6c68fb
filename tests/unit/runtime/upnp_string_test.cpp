// Tests of the growing text record: growth rules, byte appends, checked
// appends, formatted appends and the 2 GiB refusal.
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <tuple>

using namespace std::string_literals;

struct grow_case {
    const char* name;
    upnp_string* (*run)();
    const char* text;       // the first `length` bytes; the rest must be zero
    int32_t length, capacity;
};

// Short names, so that each row reads as one expression.
static constexpr auto fresh = upnp_string_new;
static constexpr auto add = upnp_string_append;
static constexpr auto bytes = upnp_string_append_bytes;
static constexpr auto checked = upnp_string_append_checked;

static const grow_case grow_cases[] = {
    {"null and null give an empty record of 256", [] { return add(nullptr, nullptr); }, "", 0, 256},
    {"new zero-fills behind the text", [] { return fresh("ab", 16); }, "ab", 2, 16},
    {"capacity less one does not grow", [] { return add(fresh("", 8), "1234567"); }, "1234567", 7, 8},
    {"one more doubles", [] { return add(add(fresh("", 8), "1234567"), "8"); }, "12345678", 8, 16},
    {"exact fit when doubling is short", [] { return add(fresh("ab", 4), "0123456789"); }, "ab0123456789", 12, 13},
    {"null text keeps the record", [] { return add(fresh("x", 8), nullptr); }, "x", 1, 8},
    {"bytes keep NUL bytes; no bytes change nothing", [] { return bytes(bytes(nullptr, "a\0b", 3), "zz", 0); },
     "a\0b", 3, 256},
    {"bytes grow into a zero-filled buffer", [] { return bytes(fresh("abc", 4), "de", 2); }, "abcde", 5, 8},
    {"checked mode 1 cleans to UTF-8", [] { return checked(nullptr, "\xE4 ok", 1); }, "\xC3\xA4 ok", 5, 256},
    {"checked mode 0 gives Latin-1", [] { return checked(checked(nullptr, "\xE4 ok", 1), "|\xC3\xA4\xE2\x82\xAC", 0); },
     "\xC3\xA4 ok|\xE4?", 8, 256},
    // Checked appends reserve twice the text, though they store it once.
    {"0 + 14 fits in 15", [] { return checked(fresh("", 16), "1234567", 1); }, "1234567", 7, 16},
    {"7 + 2 fits", [] { return checked(checked(fresh("", 16), "1234567", 1), "8", 1); }, "12345678", 8, 16},
    {"0 + 16 does not fit, though 8 would", [] { return checked(fresh("", 16), "12345678", 1); }, "12345678", 8, 32},
    {"appendf formats and grows", [] { return upnp_string_appendf(fresh("ab", 4), "<%s|%d", "0123456789", 42); },
     "ab<0123456789|42", 16, 17},
};

TEST(UpnpString, AppendsGrowByDoublingOrExactFitIntoZeroFilledBuffers)
{
    for (const grow_case& c : grow_cases) {
        SCOPED_TRACE(c.name);
        upnp_string* s = c.run();
        ASSERT_NE(nullptr, s);
        ASSERT_EQ(std::make_tuple(c.length, c.capacity), std::make_tuple(s->length, s->capacity));
        std::string expected = std::string(c.text, size_t(c.length)) + std::string(size_t(c.capacity - c.length), '\0');
        EXPECT_EQ(expected, std::string(s->text, size_t(s->capacity)));
        upnp_string_free(s);
    }
}

// A record claiming nearly 2 GiB of text: growth must be refused before
// anything is allocated or copied.
TEST(UpnpString, GrowthPastTwoGibIsRefusedAndLeavesTheRecord)
{
    char small[8] = "abc";
    upnp_string fake = {INT32_MAX - 3, INT32_MAX - 2, small};
    EXPECT_EQ(std::make_tuple(&fake, &fake, &fake, &fake),
              std::make_tuple(add(&fake, "0123456789"), bytes(&fake, "0123456789", 10),
                              upnp_string_appendf(&fake, "%s", "0123456789"), checked(&fake, "0123456789", 1)));
    EXPECT_EQ(std::make_tuple(INT32_MAX - 3, INT32_MAX - 2, small, "abc"s),
              std::make_tuple(fake.length, fake.capacity, fake.text, std::string(small)));
}
