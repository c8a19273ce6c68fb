// upnp_filetype.h: the seam between the scanner and the format readers. A
// row maps an extension and a media class to the handler that reads such
// files and gives what it found to db_scan_submit.
//
// Handlers take the path and the walker's compilation flag (those without
// a use for the flag ignore it), store or do not, and report nothing. They
// hold no lock of their own: the store locks inside db_scan_submit.
#pragma once
#include <cstdint>

typedef void (*upnp_filetype_handler)(const char* path, int compilation);

struct upnp_filetype {
    upnp_filetype_handler handler;
    const char* pattern;        // text the full path must contain, or null
    const char* extension;      // without the dot; null ends the table
    char media_class;           // 'M', 'P', 'V' or 'T'
};

extern const upnp_filetype upnp_filetype_table[];

// The first row whose extension equals extension without regard to case,
// whose pattern (if any) path contains, and whose class is media_class
// unless that is 'A'. Null when none.
const upnp_filetype* upnp_filetype_find(const char* path, const char* extension, char media_class);

// The handlers of the table, one per format family.
void upnp_mp3_handler(const char* path, int compilation);
void upnp_mp4_handler(const char* path, int compilation);
void upnp_wav_handler(const char* path, int compilation);
void upnp_wma_handler(const char* path, int compilation);
void upnp_vorbis_handler(const char* path, int compilation);
void upnp_m3u_handler(const char* path, int compilation);          // media/upnp_m3u.h
void upnp_jpeg_handler(const char* path, int compilation);         // media/upnp_jpeg.h
void upnp_image_handler(const char* path, int compilation);
void upnp_video_handler(const char* path, int compilation);
void upnp_vdr_handler(const char* path, int compilation);
void upnp_document_handler(const char* path, int compilation);

// What a file gives without being opened: DBK_TITLE from the file name,
// DBK_TYPE, DBK_PATH, DBK_SOURCE_KIND "d" and, when its attributes can be
// read, DBK_SIZE_TEXT and DBK_DATE (the creation date), plus the fields
// asked for below. Readers use it for files they find nothing in.
enum : uint32_t {
    UPNP_PLAIN_MTIME = 1,           // DBK_MTIME
    UPNP_PLAIN_ALBUM = 2,           // DBK_ALBUM: the name of the file's folder
    UPNP_PLAIN_COMPILATION = 4,     // DBK_COMPILATION "1" when the walker's flag is set
    UPNP_PLAIN_VARIOUS = 8,         // DBK_ARTIST "Various" when the walker's flag is set
    UPNP_PLAIN_FOLDER_ART = 16,     // the folder cover's marker pair, when there is one
    UPNP_PLAIN_NEEDS_FILE = 32,     // nothing is stored when the attributes cannot be read
    UPNP_PLAIN_NEEDS_DATA = 64,     // ... nor for an empty file
};
// 1 when the store took the item.
int upnp_filetype_store_plain(const char* path, int32_t type, int compilation, uint32_t fields);

// The name of the folder that holds path: the text between its last two
// separators, as a new text; null for a path with fewer than two.
char* upnp_filetype_folder_name(const char* path);
