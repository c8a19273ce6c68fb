// db_store.cpp: the memory under the content tree. The object arena and
// the string pool are each one reservation of address space, committed in
// 2 MiB steps as they fill, so a 32-bit handle is an offset and a record
// costs exactly its size. Freed object blocks go to a free list of their
// exact size, which the next record of that size takes. Large children
// arrays get mappings of their own that grow in place or move by page
// tables, never by copying, so a container of a million items grows in
// linear time. The pool and the item index are hash tables that double,
// so neither degrades with the size of the library.
//
// Lock: db_lock over everything here, as over the tree. Order of work at
// db_destroy: the tree is dropped by db_arena_reset, then the pool and the
// indexes are reset.
#include "database/db_store.h"

#include "runtime/upnp_pages.h"

#include <cstring>
#include <vector>

// ---- Object arena -----------------------------------------------------------

static constexpr size_t ARENA_COMMIT_STEP = size_t(2) << 20;  // a huge page: untouched pages cost nothing
static constexpr size_t ARENA_SMALL_MAX = 8192;        // slot arrays reach 6006 bytes
static constexpr size_t ARENA_FIRST = 16;              // offset 0 is the null handle

char* db_arena_base;                                    // db_lock
static size_t arena_reserved;                           // db_lock: bytes of address space
static size_t arena_committed;                          // db_lock
static size_t arena_top = ARENA_FIRST;                  // db_lock: bump offset
static size_t arena_live;                               // db_lock: bytes handed out
static uint32_t arena_free_heads[ARENA_SMALL_MAX / 2 + 1];   // db_lock: by size in units

// Handles count 2-byte units and large arrays take the top bit, so the
// arena can span 4 GiB; smaller reservations are tried where address
// space is scarce.
static int arena_open()
{
    for (size_t size = size_t(1) << 32; size >= (size_t(64) << 20); size /= 2) {
        db_arena_base = static_cast<char*>(upnp_pages_reserve(size));
        if (db_arena_base) {
            arena_reserved = size;
            return 1;
        }
    }
    return 0;
}

static int arena_grow(size_t need)
{
    if (!db_arena_base && !arena_open())
        return 0;
    if (need > arena_reserved)
        return 0;
    size_t target = (need + ARENA_COMMIT_STEP - 1) / ARENA_COMMIT_STEP * ARENA_COMMIT_STEP;
    if (target > arena_reserved)
        target = arena_reserved;
    if (!upnp_pages_commit(db_arena_base + arena_committed, target - arena_committed))
        return 0;
    arena_committed = target;
    return 1;
}

uint32_t db_arena_alloc(size_t bytes)
{
    if (bytes < 4 || bytes > ARENA_SMALL_MAX || (bytes & 1))
        return 0;
    uint32_t& head = arena_free_heads[bytes / 2];
    if (head) {
        uint32_t h = head;
        memcpy(&head, db_arena_ptr(h), 4);
        memset(db_arena_ptr(h), 0, bytes);
        arena_live += bytes;
        return h;
    }
    if (arena_top + bytes > arena_committed && !arena_grow(arena_top + bytes))
        return 0;
    uint32_t h = uint32_t(arena_top / 2);
    arena_top += bytes;
    arena_live += bytes;
    return h;
}

void db_arena_free(uint32_t h, size_t bytes)
{
    if (!h || bytes < 4 || bytes > ARENA_SMALL_MAX)
        return;
    uint32_t& head = arena_free_heads[bytes / 2];
    memcpy(db_arena_ptr(h), &head, 4);
    head = h;
    arena_live -= bytes;
}

size_t db_arena_resident()
{
    return arena_live;
}

// ---- Children arrays --------------------------------------------------------

static constexpr uint32_t ARRAY_LARGE = 0x80000000u;
static constexpr int32_t ARRAY_SMALL_CAP = int32_t(ARENA_SMALL_MAX / 2 / sizeof(db_child_slot));

