// ssdp.cpp: the SSDP sockets, threads and messages of every interface.
//
// It owns the handler table (written at start and cleared at release,
// while no listening thread runs; read without a lock), the heartbeat's
// control flags and max-age (atomic words every heartbeat polls), the
// table of live records with their netmasks (ssdp_live_lock) and the
// thread counters. ssdp_socket_lock is held wherever a record's socket is
// shut down or closed, so that stop and the end of the server's own search
// never close one descriptor twice. No lock of this module is held while
// another is taken, or across a send or a receive.
//
// Order of work per interface: start opens the three sockets and starts
// SSDP_listen and SSDP_heartbeat; the scheduler starts the server's own
// search, which ends by closing its socket 4 s later. An accepted M-SEARCH
// gets a short reply thread, at most SSDP_MAX_REPLY_THREADS at once, that
// sleeps the random delay and answers three times. Stop sets the status,
// which every thread polls at least every 100 ms; the heartbeat sends its
// byebye bursts, the others leave, and stop closes the sockets after them.
//
// Rules at the edge: a datagram longer than SSDP_DATAGRAM_MAX is dropped
// rather than read cut short; nothing from a sender outside the subnet of
// the interface that received it is answered or followed up; device
// detection gets the sender's address, from which alone it may fetch.
#include "upnp/ssdp.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "http/http_server.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

const char ssdp_group[] = "239.255.255.250";

enum {
    SSDP_MESSAGE_SIZE = 512,
    SSDP_TTL = 4,
    SSDP_PORT_TRIES = 100,
    SSDP_SEND_PORT = 9080,
    SSDP_MSEARCH_PORT = 1030,
    SSDP_TICK_MS = 100,
    SSDP_ROUND_GAP_MS = 210,
    SSDP_MAX_TICKS = 1200,
    SSDP_MSEARCH_WAIT_MS = 4000,
    SSDP_MAX_LIVE = 8,
};

static const char ssdp_description_path[] = "/DeviceDescription.xml";

static std::atomic<int32_t> ssdp_max_age{60};
static std::atomic<int32_t> ssdp_advertise_server{0};
static std::atomic<int32_t> ssdp_force_alive{0};
static std::atomic<int32_t> ssdp_byebye_request{0};
static std::atomic<int32_t> ssdp_silent{0};
static std::atomic<int32_t> ssdp_alive_request{0};

// Written by register and clear only, while no listening thread runs.
static ssdp_handler ssdp_handlers[SSDP_MAX_HANDLERS];
static std::atomic<int32_t> ssdp_handler_count{0};

// A record that has sockets, with what its interface's subnet is.
struct ssdp_live {
    ssdp_server* record;
    char ip[UPNP_IP_TEXT_SIZE];
    char mask[UPNP_IP_TEXT_SIZE];     // "" when the system did not say
};
static ssdp_live ssdp_live_records[SSDP_MAX_LIVE];    // ssdp_live_lock
static std::mutex ssdp_live_lock;

static std::mutex ssdp_socket_lock;

static std::atomic<int32_t> ssdp_threads{0};
static std::atomic<int32_t> ssdp_reply_threads{0};
// Set while searches are dropped for want of reply threads: one log line
// per storm, not one per search.
static std::atomic<int32_t> ssdp_storm{0};

// One accepted search, owned by its reply thread.
struct ssdp_reply_job {
    int32_t delay;                    // seconds
    char target[SSDP_TARGET_SIZE];
    char peer_ip[UPNP_IP_TEXT_SIZE];
    int32_t peer_port;
    ssdp_server* server;
};

// ---- Waiting ----------------------------------------------------------------

static int ssdp_running()
{
    return upnp_server_get_status() == 1;
}

// Sleeps ms in short steps; 0 as soon as the servers leave the running state.
static int ssdp_sleep_running(int32_t ms)
{
    for (int32_t slept = 0; slept < ms; slept += 50) {
        if (!ssdp_running())
            return 0;
        int32_t step = ms - slept < 50 ? ms - slept : 50;
        usleep(useconds_t(step) * 1000);
    }
    return ssdp_running();
}

// ---- Threads ----------------------------------------------------------------

struct ssdp_thread_start {
    void (*entry)(void*);
    void* argument;
};

static void ssdp_thread_run(void* raw)
{
    ssdp_thread_start start = *static_cast<ssdp_thread_start*>(raw);
    free(raw);
    start.entry(start.argument);
    ssdp_threads.fetch_sub(1);
}

