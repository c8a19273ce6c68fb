// bench_child.h: one measured run in a child process of its own, so that
// one run's memory never shows in the next and a crash ends only that run.
#pragma once
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

// Runs fill(out) in a child, which hands *out back through a pipe. true
// when the whole result came back and the child ended with status 0.
template <typename T, typename F> bool bench_in_child(T* out, F fill)
{
    int pipe_fd[2];
    if (pipe(pipe_fd) != 0)
        return false;
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        close(pipe_fd[0]);
        fill(out);
        ssize_t w = write(pipe_fd[1], out, sizeof *out);
        _exit(w == ssize_t(sizeof *out) ? 0 : 1);
    }
    close(pipe_fd[1]);
    ssize_t got = pid > 0 ? read(pipe_fd[0], out, sizeof *out) : -1;
    close(pipe_fd[0]);
    int status = 0;
    if (pid > 0)
        waitpid(pid, &status, 0);
    return got == ssize_t(sizeof *out) && status == 0;
}
