// upnp_soap.cpp: the SOAP action dispatch. Not built yet: every action is
// answered as not implemented.
#include "upnp/upnp_soap.h"

#include "http/http_server.h"

const char soap_mime[] = " text/xml; charset=\"utf-8\"";

int upnp_soap_dispatch(HTTP_request* request)
{
    return upnp_soap_send_fault(request, 602);
}

int upnp_soap_send_fault(HTTP_request* request, int32_t)
{
    return HTTP_send_status(request, 501);
}

upnp_string* upnp_soap_fault_text(int32_t)
{
    return nullptr;
}
