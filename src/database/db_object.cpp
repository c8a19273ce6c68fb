// db_object.cpp: the content tree. It owns the records (made in the arena
// of db_store.cpp at the exact size of their shape), the named slots, the
// memory account, the change bookkeeping that db_event_check hands on, and
// the browsing policy. Items come in through db_object_add, which stores
// or rewrites the record in the database file through the functions that
// db_file registers, enters the item in its "All" container and lets the
// tree builder place references to it.
//
// Lock: db_lock (a recursive mutex) over the tree, the pool and the slots;
// every exported function that touches the tree takes it. The record store
// takes its own file lock inside, so the order is db_lock, then file lock.
// The event sink runs outside db_lock.
#include "database/db_object.h"

#include "config/upnp_ini.h"
#include "database/db_playlist.h"
#include "database/db_store.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_string.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <strings.h>
#include <string>
#include <unordered_map>
#include <vector>

// ---- State --------------------------------------------------------------------

db_object* db_root;                        // the named slots: db_lock
db_object* db_music_root;
db_object* db_all_music;
db_object* db_playlist_root;
db_object* db_last_played;
db_object* db_most_played;
db_object* db_radio_root;
db_object* db_all_radio;
db_object* db_picture_root;
db_object* db_all_pictures;
db_object* db_tags_root;
db_object* db_video_root;
db_object* db_all_video;
db_object* db_live_video;
db_object* db_audio_stream;
db_object* db_document_root;
db_object* db_all_documents;

int32_t db_most_played_min = -1;           // db_lock
int32_t db_last_played_min = -1;           // db_lock
int32_t g_db_max_mem = -1;                 // db_lock
int64_t db_used_mem;                       // db_lock

static std::atomic<int64_t> db_start_time;
static std::atomic<int64_t> db_last_change;
static std::atomic<int32_t> db_event_dirty;         // set without the lock by the policy
static std::atomic<uint32_t> db_system_update_id;
static std::atomic<int64_t> db_last_event_time;
static std::atomic<db_event_sink> db_event_handler;
static std::atomic<db_tree_rules_fn> db_tree_rules;
static std::atomic<db_client_flag_probe> db_flag_probe;
static std::atomic<int32_t> db_write_request;
static std::atomic<int32_t> db_sweep_request;
// Raised by every change that could alter what a reader sees of the tree;
// never reset, not even by db_destroy, so a stamp taken before a rebuild
// never matches the new tree.
static std::atomic<uint64_t> db_stamp{1};

static db_record_store db_records;         // db_lock
static bool db_records_set;                // db_lock

// The lock outlives every db_destroy: "deleting" it only stops db_lock
// from taking it, and each thread unlocks only what it took.
static std::recursive_mutex db_mutex;
static std::atomic<int32_t> db_lock_exists;
static thread_local int32_t db_lock_depth;

// ---- Keys -----------------------------------------------------------------------

static constexpr int32_t DB_MAX_SLOTS = 1001;

// The class of every key, ten keys a row. Some keys without a name still
// have a class: records written by older versions carry them.
static constexpr db_meta_class meta_key_classes[] = {
#define N DB_CLASS_NONE
#define T DB_CLASS_TEXT
#define I DB_CLASS_INT
#define C DB_CLASS_CHAR
    N, N, N, N, N, N, N, N, N, N,   //  0
    N, N, T, I, N, N, N, N, N, N,   // 10
    T, T, T, T, T, T, T, T, T, T,   // 20
    I, I, I, T, I, I, I, I, T, T,   // 30
    I, T, I, N, N, N, N, N, N, N,   // 40
    N, N, N, N, N, N, N, N, N, N,   // 50
    T, T, I, I, I, I, I, T, I, C,   // 60
    N, I, T, I, I, I, N, I, I, N,   // 70
    N, N, T, I,                     // 80
#undef N
#undef T
#undef I
#undef C
};
static_assert(sizeof meta_key_classes / sizeof meta_key_classes[0] == DBK_KEY_COUNT,
              "one class for every key");

db_meta_class db_meta_key_class(int32_t key)
{
    return key >= 0 && key < DBK_KEY_COUNT ? meta_key_classes[key] : DB_CLASS_NONE;
}

// Slots of text keys hold pool handles; the setter also stores texts under
// keys of class none (the upload address), so those read as text too.
static bool key_holds_text(int32_t key)
{
    db_meta_class c = db_meta_key_class(key);
    return c == DB_CLASS_TEXT || c == DB_CLASS_NONE;
}

// ---- Meta lists ---------------------------------------------------------------

db_meta_list* db_meta_list_add(db_meta_list* head, int32_t key, const char* value, int32_t borrowed)
{
    if (!value)
        return head;
    db_meta_list* node = static_cast<db_meta_list*>(malloc(sizeof(db_meta_list)));
    char* text = borrowed ? const_cast<char*>(value) : strdup(value);
    if (!node || !text) {
        free(node);
        db_meta_list_free(head);
        return nullptr;
    }
    *node = {uint16_t(key), borrowed ? 1 : 0, text, head};
    return node;
}

void db_meta_list_free(db_meta_list* head)
{
    while (head) {
        db_meta_list* next = head->next;
        if (!head->borrowed)
            free(head->value);
        free(head);
        head = next;
    }
}

// A field passes through a 1024-byte buffer: a value too long for it would
// come out cut behind a length that promises more, and the record would
// read badly from that field on. Such a value is left out instead.
static constexpr size_t DB_FIELD_VALUE_MAX = 1024 - 5 - 2;

upnp_string* db_meta_list_to_text(const db_meta_list* head)
{
    upnp_string* s = upnp_string_append(nullptr, ">>>>\n");
    for (const db_meta_list* n = head; n && s; n = n->next) {
        if (!n->value || !*n->value || n->key > 0xFF)
            continue;               // a key is two hex digits in a record
        size_t length = strlen(n->value);
        if (length > DB_FIELD_VALUE_MAX) {
            upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "field %02X of %zu bytes left out of the record\n",
                     unsigned(n->key), length);
            continue;
        }
        char field[1024 + 8];       // the checks above keep a field within 1024
        snprintf(field, sizeof field, "%02X%03X%s\n", unsigned(n->key), unsigned(length), n->value);
        s = upnp_string_append(s, field);
    }
    return s;
}

