// upnp_ini.cpp: the option store. Owns the fixed table of named options,
// one value slot per row (each value an immutable heap block holding the
// text and, for lists, its items split once at set time), the paths of the
// program and of the ini file, and the ini file itself.
//
// Order of work at start (upnp_ini_file_read_cmdline): built-in defaults,
// navigation presets, the ini file (or the shipped default ini), the system
// language, the command line, the derived folders, one write of the ini,
// then the log settings. The ini is written whole, as UTF-16LE with its
// mark and CRLF lines, through a temporary file renamed over the old one,
// so a crash leaves the old file or the new one, never none.
//
// Options are set at start, by the control API, the RPC, the web pages and
// the client check, and read by every thread without a lock. So a value,
// once published, never changes and is never freed while the store runs:
// a set builds the new block, publishes it into the row's slot (release;
// readers load with acquire) and puts the old block on a retired list that
// upnp_ini_release frees at stop, when no reader is left. The memory held
// thus grows with the number of sets, never with reads; that is bounded in
// practice, as sets come from the start, from people changing settings and
// from newly seen clients, and most of them rewrite the whole ini file
// besides. Integers and flags are parsed from the same immutable text, so
// they are never torn either.
//
// Writers take ini_write_lock (recursive: a set of "language" or
// "autotree" rebuilds the navigation options, which sets others) for the
// whole set, including what follows it, so the language tables and the
// navigation options change in the order of the sets. Whole ini writes
// take ini_file_lock, so the last write renders after every earlier one.
#include "config/upnp_ini.h"
#include "config/upnp_nav.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <strings.h>

namespace {

struct ini_option {
    int32_t id;
    const char* name;
    int32_t is_list;
    int32_t restart;        // a change through the control API needs a restart
};

// One malloc block: this head, the item pointers, the text, and for lists
// a second copy of the text cut at the commas, which the items point into.
// Nothing in it changes after it is published, except retired_next, which
// only writers touch once the block is off its slot.
struct ini_value {
    ini_value* retired_next;   // ini_write_lock
    const char* text;
    int32_t item_count;        // 0 and no items for options that are no list
    char** items;
};

constexpr size_t INI_PATH_SIZE = 1024;
constexpr size_t INI_FILE_MAX = 1024 * 1024;   // real ini files are a few KiB
constexpr size_t INI_CONTENTDIR_MAX = 1023;

}  // namespace

// In the order of the ini file; numbers are stable and not row indices.
static constexpr ini_option ini_table[] = {
    {0, "accessuser", 0, 0},
    {1, "accesspwd", 0, 0},
    {2, "adaptcase", 0, 1},
    {3, "autotree", 0, 1},
    {4, "allname", 1, 1},
    {5, "playlistnumentries", 0, 1},
    {6, "cachedir", 0, 0},
    {7, "cachemaxsize", 0, 1},
    {8, "clients", 1, 0},
    {9, "clientautoenable", 0, 0},
    {10, "compilationsdir", 1, 1},
    {12, "contentdir", 1, 0},
    {13, "dbdir", 0, 1},
    {14, "enableweb", 0, 0},
    {15, "folderprefix", 0, 1},
    {18, "friendlyname", 0, 1},
    {19, "httpport", 0, 1},
    {20, "ignoredir", 1, 1},
    {21, "ip", 0, 1},
    {22, "language", 0, 1},
    {24, "musicnode1", 1, 1},
    {26, "musicnode2", 1, 1},
    {27, "musicnode3", 1, 1},
    {28, "musicnode4", 1, 1},
    {29, "musicnode5", 1, 1},
    {30, "musicnode6", 1, 1},
    {31, "musicnode7", 1, 1},
    {32, "musicnode8", 1, 1},
    {33, "musicnode9", 1, 1},
    {25, "musicnode10", 1, 1},
    {34, "alltracks", 0, 1},
    {35, "playlistlastplayed", 0, 0},
    {36, "playlistmostplayed", 0, 1},
    {37, "playlists", 0, 1},
    {38, "rootmusic", 0, 1},
    {39, "newobjectdir", 0, 1},
    {40, "nicrestart", 0, 0},
    {41, "norescale", 0, 0},
    {42, "nosearch", 0, 0},
    {43, "picturenode1", 1, 1},
    {44, "picturenode2", 1, 1},
    {45, "picturenode3", 1, 1},
    {46, "picturenode4", 1, 1},
    {47, "picturenode5", 1, 1},
    {48, "allpictures", 0, 1},
    {49, "rootpicture", 0, 1},
    {50, "tagspicture", 0, 1},
    {51, "platform", 0, 0},
    {52, "randomizeplaylists", 0, 1},
    {53, "scantime", 0, 1},
    {54, "startupmb", 0, 1},
    {55, "streambuffer", 0, 0},
    {56, "upnptimeout", 0, 1},
    {57, "username", 0, 0},
    {58, "userpwd", 0, 0},
    {59, "userkey", 0, 0},
    {60, "videonode1", 1, 1},
    {61, "videonode2", 1, 1},
    {62, "videonode3", 1, 1},
    {63, "videonode4", 1, 1},
    {64, "videonode5", 1, 1},
    {65, "allvideos", 0, 1},
    {66, "rootvideo", 0, 1},
    {67, "networkinterface", 0, 0},
    {68, "nicchecktime", 0, 1},
    {69, "v", 1, 0},
    {70, "logfile", 0, 0},
    {71, "logsource", 0, 0},
    {72, "loglevel", 0, 0},
    {73, "alldocument", 0, 1},
    {UPNP_OPT_END, "", 0, 0},
};
static constexpr size_t INI_ROWS = sizeof ini_table / sizeof ini_table[0] - 1;

