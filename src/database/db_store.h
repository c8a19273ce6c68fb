// db_store.h: the memory under the content tree, shared by db_object.cpp
// and db_id.cpp only. Three arenas hand out 32-bit handles:
//
// - the object arena: records, slot arrays and small children arrays,
//   exact sizes in 2-byte units, one free list per size;
// - large children arrays, each a mapping of its own that grows without
//   copying (handles with the top bit set);
// - the string pool: interned texts, bump-allocated, freed only as a whole.
//
// Beside them stand the item index (id word to item). Everything here is
// guarded by db_lock, like the tree.
#pragma once
#include "database/db_object.h"

#include <cstddef>
#include <vector>

// ---- Object arena ---------------------------------------------------------

extern char* db_arena_base;

inline void* db_arena_ptr(uint32_t h) { return db_arena_base + size_t(h) * 2; }
inline uint32_t db_arena_handle(const void* p)
{
    return p ? uint32_t(size_t(static_cast<const char*>(p) - db_arena_base) / 2) : 0;
}
inline db_object* db_obj(uint32_t h) { return h ? static_cast<db_object*>(db_arena_ptr(h)) : nullptr; }

uint32_t db_arena_alloc(size_t bytes);          // even bytes; 0 when full
void db_arena_free(uint32_t h, size_t bytes);
void db_arena_reset();                          // drops everything, memory included
size_t db_arena_resident();                     // bytes handed out and not freed

// ---- Children arrays --------------------------------------------------------

// A child slot holds the child's handle, with the top bit set for a
// reference (handles stay below 2^31, as the arena spans at most 4 GiB).
// Walks that look only for folders and items pass references unread: in a
// rich tree they are most of the children, and reading each one's head
// costs a cache miss once the tree outgrows the cache.
#pragma pack(push, 2)
struct db_child_slot { uint32_t h; };
#pragma pack(pop)

inline constexpr uint32_t DB_SLOT_REF = 0x80000000u;

inline db_child_slot db_slot_of(const db_object* child)
{
    return {db_arena_handle(child) | (db_type_is_ref(db_object_type_of(child)) ? DB_SLOT_REF : 0u)};
}
inline db_object* db_slot_object(db_child_slot slot) { return db_obj(slot.h & ~DB_SLOT_REF); }
inline bool db_slot_is_ref(db_child_slot slot) { return slot.h & DB_SLOT_REF; }

db_child_slot* db_array_ptr(uint32_t h);
uint32_t db_array_alloc(int32_t capacity);      // 0 on failure
// A handle for capacity new_cap holding the first keep slots of h; h is
// then invalid unless the result is h. 0 on failure, with h untouched.
uint32_t db_array_resize(uint32_t h, int32_t old_cap, int32_t new_cap, int32_t keep);
void db_array_free(uint32_t h, int32_t capacity);

// Closes the removals noted in a container's array (db_object.cpp). Every
// read of child_count or of the array comes after it.
void db_children_settle(const db_object* container);

// The rounding rule of children capacities: 0, multiples of 10 up to 100,
// then multiples of 100.
int32_t db_children_capacity(int32_t count);

// ---- String pool ------------------------------------------------------------

const char* db_pool_text(uint32_t h);           // null for 0 or a handle outside the pool
uint32_t db_pool_intern(const char* text);      // 0 for null or no memory
uint32_t db_pool_handle_of(const char* text);   // the handle if text is a pooled copy, else 0
void db_pool_reset();

// ---- Item index -------------------------------------------------------------

void db_item_index_put(db_object* item);
void db_item_index_drop(db_object* item);
db_object* db_item_index_get(uint32_t id);
void db_item_index_reset();

// ---- Folder and reference indexes (db_index.cpp) --------------------------

// The first child container of parent with exactly that title, as a walk of
// the children finds it; kept by the calls below at every change of a
// children array.
db_object* db_title_index_find(const db_object* parent, const char* title);
void db_title_index_added(db_object* parent, db_object* child);     // after an append
void db_title_index_removed(db_object* parent, db_object* child);   // after a removal
void db_title_index_retitled(db_object* child, const char* old_title);
void db_title_index_reordered(db_object* parent);                   // after a sort in place
void db_ref_index_add(db_object* ref);                               // a new reference
void db_index_freed(db_object* o);                                   // before o is freed
int32_t db_ref_index_count(const db_object* target);                 // live references to target
// Detaches and frees the references to target that a walk of the
// containers below from meets (it stops at the first real item of a
// container, except in %PATH folders): all of them, or only the last one
// of each container. The number freed.
int32_t db_refs_drop(db_object* from, db_object* target, bool one_per_container);
void db_index_reset();
// An object's id word (type or sequence) changed from old_id while it may
// hang in a parent.
void db_index_renumbered(db_object* o, uint32_t old_id);
// A child that keeps its parent link but didn't get into the array.
void db_index_left_out(db_object* child);
bool db_index_is_left_out(const db_object* child);
// The children of parent whose sequence numbers select a rule node (12 to
// 21, 31 to 35, 51 to 55), in children order; their number.
int32_t db_node_children(const db_object* parent, std::vector<db_object*>* out);

// ---- Account ----------------------------------------------------------------

extern int64_t db_used_mem;                     // bytes of records, by the sizes of the shapes
int32_t db_record_size(const db_object* o);     // what one object counts, arrays included

// ---- Between the two halves of the store ----------------------------------------

// The record store's read of a block (db_object.cpp), for the path proof.
char* db_record_read_path(uint32_t block, int32_t* type);
// Writes the object's record again in its own blocks, through the record store.
int db_record_rewrite(const db_object* o, const char* path);
// Forgets the sort state's cached options, at each db_create (db_id.cpp).
void db_sort_reset();
// Raises the change stamp (db_change_stamp) for a change made here rather
// than through the exported calls, which raise it themselves.
void db_note_tree_change();
