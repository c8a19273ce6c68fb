// rules: what the navigation tree costs as a library grows. For each size
// (default 10000 100000 1000000 tracks) and for the presets autotree 1 and
// autotree 3 it starts the options as a start does (program folder with the
// shipped string files, language "en", full tree, one music folder), builds
// the tree, adds that many tracks with the tags of a real library (albums
// of 8 to 13 tracks, a few thousand artists, 60 genres, years, every 20th
// album a compilation of several artists) and prints per track: the
// references the rules made, resident bytes (VmRSS growth from just before
// the first add), the store's own account (records, string pool, path
// index), and the time to add one, beside the number of folders and the
// children of the widest folder of references; then the time of one full housekeeping
// sweep that finds nothing to remove beside the time to stat every track's
// file alone (the file system's share of it), the time of the empty-folder sweep
// alone, and the time to update a track (a thousand tracks spread over the
// library get another artist, which takes their references out and places
// them again).
//
// The sweep stats every item's file, so the files must exist: each album
// folder is a symbolic link to one folder holding 01.mp3 .. 13.mp3, so that
// every path is distinct and found while the bench makes only one link per
// album. The stat then resolves one link more than a real library would.
//
// Each size and preset runs in a forked process of its own, so that the
// memory of one run does not hide in the next. The last columns give how
// each total grows from one size to the next; a "!" marks growth of more
// than 1.2 times the growth of the size (12-fold per 10-fold).
//
// Usage: rules [tracks...]
#include "bench_child.h"
#include "config/upnp_ini.h"
#include "database/db_file.h"
#include "database/db_id.h"
#include "database/db_object.h"
#include "database/db_tree.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

static double bench_now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

static long bench_rss_kib()
{
    FILE* f = fopen("/proc/self/status", "r");
    if (!f)
        return 0;
    char line[256];
    long kib = 0;
    while (fgets(line, sizeof line, f))
        if (!strncmp(line, "VmRSS:", 6))
            kib = long(upnp_parse_lenient(line + 6));
    fclose(f);
    return kib;
}

// ---- The library ------------------------------------------------------------

static const long bench_album_max = 13;

static long bench_album_tracks(long album) { return 8 + (album * 7) % 6; }     // 8..13, about 10.5
static long bench_albums(long tracks) { return tracks / 10 + 1; }              // enough albums for tracks
static long bench_artists(long tracks)
{
    long a = bench_albums(tracks) / 2;
    return a < 50 ? 50 : a > 6000 ? 6000 : a;
}
// Artists spread over albums by a multiplicative hash, so that neighbours
// differ as in a real scan order.
static long bench_album_artist(long album, long artists) { return long((uint64_t(album) * 2654435761u) % uint64_t(artists)); }

static std::string bench_music;           // the shared music folder

static std::string bench_album_dir(long album, long artists)
{
    char dir[96];
    snprintf(dir, sizeof dir, "/Artist %04ld/Album %06ld", bench_album_artist(album, artists), album);
    return bench_music + dir;
}

// The disc folder: the files every album folder links to.
static bool bench_make_disc(const std::string& disc)
{
    if (mkdir(disc.c_str(), 0755))
        return false;
    for (long t = 1; t <= bench_album_max; t++) {
        char name[32];
        snprintf(name, sizeof name, "/%02ld.mp3", t);
        FILE* f = fopen((disc + name).c_str(), "w");
        if (!f)
            return false;
        fclose(f);
    }
    return true;
}

// The music folder of one size (set as bench_music): artist folders, and
// one link per album to the disc folder.
static bool bench_make_music(const std::string& top, long tracks)
{
    std::string disc = top + "/disc";
    bench_music = top + "/music-" + std::to_string(tracks);
    if (mkdir(bench_music.c_str(), 0755))
        return false;
    long artists = bench_artists(tracks);
    for (long a = 0; a < artists; a++) {
        char name[32];
        snprintf(name, sizeof name, "/Artist %04ld", a);
        mkdir((bench_music + name).c_str(), 0755);
    }
    for (long album = 0; album < bench_albums(tracks); album++)
        if (symlink(disc.c_str(), bench_album_dir(album, artists).c_str()))
            return false;
    return true;
}

