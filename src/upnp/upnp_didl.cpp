// upnp_didl.cpp: the DIDL-Lite text of one object, the one writer that
// Browse, Search, CreateObject's reply and the control API's metadata all
// use. The text is appended straight to the reply string; it stands escaped
// inside the SOAP body, so markup is written as "&lt;" and values are
// escaped twice.
//
// What the filter asks for and which quirks the client has are read once
// into upnp_didl_options, so that a reply of many objects searches a long
// filter and the client's entry once rather than once per object and word.
// Every element goes through one 1024-byte buffer; one that doesn't fit is
// left out whole, since a cut element would break the whole reply.
//
// Lock: the object is read under db_lock, which the writer takes itself
// (callers usually hold it already). No state of its own beyond the address
// getter handed down at start.
#include "upnp/upnp_cds.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "http/http_server.h"
#include "runtime/upnp_mime.h"
#include "runtime/upnp_string.h"
#include "upnp/upnp_res.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string_view>

static std::atomic<upnp_cds_address_fn> didl_external_address;   // set at start

void upnp_cds_set_external_address(upnp_cds_address_fn fn)
{
    didl_external_address = fn;
}

// ---- Filter words and client quirks -------------------------------------------------------

enum didl_word : uint32_t {
    W_CHILD_COUNT, W_SEARCHABLE, W_INCLUDE_DERIVED, W_DATE, W_ARTIST, W_CREATOR, W_GENRE, W_ALBUM_ART,
    W_RES, W_REF_ID, W_DLNA_MANAGED, W_AUTHOR, W_COMPOSER, W_ALBUM, W_TRACK, W_KEYWORDS, W_SIZE,
    W_BITRATE, W_DURATION, W_RESOLUTION, W_PROTOCOL_INFO, W_SUBTITLES, W_COUNT
};

static constexpr const char* didl_words[] = {
    "childCount", "searchable", "includeDerived", "date", "artist", "creator", "genre", "albumArtURI",
    "res", "@refID", "dlnaManaged", "author", "Composer", "album", "originalTrackNumber", "keywords", "size",
    "bitrate", "duration", "resolution", "protocolInfo", "subtitlefile",
};
static_assert(std::size(didl_words) == W_COUNT, "one word for every bit");

enum didl_quirk : uint32_t { Q_NO_UTF8 = 1, Q_SHORT_TITLE = 2, Q_FORCE_RES = 4, Q_NO_M3U = 8 };

struct didl_quirk_row { const char* flag; didl_quirk bit; };
static constexpr didl_quirk_row didl_quirk_rows[] = {
    {"XM:noutf8", Q_NO_UTF8},           // the player reads values as 8-bit text
    {"XM:SHORTTITLE", Q_SHORT_TITLE},   // the player shows 39 bytes of a title at most
    {"XM:FORCERES", Q_FORCE_RES},       // the player plays nothing it got without res
    {"AV:no-m3u", Q_NO_M3U},            // the player lists a container's playlist as a track
};

int db_filter_has(const char* filter, const char* word)
{
    if (!filter || !word || !*word)
        return 0;
    if (*filter == '*')
        return 1;
    // Whatever stands before the word is not looked at: "dc:date" asks for
    // "date", and "res@size" for both "res" and "size".
    size_t n = strlen(word);
    for (const char* p = filter; (p = strstr(p, word)) != nullptr; p++) {
        unsigned char next = static_cast<unsigned char>(p[n]);
        if (next < 33 || next == ',' || next == '@')
            return 1;
    }
    return 0;
}

// The first three characters of the client's address against the host of
// the base URL: a client on another network gets the public address.
static void didl_wan_rewrite(HTTP_request* r)
{
    char probe[] = "http://nnn.";
    for (int i = 0; i < 3 && r->client_ip[i]; i++)
        probe[7 + i] = r->client_ip[i];
    if (strnlen(r->base_url, sizeof r->base_url) < 7)
        return;
    const char* colon = strchr(r->base_url + 7, ':');
    if (!colon || !strncmp(r->base_url, probe, 11) || upnp_ini_get_int(UPNP_OPT_ENABLEWEB) < 3)
        return;
    upnp_cds_address_fn address = didl_external_address;
    char rewritten[sizeof r->base_url];
    int n = snprintf(rewritten, sizeof rewritten, "http://%s%s", address ? address() : "", colon);
    if (n > 0 && n < int(sizeof rewritten))     // a cut address would point nowhere
        memcpy(r->base_url, rewritten, size_t(n) + 1);
}

