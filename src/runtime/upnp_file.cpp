// upnp_file.cpp: the file layer. Owns no globals and no lock: a handle or a
// walker belongs to the thread that opened it. Paths are UTF-8 bytes handed
// to the kernel as they are. Every descriptor is opened close-on-exec, and
// opened non-blocking first so that a FIFO planted where a media file was
// expected fails at once instead of hanging a streaming thread; only regular
// files become handles. Times come from statx: the birth time where the file
// system keeps one, else the modification time, so an unknown time never
// reads as 1970 (which would hide every file). The walker reads one entry at
// a time, stats it relative to the open directory, and skips what cannot be
// served: dot names, FIFOs, sockets, devices, dangling links, paths too long
// to hold whole, and entries with impossible times, which leave a marker.
#include "runtime/upnp_file.h"

#include "runtime/upnp_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <strings.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

static constexpr unsigned FILE_STATX_MASK = STATX_TYPE | STATX_MODE | STATX_SIZE | STATX_ATIME
                                            | STATX_MTIME | STATX_BTIME | STATX_INO;

// ---------------------------------------------------------------- attributes

static int file_statx(int dirfd, const char* name, int flags, struct statx* sx)
{
    return statx(dirfd, name, flags | AT_NO_AUTOMOUNT, FILE_STATX_MASK, sx);
}

// Some file systems report a birth time of zero rather than none at all.
static struct statx_timestamp file_created(const struct statx* sx)
{
    const struct statx_timestamp& b = sx->stx_btime;
    if ((sx->stx_mask & STATX_BTIME) && (b.tv_sec != 0 || b.tv_nsec != 0))
        return b;
    return sx->stx_mtime;
}

static int file_before_1970(const struct statx_timestamp& t)
{
    return t.tv_sec < 0;
}

// The walker's test is stricter than stat's: 1970-01-01 00:00:00 itself is
// not after the floor, and a file stamped with it was never really dated.
static int file_not_after_1970(const struct statx_timestamp& t)
{
    return t.tv_sec < 0 || (t.tv_sec == 0 && t.tv_nsec == 0);
}

static int file_times_invalid(const struct statx* sx)
{
    return file_not_after_1970(file_created(sx)) || file_not_after_1970(sx->stx_atime)
           || file_not_after_1970(sx->stx_mtime);
}

static int file_info_from(const struct statx* sx, upnp_file_info* info)
{
    struct statx_timestamp created = file_created(sx);
    if (file_before_1970(created) || file_before_1970(sx->stx_atime)
        || file_before_1970(sx->stx_mtime))
        return -1;
    int is_dir = S_ISDIR(sx->stx_mode);
    info->created = created.tv_sec;
    info->modified = sx->stx_mtime.tv_sec;
    info->accessed = sx->stx_atime.tv_sec;
    info->size = is_dir ? 0 : sx->stx_size;
    info->mode = (is_dir ? UPNP_FILE_MODE_DIR : UPNP_FILE_MODE_REG) | UPNP_FILE_MODE_READ;
    if (sx->stx_mode & (S_IWUSR | S_IWGRP | S_IWOTH))
        info->mode |= UPNP_FILE_MODE_WRITE;
    return 0;
}

int upnp_file_stat(const char* path, upnp_file_info* info)
{
    if (!info)
        return -1;
    memset(info, 0, sizeof *info);
    struct statx sx;
    if (!path || !*path || file_statx(AT_FDCWD, path, 0, &sx) != 0)
        return -1;
    return file_info_from(&sx, info);
}

static int64_t file_size_of_fd(int fd)
{
    struct statx sx;
    upnp_file_info info;
    if (file_statx(fd, "", AT_EMPTY_PATH, &sx) != 0 || file_info_from(&sx, &info) != 0)
        return -1;
    return int64_t(info.size);
}

// ---------------------------------------------------------------- handles

