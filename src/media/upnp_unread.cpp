// upnp_unread.cpp: the handlers of the format families whose contents are
// not read yet. Each stores what its file gives unopened, plus the fields
// its reader takes from the walker and the folder rather than the file
// (the compilation flag, "Various", the folder cover), so that such a file
// is listed and played as it will be once read, only without tags. A
// family's reader, when it comes, takes its handler out of this file.
// No state, no lock.
#include "database/db_object.h"
#include "database/db_tree.h"
#include "media/upnp_filetype.h"

#include <cstring>

static constexpr uint32_t UNREAD_AUDIO = UPNP_PLAIN_MTIME;
// Video keeps no modification time, and an empty video file is no item.
static constexpr uint32_t UNREAD_VIDEO = UPNP_PLAIN_NEEDS_DATA | UPNP_PLAIN_FOLDER_ART;

void upnp_mp3_handler(const char* path, int compilation)
{
    upnp_filetype_store_plain(path, DB_OBJ_AUDIO, compilation,
                              UNREAD_AUDIO | UPNP_PLAIN_COMPILATION | UPNP_PLAIN_FOLDER_ART);
}

// The type of the row the scanner took. mp4 and 3gp stand in both
// classes; unread, such a file is taken for music only in a music folder,
// since most of them outside one are films.
static int32_t unread_mp4_type(const char* path)
{
    const char* dot = strrchr(path, '.');
    const char* extension = dot ? dot + 1 : "";
    if (!upnp_filetype_find(path, extension, 'M'))
        return DB_OBJ_VIDEO;
    if (!upnp_filetype_find(path, extension, 'V'))
        return DB_OBJ_AUDIO;
    return db_file_status(path, DB_OBJ_VIDEO) == DB_FILE_SHARED ? DB_OBJ_VIDEO : DB_OBJ_AUDIO;
}

// Videos of the MP4 family keep their modification time, unlike others.
void upnp_mp4_handler(const char* path, int compilation)
{
    if (path)
        upnp_filetype_store_plain(path, unread_mp4_type(path), compilation,
                                  UNREAD_AUDIO | UPNP_PLAIN_COMPILATION | UPNP_PLAIN_FOLDER_ART);
}

void upnp_wav_handler(const char* path, int compilation)
{
    upnp_filetype_store_plain(path, DB_OBJ_AUDIO, compilation,
                              UNREAD_AUDIO | UPNP_PLAIN_COMPILATION | UPNP_PLAIN_VARIOUS | UPNP_PLAIN_FOLDER_ART);
}

// WMA marks a compilation by its artist alone.
void upnp_wma_handler(const char* path, int compilation)
{
    upnp_filetype_store_plain(path, DB_OBJ_AUDIO, compilation,
                              UNREAD_AUDIO | UPNP_PLAIN_VARIOUS | UPNP_PLAIN_FOLDER_ART);
}

// Ogg and FLAC have no cover lookup.
void upnp_vorbis_handler(const char* path, int compilation)
{
    upnp_filetype_store_plain(path, DB_OBJ_AUDIO, compilation, UNREAD_AUDIO | UPNP_PLAIN_COMPILATION);
}

void upnp_video_handler(const char* path, int)
{
    upnp_filetype_store_plain(path, DB_OBJ_VIDEO, 0, UNREAD_VIDEO);
}

// A recording's index and summary are no videos; each numbered part is
// an item of its own.
void upnp_vdr_handler(const char* path, int compilation)
{
    if (!path || strstr(path, "index.vdr") || strstr(path, "summary.vdr"))
        return;
    upnp_video_handler(path, compilation);
}
