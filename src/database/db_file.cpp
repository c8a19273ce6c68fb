// db_file.cpp: the block file. Owns the two handles (one to write, one to
// read, so that a read never moves the write position), the header image,
// the block count and, for tests and fuzzing, the memory image that stands
// in for the file. All of it is guarded by file_lock, a recursive lock that
// is inner to db_lock.
//
// Order of work: open checks the version marker, opens the file (a file of
// another version is deleted and made anew) and counts its blocks. Blocks are
// written whole or head-plus-payload; a record is written from its end
// backward so that each block knows its successor, and its start block last.
// Nothing read is believed before it is checked: a block number must lie in
// the file, a free block must say it is free, a chain must continue through
// full continuation blocks and stays below DB_FILE_RECORD_MAX. Freed blocks
// reach the header on disk at the next flush; a taken block reaches it at
// once, before the block itself is written.
#include "database/db_file.h"

#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "database/db_record.h"
#include "database/db_tree.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

// The build gives the version, so a new version starts a new database.
const char DB_FILE_VERSION[] = VELMORA_VERSION;

static constexpr uint32_t FILE_FREE_HEAD_AT = 16;
static constexpr uint32_t FILE_FOLDERS_AT = 20;
static constexpr uint32_t FILE_FOLDER_TIME_AT = 10;
static constexpr uint32_t FILE_FOLDER_TEXT_AT = 18;
static constexpr uint32_t FILE_OPEN_ROUNDS = 3;
static constexpr uint32_t FILE_WALK_YIELD = 256;     // blocks read between two yields
static constexpr uint32_t FILE_WINDOW_SIZE = 16 * 1024;

struct file_head {
    uint32_t length;
    uint8_t kind;
    uint32_t next;
};

static std::recursive_mutex file_lock;
static upnp_file* file_writer;              // file_lock
static upnp_file* file_reader;              // file_lock
static std::vector<uint8_t> file_image;     // file_lock: the memory stand-in
static int file_in_memory;                  // file_lock
static int file_opened;                     // file_lock
static char* file_path;                     // file_lock: the block file's name
static uint8_t file_header[DB_FILE_BLOCK_SIZE];   // file_lock
static int file_header_dirty;               // file_lock
static uint32_t file_last;                  // file_lock: the last whole block
static uint8_t file_window[FILE_WINDOW_SIZE];   // file_lock: bytes of the file from file_window_at
static uint64_t file_window_at;             // file_lock
static size_t file_window_length;           // file_lock: what the file held there
static int file_window_valid;               // file_lock
static std::atomic<int> file_reset_flag;
static std::atomic<db_playlist_import_fn> file_playlist_import;
static std::atomic<db_playlist_reload_fn> file_playlist_reload;
static std::atomic<db_rescan_request_fn> file_rescan_request;

typedef std::lock_guard<std::recursive_mutex> file_hold;

// ---------------------------------------------------------------- bytes

