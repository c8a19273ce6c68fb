// ssdp.h: discovery. Per interface a listening thread hands every datagram
// on the SSDP group to the registered handlers, and a heartbeat thread sends
// ssdp:alive rounds and the ssdp:byebye bursts. The M-SEARCH handler answers
// a search from a short thread of its own after the random delay the search
// asks for. Once at start the server also searches for media renderers and
// listens for their announcements, only to feed the client database.
//
// On Linux a socket bound to an interface address hears no multicast, so
// each interface's listening socket is bound to the any-address at port
// 1900 (shared through SO_REUSEADDR), joins the group on its own interface
// only and turns IP_MULTICAST_ALL off: it then hears the group on that one
// interface. The arrival address (IP_PKTINFO) picks the interface record
// that answers, which matters for searches sent to an address by unicast.
// Every sender sets IP_MULTICAST_IF, so each burst leaves by its own
// interface.
//
// Every thread started here is counted, and sleeps in short steps while the
// server status is 1: stop sets the status, shuts the sockets down, waits
// until ssdp_thread_count() is 0 and only then closes them, so that no
// thread ever touches a reused descriptor.
#pragma once
#include <cstddef>
#include <cstdint>

struct HTTP_server;

// One record per interface; a socket of -1 is none.
struct ssdp_server {
    HTTP_server* http;               // address and port put into LOCATION
    int32_t listen_socket;           // any-address:1900, the group joined on this interface
    int32_t msearch_socket;          // the server's own search; closed 4 s after the start
    int32_t send_socket;             // answers to M-SEARCH
};

enum {
    SSDP_PORT = 1900,
    SSDP_MAX_HANDLERS = 9,
    SSDP_TARGET_SIZE = 128,
    SSDP_MAX_MX = 120,
    SSDP_DATAGRAM_MAX = 1024,
    // Each accepted search costs a thread; a storm of searches must not
    // cost more than this many at once.
    SSDP_MAX_REPLY_THREADS = 64,
};

extern const char ssdp_group[];      // "239.255.255.250"

// Receives every incoming datagram, NUL-terminated, with the record it came
// in on and the sender.
typedef void (*ssdp_handler)(const char* text, ssdp_server* record, const char* peer_ip, int32_t peer_port);

// ---- Records and threads ------------------------------------------------

// All sockets -1, http pointing to the interface's HTTP server.
void ssdp_server_clear(ssdp_server* record, HTTP_server* http);
// Opens listen_socket, then send_socket, then msearch_socket; each that
// fails stays -1. 1 when all three are valid. The record is entered among
// the live ones (with its interface's netmask) until ssdp_close_sockets.
int ssdp_open_sockets(ssdp_server* record);
// Wakes every thread blocked on one of the record's sockets.
void ssdp_shutdown_sockets(ssdp_server* record);
// Closes the sockets and takes the record out of the live ones. Call once
// ssdp_thread_count() is 0.
void ssdp_close_sockets(ssdp_server* record);

// Starts a counted detached thread on a record: SSDP_listen,
// SSDP_heartbeat or upnp_server_startMSearch. 1 when it runs.
int ssdp_thread_spawn(void (*entry)(void*), ssdp_server* record, int32_t priority);
// Threads of this module that have not left, reply threads included.
int32_t ssdp_thread_count();
int32_t ssdp_reply_thread_count();

void SSDP_listen(void* record);
void SSDP_heartbeat(void* record);
void upnp_server_startMSearch(void* record);
void SSDP_MsearchReceiveServer(void* record);

// ---- Handlers -----------------------------------------------------------

// 1 when appended; 0 for a null handler or a full table (logged).
int ssdp_register_handler(ssdp_handler handler, const char* name);
void ssdp_clear_handlers();          // and stops advertising the server
void ssdp_set_server_advertising();
// The handler registered as "M-Search": answers searches, and hands
// renderer announcements to the client detection.
void ssdp_search_handler(const char* text, ssdp_server* record, const char* peer_ip, int32_t peer_port);

// ---- Messages -----------------------------------------------------------

// Sends, through socket to peer, one message per announced row that target
// asks for: Alive with notify 1, the search reply otherwise. The number of
// messages sent.
int ssdp_announce(int32_t socket, const char* local_ip, int32_t local_port, const char* peer_ip,
                  int32_t peer_port, const char* target, int notify);
// One Byebye per announced row, to group and port.
void ssdp_byebye_all(int32_t socket, const char* group, int32_t port);

// The heartbeat's controls, for the RPC commands.
void ssdp_request_alive_now();       // blocks 500 ms
void ssdp_request_byebye();
void ssdp_request_alive();
int32_t ssdp_get_max_age();

// ---- Parsing (ssdp_parse.cpp: bytes in, no state) -------------------------

struct ssdp_search {
    char target[SSDP_TARGET_SIZE];   // the ST value
    int32_t mx;                      // 1 to SSDP_MAX_MX
};

// Whether text is a search: an M-SEARCH request line with the HOST, MX, ST
// and MAN headers. 1 when it is one to answer, with a target of at most 127
// bytes and an MX of at least 1 (one above SSDP_MAX_MX counts as that); -1
// for a search that asks for no answer (no target, MX missing, 0 or beyond
// any number); 0 for anything else. out is written only for 1.
int ssdp_parse_search(const char* text, size_t length, ssdp_search* out);
// 1 when text announces a media renderer or a remote UI client as alive;
// *url then points to its first "http://" and *url_length runs to the end
// of text.
int ssdp_parse_notify(const char* text, size_t length, const char** url, size_t* url_length);
// The first "http://" of text, or null.
const char* ssdp_find_url(const char* text, size_t length);
// Dotted IPv4 text to a number in host order; 1, or 0 for anything else.
int ssdp_parse_ip(const char* text, uint32_t* out);
// 1 when peer lies in the subnet of local under mask (all dotted text).
int ssdp_same_subnet(const char* local_ip, const char* mask, const char* peer_ip);

// Starts the detection of a device from an announcement: text begins with
// its description URL, source_ip is the address the announcement came
// from. The description is fetched only from source_ip, on a short thread
// of its own. 1 when the thread was started.
int upnp_client_check(const char* text, const char* source_ip);