// ---- Lock and lifecycle -----------------------------------------------------------

void db_lock()
{
    if (db_lock_depth > 0) {
        db_lock_depth++;            // already ours: readers deep in a sort stay cheap
        return;
    }
    if (!db_lock_exists.load())
        return;
    db_mutex.lock();
    db_lock_depth++;
}

void db_unlock()
{
    if (db_lock_depth == 0)
        return;
    if (--db_lock_depth == 0)
        db_mutex.unlock();
}

static void db_slots_clear()
{
    db_object** slots[] = {&db_root, &db_music_root, &db_all_music, &db_playlist_root, &db_last_played,
                           &db_most_played, &db_radio_root, &db_all_radio, &db_picture_root, &db_all_pictures,
                           &db_tags_root, &db_video_root, &db_all_video, &db_live_video, &db_audio_stream,
                           &db_document_root, &db_all_documents};
    for (db_object** slot : slots)
        *slot = nullptr;
}

void db_create()
{
    srand(unsigned(time(nullptr)));
    db_start_time = int64_t(time(nullptr));
    db_last_event_time = 0;
    db_lock_exists = 1;
    db_lock_guard hold;
    db_string_pool_init();
    db_sort_reset();
    db_most_played_min = -1;
    db_last_played_min = -1;
    db_played_reset();
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "creating Database\n");
}

// Removals noted in children arrays, closed in one pass (db_children_settle).
static std::unordered_map<uint32_t, std::vector<uint32_t>> removals_noted;   // db_lock: container -> handles

void db_destroy()
{
    {
        db_lock_guard hold;
        db_note_tree_change();
        // Every record lives in the arena, so dropping the arena frees the
        // whole tree, detached objects included.
        db_slots_clear();
        db_arena_reset();
        db_item_index_reset();
        db_index_reset();
        removals_noted.clear();
        db_used_mem = 0;
        db_string_pool_clear();
        db_event_dirty = 0;
    }
    db_lock_exists = 0;
}

void db_set_record_store(const db_record_store* store)
{
    db_lock_guard hold;
    db_records_set = store != nullptr;
    db_records = store ? *store : db_record_store{};
}

void db_set_tree_rules(db_tree_rules_fn fn)
{
    db_tree_rules = fn;
}

// ---- Shapes ---------------------------------------------------------------------------

static int32_t type_of(const db_object* o)
{
    return db_object_type_of(o);
}

static bool is_item_like(int32_t t)
{
    return db_type_is_item(t) || t == DB_OBJ_SHADOW;
}

static db_container* as_container(const db_object* o)
{
    return reinterpret_cast<db_container*>(const_cast<db_object*>(o));
}

static db_item* as_item(const db_object* o)
{
    return reinterpret_cast<db_item*>(const_cast<db_object*>(o));
}

static db_ref* as_ref(const db_object* o)
{
    return reinterpret_cast<db_ref*>(const_cast<db_object*>(o));
}

static db_meta_entry* item_slots(const db_item* it)
{
    return it->meta ? static_cast<db_meta_entry*>(db_arena_ptr(it->meta)) : nullptr;
}

static db_meta_entry* item_find(const db_item* it, int32_t key)
{
    db_meta_entry* slots = item_slots(it);
    for (int32_t i = 0; i < it->meta_count; i++)
        if (slots[i].key == key)
            return &slots[i];
    return nullptr;
}

int32_t db_record_size(const db_object* o)
{
    int32_t t = type_of(o);
    if (t < 12)
        return 24 + 4 * db_children_capacity(as_container(o)->child_count);
    if (t == DB_OBJ_REF_TRACK)
        return int32_t(sizeof(db_ref_track));
    if (t == DB_OBJ_REF)
        return int32_t(sizeof(db_ref));
    return 20 + 6 * as_item(o)->meta_count;
}

static int32_t shape_bytes(int32_t type)
{
    if (db_type_is_container(type))
        return int32_t(sizeof(db_container));
    if (type == DB_OBJ_REF_TRACK)
        return int32_t(sizeof(db_ref_track));
    if (type == DB_OBJ_REF)
        return int32_t(sizeof(db_ref));
    return int32_t(sizeof(db_item));
}

static db_object* object_alloc(uint32_t id)
{
    int32_t bytes = shape_bytes(int32_t(id >> DB_ID_TYPE_SHIFT));
    db_object* o = db_obj(db_arena_alloc(size_t(bytes)));
    if (!o)
        return nullptr;
    o->id = id;
    db_used_mem += bytes;
    return o;
}

db_object* db_object_parent(const db_object* o)
{
    return o ? db_obj(o->parent) : nullptr;
}

db_object* db_object_target(const db_object* o)
{
    return o && db_type_is_ref(type_of(o)) ? db_obj(as_ref(o)->target) : nullptr;
}

// ---- Making and freeing -------------------------------------------------------------

db_object* db_container_new(uint32_t id, const char* title, int restricted)
{
    if (!db_type_is_container(int32_t(id >> DB_ID_TYPE_SHIFT)))
        return nullptr;
    db_lock_guard hold;
    db_object* o = object_alloc(id);
    if (!o)
        return nullptr;
    as_container(o)->title = db_pool_intern(title);
    as_container(o)->state = restricted ? uint32_t(DB_STATE_RESTRICTED) : 0u;
    return o;
}

db_object* db_ref_new(int32_t type, db_object* target, int32_t number)
{
    if (!db_type_is_ref(type) || !target)
        return nullptr;
    db_lock_guard hold;
    db_object* o = object_alloc(db_next_id(type));
    if (!o)
        return nullptr;
    as_ref(o)->target = db_arena_handle(target);
    if (type == DB_OBJ_REF_TRACK)
        reinterpret_cast<db_ref_track*>(o)->number = int16_t(number);
    db_ref_index_add(o);
    return o;
}

