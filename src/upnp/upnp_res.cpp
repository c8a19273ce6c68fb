// upnp_res.cpp: the res elements of an item, one builder per family of
// formats. Each builder reads the item's fields, the client's DLNA level and
// quirks and asks for conversions, and writes one element or a few, the
// true format first. The DLNA parameters of an element go into its
// protocolInfo and, the same, into a tail of its URL, which the HTTP side
// reads back when the URL is fetched.
//
// Every attribute text and URL is formatted into a 1024-byte buffer; one
// that does not fit leaves its element out whole, since a cut one would
// break the reply. No state beyond the conversion lookup handed down at
// start; builders run under db_lock, inside db_object_to_didl.
#include "upnp/upnp_res.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "http/http_dlna.h"
#include "http/http_server.h"
#include "runtime/upnp_mime.h"
#include "runtime/upnp_string.h"
#include "upnp/upnp_cds.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>

static std::atomic<upnp_res_conversion_fn> res_conversions;   // set at start, read by every Browse

void upnp_res_set_conversions(upnp_res_conversion_fn fn)
{
    res_conversions = fn;
}

enum { RES_TEXT_SIZE = 1024, RES_FIELD_SIZE = 256, RES_IMAGE_FIELD_SIZE = 128, RES_TITLE_SIZE = 256 };

// The icon sizes of a picture are offered only behind a switch that nothing
// in the server turns on.
static constexpr bool RES_ICONS = false;

static const char RES_JPEG[] = "image/jpeg";

// ---- Pieces --------------------------------------------------------------------

// A formatted text; ok is false (and the text empty) when it did not fit.
struct res_text {
    char text[RES_TEXT_SIZE];
    bool ok;
};

__attribute__((format(printf, 2, 3))) static void res_format(res_text* t, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int n = vsnprintf(t->text, sizeof t->text, format, args);
    va_end(args);
    t->ok = n >= 0 && n < int(sizeof t->text);
    if (!t->ok)
        t->text[0] = 0;
}

// The DLNA description of one resource. A build that failed leaves both
// empty: the field then reads "*" and the URL goes without a tail.
struct res_dlna {
    char fourth[RES_FIELD_SIZE] = "";
    char tail[RES_TEXT_SIZE] = "";
    const char* field() const { return strlen(fourth) < 2 ? "*" : fourth; }
};

// Streamed media as stored: byte seek, streaming and background transfer.
static void res_standard(res_dlna* d, const char* profile)
{
    HTTP_build_DLNA_4thfield(profile, 1, 0, 0, 1, 0, 1, nullptr, 0, nullptr, 0, d->fourth, RES_FIELD_SIZE, d->tail,
                             RES_FIELD_SIZE);
}

// A copy of the arguments with every absent text "", so that no format
// ever meets a null.
static bool res_begin(const db_res_args* in, db_res_args* a)
{
    if (!in || !in->item)
        return false;
    *a = *in;
    for (const char** t : {&a->id, &a->location, &a->size, &a->bitrate, &a->duration, &a->resolution, &a->import})
        if (!*t)
            *t = "";
    return true;
}

static const char* res_base(const db_res_args* a)
{
    return a->request ? a->request->base_url : "";
}

static bool res_flag(const db_res_args* a, const char* flag)
{
    return upnp_client_has_flag(a->request ? a->request->client_id : 0, flag) != 0;
}

static const char* res_extension(const db_res_args* a)
{
    const char* extension = db_object_get_str(a->item, DBK_EXTENSION);
    return extension ? extension : "bin";
}

// The MIME type of an extension, in the column the client reads.
static const char* res_mime(const db_res_args* a, const char* extension)
{
    const char* mime = upnp_mime_from_extension(nullptr, extension, res_flag(a, "HP:MIMETYPE2") ? 1 : 0);
    return mime ? mime : "application/octet-stream";
}

static const char* res_item_mime(const db_res_args* a)
{
    return res_mime(a, db_object_get_str(a->item, DBK_EXTENSION));
}

