// upnp_cms.h: the ConnectionManager and the X_MS_MediaReceiverRegistrar.
// Every transfer is a plain HTTP GET, so there are no connections to
// manage: all actions answer from fixed texts, and only
// GetCurrentConnectionInfo reads an argument.
#pragma once

struct HTTP_request;

// The protocols the server sources, comma-separated without blanks: those
// with DLNA parameters first, then the bare MIME types. Other code looks
// for a type or a profile in it with a plain substring search.
extern const char upnp_cms_source_list[];

// Each sends its reply (or a fault) and returns 0 to go on, 1 to close.
int upnp_cms_get_protocol_info(HTTP_request* request);
int upnp_cms_get_current_connection_ids(HTTP_request* request);
// Parses the request body itself; fault 402 without a ConnectionID.
int upnp_cms_get_current_connection_info(HTTP_request* request);

int upnp_msr_is_authorized(HTTP_request* request);
int upnp_msr_is_validated(HTTP_request* request);
int upnp_msr_register_device(HTTP_request* request);
