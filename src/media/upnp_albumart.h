// upnp_albumart.h: covers that are not inside a media file but stand beside
// it as "Folder.jpg" or "AlbumArtSmall.jpg". The store only notes that one
// exists (the value pair 1, 1 in DBK_ART_OFFSET and DBK_ART_SIZE); the
// picture is looked for again when it is served, so a cover replaced in
// the folder shows without a rescan.
#pragma once
#include <cstdint>

struct db_meta_list;

// The list with the pair added when a picture stands in the file's folder.
db_meta_list* upnp_albumart_add_folder_art(const char* path, db_meta_list* list);
// For the pair 1, 1: the picture's path (the old one freed), offset 0 and
// the picture's size. Anything else, or no picture, stays as it was.
void upnp_albumart_resolve(char** path, int64_t* offset, int64_t* size);
