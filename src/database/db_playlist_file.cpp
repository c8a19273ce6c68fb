// db_playlist_file.cpp: the formats of the playlists file and of playlist
// import files, for the list builder that reads and writes them. No globals
// and no lock: only the scanner thread touches these files.
//
// The playlists file is read as it comes from disk: each length is checked
// against its limit and each count against the bytes the file still holds
// before anyone loops over it.
#include "database/db_file.h"

#include "runtime/upnp_file.h"

#include <cstring>
#include <string_view>

static int playlist_write_u32(upnp_file* f, uint32_t v)
{
    uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    return upnp_file_write_full(f, b, sizeof b);
}

// 1 with four bytes, 0 when none came, -1 when the file ended inside them.
static int playlist_read_u32(upnp_file* f, uint32_t* v)
{
    uint8_t b[4];
    size_t n = upnp_file_read_full(f, b, sizeof b);
    if (n != sizeof b)
        return n == 0 ? 0 : -1;
    *v = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    return 1;
}

// A text by its length: 1, 0 for a length outside 1 to 1023 (the list
// ends there), -1 when the file ends inside it.
static int playlist_read_text(upnp_file* f, char* out, int first)
{
    uint32_t n = 0;
    int got = playlist_read_u32(f, &n);
    if (got <= 0)
        return first ? 0 : -1;
    if (n == 0 || n > DB_PLAYLIST_TEXT_MAX)
        return 0;
    if (upnp_file_read_full(f, out, n) != n)
        return -1;
    out[n] = 0;
    return 1;
}

int db_playlist_read_head(upnp_file* file, db_playlist_head* head)
{
    if (!file || !head)
        return -1;
    int r = playlist_read_text(file, head->path, 1);
    if (r <= 0)
        return r;
    r = playlist_read_text(file, head->name, 0);
    if (r <= 0)
        return r;
    uint32_t kind = 0, count = 0;
    if (playlist_read_u32(file, &kind) != 1 || playlist_read_u32(file, &count) != 1)
        return -1;
    int64_t left = file->size - file->position;
    if (count > uint32_t(INT32_MAX) || left < 0 || uint64_t(count) * 4 > uint64_t(left))
        return -1;
    head->kind = int32_t(kind);
    head->count = int32_t(count);
    return 1;
}

// A head that couldn't be read back would end the file for every list
// behind it, so texts outside 1 to 1023 bytes are refused.
int64_t db_playlist_write_head(upnp_file* file, const char* path, const char* name, int32_t kind)
{
    size_t path_size = path ? strlen(path) : 0, name_size = name ? strlen(name) : 0;
    if (!file || path_size == 0 || path_size > DB_PLAYLIST_TEXT_MAX || name_size == 0
        || name_size > DB_PLAYLIST_TEXT_MAX)
        return -1;
    if (!playlist_write_u32(file, uint32_t(path_size)) || !upnp_file_write_full(file, path, path_size)
        || !playlist_write_u32(file, uint32_t(name_size)) || !upnp_file_write_full(file, name, name_size)
        || !playlist_write_u32(file, uint32_t(kind)))
        return -1;
    int64_t offset = file->position;
    return playlist_write_u32(file, 0) ? offset : -1;
}

int db_playlist_write_count(upnp_file* file, int64_t offset, int32_t count)
{
    if (!file || offset < 0 || upnp_file_seek(file, offset, 0) < 0)
        return 0;
    int ok = playlist_write_u32(file, uint32_t(count));
    return upnp_file_seek(file, 0, 2) >= 0 && ok;
}

int db_playlist_read_block(upnp_file* file, uint32_t* block)
{
    return file && block && playlist_read_u32(file, block) == 1;
}

int db_playlist_write_block(upnp_file* file, uint32_t block)
{
    return file && playlist_write_u32(file, block);
}

// ---------------------------------------------------------------- import lines

int32_t db_playlist_read_line(upnp_file* file, char* buffer, int32_t size)
{
    if (!upnp_file_gets(buffer, size, file))
        return -1;
    int32_t n = int32_t(strlen(buffer));
    while (n > 0 && uint8_t(buffer[n - 1]) < 32)
        buffer[--n] = 0;
    return n;
}

struct playlist_directive {
    std::string_view text;
    int32_t kind;
    int takes_text;              // the text behind the colon is the argument
};

static constexpr playlist_directive playlist_directives[] = {
    {"#PLAYLIST", DB_PLAYLIST_LINE_AUDIO, 0},
    {"#RADIO-STATIONS", DB_PLAYLIST_LINE_RADIO, 0},
    {"#VIDEOLIST", DB_PLAYLIST_LINE_VIDEO, 0},
    {"#TITLE:", DB_PLAYLIST_LINE_TITLE, 1},
    {"#DEFAULT EXTENSION:", DB_PLAYLIST_LINE_DEFAULT_EXTENSION, 1},
    {"#NAME:", DB_PLAYLIST_LINE_NAME, 1},
    {"#FILE:", DB_PLAYLIST_LINE_FILE, 1},
};

int32_t db_playlist_line_kind(const char* line, const char** argument)
{
    const char* unused;
    const char** arg = argument ? argument : &unused;
    *arg = line;
    if (!line || line[0] != '#')
        return DB_PLAYLIST_LINE_ENTRY;
    std::string_view text(line);
    for (const playlist_directive& d : playlist_directives) {
        if (d.takes_text ? text.substr(0, d.text.size()) != d.text : text != d.text)
            continue;
        *arg = d.takes_text ? line + d.text.size() : nullptr;
        return d.kind;
    }
    return DB_PLAYLIST_LINE_COMMENT;
}
