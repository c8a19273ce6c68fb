// http_server.h: the HTTP subsystem's chief header, the one small HTTP/1.1
// server that every route plugs into.
//
// One listening socket per interface, found by stepping upward from the
// configured port; one accept thread per interface; one detached thread per
// connection. That thread reads a request head into an HTTP_request, finds
// the first fitting entry of the route table and calls its handler on the
// same thread. Handlers write to the socket themselves through the senders
// below and return 0 to keep the connection, HTTP_KILL_CONNECTION to close.
//
// The route table and the default page are written only during start,
// before any accept thread exists, and read without a lock afterwards.
// Connections are tracked (per peer address and in all) so that limits can
// refuse the next one at once, a full table can make room by pushing out a
// connection that waits, and stop can wake every connection thread.
#pragma once
#include <cstdint>

struct upnp_string;
struct HTTP_stream;                 // the open-file record of the /disk route

struct HTTP_server {
    int32_t socket;                 // listening socket, -1 when none
    char ip[16];                    // interface address, dotted text
    int32_t port;                   // the port really bound
    int32_t second_port;            // never set; feeds only the rtsp base URL
};

enum { HTTP_DEFAULT_PORT = 9000, HTTP_PORT_STEPS = 1000 };

enum {
    HTTP_URL_SIZE = 1024,
    HTTP_HEAD_SIZE = 1024,
    HTTP_EXTRA_SIZE = 1024,
    HTTP_BASE_URL_SIZE = 128,
    HTTP_CLIENT_IP_SIZE = 18,
    HTTP_MAX_HANDLERS = 29,
    HTTP_HANDLER_URL_SIZE = 512,
    HTTP_DEFAULT_PAGE_SIZE = 1024,
};

// A request's method, and as bits or-ed together, the methods of a route.
enum HTTP_method : int32_t {
    HTTP_METHOD_GET = 1,
    HTTP_METHOD_HEAD = 2,
    HTTP_METHOD_POST = 4,
    HTTP_METHOD_SUBSCRIBE = 8,
    HTTP_METHOD_UNSUBSCRIBE = 16,
    HTTP_METHOD_NOTIFY = 32,
};

enum { HTTP_KILL_CONNECTION = 1 };

// The length a resource of unknown length announces (a live stream).
inline constexpr int64_t HTTP_UNKNOWN_LENGTH = 9999999999999999LL;

// Range values with a meaning of their own, as HTTP_parse_range leaves them.
enum { HTTP_RANGE_NONE = -1, HTTP_RANGE_BAD = -2, HTTP_RANGE_REFUSED = -3 };

struct HTTP_connection {
    HTTP_server* server;
    int32_t socket;
    HTTP_stream* stream;            // kept across the requests of the connection
    char peer[16];                  // the peer's address, for limits and requests
    int32_t slot;                   // index in the table of live connections
    int32_t requests;               // requests served so far
    int64_t accepted_ms;            // monotonic time of the accept
};

// One request, zeroed at its start and handed to every handler.
struct HTTP_request {
    int32_t socket;
    int32_t method;                 // one method bit, 0 for any other word
    char url[HTTP_URL_SIZE];        // path and query, URL-decoded
    int32_t version;                // 10 or 11
    char* body;                     // request body text, or null
    int64_t content_length;         // request body in; response body out; < 0 unknown
    uint8_t close;                  // non-zero: close after this response
    const char* mime_type;          // static, or outliving the response; null: not set
    char client_ip[HTTP_CLIENT_IP_SIZE];
    int32_t client_id;              // number in the client database
    char base_url[HTTP_BASE_URL_SIZE];        // "http://ip:port/"
    char rtsp_base_url[HTTP_BASE_URL_SIZE];   // "rtsp://ip:second_port/"
    char head[HTTP_HEAD_SIZE];      // raw request line and headers
    char extra_headers[HTTP_EXTRA_SIZE];      // each item ends with its own line end
    int32_t duration_ms;            // < 0: no known length
    int64_t range_start;
    int64_t range_end;
    int64_t total_length;
    uint8_t dlna_version;           // 0, 10 or 15
    HTTP_stream* stream;            // copied from the connection and back
};

typedef int (*HTTP_handler_function)(HTTP_request* request);

struct HTTP_handler {
    HTTP_handler_function function;
    int32_t methods;                // bit-or of method bits
    char url[HTTP_HANDLER_URL_SIZE];   // prefix; "" matches every URL
    int32_t url_length;
    int32_t want_body;
};

// The Server token; clients may match on it.
extern const char server_string[];

// ---- Limits -------------------------------------------------------------

// Limits that keep one peer from exhausting the server. The next connection
// beyond a peer's cap is accepted and closed at once, with a log line. At
// the total cap it pushes out the longest waiting connection of the address
// that holds the most, and is refused only when every connection is busy.
struct HTTP_limits {
    int32_t head_timeout_ms;        // a whole request head must arrive within this
    int32_t idle_timeout_ms;        // an idle keep-alive connection closes after this
    int32_t send_timeout_ms;        // a peer that takes nothing for this long is dropped
    int32_t per_peer;               // concurrent connections of one peer address
    int32_t total;                  // concurrent connections in all (at most 512)
    int64_t body_max;               // request bodies read into memory
};

enum {
    HTTP_HEAD_TIMEOUT_MS = 30 * 1000,
    HTTP_IDLE_TIMEOUT_MS = 60 * 1000,
    // Players pause by not reading; a pause may last a while.
    HTTP_SEND_TIMEOUT_MS = 15 * 60 * 1000,
    HTTP_MAX_PER_PEER = 64,
    HTTP_MAX_CONNECTIONS = 512,
    HTTP_BODY_MAX = 1024 * 1024,
    // A too long head is read on and thrown away, but not without end.
    HTTP_HEAD_DRAIN_MAX = 1024 * 1024,
};

