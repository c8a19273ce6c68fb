// upnp_filescan.cpp: the filescanner thread. It walks the shared folders
// depth first, admits each file whose extension and class a row of the file
// type table takes, works off the changes that the folder watch queues, and
// gives the once-a-second tick to the database's housekeeping and to
// whoever hung work on it.
//
// The scanner reads no file content itself: a row's handler does. A walk
// never parses a file the store already knows, which is what keeps a rescan
// of an unchanged library down to one listing and one lookup per file.
//
// Links: a folder or file reached through a symbolic link is taken only
// when its real path lies inside an enabled shared folder, and a walk never
// enters the same folder (device and inode) twice, so neither a link loop
// nor a link to a parent can make it run for ever.
#include "media/upnp_filescan.h"

#include "config/upnp_ini.h"
#include "database/db_file.h"
#include "database/db_id.h"
#include "database/db_tree.h"
#include "media/upnp_filetype.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

static constexpr int32_t SCAN_DEPTH_MAX = 20;          // depths 0 to 20 are walked
static constexpr int64_t SCAN_SETTLE_SECONDS = 5;      // a queued change must rest longer
static constexpr int64_t SCAN_PROGRESS_MS = 2000;
static constexpr int32_t SCAN_TICKS_MAX = 8;

static std::atomic<int32_t> scan_reload_request;
static std::atomic<int32_t> scan_initial_request{1};
static std::atomic<int32_t> scan_forced_request;
static std::atomic<int32_t> scan_started;

// ---- Requests ---------------------------------------------------------

void upnp_filescan_request_reload()
{
    scan_reload_request = 1;
    scan_initial_request = 1;
    db_file_prune_folders();
}

void upnp_filescan_request_rescan()
{
    scan_forced_request = 1;
}

int32_t upnp_filescan_started()
{
    return scan_started;
}

// ---- Ticks ------------------------------------------------------------

static std::atomic<upnp_filescan_tick_fn> scan_ticks[SCAN_TICKS_MAX];

void upnp_filescan_add_tick(upnp_filescan_tick_fn tick)
{
    for (auto& slot : scan_ticks) {
        upnp_filescan_tick_fn empty = nullptr;
        if (slot.load() == tick || slot.compare_exchange_strong(empty, tick))
            return;
    }
}

void upnp_filescan_clear_ticks()
{
    for (auto& slot : scan_ticks)
        slot = nullptr;
}

// ---- Tests on paths ---------------------------------------------------

// 1 when path contains, in any case, a non-empty item of the option.
static int filescan_path_has_item(const char* path, int32_t option)
{
    int32_t count = upnp_ini_get_item_count(option);
    for (int32_t i = 0; i < count; i++) {
        const char* item = upnp_ini_get_item(option, i);
        if (item && *item && upnp_stristr(path, item))
            return 1;
    }
    return 0;
}

int upnp_filescan_is_ignored(const char* path)
{
    if (!path)
        return 1;
    // The database folder may lie inside a shared folder; its own files
    // must never come back as media.
    const char* dbdir = upnp_ini_get_string(UPNP_OPT_DBDIR);
    if (dbdir && *dbdir && strstr(path, dbdir))
        return 1;
    return filescan_path_has_item(path, UPNP_OPT_IGNOREDIR);
}

int upnp_filescan_is_compilation(const char* path)
{
    return path && filescan_path_has_item(path, UPNP_OPT_COMPILATIONSDIR);
}

// ---- Admission --------------------------------------------------------

int upnp_filescan_add_file(const char* path, char media_class, int compilation, uint32_t since_low,
                           uint32_t since_high)
{
    if (!path || path[0] == '.')
        return 0;
    const char* slash = strrchr(path, '/');
    if (slash && slash[1] == '.')
        return 0;    // dot files, such as the ._name companions of AppleDouble
    const char* dot = strrchr(path, '.');
    if (!dot)
        return 0;
    upnp_file_info info;
    if (upnp_file_stat(path, &info) != 0 || !(info.mode & UPNP_FILE_MODE_REG) || info.size < 1)
        return 0;
    int64_t since = int64_t(uint64_t(since_high) << 32 | since_low);
    if (since > 0 && info.modified <= since && info.created <= since) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "Scan Skip %s\n", path);
        return 0;
    }
    const upnp_filetype* row = upnp_filetype_find(path, dot + 1, media_class);
    if (!row)
        return 0;
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "adding %s\n", path);
    row->handler(path, compilation);
    upnp_file_event(UPNP_EVENT_FILE_ADDED, path);
    return 1;
}

