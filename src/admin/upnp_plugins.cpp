// upnp_plugins.cpp: the plugin runner. The request is remembered for the
// scanner's next pass.
#include "admin/upnp_plugins.h"

#include <atomic>

static std::atomic<int> plugin_force;

void upnp_plugins_request()
{
    plugin_force = 1;
}
