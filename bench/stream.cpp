// stream: what file streaming costs, on one file of 1 GiB in the page
// cache, served by the library in-process (full mode, pinned to 127.0.0.1
// on a free port, the file's folder shared) to clients on loopback.
//
// Printed, in one run:
//   - the ceiling: a plain sendfile loop of the whole file to a loopback
//     socket, read by the same client code as the GET;
//   - a full GET of the file through the /disk route, and its share of the
//     ceiling (aim: at least 0.95);
//   - 64 KiB ranges at random offsets on one keep-alive connection: p50
//     and p99 from request to last byte (aim: p50 under 0.5 ms);
//   - 64 concurrent streams of ranges spread over the file: throughput in
//     all, and the server's CPU.
// Each figure's client runs in a child process of its own (bench_child.h),
// so that the CPU the parent spends while the child measures is the
// server's alone: the parent only serves and waits.
//
// Usage: stream [--dir FOLDER] [--runs N] [--streambuffer BYTES]
//   FOLDER gets the file and the library's working folder, and is removed
//   at the end (default $VELMORA_BENCH_DIR, else /var/tmp); N runs of each
//   throughput figure, the best counted (default 3); BYTES the option that
//   sizes the chunks of video (default 32000, the option's own default).
#include <velmora/dapi_dms.h>

#include "bench_child.h"

#include "control/upnp_mediaserver.h"
#include "database/db_object.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

static constexpr int64_t FILE_SIZE = int64_t(1) << 30;
static constexpr int64_t RANGE_SIZE = 64 * 1024;
static constexpr int RANGE_REQUESTS = 2000;
static constexpr int STREAMS = 64;
static constexpr int64_t STREAM_SPAN = 64 << 20;   // each concurrent stream's range

struct bench_result {
    int ok;
    double seconds;
    int64_t bytes;
    double p50_ms, p99_ms;
};

static double bench_now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

static double bench_cpu_seconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Server on the first CPU, clients on the second, so that the sendfile loop
// and the library meet the same placement (loopback throughput swings by
// half with where sender and receiver run).
static void bench_pin(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu % std::max(1, int(sysconf(_SC_NPROCESSORS_ONLN))), &set);
    sched_setaffinity(0, sizeof set, &set);
}

static int bench_connect(int port)
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval tv{30, 0};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (s >= 0 && connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(s);
        return -1;
    }
    return s;
}

// Reads and drops up to n bytes (until the end when n < 0): the count.
static int64_t bench_drain(int s, int64_t n, std::vector<char>& buffer)
{
    int64_t got = 0;
    while (n < 0 || got < n) {
        size_t want = n < 0 ? buffer.size() : size_t(std::min<int64_t>(int64_t(buffer.size()), n - got));
        ssize_t r = recv(s, buffer.data(), want, 0);
        if (r <= 0)
            break;
        got += r;
    }
    return got;
}

// One response on s: its body's length by Content-Length, read and
// dropped. -1 when the head did not come or says no 2xx.
static int64_t bench_response(int s, std::vector<char>& buffer)
{
    std::string head;
    char c;
    while (head.size() < 4096 && head.find("\r\n\r\n") == std::string::npos && recv(s, &c, 1, 0) == 1)
        head += c;
    size_t at = head.find("Content-Length: ");
    if (head.compare(0, 10, "HTTP/1.1 2") != 0 || at == std::string::npos)
        return -1;
    int64_t length = strtoll(head.c_str() + at + 16, nullptr, 10);
    return bench_drain(s, length, buffer) == length ? length : -1;
}

static bool bench_send(int s, const std::string& text)
{
    return send(s, text.data(), text.size(), MSG_NOSIGNAL) == ssize_t(text.size());
}

static std::string bench_get(const std::string& url, const std::string& range)
{
    return "GET " + url + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + range + "\r\n";
}

// ---- The figures, each filled in a child ----------------------------------

static void bench_ceiling(int listener, const char* path, bench_result* out)
{
    // The parent serves: one accepted socket, the whole file with sendfile.
    sockaddr_in a{};
    socklen_t n = sizeof a;
    getsockname(listener, reinterpret_cast<sockaddr*>(&a), &n);
    int port = ntohs(a.sin_port);
    std::thread server([listener, path] {
        int s = accept(listener, nullptr, nullptr);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        off_t at = 0;
        while (s >= 0 && fd >= 0 && at < FILE_SIZE && sendfile(s, fd, &at, size_t(FILE_SIZE - at)) > 0) {
        }
        close(fd);
        close(s);
    });
    bench_in_child(out, [port](bench_result* r) {
        bench_pin(1);
        std::vector<char> buffer(1 << 20);
        double t0 = bench_now();
        int s = bench_connect(port);
        r->bytes = bench_drain(s, -1, buffer);
        r->seconds = bench_now() - t0;
        r->ok = r->bytes == FILE_SIZE;
        close(s);
    });
    server.join();
}

