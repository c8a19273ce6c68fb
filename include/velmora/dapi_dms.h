/* dapi_dms.h: the control API of the Velmora media server library.
 *
 * A host program loads libvelmora-dms.so, may register a callback, and calls
 * dapi_dms_init(mode, flags). From then on the library shares the folders of
 * its options on the network from threads of its own; dapi_dms_terminate
 * stops everything. The library takes its ini file, database folder and log
 * from the process's current directory at the first dapi_dms_init.
 *
 * All text is UTF-8. Text handed out through a char** belongs to the library
 * unless a function says otherwise.
 */
#ifndef VELMORA_DAPI_DMS_H
#define VELMORA_DAPI_DMS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define DAPI_DMS_EXPORT __attribute__((visibility("default")))
#else
#define DAPI_DMS_EXPORT
#endif

/* Modes of dapi_dms_init. */
enum {
    DAPI_MODE_FULL = 0,    /* discovery, scanner, scheduler, main database */
    DAPI_MODE_SIMPLE = 1,  /* HTTP, SOAP and RPC only, files come through dapi_dms_add_file */
};

/* Flag bits of dapi_dms_init, applied after the mode. */
enum {
    DAPI_FLAG_NO_SSDP = 0x001,
    DAPI_FLAG_NO_CGI = 0x002,
    DAPI_FLAG_NO_SCANNER = 0x004,
    DAPI_FLAG_NO_EVENTING = 0x008,
    DAPI_FLAG_NO_SCHEDULER = 0x010,
    DAPI_FLAG_NO_RPC = 0x020,
    DAPI_FLAG_NESTED_TREE = 0x040,
    DAPI_FLAG_DOCUMENT_ROOT = 0x080,
    DAPI_FLAG_LOG = 0x100,           /* DMSLOG.txt in the working folder, all channels and levels */
    DAPI_FLAG_NO_CALLBACK = 0x200,
    DAPI_FLAG_RESERVED = 0x400,
};

/* Event codes, the first argument of the callback. */
enum {
    DAPI_EVENT_FILE_ADDED = 0,       /* text: path of the file */
    DAPI_EVENT_CLIENT_ADDED = 1,     /* text: the new value of the option "clients" */
    DAPI_EVENT_STREAM_STARTED = 2,   /* text: the request head */
    DAPI_EVENT_STREAM_FINISHED = 3,  /* text: the request head */
    DAPI_EVENT_STREAM_FAILED = 5,    /* text: the request head */
    DAPI_EVENT_NIC_RESTART = 6,      /* text: null */
    /* A pass over the shared folders: text "started", "progress" (at most
     * every 2 s) or "finished", then four numbers: folders walked, files
     * seen, files admitted, milliseconds since the pass began. */
    DAPI_EVENT_SCAN = 7,
};

/* A request to stop a transfer: five texts and three numbers, with a reserved
 * word behind the first two numbers. This version copies it and stops
 * nothing. */
typedef struct dapi_dms_stop_request {
    const char* text[5];
    int32_t number1;
    int32_t reserved1;
    int32_t number2;
    int32_t reserved2;
    int32_t number3;
} dapi_dms_stop_request;

/* Called on the library's threads (scanner, HTTP, client check, scheduler):
 * it must be thread-safe. Its result is ignored. */
typedef int32_t (*dapi_dms_callback)(int32_t event, const char* text);

/* One served interface. */
typedef struct nic_entry {
    char ip[16];     /* dotted IPv4 text */
    int32_t port;    /* HTTP port on that address */
} nic_entry;

/* Status: 0 stopped, 1 running, -1 stopping. */
DAPI_DMS_EXPORT int32_t dapi_dms_init(int32_t mode, uint32_t flags);
DAPI_DMS_EXPORT int32_t dapi_dms_terminate(void);
DAPI_DMS_EXPORT int32_t dapi_dms_status(void);
DAPI_DMS_EXPORT int32_t dapi_dms_restart(void);
DAPI_DMS_EXPORT int32_t dapi_dms_rebuild(void);
DAPI_DMS_EXPORT int32_t dapi_dms_reset(void);
DAPI_DMS_EXPORT int32_t dapi_dms_set_servername(const char* name);
DAPI_DMS_EXPORT int32_t dapi_dms_get_servername(char** name);
DAPI_DMS_EXPORT int32_t dapi_dms_set_sharedfolder(const char* folders);
DAPI_DMS_EXPORT int32_t dapi_dms_get_sharedfolder(char** folders);
DAPI_DMS_EXPORT int32_t dapi_dms_refresh_db(void);
DAPI_DMS_EXPORT int32_t dapi_dms_allow_cp(char* text);
DAPI_DMS_EXPORT int32_t dapi_dms_deny_cp(char* text);
DAPI_DMS_EXPORT int32_t dapi_dms_get_clients(char** list);   /* *list is the caller's to free() */
DAPI_DMS_EXPORT int32_t dapi_dms_resetclients(void);
DAPI_DMS_EXPORT int32_t dapi_dms_get_version(char** version);
DAPI_DMS_EXPORT int32_t dapi_dms_get_niclist(nic_entry** list, uint32_t* count);
DAPI_DMS_EXPORT int32_t dapi_dms_nicchange(void);
DAPI_DMS_EXPORT int32_t dapi_dms_get_udn(char** udn);
DAPI_DMS_EXPORT int32_t dapi_dms_register_callback(dapi_dms_callback callback);
DAPI_DMS_EXPORT int32_t dapi_dms_get_streaming(void);
DAPI_DMS_EXPORT int32_t dapi_dms_stop_streaming(const dapi_dms_stop_request* request);
DAPI_DMS_EXPORT int32_t dapi_dms_add_file(const char* path);
DAPI_DMS_EXPORT int32_t dapi_dms_remove_file(const char* path);
DAPI_DMS_EXPORT int32_t dapi_dms_set_browsing_policy(uint8_t mask, uint32_t visible);
DAPI_DMS_EXPORT int32_t dapi_dms_get_metadata(const char* path, const char* host, int32_t port,
                                              char** url, char** didl);

#ifdef __cplusplus
}
#endif

#endif
