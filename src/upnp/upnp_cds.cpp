// upnp_cds.cpp: the ContentDirectory service. Not built yet: Browse finds
// nothing and no element is written.
#include "upnp/upnp_cds.h"

#include "upnp/upnp_soap.h"

int upnp_cds_browse_children(HTTP_request* request, const char*, const char*, int32_t, int32_t, const char*)
{
    return upnp_soap_send_fault(request, 701);
}

int upnp_cds_browse_by_letter(HTTP_request* request, const char*, const char*, const char*, int32_t, const char*)
{
    return upnp_soap_send_fault(request, 701);
}

int upnp_cds_browse_metadata(HTTP_request* request, const char*, const char*)
{
    return upnp_soap_send_fault(request, 701);
}

upnp_string* db_object_to_didl(upnp_string* out, db_object*, const char*, HTTP_request*)
{
    return out;
}

int db_filter_has(const char*, const char*)
{
    return 0;
}

upnp_string* db_append_element(upnp_string* out, const char*, const char*, const char*, int32_t)
{
    return out;
}

int db_object_is_music(const db_object*)
{
    return 0;
}

upnp_string* upnp_cds_object_didl(upnp_string* out, db_object*, const char*, int32_t)
{
    return out;
}