struct array_large { void* base; size_t bytes; };
static std::vector<array_large> array_table;            // db_lock
static std::vector<uint32_t> array_table_free;          // db_lock: unused indexes

int32_t db_children_capacity(int32_t count)
{
    if (count <= 0)
        return 0;
    if (count <= 100)
        return (count + 9) / 10 * 10;
    return int32_t((int64_t(count) + 99) / 100 * 100);
}

db_child_slot* db_array_ptr(uint32_t h)
{
    if (!h)
        return nullptr;
    if (h & ARRAY_LARGE)
        return static_cast<db_child_slot*>(array_table[h & ~ARRAY_LARGE].base);
    return static_cast<db_child_slot*>(db_arena_ptr(h));
}

static uint32_t array_large_new(size_t bytes)
{
    void* p = upnp_pages_map(bytes);
    if (!p)
        return 0;
    uint32_t index;
    if (!array_table_free.empty()) {
        index = array_table_free.back();
        array_table_free.pop_back();
        array_table[index] = {p, bytes};
    } else {
        index = uint32_t(array_table.size());
        array_table.push_back({p, bytes});
    }
    return ARRAY_LARGE | index;
}

uint32_t db_array_alloc(int32_t capacity)
{
    size_t bytes = size_t(capacity) * sizeof(db_child_slot);
    if (capacity <= 0)
        return 0;
    return capacity <= ARRAY_SMALL_CAP ? db_arena_alloc(bytes) : array_large_new(bytes);
}

void db_array_free(uint32_t h, int32_t capacity)
{
    if (!h)
        return;
    if (!(h & ARRAY_LARGE)) {
        db_arena_free(h, size_t(capacity) * sizeof(db_child_slot));
        return;
    }
    array_large& a = array_table[h & ~ARRAY_LARGE];
    upnp_pages_release(a.base, a.bytes);
    a = {nullptr, 0};
    array_table_free.push_back(h & ~ARRAY_LARGE);
}

uint32_t db_array_resize(uint32_t h, int32_t old_cap, int32_t new_cap, int32_t keep)
{
    if (h & ARRAY_LARGE && new_cap > ARRAY_SMALL_CAP) {
        array_large& a = array_table[h & ~ARRAY_LARGE];
        size_t bytes = size_t(new_cap) * sizeof(db_child_slot);
        void* p = upnp_pages_remap(a.base, a.bytes, bytes);
        if (!p)
            return 0;
        a = {p, bytes};
        return h;
    }
    uint32_t n = db_array_alloc(new_cap);
    if (!n)
        return 0;
    if (keep > 0)
        memcpy(db_array_ptr(n), db_array_ptr(h), size_t(keep) * sizeof(db_child_slot));
    db_array_free(h, old_cap);
    return n;
}

static void array_reset()
{
    for (array_large& a : array_table)
        upnp_pages_release(a.base, a.bytes);
    array_table.clear();
    array_table.shrink_to_fit();
    array_table_free.clear();
    array_table_free.shrink_to_fit();
}

void db_arena_reset()
{
    array_reset();
    if (db_arena_base && arena_committed)
        upnp_pages_decommit(db_arena_base, arena_committed);
    arena_committed = 0;
    arena_top = ARENA_FIRST;
    arena_live = 0;
    memset(arena_free_heads, 0, sizeof arena_free_heads);
}

// ---- String pool ------------------------------------------------------------
// An entry is next (4 bytes), refs (4 bytes), the text and its NUL; its
// handle is the offset of the text. Together with the bucket word that
// makes the 13 bytes plus length that the account counts.

static constexpr size_t POOL_ENTRY_HEAD = 8;
static constexpr size_t POOL_FIRST = 8;                 // offset 0 is the null handle

