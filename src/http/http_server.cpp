// http_server.cpp: the listening side of the HTTP server. HTTP_listen binds
// one socket per interface, stepping upward from the configured port when
// it is busy; HTTP_accept runs on its own thread per interface until the
// server status leaves 1. Request handling is not built yet: an accepted
// connection is closed at once.
#include "http/http_server.h"

#include "config/upnp_ini.h"
#include "control/upnp_log.h"
#include "control/upnp_mediaserver.h"
#include "runtime/upnp_os.h"

#include <atomic>
#include <cstring>
#include <ctime>
#include <unistd.h>

static std::atomic<int32_t> http_accept_threads;

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
        if (s >= 0)
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
