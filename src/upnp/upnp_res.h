// upnp_res.h: the res elements of an item in its DIDL-Lite text. For now
// one plain element per item: protocolInfo with the MIME type of the file's
// extension and the URL of the media route of its kind. The builders by
// format, profile and client replace it.
#pragma once

struct db_object;
struct upnp_string;
struct HTTP_request;

// The attribute texts db_object_to_didl made ready, each "" when not
// asked for or not known, each ending in a blank ("size=&quot;123&quot; ").
struct upnp_res_attributes {
    const char* size;
    const char* bitrate;
    const char* duration;
    const char* resolution;
};

// Appends the res elements of item (a real item, never a reference) under
// the id text the client knows it by. location is "disk", "httpproxy" or
// "ftpproxy"; with an import text (" importUri=&quot;...&quot; ") the
// element names the upload address and holds no URL. Types without a
// media route get none. Returns the string.
upnp_string* upnp_res_append(const HTTP_request* request, upnp_string* out, const db_object* item,
                             const char* id_text, const char* location, const upnp_res_attributes* attributes,
                             const char* import_text);
