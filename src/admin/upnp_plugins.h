// upnp_plugins.h: the plugin runner, ticked by the scanner thread.
#pragma once

void upnp_plugins_request();   // run the plugins at the next pass
