// http_dlna.h: the DLNA description of a resource, written once and read
// back. When a res element is built, the profile, seek permissions,
// conversion indicator and flags go into the 4th field of its protocolInfo
// and, the same values, into a tail of its URL ("DLNA-PNMP3-OP01-FLAGS...").
// When that URL comes back in a GET, the response headers are rebuilt from
// the tail, so the server keeps no state per resource: the URL is the state.
#pragma once
#include <cstdint>

struct HTTP_request;

// The flag digits of the three transfer modes, as tails and heads carry them.
enum { HTTP_DLNA_FLAGS_DIGITS = 8 };

// 1 when profile is one the 4th field is written for (case ignored).
int HTTP_dlna_profile_eligible(const char* profile);

// Builds the 4th field and the URL tail of one resource. Seek digits and
// the conversion indicator count when above 0; the three modes when not 0.
// prefix and suffix (either may be null) frame the tail. Both buffers are
// emptied first and stay empty when either is too small; the field stays
// empty too for a profile that is not eligible, while the tail is built for
// any profile.
void HTTP_build_DLNA_4thfield(const char* profile, int32_t byte_seek, int32_t time_seek, int32_t conversion,
                              int32_t streaming, int32_t interactive, int32_t background, const char* prefix,
                              int32_t prefix_length, const char* suffix, int32_t suffix_length, char* field,
                              int32_t field_size, char* tail, int32_t tail_size);

// Appends to the request's extra headers, in this order, CaptionInfo.vel,
// contentFeatures.dlna.org and transferMode.dlna.org, each as its head and
// URL ask for it. Runs inside HTTP_send_header; a database lookup for the
// caption takes db_lock.
void HTTP_add_dlna_headers(HTTP_request* request);
