// upnp_search.cpp: the ContentDirectory Search. Searching is not built
// yet: every search is answered as invalid criteria.
#include "upnp/upnp_search.h"

#include "upnp/upnp_soap.h"

int upnp_cds_search(HTTP_request* request, const char*, const char*, const char*, int32_t, int32_t, const char*)
{
    return upnp_soap_send_fault(request, 708);
}
