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
// first, as they are few and their containers small.
//
// Lock: everything runs under db_lock; the path lookup takes it itself, as
// a host may ask without it. The sort state is global and relies on it.
#include "database/db_object.h"

#include "config/upnp_ini.h"
#include "control/upnp_control.h"
#include "control/upnp_log.h"
#include "database/db_playlist.h"
#include "database/db_store.h"
#include "media/upnp_albumart.h"
#include "runtime/upnp_pages.h"
#include "runtime/upnp_string.h"
#include "upnp/upnp_cds.h"

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

uint32_t db_next_id(int32_t type)
{
    db_lock_guard hold;
    uint32_t t = uint32_t(type) & 31;
    return t << DB_ID_TYPE_SHIFT | (++id_counters[t] & DB_ID_SEQ_MASK);
}

uint32_t db_make_id(uint32_t block, int32_t type)
{
    return (uint32_t(type) & 31) << DB_ID_TYPE_SHIFT | ((block + uint32_t(oid_seed)) & DB_ID_SEQ_MASK);
}

uint32_t db_id_to_block(uint32_t id)
{
    return ((id & DB_ID_SEQ_MASK) - uint32_t(oid_seed)) & DB_ID_SEQ_MASK;
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
    upnp_albumart_resolve(&path, offset, length);
    return path;
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
    return k ? k->child_count : 0;
}

db_object* db_container_child(const db_object* c, int32_t index)
{
    const db_container* k = as_container(c);
    if (!k || index < 0 || index >= k->child_count)
        return nullptr;
    return db_obj(db_array_ptr(k->children)[index].h);
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
    const db_child_slot* slots = db_array_ptr(k->children);
    for (int32_t i = 0; i < k->child_count; i++)
        if (db_obj(slots[i].h)->id == id)
            return db_obj(slots[i].h);
    return nullptr;
}

int db_container_has(const db_object* c, const db_object* child)
{
    const db_container* k = as_container(c);
    if (!k || !child)
        return 0;
    db_lock_guard hold;
    uint32_t h = db_arena_handle(child);
    const db_child_slot* slots = db_array_ptr(k->children);
    for (int32_t i = 0; i < k->child_count; i++)
        if (slots[i].h == h)
            return 1;
    return 0;
}

db_object* db_container_find_title(const db_object* c, const char* title)
{
    if (!title)
        return nullptr;
    db_lock_guard hold;
    for (int32_t i = 0; i < db_container_child_count(c); i++) {
        db_object* x = db_container_child(c, i);
        if (db_type_is_container(db_object_type_of(x)) && !strcmp(db_object_get_str(x, DBK_TITLE), title))
            return x;
    }
    return nullptr;
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
        db_array_ptr(h)[i].h = db_arena_handle(keep[i]);
    db_array_free(k->children, old_cap);
    db_used_mem -= 4 * int64_t(old_cap - cap);
    k->children = h;
    k->child_count = int32_t(keep.size());
    for (db_object* x : drop)
        db_object_free(x);
    k->state = (k->state | DB_STATE_EVENT_PENDING) & ~DB_STATE_SORTED;
}

// ---- Sorting -------------------------------------------------------------------------------

static char sort_criteria[1024];                       // db_lock
static int32_t sort_criteria_length;                   // db_lock
static int sort_shuffle;                               // db_lock
static int sort_no_utf8;                               // db_lock
static char sort_allname[1024];                        // db_lock: option allname, fetched once
static int sort_allname_fetched;                       // db_lock

void db_sort_prepare(const char* criteria, int32_t container_type, const HTTP_request* request)
{
    db_lock_guard hold;
    sort_shuffle = 0;
    sort_no_utf8 = db_client_has_flag(request, "XM:NOUTF8SORT");
    if (criteria && *criteria) {
        if (strstr(criteria, "Philips:shuffle")) {
            // The seed has always been read from the text at the last ':',
            // which is no number, so it is 0: the player gets the same
            // shuffle every time.
            srand(0u);
            sort_shuffle = 1;
        }
    } else {
        criteria = container_type == DB_OBJ_MUSIC_CONTAINER ? "+dc:title,+dc:date" : "-dc:date";
    }
    snprintf(sort_criteria, sizeof sort_criteria, "%s", criteria);
    sort_criteria_length = int32_t(strlen(sort_criteria));
}