static char* pool_base;                                 // db_lock
static size_t pool_reserved, pool_committed;            // db_lock
static size_t pool_top = POOL_FIRST;                    // db_lock
static std::vector<uint32_t> pool_buckets;              // db_lock: entry offsets, 0 ends a chain
static int32_t db_pool_entries;                         // db_lock
static int64_t db_pool_used;                            // db_lock

static uint32_t pool_hash(const char* text, size_t* length)
{
    uint32_t h = 2166136261u;
    const char* p = text;
    for (; *p; p++)
        h = (h ^ uint8_t(*p)) * 16777619u;
    *length = size_t(p - text);
    return h;
}

static uint32_t pool_get32(size_t offset)
{
    uint32_t v;
    memcpy(&v, pool_base + offset, 4);
    return v;
}

static void pool_set32(size_t offset, uint32_t v)
{
    memcpy(pool_base + offset, &v, 4);
}

static int pool_grow(size_t need)
{
    if (!pool_base) {
        for (size_t size = size_t(1) << 32; !pool_base && size >= (size_t(64) << 20); size /= 2)
            if ((pool_base = static_cast<char*>(upnp_pages_reserve(size))))
                pool_reserved = size;
        if (!pool_base)
            return 0;
    }
    if (need > pool_reserved)
        return 0;
    size_t target = (need + ARENA_COMMIT_STEP - 1) / ARENA_COMMIT_STEP * ARENA_COMMIT_STEP;
    target = target > pool_reserved ? pool_reserved : target;
    if (!upnp_pages_commit(pool_base + pool_committed, target - pool_committed))
        return 0;
    pool_committed = target;
    return 1;
}

static void pool_rehash(size_t buckets)
{
    std::vector<uint32_t> old;
    old.swap(pool_buckets);
    pool_buckets.assign(buckets, 0);
    for (uint32_t chain : old)
        while (chain) {
            uint32_t next = pool_get32(chain);
            size_t length;
            uint32_t& slot = pool_buckets[pool_hash(pool_base + chain + POOL_ENTRY_HEAD, &length) & (buckets - 1)];
            pool_set32(chain, slot);
            slot = chain;
            chain = next;
        }
}

static uint32_t pool_append(const char* text, size_t length, uint32_t& bucket)
{
    size_t entry = pool_top, size = POOL_ENTRY_HEAD + length + 1;
    if (entry + size > pool_committed && !pool_grow(entry + size))
        return 0;
    pool_set32(entry, bucket);
    pool_set32(entry + 4, 1);
    memcpy(pool_base + entry + POOL_ENTRY_HEAD, text, length + 1);
    pool_top += size;
    bucket = uint32_t(entry);
    db_pool_entries++;
    db_pool_used += int64_t(length) + 13;
    return uint32_t(entry + POOL_ENTRY_HEAD);
}

uint32_t db_pool_intern(const char* text)
{
    if (!text)
        return 0;
    if (pool_buckets.empty())
        pool_buckets.assign(1024, 0);
    size_t length;
    uint32_t hash = pool_hash(text, &length);
    if (length >= (size_t(1) << 31))
        return 0;
    for (uint32_t e = pool_buckets[hash & (pool_buckets.size() - 1)]; e; e = pool_get32(e))
        if (!strcmp(pool_base + e + POOL_ENTRY_HEAD, text)) {
            pool_set32(e + 4, pool_get32(e + 4) + 1);
            return uint32_t(e + POOL_ENTRY_HEAD);
        }
    if (size_t(db_pool_entries) >= pool_buckets.size())
        pool_rehash(pool_buckets.size() * 2);
    return pool_append(text, length, pool_buckets[hash & (pool_buckets.size() - 1)]);
}

const char* db_pool_text(uint32_t h)
{
    if (h < POOL_FIRST + POOL_ENTRY_HEAD || h >= pool_top)
        return nullptr;
    return pool_base + h;
}

uint32_t db_pool_handle_of(const char* text)
{
    if (!text || !pool_base || text < pool_base + POOL_FIRST + POOL_ENTRY_HEAD || text >= pool_base + pool_top)
        return 0;
    return uint32_t(text - pool_base);
}

