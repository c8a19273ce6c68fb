// db_index.cpp: two lookups beside the tree, so that the navigation rules
// cost what they place rather than what the tree holds.
//
// - Folders by (parent, title): the first child container of a parent with
//   exactly that title, as a walk of the children would find it. Titles are
//   compared by their text (a container without one reads "Unknown", as
//   db_object_get_str answers). The entry follows every change of a
//   children array: append, removal, truncation, reorder, retitle, free.
// - References by target: every live reference to an item, wherever it
//   hangs. Removal asks which of them a walk from a container would reach
//   (the walk stops at the first real item of a container, except in %PATH
//   folders), without walking.
// - The number of real items (types 12 to 20) each container holds: a
//   container without one can't stop a walk, so whether a walk meets a
//   child there needs no look at the array. Beside it, the few children
//   that kept a parent link without getting into the array.
// - Children with the sequence numbers of the rule nodes (12 to 21, 31 to
//   35, 51 to 55), in children order: an item added to a media root looks
//   for its nodes there, and in the flat tree that root holds every item.
//
// Both are guarded by db_lock, like the tree, and dropped with the arena.
#include "database/db_store.h"

#include <cstring>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

struct title_key {
    uint32_t parent;
    std::string_view title;         // a pooled text or the static "Unknown": lives until the pool clears
    bool operator==(const title_key& o) const { return parent == o.parent && title == o.title; }
};

struct title_key_hash {
    size_t operator()(const title_key& k) const
    {
        return std::hash<std::string_view>()(k.title) * 31u + k.parent;
    }
};

std::unordered_map<title_key, uint32_t, title_key_hash> index_titles;   // db_lock
std::unordered_map<uint32_t, std::vector<uint32_t>> index_refs;         // db_lock: target -> references
std::unordered_map<uint32_t, std::vector<uint32_t>> index_nodes;        // db_lock: parent -> node children
std::unordered_map<uint32_t, int32_t> index_items;                      // db_lock: parent -> real items in it
std::unordered_map<uint32_t, bool> index_outside;                       // db_lock: linked, not in the array

bool is_real_item(const db_object* o)
{
    return db_type_is_item(db_object_type_of(o));
}

void items_count(const db_object* parent, int32_t delta)
{
    int32_t& n = index_items[db_arena_handle(parent)];
    n += delta;
    if (n <= 0)
        index_items.erase(db_arena_handle(parent));
}

bool node_sequence(const db_object* o)
{
    uint32_t s = db_object_seq(o);
    return (s >= 12 && s <= 21) || (s >= 31 && s <= 35) || (s >= 51 && s <= 55);
}

void node_drop(const db_object* parent, const db_object* child)
{
    auto it = index_nodes.find(db_arena_handle(parent));
    if (it == index_nodes.end())
        return;
    std::vector<uint32_t>& v = it->second;
    for (size_t i = 0; i < v.size(); i++)
        if (v[i] == db_arena_handle(child)) {
            v.erase(v.begin() + ptrdiff_t(i));
            break;
        }
    if (v.empty())
        index_nodes.erase(it);
}

bool is_container(const db_object* o)
{
    return o && db_type_is_container(db_object_type_of(o));
}

title_key key_of(const db_object* parent, const db_object* child)
{
    const char* t = db_object_get_str(child, DBK_TITLE);
    return {db_arena_handle(parent), t ? std::string_view(t) : std::string_view()};
}

// Drops the entry of key if it names child.
void drop_if(const title_key& key, const db_object* child)
{
    auto it = index_titles.find(key);
    if (it != index_titles.end() && it->second == db_arena_handle(child))
        index_titles.erase(it);
}

// Sets the entry of (parent, title) from the children as they stand.
void rescan(const db_object* parent, std::string_view title)
{
    title_key key{db_arena_handle(parent), title};
    index_titles.erase(key);
    for (int32_t i = 0; i < db_container_child_count(parent); i++) {
        db_object* x = db_container_child(parent, i);
        if (is_container(x) && key_of(parent, x) == key) {
            index_titles.emplace(key, db_arena_handle(x));
            return;
        }
    }
}

} // namespace

