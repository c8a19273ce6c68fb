// upnp_m3u.h: M3U playlists. A playlist is not turned into objects here:
// its entries are resolved to files under the shared folders (or kept as
// http and mms addresses) and written as a ".import.playlists" file to the
// database folder, which the store's import step reads. The file shell
// reads the playlist and hands the bytes to the core, so tests and
// fuzzers feed the core bytes directly.
#pragma once
#include <cstddef>

struct upnp_string;

// The size of every path buffer of this module, terminator included.
inline constexpr size_t UPNP_PLAYLIST_PATH_MAX = 1024;

// What the core asks of each entry line: 0 when it resolves to nothing,
// else 1 (a file or an http address) or 2 (an mms address) with out_path
// (UPNP_PLAYLIST_PATH_MAX bytes) set.
typedef int (*upnp_m3u_resolver)(const char* line, char* out_path, void* context);

// The parse core: the import text for the playlist at path from its size
// bytes, which end early at a NUL. Null when the playlist has no entry line
// (a file of comments only) or memory ran out; the caller frees the text.
upnp_string* upnp_m3u_import_text(const char* bytes, size_t size, const char* path, upnp_m3u_resolver resolve,
                                  void* context);

// The table's handler (declared in media/upnp_filetype.h too): writes the
// import file "filescan<n>.import.playlists" under dbdir, an empty one for
// a playlist without entries; nothing when the playlist cannot be read.
void upnp_m3u_handler(const char* path, int compilation);

// An entry line as a playlist holds it: "http://" and "mms://" lines as
// they are (results 1 and 2, *out_is_url set), anything else as the first
// enabled shared folder that holds it (result 1). 0 when nothing fits.
// owner is the file the line comes from; the line is never tried as it
// stands or beside its owner, only under a shared folder.
int upnp_playlist_resolve_entry(const char* line, const char* owner, char* out_path, int* out_is_url);
// Finds the line under root by its longest tail that names an existing
// file (not a folder), so that an entry written on another machine, such
// as D:\Music\Album\a.mp3, is found as Album/a.mp3 or a.mp3. "\" counts
// as "/", a leading drive "X:" and leading dots are dropped, and a tail
// with a ".." component is never tried: the result always lies under
// root. 1 with the normalised path in out_path (UPNP_PLAYLIST_PATH_MAX
// bytes), else 0.
int upnp_playlist_find_in_folder(const char* root, const char* line, char* out_path);
