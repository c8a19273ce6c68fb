// The option store: set rules, the ini file and its round trip, the command line.
#include "config/upnp_ini.h"
#include "config_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

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

std::string shipped_default() { return test_read_file(VELMORA_SOURCE_DIR "/resources/velmoramedia-default.ini"); }

std::string current_dir()
{
    char cwd[4096];
    return getcwd(cwd, sizeof cwd) ? cwd : "";
}

TEST_F(IniStart, LookupsFindNamesWithoutCaseReadIntegersAsAtoiAndSplitListsAtCommas)
{
    start();
    EXPECT_EQ(UPNP_OPT_FRIENDLYNAME, upnp_ini_find("FriendlyName"));
    EXPECT_EQ(UPNP_OPT_MUSICNODE10, upnp_ini_find("musicnode10"));
    for (const char* name : {"friendlyname ", "", (const char*)nullptr})   // blanks are part of the name
        EXPECT_EQ(UPNP_OPT_END, upnp_ini_find(name));
    for (int32_t id : {11, -1, 1000}) {   // numbers without a row read as nothing
        EXPECT_EQ(std::make_pair(0, 0), std::make_pair(upnp_ini_set(id, "x"), upnp_ini_get_int(id))) << id;
        EXPECT_EQ("<null><null><null>", value(id) + config_or_null(upnp_ini_get_name(id)) +
                                            config_or_null(upnp_ini_get_item(id, 0))) << id;
    }
    const struct { const char* text; int32_t value; } numbers[] = {
        {"42", 42}, {"-1", -1}, {"12abc", 12}, {"abc", 0}, {" 7", 7},
        {"99999999999", INT32_MAX}, {"-99999999999", INT32_MIN},
    };
    for (const auto& c : numbers) {
        SCOPED_TRACE(c.text);
        upnp_ini_set(UPNP_OPT_HTTPPORT, c.text);
        EXPECT_EQ(c.value, upnp_ini_get_int(UPNP_OPT_HTTPPORT));
        EXPECT_EQ(c.value != 0, upnp_ini_get_bool(UPNP_OPT_HTTPPORT) != 0);
    }
    EXPECT_EQ(1, upnp_ini_set(UPNP_OPT_IGNOREDIR, " a,  b,,c , d"));
    std::string items = std::to_string(upnp_ini_get_item_count(UPNP_OPT_IGNOREDIR));
    for (int i = -1; i < 6; i++)
        items += "|" + config_or_null(upnp_ini_get_item(UPNP_OPT_IGNOREDIR, i));
    EXPECT_EQ("5|<null>| a|b||c |d|<null>", items);   // only the blanks behind a comma go
    EXPECT_STREQ(" a,  b,,c , d", upnp_ini_get_string(UPNP_OPT_IGNOREDIR));
    EXPECT_EQ(nullptr, upnp_ini_get_item(UPNP_OPT_STREAMBUFFER, 0));   // not a list
}

// before/after null: unset.
const struct { int32_t id; const char *before, *value; int32_t result; const char* after; } set_cases[] = {
    {UPNP_OPT_ENABLEWEB, "2", "", 0, "2"},            // never empty, so never unset either
    {UPNP_OPT_FRIENDLYNAME, "Box", "Box", 0, "Box"},  // the same value is no change
    {UPNP_OPT_FRIENDLYNAME, nullptr, "Box", 1, "Box"}, {UPNP_OPT_FRIENDLYNAME, "Box", nullptr, 1, nullptr},
    {UPNP_OPT_FRIENDLYNAME, "Box", "", 0, nullptr},   // "" unsets but reports no change
    {UPNP_OPT_FRIENDLYNAME, "Box", "a\r\nip=1.2.3.4", 0, "Box"},   // would write a line of its own
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "Artist", 0, "A,%ARTIST"},  // nodes need a comma
    {UPNP_OPT_MUSICNODE1, nullptr, "Genre,[3]%GENRE", 1, "Genre,[3]%GENRE"},
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "A,%ARTIST,ALBUM", 0, "A,%ARTIST"},   // the last level counts
    {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "A,", 0, "A,%ARTIST"}, {UPNP_OPT_MUSICNODE1, "A,%ARTIST", "", 0, nullptr},
    {UPNP_OPT_ALLNAME, nullptr, "Artist", 1, "Artist"},    // a list, but no node
    {UPNP_OPT_CONTENTDIR, nullptr, "/home/music", 1, "+A|/home/music"},
    {UPNP_OPT_CONTENTDIR, nullptr, "V|/home/video", 1, "+V|/home/video"},
    {UPNP_OPT_CONTENTDIR, nullptr, "+P|c:/pictures", 1, "+P|C:/pictures"},
    {UPNP_OPT_CONTENTDIR, nullptr, "-A|/home/private", 1, "-A|/home/private"},
    {UPNP_OPT_CONTENTDIR, nullptr, "A|", 1, "+A|"},
};