// Counted before the thread exists, so that a stop right after a start
// never misses one that has not run yet.
static int ssdp_spawn(void (*entry)(void*), void* argument, int32_t priority)
{
    auto* start = static_cast<ssdp_thread_start*>(malloc(sizeof(ssdp_thread_start)));
    if (!start)
        return 0;
    *start = ssdp_thread_start{entry, argument};
    ssdp_threads.fetch_add(1);
    if (upnp_thread_spawn(ssdp_thread_run, start, priority))
        return 1;
    ssdp_threads.fetch_sub(1);
    free(start);
    return 0;
}

int ssdp_thread_spawn(void (*entry)(void*), ssdp_server* record, int32_t priority)
{
    return entry && record ? ssdp_spawn(entry, record, priority) : 0;
}

int32_t ssdp_thread_count()
{
    return ssdp_threads.load();
}

int32_t ssdp_reply_thread_count()
{
    return ssdp_reply_threads.load();
}

// ---- Live records -------------------------------------------------------------

static void ssdp_live_add(ssdp_server* record, const char* ip)
{
    char mask[UPNP_IP_TEXT_SIZE];
    if (!upnp_nic_netmask(ip, mask))
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SSDP, "no netmask known for %s: its searches go unanswered\n", ip);
    std::lock_guard<std::mutex> hold(ssdp_live_lock);
    for (ssdp_live& live : ssdp_live_records)
        if (!live.record || live.record == record) {
            live.record = record;
            snprintf(live.ip, sizeof live.ip, "%s", ip);
            memcpy(live.mask, mask, sizeof live.mask);
            return;
        }
}

static void ssdp_live_remove(ssdp_server* record)
{
    std::lock_guard<std::mutex> hold(ssdp_live_lock);
    for (ssdp_live& live : ssdp_live_records)
        if (live.record == record)
            live = ssdp_live{};
}

// The live record whose interface has address ip, or null.
static ssdp_server* ssdp_live_by_ip(const char* ip)
{
    std::lock_guard<std::mutex> hold(ssdp_live_lock);
    for (const ssdp_live& live : ssdp_live_records)
        if (live.record && ip && strcmp(live.ip, ip) == 0)
            return live.record;
    return nullptr;
}

// Whether peer_ip lies in the subnet of the record's interface.
static int ssdp_peer_on_subnet(const ssdp_server* record, const char* peer_ip)
{
    std::lock_guard<std::mutex> hold(ssdp_live_lock);
    for (const ssdp_live& live : ssdp_live_records)
        if (live.record == record)
            return ssdp_same_subnet(live.ip, live.mask, peer_ip);
    return 0;
}

// ---- Sockets ------------------------------------------------------------------

void ssdp_server_clear(ssdp_server* record, HTTP_server* http)
{
    record->http = http;
    record->listen_socket = -1;
    record->msearch_socket = -1;
    record->send_socket = -1;
}

static int32_t ssdp_open_listener(const char* ip)
{
    int32_t s = upnp_socket_udp();
    if (s < 0)
        return -1;
    upnp_socket_set_reuse(s);
    if (upnp_socket_bind(s, "", SSDP_PORT) < 0) {
        upnp_socket_close(s);
        return -1;
    }
    if (upnp_socket_join_group(s, ssdp_group, ip) < 0) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "add membership fail ip=%s, wsa last error [%d]\n", ip, errno);
        upnp_socket_close(s);
        return -1;
    }
    // Without these the socket would hear the group on every interface
    // some other socket of the host joined, and not know where from.
    upnp_socket_set_multicast_all_off(s);
    upnp_socket_set_pktinfo(s);
    return s;
}

// A sending socket on the interface, bound from first_port upward.
static int32_t ssdp_open_sender(const char* ip, int32_t first_port)
{
    int32_t s = upnp_socket_udp();
    if (s < 0)
        return -1;
    int bound = 0;
    for (int32_t port = first_port; !bound && port <= first_port + SSDP_PORT_TRIES; port++)
        bound = upnp_socket_bind(s, ip, port) >= 0;
    if (!bound) {
        upnp_socket_close(s);
        return -1;
    }
    upnp_socket_set_multicast_ttl(s, SSDP_TTL);
    upnp_socket_set_multicast_if(s, ip);
    return s;
}

