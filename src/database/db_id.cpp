// db_id.cpp: naming and ordering the objects of the content tree. It owns
// the per-type id counters, the path index (path hash to record block),
// the sort state, and the walks from an id text or an id word to an
// object.
//
// Paths are not held in memory: the index maps a folded hash to blocks, and
// each hit is proved by reading the record's path back through the record
// store. The index is a hash table that doubles, so a first scan of many
// files costs linear time. An id word of an item is found through the item
// index (each item lives in exactly one "All" container, so checking that
// the candidate sits below the slot the word's type names gives the answer
// a search of that container would give); other words are searched depth
// first, as they are few and their containers small. The orderings of
// lists live in db_sort.cpp.
//
// Lock: everything runs under db_lock; the path lookup takes it itself, as
// a host may ask without it.
#include "database/db_object.h"

#include "config/upnp_ini.h"
#include "database/db_playlist.h"
#include "database/db_store.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_pages.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>
#include <utility>
#include <vector>

// ---- Id words -------------------------------------------------------------------

// Never reset, not even by a restart inside one process.
static uint32_t id_counters[32];                        // db_lock
static std::atomic<db_art_resolver> id_art_resolver;    // set at start, read by any thread

uint32_t db_next_id(int32_t type)
{
    db_lock_guard hold;
    uint32_t t = uint32_t(type) & 31;
    return t << DB_ID_TYPE_SHIFT | (++id_counters[t] & DB_ID_SEQ_MASK);
}

uint32_t db_make_id(uint32_t block, int32_t type)
{
    return (uint32_t(type) & 31) << DB_ID_TYPE_SHIFT | ((block + uint32_t(upnp_switches.oid_seed)) & DB_ID_SEQ_MASK);
}

uint32_t db_id_to_block(uint32_t id)
{
    return ((id & DB_ID_SEQ_MASK) - uint32_t(upnp_switches.oid_seed)) & DB_ID_SEQ_MASK;
}

char* db_object_id_text(const db_object* o, char* buffer, int32_t size)
{
    if (!buffer || size < 1)
        return buffer;
    buffer[0] = 0;
    if (!o) {
        snprintf(buffer, size_t(size), "-1");
        return buffer;
    }
    db_lock_guard hold;
    std::vector<uint32_t> words;
    for (const db_object* x = o; x && db_object_seq(x) != 0; x = db_object_parent(x))
        words.push_back(uint32_t(x->id));   // a copy: records are packed, fields unaligned
    if (words.empty()) {
        snprintf(buffer, size_t(size), "0");
        return buffer;
    }
    size_t used = 0;
    for (size_t i = words.size(); i-- > 0 && used + 1 < size_t(size);) {
        int n = snprintf(buffer + used, size_t(size) - used, i + 1 == words.size() ? "%u" : "$%u", words[i]);
        used += n > 0 ? size_t(n) : 0;
    }
    return buffer;
}

// ---- Lookups by id ----------------------------------------------------------------

struct id_alias { const char* text; db_object** slot; };

// Fixed texts some clients send in place of an id.
static const id_alias id_aliases[] = {
    {"0\\Music\\", &db_music_root},
    {"0\\Photo\\", &db_picture_root},
    {"0\\Movie\\", &db_video_root},
    {"0\\Radio\\", &db_radio_root},
    {"0\\AllMovie\\", &db_all_video},
    {"0\\LiveVideo\\", &db_live_video},
    {"0\\Document\\", &db_document_root},
};

// The leading decimal digits as a word; no digits give 0, and a number
// past 32 bits gives the largest word, which names no object.
static uint32_t id_word_at(const char* p)
{
    size_t digits = upnp_digit_run(p, SIZE_MAX);
    uint64_t v = 0;
    if (digits && !upnp_parse_u64(p, digits, &v))
        v = UINT32_MAX;
    return v > UINT32_MAX ? UINT32_MAX : uint32_t(v);
}

static db_object* id_walk(const char* text)
{
    db_object* o = db_root;
    for (const char* p = text;;) {
        o = db_container_find(o, id_word_at(p));
        if (!o)
            return nullptr;
        p = strchr(p, '$');
        if (!p)
            return o;
        p++;
    }
}

