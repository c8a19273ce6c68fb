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

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
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
    int has_flag(int number, const char* flag) const
    {
        const char* o = own(number);
        const char* f = o ? strstr(o, flag) : nullptr;
        const char* next = o ? strstr(o + 1, "ID:") : nullptr;
        return f && (!next || next > f);
    }
    int get_number(int number, const char* key) const
    {
        const char* o = own(number);
        const char* f = o ? strstr(o, key) : nullptr;
        const char* next = o ? strstr(o + 1, "ID:") : nullptr;
        if (!f || (next && next <= f + strlen(key)))
            return 0;
        return atoi(f + strlen(key));
    }
    const char* entry(int index) const
    {
        const char* p = text.c_str();
        for (int i = 0; (p = strstr(p, "ID:")); i++, p += 3)
            if (i == index)
                return p;
        return nullptr;
    }
    std::string field(int index, const char* key) const
    {
        const char* e = entry(index);
        const char* f = e ? strstr(e, key) : nullptr;
        const char* next = e ? strstr(e + 1, "ID:") : nullptr;
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

// A description server on a loopback address: each connection gets the
// same reply; with no description it holds the connection silently until
// it is destroyed.
struct description_peer {
    int listen_fd = -1;
    int port = 0;
    std::string ip;
    std::string reply;
    std::atomic<int> accepted{0};
    std::atomic<bool> stopping{false};
    std::thread thread;

    explicit description_peer(const std::string& xml, const std::string& address = "127.0.0.1") : ip(address)
    {
        if (!xml.empty())
            reply = "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(xml.size()) +
                    "\r\n\r\n" + xml;
        listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
        socklen_t n = sizeof a;
        if (bind(listen_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && listen(listen_fd, 8) == 0 &&
            getsockname(listen_fd, reinterpret_cast<sockaddr*>(&a), &n) == 0) {
            port = ntohs(a.sin_port);
            thread = std::thread([this] { run(); });
        }
    }
    ~description_peer()
    {
        stopping = true;
        shutdown(listen_fd, SHUT_RDWR);
        if (thread.joinable())
            thread.join();
        close(listen_fd);
    }
    std::string url() const { return "http://" + ip + ":" + std::to_string(port) + "/description.xml"; }
    void run()
    {
        for (int c; (c = accept(listen_fd, nullptr, nullptr)) >= 0; close(c)) {
            accepted++;
            timeval tv{5, 0};
            setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            std::string got;
            char b[1024];
            for (ssize_t r; got.find("\r\n\r\n") == std::string::npos && (r = recv(c, b, sizeof b, 0)) > 0;)
                got.append(b, size_t(r));
            for (int i = 0; reply.empty() && !stopping && i < 1000; i++)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            send(c, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
    }
};

// An SSDP announcement as a renderer sends it, from its LOCATION on.
std::string announcement(const std::string& url)
{
    return url + "\r\nNT: urn:schemas-upnp-org:device:MediaRenderer:1\r\nNTS: ssdp:alive\r\n\r\n";
}

const char* const all_flags[] = {
    "AV:M", "AV:no-m3u", "XM:DLNA10", "XM:DLNA15", "XM:DLNANO", "XM:NOUTF8SORT", "XM:SHORTTITLE",
    "XM:IGNORESORT", "XM:WMCIDS", "XM:MINIMALMP3URL", "XM:ADDTITLETOURL", "XM:GIVEMP3NOLPCM", "XM:noutf8",
    "XM:WAN", "XM:GIVECHILDCOUNT", "XM:FORCERES", "XM:PHILIPS", "HP:chunked", "HP:MIMETYPE2", "HP:1.0RESPONSE",
    "DX:REDSONIC", "DX:ABSOLUTEURI", "SC:roku", "SC:yamaha", "SC:sony", "SC:nodups", "DB:AUTO",
};

std::string shipped_db()
{
    return test_read_file(VELMORA_SOURCE_DIR "/resources/clients.db");
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
};

const std::string two_kinds = "ID:001\nNA:Unknown\nDB:AUTO\n"
                              "ID:005\nNA:Renderer\nHH:FooPlayer/\nDD:Foo Renderer 9000\nXM:DLNA15\n"
                              "ID:006\nNA:Other\nHH:BarClient\nDD:Bar Box\n"
                              "ID:002\nNA:Any DLNA\nHH:DLNADOC/1.50\nDB:AUTO\nXM:DLNA15\n";

}  // namespace

// ---- Flags and fields ----------------------------------------------------

TEST_F(ClientDb, FlagOfTheNextEntryDoesNotLeakIntoTheOneBefore)
{
    load("ID:001\nNA:One\nXM:DLNA15\nID:002\nNA:Two\nHP:chunked\n");
    EXPECT_EQ(0, upnp_client_has_flag(1, "HP:chunked"));
    EXPECT_EQ(1, upnp_client_has_flag(2, "HP:chunked"));
    EXPECT_EQ(1, upnp_client_has_flag(1, "XM:DLNA15"));
    EXPECT_EQ(0, upnp_client_has_flag(2, "XM:DLNA15"));
    EXPECT_EQ(0, upnp_client_has_flag(3, "HP:chunked"));
    EXPECT_EQ(0, upnp_client_has_flag(1, "XM:UNKNOWN"));
    EXPECT_EQ(0, upnp_client_has_flag(1, nullptr));
}

TEST_F(ClientDb, AnswersEqualThePlainSubstringRules)
{
    const std::string texts[] = {
        two_kinds,
        "ID:0015\nXM:A\nID:001\nXM:B\n",                 // "ID:001" first occurs inside "ID:0015"
        "ID:005\nXM:XID:006\nHP:1\nID:006\nXM:B\n",      // a flag running into the next "ID:"
        "ID:007\n# needs XM:WAN\nID:008\nPX:640\nPY:480junk\nTX:-12\n",
        "head text\nID:000\nXM:A\nID:-01\nXM:B\nID:1000\nXM:C\nID:\nID:9\n",
        "ID:003\nPX:ID:004\nID:004\nXM:A",               // no line end: the loader drops the last byte
        std::string("ID:001\nXM:A") + '\0' + "XM:B\nID:002\n",   // a NUL ends the text
    };
    const int numbers[] = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 999, 1000};
    const char* const flags[] = {"XM:A", "XM:B", "XM:C", "XM:WAN", "XM:XID:0", "ID:", "ID:006", "", "HP:1", "PX:"};
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
}

TEST_F(ClientDb, DlnaLevelTakesTheFirstLevelFlagOfTheEntry)
{
    load("ID:001\nXM:DLNA15\nXM:DLNA10\nID:002\nXM:DLNA10\nID:003\nXM:DLNANO\nID:004\nXM:DLNA20\n"
         "ID:005\nNA:none\nID:006\nXM:DLNA");
    EXPECT_EQ(15, upnp_client_dlna_level(1));
    EXPECT_EQ(10, upnp_client_dlna_level(2));
    EXPECT_EQ(-1, upnp_client_dlna_level(3));
    EXPECT_EQ(0, upnp_client_dlna_level(4));
    EXPECT_EQ(0, upnp_client_dlna_level(5));
    EXPECT_EQ(0, upnp_client_dlna_level(6));
    EXPECT_EQ(0, upnp_client_dlna_level(42));
}

TEST_F(ClientDb, EntryFieldCopiesUpToAControlByteWithinItsBuffer)
{
    load("ID:001\nNA:A rather long name\nHH:Agent\tx\nID:002\nNA:Two\n");
    EXPECT_EQ("A rather long name", field_of(0, "NA:"));
    EXPECT_EQ("A rat", field_of(0, "NA:", 6));
    EXPECT_EQ("Agent", field_of(0, "HH:"));
    EXPECT_EQ("<none>", field_of(1, "HH:"));       // entry 0's HH: stands before entry 1
    EXPECT_EQ("<none>", field_of(0, "NA:", 0));
    EXPECT_EQ("", field_of(0, "NA:", 1));
    EXPECT_EQ("<none>", field_of(2, "NA:"));
    EXPECT_EQ(2, upnp_client_entry_id(1));
    EXPECT_EQ(-1, upnp_client_entry_id(2));
}

TEST_F(ClientDb, NamesListsEveryIdAndNameInFileOrder)
{
    load("# notes\nID:001\nNA:Default\nXM:A\nID:002\nNA:Two\nNAME:x\n");
    EXPECT_EQ("001,Default,002,Two", names());
}

TEST_F(ClientDb, WithoutADatabaseEveryAnswerIsEmpty)
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
    EXPECT_EQ(5, upnp_client_lookup("10.0.0.9", nullptr));   // the list still answers
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

TEST_F(ClientDb, LookupAnswersFromTheListFirst)
{
    load(two_kinds);
    upnp_ini_set(UPNP_OPT_CLIENTS, "10.0.0.5|006|1");
    EXPECT_EQ(6, upnp_client_lookup("10.0.0.5", "GET / HTTP/1.1\r\nUser-Agent: FooPlayer/2\r\n\r\n"));
    EXPECT_EQ(6, upnp_client_lookup("10.0.0.5", nullptr));
    EXPECT_TRUE(take_events().empty());
}

TEST_F(ClientDb, LookupByHeadEntersTheClientAndTellsTheHost)
{
    load(two_kinds);
    EXPECT_EQ(5, upnp_client_lookup("10.0.0.7", "GET / HTTP/1.1\r\nUSER-AGENT: Linux FooPlayer/2.1\r\n\r\n"));
    EXPECT_EQ("10.0.0.7|005|1", clients_option());
    EXPECT_EQ(2, upnp_client_lookup("10.0.0.8", "M-SEARCH * HTTP/1.1\r\nUser-Agent: UPnP/1.0 DLNADOC/1.50\r\n\r\n"));
    EXPECT_EQ("10.0.0.7|005|1,10.0.0.8|002|1", clients_option());
    auto seen = take_events();
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(std::make_pair(int32_t(DAPI_EVENT_CLIENT_ADDED), std::string("10.0.0.7|005|1")), seen[0]);
    EXPECT_EQ("10.0.0.7|005|1,10.0.0.8|002|1", seen[1].second);
}

TEST_F(ClientDb, HeadPatternsMatchExactlyInCase)
{
    load(two_kinds);
    EXPECT_EQ(1, upnp_client_lookup("10.0.0.11", "GET / HTTP/1.1\r\nUser-Agent: fooplayer/2\r\n\r\n"));
    EXPECT_EQ("10.0.0.11|001|1", clients_option());
}

TEST_F(ClientDb, HeadWithoutUserGivesZeroAndEntersNothing)
{
    load(two_kinds);
    EXPECT_EQ(0, upnp_client_lookup("10.0.0.12", "GET / HTTP/1.1\r\nServer: FooPlayer/2\r\n\r\n"));
    EXPECT_EQ(0, upnp_client_lookup("10.0.0.12", nullptr));
    EXPECT_EQ("", clients_option());
    EXPECT_TRUE(take_events().empty());
}

TEST_F(ClientDb, EmptyPatternIdentifiesNobody)
{
    load("ID:001\nDB:AUTO\nID:009\nHH:\nID:010\nHH:Real\n");
    EXPECT_EQ(10, upnp_client_lookup("10.0.0.13", "GET / HTTP/1.1\r\nUser-Agent: Real\r\n\r\n"));
    EXPECT_EQ(1, upnp_client_lookup("10.0.0.14", "GET / HTTP/1.1\r\nUser-Agent: x\r\n\r\n"));
}

TEST_F(ClientDb, AnAddressIsFoundInsideALongerOne)
{
    upnp_ini_set(UPNP_OPT_CLIENTS, "11.2.3.4|005|0");
    EXPECT_EQ(5, upnp_client_get_id("1.2.3.4"));
    EXPECT_EQ(0, upnp_client_allowed("1.2.3.4"));
    EXPECT_EQ(0, upnp_client_get_id("2.3.4.5"));
}

TEST_F(ClientDb, SetReplacesOnlyGeneralOrAutoKinds)
{
    load(two_kinds);
    EXPECT_EQ(1, upnp_client_set("10.0.0.20", 1));
    EXPECT_EQ(1, upnp_client_set("10.0.0.20", 5));    // 001 has DB:AUTO
    EXPECT_EQ("10.0.0.20|005|1", clients_option());
    EXPECT_EQ(0, upnp_client_set("10.0.0.20", 6));    // 005 has not
    EXPECT_EQ(0, upnp_client_set("10.0.0.20", 5));    // no change, no event
    EXPECT_EQ("10.0.0.20|005|1", clients_option());
    EXPECT_EQ(2u, take_events().size());
}

TEST_F(ClientDb, SetCarriesTheAutoEnableDigit)
{
    upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "0");
    EXPECT_EQ(1, upnp_client_set("10.0.0.21", 7));
    EXPECT_EQ("10.0.0.21|007|0", clients_option());
}

TEST_F(ClientDb, SetRefusesTextThatIsNoAddress)
{
    const char* bad[] = {nullptr, "", "1.2.3.4|999|1", "1.2.3.4,5.6.7.8", "host.example", "1.2.3.4\r\n",
                         "1111.2222.3333.44"};
    for (const char* ip : bad) {
        SCOPED_TRACE(ip ? ip : "null");
        EXPECT_EQ(0, upnp_client_set(ip, 5));
    }
    EXPECT_EQ("", clients_option());
}

TEST_F(ClientDb, RemoveRebuildsTheListWithoutTheAddress)
{
    upnp_ini_set(UPNP_OPT_CLIENTS, "10.0.0.1|005|1,10.0.0.2|006|0,10.0.0.3|001|1");
    upnp_client_remove("10.0.0.3");
    EXPECT_EQ("10.0.0.1|005|1,10.0.0.2|006|0", clients_option());
    upnp_client_remove("10.0.0.1");
    EXPECT_EQ("10.0.0.2|006|0", clients_option());
    upnp_client_remove("10.0.0.9");
    EXPECT_EQ("10.0.0.2|006|0", clients_option());
    upnp_client_remove("10.0.0.2");
    EXPECT_EQ("", clients_option());
}

TEST_F(ClientDb, TheListStaysWithin1024BytesOfWholeItems)
{
    int entered = 0;
    for (int i = 0; i < 100; i++) {
        std::string ip = "10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1);
        entered += upnp_client_set(ip.c_str(), 1);
    }
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
    upnp_ini_set(UPNP_OPT_CLIENTS, "10.0.0.1|005|1,10.0.0.2|006|0,10.0.0.3|00");
    EXPECT_EQ(1, upnp_client_allowed("10.0.0.1"));
    EXPECT_EQ(0, upnp_client_allowed("10.0.0.2"));
    EXPECT_EQ(0, upnp_client_allowed("10.0.0.3"));    // a cut item reads no digit
    EXPECT_EQ(1, upnp_client_allowed("10.0.0.4"));
    upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "0");
    EXPECT_EQ(0, upnp_client_allowed("10.0.0.4"));
    EXPECT_EQ(1, upnp_client_allowed("10.0.0.1"));
}