static db_object* item_new(uint32_t id)
{
    db_object* o = object_alloc(id);
    if (o)
        db_item_index_put(o);
    return o;
}

static void removals_forget(const db_object* container);

void db_object_free(db_object* o)
{
    if (!o)
        return;
    db_lock_guard hold;
    db_note_tree_change();
    int32_t t = type_of(o);
    db_index_freed(o);
    db_used_mem -= db_record_size(o);
    if (t < 12) {
        db_container* c = as_container(o);
        removals_forget(o);
        db_array_free(c->children, db_children_capacity(c->child_count));
    } else if (is_item_like(t) || t > DB_OBJ_SHADOW) {
        db_item* it = as_item(o);
        db_arena_free(it->meta, size_t(it->meta_count) * sizeof(db_meta_entry));
        db_item_index_drop(o);
    }
    db_arena_free(db_arena_handle(o), size_t(shape_bytes(t)));
}

void db_object_free_tree(db_object* o)
{
    if (!o)
        return;
    db_lock_guard hold;
    // Children first, without recursion: %PATH folders can nest as deep as
    // the file system.
    std::vector<db_object*> stack{o}, order;
    while (!stack.empty()) {
        db_object* x = stack.back();
        stack.pop_back();
        order.push_back(x);
        for (int32_t i = 0; i < db_container_child_count(x); i++)
            stack.push_back(db_container_child(x, i));
    }
    for (size_t i = order.size(); i-- > 0;)
        db_object_free(order[i]);
}

void db_object_retype(db_object* o, int32_t type)
{
    if (!o || !is_item_like(type_of(o)) || !is_item_like(type))
        return;
    db_lock_guard hold;
    db_note_tree_change();
    db_item_index_drop(o);
    uint32_t old_id = o->id;
    o->id = uint32_t(type) << DB_ID_TYPE_SHIFT | db_object_seq(o);
    if (type != DB_OBJ_SHADOW)
        db_item_index_put(o);
    db_index_renumbered(o, old_id);
}

// ---- Children -------------------------------------------------------------------------

int db_container_add_child(db_object* container, db_object* child)
{
    if (!child || !container || !db_type_is_container(type_of(container)))
        return 0;
    db_lock_guard hold;
    db_container* c = as_container(container);
    child->parent = db_arena_handle(container);
    db_container_mark_changed(container);
    int32_t cap = db_children_capacity(c->child_count);
    if (c->child_count + 1 > cap) {
        int32_t grown = db_children_capacity(c->child_count + 1);
        uint32_t h = db_array_resize(c->children, cap, grown, c->child_count);
        if (!h) {
            db_index_left_out(child);
            return 0;               // the child keeps its parent link, out of the array
        }
        c->children = h;
        db_used_mem += 4 * int64_t(grown - cap);
    }
    db_array_ptr(c->children)[c->child_count++] = db_slot_of(child);
    db_title_index_added(container, child);
    return 1;
}

static void children_truncate(db_container* c, int32_t count)
{
    db_note_tree_change();
    int32_t cap = db_children_capacity(c->child_count), smaller = db_children_capacity(count);
    if (smaller != cap) {
        uint32_t h = smaller ? db_array_resize(c->children, cap, smaller, count) : 0;
        if (smaller && !h)
            return;                 // keep the larger array rather than lose children
        if (!smaller)
            db_array_free(c->children, cap);
        c->children = h;
        db_used_mem -= 4 * int64_t(cap - smaller);
    }
    c->child_count = count;
}

// ---- Removals closed in one pass ------------------------------------------------
//
// An update takes an item and its references out of folders that may hold
// a million children ("All" lists); finding and closing each slot at once
// would cost the whole array per update, and a rescan of a retagged
// library the square of its size. A removal is noted instead, and the
// array is closed in one pass before anything reads it next. Each note
// drops the earliest slot of its handle: an item put back in the same
// folder, or a handle freed and made again, is appended behind the old
// slot, so order and contents come out as with removals made at once.


void db_children_settle(const db_object* container)
{
    db_container* c = as_container(container);
    if (!(c->state & DB_STATE_REMOVALS_NOTED))
        return;
    db_lock_guard hold;
    c->state &= ~DB_STATE_REMOVALS_NOTED;
    auto it = removals_noted.find(db_arena_handle(container));
    std::vector<uint32_t> gone = std::move(it->second);
    removals_noted.erase(it);
    std::sort(gone.begin(), gone.end());
    std::vector<bool> taken(gone.size());
    db_child_slot* slots = db_array_ptr(c->children);
    int32_t kept = 0;
    for (int32_t i = 0; i < c->child_count; i++) {
        uint32_t h = slots[i].h & ~DB_SLOT_REF;
        size_t at = size_t(std::lower_bound(gone.begin(), gone.end(), h) - gone.begin());
        while (at < gone.size() && gone[at] == h && taken[at])
            at++;
        if (at < gone.size() && gone[at] == h) {
            taken[at] = true;
            continue;
        }
        slots[kept++] = slots[i];
    }
    children_truncate(c, kept);
}

static void removals_forget(const db_object* container)
{
    if (as_container(container)->state & DB_STATE_REMOVALS_NOTED)
        removals_noted.erase(db_arena_handle(container));
}

void db_container_remove_child(db_object* container, db_object* child)
{
    if (!child || !container || !db_type_is_container(type_of(container)))
        return;
    db_lock_guard hold;
    // A child is in its parent's array exactly once, unless it was left out
    // when the array could not grow.
    if (db_object_parent(child) != container || db_index_is_left_out(child))
        return;
    db_container* c = as_container(container);
    removals_noted[db_arena_handle(container)].push_back(db_arena_handle(child));
    c->state |= DB_STATE_REMOVALS_NOTED;
    db_title_index_removed(container, child);
    child->parent = 0;
    db_container_mark_changed(container);
}

