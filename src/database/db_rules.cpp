// db_rules.cpp: the navigation folders. Each node option below a media
// root is a small rule string, "Artist,%ARTIST,%ALBUM": element k names the
// folder of level k, by a literal or by a token that reads the item's
// metadata, optionally split by a letter index ("[3]%ARTIST"). Every level
// without an index also offers the whole of the level below through an
// "All" folder beside the split by value, so a three-level rule places up
// to eight references for one item. Tags and %PATH add folder chains from
// the item's tag paths and from its directories.
//
// The rules are read at each attach, so a changed option counts for items
// added later. Folders are found through the store's title index, in the
// order a walk of the children would find them.
//
// Everything runs under db_lock, taken by db_object_add around the attach.
#include "database/db_tree.h"

#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "database/db_store.h"
#include "runtime/upnp_string.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <vector>

static constexpr size_t RULE_NAME_MAX = 1024;   // folder names from paths and tags: 1023 bytes
// Each level without an index doubles the references of an item, and each
// holds a frame on the adding thread's small stack: a rule deeper than this
// ends here, with the reference in the folder reached.
static constexpr int32_t RULE_LEVELS_MAX = 16;

// ---- Making folders and references ------------------------------------------------

db_object* db_tree_add_ref(db_object* container, db_object* item)
{
    db_lock_guard hold;
    db_object* r = db_ref_new(DB_OBJ_REF, item, 0);
    if (r && !db_container_add_child(container, r)) {
        // A "node" that is an item (the flat tree) holds nothing: the
        // reference goes nowhere, and is not kept.
        db_object_free(r);
        return nullptr;
    }
    return r;
}

db_object* db_tree_add_numbered_ref(db_object* container, db_object* item, int32_t number)
{
    db_lock_guard hold;
    db_object* r = db_ref_new(DB_OBJ_REF_TRACK, item, number);
    if (r && !db_container_add_child(container, r)) {
        db_object_free(r);
        return nullptr;
    }
    return r;
}

int32_t db_tree_remove_refs(db_object* container, db_object* item)
{
    if (!container || !item)
        return 0;
    db_lock_guard hold;
    return db_refs_drop(container, item, true);
}

static db_object* rule_folder_new(db_object* parent, int32_t type, const char* title, int restricted)
{
    db_object* c = db_container_new(db_next_id(type), title, restricted);
    if (c && !db_container_add_child(parent, c)) {
        db_object_free(c);
        return nullptr;
    }
    return c;
}

static db_object* rule_find_or_make(db_object* parent, const char* title, int32_t type, int restricted)
{
    db_object* f = db_title_index_find(parent, title);
    return f ? f : rule_folder_new(parent, type, title, restricted);
}

// ---- Letter groups ------------------------------------------------------------------

void db_letter_group(const char* title, int32_t n, char* out, size_t size)
{
    if (!out || !size)
        return;
    out[0] = 0;
    if (!title || n <= 0)
        return;
    unsigned char first = static_cast<unsigned char>(title[0]);
    unsigned char next = first ? static_cast<unsigned char>(title[1]) : 0;
    int c = toupper(db_fold_char(first, next) & 0xFF);
    int32_t group = (c - 'A') / n;
    int32_t last = 26 / n;
    group = group < 0 ? 0 : group > last ? last : group;
    size_t k = 0;
    for (int32_t i = 0; i < n && 'A' + group * n + i <= 'Z' && k + 1 < size; i++)
        out[k++] = char('A' + group * n + i);
    out[k] = 0;
}

// The folder titled title in parent, below its letter group when n is above
// 0; made with the type given when absent. Null when it can't be made.
static db_object* rule_folder(db_object* parent, const char* title, int32_t type, int32_t n)
{
    if (n <= 0)
        return rule_find_or_make(parent, title, type, 0);
    char group_title[32];
    db_letter_group(title, n, group_title, sizeof group_title);
    db_object* group = db_title_index_find(parent, group_title);
    if (group) {
        if (db_object* f = db_title_index_find(group, title))
            return f;
    } else if (!(group = rule_folder_new(parent, DB_OBJ_CONTAINER, group_title, 0))) {
        return nullptr;
    }
    return rule_folder_new(group, type, title, 0);
}

// ---- Tokens -------------------------------------------------------------------------

