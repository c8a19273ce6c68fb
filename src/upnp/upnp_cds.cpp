// upnp_cds.cpp: the ContentDirectory actions Browse (children and
// metadata) and X_BrowseByLetter, and the sorted orders they page through.
//
// A reply is rendered under db_lock and sent after it, so that a client
// that stops reading holds up neither the scanner nor other clients. A
// plain reply needs its Content-Length, so it is rendered whole under the
// lock and sent once the lock is left. A chunked reply is rendered in
// batches of about CDS_BATCH_BYTES, each under the lock and sent outside
// it, with the chunk framing written into the batch: the bytes on the wire
// are those of one chunk per object. Between batches the rest of the page is
// held as (object, id word) pairs. While the tree's change stamp stands
// still the objects are read through their pointers; once it moves, the
// container is looked up again by its id text and each object by its id
// word among the children as they now stand, and an object that has gone
// is skipped. The counts of the tail are those of the container when the
// reply began.
//
// A Browse with sort criteria reads a sorted view of the container: its
// children sorted once and kept, keyed by container, criteria and the
// client's byte-order wish, until the tree changes. Paging through a large
// container then sorts it once, and a view reads exactly as a fresh sort
// would, since any change that could reorder it (children, metadata, the
// in-place sort whose order breaks ties) moves the stamp. A few views are
// kept; a reply that reads one between batches holds it until it ends.
//
// Lock: the views, like the tree, are guarded by db_lock. Nothing here
// holds db_lock while it sends.
#include "upnp/upnp_cds.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "http/http_server.h"
#include "runtime/upnp_string.h"
#include "upnp/upnp_soap.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <strings.h>

enum {
    CDS_BATCH_BYTES = 256 * 1024,
    CDS_VIEWS_KEPT = 4,
    CDS_REPLY_CAPACITY = 4096,
};

// ---- Reply texts ----------------------------------------------------------------------------

#define CDS_ENVELOPE                                                                                         \
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" " \
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
#define CDS_DIDL_OPEN                                                                                         \
    "<Result>&lt;DIDL-Lite xmlns:dc=&quot;http://purl.org/dc/elements/1.1/&quot; "                           \
    "xmlns:upnp=&quot;urn:schemas-upnp-org:metadata-1-0/upnp/&quot; "

static const char cds_browse_head[] =
    CDS_ENVELOPE "<u:BrowseResponse xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\">" CDS_DIDL_OPEN
                 "xmlns:dlna=&quot;urn:schemas-dlna-org:metadata-1-0&quot; "
                 "xmlns=&quot;urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/&quot; ";
static const char cds_letter_head[] =
    CDS_ENVELOPE "<u:X_BrowseByLetterResponse xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\">"
                 CDS_DIDL_OPEN "xmlns=&quot;urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/&quot; ";
static const char cds_browse_tail[] =
    "&lt;/DIDL-Lite&gt;</Result><NumberReturned>%d</NumberReturned><TotalMatches>%d</TotalMatches>"
    "<UpdateID>%d</UpdateID></u:BrowseResponse></s:Body></s:Envelope>";
static const char cds_letter_tail[] =
    "&lt;/DIDL-Lite&gt;</Result><NumberReturned>%d</NumberReturned><TotalMatches>%d</TotalMatches>"
    "<UpdateID>%d</UpdateID><StartingIndex>%d</StartingIndex></u:X_BrowseByLetterResponse></s:Body></s:Envelope>";

#undef CDS_ENVELOPE
#undef CDS_DIDL_OPEN

static upnp_string* cds_head(upnp_string* s, bool by_letter)
{
    s = upnp_string_append(s, by_letter ? cds_letter_head : cds_browse_head);
    s = upnp_string_append(s, UPNP_DIDL_VEL_DECLARATION);
    return upnp_string_append(s, "&gt;");
}

static upnp_string* cds_tail(upnp_string* s, bool by_letter, int32_t returned, int32_t total, uint32_t update_id,
                             int32_t start)
{
    if (by_letter)
        return upnp_string_appendf(s, cds_letter_tail, returned, total, int(update_id), start);
    return upnp_string_appendf(s, cds_browse_tail, returned, total, int(update_id));
}

// Appends text as one HTTP chunk, as HTTP_send_chunk would send it; an
// empty text makes none.
static upnp_string* cds_frame(upnp_string* out, const upnp_string* text)
{
    if (!text || text->length <= 0)
        return out;
    out = upnp_string_appendf(out, "%lx\r\n", static_cast<unsigned long>(text->length));
    out = upnp_string_append_bytes(out, text->text, text->length);
    return upnp_string_append(out, "\r\n");
}

