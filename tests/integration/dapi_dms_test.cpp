// The control API driven in-process, as a host would: the library reads its
// options from the process's working folder, which a global environment
// sets up once, pinned to 127.0.0.1 and a free port.
#include <velmora/dapi_dms.h>

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "http/http_server.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "support/test_net.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

test_dir* work;       // the library's working folder for the whole run
int work_port;

struct DapiEnvironment : ::testing::Environment {
    void SetUp() override
    {
        work = new test_dir;
        work_port = test_free_port();
        std::string ini = "[main]\r\nip=127.0.0.1\r\nhttpport=" + std::to_string(work_port) + "\r\nnicrestart=0\r\n";
        test_write_file(work->file("velmora-mediaserver.ini"), ini);
        test_write_file(work->file("velmora-mediaserver-simple.ini"), ini);
        ASSERT_EQ(0, chdir(work->path.c_str()));
    }
    void TearDown() override
    {
        dapi_dms_terminate();
        chdir("/");
        delete work;
    }
};

const auto* dapi_environment = ::testing::AddGlobalTestEnvironment(new DapiEnvironment);

struct Dapi : ::testing::Test {
    void TearDown() override { dapi_dms_terminate(); }
};

std::atomic<int> events_seen;
std::string last_event_text;

// The text is set before the count, which the test thread waits on. The
// scanner reports its passes whenever they end; these tests don't watch them.
int32_t count_event(int32_t code, const char* text)
{
    if (code == DAPI_EVENT_SCAN)
        return 0;
    last_event_text = std::to_string(code) + ":" + (text ? text : "(null)");
    events_seen++;
    return 0;
}

TEST_F(Dapi, InitServesOnThePinnedAddressUntilTerminateAndRestartReusesTheLastArguments)
{
    EXPECT_TRUE(dapi_dms_status() == 0 && dapi_dms_terminate() == 0);    // nothing to stop
    const uint32_t flags = DAPI_FLAG_NO_SCHEDULER | DAPI_FLAG_LOG;
    ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, flags));
    EXPECT_EQ(0, dapi_dms_init(DAPI_MODE_FULL, flags));   // a second init while running is refused
    EXPECT_EQ(1, dapi_dms_status());
    nic_entry* list = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(1, dapi_dms_get_niclist(&list, &count));
    ASSERT_EQ(1u, count);
    EXPECT_STREQ("127.0.0.1", list[0].ip);
    EXPECT_EQ(work_port, list[0].port);
    EXPECT_TRUE(test_can_connect("127.0.0.1", work_port));
    std::string page = test_read_file(work->file("velmora-config.html"));
    EXPECT_NE(std::string::npos, page.find("URL=http://127.0.0.1:" + std::to_string(work_port) + "/setup.htm"));
    EXPECT_EQ(1, dapi_dms_terminate());
    EXPECT_EQ(0, dapi_dms_status());
    EXPECT_EQ(1, dapi_dms_get_niclist(&list, &count));
    EXPECT_EQ(0u, count);
    EXPECT_FALSE(test_can_connect("127.0.0.1", work_port));
    EXPECT_NE("", test_read_file(work->file("DMSLOG.txt")));   // the log flag's file

    upnp_switches.scheduler_enabled = 1;
    EXPECT_EQ(1, dapi_dms_restart());
    EXPECT_EQ(1, dapi_dms_status());
    EXPECT_EQ(0, upnp_switches.scheduler_enabled);
    dapi_dms_terminate();
    upnp_log_set_mode(0);
}

// The mode sets its switches, then a flag clears or sets one; a switch
// outside the mode keeps its value until a flag changes it.
TEST_F(Dapi, ModeAndFlagsSetTheServiceSwitches)
{
    ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_SIMPLE, DAPI_FLAG_DOCUMENT_ROOT));
    EXPECT_FALSE(upnp_switches.ssdp_enabled || upnp_switches.scanner_enabled || upnp_switches.scheduler_enabled ||
                 upnp_switches.full_mode);
    EXPECT_LT(upnp_switches.oid_seed, 240000);
    EXPECT_NE(nullptr, strstr(upnp_ini_get_path(), "velmora-mediaserver-simple.ini"));
    dapi_dms_terminate();
    int32_t seed = upnp_switches.oid_seed = 4242;
    ASSERT_EQ(1, dapi_dms_init(2, 0));   // an unknown mode changes no switch
    EXPECT_TRUE(seed == upnp_switches.oid_seed && !upnp_switches.full_mode);
    dapi_dms_terminate();
    ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, DAPI_FLAG_NO_SSDP));
    EXPECT_TRUE(!upnp_switches.ssdp_enabled && upnp_switches.scanner_enabled && upnp_switches.full_mode);
    EXPECT_TRUE(!upnp_switches.oid_seed && upnp_switches.document_root);
    upnp_switches.document_root = 0;
}

