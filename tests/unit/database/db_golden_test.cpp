// Whole navigation trees against outlines kept in tests/golden, one object a
// line, two spaces a level, "title [class] (children)" for containers, in the
// order the store keeps. tests/golden/layout.py lays the outlines out from
// this library's folder values worked out by hand (not from a run): a change
// to the library goes there too.
#include "config/upnp_ini.h"
#include "database/db_tree.h"
#include "db_test_support.h"
#include "unit/config/config_test_support.h"

#include <sstream>
#include <vector>

namespace {

// As the scanner hands them over, tags as tagged, album by album: the folder
// (artist/album), genre, date, composer, then the files "NN title" (title
// taken from the name), with "@artist" on a compilation's tracks.
const char* const golden_albums[][5] = {
    {"Abba/Gold", "Pop", "1992-09-21", "Andersson/Ulvaeus", "01 Dancing Queen|02 Fernando|03 Waterloo|04 Chiquitita"},
    {"The Beatles/Abbey Road", "Rock", "1969-09-26", nullptr, "01 Come Together|02 Something|07 Here Comes The Sun"},
    {"The Beatles/Help!", "Rock", "1965-08-06", nullptr, "01 Help!|13 Yesterday"},
    {"Ärger/Laut", "Rock", "2001-03-03", nullptr, "01 Krach|02 Stille"},
    {"Åsa Jinder/Visor", "Folk", "1998-06-01", nullptr, "01 Vals|02 Polska"},
    {"Berliner Philharmoniker/Symphonies 5 & 7", "Classical", "1963-01-01", "Beethoven", "01 Symphony No. 5|02 Symphony No. 7"},
    {"Damien Rice/9", "Folk", "2006-11-06", nullptr, "01 9 Crimes"},
    {"10cc/The Original Soundtrack", "Rock", "1975-03-01", nullptr, "01 I'm Not In Love|02 Une Nuit A Paris"},
    {"Nena/Nena", "Pop", "1983-01-01", nullptr, "01 99 Luftballons"},
    {"The Smashing Pumpkins/Mellon Collie And The Infinite Sadness", "Rock", "1995-10-24", nullptr, "01 1979|02 Zero"},
    {"Sampler/Bravo Hits 12", "Pop", "1996-02-01", nullptr,
     "01 Leuchtturm@Nena|02 Super Trouper@Abba|03 The Look@Roxette|04 Brother Louie@Modern Talking"},
    {"Modern Talking/Ready For Romance", "Pop", "1986-05-01", nullptr, "01 Atlantis Is Calling|02 Geronimo's Cadillac"},
    {"Roxette/Look Sharp!", "Pop", "1988-10-21", nullptr, "01 Listen To Your Heart|02 Dangerous"},
    {"Yello/Stella", "Electronic", "1985-01-01", nullptr, "01 Desire|02 Oh Yeah"},
    {"Yello/Gold", "Electronic", "1988-06-01", nullptr, "01 The Race"},
};

// After the albums, files with a title from the name and at most a date; one
// without tags at the top of the shared folder.
const struct { const char* path; int32_t type; const char* date; } golden_others[] = {
    {"demo take.mp3", DB_OBJ_AUDIO, nullptr}, {"Photos/2019/beach.jpg", DB_OBJ_PHOTO, "2019-07-14"},
    {"Photos/2019/sunset.jpg", DB_OBJ_PHOTO, "2019-08-02"}, {"Photos/scan.jpg", DB_OBJ_PHOTO, nullptr},
    {"Videos/holiday.mp4", DB_OBJ_VIDEO, "2019-07-15"},
};

// Length (with milliseconds as a fourth field) and rating of a few tracks;
// a rating of 0 makes no folder.
const char* const golden_extras[][3] = {
    {"Dancing Queen", "0:03:51:500", "5"}, {"Fernando", "0:04:14", "3"}, {"Waterloo", nullptr, "0"}};

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

// One file as the scanner hands it over, title from its name.
void golden_add(const std::string& name, int32_t type, const char* date, const char* artist = nullptr,
                const char* album = nullptr, const char* genre = nullptr, const char* composer = nullptr,
                const char* compilation = nullptr)
{
    std::string path = "/srv/media/" + name, title = name.substr(name.rfind('/') + 1);
    title = title.substr(0, title.rfind('.')).substr(isdigit(uint8_t(title[0])) ? 3 : 0);   // "NN " off a track
    const char* const* x = nullptr;
    for (const auto& extra : golden_extras)
        x = title == extra[0] ? extra : x;
    db_meta_list* list = db_test_list({{DBK_TITLE, title.c_str()}, {DBK_ARTIST, artist}, {DBK_ALBUM, album},
                                       {DBK_GENRE, genre}, {DBK_DATE, date}, {DBK_COMPOSER, composer},
                                       {DBK_COMPILATION, compilation}, {DBK_SIZE_TEXT, "4000"},
                                       {DBK_DURATION, x ? x[1] : nullptr}, {DBK_RATING, x ? x[2] : nullptr}});
    std::string raw = db_test_raw(path, type);
    EXPECT_NE(db_object_add(list, path.c_str(), type, 0, raw.c_str(), int32_t(raw.size())), nullptr) << path;
    db_meta_list_free(list);
}

void golden_outline(const db_object* o, int depth, std::string& out)
{
    const char* title = db_object_get_str(o, DBK_TITLE);
    out += std::string(size_t(depth) * 2, ' ') + (title ? title : "<null>") + " [" + db_object_class(o) + "]";
    bool container = db_type_is_container(db_object_type_of(o));
    int32_t count = container ? db_object_get_int(o, DBK_CHILD_COUNT) : 0;
    out += container ? " (" + std::to_string(count) + ")\n" : "\n";
    for (int32_t i = 0; i < count; i++)
        golden_outline(db_container_child(o, i), depth + 1, out);
}

struct DbGolden : ConfigStart, ::testing::WithParamInterface<int32_t> {
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

// The autotree preset, or -1 for a flat tree. Preset 0 keeps the nodes the
// preset before it set; the ini defaults come with preset 1, so that is what
// a flat tree would find.
TEST_P(DbGolden, TreeMatchesItsOutline)
{
    const bool flat = GetParam() < 0;
    const std::string autotree = std::to_string(flat ? 0 : GetParam());
    upnp_switches.tree_flat = flat;
    upnp_switches.document_root = upnp_switches.oid_seed = 0;
    start();
    const std::pair<int32_t, const char*> options[] = {
        {UPNP_OPT_LANGUAGE, "en"}, {UPNP_OPT_ADAPTCASE, "1"}, {UPNP_OPT_CONTENTDIR, "+A|/srv/media"},
        {UPNP_OPT_PLAYLISTNUMENTRIES, "3"}, {UPNP_OPT_AUTOTREE, nullptr}, {UPNP_OPT_AUTOTREE, "1"},
        {UPNP_OPT_AUTOTREE, autotree.c_str()}};
    for (const auto& [option, value] : options)
        upnp_ini_set(option, value);
    for (const auto& [option, value] : golden_hand_options)
        if (GetParam() == 0)
            upnp_ini_set(option, value);

    db_create();
    ASSERT_TRUE(db_file_open_memory(nullptr, 0));
    db_build_root();
    db_set_tree_rules(db_tree_attach);
    for (const auto& [folder, genre, date, composer, files] : golden_albums) {
        std::string dir = folder, album = dir.substr(dir.find('/') + 1);
        std::istringstream list(files);
        for (std::string file; std::getline(list, file, '|');) {
            std::string artist = dir.substr(0, dir.find('/'));
            size_t by = file.find('@');
            if (by != std::string::npos)
                artist = file.substr(by + 1), file.resize(by);
            golden_add(dir + "/" + file + ".mp3", DB_OBJ_AUDIO, date, artist.c_str(), album.c_str(), genre, composer,
                       by == std::string::npos ? nullptr : "1");
        }
    }
    for (const auto& f : golden_others)
        golden_add(f.path, f.type, f.date);

    std::string outline;
    golden_outline(db_root, 0, outline);
    std::string name = std::string("tree-") + (flat ? "flat" : "full") + "-autotree" + autotree;
    std::string expected = test_read_file(VELMORA_SOURCE_DIR "/tests/golden/" + name + ".txt");
    if (expected != outline) {
        // The whole outline is long: the tree goes beside the test for a diff.
        test_write_file(name + ".actual.txt", outline);
        ADD_FAILURE() << name << " differs: diff tests/golden/" << name << ".txt " << name << ".actual.txt";
    }
}

INSTANTIATE_TEST_SUITE_P(Trees, DbGolden, ::testing::Values(-1, 0, 1, 2, 3), [](const auto& info) {
    return info.param < 0 ? std::string("FlatAutotree0") : "FullAutotree" + std::to_string(info.param);
});

}  // namespace
