// upnp_text.cpp: small text tools without state: header search, the folded
// comparison of sort orders, decimal and hexadecimal numbers, durations,
// Base64 and the adaptation of titles. No lock, no globals; the only option
// read is `adaptcase`, through the option store.
//
// Every decimal number goes through upnp_parse_u64 or upnp_parse_i64, which
// read a whole field and refuse anything but digits that fit. The lenient
// readers (upnp_atoi64, upnp_atou, upnp_time_to_ms) keep their historic
// forgiving forms by measuring the field first, and clamp where the old
// arithmetic wrapped.
#include "runtime/upnp_string.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// ---- search and comparison -----------------------------------------------

// Protocol heads fold ASCII letters only, whatever locale the host set; a
// request runs a dozen of these searches over its head.
static inline uint8_t text_fold(uint8_t c)
{
    return c >= 'A' && c <= 'Z' ? uint8_t(c + 32) : c;
}

const char* upnp_stristr(const char* text, const char* needle)
{
    if (!text || !needle || !*text)
        return nullptr;
    if (!*needle)
        return text;
    const uint8_t first = text_fold(uint8_t(*needle));
    for (const char* t = text; *t; t++) {
        if (text_fold(uint8_t(*t)) != first)
            continue;
        size_t i = 1;
        while (needle[i] && text_fold(uint8_t(t[i])) == text_fold(uint8_t(needle[i])))
            i++;
        if (!needle[i])
            return t;
    }
    return nullptr;
}

// Folds the two-byte UTF-8 forms of Latin-1 letters to ASCII for sorting.
// The letter with ring goes to Z on purpose: Nordic alphabets sort it there.
int upnp_fold_char(int first, int next)
{
    int lead = first & 0xFF;
    if (lead != 0xC2 && lead != 0xC3)
        return first;
    int v = lead == 0xC2 ? (next & 0xFF) : (next & 0xFF) + 0x40;
    if (v < 192 || v > 252)
        return first;
    if (v >= 224)
        v -= 32;                     // lower-case letters fold like capitals
    if ((v >= 192 && v <= 196) || v == 198)
        return 'A';
    if (v == 197)
        return 'Z';
    if (v == 199)
        return 'C';
    if (v >= 200 && v <= 203)
        return 'E';
    if (v >= 204 && v <= 207)
        return 'I';
    if (v == 209)
        return 'N';
    if (v >= 210 && v <= 216)
        return 'O';
    if (v >= 217 && v <= 220)
        return 'U';
    return first;
}

static int text_fold_at(const char* p)
{
    return toupper(upnp_fold_char(uint8_t(p[0]), uint8_t(p[1])) & 0xFF);
}

int upnp_strcmp_folded(const char* a, const char* b)
{
    if (!a || !b)
        return a == b ? 0 : (a ? 1 : -1);
    size_t i = 0;
    for (; a[i] && b[i]; i++) {
        signed char ca = static_cast<signed char>(text_fold_at(a + i));
        signed char cb = static_cast<signed char>(text_fold_at(b + i));
        if (ca != cb)
            return ca < cb ? -1 : 1;
    }
    if (!a[i] && !b[i])
        return 0;
    return a[i] ? 1 : -1;
}

// ---- numbers ---------------------------------------------------------------

size_t upnp_digit_run(const char* text, size_t limit)
{
    size_t n = 0;
    if (text)
        while (n < limit && text[n] >= '0' && text[n] <= '9')
            n++;
    return n;
}

size_t upnp_atoi_field(const char* text, const char** start)
{
    if (!text)
        text = "";
    text += strspn(text, " \t\n\v\f\r");
    *start = text;
    size_t sign = *text == '-' || *text == '+';
    size_t digits = upnp_digit_run(text + sign, SIZE_MAX);
    return digits ? sign + digits : 0;
}

int64_t upnp_parse_lenient(const char* text)
{
    const char* start = nullptr;
    size_t n = upnp_atoi_field(text, &start);
    int64_t v = 0;
    if (n && !upnp_parse_i64(start, n, &v))
        v = *start == '-' ? INT64_MIN : INT64_MAX;
    return v;
}

int32_t upnp_parse_lenient_i32(const char* text)
{
    int64_t v = upnp_parse_lenient(text);
    return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : int32_t(v);
}

