// db_tree.h: the navigation tree around the items: what the store knows of
// the files behind them.
#pragma once
#include <cstddef>
#include <cstdint>

struct db_object;

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
// 1 when a file may be sent for an item: an absolute path without "." or
// ".." components or empty ones, that lies within an enabled shared folder
// (the longest holding it decides, of any kind), the database folder or
// the upload folder. Folders match whole components only.
int db_file_is_served(const char* path);
// The folder that uploads go to, handed down by the upload service once it
// has prepared it; empty (the default) for none.
void db_set_upload_dir(const char* dir);

// ---- Navigation folders (db_rules.cpp), under db_lock ----------------------

// Places an item: into its "All" container (unless it is there already),
// into the tag folders of its DBK_TAGS, and into the folders that the rule
// of each node below media_root makes from its metadata and path. Set as
// the store's tree rules (db_set_tree_rules) at start.
void db_tree_attach(db_object* item, db_object* media_root, db_object* all, const char* path);
// A reference (type 22), or one with a number (type 21), to item appended
// to container; null, and nothing kept, when container can't hold it.
db_object* db_tree_add_ref(db_object* container, db_object* item);
db_object* db_tree_add_numbered_ref(db_object* container, db_object* item, int32_t number);
// Frees the references to item below container that a walk of it meets,
// stopping at the first real item of a container except in %PATH folders:
// at most one per container, the last there. The number freed.
int32_t db_tree_remove_refs(db_object* container, db_object* item);
// The letter-index group of a title for groups of n letters: n letters
// from "A" (fewer at "Z"), chosen by the folded first character; digits and
// punctuation go to the first group, what follows "Z" to the last. Empty
// for n below 1.
void db_letter_group(const char* title, int32_t n, char* out, size_t size);

// ---- Housekeeping -----------------------------------------------------------
// Items whose files have gone, and folders left empty, stay in the tree
// until db_housekeeping sweeps them. Requests are flags that any thread may
// raise without db_lock; many requests before or during a run lead to one
// run after it.

// Asks for the sweep of items whose files have gone (after a scan pass, a
// refresh, a change seen by the folder watch). Folders left empty go too.
void db_request_shadow_sweep();
// The scanner thread's tick. With a request pending: under db_lock, turns
// items whose files have gone into shadows, frees every reference to them,
// then them, then every folder left empty below the root's own children
// that isn't restricted; then writes the database header. Without one it
// only keeps the scantime clock. now is in seconds.
void db_housekeeping(int64_t now);
// 1 while a request waits for the next run.
int db_housekeeping_pending();