TEST_F(IniStart, SetFollowsItsRulesKeepsTheOldValueOnRefusalAndFlagsRestarts)
{
    start();
    for (const auto& c : set_cases) {
        SCOPED_TRACE(testing::Message() << upnp_ini_get_name(c.id) << " " << config_or_null(c.before) << " -> "
                                        << config_or_null(c.value));
        upnp_ini_set(c.id, nullptr);    // enableweb refuses this and keeps its value
        if (c.before && value(c.id) != c.before) {
            ASSERT_EQ(1, upnp_ini_set(c.id, c.before));
        }
        EXPECT_EQ(c.result, upnp_ini_set(c.id, c.value));
        EXPECT_EQ(config_or_null(c.after), value(c.id));
    }
    upnp_ini_set(UPNP_OPT_DBDIR, "some/./where/../db");   // stored as a full path
    EXPECT_EQ(current_dir() + "/some/db", value(UPNP_OPT_DBDIR));
    log_to_file();   // only some changes need a restart
    for (int32_t id : {UPNP_OPT_CLIENTS, UPNP_OPT_CONTENTDIR, UPNP_OPT_PLAYLISTLASTPLAYED})
        upnp_ini_note_change(id);
    EXPECT_FALSE(logged("restart needed"));
    upnp_ini_note_change(UPNP_OPT_FRIENDLYNAME);
    EXPECT_TRUE(logged("restart needed because option friendlyname"));
    EXPECT_EQ(1, upnp_ini_get_restart_needed());
}

TEST_F(IniStart, ContentdirSplitsIntoSharedFoldersAndRefusesAValueThatWouldBeCut)
{
    start();
    EXPECT_EQ(nullptr, upnp_contentdir_get(0));
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+A|/music,+V|/video,,+P|/pictures");
    std::string folders;
    for (int i = -1; i < 5; i++)
        folders += config_or_null(upnp_contentdir_get(i)) + " ";
    EXPECT_EQ("<null> +A|/music +V|/video <null> +P|/pictures <null> ", folders);   // an empty item is no folder
    // A value taken from the option itself can be set again.
    EXPECT_EQ(1, upnp_ini_set(UPNP_OPT_CONTENTDIR, upnp_ini_get_item(UPNP_OPT_CONTENTDIR, 1)));
    EXPECT_EQ("+V|/video", value(UPNP_OPT_CONTENTDIR));
    EXPECT_EQ(0, upnp_ini_set(UPNP_OPT_CONTENTDIR, upnp_ini_get_string(UPNP_OPT_CONTENTDIR)));
    EXPECT_EQ("+V|/video", value(UPNP_OPT_CONTENTDIR));
    std::string fits(1020, 'a'), too_long(1021, 'a');     // with "+A|": 1023 and 1024 bytes
    EXPECT_EQ(1, upnp_ini_set(UPNP_OPT_CONTENTDIR, fits.c_str()));
    EXPECT_EQ(0, upnp_ini_set(UPNP_OPT_CONTENTDIR, too_long.c_str()));
    EXPECT_EQ("+A|" + fits, value(UPNP_OPT_CONTENTDIR));
    std::string whole = "+A|" + std::string(3000, 'b');   // a value that needs no prefix is stored as it comes
    EXPECT_EQ(1, upnp_ini_set(UPNP_OPT_CONTENTDIR, whole.c_str()));
    EXPECT_EQ(whole, value(UPNP_OPT_CONTENTDIR));
}

