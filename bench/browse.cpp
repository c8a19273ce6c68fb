// browse: what a Browse costs over HTTP as one container grows. For each
// size (default 6500 100000 1000000 tracks) a child process starts the
// library's server in-process with its real routes, on 127.0.0.1 and a free
// port, fills the store through its own calls with that many tracks, which
// the flat tree keeps in one container (the music root is its own "All"),
// and measures over loopback:
//
//   1. a page of 50 at a random offset sorted by title ("+dc:title"), one
//      request at a time on one keep-alive connection: p50 and p99 over
//      1,000 requests (fewer when they take over a minute in all), and the
//      p50 of the same pages in the container's own order;
//   2. the whole container in one reply: its size, time and MB/s;
//   3. requests per second for sorted pages of 50 with wrk and
//      bench/browse.lua at 1, 8 and 32 connections, beside the share of
//      one core that the server used meanwhile (wrk takes its own).
//
// The tracks carry the tags and stream fields of a scanned MP3. Their
// records go to a record store that keeps nothing, as in bench/store.cpp:
// Browse reads only what memory holds.
//
// The aims: a page under 1 ms at the median, growing at most 2-fold from
// the smallest size to the largest; requests per second rising with the
// connections; the whole container streaming at more than 50 MB/s.
//
// Usage: browse [--wrk-seconds N] [tracks...]   (bench/browse.sh builds and runs it)
#include "bench_child.h"
#include "config/upnp_ini.h"
#include "control/upnp_mediaserver.h"
#include "database/db_object.h"
#include "http/http_server.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <velmora/dapi_dms.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

static double bench_now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// ---- The store ---------------------------------------------------------------

static uint32_t bench_next_block;

static uint32_t bench_store(const char*, int32_t) { return ++bench_next_block; }
static int bench_rewrite(uint32_t, const db_object*, const char*) { return 1; }
static void bench_free_chain(uint32_t) {}
static char* bench_read_path(uint32_t, int32_t*) { return nullptr; }

static bool bench_fill(long tracks)
{
    static const db_record_store nothing = {bench_store, bench_rewrite, bench_free_chain, bench_read_path};
    db_set_record_store(&nothing);
    for (long i = 0; i < tracks; i++) {
        long album = (i * 7919) % 10000;
        char path[160], title[48], artist[32], album_name[32], genre[32], date[16], track[8], size[24];
        char duration[24];
        snprintf(path, sizeof path, "/srv/media/music/Artist %04ld/Album %05ld/%02ld Track %07ld.mp3", album % 2000,
                 album, i % 14 + 1, i);
        // Titles in no relation to the order of the adds, as in a real scan.
        snprintf(title, sizeof title, "Song %07ld", i * 7777777 % 9999991);
        snprintf(artist, sizeof artist, "Artist %04ld", album % 2000);
        snprintf(album_name, sizeof album_name, "Album %05ld", album);
        snprintf(genre, sizeof genre, "Genre %02ld", album % 60);
        snprintf(date, sizeof date, "%04ld-%02ld-01", 1960 + album % 60, i % 12 + 1);
        snprintf(track, sizeof track, "%ld", i % 14 + 1);
        snprintf(size, sizeof size, "%ld", 3000000 + (i * 37) % 9000000);
        snprintf(duration, sizeof duration, "0:%02ld:%02ld.000", 2 + i % 6, i % 60);
        const std::pair<int32_t, const char*> tags[] = {
            {DBK_TITLE, title}, {DBK_ARTIST, artist}, {DBK_ALBUM, album_name}, {DBK_GENRE, genre},
            {DBK_DATE, date}, {DBK_TRACK, track}, {DBK_SIZE_TEXT, size}, {DBK_DURATION, duration},
            {DBK_BITRATE, "320000"}, {DBK_SAMPLE_RATE, "44100"}, {DBK_CHANNELS, "2"}, {DBK_EXTENSION, "mp3"},
            {DBK_DLNA_PROFILE, "MP3"}, {DBK_SOURCE_KIND, "d"},
        };
        db_meta_list* list = nullptr;
        for (const auto& [key, value] : tags)
            list = db_meta_list_add(list, key, value, 0);
        bool added = db_object_add(list, path, DB_OBJ_AUDIO, 0, "x", 1) != nullptr;
        db_meta_list_free(list);
        if (!added)
            return false;
    }
    return db_container_child_count(db_music_root) == tracks;
}

