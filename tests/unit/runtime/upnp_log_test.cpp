// Tests of the logger: the two masks and the file's life.
#include "runtime/upnp_log.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <string>

struct LogFile : ::testing::Test {
    test_dir dir;
    std::string path = dir.file("DMSLOG.txt");
    void SetUp() override
    {
        upnp_log_init(path.c_str());
        upnp_log_set_mode(UPNP_LOG_ALL_CHANNELS);
        upnp_log_set_level(15);
    }
    void TearDown() override
    {
        upnp_log_set_mode(0);
        upnp_log_set_level(15);
        upnp_log_init(nullptr);
    }
    std::string text() { return test_read_file(path); }
};

// enabled: what upnp_log_channel_enabled says of the channel.
const struct { uint32_t channels, levels, level, channel; bool enabled, written; } filter_cases[] = {
    {0, 15, UPNP_LOG_INFO, UPNP_LOG_SYSTEM, false, false},                       // logging off by default
    {UPNP_LOG_ALL_CHANNELS, 0, UPNP_LOG_INFO, UPNP_LOG_SYSTEM, true, false},      // no level at all
    {UPNP_LOG_ALL_CHANNELS, 1, UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, true, false},   // a mask, not a threshold
    {UPNP_LOG_ALL_CHANNELS, 2, UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, true, true},
    {UPNP_LOG_DB, 15, UPNP_LOG_INFO, UPNP_LOG_HTTP, false, false},
    {UPNP_LOG_DB | UPNP_LOG_HTTP, 15, UPNP_LOG_INFO, UPNP_LOG_DB, true, true},
    {UPNP_LOG_DB, 15, UPNP_LOG_INFO, UPNP_LOG_DB | UPNP_LOG_HTTP, false, false},   // all bits must be on
};

TEST_F(LogFile, WritesOnlyWhatBothMasksHold)
{
    for (const auto& c : filter_cases) {
        SCOPED_TRACE(testing::Message() << c.channels << "/" << c.levels << " " << c.level << "/" << c.channel);
        upnp_log_clear();
        upnp_log_set_mode(c.channels);
        upnp_log_set_level(c.levels);
        upnp_log(c.level, c.channel, "probe %d\n", 7);
        EXPECT_EQ(c.written, text().find("probe 7\n") != std::string::npos);
        EXPECT_EQ(c.enabled ? 1 : 0, upnp_log_channel_enabled(c.channel));
    }
}

// Clear empties the file; close goes back to standard output but keeps the
// name; a new init appends.
TEST_F(LogFile, ClearCloseAndInitFollowTheFilesLife)
{
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "before\n");
    upnp_log_clear();
    EXPECT_EQ("", text());
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "first run\n");
    upnp_log_close();
    EXPECT_STREQ(path.c_str(), upnp_log_get_path());
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "to stdout only\n");
    upnp_log_init(path.c_str());
    EXPECT_LT(text().find("first run\n"), text().find("LOG INIT"));
    EXPECT_EQ(std::string::npos, text().find("to stdout only"));
}

TEST_F(LogFile, LongMessagesAreCutNotOverrun)
{
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "%s\n", std::string(10000, 'x').c_str());
    EXPECT_TRUE(text().size() > 1000u && text().size() < 5000u) << text().size();
}