// Sends a whole reply and frees it.
static int cds_send_whole(HTTP_request* r, upnp_string* reply)
{
    if (!reply)
        return upnp_soap_send_fault(r, 501);
    r->content_length = reply->length;
    r->mime_type = soap_mime;
    int failed = HTTP_send_buffer(r, reply->text);
    upnp_string_free(reply);
    return failed ? upnp_soap_send_fault(r, 501) : 0;
}

static int cds_send_denied(HTTP_request* r, bool by_letter)
{
    char* text = upnp_lang_text("accessdenied");
    // Without a translation the key itself comes back.
    const char* title = text && strcmp(text, "accessdenied") ? text : "access denied";
    upnp_string* s = cds_head(upnp_string_new(nullptr, CDS_REPLY_CAPACITY), by_letter);
    s = upnp_string_append(s, "&lt;item id=&quot;0&quot; parentID=&quot;-1&quot; restricted=&quot;1&quot;&gt;");
    s = db_append_element(s, "dc:title", "", title, 1);
    s = upnp_string_append(s, "&lt;upnp:class&gt;object.item.audioItem.musicTrack&lt;/upnp:class&gt;&lt;/item&gt;");
    s = cds_tail(s, by_letter, 1, 1, 0, 0);
    free(text);
    return cds_send_whole(r, s);
}

// ---- Sorted views -----------------------------------------------------------------------------

struct cds_entry {
    db_object* object;              // valid while the change stamp stands
    uint32_t id;                    // finds the object again after a change
};

// An order of children: a kept sorted view of a whole container, or a
// reply's own copy of the rest of its page.
struct cds_view {
    db_object* container;
    uint32_t container_id;
    uint64_t stamp;                 // the change stamp the order was read at
    char* criteria;                 // null for a reply's own copy
    int32_t bytes_order;            // the client sorts by bytes (XM:NOUTF8SORT)
    int32_t count;
    cds_entry* entries;
    int32_t users;                  // replies reading it
    bool kept;                      // in cds_views
    uint64_t used;                  // cds_view_clock at the last use
};

static cds_view* cds_views[CDS_VIEWS_KEPT];     // db_lock
static uint64_t cds_view_clock;                 // db_lock
static std::atomic<uint64_t> cds_view_count;    // views built

uint64_t upnp_cds_view_builds()
{
    return cds_view_count.load();
}

static cds_view* cds_view_new(int32_t count)
{
    cds_view* v = static_cast<cds_view*>(calloc(1, sizeof(cds_view)));
    if (v && !(v->entries = static_cast<cds_entry*>(malloc(size_t(count > 0 ? count : 1) * sizeof(cds_entry))))) {
        free(v);
        return nullptr;
    }
    if (v) {
        v->count = count;
        v->users = 1;
    }
    return v;
}

static void cds_view_free(cds_view* v)
{
    if (v) {
        free(v->criteria);
        free(v->entries);
        free(v);
    }
}

static void cds_view_release(cds_view* v)
{
    if (v && --v->users == 0 && !v->kept)
        cds_view_free(v);
}

// Takes slot i out of the kept views; the view itself goes once unread.
static void cds_view_unkeep(int i)
{
    cds_view* v = cds_views[i];
    cds_views[i] = nullptr;
    if (v) {
        v->kept = false;
        if (v->users == 0)
            cds_view_free(v);
    }
}

static void cds_view_keep(cds_view* v)
{
    int slot = 0;
    for (int i = 0; i < CDS_VIEWS_KEPT; i++) {
        if (!cds_views[i]) {
            slot = i;
            break;
        }
        if (cds_views[i]->used < cds_views[slot]->used)
            slot = i;
    }
    cds_view_unkeep(slot);
    v->kept = true;
    cds_views[slot] = v;
}

void upnp_cds_forget_views()
{
    db_lock_guard hold;
    for (int i = 0; i < CDS_VIEWS_KEPT; i++)
        cds_view_unkeep(i);
}