// A program named without a folder lives in the current one; so does one
// whose path is too long to keep, with both paths left empty.
TEST_F(IniStart, AProgramWithoutAUsableFolderLivesInTheCurrentOne)
{
    std::string cwd = current_dir(), normal = argv0, overlong = dir.path + "/" + std::string(1100, 'p');
    const struct { std::string argv0; const char* kept_argv0; const char* program_dir; } cases[] = {
        {"velmora", "velmora", "."}, {overlong, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program_dir);
        ASSERT_EQ(0, chdir(dir.path.c_str()));
        argv0 = c.argv0;
        start();
        EXPECT_EQ(c.kept_argv0 + " "s + c.program_dir + " ./velmora-mediaserver.ini " + dir.file("velmoramedia.db"),
                  config_or_null(upnp_ini_get_argv0()) + " " + config_or_null(upnp_ini_get_program_dir()) + " " +
                      config_or_null(upnp_ini_get_path()) + " " + value(UPNP_OPT_DBDIR));
        upnp_ini_release();
        ASSERT_EQ(0, chdir(cwd.c_str()));
    }
    argv0 = normal;
    start();   // so that the release at the end writes into the scratch folder
}

// The language comes from the system, not the file, and renames the folders.
TEST_F(IniStart, TheIniFileOverridesTheDefaultsButNotTheSystemLanguage)
{
    pin_language("de_DE.UTF-8");
    write_strings("de", "|artist|Interpret\r\n|friendlyname|Servername\r\n");
    write_ini("[main]\r\nfriendlyname=Living Room\r\nstreambuffer=64000\r\nlanguage=en\r\nenableweb=\r\n");
    start();
    EXPECT_EQ("Living Room|64000|de|1|Interpret,%ARTIST",
              value(UPNP_OPT_FRIENDLYNAME) + "|" + value(UPNP_OPT_STREAMBUFFER) + "|" + value(UPNP_OPT_LANGUAGE) + "|" +
                  value(UPNP_OPT_ENABLEWEB) + "|" + value(UPNP_OPT_MUSICNODE1));
}

// Without an ini file the built-in defaults hold, with the database beside
// the program. A first start takes the default ini and writes the real one:
// the shipped default file with a name set gives the same table but for the
// name.
TEST_F(IniStart, AFirstStartTakesTheDefaultsOrTheDefaultIniAndWritesTheRealOne)
{
    std::string named = config_from_utf16(shipped_default());
    size_t name_at = named.find("\r\nfriendlyname=\r\n");
    ASSERT_NE(std::string::npos, name_at);
    named.replace(name_at, 17, "\r\nfriendlyname=From Default\r\n");
    upnp_switches.tree_flat = 1;     // as the host starts by default
    start();
    EXPECT_EQ(argv0 + " " + dir.path + " " + ini + " " + dir.file("velmoramedia.db/cache"),
              config_or_null(upnp_ini_get_argv0()) + " " + config_or_null(upnp_ini_get_program_dir()) + " " +
                  config_or_null(upnp_ini_get_path()) + " " + value(UPNP_OPT_CACHEDIR));
    EXPECT_EQ(dir.file("velmoramedia.db"), value(UPNP_OPT_DBDIR));
    struct stat st;
    EXPECT_TRUE(stat(dir.file("velmoramedia.db/cache").c_str(), &st) == 0 && S_ISDIR(st.st_mode));
    auto expected = ini_snapshot();
    expected[UPNP_OPT_FRIENDLYNAME] = "From Default";
    upnp_ini_release();
    ASSERT_EQ(0, unlink(ini.c_str()));
    ASSERT_TRUE(test_write_file(dir.file("velmoramedia-default.ini"), config_utf16(named)));
    start();
    EXPECT_EQ(expected, ini_snapshot());
    EXPECT_TRUE(config_has(ini_text(), "\r\nfriendlyname=From Default\r\n"));
}

