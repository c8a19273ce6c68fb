// upnp_run.cpp: the switches, run flags and event gate of upnp_run.h. The
// flags and the sink are atomics: every thread polls them without a lock,
// and only control writes them.
#include "runtime/upnp_run.h"

#include <atomic>
#include <ctime>
#include <unistd.h>

upnp_switch_set upnp_switches = {
    1,   // ssdp_enabled
    1,   // cgi_enabled
    1,   // scanner_enabled
    1,   // eventing_enabled
    1,   // scheduler_enabled
    1,   // rpc_enabled
    1,   // full_mode
    1,   // tree_flat
    0,   // document_root
    1,   // callback_enabled
    0,   // oid_seed
    0,   // unused
};

static std::atomic<int32_t> run_server_status;
static std::atomic<int32_t> run_running;
static std::atomic<upnp_event_sink> run_event_sink;
static std::atomic<int64_t> run_start_time;

int32_t upnp_server_get_status()
{
    return run_server_status.load();
}

void upnp_server_set_status(int32_t status)
{
    run_server_status = status;
}

int32_t upnp_is_running()
{
    return run_running.load();
}

void upnp_set_running(int32_t running)
{
    run_running = running;
}

int64_t upnp_clock_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void upnp_sleep_while_running(int32_t ms)
{
    for (int32_t slept = 0; slept < ms && upnp_is_running() == 1; slept += 50)
        usleep(50 * 1000);
}

int64_t upnp_start_time_get()
{
    return run_start_time.load();
}

void upnp_start_time_set(int64_t seconds)
{
    run_start_time = seconds;
}

void upnp_set_event_sink(upnp_event_sink sink)
{
    run_event_sink = sink;
}

void upnp_file_event(int32_t code, const char* text)
{
    upnp_event_sink sink = run_event_sink.load();
    if (upnp_switches.callback_enabled && sink)
        sink(code, text);
}