// ---- Folders by title -------------------------------------------------------------

void db_title_index_added(db_object* parent, db_object* child)
{
    // An append never comes before a folder already there.
    if (is_container(child))
        index_titles.emplace(key_of(parent, child), db_arena_handle(child));
    if (node_sequence(child))
        index_nodes[db_arena_handle(parent)].push_back(db_arena_handle(child));
    if (is_real_item(child))
        items_count(parent, 1);
    if (!index_outside.empty())
        index_outside.erase(db_arena_handle(child));
}

void db_index_left_out(db_object* child)
{
    index_outside[db_arena_handle(child)] = true;
}

bool db_index_is_left_out(const db_object* child)
{
    return !index_outside.empty() && index_outside.count(db_arena_handle(child));
}

void db_title_index_removed(db_object* parent, db_object* child)
{
    if (node_sequence(child))
        node_drop(parent, child);
    if (is_real_item(child))
        items_count(parent, -1);
    if (!is_container(child))
        return;
    title_key key = key_of(parent, child);
    auto it = index_titles.find(key);
    if (it != index_titles.end() && it->second == db_arena_handle(child))
        rescan(parent, key.title);
}

void db_title_index_retitled(db_object* child, const char* old_title)
{
    db_object* parent = db_object_parent(child);
    if (!is_container(child) || !parent)
        return;
    rescan(parent, old_title ? std::string_view(old_title) : std::string_view("Unknown"));
    rescan(parent, key_of(parent, child).title);
}

void db_title_index_reordered(db_object* parent)
{
    // A sort of an "All" container passes here with every item: one pass,
    // and the count of items set once.
    uint32_t h = db_arena_handle(parent);
    int32_t n = db_container_child_count(parent), items = 0;
    std::vector<db_object*> children(size_t(n > 0 ? n : 0));
    for (int32_t i = 0; i < n; i++)
        if (db_object* x = children[size_t(i)] = db_container_child(parent, i); is_container(x))
            index_titles.erase(key_of(parent, x));
    index_nodes.erase(h);
    index_items.erase(h);
    for (db_object* x : children) {
        if (is_real_item(x))
            items++;
        else
            db_title_index_added(parent, x);
        if (is_real_item(x) && node_sequence(x))
            index_nodes[h].push_back(db_arena_handle(x));
    }
    if (items)
        index_items[h] = items;
}

void db_index_freed(db_object* o)
{
    int32_t t = db_object_type_of(o);
    uint32_t h = db_arena_handle(o);
    if (db_object* parent = db_object_parent(o)) {
        if (node_sequence(o))
            node_drop(parent, o);
        if (is_real_item(o))
            items_count(parent, -1);
    }
    if (!index_outside.empty())
        index_outside.erase(h);
    if (db_type_is_container(t)) {
        // Its children are freed first (db_object_free_tree), each dropping
        // its own entry; here only the folder's own entry goes.
        if (db_object* parent = db_object_parent(o))
            drop_if(key_of(parent, o), o);
        index_nodes.erase(h);
        index_items.erase(h);
    } else if (db_type_is_ref(t)) {
        auto it = index_refs.find(db_arena_handle(db_object_target(o)));
        if (it == index_refs.end())
            return;
        std::vector<uint32_t>& v = it->second;
        for (size_t i = 0; i < v.size(); i++)
            if (v[i] == h) {
                v[i] = v.back();
                v.pop_back();
                break;
            }
        if (v.empty())
            index_refs.erase(it);
    } else {
        index_refs.erase(h);
    }
}

void db_index_renumbered(db_object* o, uint32_t old_id)
{
    db_object* parent = db_object_parent(o);
    if (!parent)
        return;
    db_object was = {old_id, 0};
    if (is_real_item(&was) != is_real_item(o))
        items_count(parent, is_real_item(o) ? 1 : -1);
    if (db_object_seq(&was) == db_object_seq(o))
        return;
    if (node_sequence(&was))
        node_drop(parent, o);
    // Rare: an attached object taking a node's number; its place needs the walk.
    if (node_sequence(o))
        db_title_index_reordered(parent);
}

