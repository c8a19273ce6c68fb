// SOAP actions over real sockets on 127.0.0.1, the server started in-process
// with its real route table: which action answers, with which fault, and
// that a good request is served after every bad one.
#include <velmora/dapi_dms.h>

#include "config/upnp_ini.h"
#include "control/upnp_mediaserver.h"
#include "http/http_server.h"
#include "runtime/upnp_run.h"
#include "support/test_net.h"
#include "support/test_support.h"
#include "upnp/upnp_cms.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

namespace {

const std::string CDS = "urn:schemas-upnp-org:service:ContentDirectory:1#", CMS = "urn:schemas-upnp-org:service:"
                  "ConnectionManager:1#", MSR = "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1#";

struct Soap : ::testing::Test {
    int port = 0;

    void SetUp() override
    {
        upnp_switches.ssdp_enabled = upnp_switches.scanner_enabled = upnp_switches.scheduler_enabled =
            upnp_switches.rpc_enabled = 0;
        upnp_ini_set(UPNP_OPT_IP, "127.0.0.1");
        upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "1");
        upnp_ini_set(UPNP_OPT_HTTPPORT, std::to_string(test_free_port()).c_str());
        upnp_mediaserver_start();
        nic_entry* list = nullptr;
        ASSERT_EQ(1u, upnp_nic_table(&list));
        port = list[0].port;
    }
    void TearDown() override
    {
        upnp_mediaserver_stop();
        upnp_ini_set(UPNP_OPT_IP, nullptr);
        EXPECT_EQ(0, HTTP_connection_count());
    }
    // The answers to one POST on a connection of its own; an empty action
    // sends no SOAPACTION header.
    std::string post(const std::string& action, const std::string& body, int answers = 1,
                     const std::string& url = "/ContentDirectory/Control", const char* from = "127.0.0.1")
    {
        int s = test_connect_from(from, port);
        std::string soap = action.empty() ? "" : "SOAPACTION: \"" + action + "\"\r\n", got;
        if (s >= 0 && test_send_text(s, "POST " + url + " HTTP/1.1\r\nHost: a\r\n" + soap + "Content-Length: " +
                                            std::to_string(body.size()) + "\r\n\r\n" + body))
            for (int i = 0; i < answers; i++)
                got += test_read_response(s);
        close(s);
        return got;
    }
};

std::string args(const std::string& inner) { return "<s:Envelope><s:Body><u:A>" + inner + "</u:A></s:Body></s:Envelope>"; }
std::string fault(const char* code) { return "<errorCode>" + std::string(code) + "</errorCode>"; }

