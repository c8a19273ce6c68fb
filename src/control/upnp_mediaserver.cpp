// upnp_mediaserver.cpp: start and stop of everything that runs, the server
// records of the interfaces, the scheduler and the interface watch.
//
// Order of work: start registers the subsystems, sets upnp_running, starts
// one server per interface, then the scheduler. Stop takes the servers down
// (status 1 -> -1 -> 0), clears upnp_running and releases the subsystems.
// A changed interface restarts only the servers, on the scheduler thread.
// Both run flags are atomics polled by the threads; the server records are
// written only by start, stop and the restart, which never run at once
// (the host serialises its calls, and the restart runs on the scheduler,
// which stop waits for).
#include "control/upnp_mediaserver.h"

#include <velmora/dapi_dms.h>

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "database/db_file.h"
#include "database/db_object.h"
#include "database/db_tree.h"
#include "http/http_client.h"
#include "http/http_server.h"
#include "http/http_stream.h"
#include "media/upnp_albumart.h"
#include "media/upnp_filescan.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"
#include "upnp/ssdp.h"
#include "upnp/upnp_cds.h"
#include "upnp/upnp_description.h"
#include "upnp/upnp_soap.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <ifaddrs.h>
#include <mutex>
#include <net/if.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <unistd.h>

static std::atomic<int32_t> nic_change_requested;
// Set while a stop is under way, so that the scheduler does not bring the
// servers back up between the stop of the servers and its own end.
static std::atomic<int32_t> upnp_stop_requested;
// Held by whoever starts or stops the servers: the host's start and stop,
// or the scheduler's restart.
static std::recursive_mutex server_lock;
static int64_t nic_last_check;             // scheduler thread only
static int32_t upnp_nic_count;             // written by start/stop/restart
static char upnp_nic_address[UPNP_MAX_NICS][16];
static HTTP_server http_servers[UPNP_MAX_NICS];
static ssdp_server ssdp_servers[UPNP_MAX_NICS];   // as http_servers
// The live servers as other threads may see them, published by start and
// stop under nic_table_lock; nic_table is the copy handed to the host.
static nic_entry nic_live[UPNP_MAX_NICS];
static int32_t nic_live_count;
static nic_entry nic_table[UPNP_MAX_NICS];
static std::mutex nic_table_lock;

// adapter_list: read once per process, kept for its lifetime.
enum { ADAPTER_LIST_MAX = 99 };
static char adapter_list[ADAPTER_LIST_MAX][101];
static int32_t adapter_list_count;
static std::once_flag adapter_list_once;

static int64_t upnp_now()
{
    return int64_t(time(nullptr));
}


int32_t upnp_nic_get_count()
{
    return upnp_nic_count;
}

static void upnp_adapter_list_parse(const char* text, size_t size)
{
    size_t at = 0;
    while (at < size && adapter_list_count < ADAPTER_LIST_MAX) {
        size_t end = at;
        while (end < size && text[end] != '\n')
            end++;
        size_t word = at;
        while (word < end && (text[word] == ' ' || text[word] == '\t'))
            word++;
        size_t stop = word;
        while (stop < end && stop - at < 100 && text[stop] > ' ')
            stop++;
        if (stop > word) {
            memcpy(adapter_list[adapter_list_count], text + word, stop - word);
            adapter_list[adapter_list_count++][stop - word] = 0;
        }
        at = end + 1;
    }
}

// An optional list of adapter names beside the program; nothing else reads
// it in this version, but it is loaded as the program has always done.
static void upnp_adapter_list_load()
{
    char* dir = upnp_module_dir();
    if (!dir)
        return;
    const char* forms[] = {"%s/adapter_list", "%s/resources/adapter_list"};
    for (const char* form : forms) {
        char path[1100];
        snprintf(path, sizeof path, form, dir);
        if (FILE* f = fopen(path, "re")) {
            char text[ADAPTER_LIST_MAX * 101];
            size_t n = fread(text, 1, sizeof text, f);
            fclose(f);
            upnp_adapter_list_parse(text, n);
            break;
        }
    }
    free(dir);
}

static void upnp_nic_address_text(const struct ifaddrs* a, char* out)
{
    inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in*>(a->ifa_addr)->sin_addr, out, 16);
}

