// db_record.cpp: record text in both directions, the submit road into the
// store, and imports of items. Owns no globals and no lock: the writer runs
// under the caller's db_lock, the parser on bytes it is given.
//
// Order of work: every text is walked by one field cursor that stays inside
// [text, text + length); a field whose value would run past the end reads
// as empty and ends the walk. The writer formats each field whole in its
// 1024-byte buffer and refuses a record with a field that doesn't fit, so
// no length field ever lies. Imports stream the file through a small buffer
// and collect at most DB_FILE_RECORD_MAX bytes per record.
#include "database/db_record.h"

#include "database/db_object.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_string.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr uint32_t RECORD_FIELD_HEAD = 5;
static constexpr uint32_t RECORD_KEY_LIMIT = 255;          // keys from here on are dropped
static constexpr uint32_t RECORD_IMPORT_VALUE_MAX = 2041;
static constexpr uint32_t RECORD_IMPORT_BUFFER = 64 * 1024;

static constexpr char RECORD_TRANSIT_HEAD[] = ">>>>\n";

// ---------------------------------------------------------------- reading

struct record_cursor {
    const char* p;
    const char* end;
};

// A digit that isn't hexadecimal counts as 0, as it always has.
static uint32_t record_hex(const char* p, int digits)
{
    uint32_t v = 0;
    for (int i = 0; i < digits; i++)
        v = v << 4 | uint32_t(upnp_hex_digit0(uint8_t(p[i])));
    return v;
}

// The transit head is recognised by its first byte alone.
static record_cursor record_start(const char* text, int32_t length)
{
    record_cursor c = {text, text ? text + (length > 0 ? length : 0) : text};
    if (c.p < c.end && *c.p == '>')
        c.p += c.end - c.p < 5 ? c.end - c.p : 5;
    return c;
}

// The next field; 0 when fewer than a field head's bytes are left.
static int record_next(record_cursor* c, uint32_t* key, const char** value, uint32_t* size)
{
    if (c->end - c->p < RECORD_FIELD_HEAD)
        return 0;
    *key = record_hex(c->p, 2);
    uint32_t n = record_hex(c->p + 2, 3);
    const char* v = c->p + RECORD_FIELD_HEAD;
    size_t left = size_t(c->end - v);
    *value = v;
    *size = n > left ? 0 : n;
    c->p = n + 1 > left ? c->end : v + n + 1;
    return 1;
}

// Decimal digits at the start of the value, as atoi reads the type; a
// number past the range reads as the largest.
static int32_t record_number(const char* v, uint32_t n)
{
    size_t digits = upnp_digit_run(v, n);
    uint64_t x = 0;
    if (digits && !upnp_parse_u64(v, digits, &x))
        x = INT32_MAX;
    return x > INT32_MAX ? INT32_MAX : int32_t(x);
}

static int record_add(db_meta_list** list, uint32_t key, const char* value, uint32_t size)
{
    char copy[0x1000];              // three hexadecimal digits of length and a NUL
    memcpy(copy, value, size);
    copy[size] = 0;
    *list = db_meta_list_add(*list, int32_t(key), copy, 0);
    return *list != nullptr;
}

// The path's part behind its last ".", owned, since a record may name its
// path twice and the first copy is gone by the end.
static int record_add_path(db_meta_list** list, char** path, const char* value, uint32_t size)
{
    free(*path);
    *path = strndup(value, size);
    if (!*path)
        return 0;
    const char* dot = strrchr(*path, '.');
    if (!dot)
        return 1;
    *list = db_meta_list_add(*list, DBK_EXTENSION, dot + 1, 0);
    return *list != nullptr;
}

int upnp_cds_db_main_db_parse(const char* text, int32_t length, db_meta_list** list, char** path, int32_t* type)
{
    *list = nullptr;
    *path = nullptr;
    *type = DB_RECORD_NO_TYPE;
    record_cursor c = record_start(text, length);
    uint32_t key, size;
    const char* value;
    int ok = 1;
    while (ok && record_next(&c, &key, &value, &size)) {
        if (key >= RECORD_KEY_LIMIT)
            continue;
        if (key == DBK_PATH)
            ok = record_add_path(list, path, value, size);
        else if (key == DBK_TYPE)
            *type = record_number(value, size);
        else
            ok = record_add(list, key, value, size);
    }
    if (ok)
        return 1;
    db_meta_list_free(*list);
    free(*path);
    *list = nullptr;
    *path = nullptr;
    return 0;
}

