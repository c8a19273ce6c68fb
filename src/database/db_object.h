// db_object.h: the database subsystem's chief header: the content tree.
//
// One tree of compact records lives in memory, rooted in db_root, with every
// text interned in one string pool. An item keeps only (key, value) slots;
// its file path stays in its record in the database file, and its id word
// is that record's first block (db_id.h), so object and record find each
// other without a table.
//
// Records are packed to their real sizes, also on 64-bit: every link inside
// a record (parent, target, children array, slot array, pooled text) is a
// 32-bit handle into the store's own arenas, never a pointer. Objects never
// move once made, so a db_object* stays valid until the object is freed.
// Code outside the store reads records through the accessors below.
//
// Locking: db_lock() is one recursive lock over the tree, the pool, the
// named slots, the path index and the sort state. Every entry point that
// touches the tree takes it; a reader holds it for the whole of a request's
// rendering, and never while it waits on a socket. The file lock of the
// database files is inner to it.
#pragma once
#include <cstdint>

struct upnp_string;
struct HTTP_request;

// ---- Types --------------------------------------------------------------

// The top 5 bits of an id word. Below 12 a container, 12 to 20 an item
// (23, a shadow, answers the accessors like an item), 21 and 22 references.
enum db_object_type : int32_t {
    DB_OBJ_CONTAINER = 0,
    DB_OBJ_PLAYLIST_CONTAINER = 1,
    DB_OBJ_MUSIC_CONTAINER = 2,
    DB_OBJ_PICTURE_CONTAINER = 3,
    DB_OBJ_VIDEO_CONTAINER = 4,
    DB_OBJ_DOCUMENT_CONTAINER = 5,
    DB_OBJ_MUSIC_ALBUM = 6,
    DB_OBJ_PHOTO_ALBUM = 7,
    DB_OBJ_MUSIC_ARTIST = 8,
    DB_OBJ_MUSIC_GENRE = 9,
    DB_OBJ_STORAGE_ROOT = 10,
    DB_OBJ_STORAGE_FOLDER = 11,
    DB_OBJ_ITEM = 12,
    DB_OBJ_PHOTO = 13,
    DB_OBJ_AUDIO = 14,
    DB_OBJ_AUDIO_BROADCAST = 15,
    DB_OBJ_VIDEO = 16,
    DB_OBJ_DOCUMENT = 17,
    DB_OBJ_VIDEO_MOVIE = 18,
    DB_OBJ_VIDEO_BROADCAST = 19,
    DB_OBJ_AUDIO_STREAM = 20,
    DB_OBJ_REF_TRACK = 21,
    DB_OBJ_REF = 22,
    DB_OBJ_SHADOW = 23,
    DB_OBJ_TYPE_COUNT = 24,
};

inline constexpr uint32_t DB_ID_TYPE_SHIFT = 27;
inline constexpr uint32_t DB_ID_SEQ_MASK = 0x07FFFFFFu;

inline bool db_type_is_container(int32_t t) { return t >= 0 && t < 12; }
inline bool db_type_is_item(int32_t t) { return t >= 12 && t <= 20; }
inline bool db_type_is_ref(int32_t t) { return t == DB_OBJ_REF_TRACK || t == DB_OBJ_REF; }

// Metadata keys: slots in an item, fields of a database record and nodes of
// a db_meta_list, all at once.
enum db_meta_key : uint16_t {
    DBK_OBJECT_ID = 1,
    DBK_PARENT_ID = 2,
    DBK_TYPE = 3,
    DBK_TARGET = 4,
    DBK_TARGET_ID = 5,
    DBK_RESTRICTED = 6,
    DBK_CHILD_COUNT = 7,
    DBK_EVENT_PENDING = 9,
    DBK_UPDATE_ID = 10,
    DBK_SORTED = 11,
    DBK_EXTENSION = 12,
    DBK_SIZE = 13,
    DBK_TITLE = 20,
    DBK_CREATOR = 21,
    DBK_ARTIST = 22,
    DBK_COMPOSER = 24,
    DBK_GENRE = 25,
    DBK_ALBUM = 26,
    DBK_ALBUM_ARTIST = 27,
    DBK_DESCRIPTION = 28,
    DBK_TRACK = 30,
    DBK_PLAY_COUNT = 31,
    DBK_RATING = 32,
    DBK_DATE = 33,
    DBK_MTIME = 34,
    DBK_LAST_PLAYED = 35,
    DBK_ART_OFFSET = 36,
    DBK_ART_SIZE = 37,
    DBK_ART_RESOLUTION = 38,
    DBK_KEYWORDS = 39,
    DBK_IMAGE_VALUE = 40,
    DBK_TAGS = 41,
    DBK_COMPILATION = 42,
    DBK_PATH = 60,
    DBK_SIZE_TEXT = 61,
    DBK_DURATION = 62,
    DBK_BITRATE = 63,
    DBK_SAMPLE_RATE = 64,
    DBK_BITS_PER_SAMPLE = 65,
    DBK_CHANNELS = 66,
    DBK_RESOLUTION = 67,
    DBK_SOURCE_KIND = 69,
    DBK_MIME_OVERRIDE = 70,
    DBK_SUBTITLES = 71,
    DBK_DLNA_PROFILE = 82,
    DBK_DLNA_MANAGED = 83,
    DBK_KEY_COUNT = 84,             // one past the last key: the length of tables by key
};