static uint32_t file_le32(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

static void file_put_le32(uint8_t* p, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        p[i] = uint8_t(v >> (8 * i));
}

static int64_t file_le64(const uint8_t* p)
{
    return int64_t(uint64_t(file_le32(p)) | uint64_t(file_le32(p + 4)) << 32);
}

static void file_put_le64(uint8_t* p, int64_t v)
{
    file_put_le32(p, uint32_t(uint64_t(v)));
    file_put_le32(p + 4, uint32_t(uint64_t(v) >> 32));
}

static void file_put_head(uint8_t* b, uint32_t length, uint8_t kind, uint32_t next)
{
    file_put_le32(b, length);
    b[4] = kind;
    b[5] = 0;
    file_put_le32(b + 6, next);
}

static char* file_format(const char* format, ...) __attribute__((format(printf, 1, 2)));
static char* file_format(const char* format, ...)
{
    char buffer[2048];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return n < 0 || size_t(n) >= sizeof buffer ? nullptr : strdup(buffer);
}

// ---------------------------------------------------------------- transfer

static size_t file_read_handle(uint64_t offset, void* out, size_t count)
{
    if (!file_reader || upnp_file_seek(file_reader, int64_t(offset), 0) < 0)
        return 0;
    return upnp_file_read_full(file_reader, out, count);
}

// Reads come through an aligned window of the file, since the load reads
// every block head and payload apart: one transfer serves many blocks.
// No read inside one block crosses a window's edge; one that would is
// served from the handle.
static size_t file_read_window(uint64_t offset, void* out, size_t count)
{
    uint64_t start = offset / FILE_WINDOW_SIZE * FILE_WINDOW_SIZE;
    if (offset + count > start + FILE_WINDOW_SIZE)
        return file_read_handle(offset, out, count);
    if (!file_window_valid || file_window_at != start) {
        file_window_length = file_read_handle(start, file_window, FILE_WINDOW_SIZE);
        file_window_at = start;
        file_window_valid = 1;
    }
    size_t inside = size_t(offset - start);
    size_t n = inside >= file_window_length ? 0 : file_window_length - inside;
    n = n < count ? n : count;
    memcpy(out, file_window + inside, n);
    return n;
}

static size_t file_read_at(uint64_t offset, void* out, size_t count)
{
    if (!file_in_memory)
        return file_read_window(offset, out, count);
    if (offset >= file_image.size())
        return 0;
    size_t n = count < file_image.size() - offset ? count : size_t(file_image.size() - offset);
    memcpy(out, file_image.data() + offset, n);
    return n;
}

static int file_write_at(uint64_t offset, const void* data, size_t count)
{
    if (file_in_memory) {
        if (file_image.size() < offset + count)
            file_image.resize(offset + count);
        memcpy(file_image.data() + offset, data, count);
        return 1;
    }
    if (file_window_valid && offset < file_window_at + FILE_WINDOW_SIZE && offset + count > file_window_at)
        file_window_valid = 0;
    if (!file_writer || upnp_file_seek(file_writer, int64_t(offset), 0) < 0)
        return 0;
    return upnp_file_write_full(file_writer, data, count);
}

// ---------------------------------------------------------------- header

static uint32_t file_free_list()
{
    return file_le32(file_header + FILE_FREE_HEAD_AT);
}

static void file_set_free_list(uint32_t block)
{
    file_put_le32(file_header + FILE_FREE_HEAD_AT, block);
    file_header_dirty = 1;
}

static uint32_t file_folder_entry(uint32_t i)
{
    return file_le32(file_header + FILE_FOLDERS_AT + 4 * i);
}

static void file_set_folder_entry(uint32_t i, uint32_t block)
{
    file_put_le32(file_header + FILE_FOLDERS_AT + 4 * i, block);
    file_header_dirty = 1;
}

static int file_write_header()
{
    if (!file_write_at(0, file_header, sizeof file_header))
        return 0;
    file_header_dirty = 0;
    return 1;
}

void db_file_flush_header()
{
    file_hold hold(file_lock);
    if (file_opened && file_header_dirty)
        file_write_header();
}

// ---------------------------------------------------------------- blocks

static uint64_t file_offset(uint32_t block)
{
    return uint64_t(block) * DB_FILE_BLOCK_SIZE;
}

static int file_read_head(uint32_t block, file_head* h)
{
    uint8_t b[DB_FILE_HEAD_SIZE];
    if (block == 0 || file_read_at(file_offset(block), b, sizeof b) != sizeof b)
        return 0;
    h->length = file_le32(b);
    h->kind = b[4];
    h->next = file_le32(b + 6);
    return 1;
}

// The head of the free list, if it proves free. A crash, or a file from
// elsewhere, can leave the list pointing at a live block or round in a
// loop; then the list is dropped and its blocks stay unused, which costs
// space but never a record.
static uint32_t file_take_free()
{
    uint32_t block = file_free_list();
    if (!block)
        return 0;
    file_head h;
    if (block > file_last || !file_read_head(block, &h) || h.kind != DB_BLOCK_FREE) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "free list broken at block %u: new blocks go to the end\n", block);
        file_set_free_list(0);
        return 0;
    }
    file_set_free_list(h.next);
    file_write_header();
    return block;
}