static const char* res_profile(const db_res_args* a)
{
    const char* profile = db_object_get_str(a->item, DBK_DLNA_PROFILE);
    return profile && *profile ? profile : nullptr;
}

// The title as a file name behind the URL, for players that show the last
// path component: 255 bytes at most, and no "'", which some of them cut at.
static void res_url_title(const db_res_args* a, char* out, size_t size)
{
    const char* title = db_object_get_str(a->item, DBK_TITLE);
    snprintf(out, size, "%s", title ? title : "");
    for (char* p = out; *p; p++)
        if (*p == '\'')
            *p = '?';
}

// The path of a conversion of this item, empty when there is none.
static void res_conversion(const db_res_args* a, int32_t width, int32_t height, const char* from, const char* to,
                           char* out, int32_t size)
{
    out[0] = 0;
    if (upnp_res_conversion_fn fn = res_conversions)
        fn(a->id, width, height, from, to, out, size);
    out[size - 1] = 0;
}

// One res element. An upload target's element holds no URL, except where
// import_rule is off: those clients have always been given the file.
static upnp_string* res_put(upnp_string* out, const db_res_args* a, const res_text& attributes, const res_text& url,
                            bool import_rule = true)
{
    if (!attributes.ok || !url.ok)
        return out;
    return db_append_element(out, "res", attributes.text, import_rule && *a->import ? "" : url.text, 1);
}

// ---- Audio -----------------------------------------------------------------------

upnp_string* db_res_audio(upnp_string* out, const db_res_args* in)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    const char* extension = res_extension(&a);
    res_text attributes, url;
    res_format(&attributes, " %s %s %s protocolInfo=&quot;http-get:*:%s:*&quot; ", a.size, a.duration, a.import,
               res_item_mime(&a));
    if (res_flag(&a, "XM:ADDTITLETOURL")) {
        char title[RES_TITLE_SIZE];
        res_url_title(&a, title, sizeof title);
        res_format(&url, "%s%s/music/O%s.%s/%s.%s", res_base(&a), a.location, a.id, extension, title, extension);
    } else {
        res_format(&url, "%s%s/music/O%s.%s", res_base(&a), a.location, a.id, extension);
    }
    return res_put(out, &a, attributes, url);
}

// The shortest form, for players that take nothing else and for clients
// without DLNA.
static upnp_string* res_mp3_minimal(upnp_string* out, const db_res_args* a)
{
    res_text attributes, url;
    res_format(&attributes, " %s %s protocolInfo=&quot;http-get:*:audio/mpeg:*&quot; ", a->size, a->duration);
    res_format(&url, "%s%s/music/O%s.mp3", res_base(a), a->location, a->id);
    return res_put(out, a, attributes, url, false);
}

// Uncompressed audio is what every DLNA player must play, so an MP3 of CD
// rate or better is offered converted as well.
static upnp_string* res_mp3_as_lpcm(upnp_string* out, const db_res_args* a)
{
    char path[RES_TEXT_SIZE];
    res_conversion(a, 0, 0, "audio/mpeg", "audio/L16", path, sizeof path);
    int32_t rate = db_object_get_int(a->item, DBK_SAMPLE_RATE);
    if (!*path || rate < 44100)
        return out;
    int32_t channels = db_object_get_int(a->item, DBK_CHANNELS);
    res_dlna d;
    HTTP_build_DLNA_4thfield("LPCM", 0, 0, 1, 1, 0, 1, nullptr, 0, nullptr, 0, d.fourth, RES_FIELD_SIZE, d.tail,
                             RES_FIELD_SIZE);
    res_text attributes, url;
    res_format(&attributes, " %s protocolInfo=&quot;http-get:*:%s;rate=%d;channels=%d:%s&quot; ", a->duration,
               "audio/L16", int(rate), int(channels), d.field());
    res_format(&url, "%scgi-bin/%s-rate%d-channels%d/%s", res_base(a), d.tail, int(rate), int(channels), path);
    return res_put(out, a, attributes, url);
}