int32_t db_container_compact(db_object* container, db_compact_fn verdict, void* context)
{
    if (!container || !verdict || !db_type_is_container(type_of(container)))
        return 0;
    db_lock_guard hold;
    db_container* c = as_container(container);
    db_children_settle(container);
    int32_t count = c->child_count, kept = 0, i = 0;
    while (i < count) {
        // Read afresh each time: the verdict may free other objects.
        db_child_slot slot = db_array_ptr(c->children)[i++];
        int32_t v = verdict(db_slot_object(slot), context);
        if (v == DB_COMPACT_DROP)
            continue;
        if (kept != i - 1)
            db_array_ptr(c->children)[kept] = slot;
        kept++;
        if (v == DB_COMPACT_KEEP_REST)
            break;
    }
    int32_t dropped = i - kept;
    if (!dropped)
        return 0;
    db_child_slot* slots = db_array_ptr(c->children);
    memmove(&slots[kept], &slots[i], size_t(count - i) * sizeof(db_child_slot));
    children_truncate(c, count - dropped);
    db_container_mark_changed(container);
    return dropped;
}

// ---- Reading ----------------------------------------------------------------------------

static db_object* first_child(const db_object* o)
{
    return db_container_child(o, 0);
}

static bool delegates_to_first(const db_object* o)
{
    db_object* first = first_child(o);
    return first && type_of(first) >= 12;
}

static const char* item_str(const db_object* o, int32_t key)
{
    const db_item* it = as_item(o);
    if (!it->meta)
        return nullptr;             // an item with no slots reports nothing, not "Unknown"
    if (db_meta_entry* e = item_find(it, key))
        return key_holds_text(key) ? db_pool_text(e->value) : nullptr;
    int32_t t = type_of(o);
    if ((t == DB_OBJ_AUDIO && (key == DBK_ARTIST || key == DBK_ALBUM || key == DBK_CREATOR)) ||
        ((t == DB_OBJ_AUDIO || t == DB_OBJ_VIDEO) && key == DBK_GENRE))
        return "Unknown";
    return nullptr;
}

const char* db_object_get_str(const db_object* o, int32_t key)
{
    if (!o)
        return nullptr;
    db_lock_guard hold;
    int32_t t = type_of(o);
    if (t == DB_OBJ_SHADOW || t > DB_OBJ_SHADOW)
        return nullptr;
    if (key == DBK_TITLE && !db_type_is_ref(t)) {
        const char* title = db_pool_text(as_container(o)->title);   // same offset in both shapes
        return title ? title : "Unknown";
    }
    if (db_type_is_ref(t))
        return db_object_get_str(db_object_target(o), key);
    if (t < 12) {
        if (!delegates_to_first(o))
            return nullptr;
        if (key == DBK_ARTIST)
            if (const char* album_artist = db_object_get_str(first_child(o), DBK_ALBUM_ARTIST))
                return album_artist;
        return db_object_get_str(first_child(o), key);
    }
    return item_str(o, key);
}

// The fields that every shape answers from its record.
static bool field_int(const db_object* o, int32_t key, int32_t* out)
{
    int32_t t = type_of(o);
    switch (key) {
    case DBK_OBJECT_ID:
        *out = int32_t(o->id);
        return true;
    case DBK_PARENT_ID:
        *out = o->parent ? int32_t(db_obj(o->parent)->id) : -1;
        return true;
    case DBK_CHILD_COUNT:
        *out = t < 12 ? db_container_child_count(o) : -1;
        return true;
    case DBK_UPDATE_ID:
        *out = t < 12 ? int32_t(as_container(o)->state & DB_STATE_UPDATE_ID) : -1;
        return true;
    case DBK_TARGET_ID: {
        db_object* target = db_object_target(o);
        *out = target ? int32_t(target->id) : -1;
        return true;
    }
    default:
        return false;
    }
}

static int32_t track_of(const db_object* o)
{
    int32_t t = type_of(o);
    if (is_item_like(t))
        return as_item(o)->track;
    if (t == DB_OBJ_REF_TRACK)
        return reinterpret_cast<const db_ref_track*>(o)->number;
    if (t == DB_OBJ_REF)
        return db_object_get_int(db_object_target(o), DBK_TRACK);
    return t < 12 ? -2 : -1;
}

static int32_t container_int(const db_object* o, int32_t key)
{
    if (!delegates_to_first(o))
        return -1;
    int32_t v = db_object_get_int(first_child(o), key);
    // A folder has a cover if any of its tracks has one.
    if (key == DBK_ART_OFFSET || key == DBK_ART_SIZE)
        for (int32_t i = 1; v < 1 && i < db_container_child_count(o); i++)
            v = db_object_get_int(db_container_child(o, i), key);
    return v;
}

int32_t db_object_get_int(const db_object* o, int32_t key)
{
    if (!o)
        return -1;
    db_lock_guard hold;
    if (key == DBK_TRACK)
        return track_of(o);
    int32_t v, t = type_of(o);
    if (field_int(o, key, &v))
        return v;
    if (db_type_is_ref(t))
        return db_object_get_int(db_object_target(o), key);
    if (t < 12)
        return container_int(o, key);
    if (t > DB_OBJ_SHADOW || key_holds_text(key))
        return -1;
    db_meta_entry* e = item_find(as_item(o), key);
    return e ? int32_t(e->value) : -1;
}

static char flag_char(const db_object* o, uint32_t bit)
{
    return type_of(o) < 12 && (as_container(o)->state & bit) ? '1' : '0';
}

char db_object_get_char(const db_object* o, int32_t key)
{
    if (!o)
        return '0';
    db_lock_guard hold;
    if (key == DBK_RESTRICTED)
        return flag_char(o, DB_STATE_RESTRICTED);
    if (key == DBK_EVENT_PENDING)
        return flag_char(o, DB_STATE_EVENT_PENDING);
    if (key == DBK_SORTED)
        return flag_char(o, DB_STATE_SORTED);
    int32_t t = type_of(o);
    if (db_type_is_ref(t))
        return db_object_get_char(db_object_target(o), key);
    if (t < 12)
        return delegates_to_first(o) ? db_object_get_char(first_child(o), key) : '0';
    if (t > DB_OBJ_SHADOW || key_holds_text(key))
        return '0';
    db_meta_entry* e = item_find(as_item(o), key);
    return e ? char(e->value & 0xFF) : '0';
}