// The folder type of a level that names no type of its own, by the item's.
static int32_t rule_default_type(const db_object* item)
{
    switch (db_object_type_of(item)) {
    case DB_OBJ_PHOTO: return DB_OBJ_PHOTO_ALBUM;
    case DB_OBJ_AUDIO: case DB_OBJ_AUDIO_STREAM: return DB_OBJ_MUSIC_CONTAINER;
    case DB_OBJ_VIDEO: case DB_OBJ_VIDEO_BROADCAST: return DB_OBJ_VIDEO_CONTAINER;
    case DB_OBJ_DOCUMENT: return DB_OBJ_DOCUMENT_CONTAINER;
    default: return DB_OBJ_CONTAINER;
    }
}

static const char* value_or(const char* value, const char* missing)
{
    return value && *value ? value : missing;
}

// Up to count bytes of the item's date from offset; missing when the date
// has no byte there.
static const char* rule_date_part(const db_object* item, size_t offset, size_t count, const char* missing,
                                  char* buffer, size_t size)
{
    const char* date = db_object_get_str(item, DBK_DATE);
    if (!date || strlen(date) <= offset)
        return missing;
    snprintf(buffer, size, "%.*s", int(count), date + offset);
    return buffer;
}

enum rule_token : int32_t {
    TOKEN_TITLE, TOKEN_ARTIST, TOKEN_ALBUMARTIST, TOKEN_ALBUM, TOKEN_COMPOSER, TOKEN_KEYWORD,
    TOKEN_RATING, TOKEN_GENRE, TOKEN_DURATION, TOKEN_DESCRIPTION, TOKEN_TRACK, TOKEN_RESOLUTION,
    TOKEN_YEAR, TOKEN_MONTH, TOKEN_DAY, TOKEN_DATE, TOKEN_PATH, TOKEN_UNKNOWN,
};

// Each token and the folder type it gives; -1 for the default type.
static const struct { const char* name; rule_token token; int32_t type; } rule_tokens[] = {
    {"%TITLE", TOKEN_TITLE, -1},
    {"%ARTIST", TOKEN_ARTIST, DB_OBJ_MUSIC_ARTIST},
    {"%ALBUMARTIST", TOKEN_ALBUMARTIST, DB_OBJ_MUSIC_ARTIST},
    {"%ALBUM", TOKEN_ALBUM, DB_OBJ_MUSIC_ALBUM},
    {"%COMPOSER", TOKEN_COMPOSER, DB_OBJ_MUSIC_ARTIST},
    {"%KEYWORD", TOKEN_KEYWORD, -1},
    {"%RATING", TOKEN_RATING, -1},
    {"%GENRE", TOKEN_GENRE, DB_OBJ_MUSIC_GENRE},
    {"%DURATION", TOKEN_DURATION, DB_OBJ_MUSIC_CONTAINER},
    {"%DESCRIPTION", TOKEN_DESCRIPTION, -1},
    {"%TRACK", TOKEN_TRACK, DB_OBJ_MUSIC_CONTAINER},
    {"%RESOLUTION", TOKEN_RESOLUTION, -1},
    {"%YEAR", TOKEN_YEAR, -1},
    {"%MONTH", TOKEN_MONTH, -1},
    {"%DAY", TOKEN_DAY, -1},
    {"%DATE", TOKEN_DATE, -1},
    {"%PATH", TOKEN_PATH, DB_OBJ_STORAGE_ROOT},
};

