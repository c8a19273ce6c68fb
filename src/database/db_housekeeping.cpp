// db_housekeeping.cpp: the sweeps that take out of the tree what has gone:
// items whose files vanished (first turned into shadows, type 23) and
// folders left empty. Requests are two flags raised from any thread; the
// scanner thread runs the sweeps from its once-a-second tick.
//
// Order of work, all under db_lock (the walks touch no socket, only the
// database file and the file system): mark the shadows, free every
// reference to a shadow, free the shadows, then free the folders left
// empty, depth first. References hold plain pointers to their targets, so
// none may outlive its item. The database header is written after the lock
// is left, as freed records changed the free list.
//
// Each flag is taken (read and cleared in one step) as a run begins rather
// than cleared at its end: a request made while the walks run stays raised
// and brings exactly one more run, however many came.
//
// The walks are iterative: %PATH and tag folders nest as deep as the input.
#include "database/db_tree.h"

#include "config/upnp_ini.h"
#include "database/db_file.h"
#include "database/db_object.h"
#include "runtime/upnp_log.h"

#include <algorithm>
#include <atomic>
#include <unordered_set>
#include <vector>

static std::atomic<int32_t> house_shadow_request;
static std::atomic<int64_t> house_last_timed_run;

void db_request_shadow_sweep()
{
    house_shadow_request = 1;
}

int db_housekeeping_pending()
{
    return house_shadow_request || db_container_sweep_pending();
}

// ---- Walks ----------------------------------------------------------------

static int32_t house_type(const db_object* o)
{
    return o ? db_object_type_of(o) : -1;
}

// Where the folders that may refer to an item of this type stand. Radio
// types look in the radio root.
static db_object* house_media_root(int32_t type)
{
    db_object* root = nullptr;
    switch (type) {
    case DB_OBJ_AUDIO: root = db_music_root; break;
    case DB_OBJ_PHOTO: root = db_picture_root; break;
    case DB_OBJ_VIDEO: case DB_OBJ_VIDEO_MOVIE: case DB_OBJ_VIDEO_BROADCAST: root = db_video_root; break;
    case DB_OBJ_DOCUMENT: root = db_document_root; break;
    case DB_OBJ_AUDIO_BROADCAST: case DB_OBJ_AUDIO_STREAM: root = db_radio_root; break;
    default: break;
    }
    return root ? root : db_root;
}

// ---- Marking shadows ------------------------------------------------------

// Items of addresses, by the root below which references to them would
// stand: at most one group per media root.
struct house_streams {
    db_object* root;
    std::unordered_set<db_object*> items;
};

struct house_marking {
    std::vector<db_object*> holders;        // containers that hold shadows
    std::vector<house_streams> streams;
};

static void house_shadow(house_marking* m, db_object* item, bool free_record)
{
    uint32_t block = db_id_to_block(item->id);
    db_object_retype(item, DB_OBJ_SHADOW);
    if (free_record)
        db_file_free_chain(block);
    m->holders.push_back(db_object_parent(item));
}

// A file in a "-" folder, or a record without a path, keeps its record:
// the item comes back from it when the database is read anew.
static void house_mark(house_marking* m, db_object* item)
{
    int32_t status = db_file_status_of_block(db_id_to_block(item->id));
    if (status == DB_FILE_SHARED)
        return;
    if (status != DB_FILE_URL) {
        house_shadow(m, item, status == DB_FILE_GONE);
        return;
    }
    db_object* root = house_media_root(house_type(item));
    for (house_streams& s : m->streams)
        if (s.root == root) {
            s.items.insert(item);
            return;
        }
    m->streams.push_back({root, {item}});
}

// A stream lives as long as a playlist refers to it: one walk per root
// takes out of the group every item that a reference stands for, and
// what remains becomes a shadow, its record freed.
static void house_mark_streams(house_marking* m)
{
    for (house_streams& s : m->streams) {
        std::vector<db_object*> stack{s.root};
        while (!stack.empty() && !s.items.empty()) {
            db_object* c = stack.back();
            stack.pop_back();
            for (int32_t i = 0; i < db_container_child_count(c); i++) {
                db_object* x = db_container_child(c, i);
                if (db_type_is_container(house_type(x)))
                    stack.push_back(x);
                else if (db_container_ends_search(c, x))
                    break;
                else if (db_object* target = db_object_target(x))
                    s.items.erase(target);
            }
        }
        for (db_object* item : s.items)
            house_shadow(m, item, true);
    }
}

