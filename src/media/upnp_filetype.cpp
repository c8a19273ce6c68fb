// upnp_filetype.cpp: the file type table, its lookup, and what a file gives
// without a reader of its own (documents, other pictures, and any file a
// reader finds nothing in). No globals beyond the constant table, no lock.
//
// An extension meets one handler per class, so the order of the rows
// decides only which row a lookup in an 'A' folder finds first: mp4 and
// 3gp stand in both M and V, and both rows lead to the same handler.
#include "media/upnp_filetype.h"

#include "database/db_object.h"
#include "database/db_record.h"
#include "media/upnp_albumart.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_string.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <strings.h>

const upnp_filetype upnp_filetype_table[] = {
    {upnp_mp3_handler, nullptr, "mp3", 'M'},
    {upnp_mp3_handler, nullptr, "mp3-drm", 'M'},     // protected files are read and listed like any MP3
    {upnp_mp4_handler, nullptr, "m4a", 'M'},
    {upnp_mp4_handler, nullptr, "adts", 'M'},
    {upnp_mp4_handler, nullptr, "m4b", 'M'},
    {upnp_mp4_handler, nullptr, "mp4", 'M'},
    {upnp_mp4_handler, nullptr, "3gp", 'M'},
    {upnp_mp4_handler, nullptr, "aac", 'M'},
    {upnp_mp4_handler, nullptr, "ac3", 'M'},         // has no boxes, so nothing is stored
    {upnp_wav_handler, nullptr, "wav", 'M'},
    {upnp_wav_handler, nullptr, "pcm", 'M'},
    {upnp_wav_handler, nullptr, "lpcm", 'M'},
    {upnp_wav_handler, nullptr, "mp1", 'M'},         // these four have no RIFF head: the
    {upnp_wav_handler, nullptr, "mp2", 'M'},         // reader falls back to the file name
    {upnp_wav_handler, nullptr, "aif", 'M'},
    {upnp_wav_handler, nullptr, "aiff", 'M'},
    {upnp_wma_handler, nullptr, "wma", 'M'},
    {upnp_vorbis_handler, nullptr, "ogg", 'M'},
    {upnp_vorbis_handler, nullptr, "flac", 'M'},
    {upnp_m3u_handler, nullptr, "m3u", 'M'},
    {upnp_jpeg_handler, nullptr, "jpg", 'P'},
    {upnp_jpeg_handler, nullptr, "jpeg", 'P'},
    {upnp_image_handler, nullptr, "png", 'P'},
    {upnp_image_handler, nullptr, "tif", 'P'},
    {upnp_image_handler, nullptr, "tiff", 'P'},
    {upnp_image_handler, nullptr, "bmp", 'P'},
    {upnp_image_handler, nullptr, "gif", 'P'},
    {upnp_video_handler, nullptr, "avi", 'V'},
    {upnp_video_handler, nullptr, "mpg", 'V'},
    {upnp_video_handler, nullptr, "mpe", 'V'},
    {upnp_video_handler, nullptr, "xvid", 'V'},
    {upnp_video_handler, nullptr, "wmv", 'V'},
    {upnp_video_handler, nullptr, "vob", 'V'},
    {upnp_video_handler, nullptr, "mpeg2", 'V'},
    {upnp_video_handler, nullptr, "mpeg", 'V'},
    {upnp_video_handler, nullptr, "ts", 'V'},
    {upnp_video_handler, nullptr, "divx", 'V'},
    {upnp_video_handler, nullptr, "spts", 'V'},
    {upnp_video_handler, nullptr, "dvr-ms", 'V'},
    {upnp_video_handler, nullptr, "asf", 'V'},
    {upnp_video_handler, nullptr, "mkv", 'V'},
    {upnp_video_handler, nullptr, "tp", 'V'},
    {upnp_video_handler, nullptr, "k3g", 'V'},
    {upnp_video_handler, nullptr, "skm", 'V'},
    {upnp_mp4_handler, nullptr, "m4v", 'V'},
    {upnp_mp4_handler, nullptr, "mp4", 'V'},
    {upnp_mp4_handler, nullptr, "mov", 'V'},
    {upnp_mp4_handler, nullptr, "3gp", 'V'},
    {upnp_vdr_handler, nullptr, "vdr", 'V'},
    {upnp_document_handler, nullptr, "txt", 'T'},
    {upnp_document_handler, nullptr, "ppt", 'T'},
    {upnp_document_handler, nullptr, "doc", 'T'},
    {upnp_document_handler, nullptr, "xls", 'T'},
    {upnp_document_handler, nullptr, "pdf", 'T'},
    {upnp_document_handler, nullptr, "html", 'T'},
    {upnp_document_handler, nullptr, "htm", 'T'},
    {upnp_document_handler, nullptr, "mhtml", 'T'},
    {upnp_document_handler, nullptr, "hwp", 'T'},
    {upnp_document_handler, nullptr, "gul", 'T'},
    {upnp_document_handler, nullptr, "docx", 'T'},
    {upnp_document_handler, nullptr, "pptx", 'T'},
    {upnp_document_handler, nullptr, "xlsx", 'T'},
    {nullptr, nullptr, nullptr, 0},
};
static_assert(std::size(upnp_filetype_table) == 62 + 1, "62 file types and the closing row");

