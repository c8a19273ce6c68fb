// scan: what a first pass over the shared folders costs, per library size.
// For each size it makes (once, cached) a media library with
// bench/make-corpus.sh, then starts the library in-process as a host does
// (full mode, pinned to 127.0.0.1 on a free port, a fresh working folder and
// database each run) and waits for the scan's "finished" event. Each size
// runs cold (page cache dropped first, when the system lets us) and warm.
//
// Printed per run: files seen per second of the pass, the time from the
// start call to the last file admitted, resident memory growth (VmRSS) per
// stored item beside the store's own account per item (records, texts
// and the path index), and the pass's
// counts; then, from one size to the next, the factor by which each figure
// grew.
//
// Every run is a child process of its own: the library reads its working
// folder once per process, and one run's memory must not show in the next.
// Before the measured start the child starts and stops the library once
// with the scanner off, so that code pages, server threads and the
// allocator's first arenas do not count as memory of the stored items.
//
// Usage: scan [--dir FOLDER] [--timeout SECONDS] [N ...]
//   N: library sizes (default 1000 10000 100000). FOLDER holds the cached
//   corpora (corpus-N) and the working folders (default
//   $VELMORA_BENCH_DIR, else /var/tmp/velmora-bench). The wait for a pass
//   is bounded by SECONDS (default 60 + N / 50).
#include <velmora/dapi_dms.h>

#include "bench_child.h"

#include "database/db_id.h"
#include "database/db_object.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

struct scan_result {
    long size;
    int cold;                     // 1: page cache dropped before the run
    int finished;                 // 0: the pass did not end in time
    unsigned folders, seen, admitted;
    double pass_s;                // the pass's own milliseconds, in seconds
    double last_added_s;          // start call to the last file admitted
    long stored;                  // items in the store after the pass
    double rss_per_item, account_per_item;
};

static double scan_now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

static long scan_rss_kib()
{
    FILE* f = fopen("/proc/self/status", "r");
    long kib = 0;
    char line[256];
    while (f && fgets(line, sizeof line, f))
        if (sscanf(line, "VmRSS: %ld kB", &kib) == 1)
            break;
    if (f)
        fclose(f);
    return kib;
}

static int scan_free_port()
{
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof a;
    int port = 0;
    if (s >= 0 && bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &length) == 0)
        port = ntohs(a.sin_port);
    if (s >= 0)
        close(s);
    return port;
}

// ---- What the callback sees (library threads write, the run's thread reads) ----

static double scan_t0;
static std::atomic<double> scan_last_added;
static std::atomic<int> scan_finished;
static unsigned scan_counts[3];
static unsigned long scan_ms;

static int32_t scan_on_event(int32_t code, const char* text)
{
    if (code == DAPI_EVENT_FILE_ADDED) {
        scan_last_added = scan_now() - scan_t0;
    } else if (code == DAPI_EVENT_SCAN && text && strncmp(text, "finished ", 9) == 0 && !scan_finished) {
        // The numbers are written before the flag that the waiter reads.
        if (sscanf(text + 9, "%u %u %u %lu", &scan_counts[0], &scan_counts[1], &scan_counts[2], &scan_ms) == 4)
            scan_finished = 1;
    }
    return 0;
}

static bool scan_write_ini(const std::string& work, const std::string& corpus)
{
    std::string ini = "[main]\r\nip=127.0.0.1\r\nhttpport=" + std::to_string(scan_free_port()) +
                      "\r\nnicrestart=0\r\ncontentdir=" + corpus + "\r\n";
    FILE* f = fopen((work + "/velmora-mediaserver.ini").c_str(), "wb");
    if (!f)
        return false;
    bool ok = fwrite(ini.data(), 1, ini.size(), f) == ini.size();
    return fclose(f) == 0 && ok;
}

static long scan_stored_items()
{
    db_lock_guard hold;
    long n = long(db_count_music()) + db_count_pictures() + db_count_videos();
    return n + (db_all_documents ? db_container_child_count(db_all_documents) : 0);
}