// Every item of the tree is looked at. Shadows live only from here to the
// end of the run, so the holders noted are all the containers that hold
// any; each is noted once.
static void house_mark_shadows(house_marking* m)
{
    std::vector<db_object*> stack{db_root};
    while (!stack.empty()) {
        db_object* c = stack.back();
        stack.pop_back();
        for (int32_t i = 0; i < db_container_child_count(c); i++) {
            if (db_container_child_is_ref(c, i))
                continue;
            db_object* x = db_container_child(c, i);
            int32_t t = house_type(x);
            if (db_type_is_container(t))
                stack.push_back(x);
            else if (db_type_is_item(t))
                house_mark(m, x);
        }
    }
    house_mark_streams(m);
    std::sort(m->holders.begin(), m->holders.end());
    m->holders.erase(std::unique(m->holders.begin(), m->holders.end()), m->holders.end());
}

// ---- Removing references and shadows --------------------------------------

struct house_ref_walk {
    std::vector<db_object*> stack;
    db_object* container;
};

static int32_t house_drop_shadow_ref(db_object* x, void* context)
{
    house_ref_walk* walk = static_cast<house_ref_walk*>(context);
    int32_t t = house_type(x);
    if (db_type_is_container(t)) {
        walk->stack.push_back(x);
        return DB_COMPACT_KEEP;
    }
    if (db_container_ends_search(walk->container, x))
        return DB_COMPACT_KEEP_REST;
    if (db_type_is_ref(t) && house_type(db_object_target(x)) == DB_OBJ_SHADOW) {
        db_object_free(x);
        return DB_COMPACT_DROP;
    }
    return DB_COMPACT_KEEP;
}

static void house_remove_shadow_refs()
{
    house_ref_walk walk;
    walk.stack.push_back(db_root);
    while (!walk.stack.empty()) {
        walk.container = walk.stack.back();
        walk.stack.pop_back();
        db_container_compact(walk.container, house_drop_shadow_ref, &walk);
    }
}

static int32_t house_drop_shadow(db_object* x, void*)
{
    if (house_type(x) != DB_OBJ_SHADOW)
        return DB_COMPACT_KEEP;
    db_object_free(x);
    return DB_COMPACT_DROP;
}

// ---- Removing empty containers --------------------------------------------

static int32_t house_drop_empty(db_object* x, void* context)
{
    const db_object* container = static_cast<const db_object*>(context);
    if (db_container_ends_search(container, x))
        return DB_COMPACT_KEEP_REST;
    if (!db_type_is_container(house_type(x)) || db_container_child_count(x) != 0 ||
        db_object_get_char(x, DBK_RESTRICTED) != '0')
        return DB_COMPACT_KEEP;
    db_object_free(x);
    return DB_COMPACT_DROP;
}

// Depth first: a folder's own children are swept before the folder is
// judged, so a chain of folders that ends in nothing goes in one run. The
// root's children are never judged. A child list is compacted only when a
// folder in it was found empty, so the large lists of references are read
// once.
static void house_remove_empty()
{
    struct frame {
        db_object* container;
        int32_t next;
        bool has_empty;
    };
    std::vector<frame> stack{{db_root, 0, false}};
    while (!stack.empty()) {
        frame& top = stack.back();
        db_object* c = top.container;
        if (top.next < db_container_child_count(c)) {
            if (db_container_child_is_ref(c, top.next)) {
                top.next++;             // a reference neither ends the search nor holds folders
                continue;
            }
            db_object* x = db_container_child(c, top.next++);
            if (db_container_ends_search(c, x))
                top.next = db_container_child_count(c);
            else if (db_type_is_container(house_type(x)))
                stack.push_back({x, 0, false});        // top is not used after this
            continue;
        }
        bool sweep = top.has_empty;
        stack.pop_back();
        if (c == db_root)
            continue;
        if (sweep)
            db_container_compact(c, house_drop_empty, c);
        if (db_container_child_count(c) == 0 && db_object_get_char(c, DBK_RESTRICTED) == '0')
            stack.back().has_empty = true;
    }
}

// ---- The tick -------------------------------------------------------------

void db_housekeeping(int64_t now)
{
    int32_t shadows = house_shadow_request.exchange(0);
    int32_t empties = db_take_container_sweep();
    if (!shadows && !empties) {
        // A timed run finds nothing to do without a request, so it only
        // keeps its clock.
        int32_t scantime = upnp_ini_get_int(UPNP_OPT_SCANTIME);
        if (scantime < 1 || now - house_last_timed_run < int64_t(scantime) * 60)
            return;
        house_last_timed_run = now;
        return;
    }
    {
        db_lock_guard hold;
        if (!db_root)
            return;
        if (shadows) {
            upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "removing shadow files\n");
            house_marking marking;
            house_mark_shadows(&marking);
            if (!marking.holders.empty()) {
                house_remove_shadow_refs();
                for (db_object* c : marking.holders)
                    db_container_compact(c, house_drop_shadow, nullptr);
            }
            db_note_change();
        }
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "removing empty container\n");
        house_remove_empty();
        db_note_change();
    }
    if (shadows)
        db_file_flush_header();
}
