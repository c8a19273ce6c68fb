// ssdp_client.cpp: detection of a device from its announcement. A renderer
// that announces itself is asked for its device description, and the first
// client entry whose DD: text occurs in it names the device's client number.
// The fetch runs on a short thread of its own, only from the address that
// sent the announcement, with a timeout and a size cap; the client table
// itself never touches the network.
#include "upnp/ssdp.h"

#include "config/upnp_client.h"
#include "http/http_client.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_string.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

static const size_t CLIENT_URL_MAX = 1023;
static const HTTP_client_limits CLIENT_FETCH_LIMITS = {3000, 5000, 64 * 1024};

struct client_check_job {
    char* url;
    char source[UPNP_IP_TEXT_SIZE];
};

// A renderer announces each of its services in a burst of NOTIFYs, and a
// flood of them must not become a flood of threads: one check per address
// at a time, and at most CLIENT_CHECKS_MAX at once.
static const int CLIENT_CHECKS_MAX = 16;
static std::mutex client_checks_lock;
static char client_checks[CLIENT_CHECKS_MAX][UPNP_IP_TEXT_SIZE];

static int client_check_claim(const char* source)
{
    std::lock_guard<std::mutex> hold(client_checks_lock);
    char* free_slot = nullptr;
    for (char* slot : client_checks) {
        if (strcmp(slot, source) == 0)
            return 0;
        if (!*slot && !free_slot)
            free_slot = slot;
    }
    if (free_slot)
        snprintf(free_slot, UPNP_IP_TEXT_SIZE, "%s", source);
    return free_slot != nullptr;
}

static void client_check_release(const char* source)
{
    std::lock_guard<std::mutex> hold(client_checks_lock);
    for (char* slot : client_checks)
        if (strcmp(slot, source) == 0)
            slot[0] = 0;
}

// The announcement's own address must be the URL's host, so that nobody
// can make the server fetch from a third machine (or from itself).
static int client_url_is_source(const char* url, const char* host, const char* source)
{
    char target[256];
    int32_t port = 0;
    return strcmp(host, source) == 0 && HTTP_url_target(url, target, sizeof target, &port) &&
           strcmp(target, source) == 0;
}

static void client_check_run(char* url, const char* source)
{
    if (strlen(url) < 7)
        return;
    char host[20];
    snprintf(host, sizeof host, "%s", url + 7);
    host[strcspn(host, ":/")] = 0;
    for (char* p = url; *p; p++)
        if (uint8_t(*p) <= 32) {
            *p = 0;
            break;
        }
    if (!client_url_is_source(url, host, source)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_CLIENT_DB, "description %s not fetched: announced by %s\n", url, source);
        return;
    }
    int32_t current = upnp_client_get_id(host);
    if (current >= 3 && !upnp_client_has_flag(current, "DB:AUTO"))
        return;    // numbers 1 and 2 are general kinds that a better match may replace
    upnp_string* reply = HTTP_talk_limited(HTTP_KIND_GET, url, nullptr, nullptr, &CLIENT_FETCH_LIMITS);
    if (!reply) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_CLIENT_DB, "no description from %s\n", url);
        return;
    }
    int32_t number = upnp_client_match_description(reply->text, size_t(reply->length));
    upnp_string_free(reply);
    if (number >= 0)
        upnp_client_set(host, number);
}

static void upnp_client_db_check_client(void* argument)
{
    client_check_job* job = static_cast<client_check_job*>(argument);
    upnp_thread_set_name("client_check");
    client_check_run(job->url, job->source);
    client_check_release(job->source);
    free(job->url);
    free(job);
}

int upnp_client_check(const char* text, const char* source_ip)
{
    if (!text || !upnp_client_ip_ok(source_ip))
        return 0;
    if (!client_check_claim(source_ip)) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_CLIENT_DB, "client check for %s not started: one is running\n", source_ip);
        return 0;
    }
    client_check_job* job = static_cast<client_check_job*>(calloc(1, sizeof(client_check_job)));
    if (job && (job->url = strndup(text, CLIENT_URL_MAX))) {
        snprintf(job->source, sizeof job->source, "%s", source_ip);
        if (upnp_thread_spawn(upnp_client_db_check_client, job, 0))
            return 1;
        free(job->url);
    }
    free(job);
    client_check_release(source_ip);
    return 0;
}
