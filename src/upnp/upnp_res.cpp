// upnp_res.cpp: the plain res element of an item, by the item's kind and
// the MIME table. No state; it runs inside db_object_to_didl, under db_lock.
#include "upnp/upnp_res.h"

#include "config/upnp_client.h"
#include "database/db_object.h"
#include "http/http_server.h"
#include "runtime/upnp_mime.h"
#include "upnp/upnp_cds.h"

#include <cstdio>

// The word of the media route that serves an item of this type.
static const char* res_route(int32_t type)
{
    switch (type) {
    case DB_OBJ_AUDIO: return "music";
    case DB_OBJ_VIDEO:
    case DB_OBJ_VIDEO_MOVIE: return "video";
    case DB_OBJ_PHOTO: return "photo";
    case DB_OBJ_DOCUMENT: return "document";
    default: return nullptr;
    }
}

upnp_string* upnp_res_append(const HTTP_request* request, upnp_string* out, const db_object* item,
                             const char* id_text, const char* location, const upnp_res_attributes* attributes,
                             const char* import_text)
{
    const char* route = item ? res_route(db_object_type_of(item)) : nullptr;
    if (!route || !attributes)
        return out;
    const char* extension = db_object_get_str(item, DBK_EXTENSION);
    int column = request && upnp_client_mime_type2(request->client_id) ? 1 : 0;
    const char* mime = extension ? upnp_mime_from_extension(nullptr, extension, column) : nullptr;
    char attribute_text[1024];
    int n = snprintf(attribute_text, sizeof attribute_text, " %s%s%s%s%sprotocolInfo=&quot;http-get:*:%s:*&quot;",
             import_text ? import_text : "", attributes->size, attributes->bitrate, attributes->duration,
             attributes->resolution, mime ? mime : "application/octet-stream");
    // An upload target has no file to serve yet.
    char url[1024] = "";
    int m = 0;
    if (!import_text || !*import_text)
        m = snprintf(url, sizeof url, "%s%s/%s/O%s.%s", request ? request->base_url : "", location, route, id_text,
                     extension ? extension : "bin");
    // A cut attribute or address would be a broken element: none is better.
    if (n < 0 || n >= int(sizeof attribute_text) || m < 0 || m >= int(sizeof url))
        return out;
    return db_append_element(out, "res", attribute_text, url, 1);
}
