// upnp_encoding.cpp: conversions between the encodings the server meets.
// UTF-8 is the inner form; UTF-16 (arrays of uint16_t, 0-ended) appears at
// the ini and string files; Latin-1 and Shift-JIS come from old tags. The
// system code page of the command line is UTF-8 here.
//
// No state and no lock. Every conversion walks its input once through a
// bounded reader: a sequence that claims more bytes than are left stops at
// the terminator (or the count) instead of reading on. Invalid UTF-8 and
// unpaired surrogates become U+FFFD, as the system converters do, except in
// upnp_string_clean_utf8 and upnp_string_to_latin1, whose rules are their
// own and are kept byte for byte because stored databases depend on them.
#include "runtime/upnp_string.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iconv.h>

static constexpr uint32_t ENC_REPLACEMENT = 0xFFFD;

#define ENC_NO_MEMORY() printf("[Error] Memory allocation is failed !!!, %s, %d\n", __func__, __LINE__)

// ---- UTF-8 and UTF-16 code points ----------------------------------------

// Bytes a UTF-8 sequence takes by its lead byte, 0 for a byte that cannot
// start one. Five and six byte leads are counted for the cleaning rules.
static int enc_utf8_lead_length(uint8_t c)
{
    if (c < 0x80)
        return 1;
    if (c < 0xC0)
        return 0;
    if (c < 0xE0)
        return 2;
    if (c < 0xF0)
        return 3;
    if (c < 0xF8)
        return 4;
    if (c < 0xFC)
        return 5;
    return c < 0xFE ? 6 : 0;
}

// 1 when the k-1 bytes behind p are continuation bytes within left bytes.
// A terminator is no continuation byte, so this never passes one.
static int enc_has_continuations(const uint8_t* p, size_t left, int k)
{
    if (size_t(k) > left)
        return 0;
    for (int i = 1; i < k; i++)
        if ((p[i] & 0xC0) != 0x80)
            return 0;
    return 1;
}

// Decodes one code point strictly (no overlongs, surrogates or values past
// U+10FFFF); an invalid byte yields U+FFFD and is consumed alone.
static size_t enc_utf8_decode(const uint8_t* p, size_t left, uint32_t* cp)
{
    static constexpr uint32_t min_value[5] = {0, 0, 0x80, 0x800, 0x10000};
    int k = enc_utf8_lead_length(p[0]);
    if (k == 1) {
        *cp = p[0];
        return 1;
    }
    if (k < 2 || k > 4 || !enc_has_continuations(p, left, k)) {
        *cp = ENC_REPLACEMENT;
        return 1;
    }
    uint32_t v = p[0] & (0x7F >> k);
    for (int i = 1; i < k; i++)
        v = v << 6 | (p[i] & 0x3F);
    if (v < min_value[k] || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) {
        *cp = ENC_REPLACEMENT;
        return 1;
    }
    *cp = v;
    return size_t(k);
}

static size_t enc_utf16_decode(const uint16_t* w, size_t left, uint32_t* cp)
{
    uint32_t u = w[0];
    if (u < 0xD800 || u > 0xDFFF) {
        *cp = u;
        return 1;
    }
    if (u <= 0xDBFF && left >= 2 && w[1] >= 0xDC00 && w[1] <= 0xDFFF) {
        *cp = 0x10000 + ((u - 0xD800) << 10) + (w[1] - 0xDC00);
        return 2;
    }
    *cp = ENC_REPLACEMENT;
    return 1;
}

// ---- bounded output sinks ------------------------------------------------
// A sink counts every unit the whole conversion needs, and writes whole
// characters only while they fit; after the first that does not, nothing
// more is written, so a cut output is a clean prefix.

struct enc_wide_sink {
    uint16_t* out;
    size_t room;      // units for text, terminator excluded
    size_t needed;
    size_t written;
    int full;
};

struct enc_byte_sink {
    char* out;
    size_t room;
    size_t needed;
    size_t written;
    int full;
};

static void enc_wide_put(enc_wide_sink* k, uint32_t cp)
{
    uint16_t units[2] = {uint16_t(cp), 0};
    size_t n = 1;
    if (cp >= 0x10000) {
        units[0] = uint16_t(0xD800 + ((cp - 0x10000) >> 10));
        units[1] = uint16_t(0xDC00 + ((cp - 0x10000) & 0x3FF));
        n = 2;
    }
    k->needed += n;
    if (!k->out || k->full || k->written + n > k->room) {
        k->full = 1;
        return;
    }
    memcpy(k->out + k->written, units, n * sizeof(uint16_t));
    k->written += n;
}