// The child's part: one start, one pass, one stop. The library's own
// traces go to a file in the working folder, as a host keeps them.
static void scan_run(long n, const std::string& corpus, const std::string& work, double timeout_s,
                     scan_result* r)
{
    r->size = n;
    int out = open((work + "/velmora-output.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const std::string empty = work + "/empty";
    if (out < 0 || dup2(out, STDOUT_FILENO) < 0 || chdir(work.c_str()) != 0 || mkdir(empty.c_str(), 0755) != 0 ||
        !scan_write_ini(work, empty))
        return;
    close(out);
    // SSDP off: discovery has no part in a scan, and nothing needs to leave
    // the machine. A Document root, so that documents are stored too.
    // The first start scans an empty folder, so that the scanner thread's
    // stack and heap arena, kept by the C library for the next thread, do
    // not count as memory of the items.
    const uint32_t flags = DAPI_FLAG_NO_SSDP | DAPI_FLAG_DOCUMENT_ROOT;
    dapi_dms_register_callback(scan_on_event);
    if (!dapi_dms_init(DAPI_MODE_FULL, flags))
        return;
    for (int waited = 0; !scan_finished && waited < 10000; waited += 20)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    dapi_dms_terminate();
    scan_finished = 0;
    if (!scan_write_ini(work, corpus))
        return;
    long rss0 = scan_rss_kib();
    int64_t account0 = db_object_get_used_mem() + db_string_pool_get_used_mem() + db_path_index_bytes();
    scan_t0 = scan_now();
    if (!dapi_dms_init(DAPI_MODE_FULL, flags))
        return;
    while (!scan_finished && scan_now() - scan_t0 < timeout_s)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    r->finished = scan_finished;
    if (r->finished) {
        r->folders = scan_counts[0];
        r->seen = scan_counts[1];
        r->admitted = scan_counts[2];
        r->pass_s = double(scan_ms) / 1000.0;
        r->last_added_s = scan_last_added;
        r->stored = scan_stored_items();
        // Per admitted file while the store keeps no items (no tree for them yet).
        long per = r->stored > 0 ? r->stored : r->admitted > 0 ? long(r->admitted) : 1;
        r->rss_per_item = double(scan_rss_kib() - rss0) * 1024.0 / double(per);
        r->account_per_item =
            double(db_object_get_used_mem() + db_string_pool_get_used_mem() + db_path_index_bytes() - account0) / double(per);
    }
    dapi_dms_register_callback(nullptr);
    dapi_dms_terminate();
}

// ---- The parent: corpora, cache, children, figures ----------------------------

static bool scan_shell(const std::string& command)
{
    return system(command.c_str()) == 0;
}

static std::string scan_quote(const std::string& text)
{
    std::string q = "'";
    for (char c : text)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

static bool scan_ensure_corpus(long n, const std::string& corpus)
{
    std::string marker = corpus + "/.velmora-corpus";
    struct stat st;
    // A folder without the marker is a corpus whose making was cut short.
    if (stat(corpus.c_str(), &st) == 0 && stat(marker.c_str(), &st) != 0) {
        printf("remaking the unfinished corpus %s\n", corpus.c_str());
        scan_shell("rm -rf " + scan_quote(corpus));
    }
    fflush(stdout);
    return scan_shell("nice -n 10 " + scan_quote(VELMORA_SOURCE_DIR "/bench/make-corpus.sh") + " " +
                      std::to_string(n) + " " + scan_quote(corpus));
}

static bool scan_drop_cache()
{
    sync();
    int f = open("/proc/sys/vm/drop_caches", O_WRONLY);
    bool ok = f >= 0 && write(f, "3\n", 2) == 2;
    if (f >= 0)
        ok = close(f) == 0 && ok;
    return ok;
}

static bool scan_child(long n, const std::string& dir, bool cold, double timeout_s, scan_result* r)
{
    std::string corpus = dir + "/corpus-" + std::to_string(n);
    std::string work = dir + "/work-" + std::to_string(n) + (cold ? "-cold" : "-warm");
    scan_shell("rm -rf " + scan_quote(work));
    if (mkdir(work.c_str(), 0755) != 0)
        return false;
    *r = scan_result{};
    r->cold = cold && scan_drop_cache();
    if (cold && !r->cold)
        printf("could not drop the page cache (needs root and a writable /proc/sys/vm/drop_caches); "
               "the cold run of %ld files is warm\n", n);
    bool ok = bench_in_child(r, [&](scan_result* out) {
        scan_run(n, corpus, work, timeout_s, out);
        fflush(stdout);   // the library's traces, into the run's file before _exit drops them
    }) && r->finished;
    if (ok)
        scan_shell("rm -rf " + scan_quote(work));   // kept when the run failed, to look into
    return ok;
}

static void scan_print(const scan_result& r)
{
    double rate = r.pass_s > 0 ? double(r.seen) / r.pass_s : 0;
    const char* per = r.stored > 0 ? "item" : "file";
    printf("%8ld %s | %8.0f files/s | last admitted %8.2f s | RSS %8.1f B/%s | account %7.1f B/%s"
           " | %u folders, %u seen, %u admitted, %ld stored, pass %.2f s\n",
           r.size, r.cold ? "cold" : "warm", rate, r.last_added_s, r.rss_per_item, per, r.account_per_item, per,
           r.folders, r.seen, r.admitted, r.stored, r.pass_s);
    fflush(stdout);
}

static void scan_growth(const scan_result& a, const scan_result& b)
{
    auto factor = [](double x, double y) { return x > 0 ? y / x : 0.0; };
    double rate_a = a.pass_s > 0 ? a.seen / a.pass_s : 0, rate_b = b.pass_s > 0 ? b.seen / b.pass_s : 0;
    printf("growth %ld -> %ld %s (x%.0f files): files/s x%.2f, time to last admitted x%.1f, RSS/item x%.2f,"
           " account/item x%.2f\n",
           a.size, b.size, b.cold ? "cold" : "warm", double(b.size) / double(a.size), factor(rate_a, rate_b),
           factor(a.last_added_s, b.last_added_s), factor(a.rss_per_item, b.rss_per_item),
           factor(a.account_per_item, b.account_per_item));
}

int main(int argc, char** argv)
{
    const char* env = getenv("VELMORA_BENCH_DIR");
    std::string dir = env && *env ? env : "/var/tmp/velmora-bench";
    double timeout_s = 0;
    std::vector<long> sizes;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if ((arg == "--dir" || arg == "--timeout") && i + 1 < argc) {
            if (arg == "--dir")
                dir = argv[++i];
            else
                timeout_s = strtod(argv[++i], nullptr);
        } else if (long n = strtol(argv[i], nullptr, 10); n > 0) {
            sizes.push_back(n);
        } else {
            fprintf(stderr, "usage: scan [--dir FOLDER] [--timeout SECONDS] [N ...]\n");
            return 2;
        }
    }
    if (sizes.empty())
        sizes = {1000, 10000, 100000};
    if (!scan_shell("mkdir -p " + scan_quote(dir)))
        return 1;
    for (long n : sizes)
        if (!scan_ensure_corpus(n, dir + "/corpus-" + std::to_string(n))) {
            fprintf(stderr, "could not make the corpus of %ld files\n", n);
            return 1;
        }
    std::vector<scan_result> cold, warm;
    for (long n : sizes) {
        double limit = timeout_s > 0 ? timeout_s : 60.0 + double(n) / 50.0;
        // The first pass over a new corpus leaves the library's marker files
        // beside the tracks dated before 1970; one unmeasured pass makes
        // every measured one see the same tree.
        std::string primed = dir + "/corpus-" + std::to_string(n) + "/.velmora-bench-primed";
        scan_result first;
        if (access(primed.c_str(), F_OK) != 0 &&
            (!scan_child(n, dir, false, limit, &first) || !scan_shell("touch " + scan_quote(primed)))) {
            fprintf(stderr, "the first pass over the corpus of %ld files failed\n", n);
            return 1;
        }
        for (bool is_cold : {true, false}) {
            scan_result r;
            if (!scan_child(n, dir, is_cold, limit, &r)) {
                fprintf(stderr, "the %s run of %ld files failed or did not finish within %.0f s\n",
                        is_cold ? "cold" : "warm", n, limit);
                return 1;
            }
            scan_print(r);
            (is_cold ? cold : warm).push_back(r);
        }
    }
    for (const std::vector<scan_result>* runs : {&cold, &warm})
        for (size_t i = 1; i < runs->size(); i++)
            scan_growth((*runs)[i - 1], (*runs)[i]);
    return 0;
}
