// m3u_fuzz.cpp: any bytes as an M3U playlist through the import text core,
// with every entry resolved against a real shared folder. Found files must
// lie under that folder, and the import text must stay one directive or
// entry per line. The input is copied into a buffer of its exact size, so
// that a read past the end of the file is a read past the end of the
// allocation.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "media/upnp_m3u.h"
#include "runtime/upnp_string.h"

// A shared folder with a few files, and one file beside it that no entry
// may reach.
static std::string fuzz_root;

static void fuzz_touch(const std::string& path)
{
    if (FILE* f = fopen(path.c_str(), "w"))
        fclose(f);
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    char pattern[] = "/tmp/velmora-m3u-fuzz-XXXXXX";
    if (!mkdtemp(pattern))
        abort();
    std::string top = pattern;
    fuzz_root = top + "/root";
    mkdir(fuzz_root.c_str(), 0700);
    mkdir((fuzz_root + "/Album").c_str(), 0700);
    for (const char* name : {"/root/a.mp3", "/root/Album/a.mp3", "/root/Album/b c.mp3", "/secret.mp3"})
        fuzz_touch(top + name);
    return 0;
}

static int fuzz_resolve(const char* line, char* out_path, void*)
{
    int is_url = 0;
    int result = upnp_playlist_resolve_entry(line, "fuzz.m3u", out_path, &is_url);
    if (result == 0)
        result = upnp_playlist_find_in_folder(fuzz_root.c_str(), line, out_path);
    if (result && !is_url && strncmp(out_path, (fuzz_root + "/").c_str(), fuzz_root.size() + 1) != 0)
        abort();
    if (strlen(out_path) >= UPNP_PLAYLIST_PATH_MAX)
        abort();
    return result;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    char* bytes = static_cast<char*>(malloc(size ? size : 1));
    if (!bytes)
        return 0;
    memcpy(bytes, data, size);
    upnp_string* text = upnp_m3u_import_text(bytes, size, "/fuzz/Playlist.m3u", fuzz_resolve, nullptr);
    if (text) {
        for (int32_t i = 0; i < text->length; i++)
            if (uint8_t(text->text[i]) < 32 && text->text[i] != '\n')
                abort();
        if (text->length > 0 && text->text[text->length - 1] != '\n')
            abort();
    }
    upnp_string_free(text);
    free(bytes);
    return 0;
}