upnp_string* db_res_mp3(upnp_string* out, const db_res_args* in)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    if (res_flag(&a, "XM:MINIMALMP3URL"))
        return res_mp3_minimal(out, &a);
    res_text attributes, url;
    if (res_flag(&a, "XM:ADDTITLETOURL")) {
        char title[RES_TITLE_SIZE];
        res_url_title(&a, title, sizeof title);
        res_format(&attributes, " %s %s %s protocolInfo=&quot;http-get:*:audio/mpeg:*&quot; ", a.size, a.duration,
                   a.bitrate);
        res_format(&url, "%s%s/music/O%s.mp3/%s.mp3", res_base(&a), a.location, a.id, title);
        return res_put(out, &a, attributes, url, false);
    }
    if (a.dlna_level < 0)
        return res_mp3_minimal(out, &a);
    res_dlna d;
    res_standard(&d, "MP3");
    res_format(&attributes, "%s %s %s %s protocolInfo=&quot;http-get:*:audio/mpeg:%s&quot;", a.import, a.size,
               a.bitrate, a.duration, d.field());
    res_format(&url, "%s%s/music/%s/O%s.mp3", res_base(&a), a.location, d.tail, a.id);
    out = res_put(out, &a, attributes, url);
    return res_flag(&a, "XM:GIVEMP3NOLPCM") ? out : res_mp3_as_lpcm(out, &a);
}

upnp_string* db_res_lpcm(upnp_string* out, const db_res_args* in)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    int32_t channels = db_object_get_int(a.item, DBK_CHANNELS);
    int32_t rate = db_object_get_int(a.item, DBK_SAMPLE_RATE);
    res_dlna d;
    res_standard(&d, "LPCM");
    res_text attributes, url;
    res_format(&attributes, "%s %s %s %s protocolInfo=&quot;http-get:*:%s;rate=%d;channels=%d:%s&quot; ", a.import,
               a.size, a.bitrate, a.duration, res_mime(&a, "pcm"), int(rate), int(channels), d.field());
    res_format(&url, "%s%s/%s-rate%d-channels%d/music/O%s.pcm", res_base(&a), a.location, d.tail, int(rate),
               int(channels), a.id);
    return res_put(out, &a, attributes, url);
}

// AAC in MP4 or ADTS. Without a profile the tail is empty and the URL holds
// "music//O": the route takes that as it is.
static upnp_string* res_aac(upnp_string* out, const db_res_args* in, const char* mime)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    res_dlna d;
    res_text attributes, url;
    if (const char* profile = res_profile(&a)) {
        res_standard(&d, profile);
        res_format(&attributes, " %s %s %s %s protocolInfo=&quot;http-get:*:%s:%s&quot; ", a.size, a.duration,
                   a.bitrate, a.import, mime, d.field());
    } else {
        res_format(&attributes, " %s %s %s %s protocolInfo=&quot;http-get:*:%s:*&quot; ", a.size, a.duration,
                   a.bitrate, a.import, mime);
    }
    res_format(&url, "%s%s/music/%s/O%s.%s", res_base(&a), a.location, d.tail, a.id, res_extension(&a));
    return res_put(out, &a, attributes, url);
}

upnp_string* db_res_mp4_audio(upnp_string* out, const db_res_args* a)
{
    return res_aac(out, a, "audio/mp4");
}

upnp_string* db_res_adts(upnp_string* out, const db_res_args* a)
{
    return res_aac(out, a, "audio/vnd.dlna.adts");
}

// Players that know no FLAC get WAV, when a conversion exists; it stands
// first, so that such a player takes it.
upnp_string* db_res_flac(upnp_string* out, const db_res_args* in)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    res_text attributes, url;
    char path[RES_TEXT_SIZE];
    res_conversion(&a, 0, 0, "audio/x-flac", "audio/x-wav", path, sizeof path);
    if (*path) {
        res_format(&attributes, " %s %s protocolInfo=&quot;http-get:*:%s:*&quot; ", a.duration, a.bitrate,
                   "audio/x-wav");
        res_format(&url, "%s%s", res_base(&a), path);
        out = res_put(out, &a, attributes, url, false);
    }
    res_format(&attributes, " %s %s %s protocolInfo=&quot;http-get:*:%s:*&quot; ", a.size, a.bitrate, a.duration,
               upnp_mime_from_extension(nullptr, "flac", 0));
    res_format(&url, "%s%s/music/O%s.flac", res_base(&a), a.location, a.id);
    return res_put(out, &a, attributes, url, false);
}