static void bench_full_get(int port, const std::string& url, bench_result* out)
{
    bench_in_child(out, [&](bench_result* r) {
        bench_pin(1);
        std::vector<char> buffer(1 << 20);
        double t0 = bench_now();
        int s = bench_connect(port);
        r->bytes = bench_send(s, bench_get(url, "")) ? bench_response(s, buffer) : -1;
        r->seconds = bench_now() - t0;
        r->ok = r->bytes == FILE_SIZE;
        close(s);
    });
}

static void bench_ranges(int port, const std::string& url, bench_result* out)
{
    bench_in_child(out, [&](bench_result* r) {
        bench_pin(1);
        std::vector<char> buffer(1 << 20);
        std::vector<double> ms;
        std::mt19937_64 random(11);
        int s = bench_connect(port);
        int one = 1;
        setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        r->ok = s >= 0;
        for (int i = 0; i < RANGE_REQUESTS && r->ok; i++) {
            int64_t from = int64_t(random() % uint64_t(FILE_SIZE - RANGE_SIZE));
            std::string range = "Range: bytes=" + std::to_string(from) + "-" + std::to_string(from + RANGE_SIZE - 1) +
                                "\r\n";
            double t0 = bench_now();
            r->ok = bench_send(s, bench_get(url, range)) && bench_response(s, buffer) == RANGE_SIZE;
            ms.push_back((bench_now() - t0) * 1000);
        }
        close(s);
        std::sort(ms.begin(), ms.end());
        r->p50_ms = ms.empty() ? 0 : ms[ms.size() / 2];
        r->p99_ms = ms.empty() ? 0 : ms[ms.size() * 99 / 100];
        r->bytes = int64_t(ms.size()) * RANGE_SIZE;
    });
}

static void bench_concurrent(int port, const std::string& url, bench_result* out)
{
    bench_in_child(out, [&](bench_result* r) {
        bench_pin(1);
        std::vector<int64_t> got(STREAMS, 0);
        std::vector<std::thread> players;
        double t0 = bench_now();
        for (int i = 0; i < STREAMS; i++)
            players.emplace_back([&got, &url, port, i] {
                std::vector<char> buffer(256 * 1024);
                int64_t from = int64_t(i) * (FILE_SIZE - STREAM_SPAN) / (STREAMS - 1);
                int s = bench_connect(port);
                std::string range = "Range: bytes=" + std::to_string(from) + "-" +
                                    std::to_string(from + STREAM_SPAN - 1) + "\r\n";
                got[size_t(i)] = bench_send(s, bench_get(url, range)) ? bench_response(s, buffer) : -1;
                close(s);
            });
        for (std::thread& t : players)
            t.join();
        r->seconds = bench_now() - t0;
        r->bytes = 0;
        r->ok = 1;
        for (int64_t g : got) {
            r->ok &= g == STREAM_SPAN;
            r->bytes += g > 0 ? g : 0;
        }
    });
}

// ---- Setting up ----------------------------------------------------------------

static bool bench_make_file(const std::string& path)
{
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    std::vector<uint64_t> block((4 << 20) / 8);
    std::mt19937_64 random(5);
    bool ok = true;
    for (int64_t written = 0; ok && written < FILE_SIZE; written += int64_t(block.size() * 8)) {
        for (uint64_t& w : block)
            w = random();
        ok = write(fd, block.data(), block.size() * 8) == ssize_t(block.size() * 8);
    }
    // Read back once, so that every page stands in the cache.
    std::vector<char> buffer(4 << 20);
    for (off_t at = 0; ok && at < FILE_SIZE; at += off_t(buffer.size()))
        ok = pread(fd, buffer.data(), buffer.size(), at) > 0;
    close(fd);
    return ok;
}

static int bench_listener()
{
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval tv{30, 0};   // accept gives up when no client comes
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(s, 8) != 0) {
        close(s);
        return -1;
    }
    return s;
}

static int bench_free_port()
{
    int s = bench_listener();
    sockaddr_in a{};
    socklen_t n = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &n);
    close(s);
    return ntohs(a.sin_port);
}

// Starts the library on the folder and answers the file's /disk URL, or "".
static std::string bench_start(const std::string& work, const std::string& file, int buffer, int* port)
{
    std::string ini = "[main]\r\nip=127.0.0.1\r\nhttpport=" + std::to_string(bench_free_port()) +
                      "\r\nnicrestart=0\r\nclientautoenable=1\r\ncontentdir=" + work + "/media\r\ndbdir=" + work +
                      "/db\r\nstreambuffer=" + std::to_string(buffer) + "\r\n";
    FILE* f = fopen("velmora-mediaserver.ini", "wb");
    if (!f || fwrite(ini.data(), 1, ini.size(), f) != ini.size() || fclose(f) != 0)
        return "";
    if (!dapi_dms_init(DAPI_MODE_FULL, DAPI_FLAG_NO_SSDP)) {
        fprintf(stderr, "the library did not start\n");
        return "";
    }
    char id[DB_ID_TEXT_SIZE] = "";
    for (int waited = 0; !id[0] && waited < 60000; waited += 50) {
        usleep(50 * 1000);
        db_lock_guard hold;
        if (db_object* o = db_object_find_by_path(file.c_str()))
            db_object_id_text(o, id, sizeof id);
    }
    nic_entry* list = nullptr;
    if (!id[0] || upnp_nic_table(&list) != 1) {
        fprintf(stderr, "%s\n", id[0] ? "no single server on 127.0.0.1" : "the file did not reach the store");
        return "";
    }
    *port = list[0].port;
    return std::string("/disk/video/O") + id + ".mpg";
}