// ---- The walk ---------------------------------------------------------

struct filescan_identity {
    uint64_t device;
    uint64_t inode;
    bool operator==(const filescan_identity& o) const { return device == o.device && inode == o.inode; }
};

struct filescan_identity_hash {
    size_t operator()(const filescan_identity& id) const { return size_t(id.inode * 0x9E3779B97F4A7C15ull ^ id.device); }
};

// What a pass counts, for the host's progress lines.
struct filescan_count {
    uint32_t folders;
    uint32_t seen;
    uint32_t admitted;
    int64_t started_ms;
    int64_t shown_ms;
};

// One walk from a shared folder: its class, the real paths of the shared
// folders that links may lead into, the folders entered so far.
struct filescan_walk_state {
    char media_class;
    std::vector<std::string> roots;
    std::unordered_set<filescan_identity, filescan_identity_hash> entered;
    filescan_count* count;          // null outside a pass
};

static void filescan_report(const char* what, const filescan_count& c)
{
    char text[96];
    snprintf(text, sizeof text, "%s %" PRIu32 " %" PRIu32 " %" PRIu32 " %" PRId64, what, c.folders, c.seen,
             c.admitted, upnp_clock_ms() - c.started_ms);
    upnp_file_event(UPNP_EVENT_SCAN, text);
}

static void filescan_progress(filescan_count* c)
{
    int64_t now = upnp_clock_ms();
    if (now - c->shown_ms < SCAN_PROGRESS_MS)
        return;
    c->shown_ms = now;
    filescan_report("progress", *c);
}

// The real paths of the enabled shared folders, each with a trailing '/'.
static std::vector<std::string> filescan_real_roots()
{
    std::vector<std::string> roots;
    for (int32_t i = 0; const char* entry = upnp_contentdir_get(i); i++) {
        if (entry[0] != '+' || strlen(entry) < 4)
            continue;
        char* real = upnp_file_realpath(entry + 3);
        if (real) {
            std::string root = real;
            roots.push_back(root.back() == '/' ? root : root + '/');
        }
        free(real);
    }
    return roots;
}

// A link is followed only into a shared folder.
static bool filescan_link_allowed(const filescan_walk_state& walk, const char* path)
{
    char* real = upnp_file_realpath(path);
    bool inside = false;
    if (real) {
        std::string target = std::string(real) + '/';
        for (const std::string& root : walk.roots)
            inside = inside || target.compare(0, root.size(), root) == 0;
    }
    free(real);
    if (!inside)
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "link leads outside the shared folders %s\n", path);
    return inside;
}

// 1 when the entry the walker holds is to be looked at.
static int filescan_entry_usable(filescan_walk_state* walk, const upnp_dir* d)
{
    if (!upnp_string_utf8_valid(d->name)) {
        // Such a name could not stand in any XML answer.
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "name is not UTF-8, skipped: %s\n", d->path);
        return 0;
    }
    if (upnp_filescan_is_ignored(d->path))
        return 0;
    if (d->is_link && !filescan_link_allowed(*walk, d->path))
        return 0;
    return 1;
}

static void filescan_walk(filescan_walk_state* walk, const char* path, int32_t depth);

static void filescan_walk_entry(filescan_walk_state* walk, const upnp_dir* d, int32_t depth, int compilation)
{
    if (d->is_dir) {
        if (walk->entered.insert({d->device, d->inode}).second)
            filescan_walk(walk, d->path, depth + 1);
        return;
    }
    if (walk->count)
        walk->count->seen++;
    if (upnp_cds_db_file_get_id_by_res(d->path))
        return;
    if (upnp_filescan_add_file(d->path, walk->media_class, compilation, 0, 0) && walk->count)
        walk->count->admitted++;
}