static uint32_t file_append_block(const uint8_t* block_bytes)
{
    if (file_last >= DB_FILE_BLOCK_MAX) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_DB, "database file full\n");
        return 0;
    }
    uint32_t block = file_last + 1;
    if (!file_write_at(file_offset(block), block_bytes, DB_FILE_BLOCK_SIZE))
        return 0;
    file_last = block;
    return block;
}

uint32_t db_file_write_block(const void* payload, uint32_t length, int32_t kind, uint32_t next)
{
    if (length > DB_FILE_PAYLOAD_MAX || (length && !payload))
        return 0;
    file_hold hold(file_lock);
    if (!file_opened)
        return 0;
    uint8_t b[DB_FILE_BLOCK_SIZE] = {};
    file_put_head(b, length, uint8_t(kind), next);
    if (length)
        memcpy(b + DB_FILE_HEAD_SIZE, payload, length);
    if (uint32_t block = file_take_free())
        return file_write_at(file_offset(block), b, DB_FILE_HEAD_SIZE + length) ? block : 0;
    return file_append_block(b);
}

// ---------------------------------------------------------------- chains

// The length of a record's first piece: what is left after full 502-byte
// continuations are taken from the end. 0 when the record can't be stored:
// a first piece of a single byte, which the format has never allowed, or a
// record too long for any reader to take back.
static uint32_t file_first_piece(int32_t length)
{
    if (length < 2 || uint32_t(length) > DB_FILE_RECORD_MAX)
        return 0;
    uint32_t first = (uint32_t(length) - 1) % DB_FILE_PAYLOAD_MAX + 1;
    return first < 2 ? 0 : first;
}

// Writes text[first, length) as full continuation blocks, the last piece
// first. *head gets the first continuation's block (0 when there is none).
// On failure the blocks written stay unlinked.
static int file_write_tail(const char* text, uint32_t first, uint32_t length, uint32_t* head)
{
    uint32_t next = 0;
    for (uint32_t n = (length - first) / DB_FILE_PAYLOAD_MAX; n > 0; n--) {
        next = db_file_write_block(text + first + (n - 1) * DB_FILE_PAYLOAD_MAX, DB_FILE_PAYLOAD_MAX,
                                   DB_BLOCK_CONTINUATION, next);
        if (!next)
            return 0;
    }
    *head = next;
    return 1;
}

uint32_t db_file_store(const char* text, int32_t length)
{
    uint32_t first = file_first_piece(length);
    if (!text || !first)
        return 0;
    file_hold hold(file_lock);
    uint32_t next = 0;
    if (!file_write_tail(text, first, uint32_t(length), &next))
        return 0;
    return db_file_write_block(text, first, DB_BLOCK_START, next);
}

// Frees first and then the continuations behind it. A block that is
// already free ends the walk, so a chain that loops is freed once.
static void file_free_from(uint32_t first, int first_may_be_any)
{
    uint32_t block = first;
    for (uint32_t step = 0; block && step <= file_last; step++) {
        file_head h;
        if (block > file_last || !file_read_head(block, &h) || h.kind == DB_BLOCK_FREE)
            return;
        if ((step > 0 || !first_may_be_any) && h.kind != DB_BLOCK_CONTINUATION)
            return;
        uint8_t b[DB_FILE_HEAD_SIZE];
        file_put_head(b, 0, DB_BLOCK_FREE, file_free_list());
        if (!file_write_at(file_offset(block), b, sizeof b))
            return;
        file_set_free_list(block);
        if (h.next == block)
            return;
        block = h.next;
    }
}

void db_file_free_chain(uint32_t first)
{
    file_hold hold(file_lock);
    if (file_opened)
        file_free_from(first, 1);
}