// The children of c sorted by criteria, kept or made now; the caller
// releases it. Null when there was no memory for it.
static cds_view* cds_view_get(db_object* c, const char* criteria, HTTP_request* r)
{
    uint64_t now = db_change_stamp();
    int32_t bytes_order = db_client_has_flag(r, "XM:NOUTF8SORT");
    for (int i = 0; i < CDS_VIEWS_KEPT; i++)
        if (cds_views[i] && cds_views[i]->stamp != now)
            cds_view_unkeep(i);
    for (cds_view* v : cds_views)
        if (v && v->container == c && v->container_id == c->id && v->bytes_order == bytes_order &&
            !strcmp(v->criteria, criteria)) {
            v->users++;
            v->used = ++cds_view_clock;
            return v;
        }
    int32_t n = db_container_child_count(c);
    cds_view* v = cds_view_new(n);
    db_object** objects = static_cast<db_object**>(malloc(size_t(n > 0 ? n : 1) * sizeof(db_object*)));
    if (!v || !objects) {
        cds_view_free(v);
        free(objects);
        return nullptr;
    }
    n = db_container_children(c, objects, n);
    db_sort_prepare(criteria, db_object_type_of(c), r);
    db_sort_objects(objects, n);
    for (int32_t i = 0; i < n; i++)
        v->entries[i] = {objects[i], objects[i]->id};
    free(objects);
    v->container = c;
    v->container_id = c->id;
    v->stamp = now;
    v->bytes_order = bytes_order;
    v->count = n;
    v->used = ++cds_view_clock;
    cds_view_count++;
    // A shuffle is made afresh each time, as the player expects.
    if (!strstr(criteria, "Philips:shuffle") && (v->criteria = strdup(criteria)) != nullptr)
        cds_view_keep(v);
    return v;
}

// ---- One Browse -------------------------------------------------------------------------------

struct cds_args {
    const char* id;
    const char* filter;
    int32_t start;
    const char* letter;             // X_BrowseByLetter: the start is found from this
    int32_t count;
    const char* sort;
    bool by_letter;
};

// Where a reply stands in its container's order.
struct cds_walk {
    HTTP_request* request;
    const cds_args* args;
    const upnp_didl_options* options;
    bool chunked;
    db_object* container;
    uint32_t container_id;
    int32_t child_count;            // the tail's counts, as the reply began
    uint32_t update_id;
    cds_view* view;                 // the order read; null: the container's own array
    int32_t first;                  // the index of view->entries[0]
    int32_t total;                  // length of the order
    int32_t start, index, returned;
    bool skipped;                   // the browsing policy hid a child
    bool ended;                     // no memory, or the container has gone
    uint64_t stamp;                 // the change stamp the pointers are good for
    cds_entry* present;             // after a change: the children now there, by id
    int32_t present_count;
};

// Clients that carry XM:WMCIDS ask for the other side's fixed container ids.
struct cds_wmc_alias { const char* id; db_object** slot; };
static const cds_wmc_alias cds_wmc_aliases[] = {
    {"4", &db_all_music}, {"F", &db_playlist_root}, {"7", &db_music_root}, {"6", &db_music_root},
    {"5", &db_music_root}, {"D", &db_picture_root}, {"16", &db_picture_root},
};

// The container of a Browse. Such clients' criteria don't name our fields,
// so they are dropped. Under db_lock.
static db_object* cds_resolve(HTTP_request* r, const char* id, const char** sort)
{
    if (!upnp_client_wmc_ids(r->client_id))
        return db_get_item_by_id(id, r);
    if (sort)
        *sort = nullptr;
    for (const cds_wmc_alias& a : cds_wmc_aliases)
        if (!strcmp(id, a.id))
            return *a.slot;
    return db_get_item_by_id(id, r);
}

static bool cds_by_id(const cds_entry& a, const cds_entry& b)
{
    return a.id < b.id;
}

// The object at index i of the order, null for one that has gone.
static db_object* cds_walk_object(const cds_walk* w, int32_t i)
{
    if (!w->view)
        return db_container_child(w->container, i);
    const cds_entry& e = w->view->entries[i - w->first];
    if (!w->present)
        return e.object;
    const cds_entry* begin = w->present;
    const cds_entry* end = begin + w->present_count;
    const cds_entry* at = std::lower_bound(begin, end, e, cds_by_id);
    return at != end && at->id == e.id ? at->object : nullptr;
}

static bool cds_walk_done(const cds_walk* w)
{
    return w->ended || w->index < 0 || w->index >= w->total || (w->args->count != 0 && w->returned >= w->args->count);
}

// The first index whose title doesn't sort below the letter.
static int32_t cds_letter_start(const cds_walk* w, const char* letter)
{
    int32_t i = 0;
    for (; i < w->total; i++) {
        const char* title = db_object_get_str(cds_walk_object(w, i), DBK_TITLE);
        if (!title || strcasecmp(title, letter ? letter : "") >= 0)
            break;
    }
    return i;
}