// The first IPv4 address of an adapter that is up and not loopback; further
// addresses of the same adapter do not make it a second interface.
static bool upnp_nic_usable(const struct ifaddrs* a, const struct ifaddrs* list)
{
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET || !(a->ifa_flags & IFF_UP) ||
        (a->ifa_flags & IFF_LOOPBACK))
        return false;
    char text[16];
    upnp_nic_address_text(a, text);
    if (strcmp(text, "0.0.0.0") == 0)
        return false;
    for (const struct ifaddrs* b = list; b != a; b = b->ifa_next)
        if (b->ifa_addr && b->ifa_addr->sa_family == AF_INET && strcmp(b->ifa_name, a->ifa_name) == 0)
            return false;
    return true;
}

// Usable interfaces: up, IPv4, not loopback, in the system's order. Option
// ip pins the server to exactly that one address.
int upnp_nic_enumerate(int32_t* count, char* addresses, int32_t max)
{
    std::call_once(adapter_list_once, upnp_adapter_list_load);
    *count = 0;
    if (const char* ip = upnp_ini_get_string(UPNP_OPT_IP); ip && *ip && max > 0) {
        snprintf(addresses, 16, "%s", ip);
        *count = 1;
        return 1;
    }
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return 0;
    for (struct ifaddrs* a = list; a && *count < max; a = a->ifa_next)
        if (upnp_nic_usable(a, list))
            upnp_nic_address_text(a, addresses + 16 * (*count)++);
    freeifaddrs(list);
    return 1;
}

// A page a host can open in a browser to reach the configuration pages.
static void upnp_write_config_redirect(int32_t index, const char* ip, int32_t port)
{
    char path[1100];
    const char* dir = upnp_ini_get_program_dir();
    if (index == 0)
        snprintf(path, sizeof path, "%s/velmora-config.html", dir ? dir : ".");
    else
        snprintf(path, sizeof path, "%s/velmora-config%d.html", dir ? dir : ".", index);
    FILE* f = fopen(path, "we");
    if (!f)
        return;
    fprintf(f, "<html><head><META http-equiv=\"refresh\" content=\"0; URL=http://%s:%d/setup.htm\">\n"
               "</head><body><a href=\"http://%s:%d/setup.htm\">Velmora MediaServer configuration</a></body></html>\n",
            ip, port, ip, port);
    fclose(f);
}

static void upnp_nic_publish(int32_t count)
{
    std::lock_guard<std::mutex> hold(nic_table_lock);
    nic_live_count = 0;
    for (int32_t i = 0; i < count; i++) {
        memcpy(nic_live[i].ip, http_servers[i].ip, sizeof nic_live[i].ip);
        nic_live[i].port = http_servers[i].port;
        nic_live_count++;
    }
}

uint32_t upnp_nic_table(nic_entry** out)
{
    std::lock_guard<std::mutex> hold(nic_table_lock);
    memcpy(nic_table, nic_live, sizeof nic_table);
    if (out)
        *out = nic_table;
    return uint32_t(nic_live_count);
}

int upnp_nic_is_local(const char* ip)
{
    std::lock_guard<std::mutex> hold(nic_table_lock);
    for (int32_t i = 0; ip && i < nic_live_count; i++)
        if (strcmp(nic_live[i].ip, ip) == 0)
            return 1;
    return 0;
}

// Each listening socket hears the group on its own interface only, so the
// per-interface threads stay as they are on every platform.
static void upnp_server_start_ssdp(ssdp_server* ssdp)
{
    if (ssdp_open_sockets(ssdp)) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "SSDP Server starting at %s:%d\n", ssdp->http->ip, SSDP_PORT);
    } else {
        if (ssdp->send_socket < 0)
            upnp_log(UPNP_LOG_CRITICAL, UPNP_LOG_SYSTEM, "Error while binding to SSDP multicast sending socket: \n");
        if (ssdp->listen_socket < 0)
            upnp_log(UPNP_LOG_CRITICAL, UPNP_LOG_SYSTEM, "Error while binding to SSDP multicast listening socket: \n");
        if (ssdp->msearch_socket < 0)
            upnp_log(UPNP_LOG_CRITICAL, UPNP_LOG_SYSTEM, "Error while binding to SSDP multicast msearching socket:\n");
    }
    ssdp_thread_spawn(SSDP_listen, ssdp, 0);
    ssdp_thread_spawn(SSDP_heartbeat, ssdp, -2);
}

