// Tests of the option store: lookups, the rules of a set, the ini file's
// bytes and round trip, hostile ini files, the start-up load and the
// command line.
#include "config/upnp_ini.h"
#include "config_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <unistd.h>

namespace {

using IniStart = ConfigStart;
using IniStartDeathTest = ConfigStart;
using namespace std::string_literals;

std::map<int32_t, std::string> ini_snapshot()
{
    std::map<int32_t, std::string> all;
    for (int32_t id = 0; id < UPNP_OPT_END; id++)
        if (upnp_ini_get_name(id))
            all[id] = config_or_null(upnp_ini_get_string(id));
    return all;
}

// ---- Lookups -------------------------------------------------------------

TEST_F(IniStart, FindsNamesWithoutRegardToCase)
{
    start();
    EXPECT_EQ(UPNP_OPT_FRIENDLYNAME, upnp_ini_find("FriendlyName"));
    EXPECT_EQ(UPNP_OPT_MUSICNODE10, upnp_ini_find("musicnode10"));
    EXPECT_EQ(UPNP_OPT_END, upnp_ini_find("friendlyname "));   // blanks are part of the name
    EXPECT_EQ(UPNP_OPT_END, upnp_ini_find(""));
    EXPECT_EQ(UPNP_OPT_END, upnp_ini_find(nullptr));
    EXPECT_STREQ("musicnode10", upnp_ini_get_name(25));
}

TEST_F(IniStart, NumbersWithoutARowReadAsNothingAndIgnoreSets)
{
    start();
    for (int32_t id : {11, 16, 17, 23, 74, -1, 1000}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(0, upnp_ini_set(id, "x"));
        EXPECT_EQ(nullptr, upnp_ini_get_string(id));
        EXPECT_EQ(nullptr, upnp_ini_get_name(id));
        EXPECT_EQ(0, upnp_ini_get_int(id));
        EXPECT_EQ(nullptr, upnp_ini_get_item(id, 0));
    }
    EXPECT_EQ(70, int(ini_snapshot().size()));
}

TEST_F(IniStart, ReadsIntegersAsAtoiDoesWithoutOverflow)
{
    start();
    const struct { const char* text; int32_t value; } cases[] = {
        {"42", 42}, {"-1", -1}, {"12abc", 12}, {"abc", 0}, {" 7", 7},
        {"99999999999", INT32_MAX}, {"-99999999999", INT32_MIN},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        upnp_ini_set(UPNP_OPT_HTTPPORT, c.text);
        EXPECT_EQ(c.value, upnp_ini_get_int(UPNP_OPT_HTTPPORT));
        EXPECT_EQ(c.value != 0, upnp_ini_get_bool(UPNP_OPT_HTTPPORT) != 0);
    }
}

TEST_F(IniStart, SplitsListsAtCommasSkippingBlanksBehindThem)
{
    start();
    EXPECT_EQ(1, upnp_ini_set(UPNP_OPT_IGNOREDIR, " a,  b,,c , d"));
    const char* expected[] = {" a", "b", "", "c ", "d"};
    ASSERT_EQ(5, upnp_ini_get_item_count(UPNP_OPT_IGNOREDIR));
    for (int i = 0; i < 5; i++)
        EXPECT_STREQ(expected[i], upnp_ini_get_item(UPNP_OPT_IGNOREDIR, i));
    EXPECT_EQ(nullptr, upnp_ini_get_item(UPNP_OPT_IGNOREDIR, 5));
    EXPECT_EQ(nullptr, upnp_ini_get_item(UPNP_OPT_IGNOREDIR, -1));
    EXPECT_STREQ(" a,  b,,c , d", upnp_ini_get_string(UPNP_OPT_IGNOREDIR));
    // Options that are not lists have no items.
    EXPECT_EQ(nullptr, upnp_ini_get_item(UPNP_OPT_STREAMBUFFER, 0));
}

// ---- The rules of a set --------------------------------------------------

struct set_case {
    int32_t id;
    const char* before;    // null: unset first
    const char* value;
    int32_t result;
    const char* after;     // null: unset afterwards
};

const set_case set_cases[] = {
    {UPNP_OPT_ENABLEWEB, "2", "", 0, "2"},            // never empty, so never unset either
    {UPNP_OPT_ENABLEWEB, "2", nullptr, 0, "2"},
    {UPNP_OPT_ENABLEWEB, "2", "3", 1, "3"},
    {UPNP_OPT_FRIENDLYNAME, "Box", "Box", 0, "Box"},  // the same value is no change
    {UPNP_OPT_FRIENDLYNAME, "Box", "Other", 1, "Other"},
    {UPNP_OPT_FRIENDLYNAME, nullptr, "Box", 1, "Box"},
    {UPNP_OPT_FRIENDLYNAME, "Box", nullptr, 1, nullptr},
    {UPNP_OPT_FRIENDLYNAME, nullptr, nullptr, 0, nullptr},
    {UPNP_OPT_FRIENDLYNAME, "Box", "", 0, nullptr},   // "" unsets but reports no change
    {UPNP_OPT_FRIENDLYNAME, "Box", "a\r\nip=1.2.3.4", 0, "Box"},   // would write a line of its own
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "Artist", 0, "A,%ARTIST"},  // nodes need a comma
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "Artist,%ARTIST", 1, "Artist,%ARTIST"},
    {UPNP_OPT_MUSICNODE1, nullptr, "Genre,[3]%GENRE", 1, "Genre,[3]%GENRE"},
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "A,B", 0, "A,%ARTIST"},
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "A,%ARTIST,ALBUM", 0, "A,%ARTIST"},   // the last level counts
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "A,", 0, "A,%ARTIST"},
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "", 0, nullptr},
    {UPNP_OPT_MUSICNODE10, nullptr, "Artist", 0, nullptr},
    {UPNP_OPT_PICTURENODE5, nullptr, "Artist", 0, nullptr},
    {UPNP_OPT_VIDEONODE5, nullptr, "Artist", 0, nullptr},
    {UPNP_OPT_ALLNAME, nullptr, "Artist", 1, "Artist"},    // a list, but no node
    {UPNP_OPT_CONTENTDIR, nullptr, "/home/music", 1, "+A|/home/music"},
    {UPNP_OPT_CONTENTDIR, nullptr, "V|/home/video", 1, "+V|/home/video"},
    {UPNP_OPT_CONTENTDIR, nullptr, "+P|c:/pictures", 1, "+P|C:/pictures"},
    {UPNP_OPT_CONTENTDIR, nullptr, "-A|/home/private", 1, "-A|/home/private"},
    {UPNP_OPT_CONTENTDIR, nullptr, "x", 1, "+A|x"},
    {UPNP_OPT_CONTENTDIR, nullptr, "A|", 1, "+A|"},
};

