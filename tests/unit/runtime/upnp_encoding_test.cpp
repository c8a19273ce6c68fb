// Tests of the encoding conversions: UTF-8 and UTF-16 both ways with
// surrogate pairs and invalid input, the bounded buffer forms, Latin-1,
// the cleaning of mixed text, Shift-JIS detection and conversion.
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

static std::vector<uint16_t> wide_of(const char* utf8)
{
    uint16_t* w = upnp_string_utf8_to_utf16(utf8);
    std::vector<uint16_t> units;
    for (int32_t i = 0; w && w[i]; i++)
        units.push_back(w[i]);
    free(w);
    return units;
}

static std::string utf8_of(std::vector<uint16_t> units)
{
    units.push_back(0);
    char* t = upnp_string_utf16_to_utf8(units.data());
    std::string out = t ? t : "<null>";
    free(t);
    return out;
}

// Owns a malloc'd result and gives it as a std::string ("<null>" for null).
static std::string take(char* text)
{
    std::string out = text ? text : "<null>";
    free(text);
    return out;
}

struct utf8_case {
    const char* name;
    const char* utf8;
    std::vector<uint16_t> utf16;
};

static const utf8_case valid_cases[] = {
    {"ascii", "Abc", {'A', 'b', 'c'}},
    {"two bytes", "\xC3\xA9", {0xE9}},
    {"three bytes", "\xE2\x82\xAC", {0x20AC}},
    {"four bytes make a pair", "\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
    {"highest code point", "\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
    {"mixed", "a\xF0\x9F\x8E\xB5z", {'a', 0xD83C, 0xDFB5, 'z'}},
};

TEST(UpnpEncoding, Utf8AndUtf16RoundTrip)
{
    for (const utf8_case& c : valid_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.utf16, wide_of(c.utf8));
        EXPECT_EQ(std::string(c.utf8), utf8_of(c.utf16));
    }
}

static const utf8_case invalid_cases[] = {
    {"lone lead at the end", "a\xC3", {'a', 0xFFFD}},
    {"cut three-byte form", "\xE2\x82", {0xFFFD, 0xFFFD}},
    {"overlong slash", "\xC0\xAF", {0xFFFD, 0xFFFD}},
    {"encoded surrogate", "\xED\xA0\x80", {0xFFFD, 0xFFFD, 0xFFFD}},
    {"past U+10FFFF", "\xF4\x90\x80\x80", {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD}},
    {"stray continuation", "\x80x", {0xFFFD, 'x'}},
    {"five-byte form", "\xF8\x88\x80\x80\x80", {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD}},
};

TEST(UpnpEncoding, InvalidUtf8BecomesReplacementCharacters)
{
    for (const utf8_case& c : invalid_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.utf16, wide_of(c.utf8));
    }
}

TEST(UpnpEncoding, UnpairedSurrogatesBecomeReplacementCharacters)
{
    EXPECT_EQ("\xEF\xBF\xBD" "A", utf8_of({0xD800, 'A'}));
    EXPECT_EQ("A\xEF\xBF\xBD", utf8_of({'A', 0xDC00}));
    EXPECT_EQ("\xEF\xBF\xBD", utf8_of({0xD83D}));
    EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD", utf8_of({0xDE00, 0xD83D}));
}

TEST(UpnpEncoding, NullInGivesNullOut)
{
    EXPECT_EQ(nullptr, upnp_string_utf8_to_utf16(nullptr));
    EXPECT_EQ(nullptr, upnp_string_utf16_to_utf8(nullptr));
    EXPECT_EQ(nullptr, upnp_string_sjis_to_utf8(nullptr));
    EXPECT_EQ(nullptr, upnp_string_latin1_to_utf8(nullptr));
    EXPECT_EQ(nullptr, upnp_string_clean_utf8(nullptr));
    EXPECT_EQ(nullptr, upnp_string_to_latin1(nullptr));
    EXPECT_EQ(-1, upnp_string_utf8_to_wide(nullptr, nullptr, 0));
    EXPECT_EQ(-1, upnp_string_acp_to_wide(nullptr, nullptr, 0));
    EXPECT_EQ(-1, upnp_string_wide_to_utf8(nullptr, nullptr, 0));
}

