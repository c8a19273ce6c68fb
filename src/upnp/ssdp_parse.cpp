// ssdp_parse.cpp: the readers of incoming SSDP datagrams, kept apart from
// the sockets so that tests and fuzzers feed them bytes. No state, no lock.
//
// The readers search the text as the server always has: the request line
// and the header names by case-insensitive substring, a value right behind
// "\nNAME:" with the colon directly after the name. Every search runs over
// the given length only, so a datagram without terminator or with a NUL
// inside is read no further than it goes.
#include "upnp/ssdp.h"

#include "runtime/upnp_string.h"

#include <algorithm>
#include <cstring>
#include <string_view>

static char ssdp_fold(char c)
{
    return c >= 'a' && c <= 'z' ? char(c - 'a' + 'A') : c;
}

// Position of needle in text ignoring ASCII case, or npos.
static size_t ssdp_ifind(std::string_view text, std::string_view needle)
{
    if (needle.size() > text.size())
        return std::string_view::npos;
    for (size_t at = 0; at + needle.size() <= text.size(); at++) {
        size_t i = 0;
        while (i < needle.size() && ssdp_fold(text[at + i]) == ssdp_fold(needle[i]))
            i++;
        if (i == needle.size())
            return at;
    }
    return std::string_view::npos;
}

static int ssdp_is_blank(char c)
{
    return c == ' ' || c == '\t';
}

// The value behind name (which ends with its colon), blanks skipped, up to
// the first byte that is a blank, a control byte or above 127: a target
// never holds such a byte, and a line end closes it. Empty when the name
// is missing.
static std::string_view ssdp_value(std::string_view text, std::string_view name)
{
    size_t at = ssdp_ifind(text, name);
    if (at == std::string_view::npos)
        return {};
    text.remove_prefix(at + name.size());
    while (!text.empty() && ssdp_is_blank(text.front()))
        text.remove_prefix(1);
    size_t end = 0;
    while (end < text.size() && static_cast<signed char>(text[end]) > 32)
        end++;
    return text.substr(0, end);
}

// The search wait in seconds: the leading digits of the MX value. 0 for
// none, for 0 and for a number too large to read; a readable one above the
// cap counts as the cap.
static int32_t ssdp_mx(std::string_view head)
{
    std::string_view value = ssdp_value(head, "\nMX:");
    size_t digits = upnp_digit_run(value.data(), value.size());
    uint64_t mx = 0;
    if (!upnp_parse_u64(value.data(), digits, &mx))
        return 0;
    return mx > SSDP_MAX_MX ? SSDP_MAX_MX : int32_t(mx);
}

// The headers behind a request line "M-SEARCH * HTTP/1.1", or empty when
// the text is no search.
static std::string_view ssdp_search_head(std::string_view text)
{
    size_t at = ssdp_ifind(text, "M-SEARCH");
    if (at == std::string_view::npos)
        return {};
    text.remove_prefix(at + 8);
    at = text.find('*');
    if (at == std::string_view::npos)
        return {};
    text.remove_prefix(at + 1);
    at = ssdp_ifind(text, "HTTP/1.1");
    if (at == std::string_view::npos)
        return {};
    text.remove_prefix(at + 8);
    static constexpr std::string_view required[] = {"\nHOST", "\nMX", "\nST", "\nMAN"};
    for (std::string_view name : required)
        if (ssdp_ifind(text, name) == std::string_view::npos)
            return {};
    return text;
}

int ssdp_parse_search(const char* text, size_t length, ssdp_search* out)
{
    if (!text || !out)
        return 0;
    std::string_view head = ssdp_search_head(std::string_view(text, length));
    if (head.empty())
        return 0;
    std::string_view target = ssdp_value(head, "\nST:");
    int32_t mx = ssdp_mx(head);
    // A longer target than the record holds names nothing we announce.
    if (target.empty() || target.size() >= SSDP_TARGET_SIZE || mx < 1)
        return -1;
    memcpy(out->target, target.data(), target.size());
    out->target[target.size()] = 0;
    out->mx = mx;
    return 1;
}

const char* ssdp_find_url(const char* text, size_t length)
{
    if (!text)
        return nullptr;
    std::string_view view(text, length);
    size_t at = view.find("http://");
    return at == std::string_view::npos ? nullptr : text + at;
}

int ssdp_parse_notify(const char* text, size_t length, const char** url, size_t* url_length)
{
    if (!text || !url || !url_length)
        return 0;
    std::string_view view(text, length);
    constexpr auto npos = std::string_view::npos;
    if (view.find("NOTIFY *") == npos || view.find("ssdp:alive") == npos)
        return 0;
    if (view.find("MediaRenderer:1") == npos && view.find("RemoteUIClientDevice:1") == npos)
        return 0;
    const char* found = ssdp_find_url(text, length);
    if (!found)
        return 0;
    *url = found;
    *url_length = length - size_t(found - text);
    return 1;
}

int ssdp_parse_ip(const char* text, uint32_t* out)
{
    if (!text || !out)
        return 0;
    std::string_view rest(text, strnlen(text, 16));
    uint32_t value = 0;
    for (int part = 0; part < 4; part++) {
        size_t digits = upnp_digit_run(rest.data(), std::min<size_t>(rest.size(), 4));
        uint64_t number = 0;
        if (digits > 3 || !upnp_parse_u64(rest.data(), digits, &number) || number > 255)
            return 0;
        value = value << 8 | uint32_t(number);
        rest.remove_prefix(digits);
        if (part < 3) {
            if (rest.empty() || rest.front() != '.')
                return 0;
            rest.remove_prefix(1);
        }
    }
    if (!rest.empty())
        return 0;
    *out = value;
    return 1;
}

int ssdp_same_subnet(const char* local_ip, const char* mask, const char* peer_ip)
{
    uint32_t local = 0, bits = 0, peer = 0;
    if (!ssdp_parse_ip(local_ip, &local) || !ssdp_parse_ip(mask, &bits) || !ssdp_parse_ip(peer_ip, &peer))
        return 0;
    return (local & bits) == (peer & bits);
}
