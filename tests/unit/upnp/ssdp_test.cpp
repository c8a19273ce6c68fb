// SSDP readers, the subnet test, the handler table and the datagrams on 127.0.0.1.
#include "upnp/ssdp.h"

#include "config/upnp_ini.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_string.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string search_text(const std::string& headers) { return "M-SEARCH * HTTP/1.1\r\n" + headers + "\r\n"; }

// A search with short HOST and MAN lines, then the given MX and ST lines.
std::string search_with(const std::string& mx_and_st) { return search_text("HOST: x\r\nMAN: y\r\n" + mx_and_st); }

const std::string good_headers =
    "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 3\r\nST: ssdp:all\r\n";

// length: the bytes the parser may read, when fewer than the text.
struct search_case { const char* name; std::string text; int result; const char* target; int32_t mx;
                     size_t length = std::string::npos; };

const std::string long_target(127, 'x'), canonical = search_text(good_headers);
std::string with_nul = std::string(canonical).insert(canonical.find("239"), 1, '\0');

const search_case search_cases[] = {
    {"canonical", canonical, 1, "ssdp:all", 3},
    {"a NUL is a byte like any other, not an end", with_nul, 1, "ssdp:all", 3},
    {"the target's value lies past the length", canonical, -1, nullptr, 0, canonical.find("ssdp:all")},
    {"MAN lies past the length", canonical, 0, nullptr, 0, canonical.find("MAN")},
    {"lower-case method and names", "m-search * http/1.1\r\nhost: 239.255.255.250:1900\r\nman: \"ssdp:discover\"\r\n"
                                    "mx: 2\r\nst: upnp:rootdevice\r\n\r\n", 1, "upnp:rootdevice", 2},
    {"blanks and a tab before values", search_with("MX:  \t4\r\nST:\t  ssdp:all\r\n"), 1, "ssdp:all", 4},
    {"MX above the cap", search_with("MX: 500\r\nST: a\r\n"), 1, "a", 120},
    {"target of 127 bytes", search_with("MX: 1\r\nST: " + long_target + "\r\n"), 1, long_target.c_str(), 1},
    // Searches that ask for no answer.
    {"MX zero", search_with("MX: 0\r\nST: a\r\n"), -1, nullptr, 0},
    {"MX beyond any number", search_with("MX: 99999999999999999999999\r\nST: a\r\n"), -1, nullptr, 0},
    {"ST empty", search_with("MX: 3\r\nST:\r\n"), -1, nullptr, 0},
    {"target of 128 bytes", search_with("MX: 1\r\nST: " + long_target + "x\r\n"), -1, nullptr, 0},
    // No search at all.
    {"no HOST header, as for MX, ST or MAN", search_text("MAN: y\r\nMX: 3\r\nST: ssdp:all\r\n"), 0, nullptr, 0},
    {"HTTP/1.0", "M-SEARCH * HTTP/1.0\r\n" + good_headers + "\r\n", 0, nullptr, 0},
    {"a notification", "NOTIFY * HTTP/1.1\r\n" + good_headers + "\r\n", 0, nullptr, 0},
};

TEST(SsdpParse, ReadsSearchesAsSubstringsOfTheHead)
{
    for (const search_case& c : search_cases) {
        SCOPED_TRACE(c.name);
        ssdp_search out;
        memset(&out, 0x55, sizeof out);
        ASSERT_EQ(c.result, ssdp_parse_search(c.text.data(), std::min(c.length, c.text.size()), &out));
        if (c.result != 1)
            continue;
        EXPECT_EQ(std::string(c.target) + " " + std::to_string(c.mx), out.target + (" " + std::to_string(out.mx)));
    }
}

const struct { const char* name; std::string text; int result; const char* url; } notify_cases[] = {
    {"renderer alive", "NOTIFY * HTTP/1.1\r\nLOCATION: http://192.0.2.7:49152/d.xml\r\n"
                       "NT: urn:schemas-upnp-org:device:MediaRenderer:1\r\nNTS: ssdp:alive\r\n\r\n", 1,
     "http://192.0.2.7:49152/d.xml\r\nNT: "},
    {"renderer byebye", "NOTIFY * HTTP/1.1\r\nNT: urn:schemas-upnp-org:device:MediaRenderer:1\r\n"
                        "NTS: ssdp:byebye\r\nLOCATION: http://a/b\r\n\r\n", 0, nullptr},
    {"a media server", "NOTIFY * HTTP/1.1\r\nNT: urn:schemas-upnp-org:device:MediaServer:1\r\n"
                       "NTS: ssdp:alive\r\nLOCATION: http://a/b\r\n\r\n", 0, nullptr},
    {"no location", "NOTIFY * HTTP/1.1\r\nNT: urn:schemas-upnp-org:device:MediaRenderer:1\r\n"
                    "NTS: ssdp:alive\r\n\r\n", 0, nullptr},
    {"a search for renderers", "M-SEARCH * HTTP/1.1\r\nST: urn:schemas-upnp-org:device:MediaRenderer:1\r\n"
                               "X: ssdp:alive http://a/b\r\n\r\n", 0, nullptr},
};