const void* db_object_get_ptr(const db_object* o, int32_t key)
{
    if (!o || key != DBK_TARGET)
        return nullptr;
    db_lock_guard hold;
    int32_t t = type_of(o);
    if (db_type_is_ref(t))
        return db_object_target(o);
    if (t <= DB_OBJ_SHADOW)
        return db_pool_text(as_container(o)->title);
    return nullptr;
}

const char* db_object_class(const db_object* o)
{
    static const char* const classes[DB_OBJ_TYPE_COUNT] = {
        "object.container",
        "object.container.playlistContainer",
        "object.container.musicContainer",
        "object.container.pictureContainer",
        "object.container.videoContainer",
        "object.container",
        "object.container.album.musicAlbum",
        "object.container.album.photoAlbum",
        "object.container.person.musicArtist",
        "object.container.genre.musicGenre",
        "object.container",
        "object.container.storageFolder",
        "object.item",
        "object.item.imageItem.photo",
        "object.item.audioItem.musicTrack",
        "object.item.audioItem.audioBroadcast",
        "object.item.videoItem.movie",
        "object.item",
        "object.item.videoItem.movie",
        "object.item.videoItem.videoBroadcast",
        "object.item.audioItem.audioBroadcast",
        "object.item",
        "object.item",
        "object.item",
    };
    if (!o)
        return nullptr;
    int32_t t = type_of(o);
    return t < DB_OBJ_TYPE_COUNT ? classes[t] : "object.item";
}

int db_object_meta_count(const db_object* o)
{
    return o && is_item_like(type_of(o)) ? as_item(o)->meta_count : 0;
}

int db_object_meta_at(const db_object* o, int32_t index, uint16_t* key, const char** text, int32_t* number)
{
    if (index < 0 || index >= db_object_meta_count(o))
        return 0;
    db_lock_guard hold;
    const db_meta_entry& e = item_slots(as_item(o))[index];
    *key = e.key;
    *text = key_holds_text(e.key) ? db_pool_text(e.value) : nullptr;
    *number = key_holds_text(e.key) ? 0 : int32_t(e.value);
    return 1;
}

// ---- Writing ------------------------------------------------------------------------------

// The slot for key, made at the end of the array when absent. Growth is one
// slot at a time (items rarely change); past the cap the last slot is
// reused; a failed allocation drops every slot. Null when no slot is left.
static db_meta_entry* item_slot(db_item* it, int32_t key)
{
    if (db_meta_entry* e = item_find(it, key))
        return e;
    int32_t n = it->meta_count;
    if (n >= DB_MAX_SLOTS) {
        item_slots(it)[n - 1] = {uint16_t(key), 0};
        return &item_slots(it)[n - 1];
    }
    uint32_t h = db_arena_alloc(size_t(n + 1) * sizeof(db_meta_entry));
    if (h && n)
        memcpy(db_arena_ptr(h), item_slots(it), size_t(n) * sizeof(db_meta_entry));
    db_arena_free(it->meta, size_t(n) * sizeof(db_meta_entry));
    db_used_mem -= 6 * int64_t(n);
    it->meta = h;
    it->meta_count = 0;
    if (!h)
        return nullptr;
    it->meta_count = int16_t(n + 1);
    db_used_mem += 6 * int64_t(n + 1);
    db_meta_entry* e = &item_slots(it)[n];
    *e = {uint16_t(key), 0};
    return e;
}

static int set_title(db_object* o, const char* value)
{
    db_container* c = as_container(o);             // the title sits at the same offset in both shapes
    const char* old = db_pool_text(c->title);
    if ((!old && !value) || (old && value && !strcmp(old, value)))
        return 0;
    c->title = db_pool_intern(value);
    if (type_of(o) < 12)
        db_title_index_retitled(o, old);
    return 1;
}

static int set_size_text(db_object* o, const char* value)
{
    int64_t size = value ? upnp_atoi64(value) : 0;
    if (value && size < 2147483647)
        return db_object_set_int(o, DBK_SIZE, int32_t(size));
    return -1;                      // not a size that fits: keep it as text
}

static int object_set_str(db_object* o, int32_t key, const char* value)
{
    if (!o || key < 0 || key > 0xFFFF)
        return 0;
    db_lock_guard hold;
    int32_t t = type_of(o);
    if (key == DBK_TITLE && (t < 12 || db_type_is_item(t)))
        return set_title(o, value);
    if (!db_type_is_item(t) || !key_holds_text(key))
        return 0;
    if (key == DBK_SIZE_TEXT) {
        int r = set_size_text(o, value);
        if (r >= 0)
            return r;
    }
    db_item* it = as_item(o);
    db_meta_entry* e = item_find(it, key);
    if (!value) {
        if (!e)
            return 0;
        e->value = 0;
        return 1;
    }
    const char* old = e ? db_pool_text(e->value) : nullptr;
    if (old && !strcasecmp(old, value))
        return 0;                   // a change of case alone is no change
    uint32_t h = db_pool_intern(value);
    if (!h || !(e = item_slot(it, key)))
        return 0;
    e->value = h;
    return 1;
}

static int set_child_count(db_object* o, int32_t value)
{
    db_container* c = as_container(o);
    db_children_settle(o);
    // Only a shrink can be honoured without inventing children; the ones
    // cut off are the caller's.
    if (value < 0 || value >= c->child_count)
        return 0;
    std::vector<db_object*> cut;
    for (int32_t i = value; i < c->child_count; i++)
        cut.push_back(db_slot_object(db_array_ptr(c->children)[i]));
    children_truncate(c, value);
    for (db_object* x : cut) {
        db_title_index_removed(o, x);
        x->parent = 0;
    }
    return 1;
}

static int same_shape(int32_t a, int32_t b)
{
    if (db_type_is_container(a) || db_type_is_container(b))
        return db_type_is_container(a) && db_type_is_container(b);
    if (is_item_like(a) || is_item_like(b))
        return is_item_like(a) && is_item_like(b);
    return a == b;
}

