// The language tables, the string files and the language from the environment.
#include "config/upnp_ini.h"
#include "config_test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using LangStart = ConfigStart;
using namespace std::string_literals;

std::string lang_take(char* text) { std::string out = config_or_null(text); return free(text), out; }

// "xx" has only an artist; "name" is inside "|friendlyname|" but is no key.
const struct { const char* language; char* (*lookup)(const char*); const char *key, *found; } lookup_cases[] = {
    {"en", upnp_lang_text, "friendlyname", "Server name"}, {"en", upnp_lang_help, "friendlyname", "Names it"},
    {"en", upnp_lang_text, "name", "name"}, {"en", upnp_lang_text, "no such key", "no such key"},
    {"en", upnp_lang_help, "nokey", "nokey"}, {"en", upnp_lang_text, "", ""},
    {"en", upnp_lang_text, nullptr, "<null>"}, {"de", upnp_lang_text, "friendlyname", "Servername"},
    {"xx", upnp_lang_text, "artist", "Kunstler"}, {"xx", upnp_lang_text, "friendlyname", "Server name"},
};

TEST_F(LangStart, LookupsTryTheLocalTableThenEnglishThenGiveTheKey)
{
    write_strings("en", "|friendlyname|Server name\r\n|friendlyname?Names it\r\n");
    write_strings("de", "|friendlyname|Servername\r\n");
    write_strings("xx", "|artist|Kunstler\r\n");
    ASSERT_EQ(0, mkdir(dir.file("resources/strings-..").c_str(), 0755));
    ASSERT_TRUE(test_write_file(dir.file("resources/strings-../evil.txt"), config_utf16("|friendlyname|Evil\r\n")));
    start();
    for (const auto& c : lookup_cases) {
        SCOPED_TRACE(std::string(c.language) + " " + config_or_null(c.key));
        upnp_ini_set(UPNP_OPT_LANGUAGE, c.language);
        EXPECT_EQ(c.found, lang_take(c.lookup(c.key)));
        ASSERT_NE(nullptr, upnp_lang_get_en());
        EXPECT_EQ(strcmp(c.language, "en") != 0, upnp_lang_get_local() != nullptr);
    }
    // No such file, or a code that would leave the resources folder: no table.
    for (const char* code : {"fr", "../evil", "de/../de", "a b", "x\\y"}) {
        upnp_ini_set(UPNP_OPT_LANGUAGE, code);
        EXPECT_EQ(nullptr, upnp_lang_get_local()) << code;
        EXPECT_EQ("Server name", lang_take(upnp_lang_text("friendlyname"))) << code;
    }
}

std::string lang_umlauts(int count)
{
    std::string out;
    for (int i = 0; i < count; i++)
        out += "ä";
    return out;
}

// bytes: the file "strings-xx.txt"; text: what "k" looks up to, which is
// "k" itself without a usable table.
const struct { const char* name; std::string bytes, text; } decode_cases[] = {
    {"the last unit gives way to the terminator", config_utf16("|k|abc\r\n"), "abc"},
    {"text ends at the first control character", config_utf16("|k|ab\tc\r\n"), "ab"},
    {"no mark, no table", config_utf16("|k|abc\r\n", false), "k"},
    {"odd length", config_utf16("|k|abc\r\n") + "x", "abc"}, {"a mark alone", "\xFF\xFE"s, "k"},
    {"a mark and one unit", "\xFF\xFEx\0"s, "k"},
    {"a long text is cut at 1023 bytes", config_utf16("|k|" + std::string(3000, 'a') + "\r\n"), std::string(1023, 'a')},
    {"on a character boundary", config_utf16("|k|" + lang_umlauts(600) + "\r\n"), lang_umlauts(511)},
};

TEST_F(LangStart, StringFilesAreUtf16BehindTheirMark)
{
    start();
    for (const auto& c : decode_cases) {
        SCOPED_TRACE(c.name);
        upnp_ini_set(UPNP_OPT_LANGUAGE, "en");
        ASSERT_TRUE(test_write_file(dir.file("resources/strings-xx.txt"), c.bytes));
        upnp_ini_set(UPNP_OPT_LANGUAGE, "xx");
        EXPECT_EQ(c.text, lang_take(upnp_lang_text("k")));
    }
}

// LC_ALL, LC_MESSAGES, LANG (null: unset) and the code they give.
const struct { const char *lc_all, *lc_messages, *lang, *code; } locale_cases[] = {
    {nullptr, nullptr, "de_DE.UTF-8", "de"}, {nullptr, nullptr, "ja", "ja"}, {nullptr, nullptr, "DE_de", "de"},
    {nullptr, nullptr, "C.UTF-8", "en"}, {nullptr, nullptr, "POSIX", "en"}, {nullptr, nullptr, "ast_ES", "en"},
    {nullptr, nullptr, "", "en"}, {nullptr, nullptr, "xx_YY", "en"} /* not in the table */,
    {nullptr, nullptr, "en_NZ.UTF-8", "em"} /* what New Zealand has always mapped to */,
    {"fr_FR", "it_IT", "de_DE", "fr"} /* LC_ALL first */, {"", "it_IT", "de_DE", "it"} /* an empty one is skipped */,
    {nullptr, "", "de_DE", "de"},
};

TEST(LangSystem, TheFirstLocaleVariableSetGivesTheCode)
{
    config_locale keep;
    for (const auto& c : locale_cases) {
        SCOPED_TRACE(testing::Message() << config_or_null(c.lc_all) << " " << config_or_null(c.lc_messages) << " "
                                        << config_or_null(c.lang));
        config_locale::set(c.lc_all, c.lc_messages, c.lang);
        EXPECT_STREQ(c.code, upnp_lang_system_code());
    }
}

}  // namespace
