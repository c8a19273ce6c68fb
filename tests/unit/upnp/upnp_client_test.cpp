// The client database: flag and field answers against the plain substring
// rules, the client list in option "clients" with its event, allowed and
// denied clients, detection from a device description served on 127.0.0.1,
// and the shipped clients.db.
#include "upnp/upnp_client.h"

#include "config/upnp_ini.h"
#include "control/upnp_control.h"
#include "runtime/upnp_os.h"
#include "support/test_support.h"
#include "velmora/dapi_dms.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

// The rules as written, searched through the whole text: the oracle that
// the indexed answers must equal.
struct reference_db {
    std::string text;     // what the loader keeps: the last byte dropped, up to a NUL
    explicit reference_db(const std::string& file) : text(file.substr(0, file.size() - 1).c_str()) {}

    const char* own(int number) const
    {
        char id[32];
        snprintf(id, sizeof id, "ID:%03d", number);
        return strstr(text.c_str(), id);
    }
    const char* entry(int index) const
    {
        const char* p = text.c_str();
        for (int i = 0; (p = strstr(p, "ID:")) && i < index; i++)
            p += 3;
        return index < 0 ? nullptr : p;
    }
    // The first what from the entry on, and where the next entry starts.
    static const char* find(const char* entry, const char* what, const char** next)
    {
        *next = entry ? strstr(entry + 1, "ID:") : nullptr;
        return entry ? strstr(entry, what) : nullptr;
    }
    int has_flag(int number, const char* flag) const
    {
        const char* next;
        const char* f = find(own(number), flag, &next);
        return f && (!next || next > f);
    }
    int get_number(int number, const char* key) const
    {
        const char* next;
        const char* f = find(own(number), key, &next);
        return !f || (next && next <= f + strlen(key)) ? 0 : atoi(f + strlen(key));
    }
    std::string field(int index, const char* key) const
    {
        const char* next;
        const char* f = find(entry(index), key, &next);
        if (!f || (next && next < f))
            return "<none>";
        std::string out;
        for (const char* p = f + strlen(key); uint8_t(*p) >= 32 && out.size() < 63; p++)
            out += *p;
        return out;
    }
};

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

std::string clients_option()
{
    const char* v = upnp_ini_get_string(UPNP_OPT_CLIENTS);
    return v ? v : "";
}

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