// By row index; null when unset. Written under ini_write_lock, read anywhere.
static std::atomic<const ini_value*> ini_values[INI_ROWS];
static ini_value* ini_retired;                   // ini_write_lock; freed at release
static std::recursive_mutex ini_write_lock;
static std::mutex ini_file_lock;                 // one whole write of the ini at a time

// Written at start only, before any thread reads them.
static char ini_argv0[INI_PATH_SIZE];
static char ini_program_dir[INI_PATH_SIZE];
static char ini_path[INI_PATH_SIZE];

static int32_t ini_utf16 = 1;                    // encoding of the next write; set at start
static std::atomic<int32_t> ini_restored;        // the default ini was copied in: stop writing
static std::atomic<int32_t> restart_needed;
static std::atomic<upnp_ini_folders_changed_fn> ini_folders_hook;

// ---- Reading ----------------------------------------------------------

static const ini_option* ini_row(int32_t id)
{
    for (size_t i = 0; i < INI_ROWS; i++)
        if (ini_table[i].id == id)
            return &ini_table[i];
    return nullptr;
}

static std::atomic<const ini_value*>& ini_slot(const ini_option* row)
{
    return ini_values[row - ini_table];
}

static const ini_value* ini_value_of(int32_t id)
{
    const ini_option* row = ini_row(id);
    return row ? ini_slot(row).load(std::memory_order_acquire) : nullptr;
}

const char* upnp_ini_get_string(int32_t id)
{
    const ini_value* v = ini_value_of(id);
    return v ? v->text : nullptr;
}

// atoi's reading, as ini files have always been read ("12abc" is 12), but
// a value past the range clamps to its end instead of overflowing.
int32_t upnp_ini_get_int(int32_t id)
{
    return upnp_parse_lenient_i32(upnp_ini_get_string(id));
}

int32_t upnp_ini_get_bool(int32_t id)
{
    return upnp_ini_get_int(id) != 0;
}

// Count and items come from one block, so an index is checked against the
// list it reads. A loop over the count that meets a set on the way may mix
// two lists, but every item it gets stays readable until stop.
const char* upnp_ini_get_item(int32_t id, int32_t index)
{
    const ini_value* v = ini_value_of(id);
    if (!v || index < 0 || index >= v->item_count)
        return nullptr;
    return v->items[index];
}

int32_t upnp_ini_get_item_count(int32_t id)
{
    const ini_value* v = ini_value_of(id);
    return v ? v->item_count : 0;
}

const char* upnp_ini_get_name(int32_t id)
{
    const ini_option* row = ini_row(id);
    return row ? row->name : nullptr;
}

