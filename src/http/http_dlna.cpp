// http_dlna.cpp: the DLNA description of a resource, both ways. The builder
// writes the 4th field of a protocolInfo and the URL tail that carries the
// same parameters; the header derivation reads a request's URL and head and
// answers with CaptionInfo.vel, contentFeatures.dlna.org and
// transferMode.dlna.org. No state and no lock of its own; only the caption
// asks the store, under db_lock.
//
// Every text derived here ends up in a response head, and the URL it comes
// from is percent-decoded: each value is cut at its first control byte, so
// that no request can add a line of its own to the head.
#include "http/http_dlna.h"

#include "database/db_id.h"
#include "database/db_object.h"
#include "http/http_server.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_string.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <strings.h>

// The profiles a protocolInfo names. For all others the field is "*",
// while the URL tail still carries the parameters for the response heads.
static constexpr const char* dlna_eligible_profiles[] = {
    "JPEG_TN", "JPEG_SM", "JPEG_MED", "JPEG_LRG", "JPEG_SM_ICO", "JPEG_LRG_ICO",
    "MP3", "AAC_ISO_320", "AAC_ADTS_320", "AVC_MP4_BL_CIF15_AAC_520",
};

// DLNA.ORG_FLAGS has 32 digits; only the first eight say anything.
static const char dlna_flags_zeros[] = "000000000000000000000000";

enum { DLNA_ITEM_SIZE = 128, DLNA_LINE_SIZE = 128, DLNA_CAPTION_SIZE = 1024 };

int HTTP_dlna_profile_eligible(const char* profile)
{
    if (!profile)
        return 0;
    for (const char* p : dlna_eligible_profiles)
        if (strcasecmp(p, profile) == 0)
            return 1;
    return 0;
}

// ---- The builder ------------------------------------------------------------

void HTTP_build_DLNA_4thfield(const char* profile, int32_t byte_seek, int32_t time_seek, int32_t conversion,
                              int32_t streaming, int32_t interactive, int32_t background, const char* prefix,
                              int32_t prefix_length, const char* suffix, int32_t suffix_length, char* field,
                              int32_t field_size, char* tail, int32_t tail_size)
{
    if (!field || !tail)
        return;
    if (field_size > 0)
        field[0] = 0;
    if (tail_size > 0)
        tail[0] = 0;
    if (!profile || prefix_length < 0 || suffix_length < 0)
        return;
    if (!prefix)
        prefix_length = 0;
    if (!suffix)
        suffix_length = 0;
    int64_t profile_length = int64_t(strlen(profile));
    if (int64_t(tail_size) <= profile_length + prefix_length + suffix_length + 20) {
        printf("[Error] Too short URL space!!! %s, %d\n", __func__, __LINE__);
        return;
    }
    if (int64_t(field_size) <= profile_length + 42) {
        printf("[Error] Too short DLNA 4th field!!! %s, %d\n", __func__, __LINE__);
        return;
    }
    char flags[HTTP_DLNA_FLAGS_DIGITS + 1];
    snprintf(flags, sizeof flags, "%02x%02x%02x%02x", streaming ? 1 : 0,
             0x30 | (interactive ? 0x80 : 0) | (background ? 0x40 : 0), 0, 0);
    bool seek = time_seek > 0 || byte_seek > 0;
    char op[32] = "", op_tail[32] = "", ci[32] = "", ci_tail[32] = "";
    if (seek) {
        snprintf(op, sizeof op, "DLNA.ORG_OP=%d%d;", int(time_seek), int(byte_seek));
        snprintf(op_tail, sizeof op_tail, "-OP%d%d", int(time_seek), int(byte_seek));
    }
    if (conversion > 0) {
        snprintf(ci, sizeof ci, "DLNA.ORG_CI=%d;", int(conversion));
        snprintf(ci_tail, sizeof ci_tail, "-CI%d", int(conversion));
    }
    // The checks above are what callers have always been told; the texts
    // themselves are still measured, and one that does not fit leaves both
    // outputs empty rather than cut.
    int f = 0;
    if (HTTP_dlna_profile_eligible(profile))
        f = snprintf(field, size_t(field_size), "DLNA.ORG_PN=%s;%s%sDLNA.ORG_FLAGS=%s%s", profile, op, ci, flags,
                     dlna_flags_zeros);
    int t = snprintf(tail, size_t(tail_size), "%.*sDLNA-PN%s%s%s-FLAGS%s%.*s", int(prefix_length),
                     prefix ? prefix : "", profile, op_tail, ci_tail, flags, int(suffix_length), suffix ? suffix : "");
    if (f < 0 || f >= field_size || t < 0 || t >= tail_size) {
        field[0] = 0;
        tail[0] = 0;
    }
}

// ---- Headers from the URL and the head ----------------------------------------

static void dlna_cut_controls(char* text)
{
    for (char* p = text; *p; p++)
        if (static_cast<unsigned char>(*p) < 0x20) {
            *p = 0;
            return;
        }
}

static bool dlna_has_image_flags(const char* head)
{
    return strstr(head, "FLAGS00d") || strstr(head, "FLAGS00f");
}

static bool dlna_has_stream_flags(const char* head)
{
    return strstr(head, "FLAGS015") || strstr(head, "FLAGS017");
}

