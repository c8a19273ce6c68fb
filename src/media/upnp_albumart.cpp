// upnp_albumart.cpp: the folder cover of a media file. No state and no
// lock; the file system is asked each time.
#include "media/upnp_albumart.h"

#include "database/db_object.h"
#include "runtime/upnp_file.h"

#include <cstdlib>
#include <cstring>
#include <string>

// The names tried, in order; no other name counts.
static const char* const albumart_names[] = {"Folder.jpg", "AlbumArtSmall.jpg"};

// The first picture beside path whose attributes can be read, with its
// size; empty for none, or for a path with no folder.
static std::string albumart_find(const char* path, upnp_file_info* info)
{
    const char* slash = path ? strrchr(path, '/') : nullptr;
    if (!slash)
        return std::string();
    std::string folder(path, size_t(slash - path + 1));
    for (const char* name : albumart_names) {
        std::string candidate = folder + name;
        if (upnp_file_stat(candidate.c_str(), info) == 0)
            return candidate;
    }
    return std::string();
}

db_meta_list* upnp_albumart_add_folder_art(const char* path, db_meta_list* list)
{
    upnp_file_info info;
    if (albumart_find(path, &info).empty())
        return list;
    list = db_meta_list_add(list, DBK_ART_OFFSET, "1", 0);
    return db_meta_list_add(list, DBK_ART_SIZE, "1", 0);
}

void upnp_albumart_resolve(char** path, int64_t* offset, int64_t* size)
{
    if (!path || !offset || !size || *offset != 1 || *size != 1)
        return;
    upnp_file_info info;
    std::string picture = albumart_find(*path, &info);
    char* copy = picture.empty() ? nullptr : strdup(picture.c_str());
    if (!copy)
        return;
    free(*path);
    *path = copy;
    *offset = 0;
    *size = int64_t(info.size);
}
