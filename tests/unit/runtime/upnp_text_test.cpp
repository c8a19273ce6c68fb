// Tests of the stateless text tools: search, folding, numbers, durations, Base64 and titles.
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

using namespace std::string_literals;

static std::string take(char* text)
{
    std::string out = text ? text : "<null>";
    free(text);
    return out;
}

TEST(UpnpText, StristrFindsHeadersWithoutRegardToCase)
{
    const char* head = "M-SEARCH * HTTP/1.1\r\nHost: 239.255.255.250:1900\r\n";
    EXPECT_EQ(head + 20, upnp_stristr(head, "\nHOST"));
    EXPECT_EQ(std::make_tuple((const char*)nullptr, (const char*)nullptr, (const char*)nullptr),
              std::make_tuple(upnp_stristr(head, "\nMAN"), upnp_stristr("ho", "host"), upnp_stristr(nullptr, "a")));
}

// Latin-1 letters written in UTF-8 sort among their ASCII letters; the ring
// letter sorts with Z.
TEST(UpnpText, FoldedCompareIgnoresCaseFoldsLettersAndOrdersByLength)
{
    struct fold_case { int first, next, expected; };
    static const fold_case folds[] = {
        {0xC3, 0x80, 'A'}, {0xC3, 0xA4, 'A'}, {0xC3, 0x86, 'A'}, {0xC3, 0x85, 'Z'}, {0xC3, 0xA5, 'Z'},
        {0xC3, 0xB8, 'O'}, {0xC3, 0xBC, 'U'}, {0xC3, 0x9F, 0xC3}, {0xC3, 0x90, 0xC3},     // sharp s and eth stay
        {0xC3, 0xBD, 0xC3}, {0xC2, 0xA9, 0xC2}, {'a', 0xA4, 'a'},   // past the range, no letter
    };
    for (const fold_case& c : folds)
        EXPECT_EQ(c.expected, upnp_fold_char(c.first, c.next)) << c.next;
    struct compare_case { const char* a; const char* b; int sign; };
    static const compare_case cases[] = {
        {"\xC3\x85se", "Yacht", 1}, {"\xC3\x85se", "Zebra", -1}, {"\xC3\x85se", "Apple", 1},
        {"\xC3\xA4rger", "B", -1}, {"abc", "ABC", 0}, {"ab", "abc", -1}, {"abc", "ab", 1},
        {"\xE2\x82\xAC", "a", -1},                                 // bytes compare signed
        {nullptr, nullptr, 0}, {nullptr, "a", -1}, {"a", nullptr, 1},
    };
    for (const compare_case& c : cases) {
        int result = upnp_strcmp_folded(c.a, c.b);
        EXPECT_EQ(c.sign, c.a && c.b ? (result > 0) - (result < 0) : result) << (c.a ? c.a : "(null)") << " vs "
                                                                              << (c.b ? c.b : "(null)");
    }
}

TEST(UpnpText, LenientNumberReadersClampAndTheBoundedWriterCuts)
{
    EXPECT_EQ(std::make_tuple(-12l, 0l, 0l, INT64_MAX, INT64_MIN),   // past the range: clamped, not wrapped
              std::make_tuple(upnp_atoi64("+-12x"), upnp_atoi64("-+1"), upnp_atoi64(nullptr),
                              upnp_atoi64("99999999999999999999"), upnp_atoi64("-99999999999999999999")));
    EXPECT_EQ(std::make_tuple(4000000000u, UINT32_MAX),
              std::make_tuple(upnp_atou("4000000000 bytes"), upnp_atou("4294967296")));
    const uint16_t wide[] = {'a', 0xD83D, 0xDE00, 0};
    EXPECT_EQ(std::make_tuple(3, 0), std::make_tuple(upnp_wcslen(wide), upnp_wcslen(nullptr)));
    EXPECT_EQ(std::make_tuple(10, 15, -1, 0), std::make_tuple(upnp_hex_digit('a'), upnp_hex_digit('F'),
                                                              upnp_hex_digit('g'), upnp_hex_digit0('g')));
    EXPECT_EQ(std::make_tuple(0x1Fl, 0x12345678l, -1l), std::make_tuple(upnp_hex_to_i64("1fZ9", 8),
              upnp_hex8_to_i64("123456789"), upnp_hex_to_i64("ffffffffffffffff", 16)));
    char a[8], b[8];
    int na = upnp_i64_to_string(-42, a, sizeof a), nb = upnp_i64_to_string(1234567890, b, sizeof b);
    EXPECT_EQ(std::make_tuple(3, "-42"s, 7, "1234567"s, 0), std::make_tuple(na, a, nb, b, upnp_i64_to_string(1, a, 0)));
}