static ino_t ini_inode()
{
    struct stat st {};
    stat(work->file("velmora-mediaserver.ini").c_str(), &st);
    return st.st_ino;
}

// allow/deny: the clients option, the caller's text, the result and the
// text after allow.
const struct { const char *clients, *text; int32_t allowed; const char* after_allow; } cp_cases[] = {
    {"192.168.1.7", "192.168.1.7|3|1,", 1, "192.168.1.7|3|0,"},
    {"192.168.1.7", "10.0.0.1|1|1,192.168.1.7|3|1", 1, "10.0.0.1|1|1,192.168.1.7|3|0"},
    {"192.168.1.7", "192.168.1.8|3|1", 0, "192.168.1.8|3|1"},       // the whole value must occur
    {"192.168.1.7", "192.168.1.7|3", 0, "192.168.1.7|3"},           // no mark to change
};

TEST_F(Dapi, SettersWriteTheIniOnlyOnAChangeAndRefuseWhatTheyCannotUse)
{
    ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, 0));
    EXPECT_EQ(1, dapi_dms_set_servername("Living Room (2)"));
    char* name = nullptr;
    EXPECT_EQ(1, dapi_dms_get_servername(&name));
    EXPECT_STREQ("Living Room (2)", name);
    ino_t written = ini_inode();
    EXPECT_EQ(1, dapi_dms_set_servername("Living Room (2)"));
    EXPECT_EQ(written, ini_inode());   // the file was not replaced
    char* udn = nullptr;
    dapi_dms_get_udn(&udn);
    ASSERT_NE(nullptr, udn);
    EXPECT_EQ(0, strncmp(udn, "uuid:76656c6d-6f72-1063-8032-", 29)) << udn;   // seed '2' from "(2)"
    EXPECT_EQ(1, dapi_dms_set_sharedfolder("/srv/music"));
    char* folders = nullptr;
    EXPECT_EQ(0, dapi_dms_get_sharedfolder(&folders));
    EXPECT_STREQ("+A|/srv/music", folders);

    for (const auto& c : cp_cases) {
        SCOPED_TRACE(c.text);
        upnp_ini_set(UPNP_OPT_CLIENTS, c.clients);
        std::string text = c.text;
        EXPECT_EQ(c.allowed, dapi_dms_allow_cp(text.data()));
        EXPECT_EQ(c.after_allow, text);
        EXPECT_EQ(c.allowed, dapi_dms_deny_cp(text.data()));
        EXPECT_EQ(c.allowed ? c.text : c.after_allow, text);   // deny puts the mark back
        EXPECT_STREQ(c.clients, upnp_ini_get_string(UPNP_OPT_CLIENTS));   // the option stays
    }
    EXPECT_EQ(1, dapi_dms_resetclients());
    EXPECT_EQ(nullptr, upnp_ini_get_string(UPNP_OPT_CLIENTS));

    // Only the document bit answers.
    EXPECT_EQ(0, dapi_dms_set_browsing_policy(0x07, 0));
    EXPECT_EQ(1, dapi_dms_set_browsing_policy(0x08, 0));
    EXPECT_EQ(1, dapi_dms_set_browsing_policy(0x0F, 1));

    // Nulls and files the store does not know: each call refuses.
    char *url = nullptr, *didl = nullptr;
    dapi_dms_stop_request stop = {{"a", nullptr, "c", "d", "e"}, 1, 0, 2, 0, 3};
    const int32_t refusals[] = {
        dapi_dms_set_servername(nullptr), dapi_dms_set_sharedfolder(nullptr), dapi_dms_allow_cp(nullptr),
        dapi_dms_add_file(nullptr), dapi_dms_remove_file(nullptr), dapi_dms_remove_file("/nowhere/x.mp3"),
        dapi_dms_get_metadata(nullptr, "127.0.0.1", 9000, &url, &didl),
        dapi_dms_get_metadata("/nowhere/x.mp3", "127.0.0.1", 9000, &url, &didl),
        dapi_dms_stop_streaming(&stop), dapi_dms_stop_streaming(nullptr)};
    for (size_t i = 0; i < std::size(refusals); i++)
        EXPECT_EQ(0, refusals[i]) << "call " << i;
}

