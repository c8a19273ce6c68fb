// upnp_filescan.h: the media subsystem's chief header. The scanner thread
// walks the shared folders and admits files to the store; other modules
// only raise requests that the thread picks up.
#pragma once
#include <cstdint>

void upnp_filescan_request_reload();    // the shared folders changed
void upnp_filescan_request_rescan();    // walk everything again
// Admits one file of the given class letter. 1 when it was handed to a
// metadata reader, else 0.
int upnp_filescan_add_file(const char* path, char media_class, int compilation, uint32_t since_low,
                           uint32_t since_high);
// 1 when path lies in the database folder or under an ignored folder name.
int upnp_filescan_is_ignored(const char* path);
// 1 when the folder path names a compilations folder.
int upnp_filescan_is_compilation(const char* path);

// The queue between the folder watch and the scanner.
void upnp_filescan_queue_init();
void upnp_filescan_queue_term();
void upnp_filescan_pending_add(const char* entry, const char* path, int32_t is_dir);

// The thread body; it returns when the run flag leaves 1. The start
// sequence starts it with upnp_filescan_start, and upnp_filescan_queue_term
// waits for it to end, since a reader may be at work in the store.
void upnp_filescan_thread();
int upnp_filescan_start();        // 1 when the thread runs
int32_t upnp_filescan_started();
// One pass over the shared folders on the caller's thread: the scanner
// thread's own step, open to tests.
void upnp_filescan_folder_pass();

// Work hung on the scanner's once-a-second tick (housekeeping, plugins,
// the transcode cache), registered at start; at most 8.
typedef void (*upnp_filescan_tick_fn)(int64_t now);
void upnp_filescan_add_tick(upnp_filescan_tick_fn tick);
void upnp_filescan_clear_ticks();
