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
#include <vector>

struct identity_adapter {
    std::string name;
    std::vector<uint8_t> mac;
};

static std::vector<identity_adapter> identity_adapters()
{
    std::vector<identity_adapter> out;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return out;
    for (ifaddrs* a = list; a; a = a->ifa_next) {
        if (!a->ifa_addr || a->ifa_addr->sa_family != AF_PACKET)
            continue;
        if (!(a->ifa_flags & IFF_UP) || (a->ifa_flags & IFF_LOOPBACK))
            continue;
        const sockaddr_ll* link = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
        if (link->sll_halen == 6)
            out.push_back({a->ifa_name, std::vector<uint8_t>(link->sll_addr, link->sll_addr + 6)});
    }
    freeifaddrs(list);
    return out;
}

static bool identity_is_virtual(const std::string& name)
{
    for (const char* prefix : {"docker", "veth", "br-", "virbr"})
        if (name.rfind(prefix, 0) == 0)
            return true;
    return false;
}

TEST(UpnpIdentity, MacIsAServedAdapterWithTheHighestLastByteOrTheFallback)
{
    upnp_get_mac_reset();
    uint8_t mac[6];
    upnp_get_mac(mac);
    std::vector<identity_adapter> adapters = identity_adapters();
    if (adapters.empty()) {
        EXPECT_EQ(0, memcmp(mac, "BBBBBB", 6));
        return;
    }
    const identity_adapter* chosen = nullptr;
    for (const identity_adapter& a : adapters)
        if (memcmp(a.mac.data(), mac, 6) == 0)
            chosen = &a;
    ASSERT_NE(nullptr, chosen) << "not the address of an up, non-loopback adapter";
    // A container bridge is chosen only when no physical adapter exists.
    for (const identity_adapter& a : adapters) {
        if (identity_is_virtual(a.name))
            continue;
        EXPECT_FALSE(identity_is_virtual(chosen->name)) << a.name;
        EXPECT_LE(a.mac[5], mac[5]) << a.name;
    }
}

static std::string identity_expected(char seed)
{
    uint8_t mac[6];
    upnp_get_mac(mac);
    char text[64];
    snprintf(text, sizeof text, "uuid:76656c6d-6f72-1063-80%02x-%02x%02x%02x%02x%02x%02x", uint8_t(seed), mac[0],
             mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

struct udn_case {
    const char* friendly_name;
    char seed;
};

static const udn_case udn_cases[] = {
    {"Velmora Media Server", 't'},
    {"Velmora (2)", '2'},
    {"a(1) b(7)", '7'},          // the last parenthesis decides
    {"trailing(", '\0'},
};

TEST(UpnpIdentity, UdnTakesItsSeedFromTheLastParenthesisOfTheName)
{
    for (const udn_case& c : udn_cases) {
        SCOPED_TRACE(c.friendly_name);
        upnp_ini_set(UPNP_OPT_FRIENDLYNAME, c.friendly_name);
        EXPECT_EQ(identity_expected(c.seed), std::string(upnp_get_udn()));
    }
}