int ssdp_open_sockets(ssdp_server* record)
{
    if (!record || !record->http)
        return 0;
    const char* ip = record->http->ip;
    record->listen_socket = ssdp_open_listener(ip);
    record->send_socket = ssdp_open_sender(ip, SSDP_SEND_PORT);
    record->msearch_socket = ssdp_open_sender(ip, SSDP_MSEARCH_PORT);
    ssdp_live_add(record, ip);
    return record->listen_socket >= 0 && record->send_socket >= 0 && record->msearch_socket >= 0;
}

void ssdp_shutdown_sockets(ssdp_server* record)
{
    std::lock_guard<std::mutex> hold(ssdp_socket_lock);
    for (int32_t s : {record->listen_socket, record->send_socket, record->msearch_socket})
        if (s >= 0)
            upnp_socket_shutdown(s);
}

static void ssdp_close_one(int32_t* s)
{
    if (*s >= 0)
        upnp_socket_close(*s);
    *s = -1;
}

void ssdp_close_sockets(ssdp_server* record)
{
    ssdp_live_remove(record);
    std::lock_guard<std::mutex> hold(ssdp_socket_lock);
    ssdp_close_one(&record->listen_socket);
    ssdp_close_one(&record->send_socket);
    ssdp_close_one(&record->msearch_socket);
}

// ---- Messages -----------------------------------------------------------------

// The announced search targets in the order they go out; a null target
// stands for the device's UDN.
struct ssdp_row {
    const char* target;
    int server_only;                  // only while the server is advertised
};

static constexpr ssdp_row ssdp_rows[] = {
    {nullptr, 0},
    {"upnp:rootdevice", 0},
    {"urn:schemas-upnp-org:device:MediaServer:1", 1},
    {"urn:schemas-upnp-org:service:ContentDirectory:1", 1},
    {"urn:schemas-upnp-org:service:ConnectionManager:1", 1},
};

// NT or ST, and USN, of a row.
struct ssdp_names {
    char nt[SSDP_TARGET_SIZE];
    char usn[2 * SSDP_TARGET_SIZE];
};

static int ssdp_row_names(const ssdp_row& row, const char* udn, ssdp_names* out)
{
    if (row.server_only && !ssdp_advertise_server)
        return 0;
    snprintf(out->nt, sizeof out->nt, "%s", row.target ? row.target : udn);
    if (row.target)
        snprintf(out->usn, sizeof out->usn, "%s::%s", udn, row.target);
    else
        snprintf(out->usn, sizeof out->usn, "%s", udn);
    return 1;
}

static int ssdp_send(int32_t socket, const char* text, int length, const char* peer_ip, int32_t peer_port)
{
    // A message cut by its buffer would be a broken one: not sent.
    if (length < 0 || length >= SSDP_MESSAGE_SIZE)
        return 0;
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SSDP, "### SSDP sending:\n%s\n", text);
    upnp_socket_sendto(socket, text, length, peer_ip, peer_port);
    return 1;
}

static int ssdp_send_row(int32_t socket, const char* local_ip, int32_t local_port, const char* peer_ip,
                         int32_t peer_port, const ssdp_names& names, int notify)
{
    char text[SSDP_MESSAGE_SIZE];
    int length;
    if (notify) {
        length = snprintf(text, sizeof text,
                          "NOTIFY * HTTP/1.1\r\nHOST: %s:%d\r\nCACHE-CONTROL: max-age=%u\r\n"
                          "LOCATION: http://%s:%d%s\r\nNT: %s\r\nNTS: ssdp:alive\r\nSERVER: %s\r\nUSN: %s\r\n\r\n",
                          ssdp_group, SSDP_PORT, unsigned(ssdp_max_age.load()), local_ip, local_port,
                          ssdp_description_path, names.nt, server_string, names.usn);
    } else {
        char date[64];
        upnp_http_date(date, sizeof date);
        length = snprintf(text, sizeof text,
                          "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=%u\r\nDATE: %s\r\nEXT:\r\n"
                          "LOCATION: http://%s:%d%s\r\nSERVER: %s\r\nST: %s\r\nUSN: %s\r\nContent-Length: 0\r\n\r\n",
                          unsigned(ssdp_max_age.load()), date, local_ip, local_port, ssdp_description_path,
                          server_string, names.nt, names.usn);
    }
    return ssdp_send(socket, text, length, peer_ip, peer_port);
}