// A NIC change request restarts the servers at the scheduler's next tick
// and tells the callback so. With the watch on, a pinned address is all it
// compares, so it never fires.
TEST_F(Dapi, EventsPassOnlyTheOpenGateAndANicChangeRestartsButThePinnedAddressNeverDoes)
{
    events_seen = 0;
    upnp_file_event(DAPI_EVENT_FILE_ADDED, "/a.mp3");   // nothing registered
    EXPECT_EQ(0, dapi_dms_register_callback(count_event));
    upnp_file_event(DAPI_EVENT_FILE_ADDED, "/a.mp3");
    EXPECT_EQ(1, events_seen.load());
    EXPECT_EQ("0:/a.mp3", last_event_text);
    upnp_switches.callback_enabled = 0;
    upnp_file_event(DAPI_EVENT_STREAM_STARTED, "GET /");
    upnp_switches.callback_enabled = 1;
    dapi_dms_register_callback(nullptr);
    upnp_file_event(DAPI_EVENT_STREAM_STARTED, "GET /");
    EXPECT_EQ(1, events_seen.load());

    ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, 0));
    ASSERT_EQ(0, upnp_ini_get_int(UPNP_OPT_NICRESTART));
    events_seen = 0;
    dapi_dms_register_callback(count_event);
    EXPECT_EQ(1, dapi_dms_nicchange());
    EXPECT_TRUE(test_eventually([] { return events_seen >= 1; }, 5000));
    EXPECT_EQ("6:(null)", last_event_text);
    EXPECT_TRUE(test_eventually([] { return dapi_dms_status() == 1; }, 5000));
    EXPECT_TRUE(test_can_connect("127.0.0.1", work_port));
    upnp_ini_set(UPNP_OPT_NICCHECKTIME, "1");
    upnp_ini_set(UPNP_OPT_NICRESTART, "1");
    events_seen = 0;
    EXPECT_FALSE(test_eventually([] { return events_seen > 0; }, 2500));
    dapi_dms_register_callback(nullptr);
    upnp_ini_set(UPNP_OPT_NICRESTART, "0");
}

// The lower floors ask the upper ones through functions handed down at
// start: the store's flag questions reach the client table, and the table
// knows the server's own address.
TEST_F(Dapi, TheRunningServerAnswersTheStoresClientQuestions)
{
    ASSERT_EQ(0, mkdir(work->file("resources").c_str(), 0755));
    test_write_file(work->file("resources/clients.db"), "ID:001\nNA:Any\nID:005\nNA:Box\nXM:DLNA15\nAV:M\n");
    HTTP_request request{};
    request.client_id = 5;
    EXPECT_EQ(0, db_client_has_flag(&request, "AV:M"));   // not started: no probe
    ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, DAPI_FLAG_NO_SCHEDULER));
    EXPECT_EQ(1, db_client_has_flag(&request, "AV:M"));
    EXPECT_EQ(0, db_client_has_flag(&request, "XM:IGNORESORT"));
    const char* head = "GET / HTTP/1.1\r\nUser-Agent: x\r\n\r\n";
    EXPECT_EQ(0, upnp_client_lookup("127.0.0.1", head));   // the server itself
    EXPECT_EQ(1, upnp_client_lookup("127.0.0.5", head));
    upnp_client_remove("127.0.0.5");
    dapi_dms_terminate();
    EXPECT_EQ(0, db_client_has_flag(&request, "AV:M"));
    unlink(work->file("resources/clients.db").c_str());
    rmdir(work->file("resources").c_str());
}

}  // namespace
