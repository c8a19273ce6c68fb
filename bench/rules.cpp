// rules: what the navigation rules cost as a library grows. For each size
// it builds the full tree with four music nodes (two levels, three levels,
// a letter index, one level), adds that many tracks, then updates every
// one with another artist, which takes its references out and places them
// again. It prints the time per add and per update for each quarter, and
// the memory account per item (records only: the lookups beside the tree
// are not in it). With the folder lookup and the reference removal
// independent of the tree's size, the times stay flat.
//
// Usage: rules [items...]   (default 10000 40000)
#include "config/upnp_ini.h"
#include "database/db_file.h"
#include "database/db_object.h"
#include "database/db_tree.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

static double bench_now()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

static void bench_track(long i, long salt)
{
    char path[128], artist[32], album[32], genre[32], head[16];
    snprintf(path, sizeof path, "/srv/music/%05ld/%07ld.mp3", i % 10000, i);
    snprintf(artist, sizeof artist, "Artist %04ld", (i * 7 + salt) % 2000);
    snprintf(album, sizeof album, "Album %05ld", i % 10000);
    snprintf(genre, sizeof genre, "Genre %02ld", i % 60);
    db_meta_list* list = db_meta_list_add(nullptr, DBK_ARTIST, artist, 1);
    list = db_meta_list_add(list, DBK_ALBUM, album, 1);
    list = db_meta_list_add(list, DBK_GENRE, genre, 1);
    list = db_meta_list_add(list, DBK_TITLE, path, 1);
    snprintf(head, sizeof head, "%02X%03X", unsigned(DBK_PATH), unsigned(strlen(path)));
    std::string raw = std::string("0300214\n") + head + path + "\n";
    db_object_add(list, path, DB_OBJ_AUDIO, 0, raw.c_str(), int32_t(raw.size()));
    db_meta_list_free(list);
}

static void bench_size(long items)
{
    upnp_switches.tree_flat = 0;
    db_create();
    if (!db_file_open_memory(nullptr, 0))
        return;
    upnp_ini_set(UPNP_OPT_MUSICNODE1, "Artist,%ARTIST,%ALBUM");
    upnp_ini_set(UPNP_OPT_MUSICNODE2, "Genre,%GENRE,%ARTIST,%ALBUM");
    upnp_ini_set(UPNP_OPT_MUSICNODE3, "Index,[3]%ARTIST,%ALBUM");
    upnp_ini_set(UPNP_OPT_MUSICNODE4, "Album,%ALBUM");
    db_build_root();
    db_set_tree_rules(db_tree_attach);
    long quarter = items / 4 > 0 ? items / 4 : 1;
    for (long salt = 0; salt < 2; salt++) {
        double t = bench_now();
        for (long i = 0; i < items; i++) {
            bench_track(i, salt);
            if ((i + 1) % quarter == 0) {
                printf("%8ld items  %s %8ld..%-8ld %7.1f us each\n", items, salt ? "update" : "add   ",
                       i + 1 - quarter, i + 1, (bench_now() - t) * 1e6 / double(quarter));
                t = bench_now();
            }
        }
    }
    printf("%8ld items  memory account %.1f bytes per item\n", items,
           double(db_object_get_used_mem()) / double(items));
    db_set_tree_rules(nullptr);
    db_file_close();
    db_destroy();
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        bench_size(10000);
        bench_size(40000);
    }
    for (int i = 1; i < argc; i++)
        bench_size(long(upnp_parse_lenient(argv[i])));
    return 0;
}
