// Whole navigation trees against outlines kept in tests/golden: a small
// library goes into a store built as the server builds it (options from the
// preset, fixed top, navigation rules), and the tree is printed one object a
// line, two spaces a level, "title [class] (children)" for containers and
// "title [class]" for items and references, in the order the store keeps.
// The outlines are not taken from a run: tests/golden/layout.py lays them
// out from the folder values of this library, which it holds as worked out
// by hand; a change to the library goes there too.
#include "config/upnp_ini.h"
#include "database/db_file.h"
#include "database/db_id.h"
#include "database/db_object.h"
#include "database/db_tree.h"
#include "runtime/upnp_run.h"
#include "db_test_support.h"
#include "unit/config/config_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>

namespace {

struct golden_file {
    const char* path;
    int32_t type;
    const char* title;
    const char* artist;
    const char* album;
    const char* genre;
    const char* date;
    const char* composer;
    const char* compilation;
};

constexpr int32_t A = DB_OBJ_AUDIO;
#define M "/srv/media/"
// As the scanner hands them over, tags as tagged; one file without tags
// (title from its name) at the top of the shared folder.
const golden_file golden_library[] = {
    {M "Abba/Gold/01 Dancing Queen.mp3", A, "Dancing Queen", "Abba", "Gold", "Pop", "1992-09-21", "Andersson/Ulvaeus", nullptr},
    {M "Abba/Gold/02 Fernando.mp3", A, "Fernando", "Abba", "Gold", "Pop", "1992-09-21", "Andersson/Ulvaeus", nullptr},
    {M "Abba/Gold/03 Waterloo.mp3", A, "Waterloo", "Abba", "Gold", "Pop", "1992-09-21", "Andersson/Ulvaeus", nullptr},
    {M "Abba/Gold/04 Chiquitita.mp3", A, "Chiquitita", "Abba", "Gold", "Pop", "1992-09-21", "Andersson/Ulvaeus", nullptr},
    {M "The Beatles/Abbey Road/01 Come Together.mp3", A, "Come Together", "The Beatles", "Abbey Road", "Rock", "1969-09-26", nullptr, nullptr},
    {M "The Beatles/Abbey Road/02 Something.mp3", A, "Something", "The Beatles", "Abbey Road", "Rock", "1969-09-26", nullptr, nullptr},
    {M "The Beatles/Abbey Road/07 Here Comes The Sun.mp3", A, "Here Comes The Sun", "The Beatles", "Abbey Road", "Rock", "1969-09-26", nullptr, nullptr},
    {M "The Beatles/Help!/01 Help!.mp3", A, "Help!", "The Beatles", "Help!", "Rock", "1965-08-06", nullptr, nullptr},
    {M "The Beatles/Help!/13 Yesterday.mp3", A, "Yesterday", "The Beatles", "Help!", "Rock", "1965-08-06", nullptr, nullptr},
    {M "Ärger/Laut/01 Krach.mp3", A, "Krach", "Ärger", "Laut", "Rock", "2001-03-03", nullptr, nullptr},
    {M "Ärger/Laut/02 Stille.mp3", A, "Stille", "Ärger", "Laut", "Rock", "2001-03-03", nullptr, nullptr},
    {M "Åsa Jinder/Visor/01 Vals.mp3", A, "Vals", "Åsa Jinder", "Visor", "Folk", "1998-06-01", nullptr, nullptr},
    {M "Åsa Jinder/Visor/02 Polska.mp3", A, "Polska", "Åsa Jinder", "Visor", "Folk", "1998-06-01", nullptr, nullptr},
    {M "Berliner Philharmoniker/Symphonies 5 & 7/01 Symphony No. 5.mp3", A, "Symphony No. 5", "Berliner Philharmoniker", "Symphonies 5 & 7", "Classical", "1963-01-01", "Beethoven", nullptr},
    {M "Berliner Philharmoniker/Symphonies 5 & 7/02 Symphony No. 7.mp3", A, "Symphony No. 7", "Berliner Philharmoniker", "Symphonies 5 & 7", "Classical", "1963-01-01", "Beethoven", nullptr},
    {M "Damien Rice/9/01 9 Crimes.mp3", A, "9 Crimes", "Damien Rice", "9", "Folk", "2006-11-06", nullptr, nullptr},
    {M "10cc/The Original Soundtrack/01 I'm Not In Love.mp3", A, "I'm Not In Love", "10cc", "The Original Soundtrack", "Rock", "1975-03-01", nullptr, nullptr},
    {M "10cc/The Original Soundtrack/02 Une Nuit A Paris.mp3", A, "Une Nuit A Paris", "10cc", "The Original Soundtrack", "Rock", "1975-03-01", nullptr, nullptr},
    {M "Nena/Nena/01 99 Luftballons.mp3", A, "99 Luftballons", "Nena", "Nena", "Pop", "1983-01-01", nullptr, nullptr},
    {M "The Smashing Pumpkins/Mellon Collie And The Infinite Sadness/01 1979.mp3", A, "1979", "The Smashing Pumpkins", "Mellon Collie And The Infinite Sadness", "Rock", "1995-10-24", nullptr, nullptr},
    {M "The Smashing Pumpkins/Mellon Collie And The Infinite Sadness/02 Zero.mp3", A, "Zero", "The Smashing Pumpkins", "Mellon Collie And The Infinite Sadness", "Rock", "1995-10-24", nullptr, nullptr},
    {M "Sampler/Bravo Hits 12/01 Leuchtturm.mp3", A, "Leuchtturm", "Nena", "Bravo Hits 12", "Pop", "1996-02-01", nullptr, "1"},
    {M "Sampler/Bravo Hits 12/02 Super Trouper.mp3", A, "Super Trouper", "Abba", "Bravo Hits 12", "Pop", "1996-02-01", nullptr, "1"},
    {M "Sampler/Bravo Hits 12/03 The Look.mp3", A, "The Look", "Roxette", "Bravo Hits 12", "Pop", "1996-02-01", nullptr, "1"},
    {M "Sampler/Bravo Hits 12/04 Brother Louie.mp3", A, "Brother Louie", "Modern Talking", "Bravo Hits 12", "Pop", "1996-02-01", nullptr, "1"},
    {M "Modern Talking/Ready For Romance/01 Atlantis Is Calling.mp3", A, "Atlantis Is Calling", "Modern Talking", "Ready For Romance", "Pop", "1986-05-01", nullptr, nullptr},
    {M "Modern Talking/Ready For Romance/02 Geronimo's Cadillac.mp3", A, "Geronimo's Cadillac", "Modern Talking", "Ready For Romance", "Pop", "1986-05-01", nullptr, nullptr},
    {M "Roxette/Look Sharp!/01 Listen To Your Heart.mp3", A, "Listen To Your Heart", "Roxette", "Look Sharp!", "Pop", "1988-10-21", nullptr, nullptr},
    {M "Roxette/Look Sharp!/02 Dangerous.mp3", A, "Dangerous", "Roxette", "Look Sharp!", "Pop", "1988-10-21", nullptr, nullptr},
    {M "Yello/Stella/01 Desire.mp3", A, "Desire", "Yello", "Stella", "Electronic", "1985-01-01", nullptr, nullptr},
    {M "Yello/Stella/02 Oh Yeah.mp3", A, "Oh Yeah", "Yello", "Stella", "Electronic", "1985-01-01", nullptr, nullptr},
    {M "Yello/Gold/01 The Race.mp3", A, "The Race", "Yello", "Gold", "Electronic", "1988-06-01", nullptr, nullptr},
    {M "demo take.mp3", A, "demo take", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    {M "Photos/2019/beach.jpg", DB_OBJ_PHOTO, "beach", nullptr, nullptr, nullptr, "2019-07-14", nullptr, nullptr},
    {M "Photos/2019/sunset.jpg", DB_OBJ_PHOTO, "sunset", nullptr, nullptr, nullptr, "2019-08-02", nullptr, nullptr},
    {M "Photos/scan.jpg", DB_OBJ_PHOTO, "scan", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    {M "Videos/holiday.mp4", DB_OBJ_VIDEO, "holiday", nullptr, nullptr, nullptr, "2019-07-15", nullptr, nullptr},
};
#undef M

// Length (with milliseconds as a fourth field) and rating of a few tracks;
// a rating of 0 makes no folder.
const struct {
    const char* title;
    const char* duration;
    const char* rating;
} golden_extras[] = {
    {"Dancing Queen", "0:03:51:500", "5"},
    {"Fernando", "0:04:14", "3"},
    {"Waterloo", nullptr, "0"},
};

// The full tree with preset 0 has the nodes written here by hand: parts of
// the rule language no preset uses, some at node numbers no preset fills,
// and preset 1's other nodes gone.
const std::pair<int32_t, const char*> golden_hand_options[] = {
    {UPNP_OPT_MUSICNODE1, "Zero,[0]%ARTIST"}, {UPNP_OPT_MUSICNODE2, "Odd,%FOO,%ALBUM"},
    {UPNP_OPT_MUSICNODE3, "Wide,[4]%ARTIST"}, {UPNP_OPT_MUSICNODE4, "Long,%DURATION"},
    {UPNP_OPT_MUSICNODE5, "Stars,%RATING"}, {UPNP_OPT_MUSICNODE10, "Dirs,%PATH"},
    {UPNP_OPT_FOLDERPREFIX, "~"}, {UPNP_OPT_PICTURENODE1, nullptr}, {UPNP_OPT_PICTURENODE2, nullptr},
    {UPNP_OPT_PICTURENODE3, "Days,%DAY"}, {UPNP_OPT_VIDEONODE1, nullptr}, {UPNP_OPT_VIDEONODE2, "Dates,%DATE"},
};

struct golden_case {
    int32_t flat;
    int32_t autotree;
};

void PrintTo(const golden_case& c, std::ostream* os)
{
    *os << (c.flat ? "flat" : "full") << " tree, autotree " << c.autotree;
}

void golden_outline(const db_object* o, int depth, std::string& out)
{
    const char* title = db_object_get_str(o, DBK_TITLE);
    out += std::string(size_t(depth) * 2, ' ') + (title ? title : "<null>") + " [" + db_object_class(o) + "]";
    if (!db_type_is_container(db_object_type_of(o))) {
        out += "\n";
        return;
    }
    int32_t count = db_object_get_int(o, DBK_CHILD_COUNT);
    out += " (" + std::to_string(count) + ")\n";
    for (int32_t i = 0; i < count; i++)
        golden_outline(db_container_child(o, i), depth + 1, out);
}

struct DbGolden : ConfigStart, ::testing::WithParamInterface<golden_case> {
    void TearDown() override
    {
        db_set_tree_rules(nullptr);
        db_file_close();
        db_destroy();
        upnp_switches.document_root = saved_document_root;
        ConfigStart::TearDown();
    }
    int32_t saved_document_root = upnp_switches.document_root;
};

// Preset 0 keeps the nodes the preset before it set; the ini defaults come
// with preset 1, so that is what a flat tree would find.
TEST_P(DbGolden, TreeMatchesItsOutline)
{
    const golden_case c = GetParam();
    upnp_switches.tree_flat = c.flat;
    upnp_switches.document_root = 0;
    upnp_switches.oid_seed = 0;
    start();
    upnp_ini_set(UPNP_OPT_LANGUAGE, "en");
    upnp_ini_set(UPNP_OPT_ADAPTCASE, "1");
    upnp_ini_set(UPNP_OPT_CONTENTDIR, "+A|/srv/media");
    upnp_ini_set(UPNP_OPT_PLAYLISTNUMENTRIES, "3");
    upnp_ini_set(UPNP_OPT_AUTOTREE, nullptr);
    upnp_ini_set(UPNP_OPT_AUTOTREE, "1");
    upnp_ini_set(UPNP_OPT_AUTOTREE, std::to_string(c.autotree).c_str());
    if (!c.flat && c.autotree == 0)
        for (const auto& [option, value] : golden_hand_options)
            upnp_ini_set(option, value);

    db_create();
    ASSERT_TRUE(db_file_open_memory(nullptr, 0));
    db_build_root();
    db_set_tree_rules(db_tree_attach);
    for (const golden_file& f : golden_library) {
        db_meta_list* list = db_meta_list_add(nullptr, DBK_TYPE, std::to_string(f.type).c_str(), 0);
        const std::pair<int32_t, const char*> tags[] = {
            {DBK_TITLE, f.title}, {DBK_ARTIST, f.artist}, {DBK_ALBUM, f.album}, {DBK_GENRE, f.genre},
            {DBK_DATE, f.date}, {DBK_COMPOSER, f.composer}, {DBK_COMPILATION, f.compilation}, {DBK_SIZE_TEXT, "4000"},
        };
        for (const auto& [key, value] : tags)
            list = db_meta_list_add(list, key, value, 0);
        for (const auto& extra : golden_extras)
            if (!strcmp(extra.title, f.title)) {
                list = db_meta_list_add(list, DBK_DURATION, extra.duration, 0);
                list = db_meta_list_add(list, DBK_RATING, extra.rating, 0);
            }
        std::string raw = db_test_raw(f.path, f.type);
        EXPECT_NE(db_object_add(list, f.path, f.type, 0, raw.c_str(), int32_t(raw.size())), nullptr) << f.path;
        db_meta_list_free(list);
    }

    std::string outline;
    golden_outline(db_root, 0, outline);
    std::string name = std::string("tree-") + (c.flat ? "flat" : "full") + "-autotree" + std::to_string(c.autotree);
    std::string expected = test_read_file(VELMORA_SOURCE_DIR "/tests/golden/" + name + ".txt");
    if (expected != outline) {
        // The whole outline is long: name the first line that differs and
        // leave the tree beside the test for a diff.
        size_t at = 0, line = 1;
        while (at < expected.size() && at < outline.size() && expected[at] == outline[at])
            line += expected[at++] == '\n';
        auto line_at = [&](const std::string& s) {
            size_t start = s.rfind('\n', at ? at - 1 : 0);
            start = start == std::string::npos || at == 0 ? 0 : start + 1;
            return s.substr(start, s.find('\n', start) - start);
        };
        test_write_file(name + ".actual.txt", outline);
        ADD_FAILURE() << name << " differs at line " << line << "\n  expected: " << line_at(expected)
                      << "\n  actual:   " << line_at(outline) << "\n(tree written to " << name << ".actual.txt)";
    }
}

INSTANTIATE_TEST_SUITE_P(Trees, DbGolden,
                         ::testing::Values(golden_case{1, 0}, golden_case{0, 0}, golden_case{0, 1}, golden_case{0, 2},
                                           golden_case{0, 3}),
                         [](const ::testing::TestParamInfo<golden_case>& info) {
                             return std::string(info.param.flat ? "Flat" : "Full") + "Autotree" +
                                    std::to_string(info.param.autotree);
                         });

}  // namespace
