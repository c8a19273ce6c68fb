// upnp_pages.cpp: reservations and growable mappings over mmap. Private
// anonymous memory only; nothing here keeps state, so there is no lock.
// Sizes are rounded up to whole pages here, so that callers may pass the
// bytes they need.
#include "runtime/upnp_pages.h"

#include <sys/mman.h>
#include <unistd.h>

size_t upnp_pages_size()
{
    static const size_t page = size_t(sysconf(_SC_PAGESIZE));
    return page;
}

static size_t pages_round(size_t size)
{
    size_t page = upnp_pages_size();
    return (size + page - 1) / page * page;
}

void* upnp_pages_reserve(size_t size)
{
    // PROT_NONE is not charged against the commit limit, so a large
    // reservation works even where overcommit is strict.
    void* p = mmap(nullptr, pages_round(size), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

int upnp_pages_commit(void* p, size_t size)
{
    return mprotect(p, pages_round(size), PROT_READ | PROT_WRITE) == 0 ? 1 : 0;
}

void upnp_pages_decommit(void* p, size_t size)
{
    // A fixed mapping over the range drops its pages at once and keeps the
    // addresses reserved.
    mmap(p, pages_round(size), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}

void upnp_pages_release(void* p, size_t size)
{
    if (p)
        munmap(p, pages_round(size));
}

void* upnp_pages_map(size_t size)
{
    void* p = mmap(nullptr, pages_round(size), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

void* upnp_pages_remap(void* p, size_t old_size, size_t new_size)
{
    size_t from = pages_round(old_size), to = pages_round(new_size);
    if (from == to)
        return p;
    void* q = mremap(p, from, to, MREMAP_MAYMOVE);
    return q == MAP_FAILED ? nullptr : q;
}
