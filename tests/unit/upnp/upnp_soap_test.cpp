// The fault document and its HTTP status, the choice of an action from the
// SOAPACTION text, and the search capabilities as each kind of client sees them.
#include "upnp/upnp_soap.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "runtime/upnp_string.h"
#include "support/test_support.h"
#include "support/test_wire.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(UpnpSoap, FaultTextCarriesItsRowAndAnUnknownCodeTheFirstRow)
{
    const struct { int32_t code; const char *shown, *description; } cases[] = {
        {402, "402", "invalid Args"}, {706, "706", "Invalid connection reference."},
        {801, "801", "Authentication required"}, {707, "400", "bad request"}, {0, "400", "bad request"},
        {-402, "400", "bad request"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        upnp_string* text = upnp_soap_fault_text(c.code);
        ASSERT_NE(nullptr, text);
        std::string got = text->text;
        upnp_string_free(text);
        EXPECT_NE(std::string::npos, got.find("<errorCode>" + std::string(c.shown) + "</errorCode>\n")) << got;
        EXPECT_NE(std::string::npos, got.find("<errorDescription>" + std::string(c.description) + "</"));
    }
}

TEST(UpnpSoap, FaultStatusIsTheCodeOnlyFor400And412And501)
{
    const struct { int32_t code; const char *status, *type; } cases[] = {
        {400, "400 Bad Request", "text/html; charset=utf-8"}, {412, "412 Precondition Failed", "text/html; charset=utf-8"},
        {402, "500 Internal Server Error", "text/html; charset=utf-8"}, {999, "500 Internal Server Error", "text/html; charset=utf-8"},
        // The head sender has no row for 501: it goes out as 200 with the SOAP type.
        {501, "200 OK", " text/xml; charset=\"utf-8\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        request_on_wire w("POST /ContentDirectory/Control HTTP/1.1\r\nHost: a\r\n\r\n");
        EXPECT_EQ(0, upnp_soap_send_fault(&w.r, c.code));
        std::string got = w.taken();
        EXPECT_EQ(0u, got.find("HTTP/1.1 " + std::string(c.status) + "\r\n")) << got;
        EXPECT_EQ(c.type, test_header(got, "Content-Type"));
        EXPECT_EQ(std::to_string(test_body(got).size()), test_header(got, "Content-Length"));
    }
}

TEST(UpnpSoap, ActionIsTheFirstRowWhoseTextIsFoundExactlyInCaseAndVersion)
{
    const struct { const char* text; int32_t number; } cases[] = {
        {"SOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"\r\n", 7},
        {"SOAPAction: urn:schemas-upnp-org:service:ContentDirectory:2#Browse\r\n", 0},
        {"ContentDirectory:1#browse", 0}, {"ContentDirectory:1#X_BrowseByLetter", 6},
        {"ContentDirectory:1#GetSearchCapabilities", 3}, {"ContentDirectory:1#Search", 8},
        {"ConnectionManager:1#GetProtocolInfo", 18}, {"X_MS_MediaReceiverRegistrar:1#RegisterDevice", 23},
        // Two texts in one head: the earlier row wins, wherever it stands.
        {"ContentDirectory:1#Browse\r\nX: ConnectionManager:1#PrepareForConnection", 1}, {"", 0}, {nullptr, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "null");
        EXPECT_EQ(c.number, upnp_soap_action_number(c.text));
    }
}

TEST(UpnpSoap, SearchCapabilitiesAreAStarForRokuUnlessNosearchIsSet)
{
    static const char db[] = "ID:001\nNA:Any\nID:002\nNA:Roku\nSC:roku\n\n";
    ASSERT_EQ(1, upnp_client_db_load_text(db, sizeof db - 1));
    upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "1");
    const struct { int32_t client; const char *nosearch, *caps; } cases[] = {
        {1, "1", "dc:title,dc:creator,upnp:artist,upnp:genre,upnp:album,dc:date,upnp:originalTrackNumber,"
                 "upnp:class,@id,@refID,@protocolInfo"},
        {2, "1", ""}, {2, "0", "*"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.caps);
        upnp_ini_set(UPNP_OPT_NOSEARCH, c.nosearch);
        request_on_wire w("POST /x HTTP/1.1\r\nHost: a\r\nSOAPACTION: \"urn:schemas-upnp-org:service:"
                          "ContentDirectory:1#GetSearchCapabilities\"\r\n\r\n");
        w.r.client_id = c.client;
        EXPECT_EQ(0, upnp_soap_dispatch(&w.r));
        EXPECT_NE(std::string::npos, w.taken().find("<SearchCaps>" + std::string(c.caps) + "</SearchCaps>"));
    }
    upnp_ini_set(UPNP_OPT_NOSEARCH, "1");
    upnp_client_db_free();
}

}  // namespace
