// upnp_res.h: the res elements of an item in its DIDL-Lite text, one
// builder per family of formats. db_object_to_didl picks the builder by the
// item's type and the MIME type of its extension. A builder decides how many
// elements the item gets, with which protocolInfo and at which URL: that is
// where the item's DLNA profile, the client's DLNA level and quirks and the
// available conversions meet. A URL may carry the whole DLNA description as
// a tail (HTTP_build_DLNA_4thfield), from which the HTTP side rebuilds the
// response headers; the URL shapes are the contract with the media routes.
//
// Builders keep no state and run inside db_object_to_didl, under db_lock.
#pragma once
#include <cstdint>

struct db_object;
struct upnp_string;
struct HTTP_request;

// What db_object_to_didl hands every builder. The attribute texts are ""
// when not asked for or not known, else end in a blank
// ("size=&quot;123&quot; "); import is " importUri=&quot;...&quot; " for an
// upload target, whose elements then hold no URL.
struct db_res_args {
    const HTTP_request* request;    // base URL and client; may be null
    const db_object* item;          // the real item, never a reference
    const char* id;                 // the id text the client knows it by
    const char* location;           // "disk", "httpproxy" or "ftpproxy"
    const char* size;
    const char* bitrate;
    const char* duration;
    const char* resolution;         // non-empty: pictures carry their own
    const char* import;
    int32_t dlna_level;             // 10, 15, 0, or -1 for no DLNA fields
};

// Each appends the elements of its family and returns the string; a null
// args or item leaves it as it is.
upnp_string* db_res_audio(upnp_string* out, const db_res_args* a);      // any other audio
upnp_string* db_res_mp3(upnp_string* out, const db_res_args* a);
upnp_string* db_res_lpcm(upnp_string* out, const db_res_args* a);
upnp_string* db_res_mp4_audio(upnp_string* out, const db_res_args* a);
upnp_string* db_res_adts(upnp_string* out, const db_res_args* a);
upnp_string* db_res_flac(upnp_string* out, const db_res_args* a);
upnp_string* db_res_video(upnp_string* out, const db_res_args* a);
upnp_string* db_res_photo(upnp_string* out, const db_res_args* a);      // any picture but JPEG
upnp_string* db_res_jpeg(upnp_string* out, const db_res_args* a);
upnp_string* db_res_document(upnp_string* out, const db_res_args* a);

// One picture element at width x height (a resolution attribute of its own
// when a->resolution asks and neither is 0), with the size text, the MIME
// type, the 4th field ("*" when shorter than 2) and the path below the base
// URL; an upload target gets no URL.
upnp_string* db_res_image(upnp_string* out, const db_res_args* a, int32_t width, int32_t height, const char* size,
                          const char* mime, const char* fourth, const char* path);

// The size of a picture fitted into a box, keeping its aspect. Any value 0
// (or below) leaves the box as it is.
void db_fit_box(int32_t width, int32_t height, int32_t box_width, int32_t box_height, int32_t* out_width,
                int32_t* out_height);

// Where a conversion comes from: fills output with the path below the base
// URL of a conversion of the item with that id from one MIME type to
// another, at a size when width and height are both given ("cgi-bin/..."),
// or leaves it empty when no conversion fits. Registered at start by the
// conversion table; with none registered no converted variant is offered.
typedef void (*upnp_res_conversion_fn)(const char* id, int32_t width, int32_t height, const char* from,
                                       const char* to, char* output, int32_t size);
void upnp_res_set_conversions(upnp_res_conversion_fn fn);
