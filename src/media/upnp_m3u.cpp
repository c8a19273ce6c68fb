// upnp_m3u.cpp: M3U playlists to import files. Owns one word, the counter
// behind the import file names (atomic: handlers run on the scanner, on
// HTTP threads and on the host's thread); no lock.
//
// Order of work: the shell reads the whole playlist, the core splits it
// into lines and writes the import text, resolving each entry through the
// resolver it is given, then the shell writes the text to a temporary file
// and moves that into the database folder under a new name, so the import
// step never sees half a file.
//
// A line ends at any byte from 1 to 31, a tab too (the rest of that line
// becomes a line of its own), and the text ends at a NUL. The first line
// that is not a comment decides the kind of the whole list: with "http://"
// in it the list is one of radio stations, else a playlist. M3U files are
// Latin-1 by their nature, so titles are converted to UTF-8.
#include "media/upnp_m3u.h"

#include "config/upnp_ini.h"
#include "media/upnp_filetype.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_string.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

static constexpr size_t M3U_FILE_MAX = 16 * 1024 * 1024;    // far beyond any real list
static constexpr int M3U_NAME_TRIES = 64;
static constexpr std::string_view M3U_TITLE = "#TITLE:";

static std::atomic<int32_t> m3u_import_counter;

// ---------------------------------------------------------------- the core

struct m3u_writer {
    upnp_string* out;
    const char* path;
    upnp_m3u_resolver resolve;
    void* context;
    bool headed;
    std::string title;          // the held "#TITLE:" line, Latin-1; empty when none
};

static bool m3u_starts(std::string_view text, std::string_view head)
{
    return text.substr(0, head.size()) == head;
}

static void m3u_append_owned(m3u_writer* w, char* text)
{
    if (text)
        w->out = upnp_string_append(w->out, text);
    free(text);
}

static void m3u_header(m3u_writer* w, std::string_view first)
{
    bool radio = first.find("http://") != std::string_view::npos;
    char* title = upnp_title_from_path(w->path);
    // File names are UTF-8 here; playlists written elsewhere may hold
    // Latin-1 titles. Valid UTF-8 is kept and any other byte is read as
    // Latin-1, so both come out right.
    char* name = upnp_string_clean_utf8(title);
    const char* shown = name ? name : radio ? "-Favourites-" : "Unknown";
    w->out = radio ? upnp_string_appendf(w->out, "#RADIO-STATIONS\n#NAME:%s\n#FILE:%s\n", shown, w->path)
                   : upnp_string_appendf(w->out, "#PLAYLIST\n#NAME:%s\n#FILE:%s\n", shown, w->path);
    free(name);
    free(title);
    w->headed = true;
}

// "#EXTINF:<seconds>,<title>": the title goes to the next entry. The held
// line keeps its line end within the 1024 bytes a line may take.
static void m3u_comment(m3u_writer* w, std::string_view line)
{
    size_t comma = line.find(',');
    if (!m3u_starts(line, "#EXTINF:") || comma == std::string_view::npos)
        return;
    std::string_view text = line.substr(comma + 1);
    text = text.substr(0, UPNP_PLAYLIST_PATH_MAX - 1 - M3U_TITLE.size() - 1);
    w->title.assign(M3U_TITLE).append(text).append("\n");
}

static void m3u_entry(m3u_writer* w, std::string_view line)
{
    if (!w->headed)
        m3u_header(w, line);
    if (!w->title.empty())
        m3u_append_owned(w, upnp_string_clean_utf8(w->title.c_str()));
    w->title.clear();
    if (line.empty())
        return;
    std::string entry(line);
    char resolved[UPNP_PLAYLIST_PATH_MAX];
    resolved[0] = 0;
    if (w->resolve(entry.c_str(), resolved, w->context) > 0)
        w->out = upnp_string_appendf(w->out, "%s\n", resolved);
}

upnp_string* upnp_m3u_import_text(const char* bytes, size_t size, const char* path, upnp_m3u_resolver resolve,
                                  void* context)
{
    if (!bytes || !path || !resolve)
        return nullptr;
    m3u_writer w = {nullptr, path, resolve, context, false, std::string()};
    auto control = [](char c) { return uint8_t(c) < 32; };
    size_t at = 0;
    while (at < size && bytes[at] != 0) {
        size_t start = at;
        while (at < size && !control(bytes[at]))
            at++;
        std::string_view line(bytes + start, at - start);
        while (at < size && bytes[at] != 0 && control(bytes[at]))
            at++;
        if (m3u_starts(line, "#"))
            m3u_comment(&w, line);
        else
            m3u_entry(&w, line);
    }
    return w.out;
}

// ---------------------------------------------------------------- resolving

// A ".." component could lead out of the folder the entry is looked for in.
static bool playlist_climbs(std::string_view tail)
{
    while (!tail.empty()) {
        size_t slash = tail.find('/');
        if (tail.substr(0, slash) == "..")
            return true;
        tail = slash == std::string_view::npos ? std::string_view() : tail.substr(slash + 1);
    }
    return false;
}

