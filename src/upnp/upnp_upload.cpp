// upnp_upload.cpp: CreateObject and DestroyObject. Uploading is not built
// yet: both actions are answered as not implemented.
#include "upnp/upnp_upload.h"

#include "upnp/upnp_soap.h"

int upnp_cds_create_object(HTTP_request* request, const char*, const char*)
{
    return upnp_soap_send_fault(request, 602);
}

int upnp_cds_destroy_object(HTTP_request* request, const char*)
{
    return upnp_soap_send_fault(request, 602);
}
