// upnp_cds.h: the ContentDirectory service: Browse, X_BrowseByLetter and
// the DIDL-Lite text of one object.
#pragma once
#include <cstdint>

struct db_object;
struct upnp_string;
struct HTTP_request;

// The Browse actions, called by the dispatch with the arguments as read.
// Each sends its reply or a fault and returns 0 to go on, 1 to close.
int upnp_cds_browse_children(HTTP_request* request, const char* id, const char* filter, int32_t start,
                             int32_t count, const char* sort);
int upnp_cds_browse_by_letter(HTTP_request* request, const char* id, const char* filter, const char* letter,
                              int32_t count, const char* sort);
int upnp_cds_browse_metadata(HTTP_request* request, const char* id, const char* filter);

// Appends the DIDL-Lite element of one object as the request's client
// gets it; a null out makes a new string. Null when no memory.
upnp_string* db_object_to_didl(upnp_string* out, db_object* object, const char* filter, HTTP_request* request);
// 1 when the filter asks for the word (the loose match clients rely on).
int db_filter_has(const char* filter, const char* word);
// Appends one escaped element; utf8 0 writes 8-bit text.
upnp_string* db_append_element(upnp_string* out, const char* tag, const char* attributes, const char* value,
                               int32_t utf8);
// 1 when a container holds music, or is of a music kind.
int db_object_is_music(const db_object* object);

// Appends the DIDL-Lite element of one object, with all properties, as the
// client of the given number would get it.
upnp_string* upnp_cds_object_didl(upnp_string* out, db_object* object, const char* base_url, int32_t client_id);
