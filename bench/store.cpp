// store: builds a realistic library through the store's own calls and
// prints, per size, what it costs: resident bytes per item (RSS delta)
// beside the memory account, inserts per second, lookups by id word, id
// text and path per second, the time to sort all items by title, and the
// time to write the block file and to load it back.
//
// Each size runs in a child process, so that one size's memory never
// shows in the next one's figures. The records of the measured build go to
// a record store that keeps nothing: it gives blocks in order and makes a
// block's path again from its number, so that the resident figure is the
// store's alone. The block file is then written and loaded for real, in a
// scratch folder.
//
// Usage: store [items...]   (default 10000 100000 1000000)
#include "bench_child.h"
#include "config/upnp_ini.h"
#include "database/db_file.h"
#include "database/db_object.h"
#include "runtime/upnp_string.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

static constexpr int ARTISTS = 2000, ALBUMS = 10000, GENRES = 60;

struct bench_result {
    long items;
    double rss_per_item, account_per_item, objects_per_item, pool_per_item;
    double inserts_per_s, id_lookups_per_s, text_lookups_per_s, path_lookups_per_s;
    double sort_s, sort_again_s, write_s, load_s;
    long loaded;
};

static double bench_now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

static long bench_rss()
{
    FILE* f = fopen("/proc/self/statm", "r");
    long size = 0, resident = 0;
    if (f) {
        if (fscanf(f, "%ld %ld", &size, &resident) != 2)
            resident = 0;
        fclose(f);
    }
    return resident * sysconf(_SC_PAGESIZE);
}

// Item i: 80 % tracks, 15 % photos, 5 % videos, each with a path of its own.
static int32_t bench_type(long i)
{
    long r = i % 20;
    return r < 16 ? DB_OBJ_AUDIO : r < 19 ? DB_OBJ_PHOTO : DB_OBJ_VIDEO;
}

static void bench_path(long i, char* out, size_t size)
{
    int32_t type = bench_type(i);
    long album = (i * 7919) % ALBUMS, artist = album % ARTISTS;
    if (type == DB_OBJ_AUDIO)
        snprintf(out, size, "/srv/media/music/Artist %04ld/Album %05ld/%02ld Track %07ld.mp3", artist, album,
                 i % 14 + 1, i);
    else if (type == DB_OBJ_PHOTO)
        snprintf(out, size, "/srv/media/photos/%04ld/%02ld/IMG_%07ld.jpg", 2000 + i % 24, i % 12 + 1, i);
    else
        snprintf(out, size, "/srv/media/videos/Series %03ld/Episode %07ld.mkv", i % 300, i);
}

static db_meta_list* bench_meta(long i)
{
    char title[64], artist[32], album[32], genre[32], track[8], date[16], duration[16], size[24];
    long a = (i * 7919) % ALBUMS;
    int32_t type = bench_type(i);
    // Titles in no relation to the order the files are found in, as in a
    // real library (a prime modulus keeps them distinct).
    snprintf(title, sizeof title, "%s %07ld", type == DB_OBJ_AUDIO ? "Song" : "Picture", i * 7777777 % 9999991);
    snprintf(date, sizeof date, "%04ld-%02ld-%02ld", 1960 + a % 60, i % 12 + 1, i % 28 + 1);
    snprintf(size, sizeof size, "%ld", 2000000 + (i * 37) % 9000000);
    db_meta_list* l = nullptr;
    l = db_meta_list_add(l, DBK_TITLE, title, 0);
    l = db_meta_list_add(l, DBK_DATE, date, 0);
    l = db_meta_list_add(l, DBK_SIZE_TEXT, size, 0);
    l = db_meta_list_add(l, DBK_SOURCE_KIND, "d", 0);
    if (type == DB_OBJ_PHOTO)
        return db_meta_list_add(l, DBK_RESOLUTION, i % 2 ? "4000x3000" : "3000x4000", 0);
    snprintf(duration, sizeof duration, "0:%02ld:%02ld.000", 2 + i % 6, i % 60);
    l = db_meta_list_add(l, DBK_DURATION, duration, 0);
    if (type == DB_OBJ_VIDEO)
        return db_meta_list_add(l, DBK_RESOLUTION, "1920x1080", 0);
    snprintf(artist, sizeof artist, "Artist %04ld", a % ARTISTS);
    snprintf(album, sizeof album, "Album %05ld", a);
    snprintf(genre, sizeof genre, "Genre %02ld", a % GENRES);
    snprintf(track, sizeof track, "%ld", i % 14 + 1);
    l = db_meta_list_add(l, DBK_ARTIST, artist, 0);
    l = db_meta_list_add(l, DBK_ALBUM, album, 0);
    l = db_meta_list_add(l, DBK_GENRE, genre, 0);
    return db_meta_list_add(l, DBK_TRACK, track, 0);
}

