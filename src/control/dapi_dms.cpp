// dapi_dms.cpp: the exported control API. Owns the remembered start
// arguments, the feature switches, the working folder and the host's
// callback; everything else lives in the modules it calls. The functions
// run on the host's threads; only start, stop and restart are serialised
// among themselves (host_lock), so that two host threads cannot interleave
// a start with a stop. Order of work: init sets the switches, reads the
// options from the working folder, opens the log and starts the services;
// terminate undoes that in reverse.
#include <velmora/dapi_dms.h>

#include "admin/upnp_plugins.h"
#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "control/upnp_mediaserver.h"
#include "database/db_file.h"
#include "database/db_object.h"
#include "database/db_tree.h"
#include "media/upnp_filescan.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"
#include "upnp/upnp_cds.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <unistd.h>

static int32_t start_mode;
static uint32_t start_flags;
static upnp_string* metadata_scratch;  // for one caller of dapi_dms_get_metadata at a time
static char work_dir[1024];
static int32_t work_dir_known;
static std::atomic<dapi_dms_callback> event_callback;
static std::recursive_mutex host_lock;

static const char DAPI_VERSION[] = VELMORA_VERSION;     // the build's project version

struct dapi_flag_rule { uint32_t bit; int32_t upnp_switch_set::*target; int32_t value; };

// Applied in this order after the mode.
static const dapi_flag_rule dapi_flag_rules[] = {
    {DAPI_FLAG_NO_SSDP, &upnp_switch_set::ssdp_enabled, 0},
    {DAPI_FLAG_NO_CGI, &upnp_switch_set::cgi_enabled, 0},
    {DAPI_FLAG_NO_SCANNER, &upnp_switch_set::scanner_enabled, 0},
    {DAPI_FLAG_NO_EVENTING, &upnp_switch_set::eventing_enabled, 0},
    {DAPI_FLAG_NO_SCHEDULER, &upnp_switch_set::scheduler_enabled, 0},
    {DAPI_FLAG_NO_RPC, &upnp_switch_set::rpc_enabled, 0},
    {DAPI_FLAG_NESTED_TREE, &upnp_switch_set::tree_flat, 0},
    {DAPI_FLAG_DOCUMENT_ROOT, &upnp_switch_set::document_root, 1},
    {DAPI_FLAG_NO_CALLBACK, &upnp_switch_set::callback_enabled, 0},
    {DAPI_FLAG_RESERVED, &upnp_switch_set::unused, 1},
};

static int32_t upnp_switch_set::*const dapi_mode_switches[] = {
    &upnp_switch_set::ssdp_enabled,      &upnp_switch_set::scanner_enabled, &upnp_switch_set::cgi_enabled,
    &upnp_switch_set::eventing_enabled,  &upnp_switch_set::scheduler_enabled, &upnp_switch_set::full_mode,
};

static void dapi_apply_mode(int32_t mode)
{
    if (mode != DAPI_MODE_FULL && mode != DAPI_MODE_SIMPLE)
        return;
    for (int32_t upnp_switch_set::*sw : dapi_mode_switches)
        upnp_switches.*sw = mode == DAPI_MODE_FULL ? 1 : 0;
    if (mode == DAPI_MODE_FULL) {
        upnp_switches.oid_seed = 0;
        return;
    }
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    upnp_switches.oid_seed = local.tm_hour * 10000 + local.tm_min * 100 + local.tm_sec;
    printf("oidseed : %d\n", upnp_switches.oid_seed);
}

static void dapi_apply_flags(uint32_t flags)
{
    for (const dapi_flag_rule& rule : dapi_flag_rules)
        if (flags & rule.bit)
            upnp_switches.*rule.target = rule.value;
}

// The working folder is read once per process: a host that changes its
// current directory later keeps its ini file and database where they were.
static const char* dapi_work_dir()
{
    if (!work_dir_known) {
        if (!getcwd(work_dir, sizeof work_dir))
            snprintf(work_dir, sizeof work_dir, ".");
        work_dir_known = 1;
    }
    return work_dir;
}

