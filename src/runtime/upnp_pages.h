// upnp_pages.h: address space and memory pages for stores that hand out
// 32-bit handles instead of pointers. A reservation takes address space
// only; memory is committed in steps as the store grows, so what a store
// holds resident is what it uses. A mapping is memory of its own that can
// grow without its contents being copied.
#pragma once
#include <cstddef>

size_t upnp_pages_size();                                   // the page size

// Reserves size bytes of address space, no memory; null on failure.
void* upnp_pages_reserve(size_t size);
// Makes [p, p + size) of a reservation usable (zero-filled). 1 or 0.
int upnp_pages_commit(void* p, size_t size);
// Gives the memory of [p, p + size) back and leaves the range reserved.
void upnp_pages_decommit(void* p, size_t size);
// Ends a reservation or a mapping.
void upnp_pages_release(void* p, size_t size);

// A zero-filled mapping of size bytes (rounded up to pages); null on failure.
void* upnp_pages_map(size_t size);
// Resizes a mapping, moving it if need be without copying its pages; the
// new address, or null with the old mapping intact.
void* upnp_pages_remap(void* p, size_t old_size, size_t new_size);
