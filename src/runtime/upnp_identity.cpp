// upnp_identity.cpp: the device identity. The UDN is built from a fixed
// prefix, a seed character taken from the friendly name and the hardware
// address of one network adapter, so that it stays the same across restarts
// and differs between machines.
//
// The hardware address comes from getifaddrs (AF_PACKET entries): up, not
// loopback, six bytes long. Physical adapters are preferred over container
// and virtual bridges, whose addresses change with every container start.
// Among the candidates the one with the highest last byte wins, the first
// on a tie. The choice is cached under mac_lock until upnp_get_mac_reset,
// which the interface watch calls when the adapters change. A failed look-up
// is not cached, so the identity settles once a network appears.
#include "runtime/upnp_string.h"


#include <cstdio>
#include <cstring>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <mutex>
#include <net/if.h>

static std::mutex mac_lock;
static uint8_t mac_cached[6];        // mac_lock
static int mac_valid;                // mac_lock

static int mac_is_virtual(const char* name)
{
    static const char* const prefixes[] = {"docker", "veth", "br-", "virbr"};
    for (const char* prefix : prefixes)
        if (strncmp(name, prefix, strlen(prefix)) == 0)
            return 1;
    return 0;
}

// The hardware address of an adapter that may carry the identity, or null.
static const uint8_t* mac_of(const ifaddrs* a)
{
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_PACKET || !a->ifa_name)
        return nullptr;
    if (!(a->ifa_flags & IFF_UP) || (a->ifa_flags & IFF_LOOPBACK))
        return nullptr;
    const sockaddr_ll* link = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
    return link->sll_halen == 6 ? link->sll_addr : nullptr;
}

// Highest last byte, first on a tie; 1 when some adapter was found.
static int mac_pick(const ifaddrs* list, int allow_virtual, uint8_t out[6])
{
    const uint8_t* best = nullptr;
    for (const ifaddrs* a = list; a; a = a->ifa_next) {
        const uint8_t* mac = mac_of(a);
        if (!mac || (!allow_virtual && mac_is_virtual(a->ifa_name)))
            continue;
        if (!best || mac[5] > best[5])
            best = mac;
    }
    if (best)
        memcpy(out, best, 6);
    return best != nullptr;
}

static int mac_lookup(uint8_t out[6])
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return 0;
    int found = mac_pick(list, 0, out) || mac_pick(list, 1, out);
    freeifaddrs(list);
    return found;
}

void upnp_get_mac(uint8_t out[6])
{
    std::lock_guard<std::mutex> hold(mac_lock);
    if (!mac_valid)
        mac_valid = mac_lookup(mac_cached);
    if (mac_valid)
        memcpy(out, mac_cached, 6);
    else
        memcpy(out, "BBBBBB", 6);
}

void upnp_get_mac_reset()
{
    std::lock_guard<std::mutex> hold(mac_lock);
    mac_valid = 0;
}

// Two servers on one machine told apart by a number in parentheses at the
// end of their names get different identities from that character.
static uint8_t udn_seed(const char* name)
{
    const char* open = name ? strrchr(name, '(') : nullptr;
    return open ? uint8_t(open[1]) : uint8_t('t');
}

const char* upnp_get_udn(const char* friendly_name)
{
    // The host may keep this pointer, so the buffer lives for the process.
    // It is written only when the identity changes, so callers on several
    // threads read a settled text.
    static char udn[256];            // udn_lock for writes
    static std::mutex udn_lock;
    uint8_t b[16] = {0x76, 0x65, 0x6C, 0x6D, 0x6F, 0x72, 0x10, 0x63, 0x80, udn_seed(friendly_name)};
    upnp_get_mac(b + 10);
    char text[sizeof udn];
    snprintf(text, sizeof text,
             "uuid:%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
             b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
             b[14], b[15]);
    std::lock_guard<std::mutex> hold(udn_lock);
    if (strcmp(text, udn) != 0)
        memcpy(udn, text, sizeof udn);
    return udn;
}
