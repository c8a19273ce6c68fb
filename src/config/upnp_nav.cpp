// upnp_nav.cpp: the navigation presets. The browse tree is described by
// options, not code: the names of the fixed folders and up to 20 node
// definitions ("display name,level,level..."). This file turns the present
// language and the preset number in "autotree" into those options, first
// the fixed names, then, unless autotree is 0, a fresh set of nodes.
//
// No state and no lock: it writes through upnp_ini_set on the thread that
// changed "language" or "autotree", as every option write does.
#include "config/upnp_ini.h"
#include "config/upnp_nav.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_run.h"

#include <cstdio>
#include <cstdlib>

namespace {

enum nav_word : int8_t {
    NAV_ARTIST, NAV_GENRE, NAV_ALBUM, NAV_FOLDER, NAV_YEAR, NAV_DATE, NAV_GENREINDEX,
    NAV_ARTISTINDEX, NAV_STATION, NAV_TITLE, NAV_COMPOSER, NAV_RATING, NAV_WORD_COUNT,
    NAV_NONE = -1,
};

struct nav_word_key {
    const char* key;
    const char* fallback;    // only when the lookup itself fails for lack of memory
};

// Keys that no preset uses are fetched too, so that a string file missing
// them shows up in the log the same way as for the others.
constexpr nav_word_key nav_words[] = {
    {"artist", "Artist"}, {"genre", "Genre"}, {"album", "Album"}, {"folder", "Folder"},
    {"year", "Year"}, {"date", "Date"}, {"genreindex", "Genre Index"},
    {"artistindex", "Artist Index"}, {"station", "Station"}, {"title", "Title"},
    {"composer", "Composer"}, {"rating", "Rating"},
};
static_assert(sizeof nav_words / sizeof nav_words[0] == NAV_WORD_COUNT);

struct nav_fixed {
    int32_t option;
    const char* key;
    const char* flat_key;    // the key when the root tree is flat, else null
    int32_t wrapped;         // shown as "- name -", so that it sorts apart
};

constexpr nav_fixed nav_fixed_names[] = {
    {UPNP_OPT_ALLTRACKS, "alltracks", "Music", 0},
    {UPNP_OPT_PLAYLISTS, "playlists", nullptr, 0},
    {UPNP_OPT_PLAYLISTLASTPLAYED, "playlistlastplayed", nullptr, 1},
    {UPNP_OPT_PLAYLISTMOSTPLAYED, "playlistmostplayed", nullptr, 1},
    {UPNP_OPT_ALLPICTURES, "allpictures", "Picture", 0},
    {UPNP_OPT_ALLVIDEOS, "allvideos", "Video", 0},
    {UPNP_OPT_ROOTMUSIC, "rootmusic", nullptr, 0},
    {UPNP_OPT_ROOTPICTURE, "rootpicture", nullptr, 0},
    {UPNP_OPT_TAGSPICTURE, "tagspicture", nullptr, 0},
    {UPNP_OPT_ROOTVIDEO, "rootvideo", nullptr, 0},
    {UPNP_OPT_ALLNAME, "allname", nullptr, 0},
};

// A preset entry: the display name is one word, or two joined by '/', and
// the levels follow. An entry without levels (autotree 2's alltracks) is a
// plain folder name.
struct nav_preset {
    int32_t autotree;
    int32_t option;
    nav_word first;
    nav_word second;
    const char* levels;
};

constexpr nav_preset nav_presets[] = {
    {1, UPNP_OPT_MUSICNODE1, NAV_ARTIST, NAV_NONE, ",%ARTIST"},
    {1, UPNP_OPT_MUSICNODE2, NAV_GENRE, NAV_NONE, ",%GENRE"},
    {1, UPNP_OPT_MUSICNODE3, NAV_ALBUM, NAV_NONE, ",%ALBUM"},
    {1, UPNP_OPT_MUSICNODE4, NAV_FOLDER, NAV_NONE, ",%PATH"},
    {1, UPNP_OPT_PICTURENODE1, NAV_ALBUM, NAV_NONE, ",%PATH"},
    {1, UPNP_OPT_PICTURENODE2, NAV_DATE, NAV_NONE, ",%YEAR,%MONTH"},
    {1, UPNP_OPT_VIDEONODE1, NAV_FOLDER, NAV_NONE, ",%PATH"},

    {2, UPNP_OPT_ALLTRACKS, NAV_TITLE, NAV_NONE, ""},
    {2, UPNP_OPT_MUSICNODE1, NAV_ARTIST, NAV_NONE, ",%ARTIST,%ALBUM"},
    {2, UPNP_OPT_MUSICNODE2, NAV_ALBUM, NAV_NONE, ",%ALBUM"},
    {2, UPNP_OPT_MUSICNODE3, NAV_GENRE, NAV_NONE, ",%GENRE,%ARTIST,%ALBUM"},
    {2, UPNP_OPT_MUSICNODE4, NAV_COMPOSER, NAV_NONE, ",%COMPOSER"},
    {2, UPNP_OPT_PICTURENODE1, NAV_ALBUM, NAV_NONE, ",%PATH"},
    {2, UPNP_OPT_PICTURENODE2, NAV_DATE, NAV_NONE, ",%YEAR,%MONTH"},
    {2, UPNP_OPT_VIDEONODE1, NAV_FOLDER, NAV_NONE, ",%PATH"},

    {3, UPNP_OPT_MUSICNODE1, NAV_ARTIST, NAV_NONE, ",%ARTIST"},
    {3, UPNP_OPT_MUSICNODE2, NAV_GENRE, NAV_NONE, ",%GENRE"},
    {3, UPNP_OPT_MUSICNODE3, NAV_ALBUM, NAV_NONE, ",%ALBUM"},
    {3, UPNP_OPT_MUSICNODE4, NAV_FOLDER, NAV_NONE, ",%PATH"},
    {3, UPNP_OPT_MUSICNODE5, NAV_ARTIST, NAV_ALBUM, ",%ARTIST,%ALBUM"},
    {3, UPNP_OPT_MUSICNODE6, NAV_GENRE, NAV_ARTIST, ",%GENRE,%ARTIST,%ALBUM"},
    {3, UPNP_OPT_MUSICNODE7, NAV_GENREINDEX, NAV_NONE, ",%GENRE,[3]%ARTIST"},
    {3, UPNP_OPT_MUSICNODE8, NAV_YEAR, NAV_ARTIST, ",%YEAR,%ARTIST,%ALBUM"},
    {3, UPNP_OPT_MUSICNODE9, NAV_ARTISTINDEX, NAV_NONE, ",[3]%ARTIST,%ALBUM"},
    {3, UPNP_OPT_PICTURENODE1, NAV_ALBUM, NAV_NONE, ",%PATH"},
    {3, UPNP_OPT_PICTURENODE2, NAV_DATE, NAV_NONE, ",%YEAR,%MONTH"},
    {3, UPNP_OPT_VIDEONODE1, NAV_FOLDER, NAV_NONE, ",%PATH"},
};

constexpr int32_t NAV_NODE_BUFFER = 256;
constexpr int32_t NAV_NAME_BUFFER = 1030;   // a translation of 1023 bytes and "- " " -"

}  // namespace

