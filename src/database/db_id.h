// db_id.h: how objects are named and ordered. The 32-bit id word and the id
// text that clients see ("$"-joined words from below the root), lookups by
// id text, by id word and by file path, the operations on children lists,
// and the comparisons by which Browse and Search sort. All of it runs under
// db_lock; the sort state is global and relies on it. Included by
// db_object.h.
#pragma once
#include <cstdint>

struct db_object;
struct HTTP_request;

// ---- Id words -------------------------------------------------------------

uint32_t db_next_id(int32_t type);                   // per-type counter, raised first
uint32_t db_make_id(uint32_t block, int32_t type);   // (block + upnp_switches.oid_seed) cut to 27 bits
uint32_t db_id_to_block(uint32_t id);                // sequence - upnp_switches.oid_seed

inline constexpr int32_t DB_ID_TEXT_SIZE = 256;
// "-1" for null, "0" for the root, else the words up from the object,
// outermost first, joined by "$". Cut to size (the result stays terminated).
char* db_object_id_text(const db_object* o, char* buffer, int32_t size);

// ---- Lookups --------------------------------------------------------------

// By id text, aliases ("0\Music\" and the like) included. "0" is the music
// root for a client with the flag AV:M. Null when any step fails.
db_object* db_get_item_by_id(const char* text, const HTTP_request* request);
// By id word: searched below the "All" container of the word's type, else
// below the root. Null when absent.
db_object* db_get_pItem_by_id(uint32_t id);
// What a stream needs: the file of the item with that id text (a reference
// stands for its target) as a new copy the caller frees, null for anything
// but a media item; *duration in milliseconds, -1 for a transport stream of
// unknown end. Streaming a track counts as a play: the count and time are
// raised, the played lists follow and the record is rewritten.
char* db_get_res_by_id(const char* text, const HTTP_request* request, int32_t* duration);
// The cover of the object with that id text: the file holding it (a new
// copy, or null), the offset and the length. A folder stands for its first
// track that has a cover. A negative offset or length means none.
char* db_get_album_art(const char* text, const HTTP_request* request, int64_t* offset, int64_t* length);
// How a cover that stands beside the file rather than inside it is found
// when it is served: the media floor hands its resolver down at start.
// Without one, the stored pair is answered as it is.
typedef void (*db_art_resolver)(char** path, int64_t* offset, int64_t* length);
void db_set_art_resolver(db_art_resolver resolver);
// DBK_DLNA_MANAGED of the object with that id text, -1 if none.
int32_t db_get_dlna_managed(const char* text);
// Empties DBK_MIME_OVERRIDE of the object with that id text.
void db_clear_import_uri(const char* text);

// ---- Path index -------------------------------------------------------------

// The folded hash of a path: its first 256 bytes, "A"-"Z" lowered, summed as
// 64 little-endian 32-bit words.
uint32_t db_path_hash(const char* path);
// Notes that the record in block holds path. Entries are never removed;
// every hit is proved against the record (db_record_store's read), so stale
// ones are harmless.
void db_path_index_add(uint32_t block, const char* path);
void db_path_index_free();                           // when the database files close
int32_t db_path_index_count();
int64_t db_path_index_bytes();      // memory of the index, beside the records and the pool
// The id word of the item whose record holds exactly this path, through
// the index; 0 for none.
uint32_t upnp_cds_db_file_get_id_by_res(const char* path);

// ---- Lists ----------------------------------------------------------------

db_object* db_container_child(const db_object* c, int32_t index);   // null outside 0..count-1
int32_t db_container_child_count(const db_object* c);               // 0 for a non-container
// 1 when the child at index is a reference, answered from the array alone:
// walks for folders and items pass references without reading them.
int db_container_child_is_ref(const db_object* c, int32_t index);
db_object* db_container_find(const db_object* c, uint32_t id);
int db_container_has(const db_object* c, const db_object* child);    // that very pointer
// The first child container with exactly that title (one without a title
// reads "Unknown"), through an index rather than a walk of the children.
db_object* db_container_find_title(const db_object* c, const char* title);
void db_container_clear_items(db_object* c);
// Copies up to max child pointers into out; the number copied.
int32_t db_container_children(const db_object* c, db_object** out, int32_t max);

// ---- Sorting ----------------------------------------------------------------

// Sets the sort state for the next sorts: the criteria (null or empty for
// the default of the container type), the shuffle and no-UTF-8 flags.
void db_sort_prepare(const char* criteria, int32_t container_type, const HTTP_request* request);
// qsort comparator on two pointers to db_object pointers, by the prepared state.
int db_sort_compare(const void* a, const void* b);
// Sorts an array of object pointers by the prepared state. Use this rather
// than qsort: the shuffle's comparator is not consistent.
void db_sort_objects(db_object** objects, int32_t count);
// Sorts the container's own children by the prepared state and marks it sorted.
void db_container_sort(db_object* c);

int db_fold_char(int first, int next);
int db_compare_text(const char* a, const char* b);
int db_compare_title(const db_object* a, const db_object* b);
int db_compare_artist(const db_object* a, const db_object* b);
int db_compare_album(const db_object* a, const db_object* b);
int db_compare_genre(const db_object* a, const db_object* b);
int db_compare_date(const db_object* a, const db_object* b);
int db_compare_track(const db_object* a, const db_object* b);
int db_compare_rating(const db_object* a, const db_object* b);
