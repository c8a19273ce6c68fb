// upnp_upload.h: the ContentDirectory actions that change the tree:
// CreateObject, which makes a pending item that a later upload fills, and
// DestroyObject.
#pragma once

struct HTTP_request;

// Called by the dispatch with the element texts as read; any may be null.
// Each sends its reply or a fault and returns 0 to go on, 1 to close.
int upnp_cds_create_object(HTTP_request* request, const char* container_id, const char* elements);
int upnp_cds_destroy_object(HTTP_request* request, const char* object_id);