static void upnp_server_start_one(int32_t i)
{
    HTTP_server* server = &http_servers[i];
    server->socket = -1;
    server->port = 0;
    server->second_port = 0;
    memcpy(server->ip, upnp_nic_address[i], sizeof server->ip);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "server interface %s\n", server->ip);
    HTTP_listen(server);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "HTTP Server starting at %s:%d\n", server->ip, server->port);
    HTTP_accept_start(server);
    upnp_write_config_redirect(i, server->ip, server->port);
    ssdp_server_clear(&ssdp_servers[i], server);
    if (upnp_switches.ssdp_enabled && strcmp(server->ip, "127.0.0.1") != 0)
        upnp_server_start_ssdp(&ssdp_servers[i]);
}

static void upnp_server_start_all()
{
    int32_t count = 0;
    upnp_nic_enumerate(&count, &upnp_nic_address[0][0], UPNP_MAX_NICS);
    upnp_nic_count = count;
    if (count == 0)
        return;
    upnp_server_set_status(1);
    for (int32_t i = 0; i < count; i++)
        upnp_server_start_one(i);
    upnp_get_mac_reset();
    upnp_nic_publish(count);
}

// Shut the listeners down first and close them only when every accept
// thread has left: a descriptor closed under a running accept could be
// reused by the next start and accepted on by the old thread.
static void upnp_server_stop_all()
{
    upnp_server_set_status(-1);
    usleep(200 * 1000);
    for (int32_t i = 0; i < upnp_nic_count; i++) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "Server stopping at %s\n", http_servers[i].ip);
        if (http_servers[i].socket >= 0)
            upnp_socket_shutdown(http_servers[i].socket);
        ssdp_shutdown_sockets(&ssdp_servers[i]);
    }
    for (int waited = 0; HTTP_accept_count() > 0 && waited < 2000; waited += 10)
        usleep(10 * 1000);
    // The heartbeats send their byebye bursts on the way out.
    for (int waited = 0; ssdp_thread_count() > 0 && waited < 2000; waited += 10)
        usleep(10 * 1000);
    for (int32_t i = 0; i < upnp_nic_count; i++)
        ssdp_close_sockets(&ssdp_servers[i]);
    for (int32_t i = 0; i < upnp_nic_count; i++)
        if (http_servers[i].socket >= 0) {
            upnp_socket_close(http_servers[i].socket);
            http_servers[i].socket = -1;
        }
    // Connection threads may sit in a receive of an idle keep-alive
    // connection or in a send to a peer that stopped reading.
    HTTP_connections_shutdown();
    for (int waited = 0; HTTP_connection_count() > 0 && waited < 1000; waited += 10)
        usleep(10 * 1000);
    upnp_nic_publish(0);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "Server terminated\n");
    usleep(200 * 1000);
    upnp_server_set_status(0);
}

static void upnp_server_restart()
{
    std::lock_guard<std::recursive_mutex> hold(server_lock);
    if (upnp_stop_requested)
        return;
    upnp_server_stop_all();
    usleep(500 * 1000);
    upnp_server_start_all();
}

void upnp_nic_request_change()
{
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "NIC change triggered. All server will be restarted.. \n");
    nic_change_requested = 1;
}

// Whether the usable addresses differ from the running ones, as sets.
static int upnp_nic_changed(int32_t count, char found[][16])
{
    if (count == 0) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "Server restarting due to all NICs removed\n");
        return 1;
    }
    if (count != upnp_nic_count)
        return 1;
    for (int32_t i = 0; i < count; i++) {
        int in_new = 0, in_running = 0;
        for (int32_t k = 0; k < count; k++) {
            in_new |= strcmp(upnp_nic_address[i], found[k]) == 0;
            in_running |= strcmp(found[i], upnp_nic_address[k]) == 0;
        }
        if (!in_new || !in_running)
            return 1;
    }
    return 0;
}

static void upnp_nic_check(int64_t now)
{
    if (!nic_change_requested) {
        if (!upnp_ini_get_int(UPNP_OPT_NICRESTART))
            return;
        int32_t every = upnp_ini_get_int(UPNP_OPT_NICCHECKTIME);
        if (every < 1) {
            every = 5;
            upnp_ini_set(UPNP_OPT_NICCHECKTIME, "5");
            upnp_ini_file_write();
        }
        if (now - nic_last_check < every)
            return;
        nic_last_check = now;
        char found[UPNP_MAX_NICS][16];
        int32_t count = 0;
        upnp_nic_enumerate(&count, &found[0][0], UPNP_MAX_NICS);
        if (!upnp_nic_changed(count, found))
            return;
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "Server restarting due to NIC changes\n");
    nic_change_requested = 0;
    upnp_file_event(UPNP_EVENT_NIC_RESTART, nullptr);
    upnp_server_restart();
}