int32_t upnp_ini_find(const char* name)
{
    if (name)
        for (size_t i = 0; i < INI_ROWS; i++)
            if (strcasecmp(ini_table[i].name, name) == 0)
                return ini_table[i].id;
    return UPNP_OPT_END;
}

int32_t upnp_ini_get_restart_needed()
{
    return restart_needed;
}

const char* upnp_ini_get_program_dir()
{
    return ini_program_dir;
}

const char* upnp_ini_get_argv0()
{
    return ini_argv0;
}

const char* upnp_ini_get_path()
{
    return ini_path;
}

// The base folder of shared folder items has no row, so items come back as
// they are stored.
const char* upnp_contentdir_get(int32_t index)
{
    const char* item = upnp_ini_get_item(UPNP_OPT_CONTENTDIR, index);
    return item && *item ? item : nullptr;
}

// ---- Setting ----------------------------------------------------------

static int ini_is_node(int32_t id)
{
    return (id >= UPNP_OPT_MUSICNODE1 && id <= UPNP_OPT_MUSICNODE9) ||
           (id >= UPNP_OPT_PICTURENODE1 && id <= UPNP_OPT_PICTURENODE5) ||
           (id >= UPNP_OPT_VIDEONODE1 && id <= UPNP_OPT_VIDEONODE5);
}

// A node is a name, then levels that each begin with '%' or '['.
static int ini_node_is_valid(const char* value)
{
    const char* comma = strrchr(value, ',');
    return comma && (comma[1] == '[' || comma[1] == '%');
}

// A line end or other control byte could never be read back, and would
// let a client write further options into the ini file.
static int ini_has_control(const char* value)
{
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(value); *p; p++)
        if (*p < 32)
            return 1;
    return 0;
}

static char* ini_join(const char* prefix, const char* text)
{
    size_t a = strlen(prefix), b = strlen(text);
    char* out = static_cast<char*>(malloc(a + b + 1));
    if (out) {
        memcpy(out, prefix, a);
        memcpy(out + a, text, b + 1);
    }
    return out;
}

// Shared folders are stored as sign, kind letter, '|' and path; input that
// lacks the sign or the whole prefix gets the usual one. 0 refuses the
// value (a prefixed one that would not fit), else 1 with *out (null when
// memory ran out).
static int ini_contentdir_form(const char* value, char** out)
{
    size_t n = strlen(value);
    char* input = strdup(value);
    *out = nullptr;
    if (!input)
        return 1;
    if (n >= 5 && input[4] == ':' && input[3] >= 'a' && input[3] <= 'z')
        input[3] = char(input[3] - 'a' + 'A');
    const char* prefix = "";
    if (n >= 2 && input[1] == '|')
        prefix = "+";
    else if (n < 3 || input[2] != '|')
        prefix = "+A|";
    if (!*prefix) {
        *out = input;
        return 1;
    }
    int fits = strlen(prefix) + n <= INI_CONTENTDIR_MAX;
    if (fits)
        *out = ini_join(prefix, input);
    else
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "contentdir value of %zu bytes refused\n", n);
    free(input);
    return fits;
}

// The text a row stores for a non-empty value; see ini_contentdir_form.
static int ini_stored_form(int32_t id, const char* value, char** out)
{
    if (id == UPNP_OPT_CONTENTDIR)
        return ini_contentdir_form(value, out);
    *out = id == UPNP_OPT_DBDIR ? upnp_file_fullpath(value) : strdup(value);
    return 1;
}

// items[0] is the copy of the text cut at the commas; blanks after a
// comma are skipped.
static void ini_split(ini_value* v, char** items, char* copy)
{
    int32_t count = 0;
    items[count++] = copy;
    for (char* p = copy; *p; p++) {
        if (*p != ',')
            continue;
        *p = 0;
        char* next = p + 1;
        while (*next == ' ' || *next == '\t')
            next++;
        items[count++] = next;
        p = next - 1;
    }
    v->items = items;
    v->item_count = count;
}

