// test_host.h: runs the velmora-dms program as a child, optionally behind a
// prefix such as "ip netns exec NAME", reading what it prints. Every wait
// is bounded; the destructor kills a program that is still running.
#pragma once
#include <string>
#include <sys/types.h>
#include <vector>

struct host_run {
    pid_t pid = -1;
    int out = -1;          // the program's standard output and error
    std::string seen;      // everything read so far

    explicit host_run(std::vector<std::string> args, std::vector<std::string> prefix = {});
    ~host_run();
    // Reads output until text appears after position from, the program
    // closes its output, or timeout_ms pass.
    bool wait_for(const std::string& text, int timeout_ms = 10000, size_t from = 0);
    // The exit status, or -1 when the program did not end within 10 s.
    int wait_exit();
};