// ---- Video and documents -----------------------------------------------------

upnp_string* db_res_video(upnp_string* out, const db_res_args* in)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    const char* mime = res_item_mime(&a);
    const char* extension = res_extension(&a);
    const char* profile = res_profile(&a);
    res_text attributes, url;
    if (a.dlna_level < 0) {
        res_format(&attributes, " %s %s %s protocolInfo=&quot;http-get:*:%s:*&quot; ", a.size, a.duration,
                   a.resolution, mime);
        res_format(&url, "%s%s/video/O%s.%s", res_base(&a), a.location, a.id, extension);
        return res_put(out, &a, attributes, url, false);
    }
    if (!profile) {
        res_format(&attributes, "%s %s %s %s protocolInfo=&quot;http-get:*:%s:*&quot; ", a.import, a.size,
                   a.duration, a.resolution, mime);
        res_format(&url, "%s%s/video/O%s.%s", res_base(&a), a.location, a.id, extension);
        return res_put(out, &a, attributes, url);
    }
    // A transport stream with time stamps has a type of its own in DLNA;
    // the ISO form has none.
    if (strstr(profile, "MPEG_TS") && !strstr(profile, "MPEG_TS_SD_NA_ISO"))
        mime = "video/vnd.dlna.mpeg-tts";
    res_dlna d;
    res_standard(&d, profile);
    res_format(&attributes, "%s %s %s %s protocolInfo=&quot;http-get:*:%s:%s&quot; ", a.import, a.size, a.duration,
               a.resolution, mime, d.field());
    res_format(&url, "%s%s/%s/video/O%s.%s", res_base(&a), a.location, d.tail, a.id, extension);
    return res_put(out, &a, attributes, url);
}

// The URL never carries a tail: documents are fetched whole.
upnp_string* db_res_document(upnp_string* out, const db_res_args* in)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    const char* mime = res_item_mime(&a);
    res_text attributes, url;
    if (const char* profile = res_profile(&a)) {
        res_dlna d;
        res_standard(&d, profile);
        res_format(&attributes, "%s %s protocolInfo=&quot;http-get:*:%s:%s&quot; ", a.import, a.size, mime,
                   d.field());
    } else {
        res_format(&attributes, "%s %s protocolInfo=&quot;http-get:*:%s:*&quot; ", a.import, a.size, mime);
    }
    res_format(&url, "%s%s/document/O%s.%s", res_base(&a), a.location, a.id, res_extension(&a));
    return res_put(out, &a, attributes, url);
}

// ---- Pictures ----------------------------------------------------------------

upnp_string* db_res_photo(upnp_string* out, const db_res_args* in)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    res_text attributes, url;
    res_format(&attributes, " %s %s protocolInfo=&quot;http-get:*:%s:*&quot; ", a.size, a.import, res_item_mime(&a));
    res_format(&url, "%s%s/photo/O%s.%s", res_base(&a), a.location, a.id, res_extension(&a));
    return res_put(out, &a, attributes, url);
}

void db_fit_box(int32_t width, int32_t height, int32_t box_width, int32_t box_height, int32_t* out_width,
                int32_t* out_height)
{
    if (!out_width || !out_height)
        return;
    *out_width = box_width;
    *out_height = box_height;
    if (width <= 0 || height <= 0 || box_width <= 0 || box_height <= 0)
        return;
    double by_width = double(width) / box_width, by_height = double(height) / box_height;
    // The side that overshoots the box more sets the scale; the other side
    // comes out below the box, so the cut result always fits 32 bits.
    if (by_height < by_width)
        *out_height = int32_t(height / by_width);
    else if (by_height > by_width)
        *out_width = int32_t(width / by_height);
}

