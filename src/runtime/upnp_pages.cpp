// upnp_pages.cpp: reservations and growable mappings over mmap. Private
// anonymous memory only; nothing here keeps state, so there is no lock.
// Sizes are rounded up to whole pages here, so that callers may pass the
// bytes they need.
//
// Large memory asks for transparent huge pages: on a virtual machine a
// first touch of a small page can cost tens of microseconds, so a store
// of a million items spent more time in page faults than in its own work.
// Reservations are aligned to the huge page size and ask for huge pages
// only past their first PAGES_SMALL_SPAN bytes, so a small library stays
// as small in memory as it is; a mapping asks for them from
// PAGES_HUGE_MAP bytes on. Where the system offers no huge pages the
// advice is ignored and nothing changes.
#include "runtime/upnp_pages.h"

#include <sys/mman.h>
#include <cstdint>
#include <unistd.h>

static constexpr size_t PAGES_HUGE = size_t(2) << 20;
static constexpr size_t PAGES_SMALL_SPAN = size_t(32) << 20;
static constexpr size_t PAGES_HUGE_MAP = size_t(4) << 20;

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

static void pages_advise_huge(void* p, size_t size)
{
    madvise(p, size, MADV_HUGEPAGE);
}

// Maps size bytes (whole pages) at an address aligned to a huge page: the
// extra huge page lets the start move up, and both ends are given back.
static char* pages_map_aligned(size_t size, int prot, int flags)
{
    size_t span = size + PAGES_HUGE;
    void* raw = mmap(nullptr, span, prot, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
    if (raw == MAP_FAILED)
        return nullptr;
    char* start = static_cast<char*>(raw);
    char* p = reinterpret_cast<char*>((reinterpret_cast<uintptr_t>(start) + PAGES_HUGE - 1) & ~(PAGES_HUGE - 1));
    if (p > start)
        munmap(start, size_t(p - start));
    if (p + size < start + span)
        munmap(p + size, size_t(start + span - (p + size)));
    return p;
}

void* upnp_pages_reserve(size_t size)
{
    // PROT_NONE is not charged against the commit limit, so a large
    // reservation works even where overcommit is strict.
    size = pages_round(size);
    char* p = pages_map_aligned(size, PROT_NONE, MAP_NORESERVE);
    if (p && size > PAGES_SMALL_SPAN)
        pages_advise_huge(p + PAGES_SMALL_SPAN, size - PAGES_SMALL_SPAN);
    return p;
}

int upnp_pages_commit(void* p, size_t size)
{
    return mprotect(p, pages_round(size), PROT_READ | PROT_WRITE) == 0 ? 1 : 0;
}

void upnp_pages_decommit(void* p, size_t size)
{
    // Dropping the pages keeps the range and its huge page advice, so the
    // store that fills it again is as fast as the first time.
    size = pages_round(size);
    madvise(p, size, MADV_DONTNEED);
    mprotect(p, size, PROT_NONE);
}

void upnp_pages_release(void* p, size_t size)
{
    if (p)
        munmap(p, pages_round(size));
}

void* upnp_pages_map(size_t size)
{
    size = pages_round(size);
    if (size < PAGES_HUGE_MAP) {
        void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        return p == MAP_FAILED ? nullptr : p;
    }
    char* p = pages_map_aligned(size, PROT_READ | PROT_WRITE, 0);
    if (p)
        pages_advise_huge(p, size);
    return p;
}

void* upnp_pages_remap(void* p, size_t old_size, size_t new_size)
{
    size_t from = pages_round(old_size), to = pages_round(new_size);
    if (from == to)
        return p;
    void* q = mremap(p, from, to, MREMAP_MAYMOVE);
    if (q == MAP_FAILED)
        return nullptr;
    if (to >= PAGES_HUGE_MAP)
        pages_advise_huge(q, to);
    return q;
}
