// Feeds arbitrary bytes to the text converters and readers: as a
// NUL-terminated text, as counted bytes, and as UTF-16 units. Nothing may
// read past the input, write past an output, hang or leak.
#include "config/upnp_ini.h"
#include "runtime/upnp_string.h"

#include <cstdlib>
#include <cstring>
#include <vector>

static void fuzz_free_all(std::initializer_list<void*> blocks)
{
    for (void* b : blocks)
        free(b);
}

static void fuzz_text(const char* text)
{
    fuzz_free_all({upnp_string_clean_utf8(text), upnp_string_to_latin1(text), upnp_string_latin1_to_utf8(text),
                   upnp_string_sjis_to_utf8(text), upnp_string_utf8_to_utf16(text), upnp_base64_encode(text),
                   upnp_title_from_path(text)});
    upnp_string_is_multibyte(text);
    upnp_time_to_ms(text);
    upnp_atoi64(text);
    upnp_atou(text);
    const char* start = nullptr;
    int64_t field = 0;
    upnp_parse_i64(start, upnp_atoi_field(text, &start), &field);
    upnp_hex8_to_i64(text);
    upnp_strcmp_folded(text, "M\xC3\x85nchen");
    upnp_stristr(text, "\nhost");

    uint16_t wide[64];
    upnp_string_utf8_to_wide(text, nullptr, 0);
    upnp_string_utf8_to_wide(text, wide, int32_t(sizeof wide / sizeof wide[0]));

    char* copy = strdup(text);
    fuzz_free_all({upnp_title_adapt(copy, 1), copy});

    upnp_string* s = upnp_string_append_checked(nullptr, text, 1);
    s = upnp_string_append_checked(s, text, 0);
    s = upnp_string_appendf(s, "%s", text);
    upnp_string_free(s);
}

static void fuzz_units(const uint8_t* data, size_t size)
{
    size_t n = size / 2;
    std::vector<uint16_t> units(n + 1, 0);
    if (n)
        memcpy(units.data(), data, n * 2);
    fuzz_free_all({upnp_string_utf16_to_utf8(units.data()), upnp_string_utf16_to_utf8_n(units.data(), n)});
    char out[64];
    upnp_string_wide_to_utf8(units.data(), nullptr, 0);
    upnp_string_wide_to_utf8(units.data(), out, int32_t(sizeof out));
    upnp_wcslen(units.data());

    // The counted form must not need the terminator.
    std::vector<uint16_t> bare(units.begin(), units.begin() + long(n));
    free(upnp_string_utf16_to_utf8_n(bare.data(), bare.size()));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int once = (upnp_ini_set(UPNP_OPT_ADAPTCASE, "1"), 1);
    (void)once;
    std::vector<char> text(data, data + size);
    text.push_back(0);
    fuzz_text(text.data());

    std::vector<char> bare(data, data + size);
    free(upnp_string_utf8_to_utf16_n(bare.data(), bare.size()));
    uint64_t value;
    upnp_parse_u64(bare.data(), bare.size(), &value);
    int64_t signed_value;
    upnp_parse_i64(bare.data(), bare.size(), &signed_value);
    upnp_digit_run(bare.data(), bare.size());
    upnp_string_free(upnp_string_append_bytes(nullptr, bare.data(), int32_t(bare.size())));

    fuzz_units(data, size);
    return 0;
}
