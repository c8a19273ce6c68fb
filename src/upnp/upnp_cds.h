// upnp_cds.h: the ContentDirectory service: Browse, X_BrowseByLetter and
// the DIDL-Lite text of one object.
//
// Every reply is rendered under db_lock and sent after it: a client that
// stops reading holds up nobody but itself. A chunked reply goes out in
// batches, each rendered under the lock from a snapshot of the children
// taken at the start; a plain reply needs its length first and is rendered
// whole. Sorted orders of a container are kept until the tree changes, so
// that paging through a large container sorts it once.
#pragma once
#include <cstdint>

struct db_object;
struct upnp_string;
struct HTTP_request;

// The namespace of the prefix vel, as every DIDL-Lite head declares it.
inline constexpr char UPNP_DIDL_VEL_DECLARATION[] = "xmlns:vel=&quot;http://www.velmora.org/&quot;";

// The Browse actions, called by the dispatch with the arguments as read.
// Each sends its reply or a fault and returns 0 to go on, 1 to close.
int upnp_cds_browse_children(HTTP_request* request, const char* id, const char* filter, int32_t start,
                             int32_t count, const char* sort);
int upnp_cds_browse_by_letter(HTTP_request* request, const char* id, const char* filter, const char* letter,
                              int32_t count, const char* sort);
int upnp_cds_browse_metadata(HTTP_request* request, const char* id, const char* filter);

// Appends the DIDL-Lite element of one object as the request's client
// gets it; a null out makes a new string. Null when no memory. With the
// client flag XM:WAN the request's base URL may be rewritten.
upnp_string* db_object_to_didl(upnp_string* out, db_object* object, const char* filter, HTTP_request* request);
// 1 when the filter asks for the word (the loose match clients rely on).
int db_filter_has(const char* filter, const char* word);
// Appends one escaped element; utf8 0 writes 8-bit text. An element that
// doesn't fit 1024 bytes is left out whole rather than cut.
upnp_string* db_append_element(upnp_string* out, const char* tag, const char* attributes, const char* value,
                               int32_t utf8);
// 1 when a container holds music, or is of a music kind.
int db_object_is_music(const db_object* object);

// What db_object_to_didl reads of the filter and of the client, read once
// for a reply of many objects: a long filter and the client entry are then
// searched once, not once per object.
struct upnp_didl_options {
    uint32_t words;                 // the filter's words, one bit each
    uint32_t quirks;                // the client's flags that bend the output, one bit each
    int32_t dlna_level;
};
// Reads filter and client; rewrites the base URL for XM:WAN as
// db_object_to_didl does.
void upnp_didl_prepare(upnp_didl_options* options, const char* filter, HTTP_request* request);
// db_object_to_didl with prepared options.
upnp_string* upnp_didl_append(upnp_string* out, db_object* object, const upnp_didl_options* options,
                              const HTTP_request* request);

// Appends the DIDL-Lite element of one object, with all properties, as the
// client of the given number would get it from a server at base_url.
upnp_string* upnp_cds_object_didl(upnp_string* out, db_object* object, const char* base_url, int32_t client_id);

// How the public address reaches the XM:WAN rewrite: the control floor
// hands its getter down at start. Without one the address is empty.
typedef const char* (*upnp_cds_address_fn)();
void upnp_cds_set_external_address(upnp_cds_address_fn fn);

// Frees the kept sorted orders (at stop; replies still reading one keep it
// until they end). How many sorted orders were built since start, for
// those who check that a kept one was used.
void upnp_cds_forget_views();
uint64_t upnp_cds_view_builds();