// The folder title a token gives for the item: null for no folder.
static const char* rule_token_value(rule_token token, const db_object* item, char* buffer, size_t size)
{
    switch (token) {
    case TOKEN_TITLE:
        // The title field itself: an item without one has no folder here.
        return value_or(static_cast<const char*>(db_object_get_ptr(item, DBK_TARGET)), nullptr);
    case TOKEN_ARTIST:
        if (db_object_get_int(item, DBK_COMPILATION) >= 1)
            return "Various";
        return value_or(db_object_get_str(item, DBK_ARTIST), "Unknown");
    case TOKEN_ALBUMARTIST: return value_or(db_object_get_str(item, DBK_ALBUM_ARTIST), "Unknown");
    case TOKEN_ALBUM: return value_or(db_object_get_str(item, DBK_ALBUM), "Unknown");
    case TOKEN_COMPOSER: return value_or(db_object_get_str(item, DBK_COMPOSER), "Unknown");
    case TOKEN_KEYWORD: return value_or(db_object_get_str(item, DBK_KEYWORDS), nullptr);
    case TOKEN_GENRE: return value_or(db_object_get_str(item, DBK_GENRE), "Unknown");
    case TOKEN_DESCRIPTION: return value_or(db_object_get_str(item, DBK_DESCRIPTION), nullptr);
    case TOKEN_RESOLUTION: return value_or(db_object_get_str(item, DBK_RESOLUTION), nullptr);
    case TOKEN_RATING: {
        int32_t stars = db_object_get_int(item, DBK_RATING);
        if (stars <= 0)
            return nullptr;
        stars = stars > 19 ? 19 : stars;
        snprintf(buffer, size, "%.*s", int(stars), "*******************");
        return buffer;
    }
    case TOKEN_DURATION: {
        int64_t ms = db_object_get_int(item, DBK_DURATION);
        ms = ms < 0 ? 0 : ms;
        int64_t s = ms / 1000;
        if (ms % 1000)
            snprintf(buffer, size, "%ld:%02ld:%02ld.%03ld", long(s / 3600), long(s / 60 % 60), long(s % 60),
                     long(ms % 1000));
        else
            snprintf(buffer, size, "%ld:%02ld:%02ld", long(s / 3600), long(s / 60 % 60), long(s % 60));
        return buffer;
    }
    case TOKEN_TRACK:
        snprintf(buffer, size, "%ld", long(db_object_get_int(item, DBK_TRACK)));
        return buffer;
    case TOKEN_YEAR: return rule_date_part(item, 0, 4, "0000", buffer, size);
    case TOKEN_MONTH: return rule_date_part(item, 5, 2, "00", buffer, size);
    case TOKEN_DAY: return rule_date_part(item, 8, 2, "00", buffer, size);
    case TOKEN_DATE: return value_or(db_object_get_str(item, DBK_DATE), "0000-00-00");
    case TOKEN_PATH: case TOKEN_UNKNOWN: return nullptr;
    }
    return nullptr;
}

// ---- %PATH --------------------------------------------------------------------------

// The folder chain of the item's directories below the shared folder that
// holds it: the deepest folder, parent itself for a file at the top of a
// shared folder, null for a URL or when a folder can't be made.
static db_object* rule_path_folders(db_object* parent, const char* path, int32_t n)
{
    if (!path || !strncmp(path, "http://", 7) || path[0] == '.')
        return nullptr;
    const char* rest = path;
    for (int32_t i = 0; const char* entry = upnp_contentdir_get(i); i++) {
        // A sign, a kind letter, one more byte, then the folder.
        if (strlen(entry) < 4)
            continue;
        const char* dir = entry + 3;
        size_t length = strlen(dir);
        while (length && (dir[length - 1] == '\\' || dir[length - 1] == '/'))
            length--;
        if (length && !strncasecmp(path, dir, length)) {
            rest = path + length;
            break;
        }
    }
    const char* upload = upnp_ini_get_string(UPNP_OPT_NEWOBJECTDIR);
    if (upload && *upload && !strncmp(path, upload, strlen(upload))) {
        size_t cut = strlen(upload), left = strlen(rest);
        rest += cut < left ? cut : left;
    }
    if (*rest)
        rest++;                     // the separator after the shared folder
    const char* prefix = n == 0 ? upnp_ini_get_string(UPNP_OPT_FOLDERPREFIX) : nullptr;
    db_object* folder = parent;
    for (;;) {
        size_t piece = strcspn(rest, "/\\");
        if (!rest[piece])
            return folder;          // the file name is no folder
        if (piece) {
            char name[RULE_NAME_MAX];
            snprintf(name, sizeof name, "%s%.*s", prefix ? prefix : "", int(piece), rest);
            if (!(folder = rule_find_or_make(folder, name, DB_OBJ_STORAGE_ROOT, 0)))
                return nullptr;
        }
        rest += piece + 1;
    }
}

// ---- Tags ---------------------------------------------------------------------------

// Tag paths "Holiday/Beach,Family": one folder chain each below the tags
// folder of the picture root, with a reference at the end of each.
static void rule_tags(db_object* item)
{
    const char* tags = db_object_get_str(item, DBK_TAGS);
    if (!tags || !*tags)
        return;
    if (!db_tags_root && db_picture_root) {
        const char* title = upnp_ini_get_string(UPNP_OPT_TAGSPICTURE);
        db_tags_root = rule_folder_new(db_picture_root, DB_OBJ_CONTAINER, title && *title ? title : "- Tags -", 1);
    }
    if (!db_tags_root)
        return;
    db_object* folder = db_tags_root;
    const char* start = tags;
    for (const char* p = tags;; p++) {
        if (*p != '/' && *p != ',' && *p)
            continue;
        size_t piece = size_t(p - start);
        if (folder && piece) {
            char name[RULE_NAME_MAX];
            snprintf(name, sizeof name, "%.*s", int(piece), start);
            folder = rule_find_or_make(folder, name, DB_OBJ_PHOTO_ALBUM, 1);
        }
        start = p + 1;
        if (*p == '/')
            continue;
        if (folder)
            db_tree_add_ref(folder, item);
        if (!*p)
            return;
        folder = db_tags_root;
    }
}

