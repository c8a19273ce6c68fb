// db_tree.cpp: the navigation tree's view of the files behind the items.
// The shared folders come from the options each time, so a changed folder
// list counts at once; the only state is the upload folder, under its own
// small lock.
#include "database/db_tree.h"

#include "config/upnp_ini.h"
#include "runtime/upnp_file.h"

#include <cstdio>
#include <cstring>
#include <mutex>

static char tree_upload_dir[1024];   // tree_upload_lock
static std::mutex tree_upload_lock;

// Which object types a shared folder's kind letter admits.
static bool tree_kind_fits(char kind, int32_t type)
{
    static const struct { char kind; int32_t types[7]; } kinds[] = {
        {'M', {2, 6, 8, 9, 14, 15, 20}},
        {'P', {3, 7, 13, -1, -1, -1, -1}},
        {'V', {4, 16, 18, 19, -1, -1, -1}},
        {'T', {5, 17, -1, -1, -1, -1, -1}},
    };
    if (kind == 'A')
        return true;
    for (const auto& k : kinds)
        if (k.kind == kind)
            for (int32_t t : k.types)
                if (t == type)
                    return true;
    return false;
}

static bool tree_starts_with(const char* path, const char* prefix)
{
    return prefix && *prefix && !strncmp(path, prefix, strlen(prefix));
}

int32_t db_file_status(const char* path, int32_t type)
{
    if (!path)
        return DB_FILE_GONE;
    if (!strncmp(path, "http://", 7) || !strncmp(path, "ftp://", 6))
        return DB_FILE_URL;
    upnp_file_info info;
    if (upnp_file_stat(path, &info) != 0)
        return DB_FILE_GONE;
    // File identity is exact here, so folders compare byte for byte.
    size_t longest = 0;
    int32_t status = 0;
    for (int32_t i = 0; const char* entry = upnp_contentdir_get(i); i++) {
        if (strlen(entry) < 4 || !tree_kind_fits(entry[1], type))
            continue;
        size_t length = strlen(entry + 3);
        if (length > longest && tree_starts_with(path, entry + 3)) {
            longest = length;
            status = entry[0] == '+' ? DB_FILE_SHARED : DB_FILE_EXCLUDED;
        }
    }
    if (status)
        return status;
    char upload[sizeof tree_upload_dir];
    {
        std::lock_guard<std::mutex> hold(tree_upload_lock);
        memcpy(upload, tree_upload_dir, sizeof upload);
    }
    if (tree_starts_with(path, upnp_ini_get_string(UPNP_OPT_DBDIR)) || tree_starts_with(path, upload))
        return DB_FILE_SHARED;
    return DB_FILE_GONE;
}

void db_set_upload_dir(const char* dir)
{
    std::lock_guard<std::mutex> hold(tree_upload_lock);
    snprintf(tree_upload_dir, sizeof tree_upload_dir, "%s", dir ? dir : "");
}
