// upnp_thread.cpp: the library's threads. Every thread starts through one
// trampoline that blocks SIGPIPE (a peer that hangs up must never kill the
// host), sets the priority, runs the entry and, as its last act, counts
// itself out of thread_live_count. The counter is the only shared state;
// it is atomic, and it is raised before the thread is created, so that a
// waiter never sees 0 while a start is under way. Nobody joins the detached
// threads: stop closes their sockets and then waits in
// upnp_thread_wait_idle.
#include "runtime/upnp_os.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>

static_assert(sizeof(pthread_t) <= sizeof(uint64_t), "thread handles travel as 64-bit words");

// Threads whose entry has not yet returned.
static std::atomic<int32_t> thread_live_count{0};
// Set on the threads started here: a stop that runs on one of them must not
// wait for itself.
static thread_local int thread_is_ours = 0;

struct thread_start_record {
    upnp_thread_entry entry;
    void* argument;
    int32_t priority;
};

#if defined(__SANITIZE_ADDRESS__)
#define THREAD_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define THREAD_UNDER_ASAN 1
#endif
#endif

static size_t thread_stack_size()
{
#ifdef THREAD_UNDER_ASAN
    // Redzones make every frame several times larger.
    size_t size = UPNP_THREAD_STACK_SIZE * 4;
#else
    size_t size = UPNP_THREAD_STACK_SIZE;
#endif
    long minimum = sysconf(_SC_THREAD_STACK_MIN);
    return std::max(size, minimum > 0 ? size_t(minimum) : size_t(16384));
}

// A new thread inherits the nice value of the thread that made it, so the
// target is taken from the process's main thread, not from the creator.
static int thread_nice_target(int32_t priority)
{
    // On Linux "who" names one thread; the process's pid names its main one.
    errno = 0;
    int base = getpriority(PRIO_PROCESS, id_t(getpid()));
    if (base == -1 && errno != 0)
        base = 0;
    int step = std::clamp(priority, -4, 4) * 5;
    return std::clamp(base - step, -20, 19);
}

static void thread_apply_priority(int32_t priority)
{
    pid_t tid = gettid();
    int target = thread_nice_target(priority);
    errno = 0;
    int now = getpriority(PRIO_PROCESS, id_t(tid));
    if (errno == 0 && now == target)
        return;
    // Raising a priority needs a privilege the host rarely has; the thread
    // then simply runs at the priority it inherited.
    (void)setpriority(PRIO_PROCESS, id_t(tid), target);
}

static void* thread_trampoline(void* raw)
{
    thread_start_record start = *static_cast<thread_start_record*>(raw);
    free(raw);

    sigset_t pipe_only;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_only, nullptr);
    thread_is_ours = 1;
    thread_apply_priority(start.priority);

    start.entry(start.argument);
    thread_live_count.fetch_sub(1);
    return nullptr;
}

static int thread_create(upnp_thread_entry entry, void* argument, int32_t priority, int detached,
                         pthread_t* out)
{
    if (!entry)
        return 0;
    auto* start = static_cast<thread_start_record*>(malloc(sizeof(thread_start_record)));
    if (!start)
        return 0;
    *start = thread_start_record{entry, argument, priority};

    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        free(start);
        return 0;
    }
    pthread_attr_setstacksize(&attr, thread_stack_size());
    pthread_attr_setdetachstate(&attr, detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);

    thread_live_count.fetch_add(1);
    int rc = pthread_create(out, &attr, thread_trampoline, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        thread_live_count.fetch_sub(1);
        free(start);
        return 0;
    }
    return 1;
}

int upnp_thread_spawn(upnp_thread_entry entry, void* argument, int32_t priority)
{
    pthread_t thread;
    return thread_create(entry, argument, priority, 1, &thread);
}

uint64_t upnp_thread_start(upnp_thread_entry entry, void* argument, int32_t priority)
{
    pthread_t thread;
    if (!thread_create(entry, argument, priority, 0, &thread))
        return 0;
    return uint64_t(thread);
}

int upnp_thread_join(uint64_t handle)
{
    if (handle == 0)
        return 0;
    return pthread_join(pthread_t(handle), nullptr) == 0 ? 1 : 0;
}

int upnp_thread_detach(uint64_t handle)
{
    if (handle == 0)
        return 0;
    return pthread_detach(pthread_t(handle)) == 0 ? 1 : 0;
}

void upnp_thread_set_name(const char* name)
{
    if (!name)
        return;
    char shortened[16];          // the kernel keeps 15 bytes and the NUL
    size_t n = strnlen(name, sizeof(shortened) - 1);
    memcpy(shortened, name, n);
    shortened[n] = 0;
    (void)pthread_setname_np(pthread_self(), shortened);
}

int32_t upnp_thread_count()
{
    return thread_live_count.load();
}

int upnp_thread_wait_idle(int32_t timeout_ms)
{
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
    const int32_t self = thread_is_ours;
    while (thread_live_count.load() > self) {
        if (clock::now() >= deadline)
            return 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return 1;
}

void upnp_keep_awake()
{
}