// ---- Detection from a device description ---------------------------------

TEST_F(ClientDb, DetectsARendererFromItsServedDescription)
{
    load(two_kinds);
    description_peer peer("<root><device><modelName>Foo Renderer 9000</modelName></device></root>");
    ASSERT_GT(peer.port, 0);
    upnp_ini_set(UPNP_OPT_CLIENTS, "127.0.0.1|001|1");   // the general kind is upgraded
    ASSERT_EQ(1, upnp_client_check(announcement(peer.url()).c_str(), "127.0.0.1"));
    EXPECT_TRUE(eventually([] { return upnp_client_get_id("127.0.0.1") == 5; }));
    EXPECT_EQ(1, peer.accepted.load());
    auto seen = take_events();
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("127.0.0.1|005|1", seen[0].second);
}

TEST_F(ClientDb, DetectionLeavesAKnownParticularClientAlone)
{
    load(two_kinds);
    description_peer peer("<modelName>Foo Renderer 9000</modelName>");
    ASSERT_GT(peer.port, 0);
    upnp_ini_set(UPNP_OPT_CLIENTS, "127.0.0.1|006|1");
    ASSERT_EQ(1, upnp_client_check(peer.url().c_str(), "127.0.0.1"));
    ASSERT_TRUE(upnp_thread_wait_idle(5000));
    EXPECT_EQ(0, peer.accepted.load());
    EXPECT_EQ(6, upnp_client_get_id("127.0.0.1"));
}