static int file_open_regular(const char* path, int flags, mode_t mode)
{
    if (!path || !*path)
        return -1;
    int fd;
    do
        fd = open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return -1;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

static upnp_file* file_new(int fd, int media, int64_t size)
{
    upnp_file* f = static_cast<upnp_file*>(calloc(1, sizeof(upnp_file)));
    if (!f)
        return nullptr;
    f->fd = fd;
    f->media = media;
    f->size = size;
    return f;
}

int upnp_file_stat_size(const char* path, upnp_file_info* info)
{
    int result = upnp_file_stat(path, info);
    if (result != 0)
        return result;
    if (upnp_file* f = upnp_mediafile_open_read(path)) {
        if (f->size >= 0)
            info->size = uint64_t(f->size);
        upnp_file_close(f);
    }
    return 0;
}

upnp_file* upnp_file_open_read(const char* path)
{
    int fd = file_open_regular(path, O_RDONLY, 0);
    if (fd < 0)
        return nullptr;
    upnp_file* f = file_new(fd, 0, file_size_of_fd(fd));
    if (!f)
        close(fd);
    return f;
}

upnp_file* upnp_file_open_write(const char* path)
{
    upnp_file* f = file_new(-1, 0, -1);
    if (!f) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, " Malloc fails on upnp_file_open_write \n");
        return nullptr;
    }
    f->fd = file_open_regular(path, O_WRONLY | O_CREAT, S_IRUSR | S_IWUSR);
    if (f->fd < 0) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, " file open write error \n");
        free(f);
        return nullptr;
    }
    struct stat st;
    if (fstat(f->fd, &st) == 0)
        f->size = st.st_size;
    return f;
}

upnp_file* upnp_mediafile_open_read(const char* path)
{
    int fd = file_open_regular(path, O_RDONLY, 0);
    if (fd < 0)
        return nullptr;
    int64_t size = file_size_of_fd(fd);
    if (size < 0) {
        printf("[ERROR] Failed to get file attributes!  (function:%s(%d))\n", __func__, __LINE__);
        close(fd);
        return nullptr;
    }
    upnp_file* f = file_new(fd, 1, size);
    if (!f)
        close(fd);
    return f;
}

static void file_close_fd(upnp_file* file)
{
    if (file->fd >= 0)
        close(file->fd);
    file->fd = -1;
}

void upnp_file_close(upnp_file* file)
{
    if (!file)
        return;
    file_close_fd(file);
    for (upnp_file_segment* s = file->segments; s;) {
        upnp_file_segment* next = s->next;
        free(s->path);
        free(s);
        s = next;
    }
    free(file);
}

static int64_t file_read_fd(int fd, void* buffer, size_t count)
{
    ssize_t n;
    do
        n = read(fd, buffer, count);
    while (n < 0 && errno == EINTR);
    return n;
}

int64_t upnp_file_read(upnp_file* file, void* buffer, size_t count)
{
    if (!file)
        return -1;
    int64_t n = file_read_fd(file->fd, buffer, count);
    if (n > 0)
        file->position += n;
    return n;
}

int64_t upnp_file_write(upnp_file* file, const void* buffer, size_t count)
{
    if (!file)
        return -1;
    ssize_t n;
    do
        n = write(file->fd, buffer, count);
    while (n < 0 && errno == EINTR);
    if (n > 0)
        file->position += n;
    return n;
}

size_t upnp_file_read_full(upnp_file* file, void* buffer, size_t count)
{
    size_t got = 0;
    while (got < count) {
        int64_t n = upnp_file_read(file, static_cast<char*>(buffer) + got, count - got);
        if (n <= 0)
            break;
        got += size_t(n);
    }
    return got;
}

int upnp_file_write_full(upnp_file* file, const void* buffer, size_t count)
{
    size_t put = 0;
    while (put < count) {
        int64_t n = upnp_file_write(file, static_cast<const char*>(buffer) + put, count - put);
        if (n <= 0)
            return 0;
        put += size_t(n);
    }
    return 1;
}

