// The client database, the "clients" list, and detection from a renderer on 127.0.0.1.
#include "config/upnp_client.h"

#include "config/upnp_ini.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "support/test_support.h"
#include "upnp/ssdp.h"
#include "velmora/dapi_dms.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

std::string field_of(int index, const char* key, int32_t size = 64)
{
    std::vector<char> buffer(size_t(size) + 1, '\x7f');
    return upnp_client_entry_field(index, buffer.data(), size, key) ? std::string(buffer.data()) : "<none>";
}

std::string names()
{
    char* list = upnp_client_names();
    std::string out = list ? list : "<null>";
    free(list);
    return out;
}

std::string clients_option() { const char* v = upnp_ini_get_string(UPNP_OPT_CLIENTS); return v ? v : ""; }

std::mutex events_lock;
std::vector<std::pair<int32_t, std::string>> events;

int32_t record_event(int32_t event, const char* text)
{
    std::lock_guard<std::mutex> hold(events_lock);
    events.emplace_back(event, text ? text : "<null>");
    return 0;
}

std::vector<std::pair<int32_t, std::string>> take_events()
{
    std::lock_guard<std::mutex> hold(events_lock);
    return std::exchange(events, {});
}

// A device description as a renderer serves it.
std::string description(const std::string& xml)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(xml.size()) + "\r\n\r\n" + xml;
}

struct ClientDb : ::testing::Test {
    int32_t saved_callback_enabled = upnp_switches.callback_enabled;

    void SetUp() override
    {
        upnp_ini_set(UPNP_OPT_CLIENTS, "");
        upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "1");
        upnp_switches.callback_enabled = 1;
        dapi_dms_register_callback(record_event);
        take_events();
    }
    void TearDown() override
    {
        upnp_thread_wait_idle(5000);
        dapi_dms_register_callback(nullptr);
        upnp_switches.callback_enabled = saved_callback_enabled;
        upnp_client_db_free();
        upnp_ini_set(UPNP_OPT_CLIENTS, "");
    }
    static void load(const std::string& file) { ASSERT_EQ(1, upnp_client_db_load_text(file.data(), file.size())); }
    // The list after, and one event with it when it changed.
    static void list_changed(const std::string& before, const std::string& after)
    {
        EXPECT_EQ(after, clients_option());
        auto seen = take_events();
        ASSERT_EQ(before == after ? 0u : 1u, seen.size());
        for (const auto& event : seen)
            EXPECT_EQ(std::make_pair(int32_t(DAPI_EVENT_CLIENT_ADDED), after), event);
    }
};

// An empty pattern identifies nobody: entry 009 never matches.
const std::string two_kinds = "ID:001\nNA:Unknown\nDB:AUTO\nID:009\nNA:Empty\nHH:\n"
                              "ID:005\nNA:Renderer\nHH:FooPlayer/\nDD:Foo Renderer 9000\nXM:DLNA15\n"
                              "ID:006\nNA:Other\nHH:BarClient\nDD:Bar Box\n"
                              "ID:002\nNA:Any DLNA\nHH:DLNADOC/1.50\nDB:AUTO\nXM:DLNA15\n";

}  // namespace

// A flag or key belongs to an entry when it stands before the next "ID:"
// found anywhere behind the entry's own "ID:nnn", itself the first match
// anywhere in the text. what: a flag, or a key of three bytes whose number
// is read. Odd ids and texts are the fuzz target's, against the same rule.
TEST_F(ClientDb, FlagsAndNumbersFollowTheSubstringRules)
{
    const std::string db1 = "ID:001\nNA:One\nXM:DLNA15\nID:002\nNA:Two\nHP:chunked\n";
    const std::string inside = "ID:005\nXM:XID:006\nHP:1\nID:006\nXM:B\n";
    const std::string numbers = "ID:007\n# needs XM:WAN\nID:008\nPX:640\nPY:480junk\nTX:-12\n";
    const struct { const char* why; std::string text; int32_t number; const char* what; int want; } cases[] = {
        {"own flag", db1, 1, "XM:DLNA15", 1}, {"the next entry's flag does not leak back", db1, 1, "HP:chunked", 0},
        {"the next entry's own flag", db1, 2, "HP:chunked", 1}, {"an unknown number", db1, 3, "NA:One", 0},
        {"a flag running into the next ID:", inside, 5, "HP:1", 0},
        {"the flag holding ID: still counts", inside, 5, "XM:XID:0", 1},
        {"the entry found inside a flag", inside, 6, "HP:1", 1}, {"a note line still counts", numbers, 7, "XM:WAN", 1},
        {"a number", numbers, 8, "PX:", 640}, {"a number with junk behind", numbers, 8, "PY:", 480},
        {"a negative number", numbers, 8, "TX:", -12}, {"a key of the next entry reads 0", numbers, 7, "PX:", 0},
        {"a key right behind the next ID: reads 0", "ID:003\nPX:ID:004\nID:004\n", 3, "PX:", 0},
    };
    for (const auto& c : cases) {
        load(c.text);
        EXPECT_EQ(c.want, strlen(c.what) == 3 ? upnp_client_get_number(c.number, c.what)
                                              : upnp_client_has_flag(c.number, c.what)) << c.why;
    }
    load("head text\nID:000\nXM:A\nID:-01\nXM:B\nID:1000\nXM:C\nID:\nID:9\n");
    const int32_t ids[] = {0, -1, 1000, 0, 9, -1};
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(ids[i], upnp_client_entry_id(i)) << i;
    EXPECT_EQ(nullptr, upnp_client_entry(5));
    EXPECT_EQ(0, upnp_client_has_flag(1, nullptr));
}

