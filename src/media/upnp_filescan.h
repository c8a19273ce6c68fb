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