TEST(SsdpParse, FollowsOnlyAliveRenderersAndRemoteUiClients)
{
    for (const auto& c : notify_cases) {
        SCOPED_TRACE(c.name);
        const char* url = nullptr;
        size_t url_length = 0;
        ASSERT_EQ(c.result, ssdp_parse_notify(c.text.data(), c.text.size(), &url, &url_length));
        if (!c.result)
            continue;
        EXPECT_EQ(c.text.substr(c.text.find(c.url)), std::string(url, url_length));   // from "http://" to the end
    }
}

const char C24[] = "255.255.255.0", ONE[] = "255.255.255.255";
const struct { const char* mask; const char* peer; int same; } subnet_cases[] = {   // the local address 192.0.2.1
    {C24, "192.0.2.200", 1}, {C24, "192.0.3.2", 0}, {ONE, "192.0.2.1", 1}, {ONE, "192.0.2.2", 0},
    {"", "192.0.2.2", 0} /* no mask known: nobody */, {C24, "", 0}, {C24, "192.0.2", 0}, {C24, "192.0.2.256", 0},
    {C24, "192.0.2.1.5", 0}, {C24, "192.0.2.0001", 0}, {C24, "192.0.2.+1", 0},
};

TEST(SsdpParse, SameSubnetNeedsThreeWellFormedAddresses)
{
    for (const auto& c : subnet_cases)
        EXPECT_EQ(c.same, ssdp_same_subnet("192.0.2.1", c.mask, c.peer)) << c.mask << " " << c.peer;
    uint32_t value = 0;
    EXPECT_EQ(std::make_pair(1, 0xC000020Au), std::make_pair(ssdp_parse_ip("192.0.2.10", &value), value));
    EXPECT_EQ(0, ssdp_parse_ip(nullptr, &value));
}