// Finds the container and its order; 0, or the fault code. Under db_lock.
static int32_t cds_walk_begin(cds_walk* w)
{
    HTTP_request* r = w->request;
    const char* sort = w->args->sort;
    db_object* c = cds_resolve(r, w->args->id, &sort);
    if (!c || !db_type_is_container(db_object_type_of(c)))
        return 701;
    w->chunked = r->version > 10 && upnp_client_chunked(r->client_id);
    if (sort && *sort && upnp_client_ignore_sort(r->client_id))
        sort = nullptr;
    w->container = c;
    w->container_id = c->id;
    w->child_count = db_object_get_int(c, DBK_CHILD_COUNT);
    w->update_id = uint32_t(db_object_get_int(c, DBK_UPDATE_ID));
    if (sort && *sort) {
        w->view = cds_view_get(c, sort, r);
        w->total = w->view ? w->view->count : 0;
    } else {
        // Sorted once after each change and kept so: the next default
        // Browse of the container costs no sort.
        if (db_object_get_char(c, DBK_SORTED) != '1') {
            db_sort_prepare(nullptr, db_object_type_of(c), r);
            db_container_sort(c);
        }
        w->total = db_container_child_count(c);
    }
    w->start = w->args->by_letter ? cds_letter_start(w, w->args->letter) : w->args->start;
    w->index = w->start;
    w->stamp = db_change_stamp();
    return 0;
}

// Before the lock is left with more of the page to come: the rest of the
// container's own array is copied, as it may change meanwhile. Under db_lock.
static void cds_walk_hold(cds_walk* w)
{
    if (w->view || cds_walk_done(w))
        return;
    cds_view* v = cds_view_new(w->total - w->index);
    if (!v) {
        w->ended = true;
        return;
    }
    for (int32_t k = 0; k < v->count; k++) {
        db_object* o = db_container_child(w->container, w->index + k);
        v->entries[k] = {o, o->id};
    }
    w->view = v;
    w->first = w->index;
}

// Back under db_lock for the next batch: after a change, the container
// and its children are found again by their ids.
static void cds_walk_resume(cds_walk* w)
{
    uint64_t now = db_change_stamp();
    if (now == w->stamp)
        return;
    w->stamp = now;
    free(w->present);
    w->present = nullptr;
    db_object* c = cds_resolve(w->request, w->args->id, nullptr);
    int32_t n = c && c->id == w->container_id ? db_container_child_count(c) : -1;
    if (n < 0 || !(w->present = static_cast<cds_entry*>(malloc(size_t(n > 0 ? n : 1) * sizeof(cds_entry))))) {
        w->ended = true;
        return;
    }
    w->container = c;
    w->present_count = n;
    for (int32_t i = 0; i < n; i++) {
        db_object* o = db_container_child(c, i);
        w->present[i] = {o, o->id};
    }
    std::sort(w->present, w->present + n, cds_by_id);
}

// Renders objects from the walk's index on into out until the page is
// complete or, with a budget, out holds that many bytes. Under db_lock.
static upnp_string* cds_render(cds_walk* w, upnp_string* out, upnp_string** one, int32_t budget)
{
    while (!cds_walk_done(w) && out && (budget == 0 || out->length < budget)) {
        db_object* o = cds_walk_object(w, w->index++);
        if (!o)
            continue;
        // A reference passes as its own type, so lists of references always show.
        if (db_browsing_allowed(db_object_type_of(o)) != 1) {
            w->skipped = true;
            continue;
        }
        upnp_string* s = upnp_didl_append(w->chunked ? *one : out, o, w->options, w->request);
        if (!s) {
            w->ended = true;
            break;
        }
        if (w->chunked) {
            *one = s;
            out = cds_frame(out, s);
            upnp_string_empty(s);
        } else {
            out = s;
        }
        w->returned++;
    }
    return out;
}

static void cds_walk_end(cds_walk* w)
{
    db_lock_guard hold;
    cds_view_release(w->view);
    w->view = nullptr;
    free(w->present);
    w->present = nullptr;
}

static upnp_string* cds_walk_tail(const cds_walk* w, upnp_string* out)
{
    return cds_tail(out, w->args->by_letter, w->returned, w->skipped ? w->returned : w->child_count, w->update_id,
                    w->start);
}