db_object* db_get_item_by_id(const char* text, const HTTP_request* request)
{
    if (!text)
        return nullptr;
    db_lock_guard hold;
    bool trace = upnp_log_channel_enabled(UPNP_LOG_DB);
    if (trace) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "### db_get_item_by_id0927 %s\n", text);
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "### db_get_item_by_id 2\n");
    }
    for (const id_alias& a : id_aliases)
        if (!strcmp(text, a.text) && *a.slot)
            return *a.slot;
    if (!strcmp(text, "0")) {
        // Such a client sees the music root as the whole server.
        if (request && db_music_root && db_client_has_flag(request, "AV:M"))
            return db_music_root;
        return db_root;
    }
    if (trace)
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "### db_get_item_by_id 3\n");
    db_object* o = id_walk(text);
    if (trace)
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "### db_get_item_by_id 4\n");
    return o;
}

static db_object* id_search_start(int32_t type)
{
    switch (type) {
    case DB_OBJ_AUDIO: return db_all_music;
    case DB_OBJ_AUDIO_BROADCAST: return db_all_radio;
    case DB_OBJ_PHOTO: return db_all_pictures ? db_all_pictures : db_picture_root;
    case DB_OBJ_VIDEO: return db_all_video;
    case DB_OBJ_VIDEO_BROADCAST: return db_live_video;
    case DB_OBJ_AUDIO_STREAM: return db_audio_stream;
    case DB_OBJ_DOCUMENT: return db_all_documents ? db_all_documents : db_document_root;
    default: return db_root;
    }
}

static bool id_is_below(const db_object* o, const db_object* top)
{
    for (const db_object* x = db_object_parent(o); x; x = db_object_parent(x))
        if (x == top)
            return true;
    return false;
}

// Depth first in array order, containers searched as they are met.
static db_object* id_search(db_object* top, uint32_t id)
{
    struct frame { db_object* c; int32_t next; };
    std::vector<frame> stack{{top, 0}};
    while (!stack.empty()) {
        frame& f = stack.back();
        if (f.next >= db_container_child_count(f.c)) {
            stack.pop_back();
            continue;
        }
        db_object* x = db_container_child(f.c, f.next++);
        if (x->id == id)
            return x;
        if (db_type_is_container(db_object_type_of(x)))
            stack.push_back({x, 0});
    }
    return nullptr;
}

db_object* db_get_pItem_by_id(uint32_t id)
{
    db_lock_guard hold;
    int32_t type = int32_t(id >> DB_ID_TYPE_SHIFT);
    db_object* top = id_search_start(type);
    if (!top)
        return nullptr;
    if (db_type_is_item(type)) {
        db_object* o = db_item_index_get(id);
        return o && id_is_below(o, top) ? o : nullptr;
    }
    return id_search(top, id);
}

static db_object* id_follow(db_object* o)
{
    return o && db_type_is_ref(db_object_type_of(o)) ? db_object_target(o) : o;
}

static void id_count_play(db_object* o, const char* path)
{
    int32_t plays = db_object_get_int(o, DBK_PLAY_COUNT);
    db_object_set_int(o, DBK_PLAY_COUNT, plays > 0 ? plays + 1 : 1);
    db_object_set_int(o, DBK_LAST_PLAYED, int32_t(time(nullptr)));
    db_last_played_update(o);
    db_most_played_update(o);
    db_record_rewrite(o, path);
}

char* db_get_res_by_id(const char* text, const HTTP_request* request, int32_t* duration)
{
    db_lock_guard hold;
    db_object* o = id_follow(db_get_item_by_id(text, request));
    if (!o || !db_type_is_item(db_object_type_of(o)))
        return nullptr;
    int32_t type;
    char* path = db_record_read_path(db_id_to_block(o->id), &type);
    if (duration) {
        int32_t seconds = db_object_get_int(o, DBK_DURATION);
        const char* extension = db_object_get_str(o, DBK_EXTENSION);
        *duration = extension && !strcasecmp(extension, "spts") ? -1 : seconds < 0 ? 0 : seconds;
    }
    if (path && db_object_type_of(o) == DB_OBJ_AUDIO)
        id_count_play(o, path);
    return path;
}

// A folder's cover is that of its first track with one; a folder that does
// not hold tracks has none.
static db_object* id_art_holder(db_object* o)
{
    if (!o || !db_type_is_container(db_object_type_of(o)))
        return id_follow(o);
    db_object* first = db_container_child(o, 0);
    if (!first || db_type_is_container(db_object_type_of(first)))
        return o;
    for (int32_t i = 0; i < db_container_child_count(o); i++) {
        db_object* child = db_container_child(o, i);
        if (db_object_get_int(child, DBK_ART_OFFSET) > 0)
            return id_follow(child);
    }
    return o;
}