// Each row: the text's counted bytes, then what the unsigned and the signed
// parser make of them (ok 0: the output is left as it was).
TEST(UpnpText, WholeFieldParsersTakePlainDigitsThatFitAndTheSignedOneSign)
{
    struct parse_case { const char* text; size_t length; int u_ok; uint64_t u; int i_ok; int64_t i; };
    static const parse_case cases[] = {
        {"0", 1, 1, 0, 1, 0}, {"007", 3, 1, 7, 1, 7}, {"-0", 2, 0, 0, 1, 0}, {"+7", 2, 0, 0, 1, 7},
        {"-42", 3, 0, 0, 1, -42}, {"9223372036854775807", 19, 1, INT64_MAX, 1, INT64_MAX},
        {"9223372036854775808", 19, 1, 9223372036854775808u, 0, 0}, {"-9223372036854775808", 20, 0, 0, 1, INT64_MIN},
        {"-9223372036854775809", 20, 0, 0, 0, 0}, {"18446744073709551615", 20, 1, UINT64_MAX, 0, 0},
        {"18446744073709551616", 20, 0, 0, 0, 0}, {"99999999999999999999", 20, 0, 0, 0, 0},   // one past, far past
        {"", 0, 0, 0, 0, 0}, {"-", 1, 0, 0, 0, 0}, {"+-1", 3, 0, 0, 0, 0}, {" 1", 2, 0, 0, 0, 0},
        {"1 ", 2, 0, 0, 0, 0}, {"12a", 3, 0, 0, 0, 0}, {"1\0" "2", 3, 0, 0, 0, 0}, {nullptr, 3, 0, 0, 0, 0},
        {"12a", 2, 1, 12, 1, 12}, {"-1x", 2, 0, 0, 1, -1},   // only the counted bytes are read
    };
    for (const parse_case& c : cases) {
        uint64_t u = 12345;
        int64_t i = 12345;
        int u_ok = upnp_parse_u64(c.text, c.length, &u), i_ok = upnp_parse_i64(c.text, c.length, &i);
        EXPECT_EQ(std::make_tuple(c.u_ok, c.u_ok ? c.u : 12345u, c.i_ok, c.i_ok ? c.i : 12345),
                  std::make_tuple(u_ok, u, i_ok, i)) << (c.text ? std::string(c.text, c.length) : "(null)");
    }
}

TEST(UpnpText, FieldMeasuresCountOnlyTheLeadingNumber)
{
    struct run_case { const char* text; size_t limit; size_t digits; size_t field; size_t skipped; };
    static const run_case cases[] = {
        {"123abc", SIZE_MAX, 3, 3, 0}, {"123", 2, 2, 3, 0}, {"", SIZE_MAX, 0, 0, 0}, {"x1", SIZE_MAX, 0, 0, 0},
        {" \t-12:", SIZE_MAX, 0, 3, 2}, {"+5", SIZE_MAX, 0, 2, 0}, {"- 5", SIZE_MAX, 0, 0, 0},
        {nullptr, SIZE_MAX, 0, 0, 0},
    };
    for (const run_case& c : cases) {
        const char* start = nullptr;
        size_t field = upnp_atoi_field(c.text, &start);
        EXPECT_EQ(std::make_tuple(c.digits, c.field, c.skipped),
                  std::make_tuple(upnp_digit_run(c.text, c.limit), field, c.text ? size_t(start - c.text) : 0))
            << (c.text ? c.text : "(null)");
    }
}

