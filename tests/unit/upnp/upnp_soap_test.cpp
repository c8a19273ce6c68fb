// The fault document and its HTTP status, the choice of an action from the
// SOAPACTION text, and the search capabilities as each kind of client sees them.
#include "upnp/upnp_soap.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "support/test_support.h"
#include "support/test_wire.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Only 400, 412 and 501 go out as their own status; the head sender then
// sends 400, 412 and 500 as HTML, and 501, which it has no row for, as 200.
TEST(UpnpSoap, FaultCarriesItsRowUnderItsStatusAndAnUnknownCodeTheFirstRow)
{
    const char* const other = "500 Internal Server Error";
    const struct { int32_t code; const char *status, *shown, *description; } cases[] = {
        {402, other, "402", "invalid Args"}, {400, "400 Bad Request", "400", "bad request"}, {707, other, "400", "bad request"},
        {412, "412 Precondition Failed", "412", "precondition failed"}, {501, "200 OK", "501", "Action Failed"},
        {801, other, "801", "Authentication required"}, {-402, other, "400", "bad request"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        request_on_wire w("POST /ContentDirectory/Control HTTP/1.1\r\nHost: a\r\n\r\n");
        EXPECT_EQ(0, upnp_soap_send_fault(&w.r, c.code));
        std::string got = w.taken(), body = test_body(got);
        EXPECT_EQ(0u, got.find("HTTP/1.1 " + std::string(c.status) + "\r\n")) << got;
        EXPECT_EQ(c.code == 501 ? soap_mime : "text/html; charset=utf-8", test_header(got, "Content-Type"));
        EXPECT_EQ(std::to_string(body.size()), test_header(got, "Content-Length"));
        EXPECT_NE(std::string::npos, body.find("<errorCode>" + std::string(c.shown) + "</errorCode>\n")) << body;
        EXPECT_NE(std::string::npos, body.find("<errorDescription>" + std::string(c.description) + "</"));
    }
}

TEST(UpnpSoap, ActionIsTheFirstRowWhoseTextIsFoundExactlyInCaseAndVersion)
{
    const struct { const char* text; int32_t number; } cases[] = {
        {"SOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"\r\n", 7},
        {"SOAPAction: urn:schemas-upnp-org:service:ContentDirectory:2#Browse\r\n", 0}, {"ContentDirectory:1#browse", 0},
        {"ContentDirectory:1#X_BrowseByLetter", 6}, {"ContentDirectory:1#GetSearchCapabilities", 3},
        {"ContentDirectory:1#Search", 8}, {"X_MS_MediaReceiverRegistrar:1#RegisterDevice", 23}, {"", 0}, {nullptr, 0},
        // Two texts in one head: the earlier row wins, wherever it stands.
        {"ContentDirectory:1#Browse\r\nX: ConnectionManager:1#PrepareForConnection", 1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.number, upnp_soap_action_number(c.text)) << (c.text ? c.text : "null");
}

TEST(UpnpSoap, SearchCapabilitiesAreAStarForRokuUnlessNosearchIsSet)
{
    static const char db[] = "ID:001\nID:002\nSC:roku\n\n";
    ASSERT_EQ(1, upnp_client_db_load_text(db, sizeof db - 1));
    upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "1");
    // nosearch takes even the star from Roku players, and nothing from others.
    const struct { int32_t client; const char *nosearch, *caps; } cases[] = {
        {2, "0", "*"}, {2, "1", ""}, {1, "1", "dc:title,dc:creator,upnp:artist,upnp:genre,upnp:album,dc:date,"
                                              "upnp:originalTrackNumber,upnp:class,@id,@refID,@protocolInfo"},
    };
    for (const auto& c : cases) {
        upnp_ini_set(UPNP_OPT_NOSEARCH, c.nosearch);
        request_on_wire w("POST /x HTTP/1.1\r\nHost: a\r\nSOAPACTION: ContentDirectory:1#GetSearchCapabilities\r\n\r\n");
        w.r.client_id = c.client;
        upnp_soap_dispatch(&w.r);
        EXPECT_NE(std::string::npos, w.taken().find("<SearchCaps>" + std::string(c.caps) + "</SearchCaps>")) << c.caps;
    }
    upnp_client_db_free();
}

}  // namespace