TEST_F(ClientDb, DetectionFetchesOnlyFromTheAnnouncingAddress)
{
    load(two_kinds);
    description_peer peer("<modelName>Foo Renderer 9000</modelName>");
    ASSERT_GT(peer.port, 0);
    std::string port = std::to_string(peer.port);
    const std::string urls[] = {
        peer.url(),                                               // announced by another machine
        "http://127.0.0.2@127.0.0.1:" + port + "/d.xml",          // a user part hides the real host
        "http://127.0.0.2:" + port + "@127.0.0.1:" + port + "/d.xml",
        "http://localhost:" + port + "/d.xml",                    // names are never looked up
    };
    for (const std::string& url : urls) {
        SCOPED_TRACE(url);
        ASSERT_EQ(1, upnp_client_check(url.c_str(), "127.0.0.2"));
        ASSERT_TRUE(upnp_thread_wait_idle(5000));
    }
    EXPECT_EQ(0, upnp_client_check(peer.url().c_str(), "not-an-address"));
    EXPECT_EQ(0, upnp_client_check(nullptr, "127.0.0.1"));
    EXPECT_EQ(0, peer.accepted.load());
    EXPECT_EQ("", clients_option());
}

TEST_F(ClientDb, OneCheckPerAddressRunsAtATime)
{
    load(two_kinds);
    {
        description_peer silent("");
        ASSERT_GT(silent.port, 0);
        ASSERT_EQ(1, upnp_client_check(silent.url().c_str(), "127.0.0.1"));
        ASSERT_TRUE(eventually([&] { return silent.accepted.load() == 1; }));
        EXPECT_EQ(0, upnp_client_check(silent.url().c_str(), "127.0.0.1"));   // the burst's next NOTIFY
    }
    ASSERT_TRUE(upnp_thread_wait_idle(5000));
    description_peer peer("<modelName>Foo Renderer 9000</modelName>");
    ASSERT_EQ(1, upnp_client_check(peer.url().c_str(), "127.0.0.1"));
    EXPECT_TRUE(eventually([] { return upnp_client_get_id("127.0.0.1") == 5; }));
}