static int set_object_id(db_object* o, int32_t value)
{
    uint32_t id = uint32_t(value);
    // The shape follows the type bits, so an id of another shape would make
    // the record read as a bigger one.
    if (id == o->id || !same_shape(type_of(o), int32_t(id >> DB_ID_TYPE_SHIFT)))
        return 0;
    bool indexed = db_type_is_item(type_of(o));
    if (indexed)
        db_item_index_drop(o);
    uint32_t old_id = o->id;
    o->id = id;
    if (db_type_is_item(type_of(o)))
        db_item_index_put(o);
    db_index_renumbered(o, old_id);
    return 1;
}

static int set_track(db_object* o, int32_t value)
{
    int32_t t = type_of(o);
    int16_t* field = db_type_is_item(t) ? &as_item(o)->track
                     : t == DB_OBJ_REF_TRACK ? &reinterpret_cast<db_ref_track*>(o)->number
                                             : nullptr;
    if (!field || *field == int16_t(value))
        return 0;
    *field = int16_t(value);
    return 1;
}

static int object_set_int(db_object* o, int32_t key, int32_t value)
{
    if (!o || key < 0 || key > 0xFFFF)
        return 0;
    db_lock_guard hold;
    int32_t t = type_of(o);
    if (key == DBK_OBJECT_ID)
        return set_object_id(o, value);
    if (key == DBK_CHILD_COUNT)
        return t < 12 ? set_child_count(o, value) : 0;
    if (key == DBK_TRACK)
        return set_track(o, value);
    if (!db_type_is_item(t) || key_holds_text(key))
        return 0;
    db_item* it = as_item(o);
    db_meta_entry* e = item_find(it, key);
    if (e && int32_t(e->value) == value)
        return 0;
    if (!e && !(e = item_slot(it, key)))
        return 0;
    e->value = uint32_t(value);
    return 1;
}

static int set_flag(db_object* o, uint32_t bit, char value)
{
    if (type_of(o) >= 12)
        return 0;
    db_container* c = as_container(o);
    if ((c->state & bit) ? value == '1' : value == '0')
        return 0;
    c->state = value == '1' ? c->state | bit : c->state & ~bit;
    return 1;
}

static int object_set_char(db_object* o, int32_t key, char value)
{
    if (!o || key < 0 || key > 0xFFFF)
        return 0;
    db_lock_guard hold;
    if (key == DBK_RESTRICTED)
        return set_flag(o, DB_STATE_RESTRICTED, value);
    if (key == DBK_EVENT_PENDING)
        return set_flag(o, DB_STATE_EVENT_PENDING, value);
    if (key == DBK_SORTED)
        return set_flag(o, DB_STATE_SORTED, value);
    if (!db_type_is_item(type_of(o)) || key_holds_text(key))
        return 0;
    db_item* it = as_item(o);
    db_meta_entry* e = item_find(it, key);
    uint8_t byte = uint8_t(value);
    if (e ? (e->value & 0xFF) == byte : byte == 0)
        return 0;
    if (!e && !(e = item_slot(it, key)))
        return 0;
    e->value = byte;
    return 1;
}

// "H:MM:SS", optionally ":mmm"; a fraction behind a point (what the record
// writer prints) is ignored.
static int32_t parse_duration(const char* text)
{
    static const int64_t scale[] = {3600000, 60000, 1000, 1};
    int64_t ms = 0;
    const char* p = text;
    for (int field = 0; field < 4 && *p; field++) {
        size_t digits = upnp_digit_run(p, SIZE_MAX);
        uint64_t v = 0;
        if (digits && (!upnp_parse_u64(p, digits, &v) || v > INT32_MAX))
            return INT32_MAX;       // one field alone is past the range
        ms += int64_t(v) * scale[field];
        p += digits;
        p += strcspn(p, ":");       // the fraction, or anything else in the field
        if (*p == ':')
            p++;
    }
    return ms > INT32_MAX ? INT32_MAX : int32_t(ms);
}

// Whole-number metadata is read as strtoll reads it (blanks, a sign, the
// digits, anything behind them ignored), clamped to the 32 bits it is kept in.
static int32_t parse_meta_int(const char* text)
{
    return upnp_parse_lenient_i32(text);
}

static int apply_text(db_object* o, int32_t key, const char* value)
{
    if (key < DBK_CREATOR || key > DBK_ALBUM_ARTIST || !upnp_ini_get_int(UPNP_OPT_ADAPTCASE))
        return db_object_set_str(o, key, value);
    // The list's text may be the caller's: adapt a copy.
    char* copy = strdup(value);
    char* adapted = copy ? upnp_title_adapt(copy, 1) : nullptr;
    int changed = db_object_set_str(o, key, adapted ? adapted : value);
    free(adapted);
    free(copy);
    return changed;
}

int db_object_apply_meta(db_object* o, const db_meta_list* list)
{
    if (!o)
        return 0;
    db_lock_guard hold;
    int changed = 0;
    for (const db_meta_list* n = list; n; n = n->next) {
        if (!n->value)
            continue;
        switch (db_meta_key_class(n->key)) {
        case DB_CLASS_TEXT:
            changed |= apply_text(o, n->key, n->value);
            break;
        case DB_CLASS_INT:
            changed |= db_object_set_int(o, n->key, n->key == DBK_DURATION ? parse_duration(n->value)
                                                                            : parse_meta_int(n->value));
            break;
        case DB_CLASS_CHAR:
            changed |= db_object_set_char(o, n->key, n->value[0]);
            break;
        case DB_CLASS_NONE:
            break;
        }
    }
    return changed;
}

// ---- References ---------------------------------------------------------------------------

int db_container_mixes_items(const db_object* container)
{
    if (!container || type_of(container) == DB_OBJ_STORAGE_ROOT)
        return 1;
    const db_object* media_roots[] = {db_music_root, db_picture_root, db_video_root, db_document_root, db_radio_root};
    for (const db_object* root : media_roots)
        if (root == container)
            return 1;
    return 0;
}

int db_container_ends_search(const db_object* container, const db_object* child)
{
    return child && db_type_is_item(type_of(child)) && !db_container_mixes_items(container);
}