// ---- One client ----------------------------------------------------------------

static int bench_port;
static std::string bench_container;        // the id text of the one container

static std::string bench_body(long start, long count, const char* sort)
{
    char body[1024];
    snprintf(body, sizeof body,
             "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
             "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:Browse "
             "xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\"><ObjectID>%s</ObjectID><BrowseFlag>"
             "BrowseDirectChildren</BrowseFlag><Filter>*</Filter><StartingIndex>%ld</StartingIndex><RequestedCount>"
             "%ld</RequestedCount><SortCriteria>%s</SortCriteria></u:Browse></s:Body></s:Envelope>",
             bench_container.c_str(), start, count, sort);
    return body;
}

static std::string bench_request(long start, long count, const char* sort)
{
    std::string body = bench_body(start, count, sort);
    return "POST /ContentDirectory/Control HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml; charset=\"utf-8\"\r\n"
           "SOAPACTION: \"urn:schemas-upnp-org:service:ContentDirectory:1#Browse\"\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

static int bench_connect()
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(bench_port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval limit{120, 0};
    int one = 1;
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (s >= 0 && connect(s, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        close(s);
        return -1;
    }
    return s;
}

// Reads one response: its status, and its body (by Content-Length, or
// chunked) into *body. 0 when it did not come whole.
struct bench_reader {
    int s;
    std::string in;            // bytes read and not yet taken

    bool more()
    {
        char buffer[1 << 16];
        ssize_t n = recv(s, buffer, sizeof buffer, 0);
        if (n > 0)
            in.append(buffer, size_t(n));
        return n > 0;
    }
    bool take_line(std::string* line)
    {
        size_t end;
        while ((end = in.find("\r\n")) == std::string::npos)
            if (!more())
                return false;
        *line = in.substr(0, end);
        in.erase(0, end + 2);
        return true;
    }
    bool take(size_t n, std::string* out)
    {
        while (in.size() < n)
            if (!more())
                return false;
        out->append(in, 0, n);
        in.erase(0, n);
        return true;
    }
    int response(std::string* body)
    {
        body->clear();
        std::string line, status;
        long length = -1;
        bool chunked = false;
        if (!take_line(&status) || status.size() < 12)
            return 0;
        while (take_line(&line) && !line.empty()) {
            for (char& c : line)
                c = char(tolower(uint8_t(c)));
            if (line.rfind("content-length:", 0) == 0)
                length = long(upnp_parse_lenient(line.c_str() + 15));
            if (line.rfind("transfer-encoding:", 0) == 0 && line.find("chunked") != std::string::npos)
                chunked = true;
        }
        if (!chunked)
            return length >= 0 && take(size_t(length), body) ? int(upnp_parse_lenient(status.c_str() + 9)) : 0;
        for (int chunks = 0; chunks < 100000000; chunks++) {
            if (!take_line(&line))
                return 0;
            long size = strtol(line.c_str(), nullptr, 16);
            if (size == 0)
                return take_line(&line) ? int(upnp_parse_lenient(status.c_str() + 9)) : 0;
            std::string crlf;
            if (!take(size_t(size), body) || !take(2, &crlf))
                return 0;
        }
        return 0;
    }
};

static long bench_returned(const std::string& body)
{
    size_t at = body.find("<NumberReturned>");
    return at == std::string::npos ? -1 : long(upnp_parse_lenient(body.c_str() + at + 16));
}

// ---- One run -------------------------------------------------------------------

struct bench_result {
    long tracks, pages, default_pages, whole_returned;
    double fill_s, p50_ms, p99_ms, default_p50_ms, whole_mb, whole_s;
    double rps[3], cpu[3];         // cpu: the server's share of one core during the run
    long non_2xx[3];
    int ok;
};

static const int bench_connections[3] = {1, 8, 32};
static int bench_wrk_seconds = 5;

// Pages of 50 at random offsets, one at a time: their times in ms, sorted;
// empty when an answer was not a page of 50. At most 1,000, and no more
// once a minute has passed.
static std::vector<double> bench_pages(long tracks, const char* sort)
{
    std::vector<double> ms;
    int s = bench_connect();
    bench_reader reader{s, {}};
    uint64_t x = 88172645463325252ull;
    std::string body;
    double began = bench_now();
    for (int i = 0; i < 1000 && bench_now() - began < 60; i++) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        std::string request = bench_request(long(x % uint64_t(tracks - 50 + 1)), 50, sort);
        double t = bench_now();
        if (send(s, request.data(), request.size(), MSG_NOSIGNAL) != ssize_t(request.size()) ||
            reader.response(&body) != 200 || bench_returned(body) != 50) {
            fprintf(stderr, "page %d: %.300s\n", i, body.c_str());
            ms.clear();
            break;
        }
        ms.push_back((bench_now() - t) * 1e3);
    }
    close(s);
    std::sort(ms.begin(), ms.end());
    return ms;
}

static double bench_at(const std::vector<double>& sorted, double q)
{
    return sorted.empty() ? 0 : sorted[std::min(sorted.size() - 1, size_t(q * double(sorted.size())))];
}

static void bench_whole(bench_result* r)
{
    int s = bench_connect();
    bench_reader reader{s, {}};
    std::string request = bench_request(0, 0, ""), body;
    double t = bench_now();
    bool ok = send(s, request.data(), request.size(), MSG_NOSIGNAL) == ssize_t(request.size()) &&
              reader.response(&body) == 200;
    r->whole_s = bench_now() - t;
    r->whole_mb = double(body.size()) / 1e6;
    r->whole_returned = ok ? bench_returned(body) : -1;
    close(s);
}

static double bench_cpu_seconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// One wrk run: requests per second, the answers that were not 2xx, and
// the CPU time this process (the server) used per second of the run.
static double bench_wrk(long tracks, int connections, long* non_2xx, double* cpu)
{
    char command[1024];
    snprintf(command, sizeof command,
             "wrk -t %d -c %d -d %ds -s " VELMORA_SOURCE_DIR "/bench/browse.lua http://127.0.0.1:%d/ContentDirectory/Control"
             " -- %ld '%s' 2>&1",
             connections < 2 ? 1 : 2, connections, bench_wrk_seconds, bench_port, tracks, bench_container.c_str());
    double cpu0 = bench_cpu_seconds(), t0 = bench_now();
    FILE* wrk = popen(command, "r");
    char line[512];
    double rps = 0;
    *non_2xx = 0;
    while (wrk && fgets(line, sizeof line, wrk)) {
        if (!strncmp(line, "Requests/sec:", 13))
            rps = strtod(line + 13, nullptr);
        if (!strncmp(line, "  Non-2xx or 3xx responses:", 27))
            *non_2xx = long(upnp_parse_lenient(line + 27));
    }
    if (wrk)
        pclose(wrk);
    *cpu = (bench_cpu_seconds() - cpu0) / (bench_now() - t0);
    return rps;
}

static std::string bench_program;

// A port free on 127.0.0.1 now; the server steps upward if it is taken meanwhile.
static int bench_free_port()
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof a;
    int port = bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
                       getsockname(s, reinterpret_cast<sockaddr*>(&a), &length) == 0
                   ? ntohs(a.sin_port)
                   : 9000;
    close(s);
    return port;
}