uint32_t db_string_pool_refs(const char* pooled)
{
    uint32_t h = db_pool_handle_of(pooled);
    // Only the start of an entry's text counts: a pointer into the middle
    // of one is not a pooled text.
    if (!h)
        return 0;
    size_t length;
    uint32_t hash = pool_hash(pooled, &length);
    for (uint32_t e = pool_buckets[hash & (pool_buckets.size() - 1)]; e; e = pool_get32(e))
        if (e + POOL_ENTRY_HEAD == h)
            return pool_get32(e + 4);
    return 0;
}

void db_pool_reset()
{
    if (pool_base && pool_committed)
        upnp_pages_decommit(pool_base, pool_committed);
    pool_committed = 0;
    pool_top = POOL_FIRST;
    pool_buckets.clear();
    pool_buckets.shrink_to_fit();
    db_pool_entries = 0;
    db_pool_used = 0;
}

const char* db_string_pool_add(const char* text)
{
    return db_pool_text(db_pool_intern(text));
}

void db_string_pool_init()
{
    db_pool_reset();
}

void db_string_pool_clear()
{
    db_pool_reset();
}

int32_t db_string_pool_count()
{
    return db_pool_entries;
}

int64_t db_string_pool_get_used_mem()
{
    return db_pool_used;
}

// ---- Item index -------------------------------------------------------------
// Open addressing over object handles, keyed by the id word that each
// object holds, so a slot costs 4 bytes. Linear probing with deletion by
// moving the following run back.

static std::vector<uint32_t> item_slots;                // db_lock
static size_t item_count;                               // db_lock

static size_t item_home(uint32_t id, size_t mask)
{
    return size_t(id * 2654435761u) & mask;
}

static void item_insert(uint32_t h)
{
    size_t mask = item_slots.size() - 1;
    size_t i = item_home(db_obj(h)->id, mask);
    while (item_slots[i])
        i = (i + 1) & mask;
    item_slots[i] = h;
}

static void item_rehash(size_t size)
{
    std::vector<uint32_t> old;
    old.swap(item_slots);
    item_slots.assign(size, 0);
    for (uint32_t h : old)
        if (h)
            item_insert(h);
}

void db_item_index_put(db_object* item)
{
    if (item_slots.empty())
        item_slots.assign(1024, 0);
    if ((item_count + 1) * 4 > item_slots.size() * 3)
        item_rehash(item_slots.size() * 2);
    item_insert(db_arena_handle(item));
    item_count++;
}

void db_item_index_drop(db_object* item)
{
    if (item_slots.empty())
        return;
    uint32_t h = db_arena_handle(item);
    size_t mask = item_slots.size() - 1, i = item_home(item->id, mask);
    while (item_slots[i] && item_slots[i] != h)
        i = (i + 1) & mask;
    if (!item_slots[i])
        return;
    item_slots[i] = 0;
    item_count--;
    for (size_t j = (i + 1) & mask; item_slots[j]; j = (j + 1) & mask) {
        size_t home = item_home(db_obj(item_slots[j])->id, mask);
        // The entry at j may move into the hole at i unless its home lies
        // cyclically in (i, j].
        bool stays = i <= j ? (home > i && home <= j) : (home > i || home <= j);
        if (!stays) {
            item_slots[i] = item_slots[j];
            item_slots[j] = 0;
            i = j;
        }
    }
}

db_object* db_item_index_get(uint32_t id)
{
    if (item_slots.empty())
        return nullptr;
    size_t mask = item_slots.size() - 1;
    for (size_t i = item_home(id, mask); item_slots[i]; i = (i + 1) & mask)
        if (db_obj(item_slots[i])->id == id)
            return db_obj(item_slots[i]);
    return nullptr;
}

void db_item_index_reset()
{
    item_slots.clear();
    item_slots.shrink_to_fit();
    item_count = 0;
}
