// test_support.cpp: see test_support.h.
#include "support/test_support.h"

#include <dirent.h>
#include <fstream>
#include <sstream>
#include <cstdlib>
#include <ftw.h>
#include <unistd.h>

test_dir::test_dir()
{
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/velmora-test-XXXXXX";
    char* made = mkdtemp(pattern.data());
    path = made ? made : "";
}

static int test_remove_entry(const char* p, const struct stat*, int, struct FTW*)
{
    return remove(p);
}

test_dir::~test_dir()
{
    if (!path.empty())
        nftw(path.c_str(), test_remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string test_read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

bool test_write_file(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    return bool(out);
}

static int test_count_entries(const char* folder)
{
    int n = 0;
    if (DIR* d = opendir(folder)) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                n++;
        closedir(d);
    }
    return n;
}

int test_count_fds()
{
    return test_count_entries("/proc/self/fd") - 1;   // less the one opendir holds
}

int test_count_threads()
{
    return test_count_entries("/proc/self/task");
}