static double bench_gib_per_s(const bench_result& r)
{
    return r.seconds > 0 ? double(r.bytes) / r.seconds / double(1 << 30) : 0;
}

int main(int argc, char** argv)
{
    const char* env = getenv("VELMORA_BENCH_DIR");
    std::string dir = env ? env : "/var/tmp";
    int runs = 3, buffer = 32000;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!strcmp(argv[i], "--dir"))
            dir = argv[i + 1];
        else if (!strcmp(argv[i], "--runs"))
            runs = std::max(1, atoi(argv[i + 1]));
        else if (!strcmp(argv[i], "--streambuffer"))
            buffer = atoi(argv[i + 1]);
    }
    signal(SIGPIPE, SIG_IGN);
    bench_pin(0);   // every thread made from here on, the library's too
    std::string work = dir + "/velmora-stream-XXXXXX";
    if (!mkdtemp(work.data()) || mkdir((work + "/media").c_str(), 0755) != 0 || chdir(work.c_str()) != 0) {
        fprintf(stderr, "cannot make a working folder under %s\n", dir.c_str());
        return 1;
    }
    std::string file = work + "/media/big.mpg";
    // The library talks on standard output; the figures go to the real one.
    FILE* report = fdopen(dup(STDOUT_FILENO), "w");
    int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(quiet, STDOUT_FILENO);
    int port = 0, listener = bench_listener();
    std::string url = bench_make_file(file) ? bench_start(work, file, buffer, &port) : "";
    int status = 0;
    if (url.empty() || listener < 0) {
        fprintf(report, "could not set up the file or the library in %s\n", work.c_str());
        status = 1;
    } else {
        bench_result ceiling{}, get{}, ranges{}, many{}, r{};
        double ceiling_cpu = 0, get_cpu = 0, many_cpu = 0;
        for (int i = 0; i < runs; i++) {
            double c0 = bench_cpu_seconds();
            bench_ceiling(listener, file.c_str(), &r);
            double cpu = bench_cpu_seconds() - c0;
            if (r.ok && bench_gib_per_s(r) > bench_gib_per_s(ceiling)) {
                ceiling = r;
                ceiling_cpu = cpu;
            }
            c0 = bench_cpu_seconds();
            bench_full_get(port, url, &r);
            cpu = bench_cpu_seconds() - c0;
            if (r.ok && bench_gib_per_s(r) > bench_gib_per_s(get)) {
                get = r;
                get_cpu = cpu;
            }
        }
        bench_ranges(port, url, &ranges);
        double c0 = bench_cpu_seconds();
        bench_concurrent(port, url, &many);
        many_cpu = bench_cpu_seconds() - c0;
        fprintf(report, "file: 1 GiB in the page cache, served as video in chunks of streambuffer = %d bytes; %d "
                        "run(s) of each throughput, the best counted\n", buffer, runs);
        fprintf(report, "ceiling, sendfile loop:   %6.2f GiB/s, server CPU %.2f s\n", bench_gib_per_s(ceiling),
                ceiling_cpu);
        fprintf(report, "full GET:                 %6.2f GiB/s  = %.3f of the ceiling (aim >= 0.95), server CPU %.2f s%s\n",
                bench_gib_per_s(get), bench_gib_per_s(ceiling) > 0 ? bench_gib_per_s(get) / bench_gib_per_s(ceiling) : 0,
                get_cpu, get.ok ? "" : "  FAILED");
        fprintf(report, "64 KiB ranges, random:    p50 %.3f ms (aim < 0.5), p99 %.3f ms over %d requests%s\n",
                ranges.p50_ms, ranges.p99_ms, RANGE_REQUESTS, ranges.ok ? "" : "  FAILED");
        fprintf(report, "%d concurrent streams:    %6.2f GiB/s in all over %.1f s, server CPU %.2f s = %.0f %% of one core%s\n",
                STREAMS, bench_gib_per_s(many), many.seconds, many_cpu,
                many.seconds > 0 ? 100 * many_cpu / many.seconds : 0, many.ok ? "" : "  FAILED");
        status = get.ok && ranges.ok && many.ok ? 0 : 1;
    }
    fflush(report);
    dapi_dms_terminate();
    close(listener);
    std::string clean = "rm -rf '" + work + "'";
    if (system(clean.c_str()) != 0)
        fprintf(report, "could not remove %s\n", work.c_str());
    fclose(report);
    return status;
}
