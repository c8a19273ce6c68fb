// The navigation presets and fixed folder names.
#include "config/upnp_ini.h"
#include "config/upnp_nav.h"
#include "config_test_support.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace {

using NavStart = ConfigStart;
using nav_nodes = std::map<int32_t, std::string>;
using namespace std::string_literals;

const int32_t nav_node_ids[] = {24, 26, 27, 28, 29, 30, 31, 32, 33, 25, 43, 44, 45, 46, 47, 60, 61, 62, 63, 64};

// Every node option, with "" for the unset ones.
nav_nodes nav_node_values()
{
    nav_nodes all;
    for (int32_t id : nav_node_ids) {
        const char* v = upnp_ini_get_string(id);
        all[id] = v ? v : "";
    }
    return all;
}

// Presets 1 to 3 set nodes and clear every hand-made one; -1 is no preset
// and clears them all. A node a preset set passes the node rule by hand.
TEST_F(NavStart, EachPresetSetsItsNodesAndClearsTheRest)
{
    start();
    for (int32_t autotree : {1, 3, -1}) {
        for (int32_t id : nav_node_ids)
            upnp_ini_set(id, "Hand,%MADE");
        upnp_ini_set(UPNP_OPT_AUTOTREE, nullptr);     // so that the next set is a change
        upnp_ini_set(UPNP_OPT_AUTOTREE, std::to_string(autotree).c_str());
        int set = 0;
        for (const auto& [id, node] : nav_node_values()) {
            EXPECT_NE("Hand,%MADE", node) << autotree;
            set += !node.empty() && upnp_ini_set(id, nullptr) && upnp_ini_set(id, node.c_str());
        }
        EXPECT_EQ(autotree == 1 ? 7 : autotree == 3 ? 12 : 0, set);
    }
}

// With preset 0 a language change renames only the fixed folders, and the
// file's nodes survive a restart; with another preset they survive only
// until the preset is set, as they follow autotree in the file.
TEST_F(NavStart, HandMadeNodesSurviveOnlyWithPresetZero)
{
    write_ini("autotree=0\r\nmusicnode1=Mine,%ARTIST\r\nmusicnode10=Ten,[3]%GENRE\r\n");
    start();
    EXPECT_EQ("Mine,%ARTIST Ten,[3]%GENRE", value(UPNP_OPT_MUSICNODE1) + " " + value(UPNP_OPT_MUSICNODE10));
    auto before = nav_node_values();
    std::string most_played = value(UPNP_OPT_PLAYLISTMOSTPLAYED);
    upnp_ini_set(UPNP_OPT_LANGUAGE, "de");
    EXPECT_EQ(before, nav_node_values());
    EXPECT_NE(most_played, value(UPNP_OPT_PLAYLISTMOSTPLAYED));
    upnp_ini_release();
    write_ini("autotree=1\r\nmusicnode1=Mine,%ARTIST\r\nmusicnode10=Ten,[3]%GENRE\r\n");
    start();
    EXPECT_EQ("Mine,%ARTIST", value(UPNP_OPT_MUSICNODE1));
    upnp_ini_set(UPNP_OPT_AUTOTREE, "3");
    EXPECT_NE("Mine,%ARTIST", value(UPNP_OPT_MUSICNODE1));
    EXPECT_EQ("<null>", value(UPNP_OPT_MUSICNODE10));
}

// Fixed names come from the language; in a flat tree the "all" folders
// take their media's word, and some are set apart as "- name -". A word
// missing from both tables gives its key; a preset joins two words by '/'.
TEST_F(NavStart, FixedFolderNamesAndPresetsFollowLanguageAndTreeShape)
{
    write_strings("xx", "|alltracks|Alle\r\n|Music|Musik\r\n|artist|Wer\r\n");
    write_strings("en", "|genre|Genre\r\n");
    start();
    upnp_ini_set(UPNP_OPT_LANGUAGE, "xx");
    for (int32_t flat : {0, 1}) {
        upnp_switches.tree_flat = flat;
        upnp_nav_options_rebuild();
        EXPECT_EQ(flat ? "Musik - playlistlastplayed -"s : "Alle - playlistlastplayed -"s,
                  value(UPNP_OPT_ALLTRACKS) + " " + value(UPNP_OPT_PLAYLISTLASTPLAYED));
    }
    upnp_ini_set(UPNP_OPT_AUTOTREE, "3");
    EXPECT_EQ("Wer/album,%ARTIST,%ALBUM Genre,%GENRE", value(UPNP_OPT_MUSICNODE5) + " " + value(UPNP_OPT_MUSICNODE2));
}

TEST_F(NavStart, ANodeThatWouldBeCutIsLeftOut)
{
    start();
    std::string long_word(240, 'a');    // fits alone, not with a second word and the levels
    write_strings("xx", "|artist|" + long_word + "\r\n|album|" + std::string(2000, 'b') + "\r\n|playlists|" +
                            std::string(1023, 'p') + "\r\n");
    upnp_ini_set(UPNP_OPT_AUTOTREE, "3");
    upnp_ini_set(UPNP_OPT_LANGUAGE, "xx");
    EXPECT_EQ(long_word + ",%ARTIST", value(UPNP_OPT_MUSICNODE1));
    // 1023 bytes of album do not fit in 256.
    EXPECT_EQ("<null> <null>", value(UPNP_OPT_MUSICNODE3) + " " + value(UPNP_OPT_MUSICNODE5));
    EXPECT_NE("<null>", value(UPNP_OPT_MUSICNODE2));
    EXPECT_EQ(std::string(1023, 'p'), value(UPNP_OPT_PLAYLISTS));
}

}  // namespace