// The URL of a subtitle sidecar, by the first bit of the mask that is set.
struct dlna_caption_row { int32_t bit; const char* format; };
static constexpr dlna_caption_row dlna_caption_rows[] = {
    {1, "%ssubtitle/%s.smi"}, {2, "%ssubtitle/%s.srt"},  {4, "%ssubtitle/%s.sub"},
    {8, "%ssubtitle/%s.idx"}, {16, "%ssubtitle/%s.ttxt"}, {32, "%ssubtitle/%s.txt"},
};

// Only a file from /disk has a stream record; replies from memory have
// no subtitles.
static void dlna_caption_info(HTTP_request* r)
{
    if (!strstr(r->head, "getCaptionInfo.vel: 1") || !r->stream)
        return;
    const char* slash = strrchr(r->url, '/');
    const char* last = slash ? slash + 1 : r->url;
    char name[DB_ID_TEXT_SIZE];
    size_t n = strcspn(last, ".");
    if (n >= sizeof name)
        return;
    memcpy(name, last, n);
    name[n] = 0;
    if (name[0] != 'O')
        return;
    for (size_t i = 0; i < n; i++)
        if (static_cast<unsigned char>(name[i]) < 0x20)
            return;
    int32_t mask;
    {
        db_lock_guard hold;
        mask = db_object_get_int(db_get_item_by_id(name + 1, r), DBK_SUBTITLES);
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, "bSubtitleExists = %d\n", int(mask));
    if (mask <= 0)
        return;
    for (const dlna_caption_row& row : dlna_caption_rows) {
        if (!(mask & row.bit))
            continue;
        char url[DLNA_CAPTION_SIZE], line[DLNA_CAPTION_SIZE + 32];
        int k = snprintf(url, sizeof url, row.format, r->base_url, name);
        if (k > 0 && k < int(sizeof url) &&
            snprintf(line, sizeof line, "CaptionInfo.vel: %s\r\n", url) < int(sizeof line))
            HTTP_add_header(r, line);
        return;
    }
}

// The value behind mark in the URL as "label" + value, cut where the next
// item of the tail or the next path component begins. False without mark.
static bool dlna_url_item(const char* url, const char* mark, const char* label, char* out, size_t size)
{
    out[0] = 0;
    const char* at = strstr(url, mark);
    if (!at)
        return false;
    snprintf(out, size, "%s%s", label, at + strlen(mark));
    out[strcspn(out, "-/")] = 0;
    dlna_cut_controls(out);
    return true;
}

static void dlna_content_features(HTTP_request* r)
{
    if (!upnp_stristr(r->head, "\ngetContentFeatures.dlna.org:"))
        return;
    char pn[DLNA_ITEM_SIZE], op[DLNA_ITEM_SIZE], ci[DLNA_ITEM_SIZE], flags[DLNA_ITEM_SIZE];
    bool has_pn = dlna_url_item(r->url, "-PN", "DLNA.ORG_PN=", pn, sizeof pn);
    bool has_op = dlna_url_item(r->url, "-OP", "DLNA.ORG_OP=", op, sizeof op);
    bool has_ci = dlna_url_item(r->url, "-CI", "DLNA.ORG_CI=", ci, sizeof ci);
    bool has_flags = dlna_url_item(r->url, "-FLAGS", "DLNA.ORG_FLAGS=", flags, sizeof flags);
    if (has_flags) {
        size_t at = strlen(flags);
        snprintf(flags + at, sizeof flags - at, "%s", dlna_flags_zeros);
    }
    if (!has_pn && !has_op && !has_ci && !has_flags) {
        HTTP_add_header(r, "contentFeatures.dlna.org: *\r\n");
        return;
    }
    char line[DLNA_LINE_SIZE];
    int n = snprintf(line, sizeof line, "contentFeatures.dlna.org: %s%s%s%s%s%s%s\r\n", pn, has_op ? ";" : "", op,
                     has_ci ? ";" : "", ci, has_flags ? ";" : "", flags);
    // A line cut short would run into the next header; only a hand-made
    // URL is that long.
    if (n < 0 || n >= int(sizeof line)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "contentFeatures too long for %s\n", r->url);
        return;
    }
    HTTP_add_header(r, line);
}

// A client's own wish wins, wherever in the head the word stands; else the
// flags of the URL decide.
static void dlna_transfer_mode(HTTP_request* r)
{
    const char* head = r->head;
    const char* mode = nullptr;
    if (upnp_stristr(head, "transferMode.dlna.org:")) {
        for (const char* m : {"Interactive", "Background", "Streaming"})
            if (upnp_stristr(head, m)) {
                mode = m;
                break;
            }
    } else if (dlna_has_image_flags(head)) {
        mode = "Interactive";
    } else if (dlna_has_stream_flags(head)) {
        mode = "Streaming";
    }
    if (!mode)
        return;
    char line[64];
    snprintf(line, sizeof line, "transferMode.dlna.org: %s\r\n", mode);
    HTTP_add_header(r, line);
}

void HTTP_add_dlna_headers(HTTP_request* request)
{
    if (!request)
        return;
    dlna_caption_info(request);
    dlna_content_features(request);
    dlna_transfer_mode(request);
}