void db_sort_reset()
{
    sort_allname_fetched = 0;
    sort_shuffle = 0;
    sort_no_utf8 = 0;
}

static const char* sort_get_allname()
{
    if (!sort_allname_fetched) {
        const char* v = upnp_ini_get_string(UPNP_OPT_ALLNAME);
        snprintf(sort_allname, sizeof sort_allname, "%s", v ? v : "");
        sort_allname_fetched = 1;
    }
    return sort_allname[0] ? sort_allname : nullptr;
}

int db_fold_char(int first, int next)
{
    return upnp_fold_char(first, next);
}

int db_compare_text(const char* a, const char* b)
{
    return upnp_strcmp_folded(a, b);
}

// The null rules every comparison starts with; 2 when both are set.
static int compare_nulls(const void* a, const void* b)
{
    if (!a || !b)
        return a == b ? 0 : (a ? 1 : -1);
    return 2;
}

int db_compare_title(const db_object* a, const db_object* b)
{
    const char* ta = db_object_get_str(a, DBK_TITLE);
    const char* tb = db_object_get_str(b, DBK_TITLE);
    int r = compare_nulls(ta, tb);
    if (r != 2)
        return r;
    // The "All" folder sorts first, whatever its letters.
    if (const char* all = sort_get_allname()) {
        if (!strcmp(ta, all))
            return -1;
        if (!strcmp(tb, all))
            return 1;
    }
    return sort_no_utf8 ? strcasecmp(ta, tb) : db_compare_text(ta, tb);
}

static int compare_key(const db_object* a, const db_object* b, int32_t key)
{
    const char* ta = db_object_get_str(a, key);
    const char* tb = db_object_get_str(b, key);
    int r = compare_nulls(ta, tb);
    if (r != 2)
        return r;
    return sort_no_utf8 ? strcasecmp(ta, tb) : db_compare_text(ta, tb);
}

int db_compare_artist(const db_object* a, const db_object* b) { return compare_key(a, b, DBK_ARTIST); }
int db_compare_album(const db_object* a, const db_object* b) { return compare_key(a, b, DBK_ALBUM); }
int db_compare_genre(const db_object* a, const db_object* b) { return compare_key(a, b, DBK_GENRE); }

static int compare_numbers(int32_t a, int32_t b)
{
    return a < b ? -1 : (a > b ? 1 : 0);
}

int db_compare_date(const db_object* a, const db_object* b)
{
    const char* da = db_object_get_str(a, DBK_DATE);
    const char* db = db_object_get_str(b, DBK_DATE);
    int r = compare_nulls(da, db);
    if (r != 2)
        return r;
    if ((r = strcmp(da, db)) != 0)
        return r < 0 ? -1 : 1;
    int32_t ma = db_object_get_int(a, DBK_MTIME), mb = db_object_get_int(b, DBK_MTIME);
    if (ma == 0 && mb != 0)
        return -1;
    if (ma != 0 && mb == 0)
        return 1;
    return compare_numbers(ma, mb);
}

int db_compare_track(const db_object* a, const db_object* b)
{
    return compare_numbers(db_object_get_int(a, DBK_TRACK), db_object_get_int(b, DBK_TRACK));
}

int db_compare_rating(const db_object* a, const db_object* b)
{
    return compare_numbers(db_object_get_int(a, DBK_RATING), db_object_get_int(b, DBK_RATING));
}

typedef int (*sort_comparator)(const db_object*, const db_object*);
struct sort_field { const char* name; sort_comparator compare; };

// Tokens match by prefix, in this order.
static const sort_field sort_fields[] = {
    {"dc:title", db_compare_title},
    {"upnp:originalTrackNumber", db_compare_track},
    {"upnp:artist", db_compare_artist},
    {"dc:creator", db_compare_artist},
    {"upnp:album", db_compare_album},
    {"upnp:genre", db_compare_genre},
    {"dc:date", db_compare_date},
    {"pv:rating", db_compare_rating},
};

static sort_comparator sort_field_of(const char* token)
{
    for (const sort_field& f : sort_fields)
        if (!strncmp(token, f.name, strlen(f.name)))
            return f.compare;
    return nullptr;
}