static bench_result bench_run(long tracks)
{
    bench_result r{};
    r.tracks = tracks;
    std::string argv0 = bench_program + "/velmora";
    std::vector<char*> arguments{argv0.data(), nullptr};
    upnp_ini_file_read_cmdline(1, arguments.data());
    upnp_switches.ssdp_enabled = upnp_switches.scanner_enabled = upnp_switches.scheduler_enabled = 0;
    upnp_switches.rpc_enabled = 0;
    upnp_ini_set(UPNP_OPT_LANGUAGE, "en");
    upnp_ini_set(UPNP_OPT_IP, "127.0.0.1");
    upnp_ini_set(UPNP_OPT_HTTPPORT, std::to_string(bench_free_port()).c_str());
    upnp_ini_set(UPNP_OPT_STARTUPMB, "0");
    upnp_ini_set(UPNP_OPT_DBDIR, (bench_program + "/db").c_str());
    upnp_mediaserver_start();
    nic_entry* list = nullptr;
    if (upnp_nic_table(&list) != 1 || !list[0].port)
        return r;
    bench_port = list[0].port;

    double t = bench_now();
    {
        db_lock_guard hold;
        if (!bench_fill(tracks))
            return r;
        char id[DB_ID_TEXT_SIZE];
        bench_container = db_object_id_text(db_music_root, id, sizeof id);
    }
    r.fill_s = bench_now() - t;

    std::vector<double> sorted = bench_pages(tracks, "+dc:title"), own = bench_pages(tracks, "");
    r.pages = long(sorted.size());
    r.p50_ms = bench_at(sorted, 0.5);
    r.p99_ms = bench_at(sorted, 0.99);
    r.default_pages = long(own.size());
    r.default_p50_ms = bench_at(own, 0.5);
    bench_whole(&r);
    for (int i = 0; i < 3; i++)
        r.rps[i] = bench_wrk(tracks, bench_connections[i], &r.non_2xx[i], &r.cpu[i]);
    r.ok = r.pages > 0 && r.default_pages > 0 && r.whole_returned == tracks &&
           r.non_2xx[0] + r.non_2xx[1] + r.non_2xx[2] == 0;
    upnp_mediaserver_stop();
    return r;
}

