// upnp_soap.h: the one handler behind the three control URLs. The action
// is found from the SOAPACTION header alone, its arguments are read from
// the body by element name, and every refusal goes out as a UPnP fault.
#pragma once
#include <cstdint>

struct HTTP_request;
struct upnp_string;

// The MIME type of every SOAP reply. Its leading blank is part of it, so
// replies carry two blanks behind "Content-Type:"; clients cope with that.
extern const char soap_mime[];

// The route handler of the control URLs: 0 to go on, 1 to close.
int upnp_soap_dispatch(HTTP_request* request);
// Sends a fault of that UPnP error code. 0, or 1 when the send failed.
int upnp_soap_send_fault(HTTP_request* request, int32_t code);
// The fault document of a code; an unknown code reads as 400. The caller
// frees it; null when no memory.
upnp_string* upnp_soap_fault_text(int32_t code);
