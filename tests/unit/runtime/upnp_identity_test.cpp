// Tests of the device identity: the UDN's seed byte, taken from the name.
#include "runtime/upnp_string.h"

#include "config/upnp_ini.h"

#include <gtest/gtest.h>

#include <string>

TEST(UpnpIdentity, UdnTakesItsSeedFromTheLastParenthesisOfTheName)
{
    struct udn_case { const char* friendly_name; const char* seed_hex; };
    static const udn_case cases[] = {
        {"Velmora Media Server", "74"} /* 't' */, {"Velmora (2)", "32"},
        {"a(1) b(7)", "37"} /* the last parenthesis decides */, {"trailing(", "00"},
    };
    for (const udn_case& c : cases) {
        std::string udn = upnp_get_udn(c.friendly_name);
        EXPECT_EQ(std::make_tuple(std::string("uuid:76656c6d-6f72-1063-80") + c.seed_hex + "-", 41ul),
                  std::make_tuple(udn.substr(0, 29), udn.size())) << c.friendly_name;
    }
}
