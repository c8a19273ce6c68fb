// upnp_cds.h: the ContentDirectory service.
#pragma once
#include <cstdint>

struct db_object;
struct upnp_string;

// Appends the DIDL-Lite element of one object, with all properties, as the
// client of the given number would get it.
upnp_string* upnp_cds_object_didl(upnp_string* out, db_object* object, const char* base_url, int32_t client_id);