// The release at stop writes the file -inifile names; a start reads it
// back to the same table, passwords and all.
TEST_F(IniStart, AFileWrittenAtReleaseReadsBackToTheSameTable)
{
    std::string usual = ini;
    ini = dir.file("other.ini");
    // Only the value's start gets a prefix, not each item.
    start({"-inifile", ini, "-contentdir", "/home/music,+V|/home/video,P|/p"});
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Wohnzimmer – Küche ☃ 𝄞");
    upnp_ini_set(UPNP_OPT_CLIENTS, "192.168.1.2|3|0,192.168.1.9|4|1");
    upnp_ini_set(UPNP_OPT_AUTOTREE, "3");
    upnp_ini_set(UPNP_OPT_HTTPPORT, "9100");
    upnp_ini_set(UPNP_OPT_ACCESSPWD, "a=b=c");
    auto before = ini_snapshot();
    upnp_ini_release();
    EXPECT_EQ(nullptr, upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME));
    start({"-inifile", ini});
    EXPECT_EQ(before, ini_snapshot());
    EXPECT_EQ("+A|/home/music,+V|/home/video,P|/p", value(UPNP_OPT_CONTENTDIR));
    EXPECT_NE(0, access(usual.c_str(), F_OK));
}

TEST_F(IniStart, AnUnwritableFolderLeavesTheOptions)
{
    ASSERT_TRUE(test_write_file(dir.file("plain"), "x"));
    std::string inside_a_file = dir.file("plain/velmora.ini");   // not even root can write there
    start({"-inifile", inside_a_file, "-friendlyname", "Kept"});
    EXPECT_EQ("Kept", value(UPNP_OPT_FRIENDLYNAME));
    EXPECT_EQ(inside_a_file, upnp_ini_get_path());
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Still");
    upnp_ini_file_write();
    EXPECT_EQ("Still", value(UPNP_OPT_FRIENDLYNAME));
}