static int sort_objects_compare(const db_object* a, const db_object* b)
{
    if (sort_shuffle)
        return rand() % 10 > 4 ? -1 : 1;
    int sign = 1;
    for (const char* p = sort_criteria; *p;) {
        sign = 1;
        if (*p == '+')
            p++;
        else if (*p == '-')
            p++, sign = -1;
        // Containers first; the test is one-sided, as it always was.
        if (db_type_is_container(db_object_type_of(a)) && !db_type_is_container(db_object_type_of(b)))
            return -1;
        sort_comparator compare = sort_field_of(p);
        int r = compare ? compare(a, b) : 0;
        if (r)
            return r * sign;
        const char* end = strchr(p, ',');
        p = end ? end + 1 : p + strlen(p);
    }
    return db_compare_title(a, b) * sign;
}

int db_sort_compare(const void* a, const void* b)
{
    return sort_objects_compare(*static_cast<db_object* const*>(a), *static_cast<db_object* const*>(b));
}

// One pass of a bottom-up merge sort: runs of `width` merge in pairs, each
// left run first copied out to `spare` (at least `width` long), so the
// scratch is half the list at most. It reads and writes only inside the
// list and the spare whatever the comparator answers, which the shuffle's
// coin tosses need.
template <typename T, typename Less>
static void sort_merge_pass(T* v, size_t n, size_t width, T* spare, Less& before)
{
    for (size_t lo = 0; lo + width < n; lo += 2 * width) {
        size_t mid = lo + width, hi = mid + width < n ? mid + width : n;
        memcpy(static_cast<void*>(spare), v + lo, width * sizeof *v);
        size_t i = 0, j = mid, k = lo;
        while (i < width && j < hi)
            v[k++] = before(v[j], spare[i]) ? v[j++] : spare[i++];
        while (i < width)
            v[k++] = spare[i++];
    }
}

// Scratch memory of one sort, shared by its phases. A large list gets a
// mapping of its own, which the page layer backs with huge pages: the
// first touch of tens of megabytes of fresh small pages cost more than the
// sort itself. Below that the heap, whose memory is mostly warm already,
// serves better.
struct sort_scratch {
    static constexpr size_t MAPPED_FROM = size_t(4) << 20;
    void* data = nullptr;
    size_t bytes = 0;

    explicit sort_scratch(size_t size) : bytes(size)
    {
        data = bytes >= MAPPED_FROM ? upnp_pages_map(bytes) : malloc(bytes ? bytes : 1);
    }
    ~sort_scratch()
    {
        if (bytes >= MAPPED_FROM)
            upnp_pages_release(data, bytes);
        else
            free(data);
    }
    template <typename T>
    T* as() const { return static_cast<T*>(data); }
    sort_scratch(const sort_scratch&) = delete;
    sort_scratch& operator=(const sort_scratch&) = delete;
};

// The merge's spare run: half the list, rounded up to a power of two.
static size_t sort_spare_count(size_t n)
{
    size_t spare = 1;
    while (spare * 2 < n)
        spare *= 2;
    return spare;
}

// The narrow passes run one block at a time (block a power of two, or 1
// for none) so that a large list is not streamed through memory once per
// width. Every merge still sees the same two runs as when all blocks go
// width by width, so the order comes out the same; only the order of the
// comparisons changes, which the shuffle cannot allow.
template <typename T, typename Less>
static void sort_merge(T* v, size_t n, Less before, size_t block, T* spare)
{
    for (size_t lo = 0; block > 1 && lo < n; lo += block) {
        size_t len = n - lo < block ? n - lo : block;
        for (size_t w = 1; w < len; w *= 2)
            sort_merge_pass(v + lo, len, w, spare, before);
    }
    for (size_t width = block > 1 ? block : 1; width < n; width *= 2)
        sort_merge_pass(v, n, width, spare, before);
}

// What a sort needs of an object, fetched once: a large list then sorts a
// small entry per object in its own array instead of visiting every object
// and title again at each comparison. The keys hold the first 16 folded
// positions of the title, one byte each (end 0, else the signed folded
// character + 128): keys that differ order their titles as db_compare_text
// does; equal keys say nothing and the texts are compared. Each entry knows
// the object's position in the list, which breaks ties, so the entries may
// be made in any order and still sort as the list stood.
enum : uint32_t {
    SORT_POSITION = (1u << 29) - 1,
    SORT_TITLE = 1u << 29,
    SORT_CONTAINER = 1u << 30,
    SORT_ALL = 1u << 31,
};

