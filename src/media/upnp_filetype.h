// upnp_filetype.h: the seam between the scanner and the format readers. A
// row maps an extension and a media class to the handler that reads such
// files and gives what it found to db_scan_submit.
#pragma once

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

void upnp_document_handler(const char* path, int compilation);
