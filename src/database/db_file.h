// db_file.h: the database files in dbdir.
//
// The block file ("velmoramedia.main.db", ".simple.db" in simple mode) keeps
// one text record per item: its path and all metadata, which memory does not
// hold. It is an array of 512-byte blocks. Block 0 is the header: the version
// text, the head of the free list and the blocks of up to 122 folder-time
// records. Every other block has a 10-byte head (payload length, kind, next
// block) and up to 502 bytes of payload. A record is a chain: an "s" block
// with the first piece, then full "c" blocks; the "s" block's number is the
// item's id, and it survives every rewrite. Beside the block file stand the
// version marker, the playlists file and the import files that another
// process drops into the folder.
//
// The file comes from disk and is trusted for nothing. Every block number,
// length and chain is checked before it is followed, chains are bounded, a
// record that cannot be read is skipped (and logged) without ending the
// load, and the free list is taken one block at a time, each proved free
// before it is reused.
//
// Crash order. A record's continuation blocks are written before the start
// block that links them. A rewrite writes the new continuations into fresh
// blocks, replaces the start block in one write, and only then frees the
// old chain. Taking a free block writes the header before the block. So a
// kill at any moment leaves every record as it was or as written; the price
// is blocks that no list holds until the file is made anew.
//
// Locking: the file lock guards the handles, the header and the block count.
// It is inner to db_lock: nothing here calls into the store while holding it.
#pragma once
#include <cstddef>
#include <cstdint>

struct upnp_file;
struct upnp_string;

inline constexpr uint32_t DB_FILE_BLOCK_SIZE = 512;
inline constexpr uint32_t DB_FILE_HEAD_SIZE = 10;
inline constexpr uint32_t DB_FILE_PAYLOAD_MAX = 502;
inline constexpr uint32_t DB_FILE_HEADER_USED = 508;
inline constexpr uint32_t DB_FILE_FOLDER_SLOTS = 122;
inline constexpr uint32_t DB_FILE_FOLDER_TEXT_MAX = 493;
// Real records stay far below this; longer ones are refused when stored and
// skipped when read, which bounds every chain walk.
inline constexpr uint32_t DB_FILE_RECORD_MAX = 128 * 1024;
// Block numbers become the 27-bit sequence of an item's id.
inline constexpr uint32_t DB_FILE_BLOCK_MAX = 0x07FFFFFF;

enum db_block_kind : uint8_t {
    DB_BLOCK_FOLDER_TIME = 0,
    DB_BLOCK_START = 's',
    DB_BLOCK_CONTINUATION = 'c',
    DB_BLOCK_FREE = 'x',
    DB_BLOCK_FOLDER_NEW = 'd',      // a folder-time block before its record is written
};

// The program's version, which names the files and marks block 0.
extern const char DB_FILE_VERSION[];

// The files in dbdir, in the names of the running mode (upnp_switches.full_mode).
enum db_file_kind : int32_t {
    DB_FILE_DATABASE = 0,
    DB_FILE_PLAYLISTS = 1,
    DB_FILE_PLAYLISTS_TEMP = 2,
    DB_FILE_MARKER = 3,
};
// A new text the caller frees; null when dbdir is unset.
char* db_file_path_of(int32_t kind);
// dir + "/velmoramedia" + suffix, a new text the caller frees.
char* db_file_name(const char* dir, const char* suffix);

// ---- Opening and closing --------------------------------------------------

// Reads dbdir, runs the marker check, opens the block file and hands the
// store its record functions. 1 when the block file is open.
int db_file_open();
// 1 when the version marker was found; else the initial build is started
// (reset, full scan) and the marker made: 0.
int db_file_check();
// How the initial build asks for a full scan: the scanner hands its
// request down at start. Without one, nothing is asked.
typedef void (*db_rescan_request_fn)();
void db_file_set_rescan_request(db_rescan_request_fn request);
// Opens the block file of the running mode. A file of another version is
// deleted and made anew. 1 when open.
int upnp_cds_db_main_db_init();
// Frees the path index, flushes the header, closes the handles and runs the
// reset if one was requested.
void db_file_close();
void db_file_request_reset();   // the reset runs when the files are closed at stop
int db_file_reset_requested();
// Empties the watch folder below dbdir. The database itself stays: only a
// version change discards it.
void db_file_reset();

// The same block file held in memory, from a copy of bytes as the file's
// content, for tests and fuzzing. Everything below works on it alike;
// db_file_close drops it, and any reset it asked for.
int db_file_open_memory(const void* bytes, size_t size);
// The bytes of the memory image (valid until the next call here).
size_t db_file_memory_image(const uint8_t** bytes);

int db_file_is_open();
uint32_t db_file_last_block();      // the last whole block; 0 with the header alone
uint32_t db_file_free_head();       // the first free block as the header holds it

// ---- Blocks and chains (each takes the file lock) ---------------------------

// The block written, 0 for a length above 502 or a failed write. A free
// block is reused if the list offers one that proves free; else the block
// goes to the end of the file.
uint32_t db_file_write_block(const void* payload, uint32_t length, int32_t kind, uint32_t next);
// The record's first block, 0 when it can't be stored: a length of 503, or
// any length whose first piece would be a single byte, a length above
// DB_FILE_RECORD_MAX, or a failed write.
uint32_t db_file_store(const char* text, int32_t length);
// Replaces the record that starts at block, keeping block. 1 on success; 0
// leaves the old record as it was.
int db_file_rewrite(uint32_t block, const upnp_string* text);
// Frees the record (or folder-time block) at first and its continuations.
void db_file_free_chain(uint32_t first);
// 0 at the file's end or for a record that can't be read (which requests a
// reset), else 1. *text (reused when not null, else made as needed) holds
// the record only for a start block; otherwise it is empty or null.
int db_file_read_record(uint32_t block, upnp_string** text);
void db_file_flush_header();

