// http_server.cpp: the server side of HTTP. It owns the route table, the
// default page, the limits, the listening sockets and the table of live
// connections.
//
// Order of work: start registers the routes and sets the default page,
// then HTTP_listen binds one socket per interface, stepping upward from the
// configured port when it is busy, and HTTP_accept runs on its own thread
// per interface. Each accepted socket is checked against the connection
// caps, entered in the connection table and handed to HTTP_receive on a
// thread of its own, which serves requests until the peer goes, a limit
// passes, or the server status leaves 1. Stop wakes every connection
// through the table.
//
// Slots: a connection beyond its address's cap is refused at once. When all
// slots are taken, the newcomer pushes out, from the address that holds the
// most connections, the one that has waited longest without a whole request
// (before its first head, or idle between requests); only when every
// connection is busy serving a request it has received is the newcomer
// refused. So a flood of half heads cannot keep a player out until the head
// limit passes. Pushing out only shuts the socket down; the connection's own
// thread wakes, frees its entry and closes the socket, as on every exit.
//
// Locks: http_connection_lock guards the connection table only; a thread
// marks its own entry busy or waiting under it. The route table and the
// default page are written before any accept thread exists and read without
// a lock. The limits are atomics.
#include "http/http_server.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "http/http_stream.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <unistd.h>

static std::atomic<int32_t> http_accept_threads;

// Written only during start, before the accept threads exist.
static HTTP_handler http_handlers[HTTP_MAX_HANDLERS];
static int32_t http_handler_total;
static char http_default_page[HTTP_DEFAULT_PAGE_SIZE + 1];

// ---- Limits ---------------------------------------------------------------

static std::atomic<int32_t> http_head_timeout{HTTP_HEAD_TIMEOUT_MS};
static std::atomic<int32_t> http_idle_timeout{HTTP_IDLE_TIMEOUT_MS};
static std::atomic<int32_t> http_send_timeout{HTTP_SEND_TIMEOUT_MS};
static std::atomic<int32_t> http_per_peer{HTTP_MAX_PER_PEER};
static std::atomic<int32_t> http_total{HTTP_MAX_CONNECTIONS};
static std::atomic<int64_t> http_body_max{HTTP_BODY_MAX};

static int32_t http_clamp(int32_t value, int32_t low, int32_t high)
{
    return value < low ? low : value > high ? high : value;
}

void HTTP_set_limits(const HTTP_limits* limits)
{
    static const HTTP_limits defaults = {HTTP_HEAD_TIMEOUT_MS, HTTP_IDLE_TIMEOUT_MS, HTTP_SEND_TIMEOUT_MS,
                                         HTTP_MAX_PER_PEER,    HTTP_MAX_CONNECTIONS, HTTP_BODY_MAX};
    const HTTP_limits* l = limits ? limits : &defaults;
    http_head_timeout = http_clamp(l->head_timeout_ms, 1, INT32_MAX);
    http_idle_timeout = http_clamp(l->idle_timeout_ms, 1, INT32_MAX);
    http_send_timeout = http_clamp(l->send_timeout_ms, 1, INT32_MAX);
    http_per_peer = http_clamp(l->per_peer, 1, HTTP_MAX_CONNECTIONS);
    http_total = http_clamp(l->total, 1, HTTP_MAX_CONNECTIONS);
    http_body_max = l->body_max < 0 ? 0 : l->body_max;
}

void HTTP_get_limits(HTTP_limits* out)
{
    *out = {http_head_timeout, http_idle_timeout, http_send_timeout, http_per_peer, http_total, http_body_max};
}

// ---- Route table ----------------------------------------------------------

int HTTP_register_handler(HTTP_handler_function function, int32_t methods, const char* url, int32_t want_body)
{
    const char* shown = url ? url : "";
    if (http_handler_total >= HTTP_MAX_HANDLERS) {
        upnp_log(UPNP_LOG_CRITICAL, UPNP_LOG_HTTP, "too many callback handlers registered %s\n", shown);
        return 0;
    }
    if (!function) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_HTTP, "Missing handler function for URL %s\n", shown);
        return 0;
    }
    HTTP_handler* h = &http_handlers[http_handler_total];
    if (strlen(shown) >= HTTP_HANDLER_URL_SIZE)
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_HTTP, "URL too long for registration %s\n", shown);
    snprintf(h->url, sizeof h->url, "%s", shown);
    h->url_length = int32_t(strlen(h->url));
    h->function = function;
    h->methods = methods;
    h->want_body = want_body;
    http_handler_total++;
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, "registered a handler for %s %d\n", shown, methods);
    return 1;
}