// The block of a stored text; null when memory ran out.
static ini_value* ini_value_make(const char* text, int32_t is_list)
{
    size_t length = strlen(text);
    size_t slots = 0;
    if (is_list) {
        slots = 1;
        for (const char* p = text; *p; p++)
            slots += *p == ',';
    }
    size_t copies = is_list ? 2 : 1;
    char* block = static_cast<char*>(malloc(sizeof(ini_value) + slots * sizeof(char*) + copies * (length + 1)));
    if (!block)
        return nullptr;
    ini_value* v = reinterpret_cast<ini_value*>(block);
    char** items = reinterpret_cast<char**>(block + sizeof(ini_value));
    char* own = reinterpret_cast<char*>(items + slots);
    memcpy(own, text, length + 1);
    *v = ini_value{nullptr, own, 0, nullptr};
    if (is_list) {
        char* copy = own + length + 1;
        memcpy(copy, text, length + 1);
        ini_split(v, items, copy);
    }
    return v;
}

// A reader may still hold the old block or an item of it.
static void ini_retire(const ini_value* old)
{
    if (!old)
        return;
    ini_value* v = const_cast<ini_value*>(old);
    v->retired_next = ini_retired;
    ini_retired = v;
}

// Both with ini_write_lock held.
static void ini_unset_all()
{
    for (std::atomic<const ini_value*>& slot : ini_values)
        ini_retire(slot.exchange(nullptr, std::memory_order_acq_rel));
}

// Only at stop, when no thread reads options any more.
static void ini_free_all()
{
    ini_unset_all();
    while (ini_value* v = ini_retired) {
        ini_retired = v->retired_next;
        free(v);
    }
}

// Checks that leave the old value in place.
static int ini_set_refused(const ini_option* row, const ini_value* old, const char* value)
{
    if (row->id == UPNP_OPT_ENABLEWEB && (!value || !*value))
        return 1;
    if (old && value && strcmp(old->text, value) == 0)
        return 1;
    if (ini_is_node(row->id) && value && *value && !ini_node_is_valid(value))
        return 1;
    if (value && ini_has_control(value)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "option %s: value with a control character refused\n",
                 row->name);
        return 1;
    }
    return 0;
}

void upnp_ini_set_folders_hook(upnp_ini_folders_changed_fn hook)
{
    ini_folders_hook = hook;
}

static void ini_after_set(int32_t id, const char* value)
{
    upnp_ini_folders_changed_fn folders_changed = ini_folders_hook.load();
    if (id == UPNP_OPT_CONTENTDIR && folders_changed)
        folders_changed();
    if (id == UPNP_OPT_LANGUAGE && upnp_lang_select(value))
        upnp_nav_options_rebuild();
    if (id == UPNP_OPT_AUTOTREE)
        upnp_nav_options_rebuild();
}

int32_t upnp_ini_set(int32_t id, const char* value)
{
    const ini_option* row = ini_row(id);
    if (!row)
        return 0;
    std::lock_guard<std::recursive_mutex> hold(ini_write_lock);
    std::atomic<const ini_value*>& slot = ini_slot(row);
    const ini_value* old = slot.load(std::memory_order_relaxed);   // only writers store, under the lock
    if (ini_set_refused(row, old, value))
        return 0;
    int empty = !value || !*value;
    char* stored = nullptr;
    if (!empty && !ini_stored_form(id, value, &stored))
        return 0;
    const ini_value* fresh = stored ? ini_value_make(stored, row->is_list) : nullptr;
    free(stored);
    slot.store(fresh, std::memory_order_release);
    // value may point into the old block, which is why it only retires.
    ini_retire(old);
    if (!fresh)
        return old && !value;    // clearing with "" unsets too, but only null counts as a change
    ini_after_set(id, fresh->text);
    return 1;
}

int32_t upnp_ini_set_by_name(const char* name, const char* value)
{
    int32_t id = upnp_ini_find(name);
    return id == UPNP_OPT_END ? 0 : upnp_ini_set(id, value);
}

void upnp_ini_note_change(int32_t id)
{
    const ini_option* row = ini_row(id);
    if (!row || !row->restart)
        return;
    upnp_log(UPNP_LOG_ERROR, UPNP_LOG_SYSTEM, "restart needed because option %s has changed\n", row->name);
    restart_needed = 1;
}

// ---- The ini body -----------------------------------------------------