TEST(UpnpText, DurationsUseTheShortFormAndReadColonSeparatedFields)
{
    EXPECT_EQ(std::make_tuple("1:02:03"s, "1:02:03.500"s, "0:00:00.007"s, 14ul),   // the last cut to the old buffer
              std::make_tuple(take(upnp_time_from_ms(3723000)), take(upnp_time_from_ms(3723500)),
                              take(upnp_time_from_ms(7)), take(upnp_time_from_ms(INT64_MAX)).size()));
    struct duration_case { const char* text; int64_t ms; };
    static const duration_case cases[] = {
        {"1:02:03", 3723000}, {"1:02:03.500", 3723000},   // a fraction of the seconds is dropped
        {"0:00:01:250", 1250}, {"2", 7200000}, {"0:5", 300000}, {"", 0}, {nullptr, 0},
        {"99999999999999999", INT64_MAX}, {"-99999999999999999999:0:0:1", INT64_MIN + 1},   // clamped
    };
    for (const duration_case& c : cases)
        EXPECT_EQ(c.ms, upnp_time_to_ms(c.text)) << (c.text ? c.text : "(null)");
}

TEST(UpnpText, Base64AndPathTitlesTakeTheirFixedForms)
{
    struct made_case { char* (*make)(const char*); const char* in; const char* out; };
    static const made_case cases[] = {
        // Base64 pads one-byte tails but not two-byte tails.
        {upnp_base64_encode, "ab", "YWI"}, {upnp_base64_encode, "Aladdin:open sesame", "QWxhZGRpbjpvcGVuIHNlc2FtZQ=="},
        {upnp_base64_encode, "\xFF\x80", "/4A"}, {upnp_base64_encode, "", ""}, {upnp_base64_encode, nullptr, "<null>"},
        // A title from a path is the name without its extension.
        {upnp_title_from_path, "/m/C:\\Music\\song.mp3", "C:\\Music\\song"}, {upnp_title_from_path, "/srv/a.b/track.flac", "track"},
        {upnp_title_from_path, "dir\\sub/x.y.z", "x.y"}, {upnp_title_from_path, "/music/.mp3", "No Title"},
        {upnp_title_from_path, "noext", "noext"}, {upnp_title_from_path, nullptr, "<null>"},
    };
    for (const made_case& c : cases)
        EXPECT_EQ(std::string(c.out), take(c.make(c.in))) << (c.in ? c.in : "(null)");
}

TEST(UpnpText, TitleAdaptCapitalisesWordsAndMovesTheArticleOnlyWhenSwitchedOn)
{
    struct title_case { const char* in; const char* out; };
    static const title_case cases[] = {
        {"the dark side of the moon", "Dark Side Of The Moon, The"}, {"DER TUNNEL", "Tunnel, Der"},
        {"rocky ii", "Rocky II"}, {"mix", "Mix"}, {"part xiv-b", "Part Xiv-B"},   // only a blank ends a Roman word
        {"love/hate (live)", "Love/Hate (Live)"}, {"\xC3\xA9T\xC3\x89 AC/DC", "\xC3\xA9t\xC3\x89 Ac/Dc"},
        {"theme", "Theme"},                        // no article without its blank
    };
    for (const title_case& c : cases) {
        std::string in = c.in;
        EXPECT_EQ(std::string(c.out), take(upnp_title_adapt(in.data(), 1))) << c.in;
    }
    char text[] = "the wall";
    EXPECT_EQ(std::make_tuple("the wall"s, (char*)nullptr, ""s), std::make_tuple(take(upnp_title_adapt(text, 0)),
              upnp_title_adapt(nullptr, 1), take(upnp_title_adapt(text + 8, 1))));
    EXPECT_EQ("Wall, The", take(upnp_title_adapt(text, 1)));
    EXPECT_STREQ("The Wall", text);             // rewritten in place
}
