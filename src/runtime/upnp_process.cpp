// upnp_process.cpp: external programs. A child starts by posix_spawn from
// an argument array, so no text a client chose is ever read by a shell. It
// gets its own process group, so that ending it also ends whatever it
// started; a clean signal mask and default dispositions, whatever the host
// set; standard input from /dev/null; and no descriptor but 0 to 2.
//
// Every running child is entered in process_table, under process_lock, so
// that stop can end them all, including one whose caller waits for it in
// upnp_process_run_wait: such an entry is reaped by that caller alone, or
// it would lose the exit status it waits for. Only pids of the table are
// ever waited for: the host's own children are none of our business.
#include "runtime/upnp_os.h"

#include "runtime/upnp_log.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

extern char** environ;

struct process_entry {
    pid_t pid;                 // also the id of the child's process group
    int owner_waits;           // reaped by the thread in upnp_process_run_wait
    char name[64];             // for log lines only
};

// A bound on background children, so that a flood of requests for
// conversions cannot exhaust the machine's processes.
static constexpr size_t PROCESS_MAX = 256;
// How long a child may take to leave after SIGTERM before it gets SIGKILL.
static constexpr int PROCESS_TERM_GRACE_MS = 1000;
static constexpr int PROCESS_POLL_MS = 10;

static std::mutex process_lock;
static std::vector<process_entry> process_table;       // under process_lock

// ---- Starting -----------------------------------------------------------------

struct process_spawn_setup {
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
};

static int process_setup(process_spawn_setup* setup, int stdout_fd)
{
    if (posix_spawnattr_init(&setup->attr) != 0)
        return 0;
    if (posix_spawn_file_actions_init(&setup->actions) != 0) {
        posix_spawnattr_destroy(&setup->attr);
        return 0;
    }
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    // Our threads block SIGPIPE and the host may ignore signals; a child
    // must start as a program started from a shell would.
    posix_spawnattr_setsigmask(&setup->attr, &none);
    posix_spawnattr_setsigdefault(&setup->attr, &all);
    posix_spawnattr_setpgroup(&setup->attr, 0);
    posix_spawnattr_setflags(&setup->attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    posix_spawn_file_actions_addopen(&setup->actions, 0, "/dev/null", O_RDONLY, 0);
    if (stdout_fd >= 0)
        posix_spawn_file_actions_adddup2(&setup->actions, stdout_fd, 1);
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 34)
    // Our own descriptors are close-on-exec; this also keeps back any the
    // host opened without it.
    posix_spawn_file_actions_addclosefrom_np(&setup->actions, 3);
#endif
    return 1;
}

static void process_setup_free(process_spawn_setup* setup)
{
    posix_spawn_file_actions_destroy(&setup->actions);
    posix_spawnattr_destroy(&setup->attr);
}

// The pid of the started child, or -1 with a log line.
static pid_t process_start(const char* program, const char* const* argv, int stdout_fd)
{
    if (!program || !*program)
        return -1;
    if (access(program, X_OK) != 0) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "cannot run %s, error [%d]\n", program, errno);
        return -1;
    }
    const char* const only_program[] = {program, nullptr};
    if (!argv || !argv[0])
        argv = only_program;

    process_spawn_setup setup;
    if (!process_setup(&setup, stdout_fd))
        return -1;
    pid_t pid = -1;
    // posix_spawn never writes to the argument strings; the cast only
    // matches its C prototype.
    int rc = posix_spawn(&pid, program, &setup.actions, &setup.attr, const_cast<char* const*>(argv), environ);
    process_setup_free(&setup);
    if (rc != 0) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "cannot run %s, error [%d]\n", program, rc);
        return -1;
    }
    return pid;
}

// An exit status, or -1 for a child ended by a signal.
static int process_status(int raw)
{
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

static int process_wait_blocking(pid_t pid)
{
    int raw = 0;
    pid_t rc;
    do {
        rc = waitpid(pid, &raw, 0);
    } while (rc < 0 && errno == EINTR);
    return rc == pid ? process_status(raw) : -1;
}

// ---- The table ----------------------------------------------------------------

static void process_enter(pid_t pid, int owner_waits, const char* program)
{
    process_entry entry{pid, owner_waits, {}};
    const char* slash = strrchr(program, '/');
    const char* base = slash ? slash + 1 : program;
    size_t n = strnlen(base, sizeof(entry.name) - 1);
    memcpy(entry.name, base, n);
    entry.name[n] = 0;
    process_table.push_back(entry);
}

// Starts a child and enters it; -1 when the table is full or the start
// failed. Called with process_lock held.
static pid_t process_start_entered(const char* program, const char* const* argv, int stdout_fd, int owner_waits)
{
    if (process_table.size() >= PROCESS_MAX) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "too many child processes, %s not started\n",
                 program ? program : "");
        return -1;
    }
    pid_t pid = process_start(program, argv, stdout_fd);
    if (pid > 0)
        process_enter(pid, owner_waits, program);
    return pid;
}

static process_entry* process_find(pid_t pid)
{
    for (process_entry& e : process_table)
        if (e.pid == pid)
            return &e;
    return nullptr;
}

static void process_remove(pid_t pid, int owner_waits)
{
    for (size_t i = 0; i < process_table.size(); i++) {
        if (process_table[i].pid == pid && process_table[i].owner_waits == owner_waits) {
            process_table.erase(process_table.begin() + long(i));
            return;
        }
    }
}