TEST_F(IniStart, SetFollowsItsRulesAndKeepsTheOldValueOnRefusal)
{
    start();
    for (const set_case& c : set_cases) {
        SCOPED_TRACE(testing::Message() << upnp_ini_get_name(c.id) << " " << config_or_null(c.before) << " -> "
                                        << config_or_null(c.value));
        upnp_ini_set(c.id, nullptr);    // enableweb refuses this and keeps its value
        if (c.before && value(c.id) != c.before) {
            ASSERT_EQ(1, upnp_ini_set(c.id, c.before));
        }
        EXPECT_EQ(c.result, upnp_ini_set(c.id, c.value));
        EXPECT_EQ(config_or_null(c.after), value(c.id));
    }
}

TEST_F(IniStart, ContentdirSplitsIntoSharedFolders)
{
    start();
    EXPECT_EQ(nullptr, upnp_contentdir_get(0));
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+A|/music,+V|/video,,+P|/pictures");
    EXPECT_STREQ("+A|/music", upnp_contentdir_get(0));
    EXPECT_STREQ("+V|/video", upnp_contentdir_get(1));
    EXPECT_EQ(nullptr, upnp_contentdir_get(2));            // an empty item is no folder
    EXPECT_STREQ("+P|/pictures", upnp_contentdir_get(3));
    EXPECT_EQ(nullptr, upnp_contentdir_get(4));
    EXPECT_EQ(nullptr, upnp_contentdir_get(-1));
}

TEST_F(IniStart, AValueTakenFromTheOptionItselfCanBeSetAgain)
{
    start();
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+A|/music,+V|/video");
    EXPECT_EQ(1, upnp_ini_set(UPNP_OPT_CONTENTDIR, upnp_ini_get_item(UPNP_OPT_CONTENTDIR, 1)));
    EXPECT_EQ("+V|/video", value(UPNP_OPT_CONTENTDIR));
    EXPECT_EQ(0, upnp_ini_set(UPNP_OPT_CONTENTDIR, upnp_ini_get_string(UPNP_OPT_CONTENTDIR)));
    EXPECT_EQ("+V|/video", value(UPNP_OPT_CONTENTDIR));
}