void HTTP_clear_handlers()
{
    http_handler_total = 0;
}

int32_t HTTP_handler_count()
{
    return http_handler_total;
}

// With method 0 every mask fits, so an unknown method reaches the first
// entry whose prefix fits.
const HTTP_handler* HTTP_find_handler(int32_t method, const char* url)
{
    for (int32_t i = 0; i < http_handler_total; i++) {
        const HTTP_handler* h = &http_handlers[i];
        if ((h->methods & method) == method && strncmp(h->url, url, size_t(h->url_length)) == 0)
            return h;
    }
    return nullptr;
}

void HTTP_set_default_page(const char* text)
{
    if (text && strlen(text) <= HTTP_DEFAULT_PAGE_SIZE)
        snprintf(http_default_page, sizeof http_default_page, "%s", text);
}

const char* HTTP_get_default_page()
{
    return http_default_page;
}

// ---- Connection table -------------------------------------------------------

// A pushed out connection keeps its entry until its own thread has left the
// socket, so the table has room for as many leaving as live ones.
enum { HTTP_SLOT_ENTRIES = 2 * HTTP_MAX_CONNECTIONS };

struct http_slot {
    int32_t socket;                 // -1 when free
    char peer[16];
    uint8_t busy;                   // inside a request it has wholly received
    uint8_t leaving;                // pushed out; its thread frees the entry
    int64_t waiting_ms;             // since when it waits for a request
};

// One address of the live connections: an entry for its text, how many it
// holds, and its connection that has waited longest (-1 when all are busy).
struct http_tally {
    int32_t first;
    int32_t count;
    int32_t oldest;
};

static std::mutex http_connection_lock;
static http_slot http_slots[HTTP_SLOT_ENTRIES];      // guarded by http_connection_lock
static int32_t http_slots_used;                      // live entries, guarded by http_connection_lock
static int32_t http_slots_leaving;                   // guarded by http_connection_lock
// Scratch of http_victim, static so as not to weigh on the accept thread's
// small stack; guarded by http_connection_lock.
static http_tally http_tallies[HTTP_MAX_CONNECTIONS];
static std::once_flag http_slots_once;

static void http_slots_init()
{
    for (http_slot& s : http_slots)
        s.socket = -1;
}

static bool http_waits_longer(int32_t slot, int32_t than)
{
    return than < 0 || http_slots[slot].waiting_ms < http_slots[than].waiting_ms;
}

// Caller holds http_connection_lock. The addresses of the live entries;
// the total cap keeps those to HTTP_MAX_CONNECTIONS, the bound only makes
// that plain.
static int32_t http_tally_peers()
{
    int32_t peers = 0;
    for (int32_t i = 0; i < HTTP_SLOT_ENTRIES; i++) {
        const http_slot& s = http_slots[i];
        if (s.socket < 0 || s.leaving)
            continue;
        int32_t p = 0;
        while (p < peers && strcmp(http_slots[http_tallies[p].first].peer, s.peer) != 0)
            p++;
        if (p == HTTP_MAX_CONNECTIONS)
            continue;
        if (p == peers)
            http_tallies[peers++] = {i, 0, -1};
        http_tallies[p].count++;
        if (!s.busy && http_waits_longer(i, http_tallies[p].oldest))
            http_tallies[p].oldest = i;
    }
    return peers;
}

// Caller holds http_connection_lock. Of the address that holds the most,
// the connection that has waited longest for a request: the flooder pays
// first, and a player in the middle of a stream is never chosen. -1 when
// every live connection is busy.
static int32_t http_victim()
{
    int32_t peers = http_tally_peers();
    const http_tally* best = nullptr;
    for (int32_t p = 0; p < peers; p++) {
        const http_tally& t = http_tallies[p];
        if (t.oldest >= 0 && (!best || t.count > best->count ||
                              (t.count == best->count && http_waits_longer(t.oldest, best->oldest))))
            best = &t;
    }
    return best ? best->oldest : -1;
}

// Caller holds http_connection_lock. The socket is only shut, never closed
// here: its thread still owns it, wakes from its receive, frees the entry
// and closes, so the number is neither closed twice nor shut after reuse.
static void http_push_out(int32_t slot)
{
    http_slot& s = http_slots[slot];
    upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "connection from %s pushed out to make room\n", s.peer);
    s.leaving = 1;
    http_slots_used--;
    http_slots_leaving++;
    upnp_socket_shutdown(s.socket);
}