static void dapi_read_options()
{
    // The options live beside a program file that need not exist: its
    // folder gives the ini file and the default database folder.
    char argv0[1100];
    snprintf(argv0, sizeof argv0, "%s/VelmoraMediaServer.exe", dapi_work_dir());
    printf("%s\n", argv0);
    char* arguments[2] = {argv0, nullptr};
    upnp_ini_file_read_cmdline(1, arguments);
    printf("upnp_ini_file_read_cmdline\n");
}

int32_t dapi_dms_init(int32_t mode, uint32_t flags)
{
    std::lock_guard<std::recursive_mutex> hold(host_lock);
    start_mode = mode;
    start_flags = flags;
    if (upnp_server_get_status() != 0)
        return 0;
    if (!metadata_scratch && !(metadata_scratch = upnp_string_new(nullptr, 4096)))
        return 0;
    dapi_apply_mode(mode);
    dapi_apply_flags(flags);
    upnp_mediaserver_hand_down();
    dapi_read_options();
    if (flags & DAPI_FLAG_LOG) {
        char log_path[1100];
        snprintf(log_path, sizeof log_path, "%s/DMSLOG.txt", dapi_work_dir());
        upnp_log_init(log_path);
        upnp_log_set_mode(UPNP_LOG_ALL_CHANNELS);
        upnp_log_set_level(15);
    }
    printf("upnp_mediaserver_start\n");
    upnp_mediaserver_start();
    return 1;
}

int32_t dapi_dms_terminate(void)
{
    std::lock_guard<std::recursive_mutex> hold(host_lock);
    if (upnp_server_get_status() == 0)
        return 0;
    // The scratch string is cleared with its handle, so that a later start
    // makes a new one instead of reading freed memory.
    upnp_string_free(metadata_scratch);
    metadata_scratch = nullptr;
    upnp_mediaserver_stop();
    usleep(150 * 1000);
    upnp_process_kill_all();
    upnp_ini_release();
    upnp_log_close();
    usleep(150 * 1000);
    return 1;
}

int32_t dapi_dms_status(void)
{
    return upnp_server_get_status();
}

int32_t dapi_dms_restart(void)
{
    std::lock_guard<std::recursive_mutex> hold(host_lock);
    dapi_dms_terminate();
    dapi_dms_init(start_mode, start_flags);
    return 1;
}

int32_t dapi_dms_rebuild(void)
{
    db_file_request_reset();
    return dapi_dms_restart();
}

int32_t dapi_dms_reset(void)
{
    upnp_ini_file_restore_default();
    db_file_request_reset();
    dapi_dms_restart();
    return 0;
}

// A setter writes the ini file only when the value really changed.
static int32_t dapi_set_option(int32_t id, const char* value)
{
    if (!value)
        return 0;
    if (upnp_ini_set(id, value)) {
        upnp_ini_file_write();
        upnp_ini_note_change(id);
    }
    return 1;
}

int32_t dapi_dms_set_servername(const char* name)
{
    return dapi_set_option(UPNP_OPT_FRIENDLYNAME, name);
}

int32_t dapi_dms_get_servername(char** name)
{
    if (name)
        *name = const_cast<char*>(upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME));
    return 1;
}

int32_t dapi_dms_set_sharedfolder(const char* folders)
{
    return dapi_set_option(UPNP_OPT_CONTENTDIR, folders);
}

int32_t dapi_dms_get_sharedfolder(char** folders)
{
    if (folders)
        *folders = const_cast<char*>(upnp_ini_get_string(UPNP_OPT_CONTENTDIR));
    return 0;
}

int32_t dapi_dms_refresh_db(void)
{
    upnp_filescan_request_rescan();
    db_request_shadow_sweep();
    db_request_write();
    upnp_plugins_request();
    return 0;
}

// The caller's text holds a client entry that contains the whole value of
// option "clients"; the character behind the second '|' from the match is
// the entry's enable mark, and it is the caller's buffer that changes.
static int32_t dapi_mark_client(char* text, char mark)
{
    const char* clients = upnp_ini_get_string(UPNP_OPT_CLIENTS);
    if (!text || !clients || !*clients)
        return 0;
    char* at = strstr(text, clients);
    if (!at)
        return 0;
    char* bar = strchr(at, '|');
    if (bar)
        bar = strchr(bar + 1, '|');
    if (!bar || !bar[1])
        return 0;   // no room for the mark: never write over the terminator
    bar[1] = mark;
    return 1;
}