static void bench_track(long album, long track, long artists, long salt)
{
    char path[160], artist[32], album_name[32], genre[32], title[64], date[16], number[8];
    long album_artist = bench_album_artist(album, artists);
    bool compilation = album % 20 == 7;
    long artist_of_track = compilation ? (album_artist + track * 131) % artists : album_artist;
    snprintf(path, sizeof path, "%s/%02ld.mp3", bench_album_dir(album, artists).c_str(), track);
    snprintf(artist, sizeof artist, "Artist %04ld", (artist_of_track + salt) % artists);
    snprintf(album_name, sizeof album_name, "Album %06ld", album);
    snprintf(genre, sizeof genre, "Genre %02ld", (album * 37 + album_artist) % 60);
    snprintf(title, sizeof title, "Song %ld of album %ld", track, album);
    snprintf(date, sizeof date, "%04ld-%02ld-01", 1955 + (album * 13 + album_artist) % 70, 1 + album % 12);
    snprintf(number, sizeof number, "%ld", track);
    db_meta_list* list = db_meta_list_add(nullptr, DBK_TYPE, "14", 0);
    const std::pair<int32_t, const char*> tags[] = {
        {DBK_TITLE, title}, {DBK_ARTIST, artist}, {DBK_ALBUM, album_name}, {DBK_GENRE, genre},
        {DBK_DATE, date}, {DBK_TRACK, number}, {DBK_SIZE_TEXT, "4000000"},
    };
    for (const auto& [key, value] : tags)
        list = db_meta_list_add(list, key, value, 0);
    if (compilation)
        list = db_meta_list_add(list, DBK_COMPILATION, "1", 0);
    char head[16];
    snprintf(head, sizeof head, "%02X%03X", unsigned(DBK_PATH), unsigned(strlen(path)));
    std::string raw = std::string("0300214\n") + head + path + "\n";
    db_object_add(list, path, DB_OBJ_AUDIO, 0, raw.c_str(), int32_t(raw.size()));
    db_meta_list_free(list);
}

// Calls fn(album, track) for the first n tracks of the library.
template <class F> static void bench_each_track(long n, F fn)
{
    long done = 0;
    for (long album = 0; done < n; album++)
        for (long t = 1; t <= bench_album_tracks(album) && done < n; t++, done++)
            fn(album, t, done);
}

// ---- One run ----------------------------------------------------------------

struct bench_result {
    long tracks, autotree, items, refs, containers, widest;
    double refs_per, rss_per, account_per, add_us, sweep_s, stat_s, empty_s, update_us;
    int ok;
    char widest_title[48];      // and whose parent
};

// Counts what a walk of the tree meets; widest is the most children of one
// folder of references (the "All" folders hold every item themselves).
static void bench_count(long* items, long* refs, long* containers, long* widest, char* title = nullptr,
                        size_t title_size = 0)
{
    db_lock_guard hold;
    *items = *refs = *containers = *widest = 0;
    std::vector<db_object*> stack{db_root};
    while (!stack.empty()) {
        db_object* c = stack.back();
        stack.pop_back();
        ++*containers;
        if (db_container_child_count(c) > *widest && db_type_is_ref(db_object_type_of(db_container_child(c, 0))))
        {
            *widest = db_container_child_count(c);
            const char* own = db_object_get_str(c, DBK_TITLE);
            const char* up = db_object_parent(c) ? db_object_get_str(db_object_parent(c), DBK_TITLE) : nullptr;
            if (title)
                snprintf(title, title_size, "%s/%s", up ? up : "", own ? own : "");
        }
        for (int32_t i = 0; i < db_container_child_count(c); i++) {
            db_object* x = db_container_child(c, i);
            int32_t t = db_object_type_of(x);
            if (db_type_is_container(t))
                stack.push_back(x);
            else if (db_type_is_ref(t))
                ++*refs;
            else if (db_type_is_item(t))
                ++*items;
        }
    }
}

static std::string bench_program;          // the program folder, with resources/

static bench_result bench_run(long tracks, long autotree)
{
    bench_result r{};
    r.tracks = tracks;
    r.autotree = autotree;
    std::string argv0 = bench_program + "/velmora";
    std::vector<char*> arguments{argv0.data(), nullptr};
    upnp_switches.tree_flat = 0;
    upnp_ini_file_read_cmdline(1, arguments.data());
    upnp_ini_set(UPNP_OPT_LANGUAGE, "en");
    upnp_ini_set(UPNP_OPT_CONTENTDIR, ("+A|" + bench_music).c_str());
    upnp_ini_set(UPNP_OPT_AUTOTREE, nullptr);
    upnp_ini_set(UPNP_OPT_AUTOTREE, "1");
    upnp_ini_set(UPNP_OPT_AUTOTREE, std::to_string(autotree).c_str());
    db_create();
    if (!db_file_open_memory(nullptr, 0))
        return r;
    db_build_root();
    db_set_tree_rules(db_tree_attach);
    long artists = bench_artists(tracks);

    long rss0 = bench_rss_kib();
    double t = bench_now();
    bench_each_track(tracks, [&](long album, long track, long) { bench_track(album, track, artists, 0); });
    r.add_us = (bench_now() - t) * 1e6 / double(tracks);
    r.rss_per = double(bench_rss_kib() - rss0) * 1024.0 / double(tracks);
    r.account_per = double(db_object_get_used_mem() + db_string_pool_get_used_mem() + db_path_index_bytes()) /
                    double(tracks);
    bench_count(&r.items, &r.refs, &r.containers, &r.widest, r.widest_title, sizeof r.widest_title);
    r.refs_per = double(r.refs) / double(tracks);

    db_request_shadow_sweep();
    t = bench_now();
    db_housekeeping(int64_t(time(nullptr)));
    r.sweep_s = bench_now() - t;
    long items, refs, containers, widest;
    bench_count(&items, &refs, &containers, &widest);
    r.ok = items == r.items && refs == r.refs && containers == r.containers && items == tracks;

    // The floor of the sweep: the file system's answer for each path alone.
    t = bench_now();
    bench_each_track(tracks, [&](long album, long track, long) {
        char path[160];
        struct stat st;
        snprintf(path, sizeof path, "%s/%02ld.mp3", bench_album_dir(album, artists).c_str(), track);
        r.ok = r.ok && stat(path, &st) == 0;
    });
    r.stat_s = bench_now() - t;

    db_request_container_sweep();
    t = bench_now();
    db_housekeeping(int64_t(time(nullptr)));
    r.empty_s = bench_now() - t;

    long updated = 0, stride = tracks / 1000 > 0 ? tracks / 1000 : 1;
    t = bench_now();
    bench_each_track(tracks, [&](long album, long track, long i) {
        if (i % stride == 0) {
            bench_track(album, track, artists, 1);
            updated++;
        }
    });
    r.update_us = (bench_now() - t) * 1e6 / double(updated ? updated : 1);
    return r;
}

