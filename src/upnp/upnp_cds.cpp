// upnp_cds.cpp: the ContentDirectory service. No element is written yet.
#include "upnp/upnp_cds.h"

upnp_string* upnp_cds_object_didl(upnp_string* out, db_object*, const char*, int32_t)
{
    return out;
}