static void enc_byte_put(enc_byte_sink* k, uint32_t cp)
{
    char b[4];
    size_t n;
    if (cp < 0x80) {
        b[0] = char(cp);
        n = 1;
    } else if (cp < 0x800) {
        b[0] = char(0xC0 | cp >> 6);
        b[1] = char(0x80 | (cp & 0x3F));
        n = 2;
    } else if (cp < 0x10000) {
        b[0] = char(0xE0 | cp >> 12);
        b[1] = char(0x80 | (cp >> 6 & 0x3F));
        b[2] = char(0x80 | (cp & 0x3F));
        n = 3;
    } else {
        b[0] = char(0xF0 | cp >> 18);
        b[1] = char(0x80 | (cp >> 12 & 0x3F));
        b[2] = char(0x80 | (cp >> 6 & 0x3F));
        b[3] = char(0x80 | (cp & 0x3F));
        n = 4;
    }
    k->needed += n;
    if (!k->out || k->full || k->written + n > k->room) {
        k->full = 1;
        return;
    }
    memcpy(k->out + k->written, b, n);
    k->written += n;
}

// Both walkers stop at n units or at the first 0, whichever comes first.
static void enc_utf8_walk(const char* text, size_t n, enc_wide_sink* k)
{
    const uint8_t* p = reinterpret_cast<const uint8_t*>(text);
    size_t i = 0;
    while (i < n && p[i]) {
        uint32_t cp;
        i += enc_utf8_decode(p + i, n - i, &cp);
        enc_wide_put(k, cp);
    }
}

static void enc_utf16_walk(const uint16_t* wide, size_t n, enc_byte_sink* k)
{
    size_t i = 0;
    while (i < n && wide[i]) {
        uint32_t cp;
        i += enc_utf16_decode(wide + i, n - i, &cp);
        enc_byte_put(k, cp);
    }
}

static size_t enc_wcsnlen(const uint16_t* wide, size_t n)
{
    size_t i = 0;
    while (i < n && wide[i])
        i++;
    return i;
}

// ---- heap conversions ----------------------------------------------------

uint16_t* upnp_string_utf8_to_utf16_n(const char* text, size_t n)
{
    if (!text)
        return nullptr;
    n = strnlen(text, n);
    enc_wide_sink measure = {};
    enc_utf8_walk(text, n, &measure);
    uint16_t* out = static_cast<uint16_t*>(malloc((measure.needed + 1) * sizeof(uint16_t)));
    if (!out) {
        ENC_NO_MEMORY();
        return nullptr;
    }
    enc_wide_sink k = {out, measure.needed, 0, 0, 0};
    enc_utf8_walk(text, n, &k);
    out[k.written] = 0;
    return out;
}

char* upnp_string_utf16_to_utf8_n(const uint16_t* wide, size_t n)
{
    if (!wide)
        return nullptr;
    n = enc_wcsnlen(wide, n);
    enc_byte_sink measure = {};
    enc_utf16_walk(wide, n, &measure);
    char* out = static_cast<char*>(malloc(measure.needed + 1));
    if (!out) {
        ENC_NO_MEMORY();
        return nullptr;
    }
    enc_byte_sink k = {out, measure.needed, 0, 0, 0};
    enc_utf16_walk(wide, n, &k);
    out[k.written] = 0;
    return out;
}

uint16_t* upnp_string_utf8_to_utf16(const char* text)
{
    return upnp_string_utf8_to_utf16_n(text, SIZE_MAX);
}

char* upnp_string_utf16_to_utf8(const uint16_t* wide)
{
    return upnp_string_utf16_to_utf8_n(wide, SIZE_MAX);
}

// ---- caller's buffers ----------------------------------------------------
// The count includes the terminator. With a buffer: twice the count in
// units (bytes written) for the wide forms, the count for UTF-8 output;
// 0 when the buffer was too small, in which case it holds a clean prefix.

int32_t upnp_string_utf8_to_wide(const char* text, uint16_t* out, int32_t out_size)
{
    if (!text)
        return -1;
    size_t room = out && out_size > 0 ? size_t(out_size) - 1 : 0;
    enc_wide_sink k = {out, room, 0, 0, 0};
    enc_utf8_walk(text, SIZE_MAX, &k);
    if (k.needed >= size_t(INT32_MAX) / 2)
        return 0;
    if (!out)
        return int32_t(k.needed + 1);
    if (out_size <= 0)
        return 0;
    out[k.written] = 0;
    return k.full ? 0 : int32_t(k.needed + 1) * 2;
}

int32_t upnp_string_acp_to_wide(const char* text, uint16_t* out, int32_t out_size)
{
    // The system code page is UTF-8 on this platform.
    return upnp_string_utf8_to_wide(text, out, out_size);
}

int32_t upnp_string_wide_to_utf8(const uint16_t* wide, char* out, int32_t out_size)
{
    if (!wide)
        return -1;
    size_t room = out && out_size > 0 ? size_t(out_size) - 1 : 0;
    enc_byte_sink k = {out, room, 0, 0, 0};
    enc_utf16_walk(wide, SIZE_MAX, &k);
    if (k.needed >= size_t(INT32_MAX))
        return 0;
    if (!out)
        return int32_t(k.needed + 1);
    if (out_size <= 0)
        return 0;
    out[k.written] = 0;
    return k.full ? 0 : int32_t(k.needed + 1);
}