TEST_F(ClientDb, DlnaLevelTakesTheFirstLevelFlagOfTheEntry)
{
    load("ID:001\nXM:DLNA15\nXM:DLNA10\nID:002\nXM:DLNA10\nID:003\nXM:DLNANO\nID:004\nXM:DLNA20\n"
         "ID:005\nNA:none\nID:006\nXM:DLNA");
    std::string levels;
    for (int n : {1, 2, 3, 4, 5, 6, 42})
        levels += std::to_string(upnp_client_dlna_level(n)) + " ";
    EXPECT_EQ("15 10 -1 0 0 0 0 ", levels);
}

TEST_F(ClientDb, EntryFieldCopiesUpToAControlByteWithinItsBuffer)
{
    load("# notes\nID:001\nNA:A rather long name\nHH:Agent\tx\nID:002\nNA:Two\nNAME:x\n");
    EXPECT_EQ("A rather long name", field_of(0, "NA:"));
    EXPECT_EQ("A rat", field_of(0, "NA:", 6));
    EXPECT_EQ("Agent", field_of(0, "HH:"));
    EXPECT_EQ("<none>", field_of(1, "HH:"));       // entry 0's HH: stands before entry 1
    EXPECT_EQ("<none>", field_of(0, "NA:", 0));
    EXPECT_EQ("", field_of(0, "NA:", 1));
    EXPECT_EQ("<none>", field_of(2, "NA:"));
    EXPECT_EQ("001,A rather long name,002,Two", names());
}

TEST_F(ClientDb, LoadsClientsDbFromTheResourcesAndWithoutItEveryAnswerIsEmptyButTheList)
{
    test_dir dir;
    std::string argv0 = dir.file("velmora");
    char* arguments[] = {argv0.data(), nullptr};
    upnp_ini_file_read_cmdline(1, arguments);
    EXPECT_EQ(0, upnp_client_db_load());
    EXPECT_EQ(0, upnp_client_db_load_text("", 0));
    EXPECT_EQ(0, upnp_client_has_flag(1, "DB:AUTO"));
    EXPECT_EQ(-1, upnp_client_entry_id(0));
    EXPECT_EQ("<null>", names());
    upnp_ini_set(UPNP_OPT_CLIENTS, "10.0.0.9|005|1");
    EXPECT_EQ(5, upnp_client_lookup("10.0.0.9", nullptr));
    EXPECT_EQ(1, upnp_client_lookup("10.0.0.10", "GET / HTTP/1.1\r\nUser-Agent: x\r\n\r\n"));
    mkdir(dir.file("resources").c_str(), 0755);
    ASSERT_TRUE(test_write_file(dir.file("resources/clients.db"), "ID:001\nNA:Only\nDB:AUTO\n"));
    EXPECT_EQ(1, upnp_client_db_load());
    EXPECT_EQ("001,Only", names());
    EXPECT_EQ(1, upnp_client_has_flag(1, "DB:AUTO"));
    upnp_ini_release();
}