// A zero inside the body would end the text early and hide every line
// behind it; it ends a line like any other control byte instead.
static char* ini_decode_utf16(const uint8_t* b, size_t size)
{
    size_t units = size / 2;   // an odd last byte is half a character
    uint16_t* wide = static_cast<uint16_t*>(malloc((units + 1) * sizeof(uint16_t)));
    if (!wide)
        return nullptr;
    for (size_t i = 0; i < units; i++) {
        uint16_t u = uint16_t(b[2 * i] | b[2 * i + 1] << 8);
        wide[i] = u ? u : '\n';
    }
    wide[units] = 0;
    char* text = units ? upnp_string_utf16_to_utf8_n(wide, units) : strdup("");
    free(wide);
    return text;
}

static char* ini_decode_latin1(const uint8_t* b, size_t size)
{
    char* bytes = static_cast<char*>(malloc(size + 1));
    if (!bytes)
        return nullptr;
    for (size_t i = 0; i < size; i++)
        bytes[i] = b[i] ? char(b[i]) : '\n';
    bytes[size] = 0;
    char* text = size ? upnp_string_latin1_to_utf8(bytes) : strdup("");
    free(bytes);
    return text;
}

static int32_t ini_apply_line(const char* key, const char* value)
{
    if (key[0] == '#')
        return 0;
    if (upnp_ini_find(key) == UPNP_OPT_END) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "ini file: unknown option \"%.64s\" skipped\n", key);
        return 0;
    }
    upnp_ini_set_by_name(key, value);
    return 1;
}

// Any byte below 32 ends a line; the first '=' ends the key, later ones
// belong to the value. A key keeps its blanks, a line without '=' does
// nothing, and a last line without a line end is not taken.
static int32_t ini_walk(char* text, size_t length)
{
    char* key = nullptr;
    char* value = nullptr;
    int32_t applied = 0;
    for (size_t i = 0; i < length; i++) {
        char* p = text + i;
        if (static_cast<unsigned char>(*p) < 32) {
            *p = 0;
            if (key && value)
                applied += ini_apply_line(key, value);
            key = value = nullptr;
        } else if (!key) {
            if (*p != '=')
                key = p;
        } else if (!value && *p == '=') {
            *p = 0;
            value = p + 1;
        }
    }
    if (key)
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "ini file: last line has no line end, skipped\n");
    return applied;
}

int32_t upnp_ini_parse(const void* data, size_t size)
{
    const uint8_t* b = static_cast<const uint8_t*>(data);
    if (!b || size < 2)
        return 0;
    int utf16 = b[0] == 0xFF && b[1] == 0xFE;
    char* text = utf16 ? ini_decode_utf16(b + 2, size - 2) : ini_decode_latin1(b, size);
    if (!text)
        return 0;
    int32_t applied = ini_walk(text, strlen(text));
    free(text);
    return applied;
}

// ---- The ini file -----------------------------------------------------

// Paths are built under the program folder; with none known (an argument 0
// that could not be taken) that is the current folder, never the root.
static const char* ini_base_dir()
{
    return ini_program_dir[0] ? ini_program_dir : ".";
}

// 1 with the size when path names something that can be read as a file.
static int ini_examine(const char* path, uint64_t* size)
{
    upnp_file_info info;
    if (!path[0] || upnp_file_stat(path, &info) != 0)
        return 0;
    *size = info.size;
    return 1;
}

void upnp_ini_file_read()
{
    char fallback[INI_PATH_SIZE];
    const char* path = ini_path;
    uint64_t size = 0;
    if (!ini_examine(path, &size)) {
        int n = snprintf(fallback, sizeof fallback, "%s/%s", ini_base_dir(), "velmoramedia-default.ini");
        if (n < 0 || size_t(n) >= sizeof fallback || !ini_examine(fallback, &size))
            return;
        path = fallback;
    }
    if (size < 2)
        return;
    void* data = nullptr;
    size_t read = 0;
    if (size > INI_FILE_MAX || !upnp_file_read_all(path, INI_FILE_MAX, &data, &read)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "ini file \"%s\" unreadable or over %zu bytes, skipped\n",
                 path, INI_FILE_MAX);
        return;
    }
    upnp_ini_parse(data, read);
    free(data);
    ini_utf16 = 1;
}

