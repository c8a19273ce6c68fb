// upnp_description.h: the documents a control point reads after discovery.
// The device description is built at each request from a fixed template,
// the friendly name and the optional resource description.txt; the three
// service documents (cds.xml, cms.xml, msreg.xml) and the six device icons
// go out as they lie in the resources. All of them are sent from memory by
// HTTP_send_buffer, so Range requests work on them too.
#pragma once
#include <cstddef>
#include <cstdint>

struct HTTP_request;

// Route handlers: "/DeviceDescription.xml", "/ContentDirectory.xml",
// "/ConnectionManager.xml" and "/MediaReceiverRegistrar.xml". Each returns
// what HTTP_send_buffer returns, and 1 for a null request. A missing
// service file is an empty 200 response.
int upnp_send_device_description(HTTP_request* request);
int upnp_send_cds_xml(HTTP_request* request);
int upnp_send_cms_xml(HTTP_request* request);
int upnp_send_msreg_xml(HTTP_request* request);

// Route handler under "/images": the six icons the description names, and
// nothing else (any other name gets the 404 page).
int upnp_send_device_icon(HTTP_request* request);

// The friendly name as announced: option (when not empty) or
// "[host] Velmora Server", with its first "%HOSTNAME%" replaced by host.
// Not XML-escaped. Written into out, cut to size bytes with the NUL.
void upnp_description_friendly_name(const char* option, const char* host, char* out, size_t size);

// The device description from the bytes of description.txt (text may be
// null), the UDN and the friendly name, into out (size bytes with the
// NUL; a longer document is cut). Returns its length.
int32_t upnp_description_render(const char* text, size_t length, const char* udn, const char* name, char* out,
                                size_t size);

// The loaded description.txt is kept for the life of the process; tests
// that change the file forget it with this.
void upnp_description_reset();