TEST_F(ClientDb, LookupAnswersFromTheListElseEntersTheMatchingEntry)
{
    load(two_kinds);
    const struct { const char* list; const char* ip; const char* head; int32_t number; const char* after; } cases[] = {
        {"10.0.0.5|006|1", "10.0.0.5", "GET / HTTP/1.1\r\nUser-Agent: FooPlayer/2\r\n\r\n", 6, "10.0.0.5|006|1"},
        // An address is found inside a longer one.
        {"11.2.3.4|005|0", "1.2.3.4", nullptr, 5, "11.2.3.4|005|0"},
        {"", "10.0.0.7", "GET / HTTP/1.1\r\nUSER-AGENT: Linux FooPlayer/2.1\r\n\r\n", 5, "10.0.0.7|005|1"},
        {"10.0.0.7|005|1", "10.0.0.8", "M-SEARCH * HTTP/1.1\r\nUser-Agent: UPnP/1.0 DLNADOC/1.50\r\n\r\n", 2,
         "10.0.0.7|005|1,10.0.0.8|002|1"},
        {"", "10.0.0.11", "GET / HTTP/1.1\r\nUser-Agent: fooplayer/2\r\n\r\n", 1, "10.0.0.11|001|1"},   // exact case
        {"", "10.0.0.12", "GET / HTTP/1.1\r\nServer: FooPlayer/2\r\n\r\n", 0, ""},    // no "User" in the head
        {"", "10.0.0.12", nullptr, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.ip) + " " + (c.head ? c.head : "null"));
        upnp_ini_set(UPNP_OPT_CLIENTS, c.list);
        EXPECT_EQ(c.number, upnp_client_lookup(c.ip, c.head));
        list_changed(c.list, c.after);
    }
    EXPECT_EQ(0, upnp_client_get_id("2.3.4.5"));
}

// number -1: remove the address.
TEST_F(ClientDb, SetReplacesOnlyGeneralOrAutoKindsAndRemoveRebuildsTheList)
{
    load(two_kinds);
    const struct { const char *list, *ip; int32_t number; const char* autoenable; int result; const char* after; }
        cases[] = {
        {"", "10.0.0.20", 1, "1", 1, "10.0.0.20|001|1"},
        {"10.0.0.20|001|1", "10.0.0.20", 5, "1", 1, "10.0.0.20|005|1"},     // 001 has DB:AUTO
        {"10.0.0.20|005|1", "10.0.0.20", 6, "1", 0, "10.0.0.20|005|1"},     // 005 has not
        {"10.0.0.20|005|1", "10.0.0.20", 5, "1", 0, "10.0.0.20|005|1"},     // no change, no event
        {"", "10.0.0.21", 7, "0", 1, "10.0.0.21|007|0"},
        // What is no address could break the list apart.
        {"", nullptr, 5, "1", 0, ""}, {"", "", 5, "1", 0, ""}, {"", "1.2.3.4|999|1", 5, "1", 0, ""},
        {"", "1.2.3.4,5.6.7.8", 5, "1", 0, ""}, {"", "host.example", 5, "1", 0, ""},
        {"", "1.2.3.4\r\n", 5, "1", 0, ""}, {"", "1111.2222.3333.44", 5, "1", 0, ""},
        {"10.0.0.1|005|1,10.0.0.2|006|0,10.0.0.3|001|1", "10.0.0.3", -1, "1", 0, "10.0.0.1|005|1,10.0.0.2|006|0"},
        {"10.0.0.1|005|1,10.0.0.2|006|0", "10.0.0.1", -1, "1", 0, "10.0.0.2|006|0"},
        {"10.0.0.2|006|0", "10.0.0.9", -1, "1", 0, "10.0.0.2|006|0"}, {"10.0.0.2|006|0", "10.0.0.2", -1, "1", 0, ""},
    };
    for (const auto& c : cases) {
        upnp_ini_set(UPNP_OPT_CLIENTS, c.list);
        upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, c.autoenable);
        int result = c.number < 0 ? (upnp_client_remove(c.ip), 0) : upnp_client_set(c.ip, c.number);
        EXPECT_EQ(std::make_tuple(c.result, c.after, c.result ? 1u : 0u),
                  std::make_tuple(result, clients_option(), take_events().size()))
            << (c.ip ? c.ip : "null") << " " << c.number;
    }
}