int32_t dapi_dms_allow_cp(char* text)
{
    return dapi_mark_client(text, '0');
}

int32_t dapi_dms_deny_cp(char* text)
{
    return dapi_mark_client(text, '1');
}

int32_t dapi_dms_get_clients(char** list)
{
    if (list)
        *list = upnp_client_names();
    return 1;
}

int32_t dapi_dms_resetclients(void)
{
    upnp_ini_set(UPNP_OPT_CLIENTS, "");
    upnp_ini_file_write();
    return 1;
}

int32_t dapi_dms_get_version(char** version)
{
    if (version)
        *version = const_cast<char*>(DAPI_VERSION);
    return 0;
}

int32_t dapi_dms_get_niclist(nic_entry** list, uint32_t* count)
{
    uint32_t n = upnp_nic_table(list);
    if (count)
        *count = n;
    return 1;
}

int32_t dapi_dms_nicchange(void)
{
    upnp_nic_request_change();
    return 1;
}

int32_t dapi_dms_get_udn(char** udn)
{
    if (udn)
        *udn = const_cast<char*>(upnp_get_udn(upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME)));
    return 1;
}

// The floors below name the host's event codes without its header.
static_assert(int(UPNP_EVENT_FILE_ADDED) == DAPI_EVENT_FILE_ADDED &&
              int(UPNP_EVENT_CLIENT_ADDED) == DAPI_EVENT_CLIENT_ADDED &&
              int(UPNP_EVENT_STREAM_STARTED) == DAPI_EVENT_STREAM_STARTED &&
              int(UPNP_EVENT_STREAM_FINISHED) == DAPI_EVENT_STREAM_FINISHED &&
              int(UPNP_EVENT_STREAM_FAILED) == DAPI_EVENT_STREAM_FAILED &&
              int(UPNP_EVENT_NIC_RESTART) == DAPI_EVENT_NIC_RESTART && int(UPNP_EVENT_SCAN) == DAPI_EVENT_SCAN);

static void dapi_event_sink(int32_t code, const char* text)
{
    if (dapi_dms_callback callback = event_callback.load())
        callback(code, text);
}

int32_t dapi_dms_register_callback(dapi_dms_callback callback)
{
    event_callback = callback;
    upnp_set_event_sink(dapi_event_sink);
    return 0;
}

int32_t dapi_dms_get_streaming(void)
{
    return 0;
}

// Stopping a single transfer is not offered by this version: the request is
// copied and dropped, and no connection is touched.
int32_t dapi_dms_stop_streaming(const dapi_dms_stop_request* request)
{
    if (!request)
        return 0;
    char* texts[5];
    for (int i = 0; i < 5; i++)
        texts[i] = request->text[i] ? strdup(request->text[i]) : nullptr;
    for (char* t : texts)
        free(t);
    return 0;
}

int32_t dapi_dms_add_file(const char* path)
{
    if (!path)
        return 0;
    upnp_filescan_add_file(path, 'A', 0, 0, 0);
    return upnp_cds_db_file_get_id_by_res(path) != 0 ? 1 : 0;
}

int32_t dapi_dms_remove_file(const char* path)
{
    return path ? db_object_remove(path) : 0;
}

struct dapi_policy_bit { uint8_t bit; int32_t type; };

static const dapi_policy_bit dapi_policy_bits[] = {
    {0x01, DB_OBJ_PHOTO},
    {0x02, DB_OBJ_VIDEO},
    {0x04, DB_OBJ_AUDIO},
    {0x08, DB_OBJ_DOCUMENT},
};

int32_t dapi_dms_set_browsing_policy(uint8_t mask, uint32_t visible)
{
    int32_t result = 0;
    for (const dapi_policy_bit& p : dapi_policy_bits)
        if (mask & p.bit)
            result = db_set_browsing_policy(p.type, visible);
    // Hosts read the result as that of the document bit alone.
    return (mask & 0x08) ? result : 0;
}

