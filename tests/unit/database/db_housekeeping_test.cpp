// Housekeeping over files on disk: what a sweep takes, what it leaves, when it runs.
#include "db_test_support.h"

#include "config/upnp_ini.h"
#include "database/db_tree.h"
#include "support/test_support.h"

#include <thread>
#include <unistd.h>

namespace {

class DbHousekeeping : public DbStoreTest {
protected:
    test_dir dir;
    void SetUp() override
    {
        DbStoreTest::SetUp();
        upnp_ini_set(UPNP_OPT_CONTENTDIR, ("+A|" + dir.file("on") + ",-A|" + dir.file("off")).c_str());
        test_output("mkdir " + dir.file("on") + " " + dir.file("off"));
        db_housekeeping(0);     // what earlier tests left asked for
    }
    void TearDown() override
    {
        upnp_ini_set(UPNP_OPT_CONTENTDIR, "");
        upnp_ini_set(UPNP_OPT_SCANTIME, "-1");
        DbStoreTest::TearDown();
    }
    db_object* track(const std::string& name)
    {
        bool url = name.find("://") != std::string::npos;
        EXPECT_TRUE(url || test_write_file(dir.file(name), "x"));
        return add(url ? name : dir.file(name), DB_OBJ_AUDIO, {{DBK_TITLE, name.c_str()}});
    }
};

TEST_F(DbHousekeeping, GoneFilesLeaveWithTheirReferencesAndTheFoldersTheyEmptied)
{
    db_object *node = folder(0, "Artist", db_music_root), *genre = folder(0, "Genre", db_music_root);
    for (db_object* fixed : {node, genre})
        db_object_set_char(fixed, DBK_RESTRICTED, '1');
    db_object* extra = folder(0, "Extra", db_root);
    db_object *kept = track("on/kept.mp3"), *gone = track("on/gone.mp3"), *off = track("off/off.mp3");
    db_object *heard = track("http://radio.example/heard"), *unheard = track("http://radio.example/unheard");
    db_object* both = folder(0, "Both", node);
    for (db_object* o : {kept, gone, off, heard})
        ref(o, both);
    ref(gone, folder(0, "Album", folder(0, "Gone", node)));
    ref(gone, folder(0, "Late", db_music_root));     // among the items, as a flat tree's tags root
    ASSERT_EQ(0, unlink(dir.file("on/gone.mp3").c_str()));
    const struct { uint32_t id; bool item, record; } after[] = {
        {uint32_t(kept->id), true, true}, {uint32_t(gone->id), false, false}, {uint32_t(off->id), false, true},
        {uint32_t(heard->id), true, true}, {uint32_t(unheard->id), false, false},
    };
    db_request_shadow_sweep();
    db_housekeeping(1);
    for (const auto& a : after) {
        SCOPED_TRACE(a.id);
        EXPECT_EQ(a.item, db_get_pItem_by_id(a.id) != nullptr);
        EXPECT_EQ(a.record, !db_test_read(db_id_to_block(a.id)).empty());
    }
    EXPECT_EQ(2, db_container_child_count(both));
    EXPECT_EQ(1, db_container_child_count(node));       // Gone/Album went in the same run
    EXPECT_EQ(4, db_container_child_count(db_music_root));     // Artist, Genre, kept, heard
    EXPECT_TRUE(db_container_has(db_root, extra));
}

// Without a request nothing runs, whatever the scantime; a request made
// during a run brings one more, not one per request.
TEST_F(DbHousekeeping, RequestsDuringARunBringOneMoreRunAndNoneRunsWithout)
{
    folder(0, "Empty", db_music_root);
    db_request_shadow_sweep();
    db_lock();
    std::thread run([] { db_housekeeping(1); });
    EXPECT_TRUE(test_eventually([] { return !db_housekeeping_pending(); }));     // taken, waiting for the lock
    for (int i = 0; i < 3; i++)
        db_request_shadow_sweep(), db_request_container_sweep();
    db_unlock();
    run.join();
    EXPECT_EQ(0, db_container_child_count(db_music_root));
    folder(0, "Empty", db_music_root);
    db_housekeeping(2);
    EXPECT_EQ(0, db_container_child_count(db_music_root));
    folder(0, "Empty", db_music_root);
    track("on/gone.mp3");
    ASSERT_EQ(0, unlink(dir.file("on/gone.mp3").c_str()));
    for (const char* scantime : {"-1", "0", "1"}) {
        upnp_ini_set(UPNP_OPT_SCANTIME, scantime);
        db_housekeeping(1000000);
        EXPECT_EQ(2, db_container_child_count(db_music_root)) << scantime;
    }
}

}  // namespace
