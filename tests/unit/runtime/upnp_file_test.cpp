// Tests of the file layer: stat, the walker, plain and segmented handles, names and whole files.
#include "runtime/upnp_file.h"

#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

using name_set = std::set<std::string>;
using namespace std::string_literals;

// The names the walker reports for a folder, all of it.
static name_set walk_names(const std::string& folder)
{
    name_set names;
    for (upnp_dir* d = upnp_dir_open(folder.c_str()); d; d = upnp_dir_next(d))
        names.insert(d->name);
    return names;
}

// Every name in a folder, dot names too, one a line.
static std::string every_name(const std::string& folder) { return test_output("LC_ALL=C ls -A " + folder); }

static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Makes each entry in the folder: "name/" a folder, any other a file of
// one byte. True when all were made.
static bool make_entries(const test_dir& dir, std::initializer_list<const char*> names)
{
    for (std::string name : names)
        if (name.back() == '/' ? mkdir(dir.file(name).c_str(), 0755) != 0 : !test_write_file(dir.file(name), "x"))
            return false;
    return true;
}

// Sets access and modification time; false when the file system kept
// something else (some refuse times before 1970).
static bool set_times(const std::string& path, time_t when)
{
    struct timespec times[2] = {{when, 0}, {when, 0}};
    struct stat st;
    return utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 && stat(path.c_str(), &st) == 0
           && st.st_mtim.tv_sec == when && st.st_mtim.tv_nsec == 0 && st.st_atim.tv_sec == when;
}

TEST(FileStat, GivesSizeTimesAndModeOrZerosOnFailure)
{
    test_dir dir;
    upnp_file_info info;
    ASSERT_EQ(0, upnp_file_stat(dir.path.c_str(), &info));
    EXPECT_EQ(unsigned(UPNP_FILE_MODE_DIR | UPNP_FILE_MODE_READ | UPNP_FILE_MODE_WRITE), info.mode);
    std::string path = dir.file("a.mp3");
    ASSERT_TRUE(test_write_file(path, "12345") && set_times(path, 1000000000) && chmod(path.c_str(), 0444) == 0);
    ASSERT_EQ(0, upnp_file_stat(path.c_str(), &info));
    EXPECT_EQ(std::make_tuple(1000000000l, 1000000000l, 5ul, unsigned(UPNP_FILE_MODE_REG | UPNP_FILE_MODE_READ)),
              std::make_tuple(info.modified, info.accessed, info.size, info.mode));   // no write bit: read-only
    EXPECT_GT(info.created, 0);    // birth time, or the modification time without one
    memset(&info, 0xA5, sizeof info);
    EXPECT_NE(0, upnp_file_stat(dir.file("missing").c_str(), &info));
    EXPECT_EQ(std::make_tuple(0l, 0l, 0l, 0ul, 0u),
              std::make_tuple(info.created, info.modified, info.accessed, info.size, info.mode));
    EXPECT_NE(0, upnp_file_stat(nullptr, &info));
    EXPECT_TRUE(upnp_file_stat_size(path.c_str(), &info) == 0 && info.size == 5u) << info.size;
    EXPECT_NE(0, upnp_file_stat_size(dir.file("missing").c_str(), &info));
}