TEST_F(IniStart, ContentdirThatWouldBeCutIsRefused)
{
    start();
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+A|/music");
    std::string fits(1020, 'a'), too_long(1021, 'a');     // with "+A|": 1023 and 1024 bytes
    EXPECT_EQ(1, upnp_ini_set(UPNP_OPT_CONTENTDIR, fits.c_str()));
    EXPECT_EQ("+A|" + fits, value(UPNP_OPT_CONTENTDIR));
    EXPECT_EQ(0, upnp_ini_set(UPNP_OPT_CONTENTDIR, too_long.c_str()));
    EXPECT_EQ("+A|" + fits, value(UPNP_OPT_CONTENTDIR));
    // A value that needs no prefix is stored as it comes.
    std::string whole = "+A|" + std::string(3000, 'b');
    EXPECT_EQ(1, upnp_ini_set(UPNP_OPT_CONTENTDIR, whole.c_str()));
    EXPECT_EQ(whole, value(UPNP_OPT_CONTENTDIR));
}

TEST_F(IniStart, DbdirIsStoredAsAFullPath)
{
    start();
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    upnp_ini_set(UPNP_OPT_DBDIR, "some/./where/../db");
    EXPECT_EQ(std::string(cwd) + "/some/db", value(UPNP_OPT_DBDIR));
    upnp_ini_set(UPNP_OPT_DBDIR, "/var//lib/velmora/");
    EXPECT_EQ(0u, value(UPNP_OPT_DBDIR).find("/var/lib/velmora"));
}

TEST_F(IniStart, NoteChangeFlagsARestartOnlyForOptionsThatNeedOne)
{
    start();
    log_to_file();
    upnp_ini_note_change(UPNP_OPT_CLIENTS);
    upnp_ini_note_change(UPNP_OPT_CONTENTDIR);
    upnp_ini_note_change(UPNP_OPT_PLAYLISTLASTPLAYED);
    EXPECT_EQ(std::string::npos, log_text().find("restart needed"));
    upnp_ini_note_change(UPNP_OPT_FRIENDLYNAME);
    EXPECT_NE(std::string::npos, log_text().find("[ERROR]SYSTEM:restart needed because option friendlyname has changed\n"));
    EXPECT_EQ(1, upnp_ini_get_restart_needed());
}

// ---- Start-up ------------------------------------------------------------

TEST_F(IniStart, WithoutAnIniFileTheDefaultsHold)
{
    start();
    const struct { int32_t id; const char* value; } defaults[] = {
        {UPNP_OPT_LANGUAGE, "en"}, {UPNP_OPT_CLIENTAUTOENABLE, "1"}, {UPNP_OPT_ENABLEWEB, "1"},
        {UPNP_OPT_STREAMBUFFER, "32000"}, {UPNP_OPT_NICRESTART, "1"}, {UPNP_OPT_ADAPTCASE, "1"},
        {UPNP_OPT_PLATFORM, "WIN32"}, {UPNP_OPT_IGNOREDIR, "AppleDouble"},
        {UPNP_OPT_COMPILATIONSDIR, "Compilations,Sampler"}, {UPNP_OPT_PLAYLISTNUMENTRIES, "20"},
        {UPNP_OPT_V, "0"}, {UPNP_OPT_STARTUPMB, "0"}, {UPNP_OPT_AUTOTREE, "1"}, {UPNP_OPT_NORESCALE, "0"},
        {UPNP_OPT_NOSEARCH, "1"}, {UPNP_OPT_RANDOMIZEPLAYLISTS, "0"}, {UPNP_OPT_NICCHECKTIME, "5"},
        {UPNP_OPT_SCANTIME, "-1"}, {UPNP_OPT_ALLDOCUMENT, "Document"}, {UPNP_OPT_FRIENDLYNAME, nullptr},
        {UPNP_OPT_CONTENTDIR, nullptr}, {UPNP_OPT_HTTPPORT, nullptr}, {UPNP_OPT_LOGFILE, nullptr},
    };
    for (const auto& d : defaults) {
        SCOPED_TRACE(upnp_ini_get_name(d.id));
        EXPECT_EQ(config_or_null(d.value), value(d.id));
    }
    EXPECT_EQ(argv0, upnp_ini_get_argv0());
    EXPECT_EQ(dir.path, upnp_ini_get_program_dir());
    EXPECT_EQ(ini, upnp_ini_get_path());
    EXPECT_EQ(dir.file("velmoramedia.db"), value(UPNP_OPT_DBDIR));
    EXPECT_EQ(dir.file("velmoramedia.db/cache"), value(UPNP_OPT_CACHEDIR));
    struct stat st;
    EXPECT_EQ(0, stat(dir.file("velmoramedia.db/cache").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_NE(std::string::npos, ini_text().find("\r\ndbdir=" + dir.file("velmoramedia.db") + "\r\n"));
}

TEST_F(IniStart, TheSimpleModeUsesItsOwnIniFile)
{
    full_mode = 0;
    start();
    EXPECT_EQ(dir.file("velmora-mediaserver-simple.ini"), upnp_ini_get_path());
    EXPECT_EQ(0, access(dir.file("velmora-mediaserver-simple.ini").c_str(), F_OK));
    EXPECT_NE(0, access(ini.c_str(), F_OK));
}

TEST_F(IniStart, AProgramWithoutAFolderLivesInTheCurrentOne)
{
    char* arguments[] = {const_cast<char*>("velmora"), nullptr};
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir(dir.path.c_str()));
    upnp_ini_file_read_cmdline(1, arguments);
    EXPECT_STREQ(".", upnp_ini_get_program_dir());
    EXPECT_STREQ("./velmora-mediaserver.ini", upnp_ini_get_path());
    EXPECT_EQ(dir.file("velmoramedia.db"), value(UPNP_OPT_DBDIR));
    upnp_ini_release();
    ASSERT_EQ(0, chdir(cwd));
    start();   // so that the release at the end writes into the scratch folder
}

TEST_F(IniStart, AnOverlongProgramPathLeavesBothPathsEmpty)
{
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir(dir.path.c_str()));
    std::string normal = argv0;
    argv0 = dir.path + "/" + std::string(1100, 'p');
    start();
    EXPECT_STREQ("", upnp_ini_get_argv0());
    EXPECT_STREQ("", upnp_ini_get_program_dir());
    EXPECT_STREQ("./velmora-mediaserver.ini", upnp_ini_get_path());
    EXPECT_EQ(dir.file("velmoramedia.db"), value(UPNP_OPT_DBDIR));
    upnp_ini_release();
    ASSERT_EQ(0, chdir(cwd));
    argv0 = normal;
    start();
}

