// upnp_albumart.cpp: the folder cover of a media file. Names match without
// regard to case, as people's folders come from systems that ignore it.
//
// The scanner asks once per file, and a folder of a thousand tracks would
// be read a thousand times; so the answer for the last folder asked is
// kept with the folder's modification time, under its own lock (the
// scanner and the upload handler may ask at once). Serving asks afresh.
#include "media/upnp_albumart.h"

#include "database/db_object.h"
#include "runtime/upnp_file.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

// The names tried, in order; no other name counts.
static const char* const albumart_names[] = {"Folder.jpg", "AlbumArtSmall.jpg"};

struct albumart_folder {
    std::string folder;
    int64_t modified = 0;
    bool found = false;
};

static std::mutex albumart_lock;
static albumart_folder albumart_last;                   // albumart_lock

// The first picture in folder whose attributes can be read; empty for none.
static std::string albumart_search(const std::string& folder, upnp_file_info* info)
{
    for (const char* name : albumart_names) {
        char* found = upnp_file_find_nocase(folder.c_str(), name);
        std::string picture = found ? found : "";
        free(found);
        if (!picture.empty() && upnp_file_stat(picture.c_str(), info) == 0)
            return picture;
    }
    return std::string();
}

// The folder of path with its separator; empty for a path with none.
static std::string albumart_folder_of(const char* path)
{
    const char* slash = path ? strrchr(path, '/') : nullptr;
    return slash ? std::string(path, size_t(slash - path + 1)) : std::string();
}

db_meta_list* upnp_albumart_add_folder_art(const char* path, db_meta_list* list)
{
    std::string folder = albumart_folder_of(path);
    upnp_file_info info;
    if (folder.empty() || upnp_file_stat(folder.c_str(), &info) != 0)
        return list;
    // Times count whole seconds: a folder changed within the last one may
    // change again unseen, so its answer is not kept.
    int64_t modified = info.modified;
    bool settled = modified < int64_t(time(nullptr)) - 1;
    bool found;
    {
        std::lock_guard<std::mutex> hold(albumart_lock);
        if (!settled || folder != albumart_last.folder || modified != albumart_last.modified) {
            found = !albumart_search(folder, &info).empty();
            albumart_last = {settled ? folder : std::string(), modified, found};
        }
        found = albumart_last.found;
    }
    if (!found)
        return list;
    list = db_meta_list_add(list, DBK_ART_OFFSET, "1", 0);
    return db_meta_list_add(list, DBK_ART_SIZE, "1", 0);
}

void upnp_albumart_resolve(char** path, int64_t* offset, int64_t* size)
{
    if (!path || !offset || !size || *offset != 1 || *size != 1)
        return;
    std::string folder = albumart_folder_of(*path);
    upnp_file_info info;
    std::string picture = folder.empty() ? std::string() : albumart_search(folder, &info);
    char* copy = picture.empty() ? nullptr : strdup(picture.c_str());
    if (!copy)
        return;
    free(*path);
    *path = copy;
    *offset = 0;
    *size = int64_t(info.size);
}