int64_t upnp_file_pread(upnp_file* file, void* buffer, size_t count, int64_t offset)
{
    if (!file || offset < 0)
        return -1;
    ssize_t n;
    do
        n = pread(file->fd, buffer, count, off_t(offset));
    while (n < 0 && errno == EINTR);
    return n;
}

static constexpr int file_whence[] = {SEEK_SET, SEEK_CUR, SEEK_END};

int64_t upnp_file_seek(upnp_file* file, int64_t offset, int origin)
{
    if (!file || origin < 0 || origin >= int(std::size(file_whence)))
        return -1;
    off_t at = lseek(file->fd, off_t(offset), file_whence[origin]);
    if (at < 0)
        return -1;
    file->position = at;
    return at;
}

int upnp_file_eof(upnp_file* file)
{
    return !file || file->position >= file->size;
}

char* upnp_file_gets(char* buffer, int size, upnp_file* file)
{
    if (!buffer || size <= 0)
        return nullptr;
    memset(buffer, 0, size_t(size));
    if (!file)
        return nullptr;
    int used = 0;
    while (used < size - 1) {
        if (upnp_file_read(file, buffer + used, 1) != 1)
            break;
        if (buffer[used++] == '\n')
            break;
    }
    return used ? buffer : nullptr;
}

// ---------------------------------------------------------------- segments

static int file_open_segment(upnp_file* file, upnp_file_segment* segment)
{
    file_close_fd(file);
    file->current = segment;
    file->fd = file_open_regular(segment->path, O_RDONLY, 0);
    return file->fd >= 0;
}

int64_t upnp_mediafile_read(upnp_file* file, void* buffer, size_t count)
{
    if (!file)
        return -1;
    int64_t n = upnp_file_read(file, buffer, count);
    if (n < 0 && !file->media) {
        struct timespec pause = {0, 50 * 1000 * 1000};
        nanosleep(&pause, nullptr);
        n = upnp_file_read(file, buffer, count);
    }
    if (n < 0 || uint64_t(n) >= count || !file->current || !file->current->next)
        return n;
    if (file_open_segment(file, file->current->next))
        return n;    // the caller's next read starts in the new segment
    int64_t more = upnp_file_read(file, static_cast<char*>(buffer) + n, count - size_t(n));
    return more > 0 ? n + more : n;
}

static int64_t file_seek_target(const upnp_file* file, int64_t offset, int origin)
{
    if (origin == 1)
        return file->position + offset;
    if (origin == 2)
        return file->size + offset;
    return offset;
}

int64_t upnp_mediafile_seek(upnp_file* file, int64_t offset, int origin)
{
    if (!file)
        return -1;
    if (!file->segments)
        return upnp_file_seek(file, offset, origin);
    int64_t target = file_seek_target(file, offset, origin);
    if (target == file->position)
        return target;
    int64_t start = 0;
    upnp_file_segment* s = file->segments;
    while (s && start + s->size < target) {
        start += s->size;
        s = s->next;
    }
    if (!s)
        return -1;
    if (s != file->current && !file_open_segment(file, s))
        return -1;
    if (lseek(file->fd, off_t(target - start), SEEK_SET) < 0)
        return -1;
    file->position = target;
    return target;
}

// ---------------------------------------------------------------- names

int upnp_mkdir(const char* path)
{
    return path && *path && mkdir(path, 0755) == 0 ? 0 : -1;
}

int upnp_mkdir_parents(const char* path)
{
    if (!path || !*path)
        return -1;
    char* copy = strdup(path);
    if (!copy)
        return -1;
    // Each prefix that ends before a '/' is made in turn; existing ones are fine.
    for (char* p = copy + 1; *p; p++) {
        if (*p != '/')
            continue;
        *p = 0;
        if (mkdir(copy, 0755) != 0 && errno != EEXIST) {
            free(copy);
            return -1;
        }
        *p = '/';
    }
    int made = mkdir(copy, 0755) == 0 || errno == EEXIST;
    free(copy);
    struct stat st;
    return made && stat(path, &st) == 0 && S_ISDIR(st.st_mode) ? 0 : -1;
}