// The first second of 1970 can be stat'ed but is not walked; a time before
// it hides the file from stat too. Either leaves an empty marker beside it.
TEST(FileTimes, EntriesWithoutAValidTimeAreHiddenAndLeaveAMarkerThatFollowsNoSymlink)
{
    test_dir dir;
    std::string epoch = dir.file("epoch.mp3"), old = dir.file("old.mp3"), marker = old + UPNP_INVALID_DATE_SUFFIX;
    ASSERT_TRUE(make_entries(dir, {"epoch.mp3", "new.mp3"}) && set_times(epoch, 0));
    ASSERT_EQ(0, symlink(dir.file("victim").c_str(), (epoch + UPNP_INVALID_DATE_SUFFIX).c_str()));
    upnp_file_info info;
    EXPECT_TRUE(upnp_file_stat(epoch.c_str(), &info) == 0 && info.modified == 0) << info.modified;
    EXPECT_EQ(name_set{"new.mp3"}, walk_names(dir.path));
    EXPECT_FALSE(exists(dir.file("victim")));
    ASSERT_TRUE(make_entries(dir, {"old.mp3"}));
    if (!set_times(old, -1000000))
        GTEST_SKIP() << "the file system under " << dir.path << " refuses times before 1970";
    EXPECT_TRUE(upnp_file_stat(old.c_str(), &info) != 0 && info.size == 0) << info.size;
    EXPECT_EQ(name_set{"new.mp3"}, walk_names(dir.path));
    EXPECT_TRUE(exists(marker) && test_read_file(marker).empty());
    // The marker is an ordinary file and is listed like one from then on.
    EXPECT_EQ((name_set{"new.mp3", "old.mp3"s + UPNP_INVALID_DATE_SUFFIX}), walk_names(dir.path));
    // A handle still opens, without a size; the media handle needs the stat.
    upnp_file* f = upnp_file_open_read(old.c_str());
    EXPECT_TRUE(f && f->size == -1);
    upnp_file_close(f);
    EXPECT_EQ(nullptr, upnp_mediafile_open_read(old.c_str()));
}

TEST(FileWalk, ReportsOnlyServableEntriesJoinedWithOneSeparatorWithTheTargetsIdentity)
{
    test_dir dir;
    std::string fifo = dir.file("pipe.mp3");
    ASSERT_TRUE(make_entries(dir, {".hidden.mp3", ".folder/", ".folder/inner.mp3"}));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    ASSERT_EQ(0, symlink(dir.file("nowhere").c_str(), dir.file("dangling").c_str()));
    for (const std::string& bad : {dir.path, dir.file("missing"), dir.file(".hidden.mp3")})
        EXPECT_EQ(nullptr, upnp_dir_open(bad.c_str()));   // all hidden, or no folder
    EXPECT_EQ(nullptr, upnp_dir_open(nullptr));
    ASSERT_TRUE(make_entries(dir, {"real/"}));
    ASSERT_EQ(0, symlink(dir.file("real").c_str(), dir.file("link").c_str()));
    struct stat real;
    ASSERT_EQ(0, stat(dir.file("real").c_str(), &real));
    int before = test_count_fds();
    for (const std::string& folder : {dir.path, dir.path + "/", dir.path + "//"}) {
        SCOPED_TRACE(folder);
        name_set seen;
        for (upnp_dir* d = upnp_dir_open(folder.c_str()); d; d = upnp_dir_next(d)) {
            seen.insert(d->name);
            EXPECT_EQ(std::make_tuple(dir.file(d->name), dir.path, 1, uint64_t(real.st_dev), uint64_t(real.st_ino)),
                      std::make_tuple(d->path, d->dir_path, d->is_dir, d->device, d->inode));
        }
        EXPECT_EQ((name_set{"link", "real"}), seen);
    }
    upnp_dir_close(upnp_dir_open(dir.path.c_str()));    // ended early
    upnp_dir_close(nullptr);
    EXPECT_EQ(before, test_count_fds());
    // Opening a FIFO must not wait for a writer that never comes.
    void* data = nullptr;
    size_t size = 0;
    EXPECT_EQ(std::make_tuple((upnp_file*)nullptr, (upnp_file*)nullptr, (upnp_file*)nullptr, 0),
              std::make_tuple(upnp_file_open_read(fifo.c_str()), upnp_mediafile_open_read(fifo.c_str()),
                              upnp_file_open_write(fifo.c_str()), upnp_file_read_all(fifo.c_str(), 100, &data, &size)));
}