// The server records change under server_lock, and a stop may be under way
// already when the scheduler first runs.
static void upnp_server_start_msearch_all()
{
    std::lock_guard<std::recursive_mutex> hold(server_lock);
    if (upnp_stop_requested)
        return;
    for (int32_t i = 0; i < upnp_nic_count; i++)
        if (ssdp_servers[i].msearch_socket >= 0)
            ssdp_thread_spawn(upnp_server_startMSearch, &ssdp_servers[i], 0);
}

static void upnp_mediaserver_scheduler(void*)
{
    upnp_thread_set_name("upnp_mediaserver_scheduler");
    upnp_server_start_msearch_all();
    while (upnp_is_running()) {
        upnp_sleep_while_running(1000);
        int64_t now = upnp_now();
        if (!upnp_is_running())
            break;
        upnp_nic_check(now);
        db_event_check(now);
    }
}

struct upnp_route {
    const char* url;                // null: every URL
    int32_t methods;
    int32_t want_body;
    HTTP_handler_function run;
};

// The method sets of the routes: pages and files are read, the pages with
// forms also take a POST.
static constexpr int32_t ROUTE_READ = HTTP_METHOD_GET | HTTP_METHOD_HEAD;
static constexpr int32_t ROUTE_FORM = HTTP_METHOD_GET | HTTP_METHOD_HEAD | HTTP_METHOD_POST;

// The first entry that fits wins, so the order matters. Routes whose
// handlers are not built yet answer with the 404 page.
static const upnp_route upnp_routes[] = {
    {"/DeviceDescription.xml", ROUTE_READ, 0, upnp_send_device_description},
    {"/ConnectionManager.xml", ROUTE_READ, 0, upnp_send_cms_xml},
    {"/ConnectionManager/Control", HTTP_METHOD_POST, 1, upnp_soap_dispatch},
    {"/ContentDirectory.xml", ROUTE_READ, 0, upnp_send_cds_xml},
    {"/ContentDirectory/Control", HTTP_METHOD_POST, 1, upnp_soap_dispatch},
    {"/MediaReceiverRegistrar.xml", ROUTE_READ, 0, upnp_send_msreg_xml},
    {"/MediaReceiverRegistrar/Control", HTTP_METHOD_POST, 1, upnp_soap_dispatch},
    {nullptr, HTTP_METHOD_SUBSCRIBE, 1, HTTP_send_file_not_found},
    {nullptr, HTTP_METHOD_UNSUBSCRIBE, 1, HTTP_send_file_not_found},
    {"/disk", ROUTE_READ, 0, HTTP_send_file},
    {"/albumart", ROUTE_READ, 0, HTTP_send_file_not_found},
    {"/configpage", ROUTE_FORM, 1, HTTP_send_file_not_found},
    {"/setup", ROUTE_FORM, 1, HTTP_send_file_not_found},
    {"/index", ROUTE_FORM, 1, HTTP_send_file_not_found},
    {"/images", ROUTE_FORM, 1, upnp_send_device_icon},
    {"/MediaBrowser", ROUTE_FORM, 1, HTTP_send_file_not_found},
    {"/cgi-bin", ROUTE_FORM, 1, HTTP_send_file_not_found},
    {"/subtitle", HTTP_METHOD_GET, 0, HTTP_send_file_not_found},
    {"/createobject", ROUTE_FORM, 0, HTTP_send_file_not_found},
};

static void upnp_register_routes()
{
    for (const upnp_route& route : upnp_routes) {
        HTTP_register_handler(route.run, route.methods, route.url, route.want_body);
        if (route.url && strcmp(route.url, "/MediaBrowser") == 0) {
            HTTP_set_default_page("/configpage");
            if (upnp_ini_get_int(UPNP_OPT_STARTUPMB))
                HTTP_set_default_page("/MediaBrowser.html");
        }
    }
    if (upnp_switches.rpc_enabled)
        HTTP_register_handler(HTTP_send_file_not_found, HTTP_METHOD_GET | HTTP_METHOD_POST, "/rpc", 1);
}

