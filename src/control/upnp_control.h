// upnp_control.h: the control subsystem's chief header. The feature
// switches that dapi_dms_init sets from its mode and flags (written before
// any service thread starts, read everywhere after), and the one gate
// through which events reach the host's callback.
#pragma once
#include <cstdint>

extern int32_t ssdp_enabled;       // SSDP sockets and threads, the M-SEARCH handler
extern int32_t cgi_enabled;        // the .desc files of the conversion programs
extern int32_t scanner_enabled;    // the filescanner thread and its queue
extern int32_t eventing_enabled;   // clearing of the subscription table at start
extern int32_t scheduler_enabled;  // the once-a-second scheduler thread
extern int32_t rpc_enabled;        // the /rpc route
extern int32_t full_mode;          // main ini and database (1) or the simple ones (0)
extern int32_t tree_flat;          // shape of the root tree
extern int32_t document_root;      // whether a Document root container exists
extern int32_t callback_enabled;   // whether the host callback is ever called
extern int32_t oid_seed;           // added to the low 27 bits of every object id

// The notification gate towards the host: calls the registered callback
// with (code, text) when one is registered and callbacks are enabled.
void upnp_file_event(int32_t code, const char* text);