static void filescan_walk(filescan_walk_state* walk, const char* path, int32_t depth)
{
    if (depth > SCAN_DEPTH_MAX) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "do not descend further %s\n", path);
        return;
    }
    upnp_dir* d = upnp_dir_open(path);
    if (!d)
        return;
    if (walk->count)
        walk->count->folders++;
    int compilation = upnp_filescan_is_compilation(path);
    for (; d && upnp_is_running() == 1; d = upnp_dir_next(d)) {
        if (filescan_entry_usable(walk, d))
            filescan_walk_entry(walk, d, depth, compilation);
        if (walk->count)
            filescan_progress(walk->count);
    }
    upnp_dir_close(d);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "scanned %s\n", path);
}

// Walks one shared folder from its entry text "+C|path".
static void filescan_walk_folder(const char* entry, const char* path, filescan_count* count)
{
    filescan_walk_state walk;
    walk.media_class = entry[1];
    walk.roots = filescan_real_roots();
    walk.count = count;
    filescan_identity self;
    if (upnp_file_identity(path, &self.device, &self.inode) == 0)
        walk.entered.insert(self);
    filescan_walk(&walk, path, 0);
}

// ---- Passes -----------------------------------------------------------

static int64_t filescan_now()
{
    return int64_t(time(nullptr));
}

// Every enabled shared folder not yet walked in this run (all of them when
// a rescan was asked for), then the import of what the handlers left.
void upnp_filescan_folder_pass()
{
    // The host hears of a pass only when it walks a folder.
    filescan_count count = {};
    bool walked = false;
    for (int32_t i = 0;; i++) {
        const char* item = upnp_contentdir_get(i);
        if (!item)
            break;
        std::string entry = item;
        if (entry[0] != '+' || entry.size() < 4)
            continue;
        const char* key = entry.c_str() + 1;
        if (db_file_get_folder_time(key) >= upnp_start_time_get() && !scan_forced_request)
            continue;
        if (!walked) {
            walked = true;
            count.started_ms = count.shown_ms = upnp_clock_ms();
            filescan_report("started", count);
        }
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "scanning  %s\n", entry.c_str() + 3);
        int64_t began = filescan_now();
        filescan_walk_folder(entry.c_str(), entry.c_str() + 3, &count);
        if (upnp_is_running() != 1)
            break;
        // The time the walk began: files changed during it stay inside the
        // next walk's span.
        db_file_set_folder_time(key, began);
    }
    if (upnp_is_running() == 1)
        db_file_import_all(upnp_is_running);
    if (walked)
        filescan_report("finished", count);
}

// A new folder that the watch reported, walked at once.
static void filescan_scan_folder(const char* entry, const char* path)
{
    int64_t began = filescan_now();
    filescan_walk_folder(entry, path, nullptr);
    db_file_set_folder_time(entry + 1, began);
    db_file_import_all(upnp_is_running);
}

// ---- The pending queue ------------------------------------------------

struct upnp_filescan_pending {
    char* path;
    char* entry;
    int32_t is_dir;
    int64_t changed;
    upnp_filescan_pending* next;
};

// Held across the whole of the queue's work, handlers included, so that
// the watch threads wait while a file is read.
static std::mutex pending_lock;
static upnp_filescan_pending* pending_head;       // pending_lock

static void filescan_pending_free(upnp_filescan_pending* p)
{
    free(p->path);
    free(p->entry);
    free(p);
}

void upnp_filescan_queue_init()
{
    std::lock_guard<std::mutex> hold(pending_lock);
    while (upnp_filescan_pending* p = pending_head) {
        pending_head = p->next;
        filescan_pending_free(p);
    }
}

void upnp_filescan_pending_add(const char* entry, const char* path, int32_t is_dir)
{
    if (!path)
        return;
    std::lock_guard<std::mutex> hold(pending_lock);
    for (upnp_filescan_pending* p = pending_head; p; p = p->next) {
        if (strcmp(p->path, path) == 0) {
            p->changed = filescan_now();
            upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "update on %s\n", path);
            return;
        }
    }
    auto* p = static_cast<upnp_filescan_pending*>(calloc(1, sizeof(upnp_filescan_pending)));
    if (!p)
        return;
    p->path = strdup(path);
    p->entry = entry ? strdup(entry) : nullptr;
    if (!p->path || (entry && !p->entry)) {
        filescan_pending_free(p);
        return;
    }
    p->is_dir = is_dir;
    p->changed = filescan_now();
    p->next = pending_head;
    pending_head = p;
}