template <typename F>
bool eventually(F cond)
{
    for (int i = 0; i < 500 && !cond(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return cond();
}

// A device description as a renderer serves it.
std::string description(const std::string& xml)
{
    return "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(xml.size()) + "\r\n\r\n" +
           xml;
}

// An SSDP announcement as a renderer sends it, from its LOCATION on.
std::string announcement(const std::string& url)
{
    return url + "\r\nNT: urn:schemas-upnp-org:device:MediaRenderer:1\r\nNTS: ssdp:alive\r\n\r\n";
}

struct ClientDb : ::testing::Test {
    int32_t saved_callback_enabled = callback_enabled;

    void SetUp() override
    {
        upnp_ini_set(UPNP_OPT_CLIENTS, "");
        upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "1");
        callback_enabled = 1;
        dapi_dms_register_callback(record_event);
        take_events();
    }
    void TearDown() override
    {
        upnp_thread_wait_idle(5000);
        dapi_dms_register_callback(nullptr);
        callback_enabled = saved_callback_enabled;
        upnp_client_db_free();
        upnp_ini_set(UPNP_OPT_CLIENTS, "");
    }
    static void load(const std::string& file) { ASSERT_EQ(1, upnp_client_db_load_text(file.data(), file.size())); }
    // The list before, and one event with the list after when it changed.
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

// ---- Flags and fields ----------------------------------------------------

TEST_F(ClientDb, AnswersEqualThePlainSubstringRules)
{
    const std::string texts[] = {
        two_kinds,
        "ID:001\nNA:One\nXM:DLNA15\nID:002\nNA:Two\nHP:chunked\n",   // a flag of the next entry does not leak back
        "ID:0015\nXM:A\nID:001\nXM:B\n",                 // "ID:001" first occurs inside "ID:0015"
        "ID:005\nXM:XID:006\nHP:1\nID:006\nXM:B\n",      // a flag running into the next "ID:"
        "ID:007\n# needs XM:WAN\nID:008\nPX:640\nPY:480junk\nTX:-12\n",
        "head text\nID:000\nXM:A\nID:-01\nXM:B\nID:1000\nXM:C\nID:\nID:9\n",
        "ID:003\nPX:ID:004\nID:004\nXM:A",               // no line end: the loader drops the last byte
        std::string("ID:001\nXM:A") + '\0' + "XM:B\nID:002\n",   // a NUL ends the text
    };
    const int numbers[] = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 999, 1000};
    const char* const flags[] = {"XM:A", "XM:B", "XM:C", "XM:WAN", "XM:XID:0", "ID:", "ID:006", "",
                                 "HP:1", "PX:", "XM:DLNA15", "HP:chunked", "XM:UNKNOWN"};
    const char* const keys[] = {"PX:", "PY:", "TX:", "ID:", "XM:", "NA:", "HH:", "DD:", "HP:"};
    for (const std::string& text : texts) {
        SCOPED_TRACE(text);
        load(text);
        reference_db ref(text);
        for (int n : numbers) {
            for (const char* f : flags)
                EXPECT_EQ(ref.has_flag(n, f), upnp_client_has_flag(n, f)) << n << " " << f;
            for (const char* k : keys)
                EXPECT_EQ(ref.get_number(n, k), upnp_client_get_number(n, k)) << n << " " << k;
        }
        for (int i = -1; i < 12; i++) {
            EXPECT_EQ(ref.entry(i) != nullptr, upnp_client_entry(i) != nullptr) << i;
            EXPECT_EQ(ref.entry(i) ? atoi(ref.entry(i) + 3) : -1, upnp_client_entry_id(i)) << i;
            for (const char* k : keys)
                EXPECT_EQ(ref.field(i, k), field_of(i, k)) << i << " " << k;
        }
    }
    EXPECT_EQ(0, upnp_client_has_flag(1, nullptr));
}

TEST_F(ClientDb, DlnaLevelTakesTheFirstLevelFlagOfTheEntry)
{
    load("ID:001\nXM:DLNA15\nXM:DLNA10\nID:002\nXM:DLNA10\nID:003\nXM:DLNANO\nID:004\nXM:DLNA20\n"
         "ID:005\nNA:none\nID:006\nXM:DLNA");
    const int32_t levels[] = {0, 15, 10, -1, 0, 0, 0};
    for (int n = 1; n < 7; n++)
        EXPECT_EQ(levels[n], upnp_client_dlna_level(n)) << n;
    EXPECT_EQ(0, upnp_client_dlna_level(42));
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
    EXPECT_EQ("001,A rather long name,002,Two", names());
}

TEST_F(ClientDb, WithoutADatabaseEveryAnswerIsEmptyButTheListStillAnswers)
{
    upnp_client_db_free();
    EXPECT_EQ(0, upnp_client_has_flag(1, "DB:AUTO"));
    EXPECT_EQ(0, upnp_client_dlna_level(1));
    EXPECT_EQ(0, upnp_client_get_number(1, "PX:"));
    EXPECT_EQ(nullptr, upnp_client_entry(0));
    EXPECT_EQ(-1, upnp_client_entry_id(0));
    EXPECT_EQ("<none>", field_of(0, "NA:"));
    EXPECT_EQ("<null>", names());
    EXPECT_EQ(0, upnp_client_db_load_text("", 0));
    upnp_ini_set(UPNP_OPT_CLIENTS, "10.0.0.9|005|1");
    EXPECT_EQ(5, upnp_client_lookup("10.0.0.9", nullptr));
    EXPECT_EQ(1, upnp_client_lookup("10.0.0.10", "GET / HTTP/1.1\r\nUser-Agent: x\r\n\r\n"));
}

TEST_F(ClientDb, LoadsClientsDbFromTheResources)
{
    test_dir dir;
    std::string argv0 = dir.file("velmora");
    char* arguments[] = {argv0.data(), nullptr};
    upnp_ini_file_read_cmdline(1, arguments);
    upnp_ini_set(UPNP_OPT_CLIENTS, "");
    EXPECT_EQ(0, upnp_client_db_load());
    EXPECT_EQ("<null>", names());
    mkdir(dir.file("resources").c_str(), 0755);
    ASSERT_TRUE(test_write_file(dir.file("resources/clients.db"), "ID:001\nNA:Only\nDB:AUTO\n"));
    EXPECT_EQ(1, upnp_client_db_load());
    EXPECT_EQ("001,Only", names());
    EXPECT_EQ(1, upnp_client_has_flag(1, "DB:AUTO"));
    upnp_ini_release();
}

// ---- The client list -------------------------------------------------------

struct lookup_case { const char* list; const char* ip; const char* head; int32_t number; const char* after; };

TEST_F(ClientDb, LookupAnswersFromTheListElseEntersTheMatchingEntry)
{
    load(two_kinds);
    const lookup_case cases[] = {
        {"10.0.0.5|006|1", "10.0.0.5", "GET / HTTP/1.1\r\nUser-Agent: FooPlayer/2\r\n\r\n", 6, "10.0.0.5|006|1"},
        {"10.0.0.5|006|1", "10.0.0.5", nullptr, 6, "10.0.0.5|006|1"},
        // An address is found inside a longer one.
        {"11.2.3.4|005|0", "1.2.3.4", nullptr, 5, "11.2.3.4|005|0"},
        {"", "10.0.0.7", "GET / HTTP/1.1\r\nUSER-AGENT: Linux FooPlayer/2.1\r\n\r\n", 5, "10.0.0.7|005|1"},
        {"10.0.0.7|005|1", "10.0.0.8", "M-SEARCH * HTTP/1.1\r\nUser-Agent: UPnP/1.0 DLNADOC/1.50\r\n\r\n", 2,
         "10.0.0.7|005|1,10.0.0.8|002|1"},
        {"", "10.0.0.11", "GET / HTTP/1.1\r\nUser-Agent: fooplayer/2\r\n\r\n", 1, "10.0.0.11|001|1"},   // exact case
        {"", "10.0.0.12", "GET / HTTP/1.1\r\nServer: FooPlayer/2\r\n\r\n", 0, ""},    // no "User" in the head
        {"", "10.0.0.12", nullptr, 0, ""},
    };
    for (const lookup_case& c : cases) {
        SCOPED_TRACE(std::string(c.ip) + " " + (c.head ? c.head : "null"));
        upnp_ini_set(UPNP_OPT_CLIENTS, c.list);
        EXPECT_EQ(c.number, upnp_client_lookup(c.ip, c.head));
        list_changed(c.list, c.after);
    }
    EXPECT_EQ(0, upnp_client_get_id("2.3.4.5"));
}

// number -1: remove the address.
struct set_case { const char *list, *ip; int32_t number; const char* autoenable; int result; const char* after; };

TEST_F(ClientDb, SetReplacesOnlyGeneralOrAutoKindsAndRemoveRebuildsTheList)
{
    load(two_kinds);
    const set_case cases[] = {
        {"", "10.0.0.20", 1, "1", 1, "10.0.0.20|001|1"},
        {"10.0.0.20|001|1", "10.0.0.20", 5, "1", 1, "10.0.0.20|005|1"},     // 001 has DB:AUTO
        {"10.0.0.20|005|1", "10.0.0.20", 6, "1", 0, "10.0.0.20|005|1"},     // 005 has not
        {"10.0.0.20|005|1", "10.0.0.20", 5, "1", 0, "10.0.0.20|005|1"},     // no change, no event
        {"", "10.0.0.21", 7, "0", 1, "10.0.0.21|007|0"},
        {"", nullptr, 5, "1", 0, ""},
        {"", "", 5, "1", 0, ""},
        {"", "1.2.3.4|999|1", 5, "1", 0, ""},
        {"", "1.2.3.4,5.6.7.8", 5, "1", 0, ""},
        {"", "host.example", 5, "1", 0, ""},
        {"", "1.2.3.4\r\n", 5, "1", 0, ""},
        {"", "1111.2222.3333.44", 5, "1", 0, ""},
        {"10.0.0.1|005|1,10.0.0.2|006|0,10.0.0.3|001|1", "10.0.0.3", -1, "1", 0, "10.0.0.1|005|1,10.0.0.2|006|0"},
        {"10.0.0.1|005|1,10.0.0.2|006|0", "10.0.0.1", -1, "1", 0, "10.0.0.2|006|0"},
        {"10.0.0.2|006|0", "10.0.0.9", -1, "1", 0, "10.0.0.2|006|0"},
        {"10.0.0.2|006|0", "10.0.0.2", -1, "1", 0, ""},
    };
    for (const set_case& c : cases) {
        SCOPED_TRACE(std::string(c.ip ? c.ip : "null") + " " + std::to_string(c.number));
        upnp_ini_set(UPNP_OPT_CLIENTS, c.list);
        upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, c.autoenable);
        if (c.number < 0)
            upnp_client_remove(c.ip);
        else
            EXPECT_EQ(c.result, upnp_client_set(c.ip, c.number));
        EXPECT_EQ(c.after, clients_option());
        EXPECT_EQ(c.result ? 1u : 0u, take_events().size());
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

struct allowed_case { const char* ip; const char* autoenable; int allowed; };

TEST_F(ClientDb, AllowedFollowsTheEnableDigitElseAutoEnable)
{
    upnp_ini_set(UPNP_OPT_CLIENTS, "10.0.0.1|005|1,10.0.0.2|006|0,11.2.3.4|005|0,10.0.0.3|00");
    const allowed_case cases[] = {
        {"10.0.0.1", "1", 1}, {"10.0.0.2", "1", 0}, {"10.0.0.3", "1", 0} /* a cut item reads no digit */,
        {"1.2.3.4", "1", 0} /* inside 11.2.3.4 */, {"10.0.0.4", "1", 1}, {"10.0.0.4", "0", 0}, {"10.0.0.1", "0", 1},
    };
    for (const allowed_case& c : cases) {
        SCOPED_TRACE(std::string(c.ip) + " " + c.autoenable);
        upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, c.autoenable);
        EXPECT_EQ(c.allowed, upnp_client_allowed(c.ip));
    }
}

// ---- Detection from a device description ---------------------------------

struct check_case {
    const char *why, *list;
    std::string text;
    const char* source;
    int started, fetches;
    const char* after;
};

TEST_F(ClientDb, DetectionFetchesOnlyFromTheAnnouncingAddressAndUpgradesOnlyTheGeneralKind)
{
    load(two_kinds);
    std::string closed;
    {
        test_peer gone("x");
        closed = gone.url("/d.xml");
    }
    test_peer peer(description("<root><device><modelName>Foo Renderer 9000</modelName></device></root>"));
    ASSERT_GT(peer.port, 0);
    std::string port = std::to_string(peer.port);
    const check_case cases[] = {
        {"the general kind is upgraded", "127.0.0.1|001|1", announcement(peer.url()), "127.0.0.1", 1, 1,
         "127.0.0.1|005|1"},
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
        ASSERT_TRUE(i == 16 || eventually([&] { return silent.back()->accepted.load() == 1; }));
        EXPECT_TRUE(i > 0 || !upnp_client_check(silent[0]->url().c_str(), "127.0.0.10"));   // the burst's next NOTIFY
    }
    EXPECT_EQ(16, started);
    EXPECT_EQ(0, silent.back()->accepted.load());
    silent.clear();
    ASSERT_TRUE(upnp_thread_wait_idle(5000));
    test_peer again(description("<modelName>Bar Box</modelName>"), "127.0.0.10");
    ASSERT_EQ(1, upnp_client_check(again.url().c_str(), "127.0.0.10"));
    EXPECT_TRUE(eventually([] { return upnp_client_get_id("127.0.0.10") == 6; }));
}

// ---- The shipped clients.db ------------------------------------------------

namespace {

std::string shipped_db()
{
    return test_read_file(VELMORA_SOURCE_DIR "/resources/clients.db");
}

}  // namespace

// Every flag, key and entry start holds a colon and none spans a line, so
// a note line without one cannot change any answer.
TEST_F(ClientDb, ShippedNotesHoldNoColon)
{
    std::stringstream in(shipped_db());
    int notes = 0;
    for (std::string line; std::getline(in, line);) {
        bool note = !line.empty() && line[0] == '#';
        notes += note;
        EXPECT_TRUE(!note || line.find(':') == std::string::npos) << line;
    }
    EXPECT_GE(notes, 30);
}

TEST_F(ClientDb, ShippedEntriesParseWithUniqueNumbers)
{
    load(shipped_db());
    std::vector<int> seen;
    int i = 0;
    for (; upnp_client_entry(i); i++) {
        SCOPED_TRACE(i);
        std::string id = field_of(i, "ID:");
        ASSERT_EQ(3u, id.size());
        EXPECT_EQ(std::string::npos, id.find_first_not_of("0123456789"));
        int n = upnp_client_entry_id(i);
        EXPECT_EQ(std::find(seen.begin(), seen.end(), n), seen.end()) << "number used twice: " << n;
        seen.push_back(n);
        std::string name = field_of(i, "NA:");
        EXPECT_NE("<none>", name);
        EXPECT_EQ(std::string::npos, name.find(','));    // the names list is joined by commas
        for (const char* key : {"HH:", "DD:"}) {
            std::string pattern = field_of(i, key, 300);
            EXPECT_TRUE(pattern == "<none>" || (!pattern.empty() && pattern.size() <= 127)) << key << pattern;
        }
    }
    EXPECT_GE(i, 30);
    EXPECT_EQ(1, upnp_client_has_flag(1, "DB:AUTO"));
    EXPECT_EQ(1, upnp_client_has_flag(2, "DB:AUTO"));
    EXPECT_NE(nullptr, strstr(names().c_str(), "040,"));
    EXPECT_EQ(15, upnp_client_dlna_level(40));
    EXPECT_EQ(1, upnp_client_wmc_ids(30));
    EXPECT_EQ(1, upnp_client_wmc_ids(31));
    EXPECT_EQ(1, upnp_client_search_roku(35));
    EXPECT_EQ(0, upnp_client_wants_m3u(43));
    EXPECT_EQ(1, upnp_client_wants_m3u(1));
}

struct head_case { const char* device; const char* head; int number; };

static const head_case shipped_heads[] = {
    {"Samsung TV", "User-Agent: DLNADOC/1.50 SEC_HHP_[TV] UA55JS7200/1.0 UPnP/1.0", 10},
    {"older Samsung", "User-Agent: UPnP/1.0\r\nX-User-Agent: redsonic", 11},
    {"LG webOS TV", "User-Agent: Linux/4.4.84-169.gld4tv.2 UPnP/1.0 LGE WebOS TV LGE_DLNA_SDK/1.6.0/04.71.05 "
                    "DLNADOC/1.50", 12},
    {"Bravia", "User-Agent: UPnP/1.0\r\nX-AV-Physical-Unit-Info: pa=\"BRAVIA KD-65XD7505\";\r\n"
               "X-AV-Client-Info: av=5.0; cn=\"Sony Corporation\"; mn=\"BRAVIA KD-65XD7505\"; mv=\"3.0\";", 13},
    {"PS3", "User-Agent: PLAYSTATION 3\r\nX-AV-Client-Info: av=5.0; cn=\"Sony Computer Entertainment Inc.\"; "
            "mn=\"PLAYSTATION 3\"; mv=\"1.0\";", 14},
    {"PS4", "User-Agent: PS4Application libhttp/1.000 (PS4) libhttp/4.50 (PlayStation 4)", 15},
    {"Panasonic", "User-Agent: Panasonic MIL DLNA CP UPnP/1.0 DLNADOC/1.50", 16},
    {"Philips", "User-Agent: Philips-Software-WebClient/4.32 DLNADOC/1.50", 17},
    {"Toshiba", "User-Agent: Linux/2.6.35 UPnP/1.0 DLNADOC/1.50 TOSHIBA-DMP/1.0", 18},
    {"Sharp", "User-Agent: UPnP/1.0 DLNADOC/1.50 Sharp-AQUOS-DMP/1.1W", 19},
    {"Xbox One", "User-Agent: Microsoft-Windows/6.2 UPnP/1.0 Microsoft-DLNA DLNADOC/1.50\r\n"
                 "FriendlyName.DLNA.ORG: Xbox-SystemOS", 30},
    {"Xbox 360", "User-Agent: Xbox/2.0.17559.0 UPnP/1.0 Xbox/2.0.17559.0", 31},
    {"Xbox 360 as Xenon", "User-Agent: Xenon", 32},
    {"Windows Media Player", "User-Agent: Microsoft-Windows/6.1 UPnP/1.0 Windows-Media-Player/12.0.7601.17514 "
                             "DLNADOC/1.50 (MS-DeviceCaps/1024)", 33},
    {"Roku", "User-Agent: Roku/DVP-9.10 (519.10E04111A)", 35},
    {"Yamaha", "User-Agent: Linux/3.4 UPnP/1.0 Yamaha-MusicCast/1.0 DLNADOC/1.50", 41},
    {"Denon", "User-Agent: DENON-AVR/1.0 UPnP/1.0 DLNADOC/1.50", 42},
    {"Sonos", "User-Agent: Linux UPnP/1.0 Sonos/70.4-35282 (ZPS27)", 43},
    {"VLC", "User-Agent: VLC/3.0.16 LibVLC/3.0.16", 50},
    {"Kodi on Android", "User-Agent: Kodi/19.1 (Linux; Android 9.0; SHIELD Android TV) Android/9.0.0 "
                        "Sys_CPU/aarch64 App_Bitness/64 Version/19.1", 51},
    {"XBMC", "User-Agent: UPnP/1.0 DLNADOC/1.50 Platinum/1.0.4.11 XBMC/12.2", 52},
    {"BubbleUPnP", "User-Agent: Android/10 UPnP/1.0 BubbleUPnP/3.4.12.1", 53},
    {"foobar2000", "User-Agent: foobar2000/1.6.10 UPnP/1.0", 54},
    {"Plex", "User-Agent: PlexMediaPlayer/2.58.0 (Windows 10)", 55},
    {"Jellyfin", "User-Agent: Jellyfin-Android/2.4.4 (Linux; Android 11)", 56},
    {"Apple TV app", "User-Agent: Infuse/7.6.4 (AppleTV11,1; tvOS 15.4) CFNetwork/1335.0.3 Darwin/21.4.0", 57},
    {"Android player", "User-Agent: Dalvik/2.1.0 (Linux; U; Android 11; Pixel 4a Build/RQ3A.210805.001)", 60},
    {"iPhone player", "User-Agent: nPlayer/2.8 (iPhone; iOS 15.4; Scale/3.00)", 61},
    {"iPad player", "User-Agent: 8player/3.5 (iPad; iOS 14.2; Scale/2.00)", 62},
    {"Apple network stack", "User-Agent: MediaPlayer/1.0 CFNetwork/1240.0.4 Darwin/20.6.0", 63},
    {"other DLNA device", "User-Agent: UPnP/1.0 DLNADOC/1.50 Platinum/1.0.5.13", 2},
    {"unknown", "User-Agent: curl/8.4.0", 1},
};

TEST_F(ClientDb, ShippedEntriesDetectEachPlayerFromItsHead)
{
    load(shipped_db());
    for (const head_case& c : shipped_heads) {
        SCOPED_TRACE(c.device);
        std::string head = std::string("GET /DeviceDescription.xml HTTP/1.1\r\nHost: 10.0.0.1:9000\r\n") + c.head +
                           "\r\n\r\n";
        EXPECT_EQ(c.number, upnp_client_lookup("10.1.1.1", head.c_str()));
        upnp_client_remove("10.1.1.1");
    }
}

static const head_case shipped_descriptions[] = {
    {"Samsung TV", "<manufacturer>Samsung Electronics</manufacturer><modelDescription>Samsung TV DMR"
                   "</modelDescription><modelName>UE40D7000</modelName>", 10},
    {"LG TV", "<manufacturer>LG Electronics</manufacturer><modelName>LG TV</modelName>", 12},
    {"Bravia", "<friendlyName>KD-65XD7505</friendlyName><manufacturer>Sony Corporation</manufacturer>"
               "<modelDescription>BRAVIA</modelDescription>", 13},
    {"Panasonic", "<manufacturer>Panasonic</manufacturer><modelName>VIERA</modelName>", 16},
    {"Philips", "<manufacturer>Philips</manufacturer><modelName>Philips TV DMR</modelName>", 17},
    {"Toshiba", "<manufacturer>TOSHIBA</manufacturer><modelName>Regza</modelName>", 18},
    {"Sharp", "<manufacturer>Sharp Corporation</manufacturer><modelName>AQUOS LC-60LE</modelName>", 19},
    {"Xbox One", "<manufacturer>Microsoft Corporation</manufacturer><modelName>Xbox One</modelName>", 30},
    {"Xbox 360", "<manufacturer>Microsoft Corporation</manufacturer><modelName>Xbox 360</modelName>", 31},
    {"Windows Media Player", "<modelName>Windows Media Player</modelName>", 33},
    {"Roku", "<manufacturer>Roku</manufacturer><modelName>Roku Ultra</modelName>", 35},
    {"Yamaha", "<manufacturer>Yamaha Corporation</manufacturer><modelName>RX-V679</modelName>", 41},
    {"Denon", "<friendlyName>DENON:[AVR-1912]</friendlyName><manufacturer>DENON</manufacturer>", 42},
    {"Sonos", "<manufacturer>Sonos, Inc.</manufacturer><modelName>Sonos One</modelName>", 43},
    {"BubbleUPnP", "<modelName>BubbleUPnP Media Renderer</modelName>", 53},
};

TEST_F(ClientDb, ShippedEntriesDetectEachRendererFromItsDescription)
{
    load(shipped_db());
    for (const head_case& c : shipped_descriptions) {
        SCOPED_TRACE(c.device);
        test_peer peer(description(std::string("<?xml version=\"1.0\"?><root><device>") + c.head + "</device></root>"));
        ASSERT_GT(peer.port, 0);
        upnp_ini_set(UPNP_OPT_CLIENTS, "127.0.0.1|002|1");
        ASSERT_EQ(1, upnp_client_check(announcement(peer.url()).c_str(), "127.0.0.1"));
        int number = c.number;
        EXPECT_TRUE(eventually([number] { return upnp_client_get_id("127.0.0.1") == number; }));
        ASSERT_TRUE(upnp_thread_wait_idle(5000));
    }
}