TEST_F(IniStart, TheIniFileOverridesTheDefaultsButNotTheSystemLanguage)
{
    write_ini("[main]\r\nfriendlyname=Living Room\r\nstreambuffer=64000\r\nlanguage=de\r\nenableweb=\r\n"
              "musicnode1=Nope\r\n");
    start();
    EXPECT_EQ("Living Room", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_EQ("64000", value(UPNP_OPT_STREAMBUFFER));
    EXPECT_EQ("en", value(UPNP_OPT_LANGUAGE));
    EXPECT_EQ("1", value(UPNP_OPT_ENABLEWEB));
    EXPECT_EQ("Artist,%ARTIST", value(UPNP_OPT_MUSICNODE1));
}

TEST_F(IniStart, TheSystemLanguageRenamesTheFolders)
{
    pin_language("de_DE.UTF-8");
    start();
    EXPECT_EQ("de", value(UPNP_OPT_LANGUAGE));
    EXPECT_EQ("Interpret,%ARTIST", value(UPNP_OPT_MUSICNODE1));
    EXPECT_EQ("- Zuletzt gespielt -", value(UPNP_OPT_PLAYLISTLASTPLAYED));
    EXPECT_NE(std::string::npos, ini_text().find("\r\n# Servername\r\nfriendlyname=\r\n\r\n"));
}

TEST_F(IniStart, AFirstStartTakesTheDefaultIniAndWritesTheRealOne)
{
    ASSERT_TRUE(test_write_file(dir.file("velmoramedia-default.ini"),
                                config_utf16("[main]\r\nfriendlyname=From Default\r\n")));
    start();
    EXPECT_EQ("From Default", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_NE(std::string::npos, ini_text().find("\r\nfriendlyname=From Default\r\n"));
}

TEST_F(IniStart, TheShippedDefaultIniGivesTheBuiltInDefaults)
{
    std::string shipped = test_read_file(VELMORA_SOURCE_DIR "/resources/velmoramedia-default.ini");
    ASSERT_FALSE(shipped.empty());
    tree_flat = 1;     // as the host starts by default
    start();
    auto built_in = ini_snapshot();
    upnp_ini_release();
    ASSERT_EQ(0, unlink(ini.c_str()));
    ASSERT_TRUE(test_write_file(dir.file("velmoramedia-default.ini"), shipped));
    start();
    EXPECT_EQ(built_in, ini_snapshot());
}

// What upnp_ini_file_write makes of the shipped file is the shipped file,
// but for the version line.
TEST_F(IniStart, TheShippedDefaultIniHasTheFormTheWriterGives)
{
    std::string shipped = test_read_file(VELMORA_SOURCE_DIR "/resources/velmoramedia-default.ini");
    ASSERT_TRUE(test_write_file(dir.file("velmoramedia-default.ini"), shipped));
    tree_flat = 1;
    start();
    upnp_ini_set(UPNP_OPT_DBDIR, nullptr);
    upnp_ini_set(UPNP_OPT_CACHEDIR, nullptr);
    upnp_ini_file_write();
    auto without_version = [](std::string text) {
        size_t at = text.find("#! version ");
        return at == std::string::npos ? text : text.erase(at, text.find("\r\n", at) - at);
    };
    EXPECT_EQ(without_version(config_from_utf16(shipped)), without_version(ini_text()));
}

// ---- The written file ----------------------------------------------------

TEST_F(IniStart, TheFileIsUtf16WithItsMarkHeaderAndCrlfLines)
{
    start();
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Küche");
    upnp_ini_file_write();
    std::string bytes = test_read_file(ini);
    ASSERT_GE(bytes.size(), 4u);
    EXPECT_EQ(std::string("\xFF\xFE#\0!\0", 6), bytes.substr(0, 6));
    EXPECT_EQ(0u, bytes.size() % 2);
    std::string text = config_from_utf16(bytes);
    EXPECT_EQ(0u, text.find("#! Velmora ini file / charset UTF-16\r\n"
                            "#! change settings by commandline or by editing this file\r\n"
                            "#! version "));
    size_t version_at = text.find("#! version ") + 11, version_end = text.find("\r\n[main]\r\n");
    ASSERT_NE(std::string::npos, version_end);
    std::string version = text.substr(version_at, version_end - version_at);
    EXPECT_FALSE(version.empty());
    EXPECT_EQ(std::string::npos, version.find_first_of("\r\n"));
    EXPECT_EQ(version_end, text.find("\r\n[main]\r\n# User name for the web pages\r\naccessuser=\r\n\r\n"));
    EXPECT_NE(std::string::npos, text.find("\r\n# Server name\r\nfriendlyname=Küche\r\n\r\n"));
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\n') {
            ASSERT_TRUE(i > 0 && text[i - 1] == '\r') << "bare line feed at " << i;
        }
    }
    EXPECT_EQ("\r\n\r\n", text.substr(text.size() - 4));
    // Every row in table order, the ones without a value too.
    size_t at = 0;
    for (int32_t id : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12, 13, 14, 15, 18, 19, 20, 21, 22, 24, 26, 27, 28, 29, 30,
                       31, 32, 33, 25, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52,
                       53, 54, 55, 56, 57, 58, 59, 60, 61, 62, 63, 64, 65, 66, 67, 68, 69, 70, 71, 72, 73}) {
        size_t next = text.find(std::string("\r\n") + upnp_ini_get_name(id) + "=", at);
        ASSERT_NE(std::string::npos, next) << upnp_ini_get_name(id);
        at = next + 1;
    }
}