// A UDP receiver and a sender on 127.0.0.1.
struct loopback_udp {
    int32_t receiver = upnp_socket_udp(), sender = upnp_socket_udp();
    int32_t port = upnp_socket_bind(receiver, "127.0.0.1", 0) == 0 ? upnp_socket_local_port(receiver) : 0;
    ~loopback_udp() { upnp_socket_close(receiver), upnp_socket_close(sender); }
    // Every datagram sent so far: on loopback a send has arrived when it returns.
    std::vector<std::string> take()
    {
        std::vector<std::string> got;
        char buffer[2048];
        for (ssize_t n; got.size() < 100 && (n = recv(receiver, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            got.emplace_back(buffer, size_t(n));
        return got;
    }
    int announce(const char* target, int notify)
    {
        return ssdp_announce(sender, "192.0.2.1", 9000, "127.0.0.1", port, target, notify);
    }
};

std::string udn() { return upnp_get_udn(upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME)); }

const char* const server_rows[] = {"urn:schemas-upnp-org:device:MediaServer:1",
                                   "urn:schemas-upnp-org:service:ContentDirectory:1",
                                   "urn:schemas-upnp-org:service:ConnectionManager:1"};

struct Ssdp : ::testing::Test {
    void SetUp() override
    {
        ssdp_clear_handlers();
        ssdp_set_server_advertising();
    }
    void TearDown() override { ssdp_clear_handlers(); }
};

// A reply and an announcement in full; the rows of each burst are checked
// below.
TEST_F(Ssdp, RepliesAnnouncementsAndGoodbyesHaveTheirFixedShapes)
{
    loopback_udp udp;
    ASSERT_GT(udp.port, 0);
    ASSERT_EQ(1, udp.announce("upnp:rootdevice", 0));
    ASSERT_EQ(1, udp.announce(udn().c_str(), 1));
    ssdp_byebye_all(udp.sender, "127.0.0.1", udp.port);
    std::vector<std::string> got = udp.take();
    ASSERT_EQ(7u, got.size());
    std::string date = test_header(got[0], "DATE"), age = "max-age=" + std::to_string(ssdp_get_max_age());
    const std::string server = "SERVER: Windows NT/5.0, UPnP/1.0, Velmora UPnP SDK/1.0\r\n";
    const std::string location = "LOCATION: http://192.0.2.1:9000/DeviceDescription.xml\r\n";
    EXPECT_NE(std::string::npos, date.find(" GMT")) << date;
    EXPECT_EQ("HTTP/1.1 200 OK\r\nCACHE-CONTROL: " + age + "\r\nDATE: " + date + "\r\nEXT:\r\n" + location + server +
                  "ST: upnp:rootdevice\r\nUSN: " + udn() + "::upnp:rootdevice\r\nContent-Length: 0\r\n\r\n",
              got[0]);
    EXPECT_EQ("NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: " + age + "\r\n" + location +
                  "NT: " + udn() + "\r\nNTS: ssdp:alive\r\n" + server + "USN: " + udn() + "\r\n\r\n",
              got[1]);
    const std::vector<std::string> rows = {udn(), "upnp:rootdevice", server_rows[0], server_rows[1], server_rows[2]};
    for (size_t i = 2; i < got.size(); i++)
        EXPECT_EQ(rows[i - 2] + " ssdp:byebye <none>", test_header(got[i], "NT") + " " + test_header(got[i], "NTS") +
                                                           " " + test_header(got[i], "LOCATION")) << i;
}

TEST_F(Ssdp, OnlyAWholeTargetMatchesARowAndAllAnswersEveryRowInOrder)
{
    const std::vector<std::string> all = {udn(), "upnp:rootdevice", server_rows[0], server_rows[1], server_rows[2]};
    const struct { std::string target; int notify, advertising; std::vector<std::string> rows; } cases[] = {
        {"ssdp:all", 0, 1, all}, {"ssdp:all", 1, 1, all}, {udn(), 0, 1, {udn()}},
        {"upnp:rootdevice", 0, 1, {"upnp:rootdevice"}}, {server_rows[2], 1, 1, {server_rows[2]}},
        {"urn:schemas-upnp-org:service:X_MS_MediaReceiverRegistrar:1", 0, 1, {}},
        {"upnp:rootdevic", 0, 1, {}}, {"ssdp:all2", 0, 1, {}}, {"ssdp:alL", 0, 1, {}},
        // Without advertising only the UDN and the root device go out.
        {"ssdp:all", 1, 0, {udn(), "upnp:rootdevice"}}, {server_rows[0], 0, 0, {}},
    };
    loopback_udp udp;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.target + (c.notify ? " notify" : " reply") + (c.advertising ? "" : " without advertising"));
        if (c.advertising)
            ssdp_set_server_advertising();
        else
            ssdp_clear_handlers();
        EXPECT_EQ(int(c.rows.size()), udp.announce(c.target.c_str(), c.notify));
        std::vector<std::string> got = udp.take();
        ASSERT_EQ(c.rows.size(), got.size());
        for (size_t i = 0; i < got.size(); i++) {
            EXPECT_EQ(0u, got[i].find(c.notify ? "NOTIFY * HTTP/1.1\r\n" : "HTTP/1.1 200 OK\r\n"));
            EXPECT_EQ(c.rows[i] + " " + (c.rows[i] == udn() ? udn() : udn() + "::" + c.rows[i]),
                      test_header(got[i], c.notify ? "NT" : "ST") + " " + test_header(got[i], "USN"));
        }
    }
}

void ignore_datagram(const char*, ssdp_server*, const char*, int32_t)
{
}

TEST_F(Ssdp, HandlerTableHoldsNineAndRefusesNull)
{
    EXPECT_EQ(0, ssdp_register_handler(nullptr, "none"));
    for (int i = 0; i < SSDP_MAX_HANDLERS; i++)
        EXPECT_EQ(1, ssdp_register_handler(ignore_datagram, "one")) << i;
    EXPECT_EQ(0, ssdp_register_handler(ignore_datagram, "tenth"));
    ssdp_clear_handlers();
    EXPECT_EQ(1, ssdp_register_handler(ignore_datagram, "again"));
}

TEST(SsdpSubnet, TheNetmaskComesFromTheInterfaceHoldingTheAddress)
{
    char mask[UPNP_IP_TEXT_SIZE] = "x";
    ASSERT_EQ(1, upnp_nic_netmask("127.0.0.1", mask));
    EXPECT_STREQ("255.0.0.0", mask);
    EXPECT_EQ(0, upnp_nic_netmask("not an address", mask));
    EXPECT_STREQ("", mask);
    EXPECT_EQ(0, upnp_nic_netmask(nullptr, mask));
}

}  // namespace