char* db_get_album_art(const char* text, const HTTP_request* request, int64_t* offset, int64_t* length)
{
    *offset = *length = -1;
    char* path = nullptr;
    {
        db_lock_guard hold;
        db_object* o = id_art_holder(db_get_item_by_id(text, request));
        if (!o || !db_type_is_item(db_object_type_of(o)))
            return nullptr;
        int32_t type;
        path = db_record_read_path(db_id_to_block(o->id), &type);
        *offset = db_object_get_int(o, DBK_ART_OFFSET);
        *length = db_object_get_int(o, DBK_ART_SIZE);
    }
    // The folder is asked outside the lock: a slow disk stalls no Browse.
    if (db_art_resolver resolve = id_art_resolver.load())
        resolve(&path, offset, length);
    return path;
}

void db_set_art_resolver(db_art_resolver resolver)
{
    id_art_resolver = resolver;
}

int32_t db_get_dlna_managed(const char* text)
{
    db_lock_guard hold;
    db_object* o = db_get_item_by_id(text, nullptr);
    return o ? db_object_get_int(o, DBK_DLNA_MANAGED) : -1;
}

void db_clear_import_uri(const char* text)
{
    db_lock_guard hold;
    if (db_object* o = db_get_item_by_id(text, nullptr))
        db_object_set_str(o, DBK_MIME_OVERRIDE, nullptr);
}

// ---- Path index ----------------------------------------------------------------------

struct path_pair { uint32_t hash; uint32_t block; };   // block 0 marks a free slot: it is the header

static std::vector<path_pair> path_slots;              // db_lock
static int32_t path_count;                             // db_lock

uint32_t db_path_hash(const char* path)
{
    unsigned char buffer[256] = {};
    for (size_t i = 0; path && i < sizeof buffer && path[i]; i++) {
        unsigned char c = static_cast<unsigned char>(path[i]);
        buffer[i] = c >= 'A' && c <= 'Z' ? c + 32 : c;
    }
    uint32_t sum = 0;
    for (size_t i = 0; i < sizeof buffer; i += 4)
        sum += uint32_t(buffer[i]) | uint32_t(buffer[i + 1]) << 8 | uint32_t(buffer[i + 2]) << 16 |
               uint32_t(buffer[i + 3]) << 24;
    return sum;
}

// The index keys a path by a stronger hash of the same folded 256 bytes:
// the summed words of db_path_hash collide for every pair of paths that
// differ by the same digits in other places, and each collision costs a
// record read. Paths equal under db_path_hash's folding get equal keys, so
// the set of records that a lookup proves is the same.
static uint32_t path_key(const char* path)
{
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < 256 && path[i]; i++) {
        unsigned char c = static_cast<unsigned char>(path[i]);
        h = (h ^ (c >= 'A' && c <= 'Z' ? c + 32u : c)) * 16777619u;
    }
    return h;
}

static size_t path_home(uint32_t hash, size_t mask)
{
    hash ^= hash >> 16;
    hash *= 0x85EBCA6Bu;
    hash ^= hash >> 13;
    hash *= 0xC2B2AE35u;
    hash ^= hash >> 16;
    return hash & mask;
}

static void path_put(path_pair p)
{
    size_t mask = path_slots.size() - 1, i = path_home(p.hash, mask);
    while (path_slots[i].block)
        i = (i + 1) & mask;
    path_slots[i] = p;
}

void db_path_index_add(uint32_t block, const char* path)
{
    if (!block || !path)
        return;
    db_lock_guard hold;
    if (path_slots.empty())
        path_slots.assign(4096, path_pair{0, 0});
    if (size_t(path_count + 1) * 4 > path_slots.size() * 3) {
        std::vector<path_pair> old;
        old.swap(path_slots);
        path_slots.assign(old.size() * 2, path_pair{0, 0});
        for (const path_pair& p : old)
            if (p.block)
                path_put(p);
    }
    path_put({path_key(path), block});
    path_count++;
}

void db_path_index_free()
{
    db_lock_guard hold;
    path_slots.clear();
    path_slots.shrink_to_fit();
    path_count = 0;
}

int64_t db_path_index_bytes()
{
    db_lock_guard hold;
    return int64_t(path_slots.capacity() * sizeof(path_pair));
}

int32_t db_path_index_count()
{
    return path_count;
}