void upnp_didl_prepare(upnp_didl_options* options, const char* filter, HTTP_request* request)
{
    *options = {};
    for (uint32_t w = 0; w < W_COUNT; w++)
        if (db_filter_has(filter, didl_words[w]))
            options->words |= 1u << w;
    if (!request)
        return;
    int32_t client = request->client_id;
    for (const didl_quirk_row& q : didl_quirk_rows)
        if (upnp_client_has_flag(client, q.flag))
            options->quirks |= q.bit;
    options->dlna_level = upnp_client_dlna_level(client);
    if (upnp_client_wan(client))
        didl_wan_rewrite(request);
}

// ---- Elements ------------------------------------------------------------------------------

enum { DIDL_ELEMENT_SIZE = 1024 };

// Escapes value into out (room bytes and a terminator) as text inside
// escaped DIDL-Lite; with quotes also '"', for attribute values. The
// length, or -1 when it doesn't fit.
static int32_t didl_escape(const char* value, char* out, int32_t room, bool quotes)
{
    int32_t n = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(value); *p; p++) {
        char code[16];
        const char* piece = nullptr;
        if (*p == '<')
            piece = "&amp;lt;";
        else if (*p == '>')
            piece = "&amp;gt;";
        else if (*p == '&')
            piece = "&amp;amp;";
        else if (*p == '"' && quotes)
            piece = "&amp;quot;";
        else if (*p < 32)
            snprintf(code, sizeof code, "&amp;#%d;", *p), piece = code;
        int32_t k = piece ? int32_t(strlen(piece)) : 1;
        if (n + k > room)
            return -1;
        if (piece)
            memcpy(out + n, piece, size_t(k));
        else
            out[n] = char(*p);
        n += k;
    }
    out[n] = 0;
    return n;
}

upnp_string* db_append_element(upnp_string* out, const char* tag, const char* attributes, const char* value,
                               int32_t utf8)
{
    if (!tag)
        return out;
    bool has_attributes = attributes && *attributes;
    char escaped[DIDL_ELEMENT_SIZE];
    int32_t n = value ? didl_escape(value, escaped, DIDL_ELEMENT_SIZE - 1, false) : 0;
    if (n < 0 || (n == 0 && !has_attributes))
        return out;
    if (!value)
        escaped[0] = 0;
    // "&lt;tag attributes&gt;value&lt;/tag&gt;", copied piece by piece: an
    // object writes a dozen elements, and formatting them cost more than
    // the whole rest of a page.
    const std::string_view pieces[] = {"&lt;", tag, has_attributes ? attributes : "", "&gt;",
                                       std::string_view(escaped, size_t(n)), "&lt;/", tag, "&gt;"};
    char element[DIDL_ELEMENT_SIZE];
    size_t k = 0;
    for (std::string_view piece : pieces) {
        if (k + piece.size() >= sizeof element)
            return out;             // left out whole: a cut element would break the reply
        memcpy(element + k, piece.data(), piece.size());
        k += piece.size();
    }
    element[k] = 0;
    return upnp_string_append_checked(out, element, utf8 ? 1 : 0);
}

// An attribute text "name=&quot;value&quot; " with the value escaped; ""
// for no value or one that doesn't fit.
static void didl_attribute(char* out, size_t size, const char* format, const char* value)
{
    char escaped[512];
    out[0] = 0;
    if (value && *value && didl_escape(value, escaped, int32_t(sizeof escaped) - 1, true) >= 0) {
        int n = snprintf(out, size, format, escaped);
        if (n < 0 || size_t(n) >= size)
            out[0] = 0;
    }
}

// ---- Objects -------------------------------------------------------------------------------

// One object's rendering: the prepared options, the request and the ids.
struct didl_job {
    const upnp_didl_options* options;
    const char* base_url;
    const HTTP_request* request;
    int32_t utf8;
    const char* id;
    const char* parent_id;

