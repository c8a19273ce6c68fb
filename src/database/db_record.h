// db_record.h: an item's record as text, in both directions, and the one
// road by which every source of items reaches the store.
//
// A record is a run of fields "%02X%03X%s\n": two hexadecimal digits of the
// key, three of the value's length, the value, a line end. The stored text
// has no prefix; the transit text between a format reader and the store
// begins with ">>>>\n". Key 60 holds the path and key 3 the type; the other
// keys are those of db_meta_key.
//
// Format readers, import files and the loader all go through the same
// parser, so an item that comes back after a restart is read exactly as it
// was read when it was first found.
#pragma once
#include "database/db_file.h"

#include <cstddef>
#include <cstdint>

struct db_meta_list;
struct db_object;
struct upnp_string;

// Longest value a field can carry: a field is formatted whole in a 1024-byte
// buffer, and one that would not fit is refused rather than cut (a cut value
// under its true length would swallow the fields behind it).
inline constexpr uint32_t DB_RECORD_FIELD_BUFFER = 1024;
inline constexpr uint32_t DB_RECORD_VALUE_MAX = DB_RECORD_FIELD_BUFFER - 7;
// The type a record without key 3 gets; db_object_add refuses it.
inline constexpr int32_t DB_RECORD_NO_TYPE = 24;

// The parse core. Fills *list (owned values; key 60 also adds the path's
// part behind its last "." as DBK_EXTENSION), *path (a new text, null
// without key 60) and *type (DB_RECORD_NO_TYPE without key 3). Keys 255 and
// above are dropped. Reads
// nothing outside text[0, length). 1, or 0 when memory ran out (the
// results are then freed and null).
int upnp_cds_db_main_db_parse(const char* text, int32_t length, db_meta_list** list, char** path, int32_t* type);
// The path of a record as a new text (null without one) and, with a path,
// its type, as the parser would give them, without copying the rest.
char* db_record_path_and_type(const char* text, int32_t length, int32_t* type);

// The record of an item (type, path, title, track, then each slot in order)
// as a new text the caller frees; null when a field would not fit its
// buffer or memory ran out. Called under db_lock.
upnp_string* db_object_to_record(const db_object* o, const char* path);

// The entry for all format readers: the list goes to text, the text through
// the parser into the store. The caller keeps and frees list. 1 when the
// store took the item; 0 when it refused it, or when a value is too long to
// be written whole.
int db_scan_submit(const db_meta_list* list);
// The part of db_scan_submit from the parse on, for a record text with or
// without its ">>>>\n" head.
int db_record_submit_text(const char* text, int32_t length);

// An import of items, from memory: records separated by ">>>>\n" lines;
// "#" lines are comments, written as "#" and any byte, three hexadecimal
// digits of the text's length, the text and one line-end byte. Each record
// goes to sink with block 0 (null: db_record_submit_text). The number of
// records handed over.
uint32_t db_import_items_parse(const void* bytes, size_t size, db_file_record_sink sink, void* context);
// The same from a file. 1 when read to its end (errors in it included), 0
// when the run flag stopped it, -1 when it could not be opened.
int db_import_items_file(const char* path, db_file_run_flag running);