// ---- A record store that keeps nothing --------------------------------------------

static uint32_t bench_next_block;
static long bench_items;

static uint32_t bench_store(const char*, int32_t)
{
    return ++bench_next_block;
}

static int bench_rewrite(uint32_t, const db_object*, const char*)
{
    return 1;
}

static void bench_free_chain(uint32_t) {}

static char* bench_read_path(uint32_t block, int32_t* type)
{
    if (block < 1 || long(block) > bench_items)
        return nullptr;
    char path[256];
    bench_path(long(block) - 1, path, sizeof path);
    *type = bench_type(long(block) - 1);
    return strdup(path);
}

static void bench_roots()
{
    db_root = db_container_new(0, "root", 1);
    db_object* music = db_container_new(uint32_t(DB_OBJ_MUSIC_CONTAINER) << DB_ID_TYPE_SHIFT | 10, "Music", 1);
    db_object* photo = db_container_new(uint32_t(DB_OBJ_PHOTO_ALBUM) << DB_ID_TYPE_SHIFT | 30, "Picture", 1);
    db_object* video = db_container_new(uint32_t(DB_OBJ_VIDEO_CONTAINER) << DB_ID_TYPE_SHIFT | 50, "Video", 1);
    db_container_add_child(db_root, music);
    db_container_add_child(db_root, photo);
    db_container_add_child(db_root, video);
    db_music_root = db_all_music = music;
    db_picture_root = db_all_pictures = photo;
    db_video_root = db_all_video = video;
}

static std::string bench_raw(long i)
{
    db_meta_list* l = bench_meta(i);
    char path[256], type[8];
    bench_path(i, path, sizeof path);
    snprintf(type, sizeof type, "%d", bench_type(i));
    l = db_meta_list_add(l, DBK_TYPE, type, 0);
    l = db_meta_list_add(l, DBK_PATH, path, 0);
    upnp_string* s = db_meta_list_to_text(l);
    std::string raw(s->text + 5, size_t(s->length - 5));
    upnp_string_free(s);
    db_meta_list_free(l);
    return raw;
}

static void bench_insert(long n, bench_result* r)
{
    double t0 = bench_now();
    char path[256];
    for (long i = 0; i < n; i++) {
        db_meta_list* l = bench_meta(i);
        bench_path(i, path, sizeof path);
        if (!db_object_add(l, path, bench_type(i), 0, "x", 1)) {
            fprintf(stderr, "add %ld failed\n", i);
            exit(1);
        }
        db_meta_list_free(l);
    }
    r->inserts_per_s = double(n) / (bench_now() - t0);
}