static void nav_set_fixed_names()
{
    for (const nav_fixed& f : nav_fixed_names) {
        char* name = upnp_lang_text(upnp_switches.tree_flat && f.flat_key ? f.flat_key : f.key);
        if (name && f.wrapped) {
            char wrapped[NAV_NAME_BUFFER];
            snprintf(wrapped, sizeof wrapped, "- %s -", name);
            upnp_ini_set(f.option, wrapped);
        } else {
            upnp_ini_set(f.option, name);
        }
        free(name);
    }
}

static void nav_clear_nodes()
{
    // 24 to 33 holds musicnode10 as well: its number is 25.
    for (int32_t id = UPNP_OPT_MUSICNODE1; id <= UPNP_OPT_MUSICNODE9; id++)
        upnp_ini_set(id, nullptr);
    for (int32_t id = UPNP_OPT_PICTURENODE1; id <= UPNP_OPT_PICTURENODE5; id++)
        upnp_ini_set(id, nullptr);
    for (int32_t id = UPNP_OPT_VIDEONODE1; id <= UPNP_OPT_VIDEONODE5; id++)
        upnp_ini_set(id, nullptr);
}

// A definition cut at its buffer would lose its levels; such a node is
// left out instead.
static void nav_set_preset(const nav_preset& p, const char* const* words)
{
    char node[NAV_NODE_BUFFER];
    int n = snprintf(node, sizeof node, "%s%s%s%s", words[p.first], p.second == NAV_NONE ? "" : "/",
                     p.second == NAV_NONE ? "" : words[p.second], p.levels);
    if (n < 0 || n >= NAV_NODE_BUFFER) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "navigation node %s too long, left out\n",
                 upnp_ini_get_name(p.option));
        return;
    }
    upnp_ini_set(p.option, node);
}

void upnp_nav_options_rebuild()
{
    nav_set_fixed_names();
    int32_t preset = upnp_ini_get_int(UPNP_OPT_AUTOTREE);
    if (preset == 0)
        return;
    char* fetched[NAV_WORD_COUNT];
    const char* words[NAV_WORD_COUNT];
    for (int i = 0; i < NAV_WORD_COUNT; i++) {
        fetched[i] = upnp_lang_text(nav_words[i].key);
        words[i] = fetched[i] ? fetched[i] : nav_words[i].fallback;
    }
    nav_clear_nodes();
    upnp_ini_set(UPNP_OPT_ALLDOCUMENT, "Document");
    for (const nav_preset& p : nav_presets)
        if (p.autotree == preset)
            nav_set_preset(p, words);
    for (char* word : fetched)
        free(word);
}