int db_file_rewrite(uint32_t block, const upnp_string* text)
{
    uint32_t first = text && text->text ? file_first_piece(text->length) : 0;
    if (!first)
        return 0;
    file_hold hold(file_lock);
    file_head old;
    if (!file_opened || block > file_last || !file_read_head(block, &old) || old.kind != DB_BLOCK_START) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "no record at block %u to rewrite\n", block);
        return 0;
    }
    uint32_t next = 0;
    if (!file_write_tail(text->text, first, uint32_t(text->length), &next))
        return 0;
    uint8_t b[DB_FILE_BLOCK_SIZE];
    file_put_head(b, first, DB_BLOCK_START, next);
    memcpy(b + DB_FILE_HEAD_SIZE, text->text, first);
    if (!file_write_at(file_offset(block), b, DB_FILE_HEAD_SIZE + first))
        return 0;
    if (old.next != block)
        file_free_from(old.next, 0);
    return 1;
}

// ---------------------------------------------------------------- reading

enum file_read_result { FILE_READ_END, FILE_READ_BAD, FILE_READ_NONE, FILE_READ_RECORD };

static int file_append_payload(upnp_string** text, uint32_t block, uint32_t length)
{
    uint8_t payload[DB_FILE_PAYLOAD_MAX];
    if (file_read_at(file_offset(block) + DB_FILE_HEAD_SIZE, payload, length) != length)
        return 0;
    int32_t before = *text ? (*text)->length : 0;
    *text = upnp_string_append_bytes(*text, payload, int32_t(length));
    return *text && (*text)->length == before + int32_t(length);
}

// Reads the chain that starts at block. Every continuation must be a full
// "c" block, as every writer makes them, so a chain that loops or lies ends
// within DB_FILE_RECORD_MAX bytes.
static int file_read_chain(uint32_t block, upnp_string** text)
{
    if (*text)
        upnp_string_empty(*text);
    file_head h;
    if (!file_read_head(block, &h))
        return FILE_READ_END;
    if (h.kind != DB_BLOCK_START)
        return FILE_READ_NONE;
    uint32_t total = 0;
    for (uint32_t at = block;;) {
        if (h.length == 0 || h.length > DB_FILE_PAYLOAD_MAX || total + h.length > DB_FILE_RECORD_MAX
            || !file_append_payload(text, at, h.length))
            return FILE_READ_BAD;
        total += h.length;
        if (!h.next)
            return FILE_READ_RECORD;
        at = h.next;
        if (!file_read_head(at, &h) || h.kind != DB_BLOCK_CONTINUATION || h.length != DB_FILE_PAYLOAD_MAX)
            return FILE_READ_BAD;
    }
}

static int file_read_locked(uint32_t block, upnp_string** text)
{
    file_hold hold(file_lock);
    if (!file_opened)
        return FILE_READ_END;
    int r = file_read_chain(block, text);
    if (r == FILE_READ_BAD) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "database record at block %u is damaged\n", block);
        db_file_request_reset();
    }
    return r;
}

int db_file_read_record(uint32_t block, upnp_string** text)
{
    if (!text)
        return 0;
    int r = file_read_locked(block, text);
    return r == FILE_READ_NONE || r == FILE_READ_RECORD;
}

// A damaged record is skipped, not the end of the load: the records behind
// it are as good as those before it.
void db_file_walk(db_file_run_flag running, db_file_record_sink sink, void* context, db_file_walk_result* result)
{
    db_file_walk_result counts = {0, 0};
    upnp_string* text = nullptr;
    for (uint32_t block = 1; block <= DB_FILE_BLOCK_MAX; block++) {
        if (running && !running())
            break;
        // Other threads get their turn, but not once per block: under load a
        // yield can cost a whole time slice.
        if (block % FILE_WALK_YIELD == 0)
            std::this_thread::yield();
        int r = file_read_locked(block, &text);
        if (r == FILE_READ_END)
            break;
        if (r == FILE_READ_BAD)
            counts.skipped++;
        if (r != FILE_READ_RECORD)
            continue;
        counts.records++;
        if (sink)
            sink(block, text->text, text->length, context);
    }
    upnp_string_free(text);
    if (counts.skipped)
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "%u damaged database records skipped\n", counts.skipped);
    if (result)
        *result = counts;
}

