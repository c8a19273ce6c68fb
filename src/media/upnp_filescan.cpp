// upnp_filescan.cpp: the scanner's requests. The walk itself and the
// metadata readers are not built yet: requests are remembered and no file is
// admitted, so callers see that nothing entered the store.
#include "media/upnp_filescan.h"

#include <atomic>

static std::atomic<int32_t> scan_reload_request;
static std::atomic<int32_t> scan_forced_request;

void upnp_filescan_request_reload()
{
    scan_reload_request = 1;
}

void upnp_filescan_request_rescan()
{
    scan_forced_request = 1;
}

int upnp_filescan_add_file(const char*, char, int, uint32_t, uint32_t)
{
    return 0;
}