static void bench_lookups(long n, bench_result* r)
{
    const long m = 200000;
    std::vector<uint32_t> ids(static_cast<size_t>(m));
    std::vector<std::string> texts(static_cast<size_t>(m));
    uint64_t x = 88172645463325252ull;
    for (long k = 0; k < m; k++) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        long i = long(x % uint64_t(n));
        ids[size_t(k)] = db_make_id(uint32_t(i + 1), bench_type(i));
    }
    double t0 = bench_now();
    long found = 0;
    for (uint32_t id : ids)
        found += db_get_pItem_by_id(id) != nullptr;
    r->id_lookups_per_s = double(m) / (bench_now() - t0);
    char text[DB_ID_TEXT_SIZE];
    for (long k = 0; k < m; k++)
        texts[size_t(k)] = db_object_id_text(db_get_pItem_by_id(ids[size_t(k)]), text, sizeof text);
    t0 = bench_now();
    for (const std::string& t : texts)
        found += db_get_item_by_id(t.c_str(), nullptr) != nullptr;
    r->text_lookups_per_s = double(m) / (bench_now() - t0);
    std::vector<std::string> paths(static_cast<size_t>(m));
    char path[256];
    for (long k = 0; k < m; k++) {
        bench_path(long(db_id_to_block(ids[size_t(k)])) - 1, path, sizeof path);
        paths[size_t(k)] = path;
    }
    t0 = bench_now();
    for (const std::string& p : paths)
        found += upnp_cds_db_file_get_id_by_res(p.c_str()) != 0;
    r->path_lookups_per_s = double(m) / (bench_now() - t0);
    if (found != 3 * m) {
        fprintf(stderr, "lookups found %ld of %ld\n", found, 3 * m);
        exit(1);
    }
}

// Children arrive in the order the scanner found their files, not by
// title, so the list is shuffled (the same way every run) before each sort.
static void bench_shuffle(std::vector<db_object*>& all, uint64_t seed)
{
    for (size_t i = all.size(); i > 1; i--) {
        seed ^= seed << 13, seed ^= seed >> 7, seed ^= seed << 17;
        std::swap(all[i - 1], all[seed % i]);
    }
}

// The first sort pays for the first touch of its scratch memory; a server
// sorts the same large lists again at every page of a Browse.
static double bench_sort_once(std::vector<db_object*>& all, uint64_t seed)
{
    bench_shuffle(all, seed);
    db_lock();
    double t0 = bench_now();
    db_sort_prepare("+dc:title", DB_OBJ_CONTAINER, nullptr);
    db_sort_objects(all.data(), int32_t(all.size()));
    double t = bench_now() - t0;
    db_unlock();
    return t;
}

static void bench_sort(bench_result* r)
{
    std::vector<db_object*> all;
    for (db_object* c : {db_all_music, db_all_pictures, db_all_video}) {
        size_t at = all.size();
        all.resize(at + size_t(db_container_child_count(c)));
        db_container_children(c, all.data() + at, db_container_child_count(c));
    }
    r->sort_s = bench_sort_once(all, 88172645463325252ull);
    r->sort_again_s = bench_sort_once(all, 2463534242ull);
}