int ssdp_announce(int32_t socket, const char* local_ip, int32_t local_port, const char* peer_ip,
                  int32_t peer_port, const char* target, int notify)
{
    if (!target || !local_ip || !peer_ip)
        return 0;
    char udn[SSDP_TARGET_SIZE];
    snprintf(udn, sizeof udn, "%s", upnp_get_udn(upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME)));
    int all = strcmp(target, "ssdp:all") == 0;
    int sent = 0;
    for (const ssdp_row& row : ssdp_rows) {
        ssdp_names names;
        if (ssdp_row_names(row, udn, &names) && (all || strcmp(target, names.nt) == 0))
            sent += ssdp_send_row(socket, local_ip, local_port, peer_ip, peer_port, names, notify);
    }
    return sent;
}

// Whether ssdp_announce would send anything for target: a search for
// something else costs no thread.
static int ssdp_target_announced(const char* target)
{
    char udn[SSDP_TARGET_SIZE];
    snprintf(udn, sizeof udn, "%s", upnp_get_udn(upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME)));
    if (strcmp(target, "ssdp:all") == 0)
        return 1;
    for (const ssdp_row& row : ssdp_rows) {
        ssdp_names names;
        if (ssdp_row_names(row, udn, &names) && strcmp(target, names.nt) == 0)
            return 1;
    }
    return 0;
}

void ssdp_byebye_all(int32_t socket, const char* group, int32_t port)
{
    char udn[SSDP_TARGET_SIZE];
    snprintf(udn, sizeof udn, "%s", upnp_get_udn(upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME)));
    for (const ssdp_row& row : ssdp_rows) {
        ssdp_names names;
        if (!ssdp_row_names(row, udn, &names))
            continue;
        char text[SSDP_MESSAGE_SIZE];
        int length = snprintf(text, sizeof text,
                              "NOTIFY * HTTP/1.1\r\nHOST: %s:%d\r\nNT: %s\r\nNTS: ssdp:byebye\r\nUSN: %s\r\n\r\n",
                              ssdp_group, SSDP_PORT, names.nt, names.usn);
        ssdp_send(socket, text, length, group, port);
    }
}

// ---- Handlers -----------------------------------------------------------------

int ssdp_register_handler(ssdp_handler handler, const char* name)
{
    if (!name)
        name = "";
    int32_t count = ssdp_handler_count.load();
    if (count >= SSDP_MAX_HANDLERS) {
        upnp_log(UPNP_LOG_CRITICAL, UPNP_LOG_SSDP, "too many callback handlers registered %s\n", name);
        return 0;
    }
    if (!handler) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_SSDP, "missing handler function for\n");
        return 0;
    }
    ssdp_handlers[count] = handler;
    ssdp_handler_count.store(count + 1);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SSDP, "registered handler %s\n", name);
    return 1;
}

// The server is advertised while its search handler is registered.
void ssdp_clear_handlers()
{
    ssdp_handler_count.store(0);
    ssdp_advertise_server = 0;
}

void ssdp_set_server_advertising()
{
    ssdp_advertise_server = 1;
}

static void SSDP_send_notify_packet(void* argument)
{
    upnp_thread_set_name("SSDP_send_notify");
    ssdp_reply_job* job = static_cast<ssdp_reply_job*>(argument);
    ssdp_server* server = job->server;
    if (ssdp_sleep_running(job->delay * 1000))
        for (int round = 0; round < 3; round++)
            ssdp_announce(server->send_socket, server->http->ip, server->http->port, job->peer_ip,
                          job->peer_port, job->target, 0);
    free(job);
    ssdp_reply_threads.fetch_sub(1);
}

static void ssdp_start_reply(const ssdp_search& search, ssdp_server* record, const char* peer_ip,
                             int32_t peer_port)
{
    if (!ssdp_target_announced(search.target))
        return;
    if (ssdp_reply_threads.fetch_add(1) >= SSDP_MAX_REPLY_THREADS) {
        ssdp_reply_threads.fetch_sub(1);
        if (!ssdp_storm.exchange(1))
            upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SSDP, "too many searches at once: dropping those from %s\n",
                     peer_ip);
        return;
    }
    ssdp_storm = 0;
    auto* job = static_cast<ssdp_reply_job*>(calloc(1, sizeof(ssdp_reply_job)));
    if (job) {
        job->delay = (rand() & 0xFFFF) % search.mx;
        memcpy(job->target, search.target, sizeof job->target);
        snprintf(job->peer_ip, sizeof job->peer_ip, "%s", peer_ip);
        job->peer_port = peer_port;
        job->server = record;
        if (ssdp_spawn(SSDP_send_notify_packet, job, 0))
            return;
        free(job);
    }
    ssdp_reply_threads.fetch_sub(1);
}