    bool has(didl_word w) const { return options->words >> w & 1u; }
    bool quirk(didl_quirk q) const { return (options->quirks & q) != 0; }
    upnp_string* element(upnp_string* s, const char* tag, const char* value, const char* attributes = "") const
    {
        return db_append_element(s, tag, attributes, value, utf8);
    }
    // An element whose value is "<base URL><prefix><id text><suffix>".
    upnp_string* link(upnp_string* s, const char* tag, const char* prefix, const char* suffix,
                      const char* attributes = "") const
    {
        char url[DIDL_ELEMENT_SIZE];
        int n = snprintf(url, sizeof url, "%s%s%s%s", base_url, prefix, id, suffix);
        return n > 0 && n < int(sizeof url) ? element(s, tag, url, attributes) : s;
    }
};

static bool didl_type_in(int32_t type, std::initializer_list<int32_t> types)
{
    for (int32_t t : types)
        if (t == type)
            return true;
    return false;
}

int db_object_is_music(const db_object* object)
{
    if (!object)
        return 0;
    db_lock_guard hold;
    int32_t type = db_object_type_of(object);
    if (didl_type_in(type, {DB_OBJ_PLAYLIST_CONTAINER, DB_OBJ_MUSIC_CONTAINER, DB_OBJ_MUSIC_ALBUM,
                            DB_OBJ_MUSIC_ARTIST, DB_OBJ_MUSIC_GENRE}))
        return 1;
    if (!db_type_is_container(type))
        return 0;
    // Down the first children to the first folder that holds items.
    const db_object* c = object;
    for (;;) {
        db_object* first = db_container_child(c, 0);
        if (!first)
            return 0;
        int32_t t = db_object_type_of(first);
        if (db_type_is_container(t)) {
            c = first;
            continue;
        }
        const std::initializer_list<int32_t> music = {DB_OBJ_AUDIO, DB_OBJ_AUDIO_BROADCAST, DB_OBJ_REF_TRACK};
        if (didl_type_in(t, music))
            return 1;
        db_object* target = db_type_is_ref(t) ? db_object_target(first) : nullptr;
        return target && didl_type_in(db_object_type_of(target), music) ? 1 : 0;
    }
}

static upnp_string* didl_container(upnp_string* s, db_object* o, const didl_job& j)
{
    const char* searchable = j.has(W_SEARCHABLE) ? "searchable=&quot;1&quot;" : "";
    char head[DIDL_ELEMENT_SIZE];
    if (j.has(W_CHILD_COUNT))
        snprintf(head, sizeof head,
                 "&lt;container id=&quot;%s&quot; parentID=&quot;%s&quot; childCount=&quot;%ld&quot; "
                 "restricted=&quot;%c&quot; %s&gt;",
                 j.id, j.parent_id, long(db_object_get_int(o, DBK_CHILD_COUNT)),
                 db_object_get_char(o, DBK_RESTRICTED), searchable);
    else
        snprintf(head, sizeof head,
                 "&lt;container id=&quot;%s&quot; parentID=&quot;%s&quot; restricted=&quot;1&quot; %s&gt;", j.id,
                 j.parent_id, searchable);
    s = upnp_string_append(s, head);
    if (o == db_root && j.has(W_INCLUDE_DERIVED))
        s = upnp_string_append(s, "&lt;upnp:searchClass includeDerived=&quot;1&quot;&gt;object"
                                  "&lt;/upnp:searchClass&gt;");
    s = j.element(s, "dc:title", db_object_get_str(o, DBK_TITLE));
    if (j.has(W_DATE))
        s = j.element(s, "dc:date", db_object_get_str(o, DBK_DATE));
    if (j.has(W_ARTIST))
        s = j.element(s, "upnp:artist", db_object_get_str(o, DBK_ARTIST));
    bool music = db_object_is_music(o);
    if (music) {
        if (j.has(W_CREATOR))
            s = j.element(s, "dc:creator", db_object_get_str(o, DBK_CREATOR));
        if (j.has(W_GENRE))
            s = j.element(s, "upnp:genre", db_object_get_str(o, DBK_GENRE));
        if (j.has(W_ALBUM_ART) && db_object_get_int(o, DBK_ART_OFFSET) > 0)
            s = j.link(s, "upnp:albumArtURI", "albumart/O", ".jpg");
    }
    if (!j.quirk(Q_NO_M3U) && music && j.has(W_RES))
        s = j.link(s, "res", "m3u/", ".m3u", " protocolInfo=&quot;http-get:*:audio/x-mpegurl:*&quot;");
    s = j.element(s, "upnp:class", db_object_class(o));
    return upnp_string_append(s, "&lt;/container&gt;");
}

