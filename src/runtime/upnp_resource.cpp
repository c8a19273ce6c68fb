// upnp_resource.cpp: the files of the program itself: resource files
// beside the program (first under "resources", then in the program folder),
// names for temporary files under the database folder, and the folder of
// the executable.
//
// Resource names arrive from URLs too, so a name that could leave the
// program folder ("..", a leading '/', a '\') is refused before any path is
// built, and only regular files are read (a FIFO would block the caller).
// The program folder is handed down by the options at start, before any
// thread reads it, and the temp counter is an atomic.
#include "runtime/upnp_string.h"


#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static std::atomic<int32_t> resource_temp_counter{0};
static char resource_program_dir[1024];   // written at start only

static int resource_name_ok(const char* name)
{
    return name && *name && name[0] != '/' && !strstr(name, "..") && !strchr(name, '\\');
}

// Reads a regular file whole; the block has no terminator.
static int resource_read_file(const char* path, int32_t* size, void** data)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return 0;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size >= INT32_MAX) {
        close(fd);
        return 0;
    }
    size_t n = size_t(st.st_size);
    char* block = static_cast<char*>(malloc(n ? n : 1));
    size_t got = 0;
    while (block && got < n) {
        ssize_t r = read(fd, block + got, n - got);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        got += size_t(r);
    }
    close(fd);
    if (!block || got != n) {
        free(block);
        return 0;
    }
    *size = int32_t(n);
    *data = block;
    return 1;
}

void upnp_set_program_dir(const char* dir)
{
    snprintf(resource_program_dir, sizeof resource_program_dir, "%s", dir ? dir : "");
}

int upnp_read_resource(const char* name, int32_t* size, void** data)
{
    if (!size || !data)
        return 0;
    *size = 0;
    *data = nullptr;
    const char* dir = resource_program_dir;
    if (!resource_name_ok(name))
        return 0;
    if (!*dir)
        dir = ".";
    char path[1024];
    int n = snprintf(path, sizeof path, "%s/resources/%s", dir, name);
    if (n > 0 && size_t(n) < sizeof path && resource_read_file(path, size, data))
        return 1;
    n = snprintf(path, sizeof path, "%s/%s", dir, name);
    return n > 0 && size_t(n) < sizeof path && resource_read_file(path, size, data);
}

char* upnp_temp_file_name(const char* dbdir)
{
    if (!dbdir || !*dbdir)
        dbdir = ".";
    char path[1024];
    snprintf(path, sizeof path, "%s/temp", dbdir);
    mkdir(path, 0755);
    int32_t number = resource_temp_counter.fetch_add(1);
    int n = snprintf(path, sizeof path, "%s/temp/tempfile%d", dbdir, int(number));
    if (n < 0 || size_t(n) >= sizeof path)
        return nullptr;
    return strdup(path);
}

char* upnp_module_dir()
{
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return nullptr;
    path[n] = 0;
    char* slash = strrchr(path, '/');
    if (!slash)
        return nullptr;
    slash[slash == path ? 1 : 0] = 0;
    return strdup(path);
}