void ssdp_search_handler(const char* text, ssdp_server* record, const char* peer_ip, int32_t peer_port)
{
    if (!text || !record || !record->http || !peer_ip)
        return;
    char copy[SSDP_DATAGRAM_MAX];
    size_t length = strnlen(text, sizeof copy - 1);
    memcpy(copy, text, length);
    copy[length] = 0;
    ssdp_search search;
    int parsed = ssdp_parse_search(copy, length, &search);
    if (!ssdp_peer_on_subnet(record, peer_ip)) {
        if (parsed)
            upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SSDP, "M-SEARCH from %s outside the subnet of %s ignored\n",
                     peer_ip, record->http->ip);
        return;
    }
    const char* url = nullptr;
    size_t url_length = 0;
    if (ssdp_parse_notify(copy, length, &url, &url_length))
        upnp_client_check(url, peer_ip);
    if (parsed == 0)
        return;
    upnp_client_lookup(peer_ip, copy);
    if (parsed > 0)
        ssdp_start_reply(search, record, peer_ip, peer_port);
}

// ---- Listening ----------------------------------------------------------------

static void ssdp_dispatch(const char* text, ssdp_server* record, const char* peer_ip, int32_t peer_port)
{
    int32_t count = ssdp_handler_count.load();
    for (int32_t i = 0; i < count; i++)
        ssdp_handlers[i](text, record, peer_ip, peer_port);
}

void SSDP_listen(void* argument)
{
    upnp_thread_set_name("SSDP_listen");
    ssdp_server* own = static_cast<ssdp_server*>(argument);
    int32_t s = own->listen_socket;
    usleep(useconds_t((rand() & 0xFFFF) % 100) * 1000);
    // One byte more than a datagram may have shows one that has more.
    char buffer[SSDP_DATAGRAM_MAX + 2];
    while (ssdp_running()) {
        char peer[UPNP_IP_TEXT_SIZE], local[UPNP_IP_TEXT_SIZE];
        int32_t port = 0;
        int32_t n = -1;
        if (s >= 0)
            n = upnp_socket_recvfrom_pktinfo(s, buffer, SSDP_DATAGRAM_MAX + 1, peer, &port, local);
        if (n < 1) {
            usleep(50 * 1000);
            continue;
        }
        if (n > SSDP_DATAGRAM_MAX) {
            upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SSDP, "datagram of more than %d bytes from %s dropped\n",
                     SSDP_DATAGRAM_MAX, peer);
            continue;
        }
        buffer[n] = 0;
        // A search sent by unicast to another interface's address lands on
        // whichever socket holds port 1900: that interface answers it.
        ssdp_server* record = ssdp_live_by_ip(local);
        ssdp_dispatch(buffer, record ? record : own, peer, port);
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SSDP, "### SSDP terminated listen thread\n");
}

// ---- Heartbeat ----------------------------------------------------------------

static void ssdp_alive_round(int32_t s, const ssdp_server* record)
{
    for (int i = 0; i < 2; i++) {
        ssdp_announce(s, record->http->ip, record->http->port, ssdp_group, SSDP_PORT, "ssdp:all", 1);
        usleep(SSDP_ROUND_GAP_MS * 1000);
    }
}

// One tick of the announcing loop; ticks counts the ticks since the last
// alive round.
static void ssdp_heartbeat_tick(int32_t s, const ssdp_server* record, int32_t* ticks)
{
    if (ssdp_byebye_request.exchange(0)) {
        ssdp_byebye_all(s, ssdp_group, SSDP_PORT);
        ssdp_silent = 1;
        return;
    }
    if (ssdp_silent)
        return;
    if (ssdp_alive_request.exchange(0)) {
        ssdp_byebye_all(s, ssdp_group, SSDP_PORT);
        ssdp_announce(s, record->http->ip, record->http->port, ssdp_group, SSDP_PORT, "ssdp:all", 1);
        usleep(SSDP_ROUND_GAP_MS * 1000);
        ssdp_announce(s, record->http->ip, record->http->port, ssdp_group, SSDP_PORT, "ssdp:all", 1);
    }
    ++*ticks;
    if (*ticks >= SSDP_MAX_TICKS || *ticks > ssdp_max_age / 3 * 10 || ssdp_force_alive) {
        ssdp_alive_round(s, record);
        ssdp_force_alive = 0;
        *ticks = 0;
    }
}