// Counted input has no terminator: the heap copies are exactly n long, so
// a read past them shows under the address sanitizer.
TEST(UpnpEncoding, CountedFormsStopAtTheCount)
{
    std::vector<char> bytes = {'a', '\xF0', '\x9F', '\x98', '\x80', 'b'};
    uint16_t* w = upnp_string_utf8_to_utf16_n(bytes.data(), 5);
    ASSERT_NE(nullptr, w);
    EXPECT_EQ(0x61, w[0]);
    EXPECT_EQ(0xD83D, w[1]);
    EXPECT_EQ(0xDE00, w[2]);
    EXPECT_EQ(0, w[3]);
    free(w);

    std::vector<uint16_t> units = {'x', 0xD83D, 0xDE00, 'y'};
    EXPECT_EQ("x\xEF\xBF\xBD", take(upnp_string_utf16_to_utf8_n(units.data(), 2)));
    EXPECT_EQ("x\xF0\x9F\x98\x80y", take(upnp_string_utf16_to_utf8_n(units.data(), 4)));
}

TEST(UpnpEncoding, WideFormsMeasureThenConvert)
{
    const char* text = "a\xF0\x9F\x98\x80";
    EXPECT_EQ(4, upnp_string_utf8_to_wide(text, nullptr, 0));
    uint16_t out[8];
    EXPECT_EQ(8, upnp_string_utf8_to_wide(text, out, 8));
    EXPECT_EQ(0xDE00, out[2]);
    EXPECT_EQ(0, out[3]);
    EXPECT_EQ(8, upnp_string_acp_to_wide(text, out, 8));

    const uint16_t wide[] = {'a', 0xE9, 0};
    EXPECT_EQ(4, upnp_string_wide_to_utf8(wide, nullptr, 0));
    char bytes[8];
    EXPECT_EQ(4, upnp_string_wide_to_utf8(wide, bytes, 8));
    EXPECT_STREQ("a\xC3\xA9", bytes);
}

TEST(UpnpEncoding, WideFormsNeverWritePastTheBufferNorSplitACharacter)
{
    uint16_t out[4] = {0x1111, 0x1111, 0x1111, 0x1111};
    EXPECT_EQ(0, upnp_string_utf8_to_wide("a\xF0\x9F\x98\x80", out, 3));
    EXPECT_EQ('a', out[0]);
    EXPECT_EQ(0, out[1]);             // the pair did not fit whole
    EXPECT_EQ(0x1111, out[3]);
    EXPECT_EQ(0, upnp_string_utf8_to_wide("abc", out, 0));
    EXPECT_EQ('a', out[0]);

    char bytes[4] = {'#', '#', '#', '#'};
    const uint16_t wide[] = {'a', 0x20AC, 0};
    EXPECT_EQ(0, upnp_string_wide_to_utf8(wide, bytes, 3));
    EXPECT_STREQ("a", bytes);
    EXPECT_EQ('#', bytes[3]);
}

TEST(UpnpEncoding, Latin1ToUtf8MapsTheHighHalf)
{
    EXPECT_EQ("a\xC2\x80\xC2\xBF\xC3\x80\xC3\xA4\xC3\xBF", take(upnp_string_latin1_to_utf8("a\x80\xBF\xC0\xE4\xFF")));
    EXPECT_EQ("<null>", take(upnp_string_latin1_to_utf8("")));
}

struct byte_case {
    const char* name;
    const char* in;
    const char* out;
};

