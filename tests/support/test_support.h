// test_support.h: small helpers shared by the unit and integration tests:
// a scratch folder that removes itself, whole-file reads and writes, and
// counters of this process's descriptors and threads.
#pragma once
#include <string>

struct test_dir {
    std::string path;
    test_dir();               // a fresh folder under $TMPDIR (or /tmp)
    ~test_dir();              // removes it with everything inside
    std::string file(const std::string& name) const { return path + "/" + name; }
};

std::string test_read_file(const std::string& path);
bool test_write_file(const std::string& path, const std::string& bytes);
int test_count_fds();        // entries of /proc/self/fd
int test_count_threads();    // entries of /proc/self/task