void SSDP_heartbeat(void* argument)
{
    upnp_thread_set_name("SSDP_heartbeat");
    const ssdp_server* record = static_cast<ssdp_server*>(argument);
    int32_t timeout = upnp_ini_get_int(UPNP_OPT_UPNPTIMEOUT);
    if (timeout > 60)
        ssdp_max_age = timeout;
    const char* ip = record->http->ip;
    int32_t s = ssdp_open_sender(ip, SSDP_PORT);
    if (s < 0) {
        upnp_log(UPNP_LOG_CRITICAL, UPNP_LOG_SYSTEM, "Error invalid SSDP heart beat multicast socket: \n");
        return;
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SSDP, "SSDP heartbeat started for %s\n", ip);
    ssdp_alive_round(s, record);
    int32_t ticks = 0;
    while (ssdp_running()) {
        usleep(SSDP_TICK_MS * 1000);
        if (!ssdp_running())
            break;
        ssdp_heartbeat_tick(s, record, &ticks);
    }
    ssdp_byebye_all(s, ssdp_group, SSDP_PORT);
    ssdp_byebye_all(s, ssdp_group, SSDP_PORT);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SSDP, "SSDP heartbeat stopped for %s\n", ip);
    upnp_socket_close(s);
}

void ssdp_request_alive_now()
{
    ssdp_force_alive = 1;
    usleep(500 * 1000);
    ssdp_force_alive = 0;
}

void ssdp_request_byebye()
{
    ssdp_byebye_request = 1;
}

void ssdp_request_alive()
{
    ssdp_alive_request = 1;
    ssdp_silent = 0;
}

int32_t ssdp_get_max_age()
{
    return ssdp_max_age.load();
}

// ---- The server's own search ----------------------------------------------------

void SSDP_MsearchReceiveServer(void* argument)
{
    upnp_thread_set_name("SSDP_msearch_rx");
    ssdp_server* record = static_cast<ssdp_server*>(argument);
    int32_t s = record->msearch_socket;
    char buffer[SSDP_DATAGRAM_MAX];
    while (s >= 0 && ssdp_running()) {
        char peer[UPNP_IP_TEXT_SIZE];
        int32_t port = 0;
        int32_t n = upnp_socket_recvfrom(s, buffer, SSDP_DATAGRAM_MAX - 1, peer, &port);
        if (n < 1)
            break;
        buffer[n] = 0;
        const char* url = ssdp_find_url(buffer, size_t(n));
        if (url && ssdp_peer_on_subnet(record, peer))
            upnp_client_check(url, peer);
    }
}

// Searches for renderers, so that the client database knows them before
// their first request, then closes the search socket, which ends the
// receiver. On a stop the socket is left to the stop, which closes it.
void upnp_server_startMSearch(void* argument)
{
    upnp_thread_set_name("SSDP_msearch");
    ssdp_server* record = static_cast<ssdp_server*>(argument);
    static const char search[] = "M-SEARCH * HTTP/1.1\r\nMX: 4\r\nST: urn:schemas-upnp-org:device:MediaRenderer:1\r\n"
                                 "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n\r\n";
    uint64_t receiver = 0;
    {
        // A stop sets the status before it closes the socket, so under the
        // lock a running status means the socket is still ours to use.
        std::lock_guard<std::mutex> hold(ssdp_socket_lock);
        if (!ssdp_running() || record->msearch_socket < 0)
            return;
        receiver = upnp_thread_start(SSDP_MsearchReceiveServer, record, 0);
        for (int i = 0; i < 2; i++)
            ssdp_send(record->msearch_socket, search, int(sizeof search - 1), ssdp_group, SSDP_PORT);
    }
    int running = ssdp_sleep_running(SSDP_MSEARCH_WAIT_MS);
    if (running) {
        std::lock_guard<std::mutex> hold(ssdp_socket_lock);
        upnp_socket_shutdown(record->msearch_socket);
    }
    if (receiver)
        upnp_thread_join(receiver);
    if (running) {
        std::lock_guard<std::mutex> hold(ssdp_socket_lock);
        ssdp_close_one(&record->msearch_socket);
    }
}
