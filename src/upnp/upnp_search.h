// upnp_search.h: the ContentDirectory action Search: a walk over the tree
// below a start container, matching each object against the criteria.
#pragma once
#include <cstdint>

struct HTTP_request;

// Called by the dispatch with the arguments as read; any of the texts may
// be null. Sends the reply or a fault and returns 0 to go on, 1 to close.
int upnp_cds_search(HTTP_request* request, const char* container, const char* criteria, const char* filter,
                    int32_t start, int32_t count, const char* sort);