// ---- The table ----------------------------------------------------------------

static void bench_growth(const char* what, double before, double after, double size_growth)
{
    double g = before > 0 ? after / before : 0;
    printf(" %s %5.1f%s", what, g, g > 1.2 * size_growth ? "!" : " ");
}

int main(int argc, char** argv)
{
    std::vector<long> sizes;
    for (int i = 1; i < argc; i++)
        sizes.push_back(long(upnp_parse_lenient(argv[i])));
    if (sizes.empty())
        sizes = {10000, 100000, 1000000};

    char scratch[] = "/var/tmp/velmora-rules-XXXXXX";
    if (!mkdtemp(scratch))
        return 1;
    std::string top = scratch;
    bench_program = top + "/program";
    mkdir(bench_program.c_str(), 0755);
    symlink(VELMORA_SOURCE_DIR "/resources", (bench_program + "/resources").c_str());
    setenv("LANG", "C", 1);
    long albums = 0;
    for (long n : sizes)
        albums += bench_albums(n);
    printf("making %ld album folders under %s\n", albums, top.c_str());
    fflush(stdout);
    bool made = bench_make_disc(top + "/disc");
    for (long n : sizes)
        made = made && bench_make_music(top, n);
    if (!made) {
        fprintf(stderr, "rules: could not make the files under %s\n", top.c_str());
        return 1;
    }

    printf("%8s %4s %9s %8s %8s %8s %9s %9s %8s %8s %8s %8s %9s  %s\n", "tracks", "tree", "folders", "widest", "refs/tr",
           "RSS B/tr", "acct B/tr", "add us/tr", "sweep ms", "stat ms", "empty ms", "upd us", "sweep ok",
           "growth of totals per size step: refs RSS acct add sweep stat empty");
    for (long autotree : {1L, 3L}) {
        bench_result previous{};
        for (long n : sizes) {
            bench_music = top + "/music-" + std::to_string(n);
            unlink((bench_program + "/velmora-mediaserver.ini").c_str());
            bench_result r{};
            if (!bench_in_child(&r, [&](bench_result* out) { *out = bench_run(n, autotree); })) {
                printf("%8ld %4ld  run failed\n", n, autotree);
                continue;
            }
            printf("%8ld %4ld %9ld %8ld %8.2f %8.0f %9.0f %9.2f %8.1f %8.1f %8.2f %8.2f %9s ", r.tracks, r.autotree,
                   r.containers, r.widest, r.refs_per, r.rss_per, r.account_per, r.add_us, r.sweep_s * 1e3,
                   r.stat_s * 1e3, r.empty_s * 1e3,
                   r.update_us, r.ok ? "yes" : "NO");
            if (previous.tracks) {
                double s = double(r.tracks) / double(previous.tracks), p = double(previous.tracks);
                double q = double(r.tracks);
                printf(" x%.0f:", s);
                bench_growth("", previous.refs_per * p, r.refs_per * q, s);
                bench_growth("", previous.rss_per * p, r.rss_per * q, s);
                bench_growth("", previous.account_per * p, r.account_per * q, s);
                bench_growth("", previous.add_us * p, r.add_us * q, s);
                bench_growth("", previous.sweep_s, r.sweep_s, s);
                bench_growth("", previous.stat_s, r.stat_s, s);
                bench_growth("", previous.empty_s, r.empty_s, s);
            }
            printf("\n");
            if (r.widest_title[0])
                printf("%8s %4s widest folder of references: %s\n", "", "", r.widest_title);
            previous = r;
        }
    }
    std::string remove = "rm -rf '" + top + "'";
    return system(remove.c_str()) == 0 ? 0 : 1;
}