int main(int argc, char** argv)
{
    std::vector<long> sizes;
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "--wrk-seconds") && i + 1 < argc)
            bench_wrk_seconds = int(upnp_parse_lenient(argv[++i]));
        else
            sizes.push_back(long(upnp_parse_lenient(argv[i])));
    }
    if (sizes.empty())
        sizes = {6500, 100000, 1000000};
    if (system("command -v wrk >/dev/null") != 0) {
        fprintf(stderr, "browse: needs wrk (bench/browse.sh installs it)\n");
        return 1;
    }
    char scratch[] = "/var/tmp/velmora-browse-XXXXXX";
    if (!mkdtemp(scratch))
        return 1;
    bench_program = scratch;
    symlink(VELMORA_SOURCE_DIR "/resources", (bench_program + "/resources").c_str());
    setenv("LANG", "C", 1);

    printf("%8s %7s | %-27s | %-9s | %-22s | %-38s | %s\n", "", "", "page of 50 by title, ms", "own order",
           "whole container", "wrk req/s, pages of 50 (server CPU)", "");
    printf("%8s %7s | %6s %6s %6s %6s | %9s | %8s %6s %6s | %12s %12s %12s | %s\n", "tracks", "fill s", "p50", "p99",
           "n", "x p50", "p50 ms", "MB", "s", "MB/s", "c1", "c8", "c32", "ok");
    bench_result first{};
    for (long n : sizes) {
        bench_result r{};
        if (n < 50 || !bench_in_child(&r, [&](bench_result* out) { *out = bench_run(n); })) {
            printf("%8ld  run failed\n", n);
            continue;
        }
        if (!first.tracks)
            first = r;
        printf("%8ld %7.1f | %6.3f %6.3f %6ld %6.2f | %9.3f | %8.1f %6.2f %6.1f |", r.tracks, r.fill_s, r.p50_ms,
               r.p99_ms, r.pages, first.p50_ms > 0 ? r.p50_ms / first.p50_ms : 0, r.default_p50_ms, r.whole_mb,
               r.whole_s, r.whole_s > 0 ? r.whole_mb / r.whole_s : 0);
        for (int i = 0; i < 3; i++)
            printf(" %6.0f (%3.0f%%)", r.rps[i], r.cpu[i] * 100);
        printf(" | %s\n", r.ok ? "yes" : "NO");
        fflush(stdout);
    }
    printf("x p50: the page's median against the first size's\n");
    std::string remove = "rm -rf '" + bench_program + "'";
    return system(remove.c_str()) == 0 ? 0 : 1;
}
