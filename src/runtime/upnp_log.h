// upnp_log.h: the one logger. Every message carries a level bit and a
// channel bit; both are filtered by masks (channels 0 by default: nothing
// is logged until the options say so). Output goes to the log file, or to
// standard output when none is open, and is echoed to standard output.
// No lock: lines of several threads may interleave.
#pragma once
#include <cstdint>

enum upnp_log_level : uint32_t {
    UPNP_LOG_INFO = 1,
    UPNP_LOG_PROBLEM = 2,
    UPNP_LOG_ERROR = 4,
    UPNP_LOG_CRITICAL = 8,
};

enum upnp_log_channel : uint32_t {
    UPNP_LOG_SYSTEM = 1,
    UPNP_LOG_SSDP = 2,
    UPNP_LOG_DB = 4,
    UPNP_LOG_HTTP = 8,
    UPNP_LOG_CLIENT_DB = 16,
    UPNP_LOG_EVENTING = 32,
    UPNP_LOG_XML = 64,
    UPNP_LOG_PLUGIN = 128,
    UPNP_LOG_SCAN = 256,
    UPNP_LOG_APP = 512,
    UPNP_LOG_DAPI = 1024,
    UPNP_LOG_ALL_CHANNELS = 0x7FF,
};

void upnp_log(uint32_t level, uint32_t channel, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Opens path in append mode (null: standard output) and writes the init line.
void upnp_log_init(const char* path);
void upnp_log_clear();                 // empties the file, if one is named
void upnp_log_close();                 // back to standard output; the name stays
const char* upnp_log_get_path();       // null when no file is named
void upnp_log_set_mode(uint32_t channels);
void upnp_log_set_level(uint32_t levels);
int upnp_log_channel_enabled(uint32_t channels);   // 1 when all given bits are on