// Null restores the defaults above. Meant for tests; set while no server runs.
void HTTP_set_limits(const HTTP_limits* limits);
void HTTP_get_limits(HTTP_limits* out);

// ---- Server -------------------------------------------------------------

// 1 on success. Refused when the table is full or the function is null.
int HTTP_register_handler(HTTP_handler_function function, int32_t methods, const char* url, int32_t want_body);
void HTTP_clear_handlers();
int32_t HTTP_handler_count();
// The first entry whose mask holds every bit of method and whose prefix
// starts url; null when none fits.
const HTTP_handler* HTTP_find_handler(int32_t method, const char* url);

void HTTP_set_default_page(const char* text);
const char* HTTP_get_default_page();

// Opens, binds (stepping upward from option httpport) and listens. 1 on
// success with socket and port set; 0 with socket -1.
int HTTP_listen(HTTP_server* server);
// Thread body: accepts until the server status leaves 1.
void HTTP_accept(void* server);
// Starts HTTP_accept on its own thread. 1, or 0 when no thread could be made.
int HTTP_accept_start(HTTP_server* server);
// Accept threads that have not yet left; stop waits for 0 before it closes
// the listening sockets, so that no thread accepts on a reused descriptor.
int32_t HTTP_accept_count();

// Thread body of one connection; frees the HTTP_connection.
void HTTP_receive(void* connection);
// One request: 0 to go on, 1 to close, another value when a handler took
// the socket over.
int HTTP_send_receive(HTTP_connection* connection);

// Live connections (those pushed out count until their thread has gone),
// and a wake-up for all of them: each socket is shut down, so that its
// thread leaves whatever call it blocks in.
int32_t HTTP_connection_count();
void HTTP_connections_shutdown();

// ---- Reading requests ---------------------------------------------------

// Where head and body bytes come from: a socket, or bytes in memory (data
// not null) for tests and fuzzing. A socket source with deadline_ms > 0
// gives up at that monotonic time.
struct HTTP_source {
    int32_t socket;
    const char* data;
    int32_t size;
    int32_t at;
    int64_t deadline_ms;
};

enum { HTTP_RECV_PEEK = 1 };


int32_t HTTP_send_bytes(int32_t socket, const void* data, int32_t length);   // length or -1
// One receive: the count, 0 when the peer closed, -1 on error or timeout.
int32_t HTTP_recv_bytes(int32_t socket, void* buffer, int32_t length, int32_t flags);

// Reads a head up to and with its blank line; the length, or 0 on failure.
// A head too long for the buffer is cut, closed with a blank line, and the
// rest of it is read and dropped.
int32_t HTTP_read_header(int32_t socket, char* buffer, int32_t size);
int32_t HTTP_source_read_header(HTTP_source* source, char* buffer, int32_t size);

// The request body as a new text, or null when there is none. The second
// form refuses (null and *refused 1) a body beyond max bytes, a bad chunk
// size, or a length that is no number.
upnp_string* HTTP_read_body(int32_t socket, const char* head);
upnp_string* HTTP_source_read_body(HTTP_source* source, const char* head, int64_t max, int* refused);

int HTTP_is_chunked(const char* head);
// The Content-Length value; 0 when absent or negative, -1 when it is too
// large to be a length.
int64_t HTTP_content_length(const char* head);
// In place: %XX becomes that byte, '+' a blank. The decoded length (a
// decoded NUL makes it differ from strlen).
int32_t HTTP_url_decode(char* text);

// Fills method, url (decoded and rewritten), version, close flag and DLNA
// version from the head already in the request; the client's flags are the
// caller's. 0 when the URL must be refused (see HTTP_url_is_safe), else 1.
int HTTP_parse_request_head(HTTP_request* request);
// Whether the client that sent the request carries a quirk flag; the form
// in which the store asks (db_set_client_flag_probe).
int HTTP_request_has_flag(const HTTP_request* request, const char* flag);
// 1 when the decoded URL may be served: no byte below 0x20 and no ".."
// path segment.
int HTTP_url_is_safe(const char* url, int32_t length);

// ---- Ranges -------------------------------------------------------------

// The Range or DLNA time seek of a head: start and end (bytes, or
// milliseconds with *time_seek 1), or the HTTP_RANGE_* values.
void HTTP_parse_range(const char* head, int64_t* start, int64_t* end, int32_t* time_seek);
// An npt time text in milliseconds; -2 without any digit.
int32_t HTTP_parse_npt(const char* text);

// ---- Sending ------------------------------------------------------------

// The status text of a code ("404 Not Found"); *force_html 1 when the
// response of that code is an HTML page.
const char* HTTP_status_text(int32_t status, int* force_html);

// Assembles and sends the response head. 0 when sent; 1 when the send
// failed, the head did not fit, or the request was refused here (then the
// caller sends no body and the connection closes).
int HTTP_send_header(HTTP_request* request, int32_t status);
int HTTP_send_status(HTTP_request* request, int32_t status);
// Answers from memory, with Range; content_length is the size of data and
// mime_type must be set. 1 when the head or the data failed to send.
int HTTP_send_buffer(HTTP_request* request, const char* data);
int HTTP_send_file_not_found(HTTP_request* request);
int HTTP_send_unauthorized(HTTP_request* request);

int HTTP_send_chunked_header(int32_t socket);
// Sends the text as one chunk and empties it; nothing for an empty text.
int HTTP_send_chunk(int32_t socket, upnp_string* text);
int HTTP_send_last_chunk(int32_t socket);

void HTTP_add_header(HTTP_request* request, const char* text);
void HTTP_add_no_cache(HTTP_request* request);