static upnp_string* didl_item_head(upnp_string* s, db_object* o, db_object* real, const didl_job& j)
{
    char head[DIDL_ELEMENT_SIZE];
    int32_t managed = 0;
    if (db_type_is_ref(db_object_type_of(o))) {
        if (j.has(W_REF_ID)) {
            char target_id[DB_ID_TEXT_SIZE];
            db_object_id_text(real, target_id, sizeof target_id);
            snprintf(head, sizeof head,
                     "&lt;item id=&quot;%s&quot; refID=&quot;%s&quot; parentID=&quot;%s&quot; "
                     "restricted=&quot;1&quot;&gt;",
                     j.id, target_id, j.parent_id);
        } else {
            snprintf(head, sizeof head,
                     "&lt;item id=&quot;%s&quot; parentID=&quot;%s&quot; restricted=&quot;1&quot;&gt;", j.id,
                     j.parent_id);
        }
    } else if (j.has(W_DLNA_MANAGED) && (managed = db_object_get_int(o, DBK_DLNA_MANAGED)) >= 1 &&
               j.options->dlna_level > 0) {
        snprintf(head, sizeof head,
                 "&lt;item id=&quot;%s&quot; parentID=&quot;%s&quot; restricted=&quot;0&quot; "
                 "dlna:dlnaManaged=&quot;%ld&quot;&gt;",
                 j.id, j.parent_id, long(managed));
    } else {
        snprintf(head, sizeof head, "&lt;item id=&quot;%s&quot; parentID=&quot;%s&quot; restricted=&quot;1&quot; &gt;",
                 j.id, j.parent_id);
    }
    return upnp_string_append(s, head);
}

// The properties from dc:title to upnp:keywords.
static upnp_string* didl_item_properties(upnp_string* s, db_object* o, db_object* real, const didl_job& j)
{
    const char* title = db_object_get_str(real, DBK_TITLE);
    char short_title[40];
    if (title && j.quirk(Q_SHORT_TITLE)) {
        snprintf(short_title, sizeof short_title, "%s", title);
        title = short_title;
    }
    s = j.element(s, "dc:title", title);
    if (j.has(W_CREATOR)) {
        const char* creator = db_object_get_str(real, DBK_CREATOR);
        s = j.element(s, "dc:creator", creator ? creator : db_object_get_str(real, DBK_ARTIST));
    }
    if (j.has(W_ARTIST))
        s = j.element(s, "upnp:artist", db_object_get_str(real, DBK_ARTIST));
    const char* composer = db_object_get_str(real, DBK_COMPOSER);
    if ((j.has(W_AUTHOR) || j.has(W_COMPOSER)) && composer && *composer)
        s = j.element(s, "upnp:author", composer, " role=&quot;Composer&quot;");
    if (j.has(W_ALBUM))
        s = j.element(s, "upnp:album", db_object_get_str(real, DBK_ALBUM));
    if (j.has(W_GENRE))
        s = j.element(s, "upnp:genre", db_object_get_str(real, DBK_GENRE));
    if (j.has(W_DATE))
        s = j.element(s, "dc:date", db_object_get_str(real, DBK_DATE));
    if (j.has(W_TRACK)) {
        // A list's own position goes before the track's number.
        int32_t track = db_object_type_of(o) == DB_OBJ_REF_TRACK ? db_object_get_int(o, DBK_TRACK) : 0;
        if (track <= 0)
            track = db_object_get_int(real, DBK_TRACK);
        char number[16];
        snprintf(number, sizeof number, "%ld", long(track));
        if (track >= 0)
            s = j.element(s, "upnp:originalTrackNumber", number);
    }
    if (j.has(W_ALBUM_ART) && db_object_type_of(real) != DB_OBJ_PHOTO && db_object_get_int(real, DBK_ART_OFFSET) > 0)
        s = j.link(s, "upnp:albumArtURI", "albumart/O", ".jpg");
    if (j.has(W_KEYWORDS))
        s = j.element(s, "upnp:keywords", db_object_get_str(real, DBK_KEYWORDS));
    return s;
}