// How a key is stored in a slot and printed in a record. Keys of class
// none are ignored by db_object_apply_meta and skipped by the writer.
enum db_meta_class : int32_t { DB_CLASS_NONE = 0, DB_CLASS_TEXT = 1, DB_CLASS_INT = 2, DB_CLASS_CHAR = 3 };
db_meta_class db_meta_key_class(int32_t key);

// Bits of a container's state word.
enum : uint32_t {
    DB_STATE_UPDATE_ID = 0x07FFFFFFu,
    DB_STATE_RESTRICTED = 1u << 27,
    DB_STATE_EVENT_PENDING = 1u << 28,
    DB_STATE_SORTED = 1u << 29,
    DB_STATE_REMOVALS_NOTED = 1u << 30,   // the children array has removals to close
};

// ---- Records ------------------------------------------------------------

// Packed to 2 so that each shape is exactly the size the account counts.
// The handle fields are the store's business; use the accessors.
#pragma pack(push, 2)
struct db_object {              // the head every shape begins with
    uint32_t id;                // type << 27 | sequence
    uint32_t parent;            // handle of the containing object, 0 for none
};
struct db_container {           // types 0 to 11: 24 bytes, plus 4 per children slot
    db_object head;
    uint32_t title;             // pooled text handle, 0 for none
    int32_t child_count;
    uint32_t state;             // DB_STATE_* bits
    uint32_t children;          // handle of the array of child handles
};
struct db_item {                // types 12 to 20 and 23: 20 bytes, plus 6 per slot
    db_object head;
    uint32_t title;
    uint32_t meta;              // handle of the db_meta_entry array, 0 until the first slot
    int16_t meta_count;
    int16_t track;              // DBK_TRACK
};
struct db_ref_track {           // type 21: 14 bytes
    db_object head;
    uint32_t target;            // handle of the item it stands for, not owned
    int16_t number;             // DBK_TRACK: the position the list sorts by
};
struct db_ref {                 // type 22: 12 bytes
    db_object head;
    uint32_t target;
};
struct db_meta_entry {          // 6 bytes
    uint16_t key;
    uint32_t value;             // pooled text handle, integer, or character in the low byte
};
#pragma pack(pop)

static_assert(sizeof(db_container) == 24 && sizeof(db_item) == 20 && sizeof(db_ref_track) == 14 &&
              sizeof(db_ref) == 12 && sizeof(db_meta_entry) == 6, "record sizes are the design");

inline int32_t db_object_type_of(const db_object* o) { return int32_t(o->id >> DB_ID_TYPE_SHIFT); }
inline uint32_t db_object_seq(const db_object* o) { return o->id & DB_ID_SEQ_MASK; }

// What a metadata parser produces: a singly linked list, newest first.
struct db_meta_list {
    uint16_t key;
    int32_t borrowed;           // 1: value belongs to the caller and must outlive the list
    char* value;
    db_meta_list* next;
};

// Prepends a node. A null value adds nothing and returns head. With
// borrowed 0 the list makes and owns its own copy of value; with 1 it keeps
// the caller's pointer. Null when no memory (head is then freed).
db_meta_list* db_meta_list_add(db_meta_list* head, int32_t key, const char* value, int32_t borrowed);
void db_meta_list_free(db_meta_list* head);
// ">>>>\n" and "%02X%03X%s\n" per node with a non-empty value, in list
// order. A value too long for the 1024-byte field buffer (over 1017 bytes)
// is left out, never cut. The caller frees the result.
upnp_string* db_meta_list_to_text(const db_meta_list* head);

// ---- Lifecycle and lock -------------------------------------------------

void db_create();               // before the database files open
void db_destroy();              // frees the tree and the pool, then the lock

void db_lock();                 // both do nothing while the lock does not exist
void db_unlock();