// Restoring copies the default file over the ini and stops the write at
// release; without a default file it does nothing. The flag is never
// cleared, so this runs in a child.
TEST_F(IniStartDeathTest, RestoringTheDefaultCopiesItAndStopsTheWriteAtRelease)
{
    start();
    std::string shipped = shipped_default();
    EXPECT_EXIT(
        {
            upnp_ini_file_restore_default();
            upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Later");
            upnp_ini_release();
            bool written = config_has(ini_text(), "friendlyname=Later");
            start();
            test_write_file(dir.file("velmoramedia-default.ini"), shipped);
            upnp_ini_file_restore_default();
            bool copied = test_read_file(ini) == shipped;
            upnp_ini_release();
            exit(written && copied && test_read_file(ini) == shipped ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

const std::string ini_huge(300000, 'x');
const char* const unset = "<null>";

// body is UTF-8 written as UTF-16 unless raw; whatever the file was, it is
// written back as UTF-16.
const struct { const char* name; std::string body; bool raw; std::string friendlyname, httpport; } line_cases[] = {
    {"plain", "friendlyname=A\r\nhttpport=1\r\n", false, "A", "1"},
    {"later = belong to the value", "friendlyname=a=b\r\n", false, "a=b", unset},
    {"blanks make a key unknown, which is skipped", " friendlyname=A\r\nhttpport=6\r\n", false, unset, "6"},
    {"keys are found without case", "FRIENDLYNAME=A\r\n", false, "A", unset},
    {"comment", "#friendlyname=A\r\n", false, unset, unset},
    {"a tab ends the line", "friendlyname=A\thttpport=3\r\n", false, "A", "3"},
    {"last line without line end", "httpport=4\r\nfriendlyname=A", false, unset, "4"},
    {"bare line feeds", "friendlyname=A\nhttpport=5\n", false, "A", "5"},
    {"empty value unsets", "friendlyname=\r\n", false, unset, unset},
    {"UTF-8 without a mark reads as Latin-1", "[main]\r\nfriendlyname=K\xC3\xBC" "che\r\n", true,
     "K\xC3\x83\xC2\xBC" "che", unset},
    {"a huge value, a huge unknown key", "colour=red\r\nfriendlyname=" + ini_huge + "\r\n" +
     std::string(100000, 'k') + "=v\r\nhttpport=9\r\nstray", false, ini_huge, "9"},
    {"over the cap", "friendlyname=Big\r\nhttpport=9\r\n" + std::string(1024 * 1024, '#') + "\r\n", true, unset, unset},
};

// Whatever could not be read is logged, a long key cut; a folder where the
// file should be leaves the defaults.
TEST_F(IniStart, HostileIniFilesLoadWhatTheyCanAndNeverStopTheStart)
{
    for (const auto& c : line_cases) {
        SCOPED_TRACE(c.name);
        log_to_file();   // each start sets the log from its options at the end
        ASSERT_TRUE(test_write_file(ini, c.raw ? c.body : config_utf16(c.body)));
        start();
        EXPECT_EQ(c.friendlyname + " " + c.httpport, value(UPNP_OPT_FRIENDLYNAME) + " " + value(UPNP_OPT_HTTPPORT));
        upnp_ini_release();
        EXPECT_EQ(std::string("\xFF\xFE", 2), test_read_file(ini).substr(0, 2));
    }
    EXPECT_TRUE(logged("unknown option \"kkkk"));
    EXPECT_FALSE(logged(std::string(1000, 'k')));
    ASSERT_EQ(0, unlink(ini.c_str()));
    ASSERT_EQ(0, mkdir(ini.c_str(), 0755));
    start();
    EXPECT_EQ("32000", value(UPNP_OPT_STREAMBUFFER));
    std::string body = config_utf16("[main]\r\nfriendlyname=X\r\nnope=1\r\n#ip=1\r\nip=2\r\n");
    EXPECT_EQ(2, upnp_ini_parse(body.data(), body.size()));   // the lines applied
    EXPECT_EQ(0, upnp_ini_parse(nullptr, 10));
    EXPECT_EQ(0, upnp_ini_parse("a", 1));
}

TEST_F(IniStart, CommandLineOptionsSetByExactName)
{
    start({"-friendlyname", "Box", "-D", "-dlna", "-uic", "-mc", "-httpport", "-logfile", "x.log", "stray",
           "-FriendlyName", "Other", "-streambuffer", "1000"});
    // "-mc" took "-httpport" as its argument; only the ini file sets the log
    // file; "-FriendlyName Other" and "stray" set nothing.
    EXPECT_EQ("Box <null> <null> 1000", value(UPNP_OPT_FRIENDLYNAME) + " " + value(UPNP_OPT_HTTPPORT) + " " +
                                            value(UPNP_OPT_LOGFILE) + " " + value(UPNP_OPT_STREAMBUFFER));
}

const struct { const char* ini; std::vector<std::string> arguments; const char *friendlyname, *httpport; }
    cmdline_cases[] = {
        {"friendlyname=From Ini\r\nhttpport=1\r\n", {"-friendlyname", "From Command Line"}, "From Command Line", "1"},
        {"friendlyname=From Ini\r\n", {"-friendlyname"}, nullptr, nullptr},   // at the very end: no value
        {"", {"-friendlyname", "Who?"}, "Who?", nullptr},   // a value is taken before anyone looks for a '?'
        {"", {"-friendlyname", "My\tBox"}, "My Box", nullptr},   // tabs become blanks
};

TEST_F(IniStart, CommandLineBeatsTheIniFile)
{
    for (const auto& c : cmdline_cases) {
        SCOPED_TRACE(c.arguments.back());
        write_ini(c.ini);
        log_to_file();
        start(c.arguments);
        EXPECT_EQ(config_or_null(c.friendlyname) + config_or_null(c.httpport),
                  value(UPNP_OPT_FRIENDLYNAME) + value(UPNP_OPT_HTTPPORT));
        upnp_ini_release();
    }
    EXPECT_EQ("My Box", arguments[2]);
    start();
}

TEST_F(IniStart, TheLogFollowsTheOptionsAtTheEnd)
{
    std::string log = dir.file("DMSLOG.txt");
    write_ini("logfile=" + log + "\r\nlogsource=1\r\nloglevel=2\r\n");
    start();
    EXPECT_STREQ(log.c_str(), upnp_log_get_path());
    EXPECT_EQ("1 0", std::to_string(upnp_log_channel_enabled(UPNP_LOG_SYSTEM)) + " " +
                         std::to_string(upnp_log_channel_enabled(UPNP_LOG_HTTP)));
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "not at this level\n");
    upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "at this level\n");
    EXPECT_FALSE(config_has(test_read_file(log), "not at this level"));
    EXPECT_TRUE(config_has(test_read_file(log), "at this level"));
}

TEST_F(IniStartDeathTest, HelpPrintsTheUsageAndEndsTheProcess)
{
    for (const char* asked : {"-?", "help", "--help", "a?b"})
        EXPECT_EXIT(start({"-friendlyname", "x", asked}), testing::ExitedWithCode(0), "") << asked;
}

// A first start leaves the folder alone; a later one empties it of plain
// files, never following a link or entering a folder.
TEST_F(IniStart, OnlyALaterStartEmptiesTheDatabaseFolderOfPlainFiles)
{
    std::string db = dir.file("velmoramedia.db");
    ASSERT_EQ(0, mkdir(db.c_str(), 0755));
    ASSERT_TRUE(test_write_file(db + "/main.db", "data"));
    start();
    EXPECT_EQ("data", test_read_file(db + "/main.db"));
    upnp_ini_release();
    test_dir outside;
    ASSERT_TRUE(test_write_file(db + "/cache/converted.mp3", "keep"));
    ASSERT_TRUE(test_write_file(outside.file("target"), "target"));
    ASSERT_EQ(0, symlink(outside.file("target").c_str(), (db + "/link").c_str()));
    ASSERT_EQ(0, mkdir((db + "/sub").c_str(), 0755));
    ASSERT_TRUE(test_write_file(db + "/sub/inner", "keep"));
    start();
    EXPECT_NE(0, access((db + "/main.db").c_str(), F_OK));
    EXPECT_EQ("keep keep target", test_read_file(db + "/cache/converted.mp3") + " " +
                                      test_read_file(db + "/sub/inner") + " " + test_read_file(outside.file("target")));
    struct stat st;
    EXPECT_TRUE(lstat((db + "/link").c_str(), &st) == 0 && S_ISLNK(st.st_mode));
}

// Each reader sees only whole values that were set, never a freed one (the
// sanitizer builds catch the latter), while one thread keeps setting.
TEST_F(IniStart, ReadersOnOtherThreadsSeeOnlyWholeValuesWhileOneThreadSets)
{
    start();
    const std::string long_first(300, 'x'), long_name = long_first + ",y";
    const char* values[] = {"Compilations,Sampler", long_name.c_str(), "a,b,c"};
    const char* firsts[] = {"Compilations", long_first.c_str(), "a"};
    ASSERT_EQ(1, upnp_ini_set(UPNP_OPT_COMPILATIONSDIR, values[2]));
    auto known = [](const char* const* texts, const char* seen) {
        for (int i = 0; i < 3; i++)
            if (seen && strcmp(texts[i], seen) == 0)
                return true;
        return false;
    };
    std::vector<int> strange(4, 0);
    std::vector<std::thread> readers;
    for (int r = 0; r < 4; r++)
        readers.emplace_back([&, r] {
            for (int n = 0; n < 100000; n++) {
                strange[r] += !known(values, upnp_ini_get_string(UPNP_OPT_COMPILATIONSDIR));
                strange[r] += !known(firsts, upnp_ini_get_item(UPNP_OPT_COMPILATIONSDIR, 0));
            }
        });
    int refused = 0;
    for (int n = 0; n < 100000; n++)
        refused += upnp_ini_set(UPNP_OPT_COMPILATIONSDIR, values[n % 3]) != 1;
    for (std::thread& t : readers)
        t.join();
    EXPECT_EQ(0, refused);
    EXPECT_EQ(std::vector<int>(4, 0), strange);
    EXPECT_STREQ(values[99999 % 3], upnp_ini_get_string(UPNP_OPT_COMPILATIONSDIR));
}

}  // namespace