// Every pair with the path's key is proved against its record; file
// identity is exact, so the paths must match byte for byte.
uint32_t upnp_cds_db_file_get_id_by_res(const char* path)
{
    if (!path)
        return 0;
    db_lock_guard hold;
    if (path_slots.empty())
        return 0;
    uint32_t hash = path_key(path);
    size_t mask = path_slots.size() - 1;
    for (size_t i = path_home(hash, mask); path_slots[i].block; i = (i + 1) & mask) {
        if (path_slots[i].hash != hash)
            continue;
        int32_t type = 0;
        char* stored = db_record_read_path(path_slots[i].block, &type);
        bool same = stored && !strcmp(stored, path);
        free(stored);
        if (same)
            return db_make_id(path_slots[i].block, type);
    }
    return 0;
}

// ---- Lists ------------------------------------------------------------------------------

static const db_container* as_container(const db_object* c)
{
    return c && db_type_is_container(db_object_type_of(c)) ? reinterpret_cast<const db_container*>(c) : nullptr;
}

int32_t db_container_child_count(const db_object* c)
{
    const db_container* k = as_container(c);
    if (!k)
        return 0;
    db_children_settle(c);
    return k->child_count;
}

db_object* db_container_child(const db_object* c, int32_t index)
{
    const db_container* k = as_container(c);
    if (!k)
        return nullptr;
    db_children_settle(c);
    if (index < 0 || index >= k->child_count)
        return nullptr;
    return db_slot_object(db_array_ptr(k->children)[index]);
}

int db_container_child_is_ref(const db_object* c, int32_t index)
{
    const db_container* k = as_container(c);
    if (!k)
        return 0;
    db_children_settle(c);
    return index >= 0 && index < k->child_count && db_slot_is_ref(db_array_ptr(k->children)[index]);
}

db_object* db_container_find(const db_object* c, uint32_t id)
{
    const db_container* k = as_container(c);
    if (!k)
        return nullptr;
    db_lock_guard hold;
    // An item has one parent, so the index answers for item words at once.
    if (db_type_is_item(int32_t(id >> DB_ID_TYPE_SHIFT))) {
        db_object* o = db_item_index_get(id);
        return o && db_object_parent(o) == c ? o : nullptr;
    }
    db_children_settle(c);
    const db_child_slot* slots = db_array_ptr(k->children);
    for (int32_t i = 0; i < k->child_count; i++)
        if (db_slot_object(slots[i])->id == id)
            return db_slot_object(slots[i]);
    return nullptr;
}

int db_container_has(const db_object* c, const db_object* child)
{
    const db_container* k = as_container(c);
    if (!k || !child)
        return 0;
    db_lock_guard hold;
    uint32_t h = db_arena_handle(child);
    db_children_settle(c);
    const db_child_slot* slots = db_array_ptr(k->children);
    for (int32_t i = 0; i < k->child_count; i++)
        if ((slots[i].h & ~DB_SLOT_REF) == h)
            return 1;
    return 0;
}

db_object* db_container_find_title(const db_object* c, const char* title)
{
    if (!title)
        return nullptr;
    db_lock_guard hold;
    return db_title_index_find(c, title);
}

int32_t db_container_children(const db_object* c, db_object** out, int32_t max)
{
    db_lock_guard hold;
    int32_t n = db_container_child_count(c);
    n = n < max ? n : max;
    for (int32_t i = 0; i < n; i++)
        out[i] = db_container_child(c, i);
    return n < 0 ? 0 : n;
}

// Unlike every other change this one neither raises update_id nor makes
// the tree dirty: the pending bit alone carries it to the next event.
void db_container_clear_items(db_object* c)
{
    if (!as_container(c))
        return;
    db_lock_guard hold;
    db_container* k = reinterpret_cast<db_container*>(c);
    db_children_settle(c);
    std::vector<db_object*> keep, drop;
    for (int32_t i = 0; i < k->child_count; i++) {
        db_object* x = db_container_child(c, i);
        (db_object_type_of(x) >= 12 ? drop : keep).push_back(x);
    }
    if (drop.empty())
        return;
    int32_t old_cap = db_children_capacity(k->child_count), cap = db_children_capacity(int32_t(keep.size()));
    uint32_t h = cap ? db_array_alloc(cap) : 0;
    if (cap && !h)
        return;
    for (size_t i = 0; i < keep.size(); i++)
        db_array_ptr(h)[i] = db_slot_of(keep[i]);
    db_array_free(k->children, old_cap);
    db_used_mem -= 4 * int64_t(old_cap - cap);
    k->children = h;
    k->child_count = int32_t(keep.size());
    db_title_index_reordered(c);
    for (db_object* x : drop)
        db_object_free(x);
    k->state = (k->state | DB_STATE_EVENT_PENDING) & ~DB_STATE_SORTED;
    db_note_tree_change();
}
