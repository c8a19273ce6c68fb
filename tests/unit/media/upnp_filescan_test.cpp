// The walk and the admission rules, on real folders: what enters the store
// and what is passed over, and that the pass always finishes.
#include "../database/db_test_support.h"
#include "config/upnp_ini.h"
#include "database/db_tree.h"
#include "media/upnp_filescan.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <ctime>
#include <fcntl.h>
#include <linux/capability.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

std::vector<std::string> added;      // FILE_ADDED texts, scanner on this thread

void collect(int32_t code, const char* text)
{
    if (code == UPNP_EVENT_FILE_ADDED)
        added.push_back(text);
}

// Root reads every folder; without these two capabilities this thread
// meets permissions as a user does. They come back at the end of the scope.
struct without_read_override {
    __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved[2] = {};
    without_read_override()
    {
        syscall(SYS_capget, &head, saved);
        __user_cap_data_struct lowered[2] = {saved[0], saved[1]};
        lowered[0].effective &= ~(1u << CAP_DAC_OVERRIDE | 1u << CAP_DAC_READ_SEARCH);
        syscall(SYS_capset, &head, lowered);
    }
    ~without_read_override() { syscall(SYS_capset, &head, saved); }
};

class Filescan : public DbStoreTest {
protected:
    test_dir dir;
    std::string share = dir.file("share");

    void SetUp() override
    {
        DbStoreTest::SetUp();
        added.clear();
        upnp_switches.callback_enabled = 1;
        upnp_set_event_sink(collect);
        mkdir(share.c_str(), 0755);
        upnp_ini_set(UPNP_OPT_DBDIR, (share + "/db").c_str());
        upnp_ini_set(UPNP_OPT_IGNOREDIR, "AppleDouble");
        upnp_ini_set(UPNP_OPT_CONTENTDIR, ("+A|" + share).c_str());
        upnp_start_time_set(int64_t(time(nullptr)));
        upnp_set_running(1);
    }
    void TearDown() override
    {
        upnp_set_running(0);
        upnp_set_event_sink(nullptr);
        upnp_ini_set(UPNP_OPT_CONTENTDIR, "");
        upnp_ini_set(UPNP_OPT_DBDIR, "");
        DbStoreTest::TearDown();
    }
    void file(const std::string& name, const std::string& bytes = "text")
    {
        std::string path = share + "/" + name;
        test_output("mkdir -p '" + path.substr(0, path.rfind('/')) + "'");
        ASSERT_TRUE(test_write_file(path, bytes));
    }
};

TEST_F(Filescan, TheWalkAdmitsWhatItMayOnceAndPassesOverTheRestWithoutStopping)
{
    std::string deep20;
    for (int i = 0; i < 20; i++)
        deep20 += "d/";
    for (const std::string& name : std::vector<std::string>{"a.txt", deep20 + "f20.txt", deep20 + "d/f21.txt", "noext",
                                                            "x.unknown", ".hidden.txt", ".hid/in.txt", "db/d.txt",
                                                            "AppleDouble/c.txt", "bad\xff.txt", "locked/g.txt"})
        file(name);
    ASSERT_EQ(0, mkfifo((share + "/pipe.txt").c_str(), 0644));
    test_dir outside;
    ASSERT_TRUE(test_write_file(outside.file("o.txt"), "out"));
    ASSERT_EQ(0, symlink(share.c_str(), (share + "/loop").c_str()));
    ASSERT_EQ(0, symlink(outside.path.c_str(), (share + "/out").c_str()));
    ASSERT_EQ(0, symlink((share + "/a.txt").c_str(), (share + "/alias.txt").c_str()));
    ASSERT_EQ(0, chmod((share + "/locked").c_str(), 0));
    int sparse = open((share + "/sparse.txt").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(0, ftruncate(sparse, int64_t(4) << 30));
    close(sparse);
    {
        without_read_override user;
        upnp_filescan_folder_pass();
        const size_t first = added.size();
        file("late.txt");
        upnp_filescan_folder_pass();      // walked already in this run
        EXPECT_EQ(added.size(), first);
        upnp_filescan_request_rescan();
        upnp_filescan_folder_pass();      // forced, yet only the file it does not know is read
    }
    chmod((share + "/locked").c_str(), 0755);
    // Each once; alias.txt is a link to a file inside the share, loop and out lead nowhere new.
    std::multiset<std::string> admitted;
    for (const std::string& path : added)
        admitted.insert(path.substr(share.size() + 1));
    EXPECT_EQ(admitted,
              std::multiset<std::string>({"a.txt", "alias.txt", "sparse.txt", deep20 + "f20.txt", "late.txt"}));
    for (const std::string& name : admitted)
        EXPECT_NE(upnp_cds_db_file_get_id_by_res((share + "/" + name).c_str()), 0u) << name;
}

TEST_F(Filescan, AdmissionChecksNameSizeAndClassBeforeAnyReader)
{
    file("a.txt");
    file("empty.txt", "");
    const uint32_t later = uint32_t(time(nullptr) + 100);      // than both file times: turns the file away
    const struct { std::string path; char media_class; uint32_t since; int admitted; } cases[] = {
        {share + "/a.txt", 'A', 0, 1},    {share + "/a.txt", 'M', 0, 0},      {share + "/a.txt", 'A', later, 0},
        {share + "/gone.txt", 'A', 0, 0}, {share + "/empty.txt", 'A', 0, 0}, {share, 'A', 0, 0},
        {".rel.txt", 'A', 0, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.admitted, upnp_filescan_add_file(c.path.c_str(), c.media_class, 0, c.since, 0))
            << c.path << c.media_class << c.since;
}

TEST_F(Filescan, AFileDeletedBeforeAPassLeavesAtTheNextHousekeeping)
{
    file("gone.txt");
    file("kept.txt");
    upnp_filescan_folder_pass();
    const uint32_t gone = upnp_cds_db_file_get_id_by_res((share + "/gone.txt").c_str());
    ASSERT_NE(gone, 0u);
    db_housekeeping(0);       // no sweep already waiting
    ASSERT_EQ(0, unlink((share + "/gone.txt").c_str()));
    upnp_filescan_request_rescan();
    ASSERT_TRUE(upnp_filescan_start());
    EXPECT_TRUE(test_eventually([&] { return !db_get_pItem_by_id(gone); }, 60000));
    upnp_set_running(0);
    upnp_filescan_queue_term();
    EXPECT_NE(upnp_cds_db_file_get_id_by_res((share + "/kept.txt").c_str()), 0u);
}

}  // namespace
