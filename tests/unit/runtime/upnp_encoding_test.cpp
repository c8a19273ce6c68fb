// Tests of the encoding conversions: UTF-8, UTF-16, the bounded forms, Latin-1 and Shift-JIS.
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

// Owns a malloc'd result and gives it as a std::string ("<null>" for null).
static std::string take(char* text)
{
    std::string out = text ? text : "<null>";
    free(text);
    return out;
}

// Which ways a row holds: the UTF-8 gives the units, the units give the UTF-8.
enum { TO_UTF16 = 1, TO_UTF8 = 2, BOTH = 3 };

struct utf8_case {
    int ways;
    const char* name;
    const char* utf8;
    std::vector<uint16_t> utf16;
};

static const utf8_case utf8_cases[] = {
    {BOTH, "ascii", "Abc", {'A', 'b', 'c'}}, {BOTH, "two bytes", "\xC3\xA9", {0xE9}},
    {BOTH, "three bytes", "\xE2\x82\xAC", {0x20AC}}, {BOTH, "highest", "\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
    {BOTH, "four bytes make a pair", "a\xF0\x9F\x8E\xB5z", {'a', 0xD83C, 0xDFB5, 'z'}},
    // Each byte that starts no whole, shortest, valid form becomes one U+FFFD.
    {TO_UTF16, "lone lead at the end", "a\xC3", {'a', 0xFFFD}}, {TO_UTF16, "overlong", "\xC0\xAF", {0xFFFD, 0xFFFD}},
    {TO_UTF16, "encoded surrogate", "\xED\xA0\x80", {0xFFFD, 0xFFFD, 0xFFFD}},
    {TO_UTF16, "stray continuation", "\x80x", {0xFFFD, 'x'}},
    // A surrogate without its partner becomes U+FFFD.
    {TO_UTF8, "lone high then a letter", "\xEF\xBF\xBD" "A", {0xD800, 'A'}},
    {TO_UTF8, "pair in the wrong order", "\xEF\xBF\xBD\xEF\xBF\xBD", {0xDE00, 0xD83D}},
};

TEST(UpnpEncoding, Utf8AndUtf16RoundTripAndInvalidInputBecomesReplacementCharacters)
{
    for (const utf8_case& c : utf8_cases) {
        SCOPED_TRACE(c.name);
        uint16_t* w = upnp_string_utf8_to_utf16(c.utf8);
        std::vector<uint16_t> units(w, w + (w ? upnp_wcslen(w) : 0)), terminated = c.utf16;
        free(w);
        terminated.push_back(0);
        if (c.ways & TO_UTF16) {
            EXPECT_EQ(c.utf16, units);
        }
        if (c.ways & TO_UTF8) {
            EXPECT_EQ(std::string(c.utf8), take(upnp_string_utf16_to_utf8(terminated.data())));
        }
    }
}

// Counted input has no terminator: the heap copies are exactly n long, so
// a read past them shows under the address sanitizer.
TEST(UpnpEncoding, CountedFormsStopAtTheCountAndNullInGivesNullOut)
{
    std::vector<char> bytes = {'a', '\xF0', '\x9F', '\x98', '\x80', 'b'};
    uint16_t* w = upnp_string_utf8_to_utf16_n(bytes.data(), 5);
    ASSERT_NE(nullptr, w);
    EXPECT_EQ((std::vector<uint16_t>{'a', 0xD83D, 0xDE00, 0}), std::vector<uint16_t>(w, w + 4));
    free(w);
    std::vector<uint16_t> units = {'x', 0xD83D, 0xDE00, 'y'};
    EXPECT_EQ(std::make_tuple(std::string("x\xEF\xBF\xBD"), std::string("x\xF0\x9F\x98\x80y")),
              std::make_tuple(take(upnp_string_utf16_to_utf8_n(units.data(), 2)),
                              take(upnp_string_utf16_to_utf8_n(units.data(), 4))));

    EXPECT_TRUE(!upnp_string_sjis_to_utf8(nullptr) && !upnp_string_latin1_to_utf8(nullptr)
                && !upnp_string_clean_utf8(nullptr) && !upnp_string_to_latin1(nullptr));
    EXPECT_EQ(std::make_tuple((uint16_t*)nullptr, (char*)nullptr, -1, -1),
              std::make_tuple(upnp_string_utf8_to_utf16(nullptr), upnp_string_utf16_to_utf8(nullptr),
                              upnp_string_utf8_to_wide(nullptr, nullptr, 0),
                              upnp_string_wide_to_utf8(nullptr, nullptr, 0)));
}

TEST(UpnpEncoding, WideFormsMeasureThenConvertNeverPastTheBufferNorSplittingACharacter)
{
    const char* text = "a\xF0\x9F\x98\x80";
    EXPECT_EQ(4, upnp_string_utf8_to_wide(text, nullptr, 0));
    uint16_t out[8] = {0x1111, 0x1111, 0x1111, 0x1111};
    EXPECT_TRUE(upnp_string_utf8_to_wide(text, out, 3) == 0 && upnp_string_utf8_to_wide("abc", out, 0) == 0);
    EXPECT_EQ((std::vector<uint16_t>{'a', 0, 0x1111, 0x1111}), std::vector<uint16_t>(out, out + 4));   // no half pair
    EXPECT_EQ(8, upnp_string_acp_to_wide(text, out, 8));
    EXPECT_EQ((std::vector<uint16_t>{'a', 0xD83D, 0xDE00, 0}), std::vector<uint16_t>(out, out + 4));
    const uint16_t wide[] = {'a', 0x20AC, 0};
    char bytes[8] = {'#', '#', '#', '#'};
    EXPECT_EQ(5, upnp_string_wide_to_utf8(wide, nullptr, 0));
    EXPECT_EQ(0, upnp_string_wide_to_utf8(wide, bytes, 3));
    EXPECT_EQ(std::string("a\0##", 4), std::string(bytes, 4));
    EXPECT_TRUE(upnp_string_wide_to_utf8(wide, bytes, 8) == 5 && bytes == std::string("a\xE2\x82\xAC")) << bytes;
}

struct convert_case { char* (*convert)(const char*); const char* name; const char* in; const char* out; };

static const convert_case convert_cases[] = {
    {upnp_string_latin1_to_utf8, "high half", "a\x80\xBF\xC0\xE4\xFF", "a\xC2\x80\xC2\xBF\xC3\x80\xC3\xA4\xC3\xBF"},
    {upnp_string_latin1_to_utf8, "empty gives null", "", "<null>"},
    {upnp_string_clean_utf8, "latin-1 lead without continuation", "\xE4 ", "\xC3\xA4 "},
    {upnp_string_clean_utf8, "valid two-byte form stays", "\xC3\xA4", "\xC3\xA4"},
    {upnp_string_clean_utf8, "five-byte form passes on purpose", "\xF8\x88\x80\x80\x80", "\xF8\x88\x80\x80\x80"},
    {upnp_string_clean_utf8, "stray continuation", "\x80", "\xC2\x80"},
    {upnp_string_clean_utf8, "0xFF never leads", "\xFF", "\xC3\xBF"},
    {upnp_string_clean_utf8, "empty", "", ""},
    {upnp_string_to_latin1, "C3 adds 0x40", "\xC3\xA4", "\xE4"},
    {upnp_string_to_latin1, "C2 copies", "\xC2\xA9", "\xA9"},
    {upnp_string_to_latin1, "three-byte form is one question mark", "\xE2\x82\xAC" "x", "?x"},
    {upnp_string_to_latin1, "four-byte form is one question mark", "\xF0\x9F\x98\x80" "y", "?y"},
    {upnp_string_to_latin1, "other two-byte leads are dropped", "\xC4\x80z", "z"},
    {upnp_string_sjis_to_utf8, "hiragana", "\x82\xA0", "\xE3\x81\x82"},
};

TEST(UpnpEncoding, ByteConvertersHandleEveryLeadShapeWithinTheText)
{
    for (const convert_case& c : convert_cases) {
        SCOPED_TRACE(c.name);
        char* exact = strdup(c.in);   // exactly sized, so an over-read shows
        EXPECT_EQ(std::string(c.out), take(c.convert(exact)));
        free(exact);
    }
    // A damaged pair in the middle costs only itself.
    std::string mixed = take(upnp_string_sjis_to_utf8("\x82\xA0\xA0\x82\xA0"));
    EXPECT_EQ(0u, mixed.find("\xE3\x81\x82"));
    EXPECT_NE(std::string::npos, mixed.find("\xE3\x81\x82", 3));
}

TEST(UpnpEncoding, MultibyteDetectorCountsHighBytes)
{
    struct multibyte_case { const char* text; int expected; };
    static const multibyte_case cases[] = {
        {"abc\x9F", 1}, {"abc", 0}, {"\xA0\xA0z", 1}, {"\xA0zz", 0},   // a Shift-JIS lead decides at once
        {"\xA0\xA0zz", 0}, {"\x80\x80\xA0", 0}, {nullptr, 0},   // exactly half is not above; 128 counts for neither
    };
    for (const multibyte_case& c : cases)
        EXPECT_EQ(c.expected, upnp_string_is_multibyte(c.text)) << (c.text ? c.text : "(null)");
}