static bool cds_send_text(const HTTP_request* r, const upnp_string* s)
{
    return s && HTTP_send_bytes(r->socket, s->text, s->length) == s->length;
}

// Once the page is complete: the tail as its own chunk, and the last chunk.
static upnp_string* cds_finish(const cds_walk* w, upnp_string* out, upnp_string** one)
{
    if (!cds_walk_done(w) || !out || !*one)
        return out;
    upnp_string_empty(*one);
    *one = cds_walk_tail(w, *one);
    return upnp_string_append(cds_frame(out, *one), "0\r\n\r\n");
}

// The batches after the first, each rendered under db_lock and sent after
// it. 0, or the fault code.
static int32_t cds_send_rest(cds_walk* w, upnp_string** out, upnp_string** one)
{
    while (!cds_walk_done(w)) {
        upnp_string_empty(*out);
        {
            db_lock_guard hold;
            cds_walk_resume(w);
            *out = cds_render(w, *out, one, CDS_BATCH_BYTES);
        }
        *out = cds_finish(w, *out, one);
        if (!cds_send_text(w->request, *out))
            return 501;
    }
    return 0;
}

static int cds_browse(HTTP_request* r, const cds_args& a)
{
    if (!a.id)
        return upnp_soap_send_fault(r, 701);
    if (!upnp_client_allowed(r->client_ip))
        return cds_send_denied(r, a.by_letter);
    upnp_didl_options options;
    upnp_didl_prepare(&options, a.filter, r);
    cds_walk w = {};
    w.request = r;
    w.args = &a;
    w.options = &options;
    upnp_string* out = nullptr;
    upnp_string* one = upnp_string_new(nullptr, CDS_REPLY_CAPACITY);
    int32_t fault = 0;
    {
        db_lock_guard hold;
        fault = cds_walk_begin(&w);
        if (!fault) {
            out = upnp_string_new(nullptr, CDS_REPLY_CAPACITY);
            if (w.chunked) {
                one = cds_head(one, a.by_letter);
                out = cds_frame(out, one);
                upnp_string_empty(one);
            } else {
                out = cds_head(out, a.by_letter);
            }
            out = cds_render(&w, out, &one, w.chunked ? CDS_BATCH_BYTES : 0);
            if (w.chunked)
                cds_walk_hold(&w);
        }
    }
    upnp_string* reply = out && !fault && !w.chunked ? cds_walk_tail(&w, out) : nullptr;
    if (!fault && w.chunked) {
        out = cds_finish(&w, out, &one);
        if (!out || !one || HTTP_send_chunked_header(r->socket) || !cds_send_text(r, out))
            fault = 501;
        else
            fault = cds_send_rest(&w, &out, &one);
    }
    cds_walk_end(&w);
    upnp_string_free(one);
    if (!fault && !w.chunked)
        return cds_send_whole(r, reply);
    upnp_string_free(out);
    if (fault)
        return upnp_soap_send_fault(r, fault);
    return HTTP_KILL_CONNECTION;        // the chunked head announced the close
}

int upnp_cds_browse_children(HTTP_request* request, const char* id, const char* filter, int32_t start,
                             int32_t count, const char* sort)
{
    const cds_args a = {id, filter, start, nullptr, count, sort, false};
    return cds_browse(request, a);
}

int upnp_cds_browse_by_letter(HTTP_request* request, const char* id, const char* filter, const char* letter,
                              int32_t count, const char* sort)
{
    const cds_args a = {id, filter, 0, letter, count, sort, true};
    return cds_browse(request, a);
}

int upnp_cds_browse_metadata(HTTP_request* request, const char* id, const char* filter)
{
    if (!id)
        return upnp_soap_send_fault(request, 701);
    upnp_didl_options options;
    upnp_didl_prepare(&options, filter, request);
    upnp_string* reply = nullptr;
    bool found = false;
    {
        db_lock_guard hold;
        if (db_object* o = db_get_item_by_id(id, request)) {
            found = true;
            bool container = db_type_is_container(db_object_type_of(o));
            reply = cds_head(upnp_string_new(nullptr, CDS_REPLY_CAPACITY), false);
            reply = upnp_didl_append(reply, o, &options, request);
            reply = cds_tail(reply, false, 1, 1, container ? uint32_t(db_object_get_int(o, DBK_UPDATE_ID)) : 0, 0);
        }
    }
    if (!found)
        return upnp_soap_send_fault(request, 701);
    return cds_send_whole(request, reply);
}
