// Tests of the language tables: lookups with their fallbacks, the string
// files themselves, and the choice of the language from the environment.
#include "config/upnp_ini.h"
#include "config_test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using LangStart = ConfigStart;

std::string lang_take(char* text)
{
    std::string out = config_or_null(text);
    free(text);
    return out;
}

// A string file of the given lines, in the shipped form.
std::string lang_file(const std::string& lines)
{
    return config_utf16(lines);
}

TEST_F(LangStart, FindsTextAndHelpOfAKey)
{
    start();
    EXPECT_EQ("Server name", lang_take(upnp_lang_text("friendlyname")));
    EXPECT_EQ(0u, lang_take(upnp_lang_help("friendlyname")).find("The name players show"));
    EXPECT_EQ("Music", lang_take(upnp_lang_text("Music")));
    EXPECT_EQ("Music", lang_take(upnp_lang_text("rootmusic")));
}

TEST_F(LangStart, AMissGivesTheKeyAndALogLine)
{
    start();
    log_to_file();
    EXPECT_EQ("no such key", lang_take(upnp_lang_text("no such key")));
    EXPECT_EQ("nokey", lang_take(upnp_lang_help("nokey")));
    EXPECT_EQ("", lang_take(upnp_lang_text("")));
    EXPECT_EQ("<null>", lang_take(upnp_lang_text(nullptr)));
    EXPECT_NE(std::string::npos, log_text().find("SYSTEM:NO TRANSLATION FOR no such key\n"));
    EXPECT_NE(std::string::npos, log_text().find("SYSTEM:NO HELP FOR nokey\n"));
}

TEST_F(LangStart, WholeKeysOnly)
{
    start();
    // "name" is inside "|friendlyname|" but is not a key of its own.
    EXPECT_EQ("name", lang_take(upnp_lang_text("name")));
    EXPECT_EQ("Videos", lang_take(upnp_lang_text("Video")));
}

TEST_F(LangStart, TheLocalTableComesFirstThenEnglish)
{
    pin_language("de_DE.UTF-8");
    start();
    EXPECT_EQ("Servername", lang_take(upnp_lang_text("friendlyname")));
    ASSERT_NE(nullptr, upnp_lang_get_local());
    ASSERT_NE(nullptr, upnp_lang_get_en());
    // A German file that lacks a key falls back to English.
    ASSERT_TRUE(test_write_file(dir.file("resources/strings-xx.txt"), lang_file("|artist|Kunstler\r\n")));
    upnp_ini_set(UPNP_OPT_LANGUAGE, "xx");
    EXPECT_EQ("Kunstler", lang_take(upnp_lang_text("artist")));
    EXPECT_EQ("Server name", lang_take(upnp_lang_text("friendlyname")));
}

TEST_F(LangStart, AMissingStringFileFallsToEnglish)
{
    start();
    upnp_ini_set(UPNP_OPT_LANGUAGE, "fr");
    EXPECT_EQ(nullptr, upnp_lang_get_local());
    EXPECT_EQ("Server name", lang_take(upnp_lang_text("friendlyname")));
}

TEST_F(LangStart, ACodeThatWouldLeaveTheResourcesIsNotLoaded)
{
    start();
    ASSERT_EQ(0, mkdir(dir.file("resources/strings-..").c_str(), 0755));
    ASSERT_TRUE(test_write_file(dir.file("resources/strings-../evil.txt"), lang_file("|friendlyname|Evil\r\n")));
    for (const char* code : {"../evil", "de/../de", "a b", "x\\y"}) {
        SCOPED_TRACE(code);
        upnp_ini_set(UPNP_OPT_LANGUAGE, code);
        EXPECT_EQ(nullptr, upnp_lang_get_local());
        EXPECT_EQ("Server name", lang_take(upnp_lang_text("friendlyname")));
    }
}

struct decode_case {
    const char* name;
    std::string bytes;
    const char* text;    // what "k" looks up to; null: no usable table
};

using namespace std::string_literals;

const decode_case decode_cases[] = {
    {"the last unit gives way to the terminator", config_utf16("|k|abc\r\n"), "abc"},
    {"without a final line end the last character is lost", config_utf16("|k|abc"), "ab"},
    {"text ends at the first control character", config_utf16("|k|ab\tc\r\n"), "ab"},
    {"no mark, no table", config_utf16("|k|abc\r\n", false), nullptr},
    {"odd length", config_utf16("|k|abc\r\n") + "x", "abc"},
    {"a mark alone", "\xFF\xFE"s, nullptr},
    {"a mark and one unit", "\xFF\xFEx\0"s, nullptr},
    {"non-ASCII", config_utf16("|k|Größe ☃\r\n"), "Größe ☃"},
};

TEST_F(LangStart, StringFilesAreUtf16BehindTheirMark)
{
    start();
    for (const decode_case& c : decode_cases) {
        SCOPED_TRACE(c.name);
        upnp_ini_set(UPNP_OPT_LANGUAGE, "en");
        ASSERT_TRUE(test_write_file(dir.file("resources/strings-xx.txt"), c.bytes));
        upnp_ini_set(UPNP_OPT_LANGUAGE, "xx");
        // Without a table the lookup falls through to the key itself.
        EXPECT_EQ(c.text ? c.text : "k", lang_take(upnp_lang_text("k")));
    }
}