// Caller holds http_connection_lock. The live connections of that address,
// and a free entry in *free_slot (-1 when none).
static int32_t http_peer_count(const char* peer, int32_t* free_slot)
{
    int32_t same = 0;
    *free_slot = -1;
    for (int32_t i = 0; i < HTTP_SLOT_ENTRIES; i++) {
        const http_slot& s = http_slots[i];
        if (s.socket < 0) {
            if (*free_slot < 0)
                *free_slot = i;
        } else if (!s.leaving && strcmp(s.peer, peer) == 0) {
            same++;
        }
    }
    return same;
}

// A slot for the socket, or -1 when a cap refuses it; *why names the cap.
// A full table pushes out a waiting connection rather than refuse.
static int32_t http_slot_take(int32_t socket, const char* peer, const char** why)
{
    std::call_once(http_slots_once, http_slots_init);
    std::lock_guard<std::mutex> hold(http_connection_lock);
    int32_t free_slot;
    if (http_peer_count(peer, &free_slot) >= http_per_peer) {
        *why = "connections from that address";
        return -1;
    }
    if (free_slot >= 0 && http_slots_used >= http_total) {
        int32_t victim = http_victim();
        if (victim >= 0)
            http_push_out(victim);
    }
    if (free_slot < 0 || http_slots_used >= http_total) {
        *why = "connections in all";
        return -1;
    }
    http_slot& s = http_slots[free_slot];
    s = {socket, {}, 0, 0, upnp_clock_ms()};
    memcpy(s.peer, peer, sizeof s.peer);
    http_slots_used++;
    return free_slot;
}

// Caller holds http_connection_lock. The connection's own entry; null
// for a connection that is not in the table.
static http_slot* http_slot_of(const HTTP_connection* c)
{
    if (c->slot < 0 || c->slot >= HTTP_SLOT_ENTRIES || http_slots[c->slot].socket != c->socket)
        return nullptr;
    return &http_slots[c->slot];
}

static void http_slot_waits(const HTTP_connection* c)
{
    std::lock_guard<std::mutex> hold(http_connection_lock);
    if (http_slot* s = http_slot_of(c)) {
        s->busy = 0;
        s->waiting_ms = upnp_clock_ms();
    }
}

// 0 when the connection was pushed out while its request came in: its
// socket is shut, and no answer could reach the peer.
static int http_slot_busy(const HTTP_connection* c)
{
    std::lock_guard<std::mutex> hold(http_connection_lock);
    http_slot* s = http_slot_of(c);
    if (!s || s->leaving)
        return 0;
    s->busy = 1;
    return 1;
}

// Before the socket is closed, so that stop never shuts a reused number.
static void http_slot_release(int32_t slot)
{
    std::lock_guard<std::mutex> hold(http_connection_lock);
    if (slot < 0 || slot >= HTTP_SLOT_ENTRIES || http_slots[slot].socket < 0)
        return;
    http_slot& s = http_slots[slot];
    if (s.leaving)
        http_slots_leaving--;
    else
        http_slots_used--;
    s.socket = -1;
    s.leaving = 0;
}

int32_t HTTP_connection_count()
{
    std::lock_guard<std::mutex> hold(http_connection_lock);
    return http_slots_used + http_slots_leaving;
}

void HTTP_connections_shutdown()
{
    std::lock_guard<std::mutex> hold(http_connection_lock);
    for (http_slot& s : http_slots)
        if (s.socket >= 0)
            upnp_socket_shutdown(s.socket);
}

// ---- Listening --------------------------------------------------------------

// A failed bind steps to the next port; all failing unpins option ip, so
// that the next start is not tied to an address that cannot serve.
static int http_bind_stepping(HTTP_server* server, int32_t s)
{
    int32_t first = upnp_ini_get_int(UPNP_OPT_HTTPPORT);
    if (first <= 0 || first > 65535)
        first = HTTP_DEFAULT_PORT;
    for (int32_t port = first; port <= first + HTTP_PORT_STEPS && port <= 65535; port++)
        if (upnp_socket_bind(s, server->ip, port) >= 0) {
            server->port = port;
            return 1;
        }
    if (upnp_ini_get_string(UPNP_OPT_IP)) {
        upnp_ini_set(UPNP_OPT_IP, nullptr);
        upnp_ini_file_write();
    }
    upnp_log(UPNP_LOG_CRITICAL, UPNP_LOG_HTTP, "no upnp_free port for HTTP server found on IP: %s\n", server->ip);
    return 0;
}