TEST_F(ClientDb, ChecksRunningAtOnceAreCapped)
{
    load(two_kinds);
    std::vector<std::unique_ptr<description_peer>> peers;
    int started = 0;
    for (int i = 0; i < 17; i++) {
        peers.push_back(std::make_unique<description_peer>("", "127.0.0." + std::to_string(10 + i)));
        ASSERT_GT(peers.back()->port, 0);
        started += upnp_client_check(peers.back()->url().c_str(), peers.back()->ip.c_str());
        if (i < 16) {
            ASSERT_TRUE(eventually([&] { return peers.back()->accepted.load() == 1; }));
        }
    }
    EXPECT_EQ(16, started);
    EXPECT_EQ(0, peers.back()->accepted.load());
    peers.clear();
    ASSERT_TRUE(upnp_thread_wait_idle(5000));
    description_peer again("<modelName>Bar Box</modelName>", "127.0.0.26");
    ASSERT_EQ(1, upnp_client_check(again.url().c_str(), "127.0.0.26"));
    EXPECT_TRUE(eventually([] { return upnp_client_get_id("127.0.0.26") == 6; }));
}

TEST_F(ClientDb, DescriptionThatCannotBeFetchedChangesNothing)
{
    load(two_kinds);
    int port;
    {
        description_peer gone("x");
        port = gone.port;
    }
    upnp_ini_set(UPNP_OPT_CLIENTS, "127.0.0.1|001|1");
    std::string url = "http://127.0.0.1:" + std::to_string(port) + "/d.xml";
    ASSERT_EQ(1, upnp_client_check(url.c_str(), "127.0.0.1"));
    ASSERT_TRUE(upnp_thread_wait_idle(5000));
    EXPECT_EQ("127.0.0.1|001|1", clients_option());
}

