// Tests of the device identity: the adapter choice and the UDN text.
#include "runtime/upnp_string.h"

#include "config/upnp_ini.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <string>

// Whether mac belongs to an up, non-loopback adapter with a 6-byte address;
// physical_max is the highest last byte among the adapters that are not
// container bridges or virtual pairs (-1 without one). False without any.
static bool identity_served_adapter(const uint8_t mac[6], bool* chosen_is_virtual, int* physical_max)
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return false;
    bool any = false, found = false;
    *physical_max = -1;
    for (ifaddrs* a = list; a; a = a->ifa_next) {
        if (!a->ifa_addr || a->ifa_addr->sa_family != AF_PACKET || !(a->ifa_flags & IFF_UP)
            || (a->ifa_flags & IFF_LOOPBACK))
            continue;
        const sockaddr_ll* link = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
        if (link->sll_halen != 6)
            continue;
        std::string name = a->ifa_name;
        bool is_virtual = false;
        for (const char* prefix : {"docker", "veth", "br-", "virbr"})
            is_virtual = is_virtual || name.rfind(prefix, 0) == 0;
        if (!is_virtual && link->sll_addr[5] > *physical_max)
            *physical_max = link->sll_addr[5];
        any = true;
        if (memcmp(link->sll_addr, mac, 6) == 0) {
            found = true;
            *chosen_is_virtual = is_virtual;
        }
    }
    freeifaddrs(list);
    return any ? found : memcmp(mac, "BBBBBB", 6) == 0;
}

TEST(UpnpIdentity, MacIsAServedAdapterWithTheHighestLastByteOrTheFallback)
{
    upnp_get_mac_reset();
    uint8_t mac[6];
    upnp_get_mac(mac);
    bool chosen_is_virtual = false;
    int physical_max = -1;
    ASSERT_TRUE(identity_served_adapter(mac, &chosen_is_virtual, &physical_max))
        << "not the address of an up, non-loopback adapter, nor the fallback";
    // A container bridge is chosen only when no physical adapter exists.
    if (physical_max >= 0) {
        EXPECT_FALSE(chosen_is_virtual);
        EXPECT_EQ(physical_max, mac[5]);
    }
}

TEST(UpnpIdentity, UdnTakesItsSeedFromTheLastParenthesisOfTheName)
{
    struct udn_case { const char* friendly_name; char seed; };
    static const udn_case cases[] = {
        {"Velmora Media Server", 't'}, {"Velmora (2)", '2'},
        {"a(1) b(7)", '7'},          // the last parenthesis decides
        {"trailing(", '\0'},
    };
    uint8_t mac[6];
    upnp_get_mac(mac);
    for (const udn_case& c : cases) {
        SCOPED_TRACE(c.friendly_name);
        char expected[64];
        snprintf(expected, sizeof expected, "uuid:76656c6d-6f72-1063-80%02x-%02x%02x%02x%02x%02x%02x",
                 uint8_t(c.seed), mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
        upnp_ini_set(UPNP_OPT_FRIENDLYNAME, c.friendly_name);
        EXPECT_STREQ(expected, upnp_get_udn());
    }
}
