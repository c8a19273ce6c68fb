// upnp_file.h: all file access of the server. Handles with 64-bit
// positions, file attributes in seconds since 1970, a directory walker that
// hides what the server must not serve (dot names, FIFOs, sockets, devices,
// entries with impossible times), and the media handle that can read a file
// split over segments. Paths are UTF-8 bytes; identity is exact.
//
// Results are 0 for success and -1 for failure unless said otherwise.
#pragma once
#include <cstddef>
#include <cstdint>

// Segment records and their paths come from malloc; upnp_file_close frees
// the whole chain.
struct upnp_file_segment {
    char* path;
    int64_t size;
    upnp_file_segment* next;
};

struct upnp_file {
    int32_t fd;               // -1 when closed
    int32_t media;            // 1 for a handle from upnp_mediafile_open_read
    int64_t size;             // -1 when it could not be read
    int64_t position;         // logical position: moved by seek, read and write
    upnp_file_segment* segments;
    upnp_file_segment* current;
};

enum {
    UPNP_FILE_MODE_DIR = 0x4000,
    UPNP_FILE_MODE_REG = 0x8000,
    UPNP_FILE_MODE_READ = 0x100,
    UPNP_FILE_MODE_WRITE = 0x80,
};

struct upnp_file_info {
    int64_t created;          // seconds since 1970-01-01 00:00:00 UTC
    int64_t modified;
    int64_t accessed;
    uint64_t size;
    uint32_t mode;            // UPNP_FILE_MODE_*; WRITE is left out when no
                              // write permission bit is set at all (the
                              // file's own read-only mark, whoever asks)
};

struct upnp_dir {
    void* handle;             // the platform's directory stream
    char* dir_path;           // without a trailing separator
    char* path;               // full path of the current entry
    char* name;               // name of the current entry
    int32_t is_dir;
    int32_t is_link;          // the entry is a symbolic link (is_dir and the
                              // identity then describe its target)
    uint64_t device;          // identity of the current entry, so that a
    uint64_t inode;           // recursive walk can refuse to loop
};

// Entries whose full path would pass this many bytes are skipped, never cut.
inline constexpr size_t UPNP_DIR_PATH_MAX = 2047;

// Suffix of the empty marker left beside an entry with impossible times.
inline constexpr const char UPNP_INVALID_DATE_SUFFIX[] = ".has_invalid_date.velmora";

// -1 also when any time lies before 1970: such a file reads as missing.
int upnp_file_stat(const char* path, upnp_file_info* info);
int upnp_file_stat_size(const char* path, upnp_file_info* info);
// The open functions give null for anything but a regular file, so that a
// FIFO or a device can never block or flood the caller.
upnp_file* upnp_file_open_read(const char* path);
upnp_file* upnp_file_open_write(const char* path);   // creates 0600, never truncates
upnp_file* upnp_mediafile_open_read(const char* path);
void upnp_file_close(upnp_file* file);
int64_t upnp_file_read(upnp_file* file, void* buffer, size_t count);
int64_t upnp_file_write(upnp_file* file, const void* buffer, size_t count);
// Short reads and writes go on until count bytes have moved: the bytes
// read (fewer only at the end or on an error), and 1 or 0 for a write.
size_t upnp_file_read_full(upnp_file* file, void* buffer, size_t count);
int upnp_file_write_full(upnp_file* file, const void* buffer, size_t count);
// origin: 0 start, 1 current, 2 end. The new position, or -1.
int64_t upnp_file_seek(upnp_file* file, int64_t offset, int origin);
int upnp_file_eof(upnp_file* file);
// One line with its line feed, at most size - 1 bytes, always terminated.
// The buffer, or null when nothing was read (or size < 2).
char* upnp_file_gets(char* buffer, int size, upnp_file* file);
int64_t upnp_mediafile_seek(upnp_file* file, int64_t offset, int origin);
int64_t upnp_mediafile_read(upnp_file* file, void* buffer, size_t count);
// Reads at offset without moving the handle's position, so that readers
// that share nothing but the file never pay for a seek: the count, 0 at
// the end, -1 on an error.
int64_t upnp_file_pread(upnp_file* file, void* buffer, size_t count, int64_t offset);

// 1 for a regular file that is not a link (a link reports its target
// elsewhere), else 0.
int upnp_file_is_plain(const char* path);

int upnp_mkdir(const char* path);
int upnp_mkdir_parents(const char* path);
int upnp_file_delete(const char* path);
int upnp_file_rename(const char* old_path, const char* new_path);   // fails on an existing target
char* upnp_file_fullpath(const char* path);                          // lexical, need not exist
// The device and inode of what path names, links followed. 0 or -1.
int upnp_file_identity(const char* path, uint64_t* device, uint64_t* inode);
// The path with every link resolved, for a path that exists; null else.
char* upnp_file_realpath(const char* path);
// Reads a whole file into a new block with two zero bytes behind it.
// 1 with *data and *size set, else 0. Files over max_size are refused.
int upnp_file_read_all(const char* path, size_t max_size, void** data, size_t* size);
// Writes bytes to a temporary file beside path, syncs it and renames it
// over path, so that a crash leaves either the old file or the new one.
// The old file's permissions are kept; a new file gets 0600. 0 or -1.
int upnp_file_replace(const char* path, const void* data, size_t size);

// The entry of folder named name, the exact name first, else one that
// differs only in ASCII case: a new full path the caller frees, or null.
char* upnp_file_find_nocase(const char* folder, const char* name);

// The walker itself for each usable entry; null at the end, having closed it.
// path and name are valid until the next call. Symlinks are followed: is_dir,
// device and inode describe the target.
upnp_dir* upnp_dir_open(const char* path);
upnp_dir* upnp_dir_next(upnp_dir* walker);
void upnp_dir_close(upnp_dir* walker);