// Writes every record into a real block file, then loads it into a new store.
static void bench_file(long n, bench_result* r)
{
    char dir[] = "/tmp/velmora-bench-XXXXXX";
    if (!mkdtemp(dir))
        return;
    upnp_ini_set(UPNP_OPT_DBDIR, dir);
    db_file_open();
    std::vector<std::string> raws(static_cast<size_t>(n));
    for (long i = 0; i < n; i++)
        raws[size_t(i)] = bench_raw(i);
    double t0 = bench_now();
    for (const std::string& raw : raws)
        db_file_store(raw.c_str(), int32_t(raw.size()));
    db_file_flush_header();
    db_file_close();
    r->write_s = bench_now() - t0;
    raws.clear();
    raws.shrink_to_fit();
    db_destroy();
    db_create();
    bench_roots();
    db_file_open();
    t0 = bench_now();
    db_file_load_all(nullptr);
    r->load_s = bench_now() - t0;
    r->loaded = db_count_music() + db_count_pictures() + db_count_videos();
    db_file_close();
    std::string cleanup = std::string("rm -rf ") + dir;
    if (system(cleanup.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", dir);
}

// A small build first, thrown away, so that the code pages and the
// allocator's first arenas do not count as the library's memory.
static void bench_warm_up(const db_record_store* store)
{
    bench_result scratch{};
    bench_items = 2000;
    db_create();
    db_set_record_store(store);
    bench_roots();
    bench_insert(2000, &scratch);
    bench_lookups(2000, &scratch);
    bench_sort(&scratch);
    db_path_index_free();
    db_destroy();
    bench_next_block = 0;
}

static void bench_run(long n, bench_result* r)
{
    *r = bench_result{};
    r->items = n;
    db_record_store store = {bench_store, bench_rewrite, bench_free_chain, bench_read_path};
    bench_warm_up(&store);
    bench_items = n;
    db_create();
    db_set_record_store(&store);
    bench_roots();
    long rss0 = bench_rss();
    int64_t objects0 = db_object_get_used_mem(), pool0 = db_string_pool_get_used_mem();
    bench_insert(n, r);
    r->rss_per_item = double(bench_rss() - rss0) / double(n);
    r->objects_per_item = double(db_object_get_used_mem() - objects0) / double(n);
    r->pool_per_item = double(db_string_pool_get_used_mem() - pool0) / double(n);
    r->account_per_item = r->objects_per_item + r->pool_per_item;
    bench_lookups(n, r);
    bench_sort(r);
    db_set_record_store(nullptr);
    db_path_index_free();
    bench_file(n, r);
    db_destroy();
}

static void bench_print(const bench_result& r)
{
    printf("%9ld items | RSS %6.1f B/item, account %6.1f (objects %5.1f + pool %5.1f), ratio %.2f\n", r.items,
           r.rss_per_item, r.account_per_item, r.objects_per_item, r.pool_per_item,
           r.rss_per_item / r.account_per_item);
    printf("          inserts %9.0f/s | by id word %10.0f/s | by id text %9.0f/s | by path %9.0f/s\n",
           r.inserts_per_s, r.id_lookups_per_s, r.text_lookups_per_s, r.path_lookups_per_s);
    printf("          sort all by title %.3f s, again %.3f s | block file write %.3f s, load %.3f s (%ld items back)\n",
           r.sort_s, r.sort_again_s, r.write_s, r.load_s, r.loaded);
}

static void bench_growth(const bench_result& a, const bench_result& b)
{
    double f = double(b.items) / double(a.items);
    auto grow = [&](double rate_a, double rate_b) { return f * rate_a / rate_b; };
    printf("growth %ld -> %ld (x%.0f items), time factors: insert %.1f, id %.1f, text %.1f, path %.1f, "
           "sort %.1f, again %.1f, write %.1f, load %.1f\n",
           a.items, b.items, f, grow(a.inserts_per_s, b.inserts_per_s), grow(a.id_lookups_per_s, b.id_lookups_per_s) / f,
           grow(a.text_lookups_per_s, b.text_lookups_per_s) / f, grow(a.path_lookups_per_s, b.path_lookups_per_s) / f,
           b.sort_s / a.sort_s, b.sort_again_s / a.sort_again_s, b.write_s / a.write_s, b.load_s / a.load_s);
}

int main(int argc, char** argv)
{
    std::vector<long> sizes;
    for (int i = 1; i < argc; i++)
        sizes.push_back(atol(argv[i]));
    if (sizes.empty())
        sizes = {10000, 100000, 1000000};
    std::vector<bench_result> results;
    for (long n : sizes) {
        bench_result r{};
        if (!bench_in_child(&r, [n](bench_result* out) { bench_run(n, out); })) {
            fprintf(stderr, "size %ld failed\n", n);
            return 1;
        }
        bench_print(r);
        fflush(stdout);
        results.push_back(r);
    }
    for (size_t i = 1; i < results.size(); i++)
        bench_growth(results[i - 1], results[i]);
    return 0;
}