int HTTP_listen(HTTP_server* server)
{
    tzset();
    server->socket = -1;
    int32_t s = upnp_socket_tcp();
    if (s < 0)
        return 0;
    // Without it a restart finds the old port in TIME_WAIT and drifts upward.
    upnp_socket_set_reuse(s);
    if (!http_bind_stepping(server, s)) {
        upnp_socket_close(s);
        return 0;
    }
    if (upnp_socket_listen(s) != 0) {
        upnp_socket_close(s);
        upnp_log(UPNP_LOG_CRITICAL, UPNP_LOG_HTTP, "failure on listen on HTTP server port for IP: %s\n", server->ip);
        return 0;
    }
    server->socket = s;
    return 1;
}

// ---- Accepting ----------------------------------------------------------------

static void http_refuse(int32_t s, const char* peer, const char* why)
{
    upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "connection from %s refused: too many %s\n", peer, why);
    upnp_socket_close(s);
}

// The connection's record and thread; on any failure the socket is closed.
static void http_hand_on(HTTP_server* server, int32_t s)
{
    char peer[16];
    upnp_socket_get_peer(s, peer, nullptr);
    const char* why = nullptr;
    int32_t slot = http_slot_take(s, peer, &why);
    if (slot < 0) {
        http_refuse(s, peer, why);
        return;
    }
    HTTP_connection* c = static_cast<HTTP_connection*>(calloc(1, sizeof(HTTP_connection)));
    if (c) {
        c->server = server;
        c->socket = s;
        c->slot = slot;
        c->accepted_ms = upnp_clock_ms();
        memcpy(c->peer, peer, sizeof c->peer);
        upnp_socket_set_send_timeout(s, http_send_timeout);
        if (upnp_thread_spawn(HTTP_receive, c, 0))
            return;
        free(c);
    }
    http_slot_release(slot);
    upnp_socket_close(s);
}

void HTTP_accept(void* argument)
{
    upnp_thread_set_name("HTTP_accept");
    HTTP_server* server = static_cast<HTTP_server*>(argument);
    int32_t listener = server->socket;
    char ip[16];
    memcpy(ip, server->ip, sizeof ip);
    int32_t port = server->port;
    if (listener < 0) {
        http_accept_threads--;
        return;
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, "HTTP server started at http://%s:%d/\n", ip, port);
    while (upnp_server_get_status() == 1) {
        int32_t s = upnp_socket_accept(listener);
        if (s >= 0 && upnp_server_get_status() == 1)
            http_hand_on(server, s);
        else if (s >= 0)
            upnp_socket_close(s);
        else
            usleep(10 * 1000);   // out of descriptors: do not spin
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, "HTTP server terminated at http://%s:%d/\n", ip, port);
    http_accept_threads--;
}

// Counted before the thread starts, so that a stop right after a start
// never misses a thread that has not run yet.
int HTTP_accept_start(HTTP_server* server)
{
    http_accept_threads++;
    if (upnp_thread_spawn(HTTP_accept, server, 1))
        return 1;
    http_accept_threads--;
    return 0;
}

int32_t HTTP_accept_count()
{
    return http_accept_threads.load();
}

// ---- Connections --------------------------------------------------------------

void HTTP_receive(void* argument)
{
    upnp_thread_set_name("HTTP_receive");
    HTTP_connection* c = static_cast<HTTP_connection*>(argument);
    int result = 0;
    while (upnp_server_get_status() == 1 && result == 0)
        result = HTTP_send_receive(c);
    http_slot_release(c->slot);
    HTTP_close_stream(c->stream);
    // Any other result means a handler took the socket over.
    if (result == 1 || result == 0)
        upnp_socket_close(c->socket);
    free(c);
}

// A keep-alive connection waits for the next request's first byte; the
// first request of a connection has no idle time of its own.
static int http_wait_request(HTTP_connection* c, HTTP_source* source)
{
    if (c->requests == 0) {
        source->deadline_ms = c->accepted_ms + http_head_timeout;
        return 1;
    }
    char byte;
    http_slot_waits(c);
    upnp_socket_set_recv_timeout(c->socket, http_idle_timeout);
    if (HTTP_recv_bytes(c->socket, &byte, 1, HTTP_RECV_PEEK) != 1)
        return 0;
    source->deadline_ms = upnp_clock_ms() + http_head_timeout;
    return 1;
}

static void http_request_begin(HTTP_connection* c, HTTP_request* r)
{
    memset(r, 0, sizeof *r);
    r->socket = c->socket;
    memcpy(r->client_ip, c->peer, sizeof c->peer);
    snprintf(r->base_url, sizeof r->base_url, "http://%s:%d/", c->server->ip, c->server->port);
    snprintf(r->rtsp_base_url, sizeof r->rtsp_base_url, "rtsp://%s:%d/", c->server->ip, c->server->second_port);
    r->stream = c->stream;
}