// Written as markup of its own rather than through the element writer:
// the resolution, when asked for, is the size of this very variant.
upnp_string* db_res_image(upnp_string* out, const db_res_args* in, int32_t width, int32_t height, const char* size,
                          const char* mime, const char* fourth, const char* path)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    char head[64] = "&lt;res ";
    if (*a.resolution && width != 0 && height != 0)
        snprintf(head, sizeof head, "&lt;res resolution=&quot;%dx%d&quot; ", int(width), int(height));
    bool import = *a.import != 0;
    res_text t;
    res_format(&t, "%s%s%sprotocolInfo=&quot;http-get:*:%s:%s&quot;&gt;%s%s&lt;/res&gt;", head, size ? size : "",
               a.import, mime ? mime : RES_JPEG, fourth && strlen(fourth) >= 2 ? fourth : "*",
               import ? "" : res_base(&a), import || !path ? "" : path);
    return t.ok ? upnp_string_append_checked(out, t.text, 1) : out;
}

// W and H of a "%dx%d" text, each read as leniently as it always was.
static void res_read_size(const char* text, int32_t* width, int32_t* height)
{
    *width = text ? upnp_parse_lenient_i32(text) : 0;
    const char* x = text ? strchr(text, 'x') : nullptr;
    *height = x ? upnp_parse_lenient_i32(x + 1) : 0;
}

struct res_picture {
    int32_t width, height;
    bool cover;                         // an embedded cover or a sidecar
    int32_t cover_width, cover_height;
    res_text cover_path;
};

// A rescaled copy of the picture under the profile it fits, when the
// conversion exists. The conversion's own path stands behind the tail, so
// "cgi-bin/" comes twice.
static upnp_string* res_jpeg_variant(upnp_string* out, const db_res_args* a, const char* profile, int32_t width,
                                     int32_t height)
{
    char path[RES_TEXT_SIZE];
    res_conversion(a, width, height, RES_JPEG, RES_JPEG, path, sizeof path);
    if (!*path)
        return out;
    res_text suffix;
    res_format(&suffix, "/%s", path);
    res_dlna d;
    HTTP_build_DLNA_4thfield(profile, 0, 0, 1, 0, 1, 1, "cgi-bin/", 8, suffix.text, int32_t(strlen(suffix.text)),
                             d.fourth, RES_IMAGE_FIELD_SIZE, d.tail, RES_TEXT_SIZE);
    return db_res_image(out, a, width, height, "", RES_JPEG, d.fourth, *d.tail ? d.tail : path);
}

// A DLNA client: the original under the profile its size fits, the cover,
// then the rescaled sizes the original does not already give.
static upnp_string* res_jpeg_dlna(upnp_string* out, const db_res_args* a, const res_picture* p)
{
    const int32_t w = p->width, h = p->height;
    res_text suffix, plain;
    res_format(&suffix, "/O%s.jpg", a->id);
    res_format(&plain, "disk/photo/O%s.jpg", a->id);
    const bool small = w <= 640 && h <= 480;
    const bool medium = !small && w <= 1024 && h <= 768;
    const char* profile = small ? "JPEG_SM" : medium ? "JPEG_MED" : w <= 4096 && h <= 4096 ? "JPEG_LRG" : nullptr;
    const int32_t suffix_length = int32_t(strlen(suffix.text));
    res_dlna d;
    // A picture too large for any profile still goes out, without a field.
    if (profile)
        HTTP_build_DLNA_4thfield(profile, 1, 0, 0, 0, 1, 1, "disk/photo/", 11, suffix.text, suffix_length, d.fourth,
                                 RES_IMAGE_FIELD_SIZE, d.tail, RES_TEXT_SIZE);
    out = db_res_image(out, a, w, h, a->size, RES_JPEG, d.fourth, *d.tail ? d.tail : plain.text);
    if (p->cover) {
        res_dlna c;
        HTTP_build_DLNA_4thfield("JPEG_TN", 0, 0, 0, 0, 1, 1, "albumart/", 9, suffix.text, suffix_length, c.fourth,
                                 RES_IMAGE_FIELD_SIZE, c.tail, RES_TEXT_SIZE);
        out = db_res_image(out, a, p->cover_width, p->cover_height, "", RES_JPEG, c.fourth,
                           *c.tail ? c.tail : p->cover_path.text);
    }
    if (upnp_ini_get_int(UPNP_OPT_NORESCALE))
        return out;
    int32_t fw, fh;
    if (!small && w >= 640 && h >= 480) {
        db_fit_box(w, h, 640, 480, &fw, &fh);
        out = res_jpeg_variant(out, a, "JPEG_SM", fw, fh);
    }
    if (!medium && w >= 1024 && h >= 768) {
        db_fit_box(w, h, 720, 576, &fw, &fh);
        out = res_jpeg_variant(out, a, "JPEG_MED", fw, fh);
    }
    if (!p->cover)
        out = res_jpeg_variant(out, a, "JPEG_TN", 160, 160);
    if (RES_ICONS) {
        out = res_jpeg_variant(out, a, "JPEG_SM_ICO", 48, 48);
        out = res_jpeg_variant(out, a, "JPEG_LRG_ICO", 120, 120);
    }
    return out;
}