TEST_F(Soap, EachActionIsAnsweredOrRefusedWithItsFaultAndTheNextRequestIsServed)
{
    const std::string browse = "<ObjectID>0</ObjectID><StartingIndex>0</StartingIndex><RequestedCount>5</RequestedCount>";
    const std::string info = test_body(post(CMS + "GetCurrentConnectionInfo", args("<ConnectionID>0</ConnectionID>")));
    EXPECT_NE(std::string::npos, info.find("<Direction>Output</Direction>")) << info;
    upnp_ini_set(UPNP_OPT_CLIENTS, "127.0.0.9|001|0");
    const struct { const char* why; std::string action, body, status, has, url = "/ContentDirectory/Control";
                        const char* from = "127.0.0.1"; } cases[] = {
        {"no SOAPACTION", "", args(browse), "500", fault("402")},
        {"unknown action", CDS + "Frobnicate", "", "500", fault("401")},
        {"disabled client", CDS + "GetSortCapabilities", "", "500", fault("401"), "/ContentDirectory/Control", "127.0.0.9"},
        {"UpdateObject", CDS + "UpdateObject", "", "500", fault("602")},
        {"flag in another case", CDS + "Browse", args(browse + "<BrowseFlag>browsemetadata</BrowseFlag>"), "500", fault("402")},
        {"not XML", CMS + "GetCurrentConnectionInfo", "\x01\xff<<<&", "500", fault("402")},
        {"no ConnectionID", CMS + "GetCurrentConnectionInfo", "", "500", fault("402")},
        {"another ConnectionID", CMS + "GetCurrentConnectionInfo", args("<ConnectionID>7</ConnectionID>"), "200", info},
        {"negative search start", CDS + "Search", args("<StartingIndex>-1</StartingIndex>"), "500", fault("402")},
        // Dispatched by the header alone: this is Browse's own refusal.
        {"Browse at the registrar", CDS + "Browse", args(browse + "<BrowseFlag>Bogus</BrowseFlag>"), "500", fault("402"),
         "/MediaReceiverRegistrar/Control"},
        {"sort capabilities", CDS + "GetSortCapabilities", "", "200", "<SortCaps>dc:title,dc:creator,upnp:artist,"
         "upnp:genre,upnp:album,dc:date,upnp:originalTrackNumber</SortCaps>"},
        {"protocols", CMS + "GetProtocolInfo", "", "200",
         "<Source>" + std::string(upnp_cms_source_list) + "</Source>      <Sink></Sink>"},
        {"connection ids", CMS + "GetCurrentConnectionIDs", "", "200", "<ConnectionIDs>0</ConnectionIDs>"},
        {"IsAuthorized", MSR + "IsAuthorized", "", "200", "<Result>1</Result>", "/MediaReceiverRegistrar/Control"},
        {"RegisterDevice", MSR + "RegisterDevice", "", "200", "<RegistrationRespMsg></RegistrationRespMsg>"},
    };
    // Each on a connection of its own, so that each answer shows that the
    // server went on after the case before.
    for (const auto& c : cases) {
        std::string got = post(c.action, c.body, 1, c.url, c.from);
        EXPECT_EQ(0u, got.find("HTTP/1.1 " + c.status)) << c.why << "\n" << got;
        EXPECT_NE(std::string::npos, got.find(c.has)) << c.why << "\n" << got;
    }
    upnp_ini_set(UPNP_OPT_CLIENTS, nullptr);
}

TEST_F(Soap, BrowseWithoutAnyIdGetsTwoWholeFaultsInARow)
{
    std::string got = post(CDS + "Browse", args("<BrowseFlag>BrowseDirectChildren</BrowseFlag>"), 2);
    size_t second = got.find("HTTP/1.1 500", 1);
    EXPECT_LT(got.find(fault("710")), second) << got;
    EXPECT_LT(second, got.find(fault("402"))) << got;
    EXPECT_EQ(std::to_string(test_body(got.substr(second)).size()), test_header(got.substr(second), "Content-Length"));
}

TEST_F(Soap, ABodyOverOneMebibyteIsRefusedAndTheServerGoesOn)
{
    const std::string head = "POST /ContentDirectory/Control HTTP/1.1\r\nHost: a\r\nSOAPACTION: \"" + CDS + "Browse\"\r\n";
    const std::string half = "80000\r\n" + std::string(0x80000, 'x') + "\r\n";
    const std::string more = "10000\r\n" + std::string(0x10000, 'x') + "\r\n0\r\n\r\n";
    for (const std::string& request : {head + "Content-Length: 1048577\r\n\r\nxx",
                                       head + "Transfer-Encoding: chunked\r\n\r\n" + half + half + more}) {
        int s = test_connect_from("127.0.0.1", port);
        std::string got = test_send_text(s, request) ? test_read_response(s) : "";
        EXPECT_EQ(0u, got.find("HTTP/1.1 400 Bad Request\r\n")) << got.substr(0, 200);
        EXPECT_TRUE(test_closed_by_peer(s, 5000));
        close(s);
        EXPECT_NE(std::string::npos, post(CMS + "GetCurrentConnectionIDs", "").find("<ConnectionIDs>0<"));
    }
}

}  // namespace