// ---- The shipped clients.db ------------------------------------------------

namespace {

std::string strip_notes(const std::string& file)
{
    std::stringstream in(file);
    std::string out;
    for (std::string line; std::getline(in, line);)
        if (line.empty() || line[0] != '#')
            out += line + "\n";
    return out;
}

// Everything a reader can learn from the loaded database.
std::string answers()
{
    std::string out = names() + "\n";
    for (int i = 0; upnp_client_entry(i); i++) {
        int n = upnp_client_entry_id(i);
        out += std::to_string(n) + " " + field_of(i, "NA:") + "|" + field_of(i, "HH:", 200) + "|" +
               field_of(i, "DD:", 200) + "|" + std::to_string(upnp_client_dlna_level(n));
        for (const char* flag : all_flags)
            out += upnp_client_has_flag(n, flag) ? std::string(" ") + flag : "";
        for (const char* key : {"PX:", "PY:", "TX:", "TY:"})
            out += " " + std::to_string(upnp_client_get_number(n, key));
        out += "\n";
    }
    return out;
}

}  // namespace

TEST_F(ClientDb, ShippedNotesAreHarmless)
{
    std::string file = shipped_db();
    ASSERT_FALSE(file.empty());
    std::stringstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] == '#') {
            EXPECT_EQ(std::string::npos, line.find(':')) << line;
        }
    }
    load(file);
    std::string with_notes = answers();
    load(strip_notes(file));
    EXPECT_EQ(with_notes, answers());
}

TEST_F(ClientDb, ShippedEntriesParseWithUniqueNumbers)
{
    std::string file = shipped_db();
    load(file);
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

struct head_case {
    const char* device;
    const char* head;
    int number;
};

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
        description_peer peer(std::string("<?xml version=\"1.0\"?><root><device>") + c.head + "</device></root>");
        ASSERT_GT(peer.port, 0);
        upnp_ini_set(UPNP_OPT_CLIENTS, "127.0.0.1|002|1");
        ASSERT_EQ(1, upnp_client_check(announcement(peer.url()).c_str(), "127.0.0.1"));
        int number = c.number;
        EXPECT_TRUE(eventually([number] { return upnp_client_get_id("127.0.0.1") == number; }));
        ASSERT_TRUE(upnp_thread_wait_idle(5000));
    }
}