char* db_record_path_and_type(const char* text, int32_t length, int32_t* type)
{
    record_cursor c = record_start(text, length);
    uint32_t key, size;
    const char* value;
    const char* path = nullptr;
    uint32_t path_size = 0;
    int32_t found_type = DB_RECORD_NO_TYPE;
    while (record_next(&c, &key, &value, &size)) {
        if (key == DBK_PATH) {
            path = value;
            path_size = size;
        } else if (key == DBK_TYPE) {
            found_type = record_number(value, size);
        }
    }
    char* copy = path ? strndup(path, path_size) : nullptr;
    if (copy && type)
        *type = found_type;
    return copy;
}

// ---------------------------------------------------------------- writing

static int record_put(upnp_string** s, uint32_t key, const char* value, size_t length)
{
    if (key > 0xFF || length > DB_RECORD_VALUE_MAX)
        return 0;
    char field[DB_RECORD_FIELD_BUFFER];
    int n = snprintf(field, sizeof field, "%02X%03X", unsigned(key), unsigned(length));
    memcpy(field + n, value, length);
    field[n + length] = '\n';
    int32_t before = (*s)->length;
    *s = upnp_string_append_bytes(*s, field, int32_t(n + length + 1));
    return (*s)->length == before + int32_t(n + length + 1);
}

static int record_put_text(upnp_string** s, uint32_t key, const char* text)
{
    return record_put(s, key, text, strlen(text));
}

// Durations travel as H:MM:SS with a three-digit fraction.
static int record_put_duration(upnp_string** s, int32_t ms)
{
    if (ms < 0)
        return 1;
    char text[32];
    snprintf(text, sizeof text, "%d:%02d:%02d.%03d", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
    return record_put_text(s, DBK_DURATION, text);
}

static int record_put_int(upnp_string** s, uint32_t key, int32_t number)
{
    if (key == DBK_DURATION)
        return record_put_duration(s, number);
    char text[16];
    snprintf(text, sizeof text, "%d", number);
    return record_put_text(s, key == DBK_SIZE ? uint32_t(DBK_SIZE_TEXT) : key, text);
}

static int record_put_slot(upnp_string** s, const db_object* o, int32_t index)
{
    uint16_t key = 0;
    const char* text = nullptr;
    int32_t number = 0;
    if (!db_object_meta_at(o, index, &key, &text, &number))
        return 1;
    switch (db_meta_key_class(key)) {
    case DB_CLASS_TEXT:
        return !text || record_put_text(s, key, text);
    case DB_CLASS_INT:
        return number == 0 || record_put_int(s, key, number);
    case DB_CLASS_CHAR: {
        char c = char(number);
        return record_put(s, key, &c, 1);
    }
    default:
        return 1;
    }
}

upnp_string* db_object_to_record(const db_object* o, const char* path)
{
    upnp_string* s = o ? upnp_string_new(nullptr, 512) : nullptr;
    if (!s)
        return nullptr;
    char type[16];
    snprintf(type, sizeof type, "%02d", db_object_type_of(o));
    int ok = record_put_text(&s, DBK_TYPE, type);
    if (ok && path)
        ok = record_put_text(&s, DBK_PATH, path);
    // The title itself, not the "Unknown" that readers get for none.
    const char* title = static_cast<const char*>(db_object_get_ptr(o, DBK_TARGET));
    if (ok && title)
        ok = record_put_text(&s, DBK_TITLE, title);
    int32_t track = db_object_get_int(o, DBK_TRACK);
    if (ok && track > 0)
        ok = record_put_int(&s, DBK_TRACK, track);
    for (int32_t i = 0, n = db_object_meta_count(o); ok && i < n; i++)
        ok = record_put_slot(&s, o, i);
    if (ok)
        return s;
    upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "record of %s not written: a value is too long\n", path ? path : "?");
    upnp_string_free(s);
    return nullptr;
}

// ---------------------------------------------------------------- submitting

int db_record_submit_text(const char* text, int32_t length)
{
    db_meta_list* list;
    char* path;
    int32_t type;
    if (!upnp_cds_db_main_db_parse(text, length, &list, &path, &type))
        return 0;
    record_cursor raw = record_start(text, length);
    db_object* o = list ? db_object_add(list, path, type, 0, raw.p, int32_t(raw.end - raw.p)) : nullptr;
    db_meta_list_free(list);
    free(path);
    return o != nullptr;
}

static int record_list_fits(const db_meta_list* list)
{
    const char* path = nullptr;
    int fits = 1;
    for (const db_meta_list* n = list; n; n = n->next) {
        if (n->key == DBK_PATH)
            path = n->value;
        if (n->value && *n->value && (n->key > 0xFF || strlen(n->value) > DB_RECORD_VALUE_MAX))
            fits = 0;
    }
    if (!fits)
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "%s not stored: a value is too long for its record\n",
                 path ? path : "item");
    return fits;
}