static int http_read_request_head(HTTP_connection* c, HTTP_request* r)
{
    HTTP_source source = {c->socket, nullptr, 0, 0, 0};
    int32_t n = 0;
    if (http_wait_request(c, &source))
        n = HTTP_source_read_header(&source, r->head, sizeof r->head);
    c->requests++;
    if (n == 0)
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP,
                 "received no header in HTTP_send_receive, propably client closed socket!\n");
    return n;
}

// An upload must announce itself with Expect, so that its body is not sent
// before the server agreed.
static int http_expect(HTTP_request* r, int* answer)
{
    if (strncmp(r->head, "POST", 4) == 0 && strstr(r->head, "createobject") &&
        !upnp_stristr(r->head, "100-continue")) {
        *answer = HTTP_send_status(r, 400);
        return 0;
    }
    static const char go_on[] = "HTTP/1.1 100 Continue\r\nContent-Length: 0\r\n\r\n";
    if (upnp_stristr(r->head, "100-continue") &&
        HTTP_send_bytes(r->socket, go_on, sizeof go_on - 1) != sizeof go_on - 1) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_HTTP, "Can't send 100-continue message!!!\n");
        printf("Can't send 100-continue message!!!\n");
    }
    return 1;
}

static bool http_wants_body(const HTTP_handler* h, const HTTP_request* r)
{
    if (!h->want_body)
        return false;
    if (r->method == HTTP_METHOD_POST || r->method == HTTP_METHOD_NOTIFY)
        return true;
    return (r->method == HTTP_METHOD_SUBSCRIBE || r->method == HTTP_METHOD_UNSUBSCRIBE) && HTTP_is_chunked(r->head);
}

// The body into the request; 0 when the body was refused and the
// connection must close.
static int http_take_body(HTTP_request* r, upnp_string** body)
{
    HTTP_source source = {r->socket, nullptr, 0, 0, upnp_clock_ms() + http_head_timeout};
    int refused = 0;
    *body = HTTP_source_read_body(&source, r->head, http_body_max, &refused);
    if (refused) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "request body from %s refused\n", r->client_ip);
        return 0;
    }
    if (*body) {
        r->body = (*body)->text;
        r->content_length = (*body)->length;
        if (upnp_log_channel_enabled(UPNP_LOG_HTTP))
            upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, "%s\n", (*body)->length ? (*body)->text : "- NO BODY RECEIVED -");
    }
    return 1;
}

// After a refusal the peer may still be sending: a close with unread
// bytes resets the connection, and the reset can destroy the answer
// before the peer has read it. So what comes soon is read and dropped.
static void http_linger(int32_t socket)
{
    char sink[4096];
    int64_t until = upnp_clock_ms() + 1000;
    upnp_socket_set_recv_timeout(socket, 200);
    for (int32_t dropped = 0; dropped < 256 * 1024 && upnp_clock_ms() < until;) {
        int32_t n = HTTP_recv_bytes(socket, sink, sizeof sink, 0);
        if (n <= 0)
            break;
        dropped += n;
    }
}

static int http_dispatch(HTTP_connection* c, HTTP_request* r)
{
    const HTTP_handler* h = HTTP_find_handler(r->method, r->url);
    if (!h)
        return HTTP_send_file_not_found(r);
    upnp_string* body = nullptr;
    if (http_wants_body(h, r) && !http_take_body(r, &body)) {
        HTTP_send_status(r, 400);
        http_linger(r->socket);
        return 1;
    }
    int result = http_slot_busy(c) ? h->function(r) : 1;
    upnp_string_free(body);
    r->body = nullptr;
    return result;
}

int HTTP_send_receive(HTTP_connection* c)
{
    HTTP_request request;
    HTTP_request* r = &request;
    http_request_begin(c, r);
    int32_t n = http_read_request_head(c, r);
    if (n == 0)
        return 1;
    int answer = 0;
    if (!http_expect(r, &answer))
        return answer;
    // A NUL inside the head, a control byte or ".." in the URL: nothing a
    // route should ever see.
    if (!HTTP_parse_request_head(r) || strlen(r->head) != size_t(n)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "request from %s refused: bad URL\n", r->client_ip);
        HTTP_send_status(r, 400);
        http_linger(r->socket);
        return 1;
    }
    r->client_id = upnp_client_lookup(r->client_ip, r->head);
    if (upnp_log_channel_enabled(UPNP_LOG_HTTP))
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, "%s", r->head);
    // These players stay connected in spite of HTTP/1.0.
    if (r->version == 10 && upnp_client_redsonic(r->client_id))
        r->close = 0;
    int result = http_dispatch(c, r);
    c->stream = r->stream;
    return r->close ? 1 : result;
}
