// upnp_mime.h: the MIME table, extension to type in two columns (the second
// for clients that want the alternative names), and the extension helpers.
// The table is static; all results point into it or into the given path.
#pragma once

// url: the request's URL, or null; column 0 first type, else second.
// Extensions compare without regard to case; one that no row has gets the
// last row's type. Null only for a null extension.
const char* upnp_mime_from_extension(const char* url, const char* extension, int column);
// The first extension of the first row whose type is part of type; null
// when none is.
const char* upnp_extension_from_mime(const char* type);
// The text after the last '.' (a leading '.' doesn't count), else the path.
const char* upnp_path_extension(const char* path);
// The same, with "vob" sent as "mpg".
const char* upnp_stream_extension(const char* path);