TEST_F(ClientDb, TheListStaysWithin1024BytesOfWholeItems)
{
    int entered = 0;
    for (int i = 0; i < 100; i++)
        entered += upnp_client_set(("10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1)).c_str(), 1);
    std::string list = clients_option();
    EXPECT_LT(list.size(), 1024u);
    EXPECT_GT(entered, 30);
    EXPECT_LT(entered, 100);
    std::stringstream items(list);
    int count = 0;
    for (std::string item; std::getline(items, item, ','); count++)
        EXPECT_EQ("|001|1", item.substr(item.size() - 6)) << item;
    EXPECT_EQ(entered, count);
    EXPECT_EQ(size_t(entered), take_events().size());
}

TEST_F(ClientDb, AllowedFollowsTheEnableDigitElseAutoEnable)
{
    upnp_ini_set(UPNP_OPT_CLIENTS, "10.0.0.1|005|1,10.0.0.2|006|0,11.2.3.4|005|0,10.0.0.3|00");
    const struct { const char* ip; const char* autoenable; int allowed; } cases[] = {
        {"10.0.0.1", "1", 1}, {"10.0.0.2", "1", 0}, {"10.0.0.3", "1", 0} /* a cut item reads no digit */,
        {"1.2.3.4", "1", 0} /* inside 11.2.3.4 */, {"10.0.0.4", "1", 1}, {"10.0.0.4", "0", 0}, {"10.0.0.1", "0", 1},
    };
    for (const auto& c : cases) {
        upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, c.autoenable);
        EXPECT_EQ(c.allowed, upnp_client_allowed(c.ip)) << c.ip << " " << c.autoenable;
    }
}

struct check_case { const char *why, *list; std::string text; const char* source; int started, fetches;
                    const char* after; };

TEST_F(ClientDb, DetectionFetchesOnlyFromTheAnnouncingAddressAndUpgradesOnlyTheGeneralKind)
{
    load(two_kinds);
    std::string closed = test_peer("x").url("/d.xml");   // the peer is gone at the end of the line
    test_peer peer(description("<root><device><modelName>Foo Renderer 9000</modelName></device></root>"));
    ASSERT_GT(peer.port, 0);
    std::string port = std::to_string(peer.port);
    const check_case cases[] = {
        {"the general kind is upgraded", "127.0.0.1|001|1", peer.url() + "\r\nNTS: ssdp:alive\r\n\r\n",
         "127.0.0.1", 1, 1, "127.0.0.1|005|1"},
        {"a particular client is left alone", "127.0.0.1|006|1", peer.url(), "127.0.0.1", 1, 0, "127.0.0.1|006|1"},
        {"announced by another machine", "", peer.url(), "127.0.0.2", 1, 0, ""},
        {"a user part hides the real host", "", "http://127.0.0.2@127.0.0.1:" + port + "/d.xml", "127.0.0.2", 1, 0, ""},
        // Fetching from the source, but entering the address the user part names.
        {"a user part with a port", "", "http://127.0.0.2:" + port + "@127.0.0.1:" + port + "/d.xml", "127.0.0.1", 1,
         0, ""},
        {"names are never looked up", "", "http://localhost:" + port + "/d.xml", "127.0.0.2", 1, 0, ""},
        {"source is no address", "", peer.url(), "not-an-address", 0, 0, ""},
        {"no text", "", "", "127.0.0.1", 0, 0, ""},
        {"nothing to fetch", "127.0.0.1|001|1", closed, "127.0.0.1", 1, 0, "127.0.0.1|001|1"},
    };
    for (const check_case& c : cases) {
        SCOPED_TRACE(c.why);
        upnp_ini_set(UPNP_OPT_CLIENTS, c.list);
        int before = peer.accepted.load();
        EXPECT_EQ(c.started, upnp_client_check(c.text.empty() ? nullptr : c.text.c_str(), c.source));
        ASSERT_TRUE(upnp_thread_wait_idle(5000));
        EXPECT_EQ(c.fetches, peer.accepted.load() - before);
        list_changed(c.list, c.after);
    }
}

TEST_F(ClientDb, OneCheckPerAddressRunsAtATimeAndAtMostSixteenInAll)
{
    load(two_kinds);
    std::vector<std::unique_ptr<test_peer>> silent;
    int started = 0;
    for (int i = 0; i < 17; i++) {
        silent.push_back(std::make_unique<test_peer>("", "127.0.0." + std::to_string(10 + i)));
        ASSERT_GT(silent.back()->port, 0);
        started += upnp_client_check(silent.back()->url().c_str(), silent.back()->ip.c_str());
        ASSERT_TRUE(i == 16 || test_eventually([&] { return silent.back()->accepted.load() == 1; }));
        EXPECT_TRUE(i > 0 || !upnp_client_check(silent[0]->url().c_str(), "127.0.0.10"));   // the burst's next NOTIFY
    }
    EXPECT_EQ(16, started);
    EXPECT_EQ(0, silent.back()->accepted.load());
    silent.clear();
    ASSERT_TRUE(upnp_thread_wait_idle(5000));
    test_peer again(description("<modelName>Bar Box</modelName>"), "127.0.0.10");
    ASSERT_EQ(1, upnp_client_check(again.url().c_str(), "127.0.0.10"));
    EXPECT_TRUE(test_eventually([] { return upnp_client_get_id("127.0.0.10") == 6; }));
}