// The historic form has no blanks and takes a '+' before the '-'; a value
// past the range clamps rather than wrapping.
int64_t upnp_atoi64(const char* text)
{
    if (!text)
        return 0;
    if (*text == '+')
        text++;
    size_t sign = *text == '-';
    size_t digits = upnp_digit_run(text + sign, SIZE_MAX);
    int64_t v = 0;
    if (digits && !upnp_parse_i64(text, sign + digits, &v))
        v = sign ? INT64_MIN : INT64_MAX;
    return v;
}

int32_t upnp_i64_to_string(int64_t value, char* buffer, int32_t size)
{
    if (!buffer || size <= 0)
        return 0;
    snprintf(buffer, size_t(size), "%" PRId64, value);
    return int32_t(strlen(buffer));
}

uint32_t upnp_atou(const char* text)
{
    size_t digits = upnp_digit_run(text, SIZE_MAX);
    uint64_t v = 0;
    if (digits && !upnp_parse_u64(text, digits, &v))
        v = UINT32_MAX;
    return v > UINT32_MAX ? UINT32_MAX : uint32_t(v);
}

int32_t upnp_wcslen(const uint16_t* wide)
{
    if (!wide)
        return 0;
    int32_t n = 0;
    while (wide[n] && n < INT32_MAX)
        n++;
    return n;
}

int upnp_hex_digit(int ch)
{
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    if (ch >= 'a' && ch <= 'f')
        return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F')
        return ch - 'A' + 10;
    return -1;
}

int upnp_hex_digit0(int ch)
{
    int d = upnp_hex_digit(ch);
    return d < 0 ? 0 : d;
}

int64_t upnp_hex_to_i64(const char* text, int digits)
{
    if (!text)
        return 0;
    uint64_t v = 0;
    for (int i = 0; i < digits; i++) {
        int d = upnp_hex_digit(uint8_t(text[i]));
        if (d < 0)
            break;
        v = v << 4 | uint64_t(d);
    }
    return int64_t(v);
}

int64_t upnp_hex8_to_i64(const char* text)
{
    return upnp_hex_to_i64(text, 8);
}

int upnp_parse_u64(const char* text, size_t length, uint64_t* out)
{
    if (!text || length == 0 || !out)
        return 0;
    uint64_t v = 0;
    for (size_t i = 0; i < length; i++) {
        if (text[i] < '0' || text[i] > '9')
            return 0;
        uint64_t d = uint64_t(text[i] - '0');
        if (v > (UINT64_MAX - d) / 10)
            return 0;
        v = v * 10 + d;
    }
    *out = v;
    return 1;
}

int upnp_parse_i64(const char* text, size_t length, int64_t* out)
{
    if (!text || length == 0 || !out)
        return 0;
    int negative = text[0] == '-';
    size_t sign = negative || text[0] == '+';
    uint64_t v = 0;
    if (!upnp_parse_u64(text + sign, length - sign, &v))
        return 0;
    if (v > uint64_t(INT64_MAX) + uint64_t(negative))
        return 0;
    // Negated as v - 1 so that the magnitude of INT64_MIN never has to fit.
    *out = negative ? (v ? -int64_t(v - 1) - 1 : 0) : int64_t(v);
    return 1;
}

// ---- durations -------------------------------------------------------------

char* upnp_time_from_ms(int64_t ms)
{
    int64_t rest = ms % 1000;
    int64_t seconds = ms / 1000 % 60;
    int64_t minutes = ms / 60000 % 60;
    int64_t hours = ms / 3600000;
    char text[64];
    if (rest)
        snprintf(text, sizeof text, "%" PRId64 ":%02" PRId64 ":%02" PRId64 ".%03" PRId64, hours, minutes, seconds,
                 rest);
    else
        snprintf(text, sizeof text, "%" PRId64 ":%02" PRId64 ":%02" PRId64, hours, minutes, seconds);
    // The result buffer has always held 15 bytes; longer durations are cut.
    return strndup(text, 14);
}


// A sum or product past the range clamps to the side it overflowed on.
static int64_t text_clamped_add(int64_t a, int64_t b)
{
    int64_t r;
    return __builtin_add_overflow(a, b, &r) ? (b < 0 ? INT64_MIN : INT64_MAX) : r;
}

