// xml_fuzz.cpp: any bytes through both XML readers, the tree walks, the
// entity codecs and the property checks. The input is copied into a buffer
// of its exact size plus the terminator, so that a read past the end of the
// text is a read past the end of the allocation.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/upnp_xml.h"

static char* fuzz_text(const uint8_t* data, size_t size)
{
    char* text = static_cast<char*>(malloc(size + 1));
    if (text) {
        memcpy(text, data, size);
        text[size] = 0;
    }
    return text;
}

static void fuzz_walk(upnp_xml_node* root, const char* text)
{
    if (!root)
        return;
    if (root->consumed < 0 || size_t(root->consumed) > strlen(text))
        abort();
    // Names taken from the input itself, so lookups hit as well as miss.
    const char* probes[] = {root->name, "res", "dc:title", "ObjectID", ""};
    for (const char* name : probes) {
        upnp_xml_node* hit = upnp_xml_find(root, name);
        if (hit && hit->attributes)
            upnp_xml_get_attr(hit, hit->attributes->name);
        upnp_xml_get_attr(root, name);
        upnp_xml_get_value(root, name);
        upnp_xml_get_int(root, name);
    }
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The checks print a line per unknown name; keep the run readable.
    if (!freopen("/dev/null", "w", stdout))
        return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    char* text = fuzz_text(data, size);
    if (!text)
        return 0;
    upnp_xml_node* plain = upnp_xml_parse(text);
    fuzz_walk(plain, text);
    upnp_xml_free(plain);
    upnp_xml_node* checked = upnp_xml_parse_checked(text);
    fuzz_walk(checked, text);
    upnp_xml_free(checked);

    free(upnp_xml_escape(text));
    char* copy = fuzz_text(data, size);
    if (copy) {
        size_t before = strlen(copy);
        upnp_xml_unescape(copy);
        if (strlen(copy) > before)
            abort();
        free(copy);
    }

    // The first line names the property, the rest is its value.
    char* value = strchr(text, '\n');
    if (value) {
        *value++ = 0;
        upnp_xml_check_property(text, value);
        upnp_xml_check_string_dcdate(value, 29);
        upnp_xml_check_string_duration(value, 1024);
    }
    free(text);
    return 0;
}
