// upnp_string.h: the runtime's chief header. Growing text, the encodings the
// server meets (UTF-8 inside; UTF-16 in ini and string files; Latin-1 and
// Shift-JIS in old tags), comparisons and folding for sort orders, small
// number and time formats, Base64, titles, the device UDN, HTTP dates and
// resource files.
//
// All text is NUL-terminated UTF-8. UTF-16 text is an array of uint16_t
// ended by a 0 unit. Every function that returns text returns a block from
// malloc that the caller frees with free(), unless it says otherwise. Null
// text is accepted everywhere.
#pragma once
#include <cstddef>
#include <cstdint>

// A growing text: s = upnp_string_append(s, "..."), starting from null.
// Invariant: length <= capacity - 1 and text[length] == 0.
struct upnp_string {
    int32_t length;
    int32_t capacity;
    char* text;
};

upnp_string* upnp_string_new(const char* text, int32_t capacity);
upnp_string* upnp_string_append(upnp_string* s, const char* text);
upnp_string* upnp_string_append_bytes(upnp_string* s, const void* data, int32_t count);
upnp_string* upnp_string_append_checked(upnp_string* s, const char* text, uint8_t as_utf8);
// Appends printf-style text; a result that would pass 2 GiB is dropped.
upnp_string* upnp_string_appendf(upnp_string* s, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void upnp_string_empty(upnp_string* s);
void upnp_string_free(upnp_string* s);

// Encodings. Invalid UTF-8 and unpaired surrogates become U+FFFD.
// The *_to_wide / wide_to_* forms measure with a null out (units or bytes
// needed, terminator included), and with a buffer write at most out_size
// units (bytes for UTF-8 output): twice the count for the wide forms, the
// count for UTF-8 output, or 0 when the buffer was too small (it then holds
// a terminated prefix of whole characters); -1 for a null text.
uint16_t* upnp_string_utf8_to_utf16(const char* text);
char* upnp_string_utf16_to_utf8(const uint16_t* wide);
// The same on counted input (no terminator needed; stops at n units/bytes
// or at a 0, whichever comes first).
uint16_t* upnp_string_utf8_to_utf16_n(const char* text, size_t n);
char* upnp_string_utf16_to_utf8_n(const uint16_t* wide, size_t n);
int32_t upnp_string_acp_to_wide(const char* text, uint16_t* out, int32_t out_size);
int32_t upnp_string_utf8_to_wide(const char* text, uint16_t* out, int32_t out_size);
int32_t upnp_string_wide_to_utf8(const uint16_t* wide, char* out, int32_t out_size);
char* upnp_string_sjis_to_utf8(const char* text);
char* upnp_string_latin1_to_utf8(const char* text);
char* upnp_string_clean_utf8(const char* text);
// 1 when text is strict UTF-8 (no overlong forms, surrogates or values past
// U+10FFFF), so that it can stand in XML as it is.
int upnp_string_utf8_valid(const char* text);
char* upnp_string_to_latin1(const char* text);

// Text tests and comparisons.
const char* upnp_stristr(const char* text, const char* needle);
int upnp_string_is_multibyte(const char* text);
int upnp_fold_char(int first, int next);
int upnp_strcmp_folded(const char* a, const char* b);

// Numbers.
int64_t upnp_atoi64(const char* text);
int32_t upnp_i64_to_string(int64_t value, char* buffer, int32_t size);
uint32_t upnp_atou(const char* text);
int32_t upnp_wcslen(const uint16_t* wide);
int upnp_hex_digit(int ch);
int upnp_hex_digit0(int ch);
int64_t upnp_hex_to_i64(const char* text, int digits);
int64_t upnp_hex8_to_i64(const char* text);
// The one reader of numbers from a request, a datagram or a file. Both read
// exactly length bytes as a whole decimal field: at least one digit and
// nothing else, no blanks. The unsigned form takes no sign; the signed form
// takes one '+' or '-' before the digits. A value outside the type fails.
// 1 and *out set, else 0 and *out untouched. Narrower ranges are the
// caller's check.
int upnp_parse_u64(const char* text, size_t length, uint64_t* out);
int upnp_parse_i64(const char* text, size_t length, int64_t* out);
// How many decimal digits text starts with, looking at most limit bytes; a
// NUL ends the run like any other byte, so a terminated text may pass
// SIZE_MAX. A caller that reads a number followed by other text measures the
// field with this and parses exactly that.
size_t upnp_digit_run(const char* text, size_t limit);
// The field atoi would read from a terminated text: blanks skipped, then one
// optional sign and the digit run. *start is set to the sign or the first
// digit; the result is the field's length, 0 when no digit follows. For the
// readers that must stay as lenient as they always were.
size_t upnp_atoi_field(const char* text, const char** start);
// That field's value: 0 for none, and a value past the range saturates at
// its end instead of wrapping. The second form clamps to 32 bits.
int64_t upnp_parse_lenient(const char* text);
int32_t upnp_parse_lenient_i32(const char* text);

// Durations as the res element writes them: "H:MM:SS" or "H:MM:SS.mmm".
char* upnp_time_from_ms(int64_t ms);
int64_t upnp_time_to_ms(const char* text);

char* upnp_base64_encode(const char* text);

// A new text of the n bytes and a terminator; null when out of memory.
char* upnp_copy_bytes(const void* bytes, size_t n);

// Titles.
char* upnp_title_adapt(char* text, int enable);
char* upnp_title_from_path(const char* path);

// Files of the program: resources, temp names, the executable's folder.
// The folder resources are read under; set at start, before any reader.
void upnp_set_program_dir(const char* dir);
int upnp_read_resource(const char* name, int32_t* size, void** data);
char* upnp_temp_file_name(const char* dbdir);   // a new name under dbdir/temp
char* upnp_module_dir();

// Device identity. The hardware address is cached until upnp_get_mac_reset.
void upnp_get_mac(uint8_t out[6]);
void upnp_get_mac_reset();
// A static buffer, rebuilt at each call from the hardware address and the
// friendly name (which tells two servers on one machine apart).
const char* upnp_get_udn(const char* friendly_name);

// Dates. Both write at most size bytes, terminator included.
void upnp_http_date(char* buffer, size_t size);
void upnp_timestamp(char* buffer, size_t size);
void upnp_date_ymd(int64_t time, char* buffer, size_t size);