// ---- Walking the records ------------------------------------------------------

// Called without the file lock for each record, block by block.
typedef void (*db_file_record_sink)(uint32_t block, const char* text, int32_t length, void* context);
// The run flag of the caller's thread; null runs to the end.
typedef int32_t (*db_file_run_flag)();
struct db_file_walk_result {
    uint32_t records;        // records handed to the sink
    uint32_t skipped;        // start blocks whose record could not be read
};
// Reads the file once in block order, yielding to other threads as it goes.
void db_file_walk(db_file_run_flag running, db_file_record_sink sink, void* context,
                  db_file_walk_result* result);

// ---- Reads by block ---------------------------------------------------------

// The path of the item with this id word, a new text the caller frees.
char* db_file_get_path(uint32_t id);
// The path of the record at block (a new text the caller frees) and its
// type; null, type untouched, when the block holds no readable record.
char* db_file_get_path_and_type(uint32_t block, int32_t* type);
// db_file_status (db_tree.h) of the path in the block, for its type; a
// block that holds no record counts as a file gone, one without a path as 0.
int32_t db_file_status_of_block(uint32_t block);

// ---- Loading and importing ----------------------------------------------------

// Enters every stored item into the store, then rebuilds the playlists.
void db_file_load_all(db_file_run_flag running);
// Reads the ".import.items" and ".import.playlists" files of dbdir into the
// store and deletes them. A file whose import the run flag stopped stays.
void db_file_import_all(db_file_run_flag running);

// The playlist builder's side of loading and importing. Until handlers are
// set, loading skips the rebuild and ".import.playlists" files wait in dbdir.
typedef void (*db_playlist_import_fn)(const char* path, upnp_file* playlists, db_file_run_flag running);
typedef void (*db_playlist_reload_fn)(db_file_run_flag running);
void db_file_set_playlist_handlers(db_playlist_import_fn import, db_playlist_reload_fn reload);

// ---- Folder times -------------------------------------------------------------

// Keys are content folder entries from their second character on. A key
// longer than 493 bytes is refused; a 123rd folder is dropped.
void db_file_set_folder_time(const char* folder, int64_t time);
int64_t db_file_get_folder_time(const char* folder);     // 0 when absent
// Drops the records of folders that no contentdir entry names any more.
void db_file_prune_folders();

// ---- The playlists file and playlist imports ----------------------------------

// An entry of the playlists file: path length, path, name length, name,
// kind, count (4-byte little-endian numbers, texts without NUL), then count
// block numbers.
inline constexpr uint32_t DB_PLAYLIST_TEXT_MAX = 1023;
struct db_playlist_head {
    char path[DB_PLAYLIST_TEXT_MAX + 1];
    char name[DB_PLAYLIST_TEXT_MAX + 1];
    int32_t kind;            // 1 audio, 2 radio, 3 video
    int32_t count;           // already checked against what the file still holds
};
// 1 with a head; 0 where the list ends (nothing left, or a length of 0 or
// above 1023); -1 for a fault (the file ends inside the head, or the count
// promises more entries than the file holds).
int db_playlist_read_head(upnp_file* file, db_playlist_head* head);
// Writes a head with a count of 0 at the current position: the offset of the
// count, or -1.
int64_t db_playlist_write_head(upnp_file* file, const char* path, const char* name, int32_t kind);
// Writes count at offset and returns to the end of the file. 1 or 0.
int db_playlist_write_count(upnp_file* file, int64_t offset, int32_t count);
int db_playlist_read_block(upnp_file* file, uint32_t* block);     // 1 or 0
int db_playlist_write_block(upnp_file* file, uint32_t block);     // 1 or 0

// Lines of a ".import.playlists" file.
enum db_playlist_line : int32_t {
    DB_PLAYLIST_LINE_ENTRY = 0,          // a file path or URL: the whole line
    DB_PLAYLIST_LINE_AUDIO = 1,          // "#PLAYLIST": kind 1 from here on
    DB_PLAYLIST_LINE_RADIO = 2,          // "#RADIO-STATIONS": kind 2
    DB_PLAYLIST_LINE_VIDEO = 3,          // "#VIDEOLIST": kind 3
    DB_PLAYLIST_LINE_TITLE,              // "#TITLE:" for the next stream URL
    DB_PLAYLIST_LINE_DEFAULT_EXTENSION,  // "#DEFAULT EXTENSION:"
    DB_PLAYLIST_LINE_NAME,               // "#NAME:" starts a list
    DB_PLAYLIST_LINE_FILE,               // "#FILE:" the list's own file
    DB_PLAYLIST_LINE_COMMENT,            // any other line beginning "#"
};
inline constexpr int32_t DB_PLAYLIST_LINE_MAX = 4096;
// The next line without its trailing control bytes into buffer (at least
// DB_PLAYLIST_LINE_MAX + 1 bytes): its length, or -1 at the end.
int32_t db_playlist_read_line(upnp_file* file, char* buffer, int32_t size);
// What a line means; *argument gets the text behind a directive's colon,
// the line itself for an entry or a comment, null for the three kinds.
int32_t db_playlist_line_kind(const char* line, const char** argument);
