// upnp_mime.cpp: the MIME table and the extension helpers. The table is
// constant, so nothing here locks. Its order is part of the behaviour: the
// first matching row wins, which is why "txt" answers "application/txt"
// rather than the XML row further down, and why an extension that no row
// has ends the walk on the last row: clients have long seen an unknown
// file announced with that row's type, and they get it still.
#include "runtime/upnp_mime.h"

#include <cstddef>
#include <cstring>
#include <iterator>
#include <strings.h>

namespace {

constexpr size_t MIME_MAX_EXTENSIONS = 6;

// second: the name for clients that carry the alternative-MIME quirk.
struct mime_row {
    const char* first;
    const char* second;
    const char* extensions[MIME_MAX_EXTENSIONS];   // unused slots are null
};

#define MIME_XML " text/xml; charset=\"utf-8\""
#define MIME_DOCX "application/vnd.openxmlformats-officedocument.wordprocessingml.document"
#define MIME_PPTX "application/vnd.openxmlformats-officedocument.presentationml.presentation"
#define MIME_XLSX "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"

constexpr mime_row mime_table[] = {
    {"audio/mpeg", "audio/mpeg", {"mp3"}},
    {"audio/MPA", "audio/MPA", {"mpa"}},
    {"audio/x-mpeg", "audio/mpeg", {"mp2"}},
    {"audio/mp1", "audio/mpeg", {"mp1"}},
    {"audio/x-ms-wma", "audio/x-ms-wma", {"wma"}},
    {"audio/L16", "audio/lpcm", {"lpcm", "pcm"}},
    {"audio/x-wav", "audio/wav", {"wav"}},
    {"image/jpeg", "image/jpeg", {"jpg", "jpeg"}},
    {"image/tiff", "image/tiff", {"tif", "tiff"}},
    {"image/gif", "image/gif", {"gif"}},
    {"image/png", "image/png", {"png"}},
    {"audio/x-mpegurl", "audio/x-mpegurl", {"m3u"}},
    {"image/x-ycbcr-yuv420", "image/x-ycbcr-yuv420", {"yuv"}},
    {"video/x-divx", "video/x-msvideo", {"avi", "divx"}},
    {"video/mpeg", "video/MP1S", {"mpg", "mpe", "m1v"}},
    {"video/mpeg2", "video/mpeg2", {"mpeg", "mpeg2", "vob", "vdr", "spts", "tp"}},
    {"video/mpeg2", "video/mpeg", {"ts"}},
    {"video/mp4", "video/MP4V-ES", {"mp4", "3gp", "mov"}},
    {"video/x-ms-wmv", "video/x-ms-wmv", {"wmv"}},
    {"audio/mp4", "audio/3gpp", {"m4a", "mp4.a", "3gp.a", "m4b"}},
    {"audio/mp4", "audio/mp4", {"aac", "3gp.a"}},
    {"audio/vnd.dlna.adts", "audio/vnd.dlna.adts", {"adts"}},
    {"audio/x-ac3", "audio/x-ac3", {"ac3"}},
    {"video/x-ms-asf", "video/x-ms-asf", {"asf"}},
    {"audio/x-aiff", "audio/aiff", {"aif", "aiff"}},
    {"audio/x-flac", "audio/flac", {"flac"}},
    {"audio/ogg", "audio/x-ogg", {"ogg"}},
    {"text/css", "text/css", {"css"}},
    {"text/javascript", "text/javascript", {"js"}},
    {"image/bmp", "image/bmp", {"bmp"}},
    {"video/x-ms-dvr", "video/x-ms-dvr", {"dvr-ms"}},
    {"video/x-xvid", "video/x-xvid", {"xvid"}},
    {"video/x-m4v", "video/x-m4v", {"m4v"}},
    {"audio/mpeg", "audio/mpeg", {"mp3-drm"}},
    {"application/octet-stream", "application/octet-stream", {"none"}},
    {"application/mspowerpoint", "application/mspowerpoint", {"ppt"}},
    {"application/msword", "application/msword", {"doc"}},
    {"application/msexcel", "application/msexcel", {"xls"}},
    {"application/pdf", "application/pdf", {"pdf"}},
    {"application/html", "application/html", {"html", "htm", "mhtml"}},
    {"application/txt", "application/txt", {"txt"}},
    {"application/hwp", "application/hwp", {"hwp"}},
    {"application/gul", "application/gul", {"gul"}},
    {MIME_XML, MIME_XML, {"txt"}},
    {"video/x-matroska", "video/x-matroska", {"mkv"}},
    {"video/kr3g", "video/kr3g", {"k3g"}},
    {"video/x-skm", "video/x-skm", {"skm"}},
    {MIME_DOCX, MIME_DOCX, {"docx"}},
    {MIME_PPTX, MIME_PPTX, {"pptx"}},
    {MIME_XLSX, MIME_XLSX, {"xlsx"}},
};
static_assert(std::size(mime_table) == 50, "the MIME table has fifty rows, in this order");

constexpr char MIME_MUSIC_PREFIX[] = "/disk/music";

int mime_row_has(const mime_row& row, const char* extension)
{
    for (const char* e : row.extensions)
        if (e && strcasecmp(e, extension) == 0)
            return 1;
    return 0;
}

// A track kept in an MP4 file is still music when it is served from the
// music tree, and players file it by this type.
const char* mime_music_exception(const char* url, const char* type)
{
    if (url && strcasecmp(type, "video/mp4") == 0
        && strncasecmp(url, MIME_MUSIC_PREFIX, sizeof MIME_MUSIC_PREFIX - 1) == 0)
        return "audio/mp4";
    return type;
}

const char* mime_path_extension(const char* path)
{
    if (!path)
        return nullptr;
    const char* dot = strrchr(path, '.');
    return dot && dot != path ? dot + 1 : path;
}

}  // namespace

const char* upnp_mime_from_extension(const char* url, const char* extension, int column)
{
    if (!extension)
        return nullptr;
    for (const mime_row& row : mime_table)
        if (mime_row_has(row, extension))
            return mime_music_exception(url, column == 0 ? row.first : row.second);
    const mime_row& last = mime_table[std::size(mime_table) - 1];
    return column == 0 ? last.first : last.second;
}

const char* upnp_extension_from_mime(const char* type)
{
    if (!type)
        return nullptr;
    for (const mime_row& row : mime_table)
        if (strstr(type, row.first) || strstr(type, row.second))
            return row.extensions[0] ? row.extensions[0] : "";
    return nullptr;
}

const char* upnp_path_extension(const char* path)
{
    return mime_path_extension(path);
}

// VOB files are sent as plain MPEG, which every renderer accepts.
const char* upnp_stream_extension(const char* path)
{
    const char* extension = mime_path_extension(path);
    return extension && strcasecmp(extension, "vob") == 0 ? "mpg" : extension;
}
