// db_tree.h: the navigation tree around the items: what the store knows of
// the files behind them.
#pragma once
#include <cstdint>

enum db_file_state : int32_t {
    DB_FILE_SHARED = 1,             // in an enabled shared folder of a fitting kind
    DB_FILE_EXCLUDED = 2,           // in a disabled ("-") shared folder
    DB_FILE_GONE = 3,               // no path, no file, or in no shared folder
    DB_FILE_URL = 4,                // an "http://" or "ftp://" address
};

// The fixed top of the tree, flat or full as the switches say, with the
// Document root when it is on. Run once after db_create, with the database
// file open.
void db_build_root();

// How the file at path stands for an object of the given type: the
// longest shared folder of a fitting kind that holds it decides; with none,
// files in dbdir and in the upload folder count as shared.
int32_t db_file_status(const char* path, int32_t type);
// The folder that uploads go to, handed down by the upload service once it
// has prepared it; empty (the default) for none.
void db_set_upload_dir(const char* dir);