// The whole file as UTF-8 text; null when memory ran out on the way, so
// that a cut text never replaces a good file.
static upnp_string* ini_render()
{
    upnp_string* s = nullptr;
    size_t expected = 0;
    auto put = [&](const char* text) {
        expected += strlen(text);
        s = upnp_string_append(s, text);
    };
    char header[256];
    snprintf(header, sizeof header,
             "#! Velmora ini file / charset UTF-%d\r\n#! change settings by commandline or by editing this file\r\n"
             "#! version %s\r\n[main]\r\n",
             ini_utf16 ? 16 : 8, VELMORA_VERSION);
    put(header);
    for (size_t i = 0; i < INI_ROWS; i++) {
        char* comment = upnp_lang_text(ini_table[i].name);
        put("# ");
        put(comment ? comment : ini_table[i].name);
        put("\r\n");
        free(comment);
        put(ini_table[i].name);
        put("=");
        const ini_value* v = ini_values[i].load(std::memory_order_acquire);
        put(v ? v->text : "");
        put("\r\n\r\n");
    }
    if (s && size_t(s->length) == expected)
        return s;
    upnp_string_free(s);
    return nullptr;
}

// The bytes of the file: the text itself, or its UTF-16LE form behind FF FE.
static uint8_t* ini_encode(const upnp_string* s, size_t* size)
{
    if (!ini_utf16) {
        uint8_t* bytes = static_cast<uint8_t*>(malloc(size_t(s->length) + 1));
        if (bytes)
            memcpy(bytes, s->text, size_t(s->length) + 1);
        *size = size_t(s->length);
        return bytes;
    }
    uint16_t* wide = upnp_string_utf8_to_utf16(s->text);
    if (!wide)
        return nullptr;
    size_t units = size_t(upnp_wcslen(wide));
    uint8_t* bytes = static_cast<uint8_t*>(malloc(2 + 2 * units));
    if (bytes) {
        bytes[0] = 0xFF;
        bytes[1] = 0xFE;
        for (size_t i = 0; i < units; i++) {
            bytes[2 + 2 * i] = uint8_t(wide[i]);
            bytes[3 + 2 * i] = uint8_t(wide[i] >> 8);
        }
        *size = 2 + 2 * units;
    }
    free(wide);
    return bytes;
}

void upnp_ini_file_write()
{
    std::lock_guard<std::mutex> hold(ini_file_lock);
    upnp_string* text = ini_render();
    size_t size = 0;
    uint8_t* bytes = text ? ini_encode(text, &size) : nullptr;
    upnp_string_free(text);
    if (!bytes) {
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_SYSTEM, "ini file \"%s\" not written: out of memory\n", ini_path);
        return;
    }
    if (!ini_path[0] || upnp_file_replace(ini_path, bytes, size) != 0)
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_SYSTEM, "\nini file \"%s\" not writable! ***\n\n", ini_path);
    free(bytes);
}

void upnp_ini_file_restore_default()
{
    char path[INI_PATH_SIZE];
    int n = snprintf(path, sizeof path, "%s/velmoramedia-default.ini", ini_base_dir());
    void* data = nullptr;
    size_t size = 0;
    if (n < 0 || size_t(n) >= sizeof path || !upnp_file_read_all(path, INI_FILE_MAX, &data, &size))
        return;
    std::lock_guard<std::mutex> hold(ini_file_lock);
    if (!ini_path[0] || upnp_file_replace(ini_path, data, size) != 0)
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_SYSTEM, "\nini file \"%s\" not writable! ***\n\n", ini_path);
    free(data);
    ini_restored = 1;
}

void upnp_ini_release()
{
    if (!ini_restored)
        upnp_ini_file_write();
    std::lock_guard<std::recursive_mutex> hold(ini_write_lock);
    ini_free_all();
    upnp_lang_release();
}

// ---- Start-up ---------------------------------------------------------

static int ini_copy(char* out, const char* text)
{
    size_t n = strlen(text);
    if (n >= INI_PATH_SIZE)
        return 0;
    memcpy(out, text, n + 1);
    return 1;
}