TEST_F(IniStart, PasswordsAreWrittenAsTheyAre)
{
    start();
    upnp_ini_set(UPNP_OPT_ACCESSPWD, "s3cret=x");
    upnp_ini_file_write();
    EXPECT_NE(std::string::npos, ini_text().find("\r\naccesspwd=s3cret=x\r\n"));
}

TEST_F(IniStart, AWrittenFileReadsBackToTheSameTable)
{
    // Only the value's start gets a prefix, not each item.
    start({"-contentdir", "/home/music,+V|/home/video,P|/p"});
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Wohnzimmer – Küche ☃ 𝄞");
    upnp_ini_set(UPNP_OPT_CLIENTS, "192.168.1.2|3|0,192.168.1.9|4|1");
    upnp_ini_set(UPNP_OPT_AUTOTREE, "3");
    upnp_ini_set(UPNP_OPT_HTTPPORT, "9100");
    upnp_ini_set(UPNP_OPT_ACCESSPWD, "a=b=c");
    auto before = ini_snapshot();
    upnp_ini_release();
    start();
    EXPECT_EQ(before, ini_snapshot());
    EXPECT_EQ("+A|/home/music", config_or_null(upnp_contentdir_get(0)));
    EXPECT_EQ("+V|/home/video", config_or_null(upnp_contentdir_get(1)));
    EXPECT_EQ("P|/p", config_or_null(upnp_contentdir_get(2)));
}