TEST(FileWalk, PathsPastTheLimitAreSkippedNotCut)
{
    test_dir dir;
    std::string folder = dir.path;
    while (folder.size() < UPNP_DIR_PATH_MAX - 250) {
        folder += "/" + std::string(200, 'd');
        ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    }
    std::string fits(UPNP_DIR_PATH_MAX - folder.size() - 1, 'f');     // name bytes that still fit
    ASSERT_TRUE(test_write_file(folder + "/" + fits, "x") && test_write_file(folder + "/" + fits + "g", "x"));
    upnp_dir* d = upnp_dir_open(folder.c_str());
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(std::make_tuple(fits, UPNP_DIR_PATH_MAX), std::make_tuple(std::string(d->name), strlen(d->path)));
    EXPECT_EQ(nullptr, upnp_dir_next(d));
}

TEST(FileHandle, OpenWriteCreatesPrivateNeverTruncatesAndOpensOnlyRegularFiles)
{
    test_dir dir;
    std::string path = dir.file("w.bin");
    for (const char* bytes : {"abcdef", "XY"}) {
        upnp_file* f = upnp_file_open_write(path.c_str());
        ASSERT_NE(nullptr, f);
        EXPECT_EQ(int64_t(strlen(bytes)), upnp_file_write(f, bytes, strlen(bytes)));
        upnp_file_close(f);
    }
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(std::make_tuple("XYcdef"s, 0600u), std::make_tuple(test_read_file(path), st.st_mode & 0777));
    EXPECT_EQ(std::make_tuple((upnp_file*)nullptr, (upnp_file*)nullptr, (upnp_file*)nullptr),
              std::make_tuple(upnp_file_open_write(dir.file("no/such/folder").c_str()),
                              upnp_file_open_read(dir.path.c_str()), upnp_file_open_read(dir.file("missing").c_str())));
}

TEST(FileHandle, SeekEofAndGetsFollowThePositionWithinTheBuffer)
{
    test_dir dir;
    ASSERT_TRUE(test_write_file(dir.file("lines.txt"), "one\nlonger line\nlast"));
    upnp_file* f = upnp_file_open_read(dir.file("lines.txt").c_str());
    ASSERT_NE(nullptr, f);
    char b[8];
    struct gets_step { int size; const char* line; };
    const gets_step steps[] = {{8, "one\n"}, {8, "longer "}, {8, "line\n"}, {3, "la"}, {8, "st"}, {8, nullptr}};
    for (const gets_step& s : steps) {
        SCOPED_TRACE(s.line ? s.line : "(end)");
        memset(b, 'Z', sizeof b);
        ASSERT_EQ(s.line ? b : nullptr, upnp_file_gets(b, s.size, f));
        EXPECT_STREQ(s.line ? s.line : "", b);
    }
    EXPECT_EQ(std::make_tuple(20l, 1), std::make_tuple(f->size, upnp_file_eof(f)));
    EXPECT_TRUE(upnp_file_seek(f, -2, 2) == 18 && upnp_file_eof(f) == 0);
    EXPECT_TRUE(upnp_file_seek(f, 0, 3) == -1 && upnp_file_seek(f, -1, 0) == -1 && f->position == 18);   // left
    EXPECT_EQ(0, upnp_file_seek(f, -18, 1));
    memset(b, 'Z', sizeof b);
    EXPECT_EQ(nullptr, upnp_file_gets(b, 1, f));     // no room for any byte
    EXPECT_EQ(std::make_tuple('\0', 'Z', 0l), std::make_tuple(b[0], b[1], f->position));
    upnp_file_close(f);
    EXPECT_EQ(std::make_tuple(-1l, -1l, -1l, -1l, 1, (char*)nullptr),
              std::make_tuple(upnp_file_read(nullptr, b, 1), upnp_file_write(nullptr, b, 1),
                              upnp_file_seek(nullptr, 0, 0), upnp_mediafile_read(nullptr, b, 1),
                              upnp_file_eof(nullptr), upnp_file_gets(b, sizeof b, nullptr)));
    upnp_file_close(nullptr);
}