int upnp_file_delete(const char* path)
{
    return path && *path && unlink(path) == 0 ? 0 : -1;
}

// For file systems without RENAME_NOREPLACE. A hard link refuses an existing
// target atomically; folders and file systems without links fall back to a
// look-then-rename, whose race only matters if someone creates the target
// in between.
static int file_rename_fallback(const char* old_path, const char* new_path)
{
    if (link(old_path, new_path) == 0) {
        unlink(old_path);
        return 0;
    }
    if (errno == EEXIST)
        return -1;
    struct stat st;
    if (lstat(new_path, &st) == 0 || errno != ENOENT)
        return -1;
    return rename(old_path, new_path) == 0 ? 0 : -1;
}

int upnp_file_rename(const char* old_path, const char* new_path)
{
    if (!old_path || !new_path || !*old_path || !*new_path)
        return -1;
    if (renameat2(AT_FDCWD, old_path, AT_FDCWD, new_path, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return -1;
    return file_rename_fallback(old_path, new_path);
}

// ---------------------------------------------------------------- full path

// Appends one component to out (which holds an absolute path without a
// trailing '/', "" standing for the root), resolving "." and ".." by text.
static void file_push_component(char* out, size_t* len, const char* part, size_t n)
{
    if (n == 0 || (n == 1 && part[0] == '.'))
        return;
    if (n == 2 && part[0] == '.' && part[1] == '.') {
        while (*len > 0 && out[*len - 1] != '/')
            (*len)--;
        if (*len > 0)
            (*len)--;
        out[*len] = 0;
        return;
    }
    out[(*len)++] = '/';
    memcpy(out + *len, part, n);
    *len += n;
    out[*len] = 0;
}

static void file_push_path(char* out, size_t* len, const char* path)
{
    while (*path) {
        const char* end = strchr(path, '/');
        size_t n = end ? size_t(end - path) : strlen(path);
        file_push_component(out, len, path, n);
        path += n;
        if (*path == '/')
            path++;
    }
}

char* upnp_file_fullpath(const char* path)
{
    if (!path || !*path)
        return nullptr;
    char* cwd = nullptr;
    if (path[0] != '/' && !(cwd = getcwd(nullptr, 0)))
        return nullptr;
    size_t room = strlen(path) + (cwd ? strlen(cwd) : 0) + 3;
    char* out = static_cast<char*>(malloc(room));
    if (out) {
        size_t len = 0;
        out[0] = 0;
        if (cwd)
            file_push_path(out, &len, cwd);
        file_push_path(out, &len, path);
        // A trailing separator said "folder"; keep it, as the root keeps its one.
        if (len == 0 || path[strlen(path) - 1] == '/')
            out[len++] = '/';
        out[len] = 0;
    }
    free(cwd);
    return out;
}

int upnp_file_identity(const char* path, uint64_t* device, uint64_t* inode)
{
    struct statx sx;
    if (!path || !*path || file_statx(AT_FDCWD, path, 0, &sx) != 0)
        return -1;
    *device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    *inode = sx.stx_ino;
    return 0;
}

char* upnp_file_realpath(const char* path)
{
    return path && *path ? realpath(path, nullptr) : nullptr;
}

// ---------------------------------------------------------------- whole files

static int file_read_exact(int fd, char* data, size_t size, size_t* got)
{
    *got = 0;
    while (*got < size) {
        int64_t n = file_read_fd(fd, data + *got, size - *got);
        if (n < 0)
            return 0;
        if (n == 0)
            break;    // the file shrank while we read: keep what is there
        *got += size_t(n);
    }
    return 1;
}

int upnp_file_read_all(const char* path, size_t max_size, void** data, size_t* size)
{
    if (!data || !size)
        return 0;
    *data = nullptr;
    *size = 0;
    int fd = file_open_regular(path, O_RDONLY, 0);
    if (fd < 0)
        return 0;
    struct stat st;
    char* block = nullptr;
    size_t got = 0;
    if (fstat(fd, &st) == 0 && st.st_size >= 0 && uint64_t(st.st_size) <= max_size
        && uint64_t(st.st_size) < SIZE_MAX - 2)
        block = static_cast<char*>(malloc(size_t(st.st_size) + 2));
    if (block && !file_read_exact(fd, block, size_t(st.st_size), &got)) {
        free(block);
        block = nullptr;
    }
    close(fd);
    if (!block)
        return 0;
    block[got] = 0;
    block[got + 1] = 0;
    *data = block;
    *size = got;
    return 1;
}

static int file_write_exact(int fd, const char* data, size_t size)
{
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        data += n;
        size -= size_t(n);
    }
    return 1;
}

// The rename is only durable once the folder that holds both names is synced.
static void file_sync_parent(const char* path)
{
    char folder[4096];
    const char* slash = strrchr(path, '/');
    int n = !slash ? snprintf(folder, sizeof folder, ".")
                   : snprintf(folder, sizeof folder, "%.*s", int(slash - path), path);
    if (n < 0 || size_t(n) >= sizeof folder)
        return;
    if (slash == path)
        folder[0] = '/', folder[1] = 0;
    int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

int upnp_file_replace(const char* path, const void* data, size_t size)
{
    if (!path || !*path || (!data && size))
        return -1;
    // A dot name, so that a walk never serves what a crash left behind.
    char temp[4096];
    const char* slash = strrchr(path, '/');
    int folder_len = slash ? int(slash - path + 1) : 0;
    int n = snprintf(temp, sizeof temp, "%.*s.%s.tmp-XXXXXX", folder_len, path, path + folder_len);
    if (n < 0 || size_t(n) >= sizeof temp)
        return -1;
    int fd = mkostemp(temp, O_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat old;
    if (stat(path, &old) == 0)
        fchmod(fd, old.st_mode & 07777);
    int ok = file_write_exact(fd, static_cast<const char*>(data), size) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(temp, path) != 0) {
        unlink(temp);
        return -1;
    }
    file_sync_parent(path);
    return 0;
}

// ---------------------------------------------------------------- walker

// Names a later entry may need: the full path buffer holds the limit plus
// the terminator; Linux names stop at 255 bytes.
static constexpr size_t DIR_PATH_ROOM = UPNP_DIR_PATH_MAX + 1;
static constexpr size_t DIR_NAME_ROOM = 256;

static DIR* dir_stream(upnp_dir* walker)
{
    return static_cast<DIR*>(walker->handle);
}

// The marker tells the user why a file is missing from the server; it is
// made without following links, so a planted symlink can't redirect it.
static void dir_mark_invalid(upnp_dir* walker, const char* name)
{
    char marker[DIR_NAME_ROOM + sizeof UPNP_INVALID_DATE_SUFFIX];
    snprintf(marker, sizeof marker, "%s%s", name, UPNP_INVALID_DATE_SUFFIX);
    int fd = openat(dirfd(dir_stream(walker)), marker,
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd >= 0)
        close(fd);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "file has invalid file times %s\n", walker->path);
}

// 1 when the entry just read is one to report; fills the walker's fields.
static int dir_take(upnp_dir* walker, const char* name, unsigned char type)
{
    if (name[0] == '.')
        return 0;    // hidden, and "." and ".." with them
    size_t dir_len = strlen(walker->dir_path);
    int joined = dir_len && walker->dir_path[dir_len - 1] == '/';
    int n = snprintf(walker->path, DIR_PATH_ROOM, joined ? "%s%s" : "%s/%s", walker->dir_path, name);
    if (n < 0 || size_t(n) > UPNP_DIR_PATH_MAX)
        return 0;
    struct statx sx;
    if (file_statx(dirfd(dir_stream(walker)), name, 0, &sx) != 0)
        return 0;
    if (!S_ISREG(sx.stx_mode) && !S_ISDIR(sx.stx_mode))
        return 0;    // FIFOs, sockets and devices: opening one could block or never end
    if (file_times_invalid(&sx)) {
        dir_mark_invalid(walker, name);
        return 0;
    }
    snprintf(walker->name, DIR_NAME_ROOM, "%s", name);
    walker->is_dir = S_ISDIR(sx.stx_mode);
    struct stat link;
    // Most file systems name the type in the listing; the others are asked.
    walker->is_link = type == DT_LNK || (type == DT_UNKNOWN &&
                                         fstatat(dirfd(dir_stream(walker)), name, &link, AT_SYMLINK_NOFOLLOW) == 0 &&
                                         S_ISLNK(link.st_mode));
    walker->device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    walker->inode = sx.stx_ino;
    return 1;
}

void upnp_dir_close(upnp_dir* walker)
{
    if (!walker)
        return;
    if (walker->handle)
        closedir(dir_stream(walker));
    free(walker->dir_path);
    free(walker->path);
    free(walker->name);
    free(walker);
}

upnp_dir* upnp_dir_next(upnp_dir* walker)
{
    if (!walker)
        return nullptr;
    while (struct dirent* e = readdir(dir_stream(walker)))
        if (dir_take(walker, e->d_name, e->d_type))
            return walker;
    upnp_dir_close(walker);
    return nullptr;
}

static char* dir_copy_path(const char* path)
{
    size_t len = strlen(path);
    while (len > 1 && path[len - 1] == '/')
        len--;
    return strndup(path, len);
}

upnp_dir* upnp_dir_open(const char* path)
{
    if (!path || !*path)
        return nullptr;
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    upnp_dir* walker = static_cast<upnp_dir*>(calloc(1, sizeof(upnp_dir)));
    DIR* stream = walker ? fdopendir(fd) : nullptr;
    if (!stream) {
        close(fd);
        free(walker);
        return nullptr;
    }
    walker->handle = stream;
    walker->dir_path = dir_copy_path(path);
    walker->path = static_cast<char*>(calloc(1, DIR_PATH_ROOM));
    walker->name = static_cast<char*>(calloc(1, DIR_NAME_ROOM));
    if (!walker->dir_path || !walker->path || !walker->name) {
        upnp_dir_close(walker);
        return nullptr;
    }
    return upnp_dir_next(walker);
}

int upnp_file_is_plain(const char* path)
{
    struct stat st;
    return path && lstat(path, &st) == 0 && S_ISREG(st.st_mode) ? 1 : 0;
}

// Folders copied from Windows hold "folder.JPG" as often as "Folder.jpg",
// and Windows finds either: the entry named exactly wins, else the first
// whose name matches without regard to ASCII case.
char* upnp_file_find_nocase(const char* folder, const char* name)
{
    if (!folder || !*folder || !name || !*name)
        return nullptr;
    size_t length = strlen(folder);
    const char* separator = folder[length - 1] == '/' ? "" : "/";
    char* path = nullptr;
    struct stat st;
    if (asprintf(&path, "%s%s%s", folder, separator, name) < 0)
        return nullptr;
    if (stat(path, &st) == 0)
        return path;
    free(path);
    path = nullptr;
    int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* stream = fd < 0 ? nullptr : fdopendir(fd);
    if (!stream) {
        if (fd >= 0)
            close(fd);
        return nullptr;
    }
    while (const dirent* entry = readdir(stream)) {
        if (strcasecmp(entry->d_name, name) == 0) {
            if (asprintf(&path, "%s%s%s", folder, separator, entry->d_name) < 0)
                path = nullptr;
            break;
        }
    }
    closedir(stream);
    return path;
}