// Holds db_lock for a scope.
struct db_lock_guard {
    db_lock_guard() { db_lock(); }
    ~db_lock_guard() { db_unlock(); }
    db_lock_guard(const db_lock_guard&) = delete;
    db_lock_guard& operator=(const db_lock_guard&) = delete;
};

// ---- Named slots --------------------------------------------------------
// Filled by the tree builder; read under db_lock.
extern db_object* db_root;
extern db_object* db_music_root;
extern db_object* db_all_music;
extern db_object* db_playlist_root;
extern db_object* db_last_played;
extern db_object* db_most_played;
extern db_object* db_radio_root;
extern db_object* db_all_radio;
extern db_object* db_picture_root;
extern db_object* db_all_pictures;
extern db_object* db_tags_root;
extern db_object* db_video_root;
extern db_object* db_all_video;
extern db_object* db_live_video;
extern db_object* db_audio_stream;
extern db_object* db_document_root;
extern db_object* db_all_documents;

// Played-list thresholds, -1 from db_create on.
extern int32_t db_most_played_min;
extern int32_t db_last_played_min;

// ---- Making, linking and freeing objects (under db_lock) ----------------

// A new detached container with this id word and title (pooled here),
// restricted when asked. Null when no memory.
db_object* db_container_new(uint32_t id, const char* title, int restricted);
// A new detached reference of type 21 (with number) or 22 to target.
db_object* db_ref_new(int32_t type, db_object* target, int32_t number);
// Sets child's parent and appends it; nothing for a null child or a
// container that isn't one. 1 when appended.
int db_container_add_child(db_object* container, db_object* child);
// Takes child out of its parent's array, keeping the others' order.
void db_container_remove_child(db_object* container, db_object* child);
// What db_container_compact does with one child.
enum db_compact_verdict : int32_t {
    DB_COMPACT_KEEP = 0,
    DB_COMPACT_DROP = 1,            // leaves the array; the verdict has taken it over
    DB_COMPACT_KEEP_REST = 2,       // kept, and so is every later child, unlooked at
};
typedef int32_t (*db_compact_fn)(db_object* child, void* context);
// Asks verdict about the children in order and closes the gaps of those
// dropped in one pass over the array, so that a sweep costs the same for
// one child gone as for thousands. A dropped child is not touched again,
// so the verdict may free it; it must not change this container's list.
// The number dropped.
int32_t db_container_compact(db_object* container, db_compact_fn verdict, void* context);
// Frees one object alone (not its children) and takes it off the account.
void db_object_free(db_object* o);
// Frees a subtree, children first.
void db_object_free_tree(db_object* o);
// Turns an item into a shadow (type 23) or back; the id's sequence stays.
void db_object_retype(db_object* o, int32_t type);

// 1 when child, a real item, ends a search of container for references and
// folders. Containers of real items hold nothing else, which keeps walks
// out of the "All" containers. The exceptions: %PATH folders (type 10) mix
// references and folders, and a media root is its own "All" container in
// the flat tree, where the tags root and video lists stand among the items.
int db_container_ends_search(const db_object* container, const db_object* child);
// 1 for the containers where items and folders mix: %PATH folders, and the
// media roots, which in the flat tree are their own "All" and get the tags
// and playlist folders after their items.
int db_container_mixes_items(const db_object* container);
db_object* db_object_parent(const db_object* o);          // null for none
db_object* db_object_target(const db_object* o);          // a reference's target, else null
// Detaches and frees every reference to target in the tree below from,
// skipping the real items of containers that hold them ("All" containers).
// The number of references freed.
int32_t db_object_remove_refs(db_object* from, db_object* target);

// ---- Adding and removing items ------------------------------------------

// Enters or updates the item of a file. block is the record's first block
// when the record already stands in the file, else 0 and raw (length
// raw_length) is stored first. The object, or null (refused, no memory, no
// container for the type, memory limit).
db_object* db_object_add(db_meta_list* list, const char* path, int32_t type, uint32_t block,
                         const char* raw, int32_t raw_length);
// Detaches the item, frees every reference to it and its record, frees it.
void db_object_delete(db_object* o);
int db_object_remove(const char* path);                  // 1 removed, 0 not found
db_object* db_object_find_by_path(const char* path);

// The tree builder's part of an add: after the item went into its "All"
// container, rules may place references to it elsewhere. Until one is set,
// items live in their "All" container only.
typedef void (*db_tree_rules_fn)(db_object* item, db_object* media_root, db_object* all, const char* path);
void db_set_tree_rules(db_tree_rules_fn fn);