int32_t db_node_children(const db_object* parent, std::vector<db_object*>* out)
{
    out->clear();
    auto it = index_nodes.find(db_arena_handle(parent));
    if (it != index_nodes.end())
        for (uint32_t h : it->second)
            out->push_back(db_obj(h));
    return int32_t(out->size());
}

db_object* db_title_index_find(const db_object* parent, const char* title)
{
    if (!is_container(parent) || !title)
        return nullptr;
    auto it = index_titles.find(title_key{db_arena_handle(parent), title});
    return it == index_titles.end() ? nullptr : db_obj(it->second);
}

// ---- References by target ------------------------------------------------------------

void db_ref_index_add(db_object* ref)
{
    if (db_object* target = db_object_target(ref))
        index_refs[db_arena_handle(target)].push_back(db_arena_handle(ref));
}

namespace {

// Where a walk of parent's children meets child: its position, or -1 when
// the walk stops at a real item first or child is not there.
int32_t walk_position(const db_object* parent, const db_object* child)
{
    for (int32_t i = 0; i < db_container_child_count(parent); i++) {
        db_object* x = db_container_child(parent, i);
        if (x == child)
            return i;
        if (db_container_ends_search(parent, x))
            return -1;
    }
    return -1;
}

// Whether a walk of parent's children meets child, which links to parent.
// Only a container holding real items (an "All" container) needs the look
// at the array.
bool walk_meets(const db_object* parent, const db_object* child)
{
    if (db_index_is_left_out(child))
        return false;
    if (db_container_mixes_items(parent) || !index_items.count(db_arena_handle(parent)))
        return true;
    return walk_position(parent, child) >= 0;
}

struct walk_reach {
    const db_object* from;
    std::unordered_map<const db_object*, bool> known;

    // Whether the walk from `from` searches container c.
    bool reaches(const db_object* c)
    {
        std::vector<const db_object*> chain;
        bool result = false;
        for (;;) {
            if (c == from) {
                result = true;
                break;
            }
            auto it = known.find(c);
            if (it != known.end()) {
                result = it->second;
                break;
            }
            if (!db_object_parent(c)) {
                result = false;
                break;
            }
            chain.push_back(c);
            c = db_object_parent(c);
        }
        // Down again: each link holds if the walk of the parent meets the child.
        for (size_t i = chain.size(); i-- > 0;) {
            const db_object* x = chain[i];
            result = result && walk_meets(db_object_parent(x), x);
            known[x] = result;
        }
        return result;
    }
};

} // namespace

int32_t db_refs_drop(db_object* from, db_object* target, bool one_per_container)
{
    auto it = index_refs.find(db_arena_handle(target));
    if (!from || !target || it == index_refs.end())
        return 0;
    struct found { db_object* parent; db_object* ref; };
    std::vector<found> hits;
    walk_reach reach{from, {}};
    for (uint32_t h : it->second) {
        db_object* r = db_obj(h);
        db_object* parent = db_object_parent(r);
        if (is_container(parent) && reach.reaches(parent) && walk_meets(parent, r))
            hits.push_back({parent, r});
    }
    if (one_per_container) {
        // The walk remembers the last one it meets in each container: where
        // a container holds more than one, their places decide.
        std::unordered_map<const db_object*, found> last;
        for (const found& f : hits) {
            auto [at, fresh] = last.emplace(f.parent, f);
            if (!fresh && walk_position(f.parent, f.ref) > walk_position(f.parent, at->second.ref))
                at->second = f;
        }
        if (last.size() < hits.size()) {
            std::vector<found> kept;
            for (const found& f : hits)
                if (last.at(f.parent).ref == f.ref)
                    kept.push_back(f);
            hits.swap(kept);
        }
    }
    for (const found& f : hits) {
        db_container_remove_child(f.parent, f.ref);
        db_object_free(f.ref);
    }
    return int32_t(hits.size());
}

int32_t db_ref_index_count(const db_object* target)
{
    auto it = index_refs.find(db_arena_handle(target));
    return it == index_refs.end() ? 0 : int32_t(it->second.size());
}

void db_index_reset()
{
    index_titles.clear();
    index_refs.clear();
    index_nodes.clear();
    index_items.clear();
    index_outside.clear();
}
