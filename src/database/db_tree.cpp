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

// Lexical, like the scanner that stored the path: a link a user placed in a
// shared folder stays served, a path that climbs out of one never is.
static bool tree_path_plain(const char* path)
{
    if (path[0] != '/')
        return false;
    for (const char* p = path; *p;) {
        const char* next = strchr(p + 1, '/');
        size_t n = next ? size_t(next - p - 1) : strlen(p + 1);
        if (n == 0 || (n == 1 && p[1] == '.') || (n == 2 && p[1] == '.' && p[2] == '.'))
            return false;
        if (!next)
            break;
        p = next;
    }
    return true;
}

// The length of folder when path lies within it, else 0.
static size_t tree_within(const char* path, const char* folder)
{
    size_t n = folder ? strlen(folder) : 0;
    while (n > 1 && folder[n - 1] == '/')
        n--;
    if (n == 0 || strncmp(path, folder, n) != 0)
        return 0;
    return path[n] == '/' || (n == 1 && folder[0] == '/') ? n : 0;
}

int db_file_is_served(const char* path)
{
    if (!path || !tree_path_plain(path))
        return 0;
    size_t longest = 0;
    bool enabled = false;
    for (int32_t i = 0; const char* entry = upnp_contentdir_get(i); i++) {
        size_t n = strlen(entry) < 4 ? 0 : tree_within(path, entry + 3);
        if (n > longest) {
            longest = n;
            enabled = entry[0] == '+';
        }
    }
    if (longest)
        return enabled;
    char upload[sizeof tree_upload_dir];
    {
        std::lock_guard<std::mutex> hold(tree_upload_lock);
        memcpy(upload, tree_upload_dir, sizeof upload);
    }
    return tree_within(path, upnp_ini_get_string(UPNP_OPT_DBDIR)) || tree_within(path, upload);
}

void db_set_upload_dir(const char* dir)
{
    std::lock_guard<std::mutex> hold(tree_upload_lock);
    snprintf(tree_upload_dir, sizeof tree_upload_dir, "%s", dir ? dir : "");
}