struct didl_subtitle { int32_t bit; const char* type; };
static constexpr didl_subtitle didl_subtitles[] = {
    {2, "srt"}, {4, "sub"}, {8, "idx"}, {16, "ttxt"}, {32, "txt"},
};

static upnp_string* didl_item_subtitles(upnp_string* s, db_object* real, const didl_job& j)
{
    int32_t mask = db_object_get_int(real, DBK_SUBTITLES);
    if (!j.has(W_SUBTITLES) || mask <= 0)
        return s;
    if (mask & 1) {
        s = j.link(s, "vel:CaptionInfo", "subtitle/O", ".smi");
        s = j.link(s, "vel:CaptionInfoEx", "subtitle/O", ".smi", " vel:type=&quot;smi&quot;");
    }
    for (const didl_subtitle& sub : didl_subtitles) {
        if (!(mask & sub.bit))
            continue;
        char suffix[16], attributes[64];
        snprintf(suffix, sizeof suffix, ".%s", sub.type);
        snprintf(attributes, sizeof attributes, " vel:type=&quot;%s&quot;", sub.type);
        s = j.link(s, "vel:CaptionInfoEx", "subtitle/O", suffix, attributes);
    }
    return s;
}

// Which builder writes an item's res elements: the first row of the item's
// type whose MIME type is that of the item's extension, or is null.
struct didl_res_row {
    int32_t type;
    const char* mime;
    upnp_string* (*build)(upnp_string* out, const db_res_args* args);
};
static constexpr didl_res_row didl_res_rows[] = {
    {DB_OBJ_AUDIO, "audio/mpeg", db_res_mp3},
    {DB_OBJ_AUDIO, "audio/L16", db_res_lpcm},
    {DB_OBJ_AUDIO, "audio/x-flac", db_res_flac},
    {DB_OBJ_AUDIO, "video/mp4", db_res_mp4_audio},      // a track in an MP4 file
    {DB_OBJ_AUDIO, "audio/mp4", db_res_mp4_audio},
    {DB_OBJ_AUDIO, "audio/vnd.dlna.adts", db_res_adts},
    {DB_OBJ_AUDIO, nullptr, db_res_audio},
    {DB_OBJ_VIDEO, nullptr, db_res_video},
    {DB_OBJ_VIDEO_MOVIE, nullptr, db_res_video},
    {DB_OBJ_PHOTO, "image/jpeg", db_res_jpeg},
    {DB_OBJ_PHOTO, nullptr, db_res_photo},
    {DB_OBJ_DOCUMENT, nullptr, db_res_document},
};

// Other types (streams, shadows) have no res.
static upnp_string* didl_res_elements(upnp_string* s, const db_res_args* args)
{
    int32_t type = db_object_type_of(args->item);
    const char* extension = db_object_get_str(args->item, DBK_EXTENSION);
    const char* mime = extension ? upnp_mime_from_extension(nullptr, extension, 0) : nullptr;
    for (const didl_res_row& row : didl_res_rows)
        if (row.type == type && (!row.mime || (mime && strcmp(row.mime, mime) == 0)))
            return row.build(s, args);
    return s;
}