// The database files as the store uses them. db_file sets its functions
// when it opens the files (and null when it closes them); tests may set
// their own. Without a store, adds need a block, nothing is written, and no
// path lookup finds anything. Each function takes the file lock itself.
struct db_record_store {
    // Stores a new record; its first block, 0 on failure.
    uint32_t (*store)(const char* text, int32_t length);
    // Writes the object's record (with path) into the chain at block,
    // keeping the block. 1 on success.
    int (*rewrite)(uint32_t block, const db_object* o, const char* path);
    // Frees the record chain that starts at block.
    void (*free_chain)(uint32_t block);
    // The path of the record in block as a new copy the caller frees, and
    // its type; null (type untouched) when the block holds no record.
    char* (*read_path)(uint32_t block, int32_t* type);
};
void db_set_record_store(const db_record_store* store);   // copied; null clears

// ---- Accessors (all accept a null object) -------------------------------

// Texts returned are pooled: never freed by the caller, valid until db_destroy.
const char* db_object_get_str(const db_object* o, int32_t key);
int32_t db_object_get_int(const db_object* o, int32_t key);      // -1 when absent
char db_object_get_char(const db_object* o, int32_t key);        // '0' when absent
// DBK_TARGET: the third field of any shape, as a pointer: a reference's
// target object, or the title text of a container or an item. Else null.
const void* db_object_get_ptr(const db_object* o, int32_t key);
// Each returns 1 if the object changed, 0 if not.
int db_object_set_str(db_object* o, int32_t key, const char* value);
int db_object_set_int(db_object* o, int32_t key, int32_t value);
int db_object_set_char(db_object* o, int32_t key, char value);
int db_object_apply_meta(db_object* o, const db_meta_list* list);  // 1 if any key changed it
const char* db_object_class(const db_object* o);                  // upnp:class text, null for null

// The slots of an item in array order, for the record writer: 1 with the
// key and either the text (text class) or the number (integer and
// character classes) set, 0 past the end.
int db_object_meta_count(const db_object* o);
int db_object_meta_at(const db_object* o, int32_t index, uint16_t* key, const char** text, int32_t* number);

// ---- Pool and memory ----------------------------------------------------

const char* db_string_pool_add(const char* text);        // the pooled copy, null for null
void db_string_pool_init();
void db_string_pool_clear();
int32_t db_string_pool_count();
uint32_t db_string_pool_refs(const char* pooled);        // 0 for a text not in the pool
int64_t db_object_get_used_mem();                        // bytes of records, as counted
int64_t db_string_pool_get_used_mem();                   // text length + 13 per entry
extern int32_t g_db_max_mem;                             // KiB; negative: read option 23 at next add

// ---- Bookkeeping --------------------------------------------------------

// Raises update_id once per event period, clears the sorted bit, and sets
// the dirty flag that db_event_check looks at.
void db_container_mark_changed(db_object* container);
// Once a second from the scheduler: at most every 2 s hands the system
// update id and the list "id,update_id,..." (null when none) to the sink,
// outside db_lock.
void db_event_check(int64_t now);
typedef void (*db_event_sink)(uint32_t system_update_id, const char* container_list);
void db_set_event_sink(db_event_sink sink);
uint32_t db_get_system_update_id();

int32_t db_count_music();
int32_t db_count_pictures();
int32_t db_count_videos();
int32_t db_count_radio();
int64_t db_get_last_change();
void db_note_change();                                   // db_last_change = now
int64_t db_get_start_time();

// A number that changes with every change of the tree a reader could see:
// children added, removed or reordered, metadata set, objects freed. Equal
// stamps mean that every object seen before is still there, unchanged.
// Read under db_lock.
uint64_t db_change_stamp();

// Empty containers wait for the housekeeping sweep.
void db_request_container_sweep();
int db_take_container_sweep();                           // 1 once after a request
int db_container_sweep_pending();                        // 1 while a request waits, untaken

// Browsing policy of the four media kinds. Type 13 pictures, 14 music, 16
// video, 17 documents; other types return 0. Raises an event at once.
int db_set_browsing_policy(int32_t type, uint32_t visible);
uint32_t db_get_browsing_policy(int32_t type);            // 1 visible (the default), 0 hidden
int db_browsing_allowed(int32_t type);                     // by the media kind of any object type

void db_request_write();                                   // write the database at the next chance
int db_take_write_request();                               // 1 once after a request

// How the store asks whether the client of a request carries a quirk flag
// ("AV:M", "XM:NOUTF8SORT"). Until a probe is set, no client has any flag.
typedef int (*db_client_flag_probe)(const HTTP_request* request, const char* flag);
void db_set_client_flag_probe(db_client_flag_probe probe);
int db_client_has_flag(const HTTP_request* request, const char* flag);

#include "database/db_id.h"