const upnp_filetype* upnp_filetype_find(const char* path, const char* extension, char media_class)
{
    if (!extension)
        return nullptr;
    for (const upnp_filetype* row = upnp_filetype_table; row->extension; row++) {
        if (strcasecmp(row->extension, extension) != 0)
            continue;
        if (row->pattern && (!path || !strstr(path, row->pattern)))
            continue;
        if (media_class == 'A' || media_class == row->media_class)
            return row;
    }
    return nullptr;
}

char* upnp_filetype_folder_name(const char* path)
{
    const char* last = path ? strrchr(path, '/') : nullptr;
    if (!last)
        return nullptr;
    const char* before = last;
    while (before > path && before[-1] != '/')
        before--;
    if (before == path)
        return nullptr;
    return upnp_copy_bytes(before, size_t(last - before));
}

int upnp_filetype_store_plain(const char* path, int32_t type, int compilation, uint32_t fields)
{
    if (!path)
        return 0;
    upnp_file_info attr;
    bool known = upnp_file_stat(path, &attr) == 0;
    if ((fields & UPNP_PLAIN_NEEDS_FILE && !known) || (fields & UPNP_PLAIN_NEEDS_DATA && (!known || !attr.size)))
        return 0;
    char* title = upnp_title_from_path(path);
    char* album = fields & UPNP_PLAIN_ALBUM ? upnp_filetype_folder_name(path) : nullptr;
    char size[24], mtime[16], date[32], kind[8];
    snprintf(kind, sizeof kind, "%" PRId32, type);
    if (known) {
        snprintf(size, sizeof size, "%" PRId64, int64_t(attr.size));
        // The low word, as every reader stores it, so that the date sort
        // compares like with like.
        snprintf(mtime, sizeof mtime, "%" PRId32, int32_t(uint32_t(attr.modified)));
        upnp_date_ymd(attr.created, date, sizeof date);
    }
    bool flagged = compilation && fields & UPNP_PLAIN_COMPILATION;
    bool various = compilation && fields & UPNP_PLAIN_VARIOUS;
    const struct { db_meta_key key; const char* value; } rows[] = {
        {DBK_TITLE, title},
        {DBK_ALBUM, album},
        {DBK_ARTIST, various ? "Various" : nullptr},
        {DBK_SIZE_TEXT, known ? size : nullptr},
        {DBK_COMPILATION, flagged ? "1" : nullptr},
        {DBK_MTIME, known && fields & UPNP_PLAIN_MTIME ? mtime : nullptr},
        {DBK_DATE, known && *date ? date : nullptr},
        {DBK_TYPE, kind},
        {DBK_PATH, path},
        {DBK_SOURCE_KIND, "d"},
    };
    db_meta_list* list = nullptr;
    bool whole = true;
    for (const auto& row : rows)
        if (row.value && !(list = db_meta_list_add(list, row.key, row.value, 0))) {
            whole = false;
            break;
        }
    if (whole && fields & UPNP_PLAIN_FOLDER_ART)
        list = upnp_albumart_add_folder_art(path, list);
    int stored = whole && list ? db_scan_submit(list) : 0;
    db_meta_list_free(list);
    free(title);
    free(album);
    return stored;
}

// Documents are never opened, and are stored even when their attributes
// cannot be read.
void upnp_document_handler(const char* path, int)
{
    upnp_filetype_store_plain(path, DB_OBJ_DOCUMENT, 0, UPNP_PLAIN_MTIME);
}
