// Tests of the device identity: the UDN text and its seed.
#include "runtime/upnp_string.h"

#include "config/upnp_ini.h"

#include <gtest/gtest.h>

#include <cstdio>

TEST(UpnpIdentity, UdnTakesItsSeedFromTheLastParenthesisOfTheName)
{
    struct udn_case { const char* friendly_name; char seed; };
    static const udn_case cases[] = {
        {"Velmora Media Server", 't'}, {"Velmora (2)", '2'},
        {"a(1) b(7)", '7'},          // the last parenthesis decides
        {"trailing(", '\0'},
    };
    uint8_t mac[6];
    upnp_get_mac_reset();
    upnp_get_mac(mac);
    for (const udn_case& c : cases) {
        SCOPED_TRACE(c.friendly_name);
        char expected[64];
        snprintf(expected, sizeof expected, "uuid:76656c6d-6f72-1063-80%02x-%02x%02x%02x%02x%02x%02x",
                 uint8_t(c.seed), mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
        EXPECT_STREQ(expected, upnp_get_udn(c.friendly_name));
    }
}