// The res attributes, and with them or the filter's word, the res elements.
static upnp_string* didl_item_res(upnp_string* s, db_object* real, const didl_job& j)
{
    bool force = j.quirk(Q_FORCE_RES);
    char size[128] = "", bitrate[64] = "", duration[64] = "", resolution[128] = "";
    if (j.has(W_SIZE)) {
        int32_t bytes = db_object_get_int(real, DBK_SIZE);
        if (bytes > 0)
            snprintf(size, sizeof size, "size=&quot;%ld&quot; ", long(bytes)), force = true;
        else if (const char* text = db_object_get_str(real, DBK_SIZE_TEXT))
            didl_attribute(size, sizeof size, "size=&quot;%s&quot; ", text), force = true;
    }
    int32_t rate = db_object_get_int(real, DBK_BITRATE);
    if (j.has(W_BITRATE) && rate > 0)
        snprintf(bitrate, sizeof bitrate, "bitrate=&quot;%d&quot; ", rate), force = true;
    if (j.has(W_DURATION)) {
        force = true;
        if (int32_t ms = db_object_get_int(real, DBK_DURATION); ms > 0) {
            char* text = upnp_time_from_ms(ms);
            snprintf(duration, sizeof duration, "duration=&quot;%s&quot; ", text ? text : "");
            free(text);
        }
    }
    const char* pixels = db_object_get_str(real, DBK_RESOLUTION);
    if (j.has(W_RESOLUTION) && pixels)
        didl_attribute(resolution, sizeof resolution, "resolution=&quot;%s&quot; ", pixels), force = true;
    force = force || j.has(W_PROTOCOL_INFO);
    if (!j.has(W_RES) && !force)
        return s;
    char kind = db_object_get_char(real, DBK_SOURCE_KIND);
    const char* location = kind == 'h' ? "httpproxy" : kind == 'f' ? "ftpproxy" : "disk";
    char import[DIDL_ELEMENT_SIZE];
    didl_attribute(import, sizeof import, " importUri=&quot;%s&quot; ", db_object_get_str(real, DBK_MIME_OVERRIDE));
    s = didl_item_subtitles(s, real, j);
    const db_res_args args = {j.request, real, j.id, location, size, bitrate, duration, resolution, import,
                              j.options->dlna_level};
    return didl_res_elements(s, &args);
}

static upnp_string* didl_item(upnp_string* s, db_object* o, const didl_job& j)
{
    int32_t type = db_object_type_of(o);
    db_object* real = db_type_is_ref(type) ? db_object_target(o) : o;
    int32_t real_type = real ? db_object_type_of(real) : -1;
    if (type > DB_OBJ_SHADOW || real_type < DB_OBJ_ITEM || real_type > DB_OBJ_SHADOW || db_type_is_ref(real_type))
        return s;
    s = didl_item_head(s, o, real, j);
    s = didl_item_properties(s, o, real, j);
    s = didl_item_res(s, real, j);
    s = j.element(s, "upnp:class", db_object_class(real));
    return upnp_string_append(s, "&lt;/item&gt;");
}

upnp_string* upnp_didl_append(upnp_string* out, db_object* object, const upnp_didl_options* options,
                              const HTTP_request* request)
{
    if (!object || !options)
        return out;
    if (!out && !(out = upnp_string_new(nullptr, 4096)))
        return nullptr;
    db_lock_guard hold;
    char id[DB_ID_TEXT_SIZE], parent_id[DB_ID_TEXT_SIZE];
    db_object_id_text(object, id, sizeof id);
    db_object_id_text(db_object_parent(object), parent_id, sizeof parent_id);
    didl_job j = {options, request ? request->base_url : "", request, (options->quirks & Q_NO_UTF8) ? 0 : 1, id,
                  parent_id};
    if (db_type_is_container(db_object_type_of(object)))
        return didl_container(out, object, j);
    return didl_item(out, object, j);
}

upnp_string* db_object_to_didl(upnp_string* out, db_object* object, const char* filter, HTTP_request* request)
{
    if (!object)
        return out;
    upnp_didl_options options;
    upnp_didl_prepare(&options, filter, request);
    return upnp_didl_append(out, object, &options, request);
}

upnp_string* upnp_cds_object_didl(upnp_string* out, db_object* object, const char* base_url, int32_t client_id)
{
    HTTP_request* request = static_cast<HTTP_request*>(calloc(1, sizeof(HTTP_request)));
    if (!request)
        return out;
    request->socket = -1;
    request->version = 11;
    request->client_id = client_id;
    snprintf(request->base_url, sizeof request->base_url, "%s", base_url ? base_url : "");
    out = db_object_to_didl(out, object, "*", request);
    free(request);
    return out;
}