// A media handle reading two files of ten bytes as one; the list is built by hand.
TEST(FileMedia, ReadsAndSeeksAcrossTheSegmentBoundary)
{
    test_dir dir;
    ASSERT_TRUE(test_write_file(dir.file("a"), "0123456789") && test_write_file(dir.file("b"), "abcdefghij"));
    auto open = [&](const char* second) {
        upnp_file* f = upnp_mediafile_open_read(dir.file("a").c_str());
        if (!f)
            return f;
        auto* tail = static_cast<upnp_file_segment*>(calloc(1, sizeof(upnp_file_segment)));
        auto* head = static_cast<upnp_file_segment*>(calloc(1, sizeof(upnp_file_segment)));
        *tail = {strdup(dir.file(second).c_str()), 10, nullptr};
        *head = {strdup(dir.file("a").c_str()), 10, tail};
        f->segments = f->current = head;
        f->size = 20;
        return f;
    };
    upnp_file* f = open("b");
    ASSERT_TRUE(f && f->media);
    char buffer[17] = {};
    EXPECT_EQ(7, upnp_mediafile_seek(f, 7, 0));
    EXPECT_EQ(3, upnp_mediafile_read(f, buffer, 16));   // short: the rest of the first
    EXPECT_EQ(f->segments->next, f->current);
    EXPECT_EQ(6, upnp_mediafile_read(f, buffer + 3, 6));
    EXPECT_EQ(std::make_tuple("789abcdef"s, 16l), std::make_tuple(std::string(buffer), f->position));
    EXPECT_TRUE(upnp_mediafile_read(f, buffer, 16) == 4 && upnp_mediafile_read(f, buffer, 16) == 0);   // short, last
    struct seek_step { int64_t offset; int origin; int64_t at; char byte; };
    const seek_step steps[] = {
        {14, 0, 14, 'e'}, {2, 0, 2, '2'}, {-2, 2, 18, 'i'}, {-10, 1, 9, '9'},
        {12, 7, 12, 'c'},    // an unknown origin counts from the start
    };
    for (const seek_step& s : steps) {
        SCOPED_TRACE(s.at);
        ASSERT_EQ(s.at, upnp_mediafile_seek(f, s.offset, s.origin));
        ASSERT_EQ(1, upnp_mediafile_read(f, buffer, 1));
        EXPECT_EQ(s.byte, buffer[0]);
    }
    EXPECT_EQ(-1, upnp_mediafile_seek(f, 21, 0));
    // The first segment still holds its end: a read there is empty, and only
    // the read after it starts the second segment.
    EXPECT_TRUE(upnp_mediafile_seek(f, 10, 0) == 10 && upnp_mediafile_read(f, buffer, 1) == 0);
    EXPECT_TRUE(upnp_mediafile_read(f, buffer, 1) == 1 && buffer[0] == 'a');
    upnp_file_close(f);

    f = open("gone");            // a segment that cannot open fails the seek
    EXPECT_TRUE(upnp_mediafile_seek(f, 15, 0) == -1 && upnp_mediafile_read(f, buffer, 1) == -1);
    upnp_file_close(f);
}

TEST(FileNames, RenameRefusesAnExistingTargetMkdirMakesParentsDeleteOnlyFiles)
{
    test_dir dir;
    std::string a = dir.file("a"), b = dir.file("b"), c = dir.file("c");
    ASSERT_TRUE(test_write_file(a, "A") && test_write_file(b, "B"));
    EXPECT_NE(0, upnp_file_rename(a.c_str(), b.c_str()));
    EXPECT_EQ(0, upnp_file_rename(a.c_str(), c.c_str()));
    EXPECT_EQ(std::make_tuple("b\nc\n"s, "B"s, "A"s), std::make_tuple(every_name(dir.path), test_read_file(b),
                                                                    test_read_file(c)));
    EXPECT_TRUE(upnp_mkdir(dir.file("x").c_str()) == 0 && upnp_mkdir(dir.file("x").c_str()) != 0);
    EXPECT_NE(0, upnp_file_delete(dir.file("x").c_str()));    // folders are not deleted
    for (int twice = 0; twice < 2; twice++)
        EXPECT_EQ(0, upnp_mkdir_parents(dir.file("p/q//r/").c_str()));
    EXPECT_TRUE(exists(dir.file("p/q/r/.")));
    EXPECT_TRUE(upnp_mkdir_parents(dir.file("c/g").c_str()) != 0 && upnp_mkdir_parents(c.c_str()) != 0);
    EXPECT_TRUE(upnp_file_delete(c.c_str()) == 0 && upnp_file_delete(c.c_str()) != 0);
    EXPECT_EQ("b\np\nx\n", every_name(dir.path));
}