int db_scan_submit(const db_meta_list* list)
{
    if (!list || !record_list_fits(list))
        return 0;
    upnp_string* text = db_meta_list_to_text(list);
    if (!text)
        return 0;
    int ok = db_record_submit_text(text->text, text->length);
    upnp_string_free(text);
    return ok;
}

// ---------------------------------------------------------------- imports of items

// Bytes from memory, or from a file through a buffer of its own.
struct record_reader {
    upnp_file* file;
    uint8_t* buffer;
    const uint8_t* data;
    size_t size;
    size_t at;
};

static int record_fill(record_reader* r)
{
    if (!r->file)
        return 0;
    int64_t n = upnp_file_read(r->file, r->buffer, RECORD_IMPORT_BUFFER);
    if (n <= 0)
        return 0;
    r->data = r->buffer;
    r->size = size_t(n);
    r->at = 0;
    return 1;
}

static size_t record_read(record_reader* r, char* out, size_t count)
{
    size_t got = 0;
    while (got < count) {
        if (r->at == r->size && !record_fill(r))
            break;
        size_t take = count - got < r->size - r->at ? count - got : r->size - r->at;
        memcpy(out + got, r->data + r->at, take);
        r->at += take;
        got += take;
    }
    return got;
}

struct record_import {
    upnp_string* record;
    int dropping;                // the record outgrew its limit: skip to the next ">>>>"
    uint32_t handed;
    db_file_record_sink sink;
    void* context;
};

static void record_hand_over(record_import* im)
{
    if (im->record && im->record->length > 0 && !im->dropping) {
        if (im->sink)
            im->sink(0, im->record->text, im->record->length, im->context);
        else
            db_record_submit_text(im->record->text, im->record->length);
        im->handed++;
    }
    if (im->record)
        upnp_string_empty(im->record);
    im->dropping = 0;
}

static void record_collect(record_import* im, const char* head, const char* value, uint32_t size)
{
    int32_t have = im->record ? im->record->length : 0;
    if (im->dropping)
        return;
    if (uint64_t(have) + RECORD_FIELD_HEAD + size + 1 > DB_FILE_RECORD_MAX) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "imported record too long, skipped\n");
        im->dropping = 1;
        return;
    }
    im->record = upnp_string_append_bytes(im->record, head, RECORD_FIELD_HEAD);
    im->record = upnp_string_append_bytes(im->record, value, int32_t(size + 1));
    if (!im->record || im->record->length != have + int32_t(RECORD_FIELD_HEAD + size + 1))
        im->dropping = 1;
}

// 1 at the end of the input, 0 when the run flag stopped it.
static int record_import_run(record_reader* r, record_import* im, db_file_run_flag running)
{
    char head[RECORD_FIELD_HEAD];
    char value[RECORD_IMPORT_VALUE_MAX + 1];
    while (record_read(r, head, sizeof head) == sizeof head) {
        uint32_t size = record_hex(head + 2, 3);
        if (head[0] == '#') {
            if (size > RECORD_IMPORT_VALUE_MAX || record_read(r, value, size + 1) != size + 1)
                break;
            continue;
        }
        if (memcmp(head, RECORD_TRANSIT_HEAD, sizeof head) == 0) {
            record_hand_over(im);
            if (running && !running())
                return 0;
            continue;
        }
        if (size > RECORD_IMPORT_VALUE_MAX || record_read(r, value, size + 1) != size + 1)
            break;
        record_collect(im, head, value, size);
    }
    record_hand_over(im);
    return 1;
}

uint32_t db_import_items_parse(const void* bytes, size_t size, db_file_record_sink sink, void* context)
{
    record_reader r = {nullptr, nullptr, static_cast<const uint8_t*>(bytes), bytes ? size : 0, 0};
    record_import im = {nullptr, 0, 0, sink, context};
    record_import_run(&r, &im, nullptr);
    upnp_string_free(im.record);
    return im.handed;
}

int db_import_items_file(const char* path, db_file_run_flag running)
{
    record_reader r = {upnp_file_open_read(path), nullptr, nullptr, 0, 0};
    r.buffer = r.file ? static_cast<uint8_t*>(malloc(RECORD_IMPORT_BUFFER)) : nullptr;
    if (!r.buffer) {
        upnp_file_close(r.file);
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "cannot read import file %s\n", path ? path : "");
        return -1;
    }
    record_import im = {nullptr, 0, 0, nullptr, nullptr};
    int done = record_import_run(&r, &im, running);
    upnp_string_free(im.record);
    free(r.buffer);
    upnp_file_close(r.file);
    return done;
}