static int playlist_try(const char* root, const char* tail, char* out_path)
{
    char candidate[UPNP_PLAYLIST_PATH_MAX];
    int n = snprintf(candidate, sizeof candidate, "%s/%s", root, tail);
    upnp_file_info info;
    // A cut path would name another file, and a folder is no entry: a
    // tail of "." components would name the shared folder itself.
    if (n < 0 || size_t(n) >= sizeof candidate || upnp_file_stat(candidate, &info) != 0 ||
        info.mode & UPNP_FILE_MODE_DIR)
        return 0;
    char* full = upnp_file_fullpath(candidate);
    size_t length = full ? strlen(full) : 0;
    int fits = full && length < UPNP_PLAYLIST_PATH_MAX;
    if (fits)
        memcpy(out_path, full, length + 1);
    free(full);
    return fits;
}

int upnp_playlist_find_in_folder(const char* root, const char* line, char* out_path)
{
    if (!root || !line || !out_path)
        return 0;
    out_path[0] = 0;
    char base[UPNP_PLAYLIST_PATH_MAX], entry[UPNP_PLAYLIST_PATH_MAX];
    size_t n = strlen(root);
    if (n >= sizeof base)
        return 0;                       // a cut root would be another folder
    memcpy(base, root, n + 1);
    if (n > 0 && base[n - 1] == '/')
        base[n - 1] = 0;
    // Longer entries are cut; the first control byte ends the entry.
    size_t m = strnlen(line, sizeof entry - 1);
    for (size_t i = 0; i < m; i++)
        entry[i] = uint8_t(line[i]) < 32 ? 0 : line[i] == '\\' ? '/' : line[i];
    entry[m] = 0;
    const char* tail = entry;
    if (((tail[0] | 0x20) >= 'a' && (tail[0] | 0x20) <= 'z') && tail[1] == ':')
        tail += 2;                      // a drive of the machine the list was made on
    while (*tail == '.')
        tail++;                         // "../a.mp3" is looked for as "/a.mp3"
    for (;;) {
        if (*tail == '/')
            tail++;
        if (!*tail)
            return 0;
        if (!playlist_climbs(tail) && playlist_try(base, tail, out_path))
            return 1;
        tail = strchr(tail + 1, '/');
        if (!tail)
            return 0;
    }
}

static int playlist_url(const char* line, char* out_path, int* out_is_url, int result)
{
    size_t n = strlen(line);
    if (n >= UPNP_PLAYLIST_PATH_MAX)
        return 0;                       // a cut address would be another one
    memcpy(out_path, line, n + 1);
    *out_is_url = 1;
    return result;
}

int upnp_playlist_resolve_entry(const char* line, const char* /*owner*/, char* out_path, int* out_is_url)
{
    if (!line || !out_path || !out_is_url)
        return 0;
    out_path[0] = 0;
    *out_is_url = 0;
    if (m3u_starts(line, "http://"))
        return playlist_url(line, out_path, out_is_url, 1);
    if (m3u_starts(line, "mms://"))
        return playlist_url(line, out_path, out_is_url, 2);
    for (int32_t i = 0;; i++) {
        const char* folder = upnp_contentdir_get(i);
        if (!folder)
            return 0;
        // "+A|/path": the sign says enabled, the path starts at 3.
        if (folder[0] == '+' && strlen(folder) > 3 && upnp_playlist_find_in_folder(folder + 3, line, out_path))
            return 1;
    }
}

// ---------------------------------------------------------------- the shell

static int m3u_resolve(const char* line, char* out_path, void* owner)
{
    int is_url = 0;
    return upnp_playlist_resolve_entry(line, static_cast<const char*>(owner), out_path, &is_url);
}

// A path with a line end in it would put lines of its own into the
// import file.
static bool m3u_path_is_clean(const char* path)
{
    for (const char* p = path; *p; p++)
        if (uint8_t(*p) < 32)
            return false;
    return true;
}

// Moves the written file into dbdir under the next free import name. A
// name can be taken by a file of an earlier run that was not imported yet.
static int m3u_publish(const char* temp, const char* dbdir)
{
    char name[UPNP_PLAYLIST_PATH_MAX];
    for (int tries = 0; tries < M3U_NAME_TRIES; tries++) {
        int n = snprintf(name, sizeof name, "%s/filescan%d.import.playlists", dbdir, int(m3u_import_counter++));
        if (n < 0 || size_t(n) >= sizeof name)
            return 0;
        if (upnp_file_rename(temp, name) == 0)
            return 1;
    }
    return 0;
}

static void m3u_write(const char* path, const char* bytes, size_t size, const char* dbdir)
{
    char* temp = upnp_temp_file_name(dbdir);
    if (!temp)
        return;
    upnp_file_delete(temp);             // a leftover of an earlier run is never appended to
    upnp_file* file = upnp_file_open_write(temp);
    if (!file) {
        free(temp);
        return;
    }
    upnp_string* text = upnp_m3u_import_text(bytes, size, path, m3u_resolve, const_cast<char*>(path));
    int written = !text || upnp_file_write_full(file, text->text, size_t(text->length));
    upnp_file_close(file);
    if (!written || !m3u_publish(temp, dbdir))
        upnp_file_delete(temp);
    upnp_string_free(text);
    free(temp);
}

void upnp_m3u_handler(const char* path, int)
{
    const char* dbdir = upnp_ini_get_string(UPNP_OPT_DBDIR);
    void* data = nullptr;
    size_t size = 0;
    if (!path || !dbdir || !*dbdir || !m3u_path_is_clean(path) ||
        !upnp_file_read_all(path, M3U_FILE_MAX, &data, &size))
        return;
    m3u_write(path, static_cast<const char*>(data), size, dbdir);
    free(data);
}