char* db_file_get_path_and_type(uint32_t block, int32_t* type)
{
    upnp_string* text = nullptr;
    char* path = nullptr;
    if (file_read_locked(block, &text) == FILE_READ_RECORD)
        path = db_record_path_and_type(text->text, text->length, type);
    upnp_string_free(text);
    return path;
}

int32_t db_file_status_of_block(uint32_t block)
{
    upnp_string* text = nullptr;
    int32_t status = DB_FILE_GONE;
    if (file_read_locked(block, &text) == FILE_READ_RECORD) {
        int32_t type = 0;
        char* path = db_record_path_and_type(text->text, text->length, &type);
        status = path ? db_file_status(path, type) : 0;
        free(path);
    }
    upnp_string_free(text);
    return status;
}

char* db_file_get_path(uint32_t id)
{
    int32_t type;
    return db_file_get_path_and_type(db_id_to_block(id), &type);
}

// ---------------------------------------------------------------- folder times

// A folder-time record: ten zero bytes, the time, the text with its NUL.
static int file_read_folder(uint32_t block, uint8_t* b)
{
    if (block == 0 || block > file_last || file_read_at(file_offset(block), b, DB_FILE_BLOCK_SIZE) != DB_FILE_BLOCK_SIZE)
        return 0;
    for (uint32_t i = 0; i < DB_FILE_HEAD_SIZE; i++)
        if (b[i])
            return 0;
    return memchr(b + FILE_FOLDER_TEXT_AT, 0, DB_FILE_BLOCK_SIZE - FILE_FOLDER_TEXT_AT) != nullptr;
}

int64_t db_file_get_folder_time(const char* folder)
{
    if (!folder)
        return 0;
    file_hold hold(file_lock);
    if (!file_opened)
        return 0;
    uint8_t b[DB_FILE_BLOCK_SIZE];
    for (uint32_t i = 0; i < DB_FILE_FOLDER_SLOTS && file_folder_entry(i); i++)
        if (file_read_folder(file_folder_entry(i), b) && strcmp((char*)b + FILE_FOLDER_TEXT_AT, folder) == 0)
            return file_le64(b + FILE_FOLDER_TIME_AT);
    return 0;
}

static void file_new_folder(uint32_t slot, const char* folder, int64_t time)
{
    uint8_t one = 0;
    uint32_t block = db_file_write_block(&one, 1, DB_BLOCK_FOLDER_NEW, 0);
    if (!block)
        return;
    uint8_t b[DB_FILE_BLOCK_SIZE] = {};
    file_put_le64(b + FILE_FOLDER_TIME_AT, time);
    memcpy(b + FILE_FOLDER_TEXT_AT, folder, strlen(folder));
    if (!file_write_at(file_offset(block), b, sizeof b))
        return;
    file_set_folder_entry(slot, block);
    file_write_header();
}

void db_file_set_folder_time(const char* folder, int64_t time)
{
    if (!folder)
        return;
    if (strlen(folder) > DB_FILE_FOLDER_TEXT_MAX) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_DB, "folder name too long for a scan time: %s\n", folder);
        return;
    }
    file_hold hold(file_lock);
    if (!file_opened)
        return;
    uint8_t b[DB_FILE_BLOCK_SIZE];
    uint32_t i = 0;
    for (; i < DB_FILE_FOLDER_SLOTS && file_folder_entry(i); i++) {
        uint32_t block = file_folder_entry(i);
        if (file_read_folder(block, b) && strcmp((char*)b + FILE_FOLDER_TEXT_AT, folder) == 0) {
            file_put_le64(b + FILE_FOLDER_TIME_AT, time);
            file_write_at(file_offset(block) + FILE_FOLDER_TIME_AT, b + FILE_FOLDER_TIME_AT, 8);
            return;
        }
    }
    if (i < DB_FILE_FOLDER_SLOTS)
        file_new_folder(i, folder, time);
}