int32_t db_object_remove_refs(db_object* from, db_object* target)
{
    if (!from || !target)
        return 0;
    db_lock_guard hold;
    // The index of references by target answers what a walk of the tree
    // would meet, without the walk.
    return db_refs_drop(from, target, false);
}

// ---- Adding and removing ------------------------------------------------------------------

static db_object* media_root_of(int32_t type)
{
    switch (type) {
    case DB_OBJ_PHOTO: return db_picture_root;
    case DB_OBJ_VIDEO: case DB_OBJ_VIDEO_BROADCAST: return db_video_root;
    case DB_OBJ_AUDIO_STREAM: return db_radio_root;
    case DB_OBJ_AUDIO: return db_music_root;
    case DB_OBJ_AUDIO_BROADCAST: return db_all_radio;
    case DB_OBJ_DOCUMENT: return db_document_root;
    default: return nullptr;
    }
}

static db_object* all_of(int32_t type)
{
    switch (type) {
    case DB_OBJ_PHOTO: return db_all_pictures;
    case DB_OBJ_VIDEO: return db_all_video;
    case DB_OBJ_VIDEO_BROADCAST: return db_live_video;
    case DB_OBJ_AUDIO: return db_all_music;
    case DB_OBJ_DOCUMENT: return db_all_documents;
    default: return nullptr;
    }
}

static bool over_memory_limit()
{
    if (g_db_max_mem < 0)
        g_db_max_mem = upnp_ini_get_int(UPNP_OPT_UNNAMED_23);
    if (g_db_max_mem <= 0)
        return false;
    int64_t used = db_object_get_used_mem(), pool = db_string_pool_get_used_mem();
    if (used + pool <= int64_t(g_db_max_mem) * 1024)
        return false;
    printf("db_object_get_used_mem: %ld\n", long(used));
    printf("db_string_pool_get_used_mem: %ld\n", long(pool));
    printf("g_db_max_mem: %d\n", g_db_max_mem);
    printf("mem limit reached\n");
    return true;
}

// An update: the record is rewritten in place (its block, and so the id,
// stays), and the item leaves every folder before it is attached anew.
static void object_readd(db_object* o, const char* path)
{
    db_record_rewrite(o, path);
    db_object_remove_refs(db_root, o);
    db_request_container_sweep();
    db_container_remove_child(db_object_parent(o), o);
}

static db_object* object_attach(db_object* o, int32_t type, const char* path)
{
    db_object* all = all_of(type);
    if (!all) {
        db_object_free(o);
        return nullptr;
    }
    db_container_add_child(all, o);
    if (db_tree_rules_fn rules = db_tree_rules.load())
        rules(o, media_root_of(type), all, path);
    // A load refills the played lists from the counts kept in the records.
    if (type == DB_OBJ_AUDIO) {
        db_most_played_update(o);
        db_last_played_update(o);
    }
    return o;
}

static db_object* object_create(int32_t type, uint32_t block, const char* path, const char* raw, int32_t raw_length)
{
    if (!block) {
        if (!db_records_set || !db_records.store || !raw)
            return nullptr;
        block = db_records.store(raw, raw_length);
        if (!block)
            return nullptr;
    }
    db_object* o = item_new(db_make_id(block, type));
    if (o)
        db_path_index_add(block, path);
    return o;
}

static bool slot_missing(int32_t type)
{
    switch (type) {
    case DB_OBJ_PHOTO: return !db_picture_root;
    case DB_OBJ_VIDEO: case DB_OBJ_VIDEO_BROADCAST: return !db_video_root;
    case DB_OBJ_AUDIO_STREAM: return !db_radio_root;
    case DB_OBJ_AUDIO: return !db_music_root;
    case DB_OBJ_AUDIO_BROADCAST: return !db_all_radio;
    case DB_OBJ_DOCUMENT: return !db_document_root;
    default: return false;
    }
}

db_object* db_object_add(db_meta_list* list, const char* path, int32_t type, uint32_t block,
                         const char* raw, int32_t raw_length)
{
    if (!list || !path || !db_type_is_item(type))
        return nullptr;
    db_lock_guard hold;
    if (slot_missing(type) || over_memory_limit())
        return nullptr;
    db_object* o = db_object_find_by_path(path);
    bool existing = o != nullptr;
    if (!o && !(o = object_create(type, block, path, raw, raw_length)))
        return nullptr;
    // A new item is attached even when the list set nothing, or it would be
    // lost outside the tree.
    if (!db_object_apply_meta(o, list) && existing)
        return o;
    db_note_change();
    if (existing)
        object_readd(o, path);
    return object_attach(o, type, path);
}

void db_object_delete(db_object* o)
{
    if (!o)
        return;
    db_lock_guard hold;
    db_container_remove_child(db_object_parent(o), o);
    db_object_remove_refs(db_root, o);
    db_request_container_sweep();
    if (db_records_set && db_records.free_chain)
        db_records.free_chain(db_id_to_block(o->id));
    db_object_free(o);
}

int db_object_remove(const char* path)
{
    if (!path)
        return 0;
    db_lock_guard hold;
    db_object* o = db_object_find_by_path(path);
    if (!o)
        return 0;
    db_object_delete(o);
    db_note_change();
    return 1;
}

db_object* db_object_find_by_path(const char* path)
{
    uint32_t id = upnp_cds_db_file_get_id_by_res(path);
    return id ? db_get_pItem_by_id(id) : nullptr;
}

char* db_record_read_path(uint32_t block, int32_t* type)
{
    if (!db_records_set || !db_records.read_path)
        return nullptr;
    return db_records.read_path(block, type);
}

int db_record_rewrite(const db_object* o, const char* path)
{
    if (!db_records_set || !db_records.rewrite)
        return 0;
    return db_records.rewrite(db_id_to_block(o->id), o, path);
}

// ---- Memory ----------------------------------------------------------------------------------

// A setter that changed something changed what readers see.
static int noted(int changed)
{
    if (changed)
        db_note_tree_change();
    return changed;
}

int db_object_set_str(db_object* o, int32_t key, const char* value)
{
    db_lock_guard hold;
    return noted(object_set_str(o, key, value));
}

