// upnp_run.h: the run state that every floor reads. The feature switches
// that the control API fills once at start from its mode and flags (before any service
// thread starts, read everywhere after), the server status that HTTP and
// SSDP threads poll, the run flag of the scanner and the scheduler, and the
// one gate through which events reach the host. Control is the only writer
// of all of it; the host callback sits behind the event sink it registers.
#pragma once
#include <cstdint>

struct upnp_switch_set {
    int32_t ssdp_enabled;       // SSDP sockets and threads, the M-SEARCH handler
    int32_t cgi_enabled;        // the .desc files of the conversion programs
    int32_t scanner_enabled;    // the filescanner thread and its queue
    int32_t eventing_enabled;   // clearing of the subscription table at start
    int32_t scheduler_enabled;  // the once-a-second scheduler thread
    int32_t rpc_enabled;        // the /rpc route
    int32_t full_mode;          // main ini and database (1) or the simple ones (0)
    int32_t tree_flat;          // shape of the root tree
    int32_t document_root;      // whether a Document root container exists
    int32_t callback_enabled;   // whether the host callback is ever called
    int32_t oid_seed;           // added to the low 27 bits of every object id
    int32_t unused;             // set by a reserved flag, read by nobody
};

// Written by the control API before any service thread starts, read without
// a lock after.
extern upnp_switch_set upnp_switches;

int32_t upnp_server_get_status();      // 0 stopped, 1 running, -1 stopping
void upnp_server_set_status(int32_t status);
int32_t upnp_is_running();             // the background threads' run flag
void upnp_set_running(int32_t running);
// Sleeps up to ms, waking early when the run flag leaves 1, so that a stop
// never waits a whole background tick.
void upnp_sleep_while_running(int32_t ms);
// Milliseconds of the monotonic clock, for deadlines and durations.
int64_t upnp_clock_ms();
// Seconds since 1970 of the last start of the services.
int64_t upnp_start_time_get();
void upnp_start_time_set(int64_t seconds);

// What the host is told, with the codes its callback receives.
enum upnp_event_code : int32_t {
    UPNP_EVENT_FILE_ADDED = 0,        // text: path of the file
    UPNP_EVENT_CLIENT_ADDED = 1,      // text: the new value of the option "clients"
    UPNP_EVENT_STREAM_STARTED = 2,    // text: the request head
    UPNP_EVENT_STREAM_FINISHED = 3,   // text: the request head
    UPNP_EVENT_STREAM_FAILED = 5,     // text: the request head
    UPNP_EVENT_NIC_RESTART = 6,       // text: null
    UPNP_EVENT_SCAN = 7,              // text: "started|progress|finished F S A MS"
};

// The notification gate towards the host: hands (code, text) to the sink
// that control registered, when callbacks are enabled.
typedef void (*upnp_event_sink)(int32_t code, const char* text);
void upnp_set_event_sink(upnp_event_sink sink);
void upnp_file_event(int32_t code, const char* text);