// A program started by its bare name lives in the current folder.
static void ini_cut_at_last_separator(char* path)
{
    char* slash = strrchr(path, '/');
    if (slash)
        *slash = 0;
    else
        ini_copy(path, ".");
}

static void ini_take_argv0(int32_t count, char** arguments)
{
    ini_argv0[0] = 0;
    ini_program_dir[0] = 0;
    if (count < 1 || !arguments || !arguments[0]) {
        snprintf(ini_argv0, sizeof ini_argv0, "%cvelmoramedia", '/');
        return;
    }
    if (!ini_copy(ini_argv0, arguments[0])) {
        printf("[Error] Command line parameter string is Invalid, %s, %d\n", __func__, __LINE__);
        return;
    }
    ini_copy(ini_program_dir, ini_argv0);
    ini_cut_at_last_separator(ini_program_dir);
}

static void ini_choose_path(int32_t count, char** arguments)
{
    const char* name = upnp_switches.full_mode == 1 ? "velmora-mediaserver.ini" : "velmora-mediaserver-simple.ini";
    int n = snprintf(ini_path, sizeof ini_path, "%s/%s", ini_base_dir(), name);
    if (n < 0 || size_t(n) >= sizeof ini_path)
        ini_path[0] = 0;
    for (int32_t i = 1; i + 1 < count; i++)
        if (arguments[i] && strcmp(arguments[i], "-inifile") == 0 && arguments[i + 1] &&
            !ini_copy(ini_path, arguments[i + 1]))
            upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "ini file name too long, ignored\n");
}

struct ini_default {
    int32_t id;
    const char* value;
};

// In this order: language first, because the later sets of the navigation
// names read its tables.
static const ini_default ini_defaults[] = {
    {UPNP_OPT_LANGUAGE, "en"}, {UPNP_OPT_CLIENTAUTOENABLE, "1"}, {UPNP_OPT_ENABLEWEB, "1"},
    {UPNP_OPT_STREAMBUFFER, "32000"}, {UPNP_OPT_UNNAMED_23, "0"}, {UPNP_OPT_NICRESTART, "1"},
    {UPNP_OPT_ADAPTCASE, "1"}, {UPNP_OPT_PLATFORM, "WIN32"}, {UPNP_OPT_IGNOREDIR, "AppleDouble"},
    {UPNP_OPT_COMPILATIONSDIR, "Compilations,Sampler"}, {UPNP_OPT_PLAYLISTNUMENTRIES, "20"},
    {UPNP_OPT_V, "0"}, {UPNP_OPT_STARTUPMB, "0"}, {UPNP_OPT_AUTOTREE, "1"}, {UPNP_OPT_NORESCALE, "0"},
    {UPNP_OPT_NOSEARCH, "1"}, {UPNP_OPT_RANDOMIZEPLAYLISTS, "0"}, {UPNP_OPT_NICCHECKTIME, "5"},
};

static void ini_untab_arguments(int32_t count, char** arguments)
{
    for (int32_t i = 1; i < count; i++) {
        char* a = arguments[i];
        if (!a || !strchr(a, '\t'))
            continue;
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "original argv[%d]%s\n", i, a);
        for (char* p = a; *p; p++)
            if (*p == '\t')
                *p = ' ';
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "changed argv[%d]%s\n", i, a);
    }
}

static void ini_usage_exit(const char* argv0)
{
    printf("\nusage: %s\n\n", argv0);
    printf("       all params from the .ini file can be used as an option, preceded by a -\n");
    printf("       e.g. %s -enableweb 1\n", argv0);
    exit(0);
}

static const ini_option* ini_row_named_exactly(const char* name)
{
    for (size_t i = 0; i < INI_ROWS; i++)
        if (strcmp(ini_table[i].name, name) == 0)
            return &ini_table[i];
    return nullptr;
}