TEST(FileNames, FullPathIsMadeByTextAndNeverClimbsAboveTheRoot)
{
    struct fullpath_case { const char* path; const char* full; };
    static const fullpath_case cases[] = {
        {"/a/./b//c", "/a/b/c"}, {"/a/b/../c", "/a/c"}, {"/a/b/", "/a/b/"}, {"/..", "/"}, {"/../../x", "/x"},
        {"//", "/"}, {"/no/such/place/..", "/no/such"}, {"/a\\b", "/a\\b"},   // a backslash is part of a name here
        {"", nullptr}, {nullptr, nullptr},
    };
    for (const fullpath_case& c : cases) {
        char* full = upnp_file_fullpath(c.path);
        EXPECT_EQ(std::string(c.full ? c.full : "<null>"), full ? full : "<null>") << (c.path ? c.path : "(null)");
        free(full);
    }
}

TEST(FileWhole, ReadAllAddsTwoZerosAndHonoursTheCap)
{
    test_dir dir;
    std::string path = dir.file("data");
    ASSERT_TRUE(test_write_file(path, std::string("ab\0c", 4)));
    void* data = nullptr;
    size_t size = 0;
    ASSERT_EQ(1, upnp_file_read_all(path.c_str(), 4, &data, &size));
    EXPECT_EQ("ab\0c\0\0"s, std::string(static_cast<char*>(data), size + 2));
    free(data);
    data = &size;
    EXPECT_EQ(0, upnp_file_read_all(path.c_str(), 3, &data, &size));
    EXPECT_EQ(std::make_tuple((void*)nullptr, 0ul), std::make_tuple(data, size));
    EXPECT_TRUE(upnp_file_read_all(dir.path.c_str(), 1 << 20, &data, &size) == 0
                && upnp_file_read_all(dir.file("missing").c_str(), 1 << 20, &data, &size) == 0);
    ASSERT_TRUE(test_write_file(path, ""));
    ASSERT_EQ(1, upnp_file_read_all(path.c_str(), 0, &data, &size));
    EXPECT_EQ("\0\0"s, std::string(static_cast<char*>(data), size + 2));
    free(data);
}

// A reader holding the old file sees it whole: the new bytes go to another
// file that takes over the name only once complete, or is removed.
TEST(FileWhole, ReplaceNeverTouchesTheOldFileInPlaceNorLeavesATemporary)
{
    test_dir dir;
    std::string path = dir.file("settings.ini"), folder = dir.file("busy");
    ASSERT_TRUE(test_write_file(path, "old contents") && chmod(path.c_str(), 0640) == 0);
    int old_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, upnp_file_replace(path.c_str(), "new", 3));
    char b[32] = {};
    EXPECT_TRUE(pread(old_fd, b, sizeof b, 0) == 12 && b == "old contents"s) << b;
    close(old_fd);
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(std::make_tuple("new"s, 0640u), std::make_tuple(test_read_file(path), st.st_mode & 0777));
    ASSERT_TRUE(mkdir(folder.c_str(), 0755) == 0 && test_write_file(folder + "/keep", "x"));
    EXPECT_NE(0, upnp_file_replace(folder.c_str(), "data", 4));   // a full folder can't be replaced
    EXPECT_EQ("x", test_read_file(folder + "/keep"));
    EXPECT_NE(0, upnp_file_replace(dir.file("no/such/file").c_str(), "data", 4));
    ASSERT_EQ(0, upnp_file_replace(dir.file("fresh").c_str(), "", 0));
    EXPECT_EQ("busy\nfresh\nsettings.ini\n", every_name(dir.path));
}