struct sort_entry {
    uint64_t key[2];
    uint32_t handle;                                    // the object's arena handle
    uint32_t place;                                     // position in the list | SORT_* bits
};

// The criteria read once per sort: one step per token, in order.
struct sort_step { sort_comparator compare; int sign; };

struct sort_run {
    std::vector<sort_step> steps;
    int last_sign = 1;
};

static void sort_read_criteria(sort_run& run)
{
    for (const char* p = sort_criteria; *p;) {
        sort_step s = {nullptr, 1};
        if (*p == '+')
            p++;
        else if (*p == '-')
            p++, s.sign = -1;
        s.compare = sort_field_of(p);
        run.steps.push_back(s);
        run.last_sign = s.sign;
        const char* end = strchr(p, ',');
        p = end ? end + 1 : p + strlen(p);
    }
}

static int sort_fold_at(const char* p)
{
    return static_cast<signed char>(toupper(db_fold_char(uint8_t(p[0]), uint8_t(p[1])) & 0xFF));
}

static sort_entry sort_entry_of(db_object* o, uint32_t position)
{
    const char* title = db_object_get_str(o, DBK_TITLE);
    sort_entry e = {{0, 0}, db_arena_handle(o), position};
    if (db_type_is_container(db_object_type_of(o)))
        e.place |= SORT_CONTAINER;
    const char* all = sort_get_allname();
    if (title)
        e.place |= SORT_TITLE | (all && !strcmp(title, all) ? SORT_ALL : 0u);
    bool ended = !title || sort_no_utf8;
    for (int i = 0; i < 16; i++) {
        ended = ended || title[i] == 0;
        e.key[i / 8] = e.key[i / 8] << 8 | (ended ? 0 : uint64_t(sort_fold_at(title + i) + 128));
    }
    return e;
}

static int sort_entry_title(const sort_entry& a, const sort_entry& b)
{
    if (!(a.place & b.place & SORT_TITLE))
        return (a.place & SORT_TITLE) == (b.place & SORT_TITLE) ? 0 : (a.place & SORT_TITLE ? 1 : -1);
    // Several titles equal to the "All" folder's would each go first; they
    // keep their places in the list instead.
    if (a.place & b.place & SORT_ALL)
        return 0;
    if (a.place & SORT_ALL)
        return -1;
    if (b.place & SORT_ALL)
        return 1;
    for (int i = 0; i < 2; i++)
        if (a.key[i] != b.key[i])
            return a.key[i] < b.key[i] ? -1 : 1;
    // Rare enough to fetch the titles again rather than hold them all.
    const char* ta = db_object_get_str(db_obj(a.handle), DBK_TITLE);
    const char* tb = db_object_get_str(db_obj(b.handle), DBK_TITLE);
    return sort_no_utf8 ? strcasecmp(ta, tb) : db_compare_text(ta, tb);
}

// sort_objects_compare on fetched entries; the same answers.
static int sort_entries_compare(const sort_run& run, const sort_entry& a, const sort_entry& b)
{
    if (sort_shuffle)
        return rand() % 10 > 4 ? -1 : 1;
    if (!run.steps.empty() && (a.place & SORT_CONTAINER) && !(b.place & SORT_CONTAINER))
        return -1;
    for (const sort_step& s : run.steps) {
        int r = s.compare == db_compare_title ? sort_entry_title(a, b)
                : s.compare                   ? s.compare(db_obj(a.handle), db_obj(b.handle))
                                              : 0;
        if (r)
            return r * s.sign;
    }
    return sort_entry_title(a, b) * run.last_sign;
}

// A list in scan order visits its objects in no order of memory, and in a
// large library each visit is a cache miss. So a long list is visited in
// the order of the objects' handles, which walks the arena and the pool
// (whose titles were interned in the same order) front to back: a radix
// sort of (handle, position) pairs, 11 bits a pass. The shuffle keeps the
// list's own order, as its coin tosses depend on it.
static constexpr int32_t SORT_BY_HANDLE_FROM = 4096;

