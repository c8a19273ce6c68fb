// test_host.cpp: see test_host.h.
#include "support/test_host.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

host_run::host_run(std::vector<std::string> args, std::vector<std::string> prefix)
{
    args.insert(args.begin(), VELMORA_HOST_BINARY);
    args.insert(args.begin(), prefix.begin(), prefix.end());
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 2);
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(pipe_fds[1]);
    out = pipe_fds[0];
}

host_run::~host_run()
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    if (out >= 0)
        close(out);
}

bool host_run::wait_for(const std::string& text, int timeout_ms, size_t from)
{
    char buffer[4096];
    pollfd p{out, POLLIN, 0};
    for (int waited = 0; seen.find(text, from) == std::string::npos && waited < timeout_ms; waited += 20) {
        if (poll(&p, 1, 20) != 1)
            continue;
        ssize_t n = read(out, buffer, sizeof buffer);
        if (n <= 0)
            break;
        seen.append(buffer, size_t(n));
    }
    return seen.find(text, from) != std::string::npos;
}

int host_run::wait_exit()
{
    for (int rounds = 0; rounds < 1000; rounds++) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        usleep(10 * 1000);
    }
    return -1;
}
