// db_sort.cpp: the orderings of lists. It owns the sort state (criteria,
// shuffle and the client's wish for plain byte order), the comparators by
// field, and the sort of a list or a container's children.
//
// A sort makes one compact entry per object, in memory order, and merges
// them; ties keep the list's order, so equal objects never change places
// between two Browse calls. One scratch block serves both phases.
//
// Lock: everything runs under db_lock; the sort state is global and relies
// on it.
#include "database/db_object.h"

#include "config/upnp_ini.h"
#include "database/db_store.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_pages.h"
#include "runtime/upnp_string.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>
// ---- Sort state -------------------------------------------------------------------------------

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
    bool any_token = false;
    int last_sign = 1;
};

// A token that names no field, or a field an earlier token compared
// already, can only answer 0 where it is reached, so it is left out: a
// request with many criteria then costs no more per comparison than one
// naming each field once. Only the last token's sign outlives them.
static void sort_read_criteria(sort_run& run)
{
    for (const char* p = sort_criteria; *p;) {
        sort_step s = {nullptr, 1};
        if (*p == '+')
            p++;
        else if (*p == '-')
            p++, s.sign = -1;
        s.compare = sort_field_of(p);
        bool seen = !s.compare;
        for (const sort_step& earlier : run.steps)
            seen = seen || earlier.compare == s.compare;
        if (!seen)
            run.steps.push_back(s);
        run.any_token = true;
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
    if (run.any_token && (a.place & SORT_CONTAINER) && !(b.place & SORT_CONTAINER))
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
    if (!c || !db_type_is_container(db_object_type_of(c)))
        return;
    db_lock_guard hold;
    db_container* k = reinterpret_cast<db_container*>(c);
    db_children_settle(c);
    if (k->child_count > 1) {
        std::vector<db_object*> children(static_cast<size_t>(k->child_count));
        for (size_t i = 0; i < children.size(); i++)
            children[i] = db_container_child(c, int32_t(i));
        sort_scratch order{children.size() * sizeof(sort_entry)};
        if (!sort_into(children.data(), k->child_count, order))
            return;
        db_child_slot* slots = db_array_ptr(k->children);
        for (size_t i = 0; i < children.size(); i++)
            slots[i] = db_slot_of(db_obj(order.as<sort_entry>()[i].handle));
        db_title_index_reordered(c);
        db_note_tree_change();      // ties of a later sort follow the new order
    }
    k->state |= DB_STATE_SORTED;
}