static bool sort_by_handle(int32_t count)
{
    return count >= SORT_BY_HANDLE_FROM && !sort_shuffle;
}

// scratch: room for two arrays of count pairs when sorting by handle.
static void sort_fill(db_object* const* objects, int32_t count, sort_entry* order, uint64_t* scratch)
{
    if (!sort_by_handle(count)) {
        for (int32_t i = 0; i < count; i++)
            order[i] = sort_entry_of(objects[i], uint32_t(i));
        return;
    }
    uint64_t* from = scratch;
    uint64_t* to = scratch + count;
    for (int32_t i = 0; i < count; i++)
        from[i] = uint64_t(db_arena_handle(objects[i])) << 32 | uint32_t(i);
    for (int shift = 32; shift < 64; shift += 11) {
        uint32_t starts[2048] = {};
        for (int32_t i = 0; i < count; i++)
            starts[from[i] >> shift & 2047]++;
        for (uint32_t d = 0, at = 0; d < 2048; d++) {
            uint32_t n = starts[d];
            starts[d] = at;
            at += n;
        }
        for (int32_t i = 0; i < count; i++)
            to[starts[from[i] >> shift & 2047]++] = from[i];
        std::swap(from, to);
    }
    // The pair holds the handle, so the list itself is not read out of order.
    for (int32_t k = 0; k < count; k++)
        order[k] = sort_entry_of(db_obj(uint32_t(from[k] >> 32)), uint32_t(from[k]));
}

// Fills `order` with the objects' entries in sorted order; 0 when there
// was no memory for it, and then the list stays as it was.
static int sort_order(db_object* const* objects, int32_t count, sort_entry* order)
{
    sort_run run;
    sort_read_criteria(run);
    size_t n = size_t(count), spare_bytes = sort_spare_count(n) * sizeof(sort_entry);
    size_t pair_bytes = sort_by_handle(count) ? 2 * n * sizeof(uint64_t) : 0;
    sort_scratch scratch{spare_bytes > pair_bytes ? spare_bytes : pair_bytes};
    if (!scratch.data)
        return 0;
    sort_fill(objects, count, order, scratch.as<uint64_t>());
    auto before = [&run](const sort_entry& x, const sort_entry& y) {
        int r = sort_entries_compare(run, x, y);
        return r < 0 || (r == 0 && (x.place & SORT_POSITION) < (y.place & SORT_POSITION));
    };
    // 4096 entries and their copies fit a core's own cache.
    sort_merge(order, n, before, sort_shuffle ? 1 : 4096, scratch.as<sort_entry>());
    return 1;
}

static bool sort_into(db_object* const* objects, int32_t count, sort_scratch& order)
{
    if (count <= int32_t(SORT_POSITION) && order.data && sort_order(objects, count, order.as<sort_entry>()))
        return true;
    upnp_log(UPNP_LOG_ERROR, UPNP_LOG_DB, "sort: no memory for %d objects\n", count);
    return false;
}

void db_sort_objects(db_object** objects, int32_t count)
{
    if (!objects || count < 2)
        return;
    db_lock_guard hold;
    sort_scratch order{size_t(count) * sizeof(sort_entry)};
    if (!sort_into(objects, count, order))
        return;
    for (int32_t i = 0; i < count; i++)
        objects[i] = db_obj(order.as<sort_entry>()[i].handle);
}

void db_container_sort(db_object* c)
{
    if (!as_container(c))
        return;
    db_lock_guard hold;
    db_container* k = reinterpret_cast<db_container*>(c);
    if (k->child_count > 1) {
        std::vector<db_object*> children(static_cast<size_t>(k->child_count));
        for (size_t i = 0; i < children.size(); i++)
            children[i] = db_container_child(c, int32_t(i));
        sort_scratch order{children.size() * sizeof(sort_entry)};
        if (!sort_into(children.data(), k->child_count, order))
            return;
        db_child_slot* slots = db_array_ptr(k->children);
        for (size_t i = 0; i < children.size(); i++)
            slots[i].h = order.as<sort_entry>()[i].handle;
    }
    k->state |= DB_STATE_SORTED;
}