// A public page whose text shows the caller's address; its title is
// followed by the address in the body.
static const char UPNP_EXTERNAL_ADDRESS_URL[] = "http://checkip.dyndns.org/";
static char upnp_external_address[20];   // written at start only

int upnp_external_address_parse(const char* page, char* out, size_t size)
{
    if (!out || size == 0)
        return 0;
    out[0] = 0;
    const char* at = page ? strstr(page, "<TITLE>") : nullptr;
    if (page && !at)
        at = strstr(page, "<title>");
    if (!at)
        return 0;
    while (*at && (*at < '0' || *at > '9'))
        at++;
    size_t n = 0;
    while (n + 1 < size && ((at[n] >= '0' && at[n] <= '9') || at[n] == '.'))
        n++;
    memcpy(out, at, n);
    out[n] = 0;
    return n > 0;
}

const char* upnp_get_external_address()
{
    return upnp_external_address;
}

// Only clients flagged as reaching the server from outside need it, and
// only users who asked for it (enableweb 3 or more) pay the start-up wait.
static void upnp_lookup_external_address()
{
    upnp_external_address[0] = 0;
    upnp_string* page = HTTP_get(UPNP_EXTERNAL_ADDRESS_URL);
    if (page)
        upnp_external_address_parse(page->text, upnp_external_address, sizeof upnp_external_address);
    upnp_string_free(page);
}

// The lower floors ask the upper ones through these functions, so that
// each floor includes only the ones below it.
void upnp_mediaserver_hand_down()
{
    upnp_ini_set_folders_hook(upnp_filescan_request_reload);
    db_file_set_rescan_request(upnp_filescan_request_rescan);
    db_set_art_resolver(upnp_albumart_resolve);
    db_set_client_flag_probe(HTTP_request_has_flag);
    db_set_tree_rules(db_tree_attach);
    upnp_client_set_local_test(upnp_nic_is_local);
    upnp_cds_set_external_address(upnp_get_external_address);
}

// Brings up the subsystems that the servers need: routes, store, client
// database, database files, root tree, as each of them is built.
static void upnp_mediaserver_register()
{
    if (upnp_ini_get_int(UPNP_OPT_ENABLEWEB) >= 3)
        upnp_lookup_external_address();
    upnp_register_routes();
    if (upnp_switches.ssdp_enabled) {
        ssdp_set_server_advertising();
        ssdp_register_handler(ssdp_search_handler, "M-Search");
    }
    if (upnp_switches.scanner_enabled)
        upnp_filescan_queue_init();
    upnp_mediaserver_hand_down();
    db_create();
    upnp_client_db_load();
    db_file_open();
    db_build_root();
}

static void upnp_mediaserver_release()
{
    // The scanner may be inside a reader that writes to the store: it is
    // waited for before the store goes.
    if (upnp_switches.scanner_enabled)
        upnp_filescan_queue_term();
    upnp_filescan_clear_ticks();
    db_set_client_flag_probe(nullptr);
    ssdp_clear_handlers();
    upnp_cds_forget_views();
    db_destroy();
    upnp_client_db_free();
    db_file_close();
    HTTP_clear_handlers();
}

void upnp_mediaserver_start()
{
    std::lock_guard<std::recursive_mutex> hold(server_lock);
    upnp_stop_requested = 0;
    upnp_start_time_set(upnp_now());
    upnp_mediaserver_register();
    upnp_set_running(1);
    upnp_server_start_all();
    if (upnp_switches.scheduler_enabled)
        upnp_thread_spawn(upnp_mediaserver_scheduler, nullptr, 0);
    if (upnp_switches.scanner_enabled && !upnp_filescan_start())
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_SYSTEM, "filescanner thread could not be started\n");
}

// Every thread of the library has left when this returns (bounded), so
// that a host may unload the library or start again at once.
void upnp_mediaserver_stop()
{
    upnp_stop_requested = 1;
    {
        std::lock_guard<std::recursive_mutex> hold(server_lock);
        upnp_server_stop_all();
        upnp_set_running(0);
        upnp_mediaserver_release();
    }
    if (!upnp_thread_wait_idle(3000))
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "%d threads still running after stop\n", upnp_thread_count());
}

int64_t upnp_mediaserver_start_time()
{
    return upnp_start_time_get();
}