// Each passed step of dapi_dms_get_metadata leaves a trace on standard
// output; a failed one logs its own message and ends the call.
static int32_t dapi_metadata_fail(const char* message)
{
    upnp_log(UPNP_LOG_ERROR, UPNP_LOG_DAPI, "dapi_dms_get_metadata : %s\n", message);
    return 0;
}

static void dapi_metadata_trace(const char* step)
{
    printf("dapi_dms_get_metadata : %s\n", step);
}

static void dapi_metadata_open_didl(upnp_string* s)
{
    upnp_string_append(s, "&lt;DIDL-Lite xmlns:dc=&quot;http://purl.org/dc/elements/1.1/&quot; ");
    upnp_string_append(s, "xmlns:upnp=&quot;urn:schemas-upnp-org:metadata-1-0/upnp/&quot; ");
    upnp_string_append(s, "xmlns:dlna=&quot;urn:schemas-dlna-org:metadata-1-0&quot; ");
    upnp_string_append(s, "xmlns=&quot;urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/&quot; ");
    upnp_string_append(s, UPNP_DIDL_VEL_DECLARATION);
    upnp_string_append(s, "&gt;");
}

// Cuts the resource URL out of the DIDL text, in place: the text behind
// "http-get", from "http:" to the next ';', from the disk URL of this server
// to the next '&'. The DIDL text is damaged from that point on.
static char* dapi_metadata_cut_url(char* didl, const char* base_url)
{
    char* p = strstr(didl, "http-get");
    if (!p)
        return dapi_metadata_fail("p_http_get NULL!"), nullptr;
    dapi_metadata_trace("p_http_get");
    p = strstr(p, "http:");
    if (!p)
        return dapi_metadata_fail("p_http NULL!"), nullptr;
    dapi_metadata_trace("p_http");
    char* token = strtok_r(p, ";", &p);
    if (!token)
        return dapi_metadata_fail("p_token NULL!"), nullptr;
    dapi_metadata_trace("p_token");
    char disk[1100];
    snprintf(disk, sizeof disk, "%sdisk", base_url);
    char* url = strstr(token, disk);
    if (!url)
        return dapi_metadata_fail("p_url NULL!"), nullptr;
    dapi_metadata_trace("p_url");
    char* amp = strchr(url, '&');
    if (!amp)
        return dapi_metadata_fail("p_and NULL!"), nullptr;
    *amp = 0;
    dapi_metadata_trace("p_and");
    return url;
}

// The client number whose clients.db entry shapes the host's DIDL text.
static const int32_t DAPI_METADATA_CLIENT = 40;

int32_t dapi_dms_get_metadata(const char* path, const char* host, int32_t port, char** url, char** didl)
{
    if (!path)
        return dapi_metadata_fail("filepath null!");
    dapi_metadata_trace("filepath");
    uint32_t id = upnp_cds_db_file_get_id_by_res(path);
    if (!id)
        return dapi_metadata_fail("itemID null!");
    dapi_metadata_trace("itemID");
    // The object is read until its text is made: a change meanwhile could free it.
    db_lock_guard hold;
    db_object* object = db_get_pItem_by_id(id);
    if (!object)
        return dapi_metadata_fail("object null!");
    dapi_metadata_trace("object");
    if (!metadata_scratch && !(metadata_scratch = upnp_string_new(nullptr, 4096)))
        return 0;
    char address[300], base_url[320];
    snprintf(address, sizeof address, "%s:%d", host ? host : "", port);
    snprintf(base_url, sizeof base_url, "http://%s/", address);
    upnp_string_empty(metadata_scratch);
    dapi_metadata_open_didl(metadata_scratch);
    size_t opening = size_t(metadata_scratch->length);
    metadata_scratch = upnp_cds_object_didl(metadata_scratch, object, base_url, DAPI_METADATA_CLIENT);
    if (size_t(metadata_scratch->length) == opening)
        return dapi_metadata_fail("Get Metadata Failed!");
    if (didl)
        *didl = metadata_scratch->text;
    dapi_metadata_trace("didl");
    char* found = dapi_metadata_cut_url(metadata_scratch->text, base_url);
    if (!found)
        return 0;
    if (url)
        *url = found;
    return 1;
}