// ---- Levels -------------------------------------------------------------------------

// The node option whose rule a fixed sequence number selects; 0 for none.
static int32_t rule_option_of(uint32_t sequence)
{
    static const int32_t music[] = {
        UPNP_OPT_MUSICNODE1, UPNP_OPT_MUSICNODE2, UPNP_OPT_MUSICNODE3, UPNP_OPT_MUSICNODE4, UPNP_OPT_MUSICNODE5,
        UPNP_OPT_MUSICNODE6, UPNP_OPT_MUSICNODE7, UPNP_OPT_MUSICNODE8, UPNP_OPT_MUSICNODE9, UPNP_OPT_MUSICNODE10,
    };
    static const int32_t picture[] = {
        UPNP_OPT_PICTURENODE1, UPNP_OPT_PICTURENODE2, UPNP_OPT_PICTURENODE3, UPNP_OPT_PICTURENODE4,
        UPNP_OPT_PICTURENODE5,
    };
    static const int32_t video[] = {
        UPNP_OPT_VIDEONODE1, UPNP_OPT_VIDEONODE2, UPNP_OPT_VIDEONODE3, UPNP_OPT_VIDEONODE4, UPNP_OPT_VIDEONODE5,
    };
    if (sequence >= 12 && sequence <= 21)
        return music[sequence - 12];
    if (sequence >= 31 && sequence <= 35)
        return picture[sequence - 31];
    if (sequence >= 51 && sequence <= 55)
        return video[sequence - 51];
    return 0;
}

// The folder of one rule in folder, made when absent; null for no folder.
static db_object* rule_level_folder(db_object* folder, const char* rule, int32_t n, db_object* item,
                                    const char* path)
{
    int32_t type = rule_default_type(item);
    const char* title = rule;
    char value[64];
    if (rule[0] == '%') {
        rule_token token = TOKEN_UNKNOWN;
        for (const auto& t : rule_tokens)
            if (!strcasecmp(rule, t.name)) {
                token = t.token;
                type = t.type < 0 ? type : t.type;
                break;
            }
        if (token == TOKEN_PATH)
            return rule_path_folders(folder, path, n);
        title = rule_token_value(token, item, value, sizeof value);
    }
    if (!title || !*title)
        return nullptr;
    return rule_folder(folder, title, type, n);
}

// Level k of the node option in folder: the rule's folder and, at a level
// without an index, the "All" folder beside it, each with the levels below.
static void rule_apply(int32_t option, int32_t k, db_object* folder, db_object* item, const char* path)
{
    const char* element = k <= RULE_LEVELS_MAX ? upnp_ini_get_item(option, k) : nullptr;
    if (!element) {
        db_tree_add_ref(folder, item);
        return;
    }
    // The option store may replace its texts; the rule is read from a copy.
    char rule[RULE_NAME_MAX];
    snprintf(rule, sizeof rule, "%s", element);
    const char* body = rule;
    int32_t n = 0;
    if (rule[0] == '[') {
        const char* close = strchr(rule, ']');
        if (!close)
            return;                 // no rule, and nothing below it
        n = upnp_parse_lenient_i32(rule + 1);
        body = close + 1;
    }
    if (n >= 0)
        if (db_object* f = rule_level_folder(folder, body, n, item, path))
            rule_apply(option, k + 1, f, item, path);
    if (n == 0) {
        // The rule's copy is done with: it holds the "All" title now.
        const char* all = upnp_ini_get_string(UPNP_OPT_ALLNAME);
        snprintf(rule, sizeof rule, "%s", all && *all ? all : "All");
        if (db_object* f = rule_folder(folder, rule, rule_default_type(item), 0))
            rule_apply(option, k + 1, f, item, path);
    }
}

void db_tree_attach(db_object* item, db_object* media_root, db_object* all, const char* path)
{
    if (!item)
        return;
    db_lock_guard hold;
    if (all && db_object_parent(item) != all)
        db_container_add_child(all, item);
    rule_tags(item);
    // The node is the child with the fixed sequence number, whatever it is:
    // in the flat tree an item may carry one, and nothing it holds is seen.
    // The store keeps those children apart, so the flat tree's thousands of
    // items aren't looked at on each add.
    std::vector<db_object*> nodes;
    db_node_children(media_root, &nodes);
    for (db_object* node : nodes)
        if (db_object_parent(node) == media_root)
            rule_apply(rule_option_of(db_object_seq(node)), 1, node, item, path);
}
