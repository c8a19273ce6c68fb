// upnp_soap.h: the one handler behind the three control URLs. The action
// is found from the SOAPACTION header alone, its arguments are read from
// the body by element name, and every refusal goes out as a UPnP fault.
#pragma once
#include <cstdint>

struct HTTP_request;
struct upnp_string;
struct upnp_xml_node;

// The MIME type of every SOAP reply. Its leading blank is part of it, so
// replies carry two blanks behind "Content-Type:"; clients cope with that.
extern const char soap_mime[];

// The UPnP error codes a fault may carry, in a fixed order and ended by a
// row of code 0. A code without a row is answered with the first row.
struct upnp_soap_error {
    int32_t code;
    const char* description;
};
extern const upnp_soap_error upnp_soap_errors[];

// The route handler of the control URLs: 0 to go on, 1 to close.
int upnp_soap_dispatch(HTTP_request* request);
// Sends a fault of that UPnP error code. 0, or 1 when the send failed.
int upnp_soap_send_fault(HTTP_request* request, int32_t code);
// The fault document of a code; an unknown code reads as 400. The caller
// frees it; null when no memory.
upnp_string* upnp_soap_fault_text(int32_t code);
// Sends a whole SOAP reply document from memory; the result of
// HTTP_send_buffer.
int upnp_soap_send_reply(HTTP_request* request, const char* document);

// The row of the action table that a head names, counted from 1, from the
// text behind the SOAPACTION header on; 0 for an unknown action.
int32_t upnp_soap_action_number(const char* text);

// The actions that read arguments from the parsed body. The tree stays the
// caller's; a null tree reads as a body without any argument.
int upnp_soap_browse(HTTP_request* request, upnp_xml_node* args);
int upnp_soap_browse_by_letter(HTTP_request* request, upnp_xml_node* args);
int upnp_soap_search(HTTP_request* request, upnp_xml_node* args);