// One change that has rested long enough. 1 when it brought a playlist.
static int filescan_pending_take(const upnp_filescan_pending* p)
{
    if (p->is_dir) {
        if (p->entry)
            filescan_scan_folder(p->entry, p->path);
        return 0;
    }
    if (upnp_filescan_is_ignored(p->path) || !p->entry || strlen(p->entry) < 2)
        return 0;
    upnp_filescan_add_file(p->path, p->entry[1], upnp_filescan_is_compilation(p->path), 0, 0);
    db_file_set_folder_time(p->entry + 1, p->changed);
    return strstr(p->path, ".m3u") || strstr(p->path, ".wpl") || strstr(p->path, ".pls");
}

static void filescan_pending_work()
{
    std::lock_guard<std::mutex> hold(pending_lock);
    int64_t now = filescan_now();
    int playlist = 0;
    for (upnp_filescan_pending** at = &pending_head; *at;) {
        scan_started = 1;
        if (upnp_is_running() != 1)
            break;
        upnp_filescan_pending* p = *at;
        int64_t rested = now - p->changed;
        if (rested <= SCAN_SETTLE_SECONDS) {
            at = &p->next;     // still being written, or a clock that went back
            continue;
        }
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "working on %s\n", p->path);
        *at = p->next;
        playlist |= filescan_pending_take(p);
        filescan_pending_free(p);
    }
    if (playlist)
        db_file_import_all(upnp_is_running);
}

// ---- The thread -------------------------------------------------------

// Joined at stop before the store goes, since a handler may be under way.
static uint64_t scan_thread;

static void filescan_tick(int64_t now)
{
    for (auto& slot : scan_ticks)
        if (upnp_filescan_tick_fn tick = slot.load())
            tick(now);
}

// One turn of the loop's work steps; the caller sleeps between turns.
static void filescan_turn(int32_t scantime, int32_t* work_done)
{
    if (scan_reload_request && upnp_is_running() == 1) {
        scan_reload_request = 0;
        scan_started = 1;
        db_file_load_all(upnp_is_running);
        *work_done = 1;
    }
    if (scan_initial_request && scantime != 0 && upnp_is_running() == 1) {
        scan_started = 1;
        upnp_filescan_folder_pass();
        scan_initial_request = 0;
        *work_done = 1;
        scan_forced_request = 0;
    }
    if (scan_forced_request && upnp_is_running() == 1) {
        scan_started = 1;
        upnp_filescan_folder_pass();
        scan_forced_request = 0;
        *work_done = 1;
    }
    // A pass never looks at a known file again: files that have gone are
    // found by the sweep asked for here, at the next housekeeping.
    if (*work_done && upnp_is_running() == 1) {
        *work_done = 0;
        scan_started = 1;
        db_request_shadow_sweep();
    }
    if (scantime < 0 && upnp_is_running() == 1)
        filescan_pending_work();
}

void upnp_filescan_thread()
{
    upnp_thread_set_name("filescanner");
    int32_t scantime = upnp_ini_get_int(UPNP_OPT_SCANTIME);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "filescanner thread started\n");
    int32_t seconds = 0;
    int32_t work_done = 0;
    while (upnp_is_running() == 1) {
        filescan_turn(scantime, &work_done);
        upnp_sleep_while_running(1000);
        if (upnp_is_running() != 1)
            break;
        // The interval counts sleeps, not wall time: time spent scanning
        // is not part of it.
        if (scantime > 0 && int64_t(scantime) * 60 < ++seconds) {
            scan_forced_request = 1;
            seconds = 0;
        }
        int64_t now = filescan_now();
        db_housekeeping(now);
        filescan_tick(now);
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SCAN, "filescanner thread terminated\n");
}

static void filescan_thread_entry(void*)
{
    upnp_filescan_thread();
}

int upnp_filescan_start()
{
    scan_thread = upnp_thread_start(filescan_thread_entry, nullptr, -2);
    return scan_thread != 0;
}

void upnp_filescan_queue_term()
{
    if (scan_thread) {
        upnp_thread_join(scan_thread);
        scan_thread = 0;
    }
    upnp_filescan_queue_init();
}