TEST_F(IniStart, ReleaseWritesTheIniFile)
{
    start();
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "At Stop");
    upnp_ini_release();
    EXPECT_NE(std::string::npos, ini_text().find("\r\nfriendlyname=At Stop\r\n"));
    EXPECT_EQ(nullptr, upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME));
}

TEST_F(IniStart, AnUnwritableFolderIsLoggedAndTheOptionsStay)
{
    ASSERT_TRUE(test_write_file(dir.file("plain"), "x"));
    std::string inside_a_file = dir.file("plain/velmora.ini");   // not even root can write there
    log_to_file();
    start({"-inifile", inside_a_file, "-friendlyname", "Kept"});
    EXPECT_NE(std::string::npos,
              log_text().find("[ERROR]SYSTEM:\nini file \"" + inside_a_file + "\" not writable! ***\n\n"));
    EXPECT_EQ("Kept", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_EQ(inside_a_file, upnp_ini_get_path());
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Still");
    upnp_ini_file_write();
    EXPECT_EQ("Still", value(UPNP_OPT_FRIENDLYNAME));
}

TEST_F(IniStartDeathTest, RestoringTheDefaultCopiesItAndStopsTheWriteAtRelease)
{
    std::string shipped = test_read_file(VELMORA_SOURCE_DIR "/resources/velmoramedia-default.ini");
    ASSERT_TRUE(test_write_file(dir.file("velmoramedia-default.ini"), shipped));
    start({"-friendlyname", "Before Reset"});
    // The flag is never cleared, so this runs in a child of its own.
    EXPECT_EXIT(
        {
            upnp_ini_file_restore_default();
            bool copied = test_read_file(ini) == shipped;
            upnp_ini_release();
            exit(copied && test_read_file(ini) == shipped ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EQ(shipped, test_read_file(ini));
}

TEST_F(IniStartDeathTest, RestoringWithoutADefaultFileDoesNothing)
{
    start({"-friendlyname", "Mine"});
    EXPECT_EXIT(
        {
            upnp_ini_file_restore_default();
            upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Later");
            upnp_ini_release();
            exit(config_from_utf16(test_read_file(ini)).find("friendlyname=Later") != std::string::npos ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// ---- Reading ini files ---------------------------------------------------

TEST_F(IniStart, AUtf8IniIsReadAsLatin1)
{
    ASSERT_TRUE(test_write_file(ini, "[main]\r\nfriendlyname=K\xC3\xBC" "che\r\n"));
    start();
    EXPECT_EQ("K\xC3\x83\xC2\xBC" "che", value(UPNP_OPT_FRIENDLYNAME));
    // Whatever it was, it is written back as UTF-16.
    EXPECT_EQ(std::string("\xFF\xFE", 2), test_read_file(ini).substr(0, 2));
}

struct line_case {
    const char* name;
    std::string body;        // UTF-8, written as UTF-16 unless raw
    bool raw;
    const char* friendlyname;
    const char* httpport;
};

const line_case line_cases[] = {
    {"plain", "friendlyname=A\r\nhttpport=1\r\n", false, "A", "1"},
    {"later = belong to the value", "friendlyname=a=b\r\n", false, "a=b", nullptr},
    {"no = is no line", "friendlyname\r\nhttpport=2\r\n", false, nullptr, "2"},
    {"leading blank makes the key unknown", " friendlyname=A\r\n", false, nullptr, nullptr},
    {"trailing blank too", "friendlyname =A\r\n", false, nullptr, nullptr},
    {"keys are found without case", "FRIENDLYNAME=A\r\n", false, "A", nullptr},
    {"comment", "#friendlyname=A\r\n", false, nullptr, nullptr},
    {"leading = is skipped", "=friendlyname=A\r\n", false, "A", nullptr},
    {"a tab ends the line", "friendlyname=A\thttpport=3\r\n", false, "A", "3"},
    {"last line without line end", "httpport=4\r\nfriendlyname=A", false, nullptr, "4"},
    {"bare line feeds", "friendlyname=A\nhttpport=5\n", false, "A", "5"},
    {"unknown keys are skipped", "colour=red\r\nhttpport=6\r\n", false, nullptr, "6"},
    {"empty value unsets", "friendlyname=\r\n", false, nullptr, nullptr},
    {"binary bytes between lines", "\x01\x02\x7F\x80\xFF\r\nhttpport=7\r\n\0\0\x05zz\r\nfriendlyname=B\r\n"s, true,
     "B", "7"},
    {"odd-length UTF-16", "\xFF\xFEh\0t\0t\0p\0p\0o\0r\0t\0=\0" "8\0\n\0f"s, true, nullptr, "8"},
    {"UTF-16 cut mid-line", "\xFF\xFEh\0t\0t\0p\0p\0o\0r\0t\0=\0" "9\0\n\0f\0r\0"s, true, nullptr, "9"},
    {"zero units inside UTF-16", "\xFF\xFE\0\0h\0t\0t\0p\0p\0o\0r\0t\0=\0" "1\0\0\0x\0\n\0"s, true, nullptr, "1"},
    {"a mark alone", "\xFF\xFE", true, nullptr, nullptr},
    {"one byte", "x", true, nullptr, nullptr},
};

TEST_F(IniStart, IniLinesCountOnlyInTheirOneShape)
{
    for (const line_case& c : line_cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(test_write_file(ini, c.raw ? c.body : config_utf16(c.body)));
        start();
        EXPECT_EQ(config_or_null(c.friendlyname), value(UPNP_OPT_FRIENDLYNAME));
        EXPECT_EQ(config_or_null(c.httpport), value(UPNP_OPT_HTTPPORT));
        upnp_ini_release();
    }
}

TEST_F(IniStart, HostileIniFilesLoadWhatTheyCanAndLogTheRest)
{
    std::string huge(300000, 'x');
    write_ini("colour=red\r\nfriendlyname=" + huge + "\r\nhttpport=9\r\n" + std::string(100000, 'k') +
              "=v\r\nip=127.0.0.1\r\nstray");
    log_to_file();
    start();
    EXPECT_EQ(huge, value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_EQ("9", value(UPNP_OPT_HTTPPORT));
    EXPECT_EQ("127.0.0.1", value(UPNP_OPT_IP));
    std::string log = log_text();
    EXPECT_NE(std::string::npos, log.find("unknown option \"colour\" skipped"));
    EXPECT_NE(std::string::npos, log.find("unknown option \"kkkk"));
    EXPECT_NE(std::string::npos, log.find("last line has no line end"));
    EXPECT_LT(log.size(), 4000u);   // a long key is cut in the log
}

TEST_F(IniStart, AnIniOverTheCapIsRefusedAndTheDefaultsStay)
{
    std::string big = "friendlyname=Big\r\n" + std::string(1024 * 1024, '#') + "\r\n";
    ASSERT_TRUE(test_write_file(ini, big));
    log_to_file();
    start();
    EXPECT_EQ("<null>", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_EQ("32000", value(UPNP_OPT_STREAMBUFFER));
    EXPECT_NE(std::string::npos, log_text().find("over 1048576 bytes"));
}

TEST_F(IniStart, AnIniThatIsAFolderLeavesTheDefaults)
{
    ASSERT_EQ(0, mkdir(ini.c_str(), 0755));
    start();
    EXPECT_EQ("32000", value(UPNP_OPT_STREAMBUFFER));
}

TEST_F(IniStart, TheParseCoreCountsTheLinesItApplied)
{
    start();
    std::string body = config_utf16("[main]\r\nfriendlyname=X\r\nnope=1\r\n#ip=1\r\nip=2\r\n");
    EXPECT_EQ(2, upnp_ini_parse(body.data(), body.size()));
    EXPECT_EQ(0, upnp_ini_parse(nullptr, 10));
    EXPECT_EQ(0, upnp_ini_parse("a", 1));
}

// ---- The command line ----------------------------------------------------

TEST_F(IniStart, CommandLineOptionsSetByExactName)
{
    log_to_file();
    start({"-friendlyname", "Box", "-D", "-dlna", "-uic", "-mc", "-httpport", "-logfile", "x.log", "stray",
           "-FriendlyName", "Other", "-streambuffer", "1000"});
    EXPECT_EQ("Box", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_EQ("<null>", value(UPNP_OPT_HTTPPORT));     // "-mc" took it as its argument
    EXPECT_EQ("<null>", value(UPNP_OPT_LOGFILE));      // only the ini file sets the log file
    EXPECT_EQ("1000", value(UPNP_OPT_STREAMBUFFER));
    std::string log = log_text();
    EXPECT_NE(std::string::npos, log.find("[Problem]SYSTEM:unknown command line parameter \"stray\", skipped.\n"));
    // "-FriendlyName" matches nothing, so its value is judged by itself.
    EXPECT_NE(std::string::npos, log.find("unknown command line parameter \"Other\", skipped.\n"));
}

TEST_F(IniStart, CommandLineBeatsTheIniFile)
{
    write_ini("friendlyname=From Ini\r\nhttpport=1\r\n");
    start({"-friendlyname", "From Command Line"});
    EXPECT_EQ("From Command Line", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_EQ("1", value(UPNP_OPT_HTTPPORT));
}

TEST_F(IniStart, AnOptionAtTheVeryEndTakesNoValue)
{
    write_ini("friendlyname=From Ini\r\n");
    start({"-friendlyname"});
    EXPECT_EQ("<null>", value(UPNP_OPT_FRIENDLYNAME));
}

TEST_F(IniStart, TabsInArgumentsBecomeBlanks)
{
    log_to_file();
    start({"-friendlyname", "My\tBox"});
    EXPECT_EQ("My Box", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_EQ("My Box", arguments[2]);
    EXPECT_NE(std::string::npos, log_text().find("original argv[2]My\tBox\n"));
    EXPECT_NE(std::string::npos, log_text().find("changed argv[2]My Box\n"));
}

TEST_F(IniStart, InifileNamesTheIniInUse)
{
    std::string other = dir.file("other.ini");
    ASSERT_TRUE(test_write_file(other, config_utf16("friendlyname=Other File\r\n")));
    start({"-inifile", other});
    EXPECT_EQ(other, upnp_ini_get_path());
    EXPECT_EQ("Other File", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_NE(0, access(ini.c_str(), F_OK));
}

TEST_F(IniStart, TheLogFollowsTheOptionsAtTheEnd)
{
    std::string log = dir.file("DMSLOG.txt");
    write_ini("logfile=" + log + "\r\nlogsource=1\r\nloglevel=2\r\n");
    start();
    EXPECT_STREQ(log.c_str(), upnp_log_get_path());
    EXPECT_EQ(1, upnp_log_channel_enabled(UPNP_LOG_SYSTEM));
    EXPECT_EQ(0, upnp_log_channel_enabled(UPNP_LOG_HTTP));
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "not at this level\n");
    upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "at this level\n");
    std::string text = test_read_file(log);
    EXPECT_EQ(std::string::npos, text.find("not at this level"));
    EXPECT_NE(std::string::npos, text.find("at this level"));
}

TEST_F(IniStartDeathTest, HelpPrintsTheUsageAndEndsTheProcess)
{
    for (const char* asked : {"-?", "help", "--help", "a?b"}) {
        SCOPED_TRACE(asked);
        EXPECT_EXIT(start({"-friendlyname", "x", asked}), testing::ExitedWithCode(0), "");
    }
    // A value is taken by its option before anyone looks for a '?' in it.
    start({"-friendlyname", "Who?"});
    EXPECT_EQ("Who?", value(UPNP_OPT_FRIENDLYNAME));
}

// ---- The database folder at later starts --------------------------------

TEST_F(IniStart, ALaterStartEmptiesTheDatabaseFolderOfPlainFilesOnly)
{
    start();
    upnp_ini_release();
    std::string db = dir.file("velmoramedia.db");
    test_dir outside;
    ASSERT_TRUE(test_write_file(db + "/main.db", "data"));
    ASSERT_TRUE(test_write_file(db + "/cache/converted.mp3", "keep"));
    ASSERT_TRUE(test_write_file(outside.file("target"), "target"));
    ASSERT_EQ(0, symlink(outside.file("target").c_str(), (db + "/link").c_str()));
    ASSERT_EQ(0, mkdir((db + "/sub").c_str(), 0755));
    ASSERT_TRUE(test_write_file(db + "/sub/inner", "keep"));
    start();
    EXPECT_NE(0, access((db + "/main.db").c_str(), F_OK));
    EXPECT_EQ("keep", test_read_file(db + "/cache/converted.mp3"));
    EXPECT_EQ("keep", test_read_file(db + "/sub/inner"));
    EXPECT_EQ("target", test_read_file(outside.file("target")));
    struct stat st;
    EXPECT_EQ(0, lstat((db + "/link").c_str(), &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(IniStart, AFirstStartLeavesTheDatabaseFolderAlone)
{
    std::string db = dir.file("velmoramedia.db");
    ASSERT_EQ(0, mkdir(db.c_str(), 0755));
    ASSERT_TRUE(test_write_file(db + "/main.db", "data"));
    start();
    EXPECT_EQ("data", test_read_file(db + "/main.db"));
}

}  // namespace