int db_object_set_int(db_object* o, int32_t key, int32_t value)
{
    db_lock_guard hold;
    return noted(object_set_int(o, key, value));
}

int db_object_set_char(db_object* o, int32_t key, char value)
{
    db_lock_guard hold;
    return noted(object_set_char(o, key, value));
}

int64_t db_object_get_used_mem()
{
    return db_used_mem;
}

// ---- Bookkeeping ----------------------------------------------------------------------------

void db_container_mark_changed(db_object* container)
{
    if (!container || type_of(container) >= 12)
        return;
    db_lock_guard hold;
    // Records are 2-byte aligned: the state word is read and written whole.
    db_container* c = as_container(container);
    uint32_t state = c->state;
    if (!(state & DB_STATE_EVENT_PENDING))
        state = (state & ~DB_STATE_UPDATE_ID) | ((state + 1) & DB_STATE_UPDATE_ID) | DB_STATE_EVENT_PENDING;
    c->state = state & ~DB_STATE_SORTED;
    db_event_dirty = 1;
    db_note_tree_change();
}

void db_note_tree_change()
{
    db_stamp.fetch_add(1, std::memory_order_relaxed);
}

uint64_t db_change_stamp()
{
    return db_stamp.load(std::memory_order_relaxed);
}

// Appends "id,update_id" of each pending container, depth first in array
// order, and clears its bit, until the list is long enough for one event.
static void event_collect(std::string* list)
{
    std::vector<db_object*> stack;
    if (db_root)
        stack.push_back(db_root);
    while (!stack.empty() && list->size() < 20001) {
        db_object* c = stack.back();
        stack.pop_back();
        db_container* k = as_container(c);
        uint32_t state = k->state;
        if (state & DB_STATE_EVENT_PENDING) {
            k->state = state & ~DB_STATE_EVENT_PENDING;
            char id[DB_ID_TEXT_SIZE], pair[DB_ID_TEXT_SIZE + 16];
            snprintf(pair, sizeof pair, "%s%s,%ld", list->empty() ? "" : ",",
                     db_object_id_text(c, id, sizeof id), long(state & DB_STATE_UPDATE_ID));
            list->append(pair);
        }
        for (int32_t i = db_container_child_count(c); i-- > 0;) {
            db_object* x = db_container_child(c, i);
            if (type_of(x) < 12)
                stack.push_back(x);
        }
    }
}

void db_event_check(int64_t now)
{
    if (!db_event_dirty || now - db_last_event_time < 2)
        return;
    db_last_event_time = now;
    std::string list;
    uint32_t update_id;
    {
        db_lock_guard hold;
        event_collect(&list);
        // An overlong list leaves the flag set: the rest goes out next time.
        if (!list.empty() && list.size() < 20000) {
            db_event_dirty = 0;
            db_system_update_id++;
        }
        update_id = db_system_update_id;
    }
    if (db_event_sink sink = db_event_handler.load())
        sink(update_id, list.empty() ? nullptr : list.c_str());
}

void db_set_event_sink(db_event_sink sink)
{
    db_event_handler = sink;
}

uint32_t db_get_system_update_id()
{
    return db_system_update_id;
}

static int32_t count_of(db_object* all)
{
    db_lock_guard hold;
    return all ? db_object_get_int(all, DBK_CHILD_COUNT) : 0;
}

int32_t db_count_music() { return count_of(db_all_music); }
int32_t db_count_pictures() { return count_of(db_all_pictures); }
int32_t db_count_videos() { return count_of(db_all_video); }
int32_t db_count_radio() { return count_of(db_all_radio); }

int64_t db_get_last_change()
{
    return db_last_change;
}

void db_note_change()
{
    db_last_change = int64_t(time(nullptr));
}

int64_t db_get_start_time()
{
    return db_start_time;
}

void db_request_container_sweep()
{
    db_sweep_request = 1;
}

int db_take_container_sweep()
{
    return db_sweep_request.exchange(0);
}

int db_container_sweep_pending()
{
    return db_sweep_request;
}

void db_request_write()
{
    db_write_request = 1;
}

int db_take_write_request()
{
    return db_write_request.exchange(0);
}

// ---- Browsing policy -------------------------------------------------------------------------

struct db_policy_row { int32_t type; std::atomic<uint32_t> visible; };

static db_policy_row db_browsing_policy[] = {
    {DB_OBJ_PHOTO, {1}},
    {DB_OBJ_AUDIO, {1}},
    {DB_OBJ_VIDEO, {1}},
    {DB_OBJ_DOCUMENT, {1}},
};

static db_policy_row* db_policy_find(int32_t type)
{
    for (db_policy_row& row : db_browsing_policy)
        if (row.type == type)
            return &row;
    return nullptr;
}

int db_set_browsing_policy(int32_t type, uint32_t visible)
{
    db_policy_row* row = db_policy_find(type);
    if (!row)
        return 0;
    row->visible = visible;
    db_event_dirty = 1;
    db_event_check(int64_t(time(nullptr)));
    return 1;
}

uint32_t db_get_browsing_policy(int32_t type)
{
    db_policy_row* row = db_policy_find(type);
    return row ? row->visible.load() : 1;
}

// Containers answer by the media kind they hold.
int db_browsing_allowed(int32_t type)
{
    switch (type) {
    case 2: case 6: case 8: case 9: case 14:
        return int(db_get_browsing_policy(DB_OBJ_AUDIO));
    case 3: case 7: case 13:
        return int(db_get_browsing_policy(DB_OBJ_PHOTO));
    case 4: case 16:
        return int(db_get_browsing_policy(DB_OBJ_VIDEO));
    case 17:
        return int(db_get_browsing_policy(DB_OBJ_DOCUMENT));
    default:
        return 1;
    }
}

// ---- Client flags ----------------------------------------------------------------------------

void db_set_client_flag_probe(db_client_flag_probe probe)
{
    db_flag_probe = probe;
}

int db_client_has_flag(const HTTP_request* request, const char* flag)
{
    db_client_flag_probe probe = db_flag_probe.load();
    return request && probe ? probe(request, flag) : 0;
}