static int file_folder_configured(const char* folder)
{
    for (int32_t i = 0; const char* entry = upnp_contentdir_get(i); i++)
        if (entry[0] && strcmp(entry + 1, folder) == 0)
            return 1;
    return 0;
}

// An entry that doesn't lead to a folder-time record is dropped without
// freeing its block: it may be anything, a live record included.
void db_file_prune_folders()
{
    file_hold hold(file_lock);
    if (!file_opened)
        return;
    uint8_t b[DB_FILE_BLOCK_SIZE];
    uint32_t kept = 0, i = 0;
    for (; i < DB_FILE_FOLDER_SLOTS && file_folder_entry(i); i++) {
        uint32_t block = file_folder_entry(i);
        int valid = file_read_folder(block, b);
        if (valid && file_folder_configured((char*)b + FILE_FOLDER_TEXT_AT)) {
            file_set_folder_entry(kept++, block);
            continue;
        }
        if (valid)
            file_free_from(block, 1);
    }
    for (uint32_t j = kept; j < i; j++)
        file_set_folder_entry(j, 0);
    if (file_header_dirty)
        file_write_header();
}

// ---------------------------------------------------------------- names

struct file_names {
    const char* suffix[3];        // database, playlists, playlists being rewritten
    const char* marker;           // the version marker beside them
};

// Index: upnp_switches.full_mode (0 simple, 1 full).
static constexpr file_names file_name_table[2] = {
    {{".simple.db", ".simple.playlists", ".simple.playlists.temp"}, "%s/%s_simple"},
    {{".main.db", ".main.playlists", ".main.playlists.temp"}, "%s/%s"},
};

char* db_file_name(const char* dir, const char* suffix)
{
    return file_format("%s%cvelmoramedia%s", dir ? dir : "", '/', suffix ? suffix : "");
}

char* db_file_path_of(int32_t kind)
{
    const char* dir = upnp_ini_get_string(UPNP_OPT_DBDIR);
    if (!dir || !*dir || kind < DB_FILE_DATABASE || kind > DB_FILE_MARKER)
        return nullptr;
    const file_names& names = file_name_table[upnp_switches.full_mode ? 1 : 0];
    if (kind == DB_FILE_MARKER)
        return file_format(names.marker, dir, DB_FILE_VERSION);
    return db_file_name(dir, names.suffix[kind]);
}

// ---------------------------------------------------------------- marker and reset

void db_file_request_reset()
{
    file_reset_flag = 1;
}

int db_file_reset_requested()
{
    return file_reset_flag.load();
}

void db_file_reset()
{
    const char* dir = upnp_ini_get_string(UPNP_OPT_DBDIR);
    char* watch = dir && *dir ? file_format("%s%cwatch", dir, '/') : nullptr;
    if (!watch)
        return;
    for (upnp_dir* w = upnp_dir_open(watch); w; w = upnp_dir_next(w))
        if (!w->is_dir)
            upnp_file_delete(w->path);
    free(watch);
}

int db_file_check()
{
    char* marker = db_file_path_of(DB_FILE_MARKER);
    upnp_file_info info;
    if (marker && upnp_file_stat(marker, &info) == 0) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "database check ok\n");
        free(marker);
        return 1;
    }
    db_file_reset();
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "invoking initial database build\n");
    if (db_rescan_request_fn request = file_rescan_request.load())
        request();
    db_request_shadow_sweep();
    upnp_file_close(upnp_file_open_write(marker));
    free(marker);
    return 0;
}

// ---------------------------------------------------------------- open and close

static void file_close_handles()
{
    file_window_valid = 0;
    upnp_file_close(file_writer);
    upnp_file_close(file_reader);
    file_writer = file_reader = nullptr;
}

static int file_open_handles()
{
    if (file_in_memory)
        return 1;
    file_close_handles();
    file_writer = upnp_file_open_write(file_path);
    file_reader = file_writer ? upnp_file_open_read(file_path) : nullptr;
    if (file_reader)
        return 1;
    upnp_log(UPNP_LOG_ERROR, UPNP_LOG_DB, "cannot open the database file %s\n", file_path);
    file_close_handles();
    return 0;
}