static int64_t text_clamped_scale(int64_t a, int64_t scale)
{
    int64_t r;
    return __builtin_mul_overflow(a, scale, &r) ? (a < 0 ? INT64_MIN : INT64_MAX) : r;
}

int64_t upnp_time_to_ms(const char* text)
{
    if (!text)
        return 0;
    static constexpr int64_t scale[4] = {3600000, 60000, 1000, 1};
    int64_t total = 0;
    const char* p = text;
    for (int i = 0; i < 4 && p; i++) {
        total = text_clamped_add(total, text_clamped_scale(upnp_parse_lenient(p), scale[i]));
        p = strchr(p, ':');
        if (p)
            p++;
    }
    return total;
}

// ---- Base64 ----------------------------------------------------------------

// A last group of two bytes ends without '=': the web pages compare this
// form with the credentials clients send, so it stays.
char* upnp_base64_encode(const char* text)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (!text)
        return nullptr;
    size_t n = strlen(text);
    char* out = static_cast<char*>(calloc(n / 3 * 4 + (n % 3) * 4 / 3 + 4, 1));
    if (!out)
        return nullptr;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(text);
    char* o = out;
    for (size_t i = 0; i < n; i += 3) {
        size_t left = n - i;
        uint32_t group = uint32_t(p[i]) << 16 | (left > 1 ? uint32_t(p[i + 1]) << 8 : 0) | (left > 2 ? p[i + 2] : 0);
        *o++ = alphabet[group >> 18 & 63];
        *o++ = alphabet[group >> 12 & 63];
        if (left == 1) {
            memcpy(o, "==", 2);
            o += 2;
            break;
        }
        *o++ = alphabet[group >> 6 & 63];
        if (left > 2)
            *o++ = alphabet[group & 63];
    }
    return out;
}

// ---- titles ----------------------------------------------------------------

static int text_is_word_break(uint8_t c)
{
    return c && strchr(" &.)(/[]-", c) != nullptr;
}

static int text_is_roman(uint8_t c)
{
    return c && strchr("IVXivx", c) != nullptr;
}

// Upper-cases the Roman number starting at i, up to the next blank, and
// returns where it ends; i itself when the word there is none. Skipping the
// whole number keeps long runs linear: every later byte of it would start
// a Roman word again.
static size_t text_roman_word(char* text, size_t i)
{
    size_t end = i;
    while (text[end] && text[end] != ' ') {
        if (!text_is_roman(uint8_t(text[end])))
            return i;
        end++;
    }
    for (size_t k = i; k < end; k++)
        text[k] = char(toupper(uint8_t(text[k])));
    return end;
}

static void text_adapt_case(char* text)
{
    int word_start = 1;
    for (size_t i = 0; text[i];) {
        uint8_t c = uint8_t(text[i]);
        if (text_is_word_break(c)) {
            word_start = 1;
            i++;
            continue;
        }
        if (word_start) {
            size_t end = text_roman_word(text, i);
            if (end != i) {
                i = end;             // a Roman number keeps the word start
                continue;
            }
            if (c < 0x80)
                text[i] = char(toupper(c));
            word_start = 0;
        } else if (c < 0x80) {
            text[i] = char(tolower(c));
        }
        i++;
    }
}

// "The Wall" sorts as "Wall, The".
static char* text_move_article(const char* text)
{
    static const char* const articles[] = {"The ", "Der ", "Die ", "Das "};
    for (const char* article : articles) {
        if (strncmp(text, article, 4) != 0)
            continue;
        size_t n = strlen(text);
        char* out = static_cast<char*>(malloc(n + 2));
        if (out)
            snprintf(out, n + 2, "%s, %.3s", text + 4, article);
        return out;
    }
    return strdup(text);
}

char* upnp_title_adapt(char* text, int enable)
{
    if (!text)
        return nullptr;
    if (!enable || !*text)
        return strdup(text);
    text_adapt_case(text);
    return text_move_article(text);
}

char* upnp_title_from_path(const char* path)
{
    if (!path)
        return nullptr;
    const char* name = path;
    // A backslash is a legal byte in a Linux file name, not a separator.
    if (const char* slash = strrchr(path, '/'))
        name = slash + 1;
    const char* dot = strrchr(name, '.');
    size_t n = dot ? size_t(dot - name) : strlen(name);
    if (n == 0)
        return strdup("No Title");
    return strndup(name, n);
}