// A client without DLNA: the picture at the size its entry names (PX:, PY:)
// or as it is, and a thumbnail at its size (TX:, TY:) or the cover, all
// without DLNA fields.
static upnp_string* res_jpeg_plain(upnp_string* out, const db_res_args* a, res_picture* p)
{
    bool main = false;
    if (!upnp_ini_get_int(UPNP_OPT_NORESCALE)) {
        int32_t client = a->request ? a->request->client_id : 0;
        int32_t px = upnp_client_get_number(client, "PX:"), py = upnp_client_get_number(client, "PY:");
        int32_t tx = upnp_client_get_number(client, "TX:"), ty = upnp_client_get_number(client, "TY:");
        char path[RES_TEXT_SIZE];
        if (px > 0 && py > 0) {
            int32_t fw, fh;
            db_fit_box(p->width, p->height, px, py, &fw, &fh);
            res_conversion(a, fw, fh, RES_JPEG, RES_JPEG, path, sizeof path);
            if (*path) {
                out = db_res_image(out, a, fw, fh, "", RES_JPEG, "*", path);
                main = true;
            }
        }
        if (tx > 0 && ty > 0 && !(tx == p->cover_width && ty == p->cover_height)) {
            res_conversion(a, tx, ty, RES_JPEG, RES_JPEG, path, sizeof path);
            if (*path) {
                res_format(&p->cover_path, "%s", path);
                p->cover_width = tx;
                p->cover_height = ty;
            }
        }
    }
    if (!main) {
        res_text plain;
        res_format(&plain, "disk/photo/O%s.jpg", a->id);
        out = db_res_image(out, a, p->width, p->height, a->size, RES_JPEG, "*", plain.text);
    }
    // A thumbnail beside a large picture would be fetched in its place.
    if (*p->cover_path.text && int64_t(p->width) * p->height < 900000)
        out = db_res_image(out, a, p->cover_width, p->cover_height, "", RES_JPEG, "*", p->cover_path.text);
    return out;
}

upnp_string* db_res_jpeg(upnp_string* out, const db_res_args* in)
{
    db_res_args a;
    if (!res_begin(in, &a))
        return out;
    res_picture p = {};
    res_read_size(db_object_get_str(a.item, DBK_RESOLUTION), &p.width, &p.height);
    if (*a.import) {
        const char* profile = res_profile(&a);
        res_text fourth;
        res_format(&fourth, "DLNA.ORG_PN=%s", profile ? profile : "");
        return db_res_image(out, &a, p.width, p.height, a.size, RES_JPEG, profile ? fourth.text : "*", "");
    }
    if (db_object_get_int(a.item, DBK_ART_OFFSET) > 0) {
        p.cover = true;
        res_read_size(db_object_get_str(a.item, DBK_ART_RESOLUTION), &p.cover_width, &p.cover_height);
        res_format(&p.cover_path, "albumart/O%s.jpg", a.id);
    }
    return a.dlna_level >= 0 ? res_jpeg_dlna(out, &a, &p) : res_jpeg_plain(out, &a, &p);
}