static void file_discard()
{
    if (file_in_memory) {
        file_image.clear();
        return;
    }
    file_close_handles();
    upnp_file_delete(file_path);
}

// 1 when the header is read or made, 0 for a file of another version.
static int file_take_header()
{
    uint8_t b[DB_FILE_HEADER_USED];
    memset(file_header, 0, sizeof file_header);
    file_header_dirty = 0;
    if (file_read_at(0, b, sizeof b) < sizeof b) {
        memcpy(file_header, DB_FILE_VERSION, sizeof DB_FILE_VERSION);
        return file_write_header() ? 1 : -1;
    }
    if (memcmp(b, DB_FILE_VERSION, sizeof DB_FILE_VERSION) != 0)
        return 0;
    memcpy(file_header, b, sizeof b);
    return 1;
}

static int file_count_blocks()
{
    uint64_t size = file_image.size();
    if (!file_in_memory) {
        upnp_file_info info;
        if (upnp_file_stat(file_path, &info) != 0) {
            printf("[ERROR] Failed to get file attributes!  (function:%s(%d))\n", "upnp_cds_db_main_db_init",
                   __LINE__);
            return 0;
        }
        printf("strFilename : %s\n", file_path);
        size = info.size;
    }
    uint64_t blocks = size / DB_FILE_BLOCK_SIZE;
    file_last = blocks == 0 ? 0 : blocks - 1 > DB_FILE_BLOCK_MAX ? DB_FILE_BLOCK_MAX : uint32_t(blocks - 1);
    return 1;
}

static int file_init()
{
    for (uint32_t round = 0; round < FILE_OPEN_ROUNDS; round++) {
        if (!file_open_handles())
            return 0;
        int taken = file_take_header();
        if (taken < 0)
            break;
        if (taken && file_count_blocks()) {
            file_opened = 1;
            return 1;
        }
        if (taken)
            break;
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "database of another version discarded\n");
        file_discard();
    }
    file_close_handles();
    return 0;
}

static int file_rewrite_object(uint32_t block, const db_object* o, const char* path)
{
    upnp_string* text = db_object_to_record(o, path);
    int ok = text && db_file_rewrite(block, text);
    upnp_string_free(text);
    return ok;
}

static uint32_t file_store_text(const char* text, int32_t length)
{
    return db_file_store(text, length);
}

static const db_record_store file_record_store = {
    file_store_text,
    file_rewrite_object,
    db_file_free_chain,
    db_file_get_path_and_type,
};

static void file_close_locked()
{
    if (file_opened && file_header_dirty)
        file_write_header();
    file_close_handles();
    file_image.clear();
    file_image.shrink_to_fit();
    file_opened = 0;
    file_last = 0;
}

int upnp_cds_db_main_db_init()
{
    file_hold hold(file_lock);
    file_close_locked();
    file_in_memory = 0;
    free(file_path);
    file_path = db_file_path_of(DB_FILE_DATABASE);
    return file_path && file_init();
}

int db_file_open()
{
    const char* dir = upnp_ini_get_string(UPNP_OPT_DBDIR);
    if (!dir || !*dir) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_DB, "no database folder set\n");
        return 0;
    }
    upnp_mkdir_parents(dir);
    db_file_check();
    if (!upnp_cds_db_main_db_init())
        return 0;
    db_set_record_store(&file_record_store);
    return 1;
}

static int file_init_memory(const void* bytes, size_t size)
{
    file_hold hold(file_lock);
    file_close_locked();
    file_in_memory = 1;
    const uint8_t* b = static_cast<const uint8_t*>(bytes);
    file_image.assign(b, b + (b ? size : 0));
    return file_init();
}

// The store is told outside the file lock, which is inner to db_lock.
int db_file_open_memory(const void* bytes, size_t size)
{
    if (!file_init_memory(bytes, size))
        return 0;
    db_set_record_store(&file_record_store);
    return 1;
}