static const byte_case clean_cases[] = {
    {"latin-1 lead without continuation", "\xE4 ", "\xC3\xA4 "},
    {"valid two-byte form stays", "\xC3\xA4", "\xC3\xA4"},
    {"valid three-byte form stays", "\xE2\x82\xAC", "\xE2\x82\xAC"},
    {"five-byte form passes on purpose", "\xF8\x88\x80\x80\x80", "\xF8\x88\x80\x80\x80"},
    {"six-byte form passes on purpose", "\xFC\x84\x80\x80\x80\x80", "\xFC\x84\x80\x80\x80\x80"},
    {"cut form at the end", "ab\xE2\x82", "ab\xC3\xA2\xC2\x82"},
    {"stray continuation", "\x80", "\xC2\x80"},
    {"0xFF never leads", "\xFF", "\xC3\xBF"},
    {"empty", "", ""},
};

TEST(UpnpEncoding, CleanUtf8KeepsSequencesAndConvertsTheRest)
{
    for (const byte_case& c : clean_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(std::string(c.out), take(upnp_string_clean_utf8(c.in)));
    }
}

static const byte_case latin1_cases[] = {
    {"ascii", "abc", "abc"},
    {"C3 adds 0x40", "\xC3\xA4", "\xE4"},
    {"C2 copies", "\xC2\xA9", "\xA9"},
    {"three-byte form is one question mark", "\xE2\x82\xAC" "x", "?x"},
    {"four-byte form is one question mark", "\xF0\x9F\x98\x80" "y", "?y"},
    {"other two-byte leads are dropped", "\xC4\x80z", "z"},
    {"C3 at the end stops", "a\xC3", "a"},
    {"three-byte lead at the end stops", "a\xE2", "a?"},
    {"six-byte lead near the end stops", "\xFC\x80", "?"},
};

TEST(UpnpEncoding, ToLatin1FollowsLeadBytesButStopsAtTheEnd)
{
    for (const byte_case& c : latin1_cases) {
        SCOPED_TRACE(c.name);
        char* exact = strdup(c.in);   // exactly sized, so an over-read shows
        EXPECT_EQ(std::string(c.out), take(upnp_string_to_latin1(exact)));
        free(exact);
    }
}

struct multibyte_case {
    const char* text;
    int expected;
};

static const multibyte_case multibyte_cases[] = {
    {"\x82\xA0", 1},       // a Shift-JIS lead byte decides at once
    {"abc\x9F", 1},
    {"abc", 0},
    {"\xA0\xA0z", 1},      // two of three bytes are high
    {"\xA0zz", 0},
    {"\xA0\xA0zz", 0},     // exactly half is not above half
    {"\x80\x80\xA0", 0},   // 128 counts for neither side
    {"", 0},
};

TEST(UpnpEncoding, MultibyteDetectorCountsHighBytes)
{
    for (const multibyte_case& c : multibyte_cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(c.expected, upnp_string_is_multibyte(c.text));
    }
    EXPECT_EQ(0, upnp_string_is_multibyte(nullptr));
}

TEST(UpnpEncoding, ShiftJisConvertsCodePage932)
{
    EXPECT_EQ("\xE3\x81\x82", take(upnp_string_sjis_to_utf8("\x82\xA0")));
    EXPECT_EQ("\xE3\x83\x86\xE3\x82\xB9\xE3\x83\x88", take(upnp_string_sjis_to_utf8("\x83\x65\x83\x58\x83\x67")));
    EXPECT_EQ("\xE2\x91\xA0", take(upnp_string_sjis_to_utf8("\x87\x40")));   // only in 932
    EXPECT_EQ("abc", take(upnp_string_sjis_to_utf8("abc")));
}

TEST(UpnpEncoding, ShiftJisDamageKeepsTheReadablePart)
{
    EXPECT_EQ("a\xEF\xBF\xBD", take(upnp_string_sjis_to_utf8("a\x82")));
    std::string mixed = take(upnp_string_sjis_to_utf8("\x82\xA0\xA0\x82\xA0"));
    EXPECT_EQ(0u, mixed.find("\xE3\x81\x82"));
    EXPECT_NE(std::string::npos, mixed.find("\xE3\x81\x82", 3));
}
