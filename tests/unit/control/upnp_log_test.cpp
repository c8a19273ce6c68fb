// Tests of the logger: the two masks, the line layout, and the file's life.
#include "control/upnp_log.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <string>

namespace {

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
    std::string body() { return test_read_file(path).substr(std::string("***** LOG INIT *****\n").size()); }
};

TEST_F(LogFile, StartsWithTheInitLine)
{
    EXPECT_EQ(0u, test_read_file(path).find("***** LOG INIT *****\n"));
}

struct filter_case { uint32_t channels, levels, level, channel; bool written; };

static const filter_case filter_cases[] = {
    {0, 15, UPNP_LOG_INFO, UPNP_LOG_SYSTEM, false},                        // logging off by default
    {UPNP_LOG_ALL_CHANNELS, 0, UPNP_LOG_INFO, UPNP_LOG_SYSTEM, false},      // no level at all
    {UPNP_LOG_ALL_CHANNELS, 1, UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, false},   // a mask, not a threshold
    {UPNP_LOG_ALL_CHANNELS, 2, UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, true},
    {UPNP_LOG_DB, 15, UPNP_LOG_INFO, UPNP_LOG_HTTP, false},
    {UPNP_LOG_DB | UPNP_LOG_HTTP, 15, UPNP_LOG_INFO, UPNP_LOG_DB | UPNP_LOG_HTTP, true},
    {UPNP_LOG_DB, 15, UPNP_LOG_INFO, UPNP_LOG_DB | UPNP_LOG_HTTP, false},   // all bits must be on
};

TEST_F(LogFile, WritesOnlyWhatBothMasksHold)
{
    for (const filter_case& c : filter_cases) {
        SCOPED_TRACE(testing::Message() << c.channels << "/" << c.levels << " " << c.level << "/" << c.channel);
        upnp_log_init(path.c_str());
        upnp_log_set_mode(c.channels);
        upnp_log_set_level(c.levels);
        upnp_log(c.level, c.channel, "probe %d\n", 7);
        EXPECT_EQ(c.written, body().find("probe 7\n") != std::string::npos);
        upnp_log_clear();
    }
}

struct layout_case { uint32_t level, channel; const char* tags; };

static const layout_case layout_cases[] = {
    {UPNP_LOG_INFO, UPNP_LOG_SYSTEM, ")SYSTEM:text\n"},
    {UPNP_LOG_PROBLEM, UPNP_LOG_DB, ")[Problem]DB:text\n"},
    {UPNP_LOG_ERROR, UPNP_LOG_CLIENT_DB, ")[ERROR]CLIENT-DB:text\n"},
    {UPNP_LOG_CRITICAL, UPNP_LOG_DAPI, ")DAPI:text\n"},
    {UPNP_LOG_INFO, UPNP_LOG_XML | UPNP_LOG_SCAN, ")text\n"},    // several bits: no tag
};

TEST_F(LogFile, LinesCarryPrefixLevelTagChannelTagAndText)
{
    for (const layout_case& c : layout_cases) {
        SCOPED_TRACE(c.tags);
        upnp_log_clear();
        upnp_log(c.level, c.channel, "text\n");
        std::string line = test_read_file(path);
        ASSERT_EQ(0u, line.find("dlna DMS("));
        EXPECT_NE(std::string::npos, line.find(c.tags)) << line;
    }
}

TEST_F(LogFile, PrefixHasDateWithoutSeparatorsOrLeadingZeros)
{
    upnp_log_clear();
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_APP, "x\n");
    std::string line = test_read_file(path);
    size_t close = line.find(')');
    ASSERT_NE(std::string::npos, close);
    std::string stamp = line.substr(9, close - 9);    // "YYYYMD H:M:S" in its shortest form
    EXPECT_TRUE(stamp.find(' ') != std::string::npos && stamp.find(':') != std::string::npos) << stamp;
    EXPECT_EQ(std::string::npos, stamp.find('-'));
}

TEST_F(LogFile, ClearEmptiesTheFile)
{
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "before\n");
    upnp_log_clear();
    EXPECT_EQ("", test_read_file(path));
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "after\n");
    EXPECT_NE(std::string::npos, test_read_file(path).find("after"));
}

TEST_F(LogFile, CloseThenInitAppendsAfterANewInitLine)
{
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "first run\n");
    upnp_log_close();
    EXPECT_STREQ(path.c_str(), upnp_log_get_path());   // the name stays
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "to stdout only\n");
    upnp_log_init(path.c_str());
    std::string all = test_read_file(path);
    EXPECT_NE(std::string::npos, all.find("first run\n***** LOG INIT *****\n"));
    EXPECT_EQ(std::string::npos, all.find("to stdout only"));
}

TEST_F(LogFile, LongMessagesAreCutNotOverrun)
{
    std::string big(10000, 'x');
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "%s\n", big.c_str());
    std::string all = body();
    EXPECT_GT(all.size(), 1000u);
    EXPECT_LT(all.size(), 5000u);
}

TEST(Log, ClearAndCloseWithoutAFileDoNothing)
{
    upnp_log_init(nullptr);
    EXPECT_EQ(nullptr, upnp_log_get_path());
    upnp_log_clear();
    upnp_log_close();
    EXPECT_EQ(nullptr, upnp_log_get_path());
}

TEST(Log, AnUnopenableFileFallsBackToStandardOutputAndKeepsTheName)
{
    upnp_log_init("/nonexistent-folder/DMSLOG.txt");
    EXPECT_STREQ("/nonexistent-folder/DMSLOG.txt", upnp_log_get_path());
    upnp_log_set_mode(UPNP_LOG_ALL_CHANNELS);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "still fine\n");
    upnp_log_set_mode(0);
    upnp_log_init(nullptr);
}

TEST(Log, ChannelEnabledNeedsEveryGivenBit)
{
    upnp_log_set_mode(UPNP_LOG_DB | UPNP_LOG_HTTP);
    EXPECT_EQ(1, upnp_log_channel_enabled(UPNP_LOG_DB));
    EXPECT_EQ(1, upnp_log_channel_enabled(UPNP_LOG_DB | UPNP_LOG_HTTP));
    EXPECT_EQ(0, upnp_log_channel_enabled(UPNP_LOG_DB | UPNP_LOG_SSDP));
    upnp_log_set_mode(0);
}

}  // namespace