size_t db_file_memory_image(const uint8_t** bytes)
{
    file_hold hold(file_lock);
    if (bytes)
        *bytes = file_image.data();
    return file_in_memory ? file_image.size() : 0;
}

void db_file_close()
{
    db_set_record_store(nullptr);
    db_path_index_free();
    file_hold hold(file_lock);
    int was_memory = file_in_memory;
    file_close_locked();
    file_in_memory = 0;
    // A reset asked for by a memory image has no folder to act on.
    if (file_reset_flag.exchange(0) && !was_memory)
        db_file_reset();
}

int db_file_is_open()
{
    file_hold hold(file_lock);
    return file_opened;
}

uint32_t db_file_last_block()
{
    file_hold hold(file_lock);
    return file_last;
}

uint32_t db_file_free_head()
{
    file_hold hold(file_lock);
    return file_free_list();
}

// ---------------------------------------------------------------- loading and imports

void db_file_set_rescan_request(db_rescan_request_fn request)
{
    file_rescan_request = request;
}

void db_file_set_playlist_handlers(db_playlist_import_fn import, db_playlist_reload_fn reload)
{
    file_playlist_import = import;
    file_playlist_reload = reload;
}

// Only items the store can place are entered; the rest stay in the file.
static void file_load_record(uint32_t block, const char* text, int32_t length, void*)
{
    db_meta_list* list = nullptr;
    char* path = nullptr;
    int32_t type = DB_RECORD_NO_TYPE;
    upnp_cds_db_main_db_parse(text, length, &list, &path, &type);
    if (list && path && db_type_is_item(type))
        db_object_add(list, path, type, block, text, length);
    db_meta_list_free(list);
    free(path);
}

void db_file_load_all(db_file_run_flag running)
{
    db_file_walk_result result;
    db_file_walk(running, file_load_record, nullptr, &result);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "database loaded: %u records\n", result.records);
    if (db_playlist_reload_fn reload = file_playlist_reload.load())
        reload(running);
}

static int file_is_import(const upnp_dir* w, const char* marker)
{
    return !w->is_dir && strstr(w->name, marker) != nullptr;
}

static void file_drop_playlists(const char* dir)
{
    for (upnp_dir* w = upnp_dir_open(dir); w; w = upnp_dir_next(w)) {
        if (!file_is_import(w, ".import.playlists"))
            continue;
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "no playlist reader, dropped %s\n", w->path);
        upnp_file_delete(w->path);
    }
}

static void file_import_playlists(const char* dir, db_file_run_flag running)
{
    db_playlist_import_fn import = file_playlist_import.load();
    char* name = db_file_path_of(DB_FILE_PLAYLISTS);
    upnp_file* playlists = import && name ? upnp_file_open_write(name) : nullptr;
    free(name);
    if (!playlists) {
        // Every pass writes the lists afresh, so with nobody to read them
        // they are dropped rather than left to pile up.
        file_drop_playlists(dir);
        return;
    }
    upnp_file_seek(playlists, 0, 2);
    for (upnp_dir* w = upnp_dir_open(dir); w; w = upnp_dir_next(w)) {
        if (running && !running()) {
            upnp_dir_close(w);
            break;
        }
        if (!file_is_import(w, ".import.playlists"))
            continue;
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "adding playlist %s!\n", w->path);
        import(w->path, playlists, running);
        upnp_file_delete(w->path);
    }
    upnp_file_close(playlists);
}

void db_file_import_all(db_file_run_flag running)
{
    const char* dir = upnp_ini_get_string(UPNP_OPT_DBDIR);
    if (!dir || !*dir)
        return;
    for (upnp_dir* w = upnp_dir_open(dir); w; w = upnp_dir_next(w)) {
        if (!file_is_import(w, ".import.items"))
            continue;
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_DB, "adding file %s!\n", w->path);
        int read = db_import_items_file(w->path, running);
        if (read == 0) {
            upnp_dir_close(w);
            return;
        }
        if (read > 0)
            upnp_file_delete(w->path);
    }
    file_import_playlists(dir, running);
}