TEST_F(LangStart, ALongTextIsCutAt1023BytesOnACharacterBoundary)
{
    start();
    std::string ascii(3000, 'a'), umlauts;
    for (int i = 0; i < 600; i++)
        umlauts += "ä";    // two bytes each: byte 1023 is the middle of one
    ASSERT_TRUE(test_write_file(dir.file("resources/strings-xx.txt"),
                                lang_file("|a|" + ascii + "\r\n|u|" + umlauts + "\r\n")));
    upnp_ini_set(UPNP_OPT_LANGUAGE, "xx");
    EXPECT_EQ(std::string(1023, 'a'), lang_take(upnp_lang_text("a")));
    EXPECT_EQ(umlauts.substr(0, 1022), lang_take(upnp_lang_text("u")));
}

// The ini comments, the RPC's translations and the navigation names look
// these keys up; each must have a text and a help line in every language.
TEST(LangFiles, EveryKeyHasTextAndHelpInEveryLanguage)
{
    std::vector<std::string> keys = {"Music", "Picture", "Video", "artist", "genre", "album", "folder", "year",
                                     "date", "genreindex", "artistindex", "station", "title", "composer", "rating"};
    for (int32_t id = 0; id < UPNP_OPT_END; id++)
        if (const char* name = upnp_ini_get_name(id))
            keys.push_back(name);
    ASSERT_EQ(85u, keys.size());
    for (const char* language : {"en", "de"}) {
        std::string text = config_from_utf16(
            test_read_file(std::string(VELMORA_SOURCE_DIR "/resources/strings-") + language + ".txt"));
        ASSERT_FALSE(text.empty()) << language;
        EXPECT_EQ("\r\n", text.substr(text.size() - 2)) << language;   // the loader drops the last unit
        for (const std::string& key : keys) {
            SCOPED_TRACE(std::string(language) + " " + key);
            size_t line = text.find("|" + key + "|");
            ASSERT_NE(std::string::npos, line);
            EXPECT_TRUE(line == 0 || text[line - 1] == '\n');
            EXPECT_NE(std::string::npos, text.find("\n|" + key + "?"));
        }
    }
}

// Folder names become part of node definitions, which commas separate.
TEST(LangFiles, FolderNamesHoldNoComma)
{
    const char* keys[] = {"allname", "alltracks", "Music", "Picture", "Video", "artist", "genre", "album", "folder",
                          "year", "date", "genreindex", "artistindex", "station", "title", "composer", "rating"};
    for (const char* language : {"en", "de"}) {
        std::string text = config_from_utf16(
            test_read_file(std::string(VELMORA_SOURCE_DIR "/resources/strings-") + language + ".txt"));
        for (const char* key : keys) {
            SCOPED_TRACE(std::string(language) + " " + key);
            size_t at = text.find(std::string("|") + key + "|");
            ASSERT_NE(std::string::npos, at);
            std::string name = text.substr(at, text.find('\r', at) - at);
            EXPECT_EQ(std::string::npos, name.find(','));
        }
    }
}

// ---- The system language -------------------------------------------------

struct locale_case {
    const char* lc_all;
    const char* lc_messages;
    const char* lang;
    const char* code;
};

const locale_case locale_cases[] = {
    {nullptr, nullptr, "de_DE.UTF-8", "de"},
    {nullptr, nullptr, "fr_FR", "fr"},
    {nullptr, nullptr, "pt_BR.utf8", "pt"},
    {nullptr, nullptr, "sr_RS@latin", "sr"},
    {nullptr, nullptr, "ja", "ja"},
    {nullptr, nullptr, "DE_de", "de"},
    {nullptr, nullptr, "C", "en"},
    {nullptr, nullptr, "C.UTF-8", "en"},
    {nullptr, nullptr, "POSIX", "en"},
    {nullptr, nullptr, "", "en"},
    {nullptr, nullptr, "xx_YY", "en"},        // not in the table
    {nullptr, nullptr, "en_NZ.UTF-8", "em"},  // what New Zealand has always mapped to
    {nullptr, nullptr, "en_GB.UTF-8", "en"},
    {nullptr, nullptr, "nb_NO.UTF-8", "no"},
    {nullptr, nullptr, "iw_IL", "he"},
    {nullptr, nullptr, "ast_ES", "en"},
    {nullptr, nullptr, "d_", "en"},
    {"fr_FR", "it_IT", "de_DE", "fr"},        // LC_ALL first
    {"", "it_IT", "de_DE", "it"},             // an empty one is skipped
    {nullptr, "", "de_DE", "de"},
};

TEST(LangSystem, TheFirstLocaleVariableSetGivesTheCode)
{
    const char* names[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    std::string saved[3];
    bool had[3];
    for (int i = 0; i < 3; i++) {
        const char* v = getenv(names[i]);
        had[i] = v != nullptr;
        saved[i] = v ? v : "";
    }
    for (const locale_case& c : locale_cases) {
        SCOPED_TRACE(testing::Message() << config_or_null(c.lc_all) << " " << config_or_null(c.lc_messages) << " "
                                        << config_or_null(c.lang));
        const char* values[] = {c.lc_all, c.lc_messages, c.lang};
        for (int i = 0; i < 3; i++)
            values[i] ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
        EXPECT_STREQ(c.code, upnp_lang_system_code());
    }
    for (int i = 0; i < 3; i++)
        had[i] ? setenv(names[i], saved[i].c_str(), 1) : unsetenv(names[i]);
}

}  // namespace