int upnp_process_run_wait(const char* program, const char* const* argv)
{
    pid_t pid;
    {
        std::lock_guard<std::mutex> hold(process_lock);
        pid = process_start_entered(program, argv, -1, 1);
    }
    if (pid < 0)
        return -1;
    int status = process_wait_blocking(pid);
    std::lock_guard<std::mutex> hold(process_lock);
    process_remove(pid, 1);    // already gone when stop emptied the table
    return status;
}

static int process_open_pipe(int fds[2])
{
    fds[0] = fds[1] = -1;
    if (pipe2(fds, O_CLOEXEC) != 0)
        return 0;
    fds[0] = upnp_fd_raise(fds[0]);
    fds[1] = upnp_fd_raise(fds[1]);
    if (fds[0] >= 0 && fds[1] >= 0)
        return 1;
    for (int i = 0; i < 2; i++)
        if (fds[i] >= 0)
            close(fds[i]);
    return 0;
}

int32_t upnp_process_spawn(const char* program, const char* const* argv, int32_t* stdout_fd_out)
{
    if (stdout_fd_out)
        *stdout_fd_out = -1;
    int pipe_fds[2] = {-1, -1};
    if (stdout_fd_out && !process_open_pipe(pipe_fds))
        return -1;
    pid_t pid;
    {
        std::lock_guard<std::mutex> hold(process_lock);
        pid = process_start_entered(program, argv, pipe_fds[1], 0);
    }
    if (pipe_fds[1] >= 0)
        close(pipe_fds[1]);    // the child holds its own copy
    if (pid < 0) {
        if (pipe_fds[0] >= 0)
            close(pipe_fds[0]);
        return -1;
    }
    if (stdout_fd_out)
        *stdout_fd_out = pipe_fds[0];
    return pid;
}

// ---- Watching and ending ----------------------------------------------------

// 1 and the status when the child has ended and is reaped, else 0.
static int process_try_reap(pid_t pid, int* status_out)
{
    int raw = 0;
    pid_t rc;
    do {
        rc = waitpid(pid, &raw, WNOHANG);
    } while (rc < 0 && errno == EINTR);
    if (rc == 0)
        return 0;
    // ECHILD: reaped elsewhere (a host that ignores SIGCHLD); gone all the same.
    if (status_out)
        *status_out = rc == pid ? process_status(raw) : -1;
    return 1;
}

int upnp_process_poll(int32_t pid, int* status_out)
{
    std::lock_guard<std::mutex> hold(process_lock);
    process_entry* e = process_find(pid);
    if (!e || e->owner_waits)
        return -1;
    if (!process_try_reap(pid, status_out))
        return 0;
    process_remove(pid, 0);
    return 1;
}

int upnp_process_reap()
{
    std::lock_guard<std::mutex> hold(process_lock);
    int removed = 0;
    for (size_t i = 0; i < process_table.size();) {
        if (!process_table[i].owner_waits && process_try_reap(process_table[i].pid, nullptr)) {
            process_table.erase(process_table.begin() + long(i));
            removed++;
        } else {
            i++;
        }
    }
    return removed;
}

// Signals a child's whole group, or the child alone if it never got to be
// a group leader.
static void process_signal_group(pid_t pid, int sig)
{
    if (kill(-pid, sig) != 0)
        (void)kill(pid, sig);
}

// Whether anything of a child's group may still run. The group's id cannot
// be handed to a new process while a member remains.
static bool process_group_alive(const process_entry& e, bool reaped)
{
    if (!reaped && !e.owner_waits)
        return true;
    return kill(-e.pid, 0) == 0;
}

// Ends the groups of the given children: SIGTERM, a grace period, SIGKILL.
// Every child is reaped on return, except those whose waiting owner reaps
// them. Called with process_lock held.
static void process_end_group(const std::vector<process_entry>& children)
{
    std::vector<bool> reaped(children.size(), false);
    for (const process_entry& e : children)
        process_signal_group(e.pid, SIGTERM);
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::milliseconds(PROCESS_TERM_GRACE_MS);
    for (;;) {
        bool any_alive = false;
        for (size_t i = 0; i < children.size(); i++) {
            if (!reaped[i] && !children[i].owner_waits)
                reaped[i] = process_try_reap(children[i].pid, nullptr) != 0;
            any_alive = any_alive || process_group_alive(children[i], reaped[i]);
        }
        if (!any_alive || clock::now() >= deadline)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(PROCESS_POLL_MS));
    }
    for (size_t i = 0; i < children.size(); i++) {
        const process_entry& e = children[i];
        if (!process_group_alive(e, reaped[i]))
            continue;
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "child process %s [%d] outlived SIGTERM, killing it\n", e.name,
                 int(e.pid));
        process_signal_group(e.pid, SIGKILL);
        if (!reaped[i] && !e.owner_waits)
            process_wait_blocking(e.pid);
    }
}

int upnp_process_end(int32_t pid)
{
    std::lock_guard<std::mutex> hold(process_lock);
    process_entry* e = process_find(pid);
    if (!e)
        return 0;
    process_end_group(std::vector<process_entry>{*e});
    if (!e->owner_waits)
        process_remove(pid, 0);
    return 1;
}

void upnp_process_kill_all()
{
    std::lock_guard<std::mutex> hold(process_lock);
    if (!process_table.empty())
        process_end_group(process_table);
    process_table.clear();
}

int32_t upnp_process_count()
{
    std::lock_guard<std::mutex> hold(process_lock);
    return int32_t(process_table.size());
}