// ---- Latin-1 and mixed text ----------------------------------------------

static char* enc_alloc_text(size_t n)
{
    char* out = static_cast<char*>(malloc(n));
    if (!out)
        ENC_NO_MEMORY();
    return out;
}

static char* enc_put_latin1(char* o, uint8_t c)
{
    if (c < 0x80) {
        *o++ = char(c);
    } else if (c < 0xC0) {
        *o++ = char(0xC2);
        *o++ = char(c);
    } else {
        *o++ = char(0xC3);
        *o++ = char(c - 0x40);
    }
    return o;
}

char* upnp_string_latin1_to_utf8(const char* text)
{
    if (!text || !*text)
        return nullptr;
    size_t n = strlen(text);
    char* out = enc_alloc_text(n * 2 + 1);
    if (!out)
        return nullptr;
    char* o = out;
    for (const uint8_t* p = reinterpret_cast<const uint8_t*>(text); *p; p++)
        o = enc_put_latin1(o, *p);
    *o = 0;
    return out;
}

int upnp_string_utf8_valid(const char* text)
{
    if (!text)
        return 0;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(text);
    size_t left = strlen(text);
    while (left) {
        uint32_t cp;
        size_t used = enc_utf8_decode(p, left, &cp);
        // A replacement character that was really written takes 3 bytes.
        if (cp == ENC_REPLACEMENT && used == 1)
            return 0;
        p += used;
        left -= used;
    }
    return 1;
}

// Valid-looking sequences (the 5 and 6 byte forms included) are kept;
// every other byte is taken for Latin-1, so mixed text comes out as UTF-8.
char* upnp_string_clean_utf8(const char* text)
{
    if (!text)
        return nullptr;
    size_t n = strlen(text);
    char* out = enc_alloc_text(n * 2 + 1);
    if (!out)
        return nullptr;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(text);
    char* o = out;
    for (size_t i = 0; i < n;) {
        int k = enc_utf8_lead_length(p[i]);
        if (k >= 2 && enc_has_continuations(p + i, n - i, k)) {
            memcpy(o, p + i, size_t(k));
            o += k;
            i += size_t(k);
        } else {
            o = enc_put_latin1(o, p[i++]);
        }
    }
    *o = 0;
    return out;
}

// Characters beyond Latin-1 become one '?'; their bytes are skipped by the
// lead byte's count without looking at them, but never past the terminator.
char* upnp_string_to_latin1(const char* text)
{
    if (!text)
        return nullptr;
    size_t n = strlen(text);
    char* out = enc_alloc_text(n + 1);
    if (!out)
        return nullptr;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(text);
    char* o = out;
    for (size_t i = 0; i < n;) {
        uint8_t c = p[i];
        int k = enc_utf8_lead_length(c);
        if (c < 0x80) {
            *o++ = char(c);
            i++;
        } else if (c == 0xC2 || c == 0xC3) {
            if (i + 1 >= n)
                break;
            *o++ = char(c == 0xC2 ? p[i + 1] : p[i + 1] + 0x40);
            i += 2;
        } else if (k >= 3) {
            *o++ = '?';
            i += size_t(k);          // the loop's bound stops at the terminator
        } else {
            i++;
        }
    }
    *o = 0;
    return out;
}

// ---- Shift-JIS -----------------------------------------------------------

int upnp_string_is_multibyte(const char* text)
{
    if (!text)
        return 0;
    size_t length = 0, high = 0;
    for (const uint8_t* p = reinterpret_cast<const uint8_t*>(text); *p; p++, length++) {
        if (*p >= 129 && *p <= 159)
            return 1;
        if (*p >= 160)
            high++;
    }
    return high * 2 > length ? 1 : 0;
}

// Bytes the converter refuses become U+FFFD one at a time, so a damaged
// tag still yields its readable part.
static void enc_iconv_all(iconv_t cd, char* in, size_t in_left, char** out, size_t* out_left)
{
    while (in_left > 0) {
        if (iconv(cd, &in, &in_left, out, out_left) != size_t(-1))
            break;
        if ((errno != EILSEQ && errno != EINVAL) || *out_left < 3)
            break;
        memcpy(*out, "\xEF\xBF\xBD", 3);
        *out += 3;
        *out_left -= 3;
        in++;
        in_left--;
    }
}

char* upnp_string_sjis_to_utf8(const char* text)
{
    if (!text)
        return nullptr;
    iconv_t cd = iconv_open("UTF-8", "CP932");
    if (cd == iconv_t(-1))
        return upnp_string_clean_utf8(text);
    size_t n = strlen(text);
    size_t room = n * 3;          // no CP932 byte grows past three UTF-8 bytes
    char* out = enc_alloc_text(room + 1);
    if (out) {
        char* o = out;
        enc_iconv_all(cd, const_cast<char*>(text), n, &o, &room);
        *o = 0;
    }
    iconv_close(cd);
    return out;
}