// Handles argument i and returns the index of the last argument it used.
static int32_t ini_parse_argument(int32_t count, char** arguments, int32_t i)
{
    const char* a = arguments[i];
    if (!a)
        return i;
    if (strchr(a, '?') || strstr(a, "help"))
        ini_usage_exit(arguments[0] ? arguments[0] : ini_argv0);
    if (strcmp(a, "-inifile") == 0 || strcmp(a, "-mc") == 0 || strcmp(a, "-logfile") == 0)
        return i + 1;
    if (strcmp(a, "-D") == 0 || strcmp(a, "-dlna") == 0 || strcmp(a, "-uic") == 0)
        return i;
    if (a[0] != '-') {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "unknown command line parameter \"%s\", skipped.\n", a);
        return i;
    }
    const ini_option* row = ini_row_named_exactly(a + 1);
    if (!row)
        return i;
    // An option at the very end takes no value, which unsets it.
    upnp_ini_set(row->id, i + 1 < count ? arguments[i + 1] : nullptr);
    return i + 1;
}

static void ini_parse_arguments(int32_t count, char** arguments)
{
    for (int32_t i = 1; i < count; i++)
        i = ini_parse_argument(count, arguments, i);
}

// Every plain file directly inside the database folder; folders, links and
// hidden names stay.
static void ini_wipe_database_files(const char* dbdir)
{
    for (upnp_dir* w = upnp_dir_open(dbdir); w; w = upnp_dir_next(w)) {
        if (w->is_dir || !upnp_file_is_plain(w->path))
            continue;
        if (upnp_file_delete(w->path) != 0)
            upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "could not delete %s\n", w->path);
    }
}

static void ini_derive_folders()
{
    if (!upnp_ini_get_string(UPNP_OPT_DBDIR)) {
        char dbdir[INI_PATH_SIZE + 32];
        char base[INI_PATH_SIZE];
        ini_copy(base, ini_argv0);
        ini_cut_at_last_separator(base);
        snprintf(dbdir, sizeof dbdir, "%s/%s", base[0] ? base : ".", "velmoramedia.db");
        upnp_ini_set(UPNP_OPT_DBDIR, dbdir);
    }
    const char* dbdir = upnp_ini_get_string(UPNP_OPT_DBDIR);
    if (!upnp_ini_get_string(UPNP_OPT_CACHEDIR)) {
        upnp_string* cache = upnp_string_appendf(nullptr, "%s%ccache", dbdir ? dbdir : "", '/');
        upnp_ini_set(UPNP_OPT_CACHEDIR, cache ? cache->text : nullptr);
        upnp_string_free(cache);
    } else if (dbdir) {
        // A stored cache folder means this is not the first start: the
        // database folder starts empty of files each time, by design.
        ini_wipe_database_files(dbdir);
    }
    if (dbdir)
        upnp_mkdir_parents(dbdir);
    if (const char* cachedir = upnp_ini_get_string(UPNP_OPT_CACHEDIR))
        upnp_mkdir_parents(cachedir);
}

static void ini_open_log()
{
    upnp_log_init(upnp_ini_get_string(UPNP_OPT_LOGFILE));
    upnp_log_set_mode(uint32_t(upnp_ini_get_int(UPNP_OPT_LOGSOURCE)));
    upnp_log_set_level(uint32_t(upnp_ini_get_int(UPNP_OPT_LOGLEVEL)));
    printf("upnp_log_set_mode( upnp_ini_\n");
}

void upnp_ini_file_read_cmdline(int32_t count, char** arguments)
{
    // After upnp_ini_release the table is empty already; a start without
    // one must not inherit values the files no longer hold either.
    {
        std::lock_guard<std::recursive_mutex> hold(ini_write_lock);
        ini_unset_all();
        upnp_lang_forget_code();
    }
    if (!arguments)
        count = 0;
    ini_take_argv0(count, arguments);
    upnp_set_program_dir(ini_program_dir);
    ini_choose_path(count, arguments);
    for (const ini_default& d : ini_defaults)
        upnp_ini_set(d.id, d.value);
    upnp_nav_options_rebuild();
    upnp_ini_set(UPNP_OPT_SCANTIME, "-1");
    upnp_ini_file_read();
    upnp_ini_set(UPNP_OPT_LANGUAGE, upnp_lang_system_code());
    ini_untab_arguments(count, arguments);
    ini_parse_arguments(count, arguments);
    ini_derive_folders();
    upnp_ini_file_write();
    ini_open_log();
}
