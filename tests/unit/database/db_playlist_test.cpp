// Most Played and Last Played as tracks enter and are played.
#include "config/upnp_ini.h"
#include "database/db_playlist.h"
#include "unit/database/db_test_support.h"

#include <string>
#include <vector>

namespace {

typedef std::vector<std::string> entries_t;

// Lists two entries long, so that every test reaches the full-list rules.
class PlayedListTest : public DbStoreTest {
protected:
    void SetUp() override
    {
        DbStoreTest::SetUp();
        upnp_ini_set(UPNP_OPT_PLAYLISTNUMENTRIES, "2");
        db_played_reset();
        db_most_played = folder(DB_OBJ_PLAYLIST_CONTAINER, "Most Played", db_music_root);
        db_last_played = folder(DB_OBJ_PLAYLIST_CONTAINER, "Last Played", db_music_root);
    }
    void TearDown() override
    {
        upnp_ini_set(UPNP_OPT_PLAYLISTNUMENTRIES, "20");
        DbStoreTest::TearDown();
    }

    static db_object* track(const char* title, const std::string& plays, int64_t last_played = -1)
    {
        std::string last = std::to_string(last_played);
        return add(std::string("/music/") + title + ".mp3", DB_OBJ_AUDIO,
                   {{DBK_TITLE, title}, {DBK_PLAY_COUNT, plays.c_str()},
                    {DBK_LAST_PLAYED, last_played < 0 ? nullptr : last.c_str()}});
    }

    static entries_t entries(db_object* list)
    {
        entries_t out;
        for (int32_t i = 0; i < db_container_child_count(list); i++) {
            db_object* r = db_container_child(list, i);
            out.push_back(std::string(db_object_get_str(r, DBK_TITLE)) + ":" +
                          std::to_string(db_object_get_int(r, DBK_TRACK)));
        }
        return out;
    }
};

TEST_F(PlayedListTest, MostPlayedKeepsTheHighestCountsAndAListedTrackOnlyChangesItsNumber)
{
    db_object* a = track("a", "5");
    track("b", "3");
    track("c", "7");                                    // full: the lowest (b) makes way
    EXPECT_EQ(entries(db_most_played), (entries_t{"a:5", "c:7"}));
    EXPECT_EQ(db_most_played_min, 3);
    track("d", "4");                                    // above the old threshold, below the list
    EXPECT_EQ(entries(db_most_played), (entries_t{"a:5", "c:7"}));
    EXPECT_EQ(db_most_played_min, 5);
    db_object_set_int(a, DBK_PLAY_COUNT, 9);
    db_most_played_update(a);
    EXPECT_EQ(entries(db_most_played), (entries_t{"a:9", "c:7"}));
}

TEST_F(PlayedListTest, LastPlayedRanksBySecondsSinceTheStoreWasMade)
{
    int64_t start = db_get_start_time();
    track("a", "1", start + 10);
    track("b", "1", start + 20);
    track("c", "1", start + 5);                         // older than both: stays out
    EXPECT_EQ(entries(db_last_played), (entries_t{"a:10", "b:20"}));
    track("d", "1", start + 30);                        // replaces the oldest
    EXPECT_EQ(entries(db_last_played), (entries_t{"b:20", "d:30"}));
    // The threshold became the last value itself, so a newer play than
    // the oldest entry but older than the threshold is not taken.
    track("e", "1", start + 25);
    EXPECT_EQ(entries(db_last_played), (entries_t{"b:20", "d:30"}));
}

TEST_F(PlayedListTest, EmptySlotsAndAZeroLengthLeaveEverythingAlone)
{
    db_most_played = nullptr;
    track("a", "5");
    EXPECT_EQ(db_most_played_min, -1);
    upnp_ini_set(UPNP_OPT_PLAYLISTNUMENTRIES, "0");
    db_played_reset();
    track("b", "5", db_get_start_time() + 1);
    EXPECT_EQ(db_container_child_count(db_last_played), 1);   // only "a" entered before
}

}  // namespace
