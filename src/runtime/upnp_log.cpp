// upnp_log.cpp: the logger. Owns the two masks, the stream and its name.
// A message is formatted once, then written to the stream (file or standard
// output) as prefix, level tag, channel tag and text, flushed, and echoed to
// standard output. No lock of its own: the C library's stream lock keeps
// each piece whole, and the masks are plain words read by every thread.
#include "runtime/upnp_log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <mutex>

static std::atomic<uint32_t> log_channels{0};
static std::atomic<uint32_t> log_levels{15};
static FILE* log_stream;              // null: standard output; guarded by log_file_lock
static char log_path[1024];           // guarded by log_file_lock
// Opening and closing the file races with writers on other threads; the
// lock only spans the pointer handling, never a wait on anything else.
static std::mutex log_file_lock;

struct log_tag { uint32_t bit; const char* tag; };

static constexpr log_tag log_level_tags[] = {
    {UPNP_LOG_PROBLEM, "[Problem]"},
    {UPNP_LOG_ERROR, "[ERROR]"},
};

static constexpr log_tag log_channel_tags[] = {
    {UPNP_LOG_SYSTEM, "SYSTEM:"},    {UPNP_LOG_SSDP, "SSDP:"},     {UPNP_LOG_DB, "DB:"},
    {UPNP_LOG_HTTP, "HTTP:"},        {UPNP_LOG_CLIENT_DB, "CLIENT-DB:"},
    {UPNP_LOG_EVENTING, "EVENTING:"}, {UPNP_LOG_XML, "XML:"},      {UPNP_LOG_PLUGIN, "PLUGIN:"},
    {UPNP_LOG_SCAN, "SCAN:"},        {UPNP_LOG_APP, "APP:"},       {UPNP_LOG_DAPI, "DAPI:"},
};

// Only a single bit earns a tag; info, critical and combined bits get none.
static const char* log_find_tag(const log_tag* table, size_t count, uint32_t bit)
{
    for (size_t i = 0; i < count; i++)
        if (table[i].bit == bit)
            return table[i].tag;
    return "";
}

static bool log_enabled(uint32_t level, uint32_t channel)
{
    uint32_t channels = log_channels.load(std::memory_order_relaxed);
    uint32_t levels = log_levels.load(std::memory_order_relaxed);
    return channels != 0 && (channels & channel) == channel && levels != 0 && (levels & level) == level;
}

void upnp_log(uint32_t level, uint32_t channel, const char* format, ...)
{
    if (!format || !log_enabled(level, channel))
        return;
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);

    char message[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);

    if (level == UPNP_LOG_CRITICAL)
        printf("!!! CRITICAL ERROR!!!\n%s\n", message);

    char prefix[64];
    snprintf(prefix, sizeof prefix, "dlna DMS(%d%d%d %d:%d:%d)", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    const char* level_tag = log_find_tag(log_level_tags, std::size(log_level_tags), level);
    const char* channel_tag = log_find_tag(log_channel_tags, std::size(log_channel_tags), channel);
    {
        std::lock_guard<std::mutex> hold(log_file_lock);
        if (log_stream) {
            fprintf(log_stream, "%s%s%s%s", prefix, level_tag, channel_tag, message);
            fflush(log_stream);
        }
    }
    printf("%s%s%s%s", prefix, level_tag, channel_tag, message);
    fflush(stdout);
}

void upnp_log_init(const char* path)
{
    std::lock_guard<std::mutex> hold(log_file_lock);
    log_path[0] = 0;
    if (log_stream)
        fclose(log_stream);
    log_stream = nullptr;
    if (!path)
        return;
    snprintf(log_path, sizeof log_path, "%s", path);
    log_stream = fopen(path, "a+e");
    if (log_stream) {
        fputs("***** LOG INIT *****\n", log_stream);
        fflush(log_stream);
    }
}

void upnp_log_clear()
{
    std::lock_guard<std::mutex> hold(log_file_lock);
    if (!log_path[0])
        return;
    if (log_stream)
        fclose(log_stream);
    log_stream = fopen(log_path, "we");
}

void upnp_log_close()
{
    std::lock_guard<std::mutex> hold(log_file_lock);
    if (!log_path[0])
        return;
    if (log_stream)
        fclose(log_stream);
    log_stream = nullptr;
}

const char* upnp_log_get_path()
{
    return log_path[0] ? log_path : nullptr;
}

void upnp_log_set_mode(uint32_t channels)
{
    log_channels = channels;
}

void upnp_log_set_level(uint32_t levels)
{
    log_levels = levels;
}

int upnp_log_channel_enabled(uint32_t channels)
{
    return (log_channels.load() & channels) == channels ? 1 : 0;
}
