// upnp_string.cpp: the growing text record behind all XML, SOAP and page
// output. A record belongs to one thread at a time, so there is no lock and
// no global state. Growth doubles the capacity (or takes exactly what is
// needed when that is more) into a fresh zero-filled block, so bytes behind
// the text are always 0. The capacity is an int32: a text that would reach
// 2 GiB is refused and the record comes back unchanged, which callers
// already treat like any failed allocation (the text is simply lost).
#include "runtime/upnp_string.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr int64_t STRING_MAX_CAPACITY = INT32_MAX;
static constexpr int32_t STRING_DEFAULT_CAPACITY = 256;

// Moves the text into a zero-filled block of the new capacity.
static int string_grow(upnp_string* s, int64_t capacity)
{
    if (capacity > STRING_MAX_CAPACITY)
        return 0;
    char* text = static_cast<char*>(calloc(size_t(capacity), 1));
    if (!text)
        return 0;
    if (s->text)
        memcpy(text, s->text, size_t(s->length));
    free(s->text);
    s->text = text;
    s->capacity = int32_t(capacity);
    return 1;
}

// Makes room for `need` more bytes behind the text (terminator excluded),
// doubling where that is more than the exact fit.
static int string_reserve(upnp_string* s, int64_t need)
{
    int64_t wanted = int64_t(s->length) + need + 1;
    if (wanted <= s->capacity)
        return 1;
    int64_t doubled = int64_t(s->capacity) * 2;
    if (doubled > STRING_MAX_CAPACITY && wanted <= STRING_MAX_CAPACITY)
        doubled = STRING_MAX_CAPACITY;
    return string_grow(s, doubled > wanted ? doubled : wanted);
}

static void string_put(upnp_string* s, const void* data, size_t count)
{
    memcpy(s->text + s->length, data, count);
    s->length += int32_t(count);
    s->text[s->length] = 0;
}

upnp_string* upnp_string_new(const char* text, int32_t capacity)
{
    upnp_string* s = static_cast<upnp_string*>(calloc(1, sizeof(upnp_string)));
    if (!s)
        return nullptr;
    if (!string_grow(s, capacity > 0 ? capacity : 1)) {
        free(s);
        return nullptr;
    }
    return upnp_string_append(s, text);
}

upnp_string* upnp_string_append(upnp_string* s, const char* text)
{
    if (!s)
        return upnp_string_new(text, STRING_DEFAULT_CAPACITY);
    if (!text)
        return s;
    size_t n = strlen(text);
    if (n >= size_t(STRING_MAX_CAPACITY) || !string_reserve(s, int64_t(n)))
        return s;
    string_put(s, text, n);
    return s;
}

upnp_string* upnp_string_append_bytes(upnp_string* s, const void* data, int32_t count)
{
    if (!s && !(s = upnp_string_new(nullptr, STRING_DEFAULT_CAPACITY)))
        return nullptr;
    if (count <= 0 || !data)
        return s;
    if (!string_reserve(s, count))
        return s;
    string_put(s, data, size_t(count));
    return s;
}

upnp_string* upnp_string_append_checked(upnp_string* s, const char* text, uint8_t as_utf8)
{
    if (!text)
        return s ? s : upnp_string_new(nullptr, STRING_DEFAULT_CAPACITY);
    char* clean = as_utf8 ? upnp_string_clean_utf8(text) : upnp_string_to_latin1(text);
    if (!s)
        s = upnp_string_new(nullptr, STRING_DEFAULT_CAPACITY);
    if (!clean || !s) {
        free(clean);
        return s;
    }
    // Room is reserved for twice the text, as if it still had to be
    // converted here; only the converted bytes are stored.
    size_t n = strlen(clean);
    if (n < size_t(STRING_MAX_CAPACITY) / 2 && string_reserve(s, int64_t(n) * 2))
        string_put(s, clean, n);
    free(clean);
    return s;
}

upnp_string* upnp_string_appendf(upnp_string* s, const char* format, ...)
{
    if (!s && !(s = upnp_string_new(nullptr, STRING_DEFAULT_CAPACITY)))
        return nullptr;
    if (!format)
        return s;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int n = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (n > 0 && string_reserve(s, n)) {
        vsnprintf(s->text + s->length, size_t(n) + 1, format, again);
        s->length += n;
    }
    va_end(again);
    return s;
}

void upnp_string_empty(upnp_string* s)
{
    if (!s || !s->text)
        return;
    s->length = 0;
    s->text[0] = 0;
}

void upnp_string_free(upnp_string* s)
{
    if (!s)
        return;
    free(s->text);
    free(s);
}

char* upnp_copy_bytes(const void* bytes, size_t n)
{
    char* text = static_cast<char*>(malloc(n + 1));
    if (text) {
        memcpy(text, bytes, n);
        text[n] = 0;
    }
    return text;
}
