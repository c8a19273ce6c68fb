// upnp_client.cpp: the client database. It owns the loaded clients.db text
// with a small index of it, and the client lock over the option "clients".
//
// The text is read-only once loaded and is read by every connection thread
// without a lock; the index (where each "ID:" stands, and which of them is
// the first "ID:NNN" of each number) only tells every flag test where its
// entry lies, so that a test searches one entry instead of the whole text
// while giving the answer of the plain substring rules. A reader count
// lets the database be freed only when no thread is inside it.
//
// The client lock guards the list in the option "clients" and takes nothing
// but the option store. The host is told of a new client after the lock
// has been given up, so that its callback may call back into the server.
// Which addresses are the server's own is asked of the test that the
// lifecycle registers at start; the detection from a device description
// lives beside SSDP, which hears the announcements.
#include "config/upnp_client.h"

#include "config/upnp_ini.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

static const size_t CLIENT_LIST_SIZE = 1024;
static const int32_t CLIENT_PATTERN_SIZE = 128;     // HH: and DD: texts, 127 bytes
static const size_t CLIENT_NO_NEXT = SIZE_MAX;
static std::atomic<upnp_client_local_test> client_local_test;

struct client_db {
    char* text = nullptr;
    size_t length = 0;
    std::vector<uint32_t> ids;            // offset of every "ID:" in text order
    int32_t first[1000];                  // index in ids of the first "ID:NNN", or -1
};

static std::atomic<client_db*> client_current{nullptr};
static std::mutex client_install_lock;
static std::atomic<uint32_t> client_generation{0};
static std::atomic<int32_t> client_readers[2];
static std::mutex client_lock;

// Holds the database for one call; a null db means none is loaded. Readers
// count in the slot of their generation: a new database starts a new
// generation, and its installer waits only for the readers of the old one,
// so a steady stream of readers cannot keep it waiting.
struct client_read {
    client_db* db;
    uint32_t slot;
    client_read()
    {
        for (;;) {
            uint32_t generation = client_generation.load();
            slot = generation & 1;
            client_readers[slot].fetch_add(1);
            if (client_generation.load() == generation)
                break;
            client_readers[slot].fetch_sub(1);
        }
        db = client_current.load();
    }
    ~client_read() { client_readers[slot].fetch_sub(1); }
    client_read(const client_read&) = delete;
    client_read& operator=(const client_read&) = delete;
};

// atoi's reading (blanks, a sign, digits, text behind them ignored), as the
// client file has always been read, saturated instead of wrapping.
static int32_t client_atoi(const char* p)
{
    return upnp_parse_lenient_i32(p);
}

// ---- Loading ------------------------------------------------------------

static void client_db_index(client_db* db)
{
    std::fill(std::begin(db->first), std::end(db->first), -1);
    for (const char* p = db->text; (p = strstr(p, "ID:")); p += 3) {
        db->ids.push_back(uint32_t(p - db->text));
        uint64_t n = 0;
        if (upnp_digit_run(p + 3, 3) == 3 && upnp_parse_u64(p + 3, 3, &n)) {
            if (db->first[n] < 0)
                db->first[n] = int32_t(db->ids.size() - 1);
        }
    }
}

static void client_db_delete(client_db* db)
{
    if (db)
        free(db->text);
    delete db;
}

static void client_db_install(client_db* db)
{
    std::lock_guard<std::mutex> hold(client_install_lock);
    client_db* old = client_current.exchange(db);
    uint32_t slot = client_generation.fetch_add(1) & 1;
    while (client_readers[slot].load() != 0)
        std::this_thread::yield();
    client_db_delete(old);
}

int upnp_client_db_load_text(const char* bytes, size_t size)
{
    if (!bytes || !size || size > size_t(INT32_MAX))
        return 0;
    client_db* db = new (std::nothrow) client_db;
    char* text = db ? static_cast<char*>(malloc(size)) : nullptr;
    if (!text) {
        delete db;
        return 0;
    }
    memcpy(text, bytes, size);
    text[size - 1] = 0;     // the file's last byte, in practice its line end
    db->text = text;
    db->length = strlen(text);
    client_db_index(db);
    client_db_install(db);
    return 1;
}

int upnp_client_db_load()
{
    int32_t size = 0;
    void* data = nullptr;
    if (!upnp_read_resource("clients.db", &size, &data)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_CLIENT_DB, "clients.db not found: no client quirks\n");
        client_db_install(nullptr);
        return 0;
    }
    int loaded = upnp_client_db_load_text(static_cast<const char*>(data), size_t(size));
    free(data);
    if (!loaded)
        client_db_install(nullptr);
    return loaded;
}

void upnp_client_db_free()
{
    client_db_install(nullptr);
}

// ---- Entries ------------------------------------------------------------

// The index in ids of the first "ID:%03d" of number, or -1.
static int32_t client_entry_of(const client_db* db, int32_t number)
{
    if (number >= 0 && number <= 999)
        return db->first[number];
    char needle[24];
    int n = snprintf(needle, sizeof needle, "ID:%03d", int(number));
    for (size_t k = 0; k < db->ids.size(); k++)
        if (strncmp(db->text + db->ids[k], needle, size_t(n)) == 0)
            return int32_t(k);
    return -1;
}

static size_t client_next_id(const client_db* db, int32_t k)
{
    return size_t(k) + 1 < db->ids.size() ? db->ids[size_t(k) + 1] : CLIENT_NO_NEXT;
}

// The first occurrence of needle at or behind the start of entry k that
// begins no later than last; null when there is none.
static const char* client_find_upto(const client_db* db, int32_t k, const char* needle, size_t last)
{
    size_t start = db->ids[size_t(k)];
    size_t n = strlen(needle);
    size_t end = last == CLIENT_NO_NEXT ? db->length : std::min(db->length, last + n);
    if (end < start + n)
        return n == 0 ? db->text + start : nullptr;
    return static_cast<const char*>(memmem(db->text + start, end - start, needle, n));
}

// The flag rule: found behind the entry's "ID:" and before the next "ID:".
static const char* client_find_flag(const client_db* db, int32_t number, const char* flag)
{
    int32_t k = client_entry_of(db, number);
    if (k < 0 || !flag)
        return nullptr;
    size_t next = client_next_id(db, k);
    return client_find_upto(db, k, flag, next == CLIENT_NO_NEXT ? next : next - 1);
}

int upnp_client_has_flag(int32_t number, const char* flag)
{
    client_read r;
    return r.db && client_find_flag(r.db, number, flag) ? 1 : 0;
}

int32_t upnp_client_dlna_level(int32_t number)
{
    client_read r;
    const char* f = r.db ? client_find_flag(r.db, number, "XM:DLNA") : nullptr;
    if (!f)
        return 0;
    if (strncmp(f, "XM:DLNA10", 9) == 0)
        return 10;
    if (strncmp(f, "XM:DLNA15", 9) == 0)
        return 15;
    return strncmp(f, "XM:DLNANO", 9) == 0 ? -1 : 0;
}

int32_t upnp_client_get_number(int32_t number, const char* key)
{
    client_read r;
    const char* f = r.db && key ? client_find_flag(r.db, number, key) : nullptr;
    if (!f)
        return 0;
    const char* value = f + strlen(key);
    size_t next = client_next_id(r.db, client_entry_of(r.db, number));
    if (next != CLIENT_NO_NEXT && next <= size_t(value - r.db->text))
        return 0;   // the key runs into the next entry's "ID:"
    return client_atoi(value);
}

const char* upnp_client_entry(int32_t index)
{
    client_read r;
    if (!r.db || index < 0 || size_t(index) >= r.db->ids.size())
        return nullptr;
    return r.db->text + r.db->ids[size_t(index)];
}

static int client_entry_field(const client_db* db, int32_t index, char* buffer, int32_t size, const char* key)
{
    if (!db || !buffer || size <= 0 || !key || index < 0 || size_t(index) >= db->ids.size())
        return 0;
    // A key is refused only when another entry's "ID:" stands before it.
    const char* f = client_find_upto(db, index, key, client_next_id(db, index));
    if (!f)
        return 0;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(f + strlen(key));
    int32_t n = 0;
    while (n < size - 1 && p[n] >= 32)
        n++;
    memcpy(buffer, p, size_t(n));
    buffer[n] = 0;
    return 1;
}

int upnp_client_entry_field(int32_t index, char* buffer, int32_t size, const char* key)
{
    client_read r;
    return client_entry_field(r.db, index, buffer, size, key);
}

int32_t upnp_client_entry_id(int32_t index)
{
    client_read r;
    if (!r.db || index < 0 || size_t(index) >= r.db->ids.size())
        return -1;
    return client_atoi(r.db->text + r.db->ids[size_t(index)] + 3);
}

char* upnp_client_names()
{
    client_read r;
    if (!r.db)
        return nullptr;
    std::string out;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(r.db->text);
    while (*p) {
        size_t n = 0;
        while (p[n] >= 32)
            n++;
        std::string_view field(reinterpret_cast<const char*>(p), n);
        if (field.substr(0, 3) == "ID:" || field.substr(0, 3) == "NA:") {
            if (!out.empty())
                out += ',';
            out += field.substr(3);
        }
        p += n;
        while (*p && *p < 32)
            p++;
    }
    return strdup(out.c_str());
}

// The number of the first entry whose pattern behind key occurs in text,
// or -1. An empty pattern identifies nothing.
static int32_t client_match(const char* key, const char* text, size_t length)
{
    client_read r;
    if (!r.db)
        return -1;
    char pattern[CLIENT_PATTERN_SIZE];
    for (size_t i = 0; i < r.db->ids.size(); i++) {
        if (client_entry_field(r.db, int32_t(i), pattern, sizeof pattern, key) && pattern[0] &&
            memmem(text, length, pattern, strlen(pattern)))
            return client_atoi(r.db->text + r.db->ids[i] + 3);
    }
    return -1;
}

// ---- The client list ----------------------------------------------------

// Addresses enter the list as dotted IPv4 text only: a ',' or '|' would
// break the items, and anything else is not an address.
int upnp_client_ip_ok(const char* ip)
{
    if (!ip || !*ip || strlen(ip) >= size_t(UPNP_IP_TEXT_SIZE))
        return 0;
    return strspn(ip, "0123456789.") == strlen(ip);
}

static int client_needle(const char* ip, char* out, size_t size)
{
    if (!ip || !*ip)
        return 0;
    int n = snprintf(out, size, "%s|", ip);
    return n > 0 && size_t(n) < size;
}

// The text behind "ip|" in the list, or null. Under the client lock.
static const char* client_list_find(const char* ip)
{
    const char* list = upnp_ini_get_string(UPNP_OPT_CLIENTS);
    char needle[64];
    if (!list || !client_needle(ip, needle, sizeof needle))
        return nullptr;
    const char* at = strstr(list, needle);
    return at ? at + strlen(needle) : nullptr;
}

static int32_t client_get_id_locked(const char* ip)
{
    const char* behind = client_list_find(ip);
    return behind ? client_atoi(behind) : 0;
}

int32_t upnp_client_get_id(const char* ip)
{
    std::lock_guard<std::mutex> hold(client_lock);
    return client_get_id_locked(ip);
}

static int client_list_put(std::string& list, std::string_view item)
{
    size_t grown = list.size() + (list.empty() ? 0 : 1) + item.size();
    if (item.empty() || grown >= CLIENT_LIST_SIZE)
        return 0;
    if (!list.empty())
        list += ',';
    list += item;
    return 1;
}

// The list without the items that start with "ip|", whole items only and
// within the list's 1024 bytes.
static std::string client_list_without(const char* ip)
{
    const char* list = upnp_ini_get_string(UPNP_OPT_CLIENTS);
    char needle[64];
    std::string out;
    if (!list || !client_needle(ip, needle, sizeof needle))
        return list ? std::string(list) : out;
    std::string_view rest(list);
    while (!rest.empty()) {
        size_t comma = std::min(rest.find(','), rest.size());
        std::string_view item = rest.substr(0, comma);
        rest.remove_prefix(std::min(comma + 1, rest.size()));
        if (item.substr(0, strlen(needle)) != needle && !client_list_put(out, item) && !item.empty())
            break;
    }
    return out;
}

static void client_store(const std::string& list)
{
    upnp_ini_set(UPNP_OPT_CLIENTS, list.c_str());
}

void upnp_client_remove(const char* ip)
{
    if (!ip || !*ip)
        return;
    std::lock_guard<std::mutex> hold(client_lock);
    const char* list = upnp_ini_get_string(UPNP_OPT_CLIENTS);
    std::string rebuilt = client_list_without(ip);
    if (list && rebuilt != list)
        client_store(rebuilt);
}

// Builds the new list for ip; empty when nothing is to change.
static std::string client_list_entered(const char* ip, int32_t number)
{
    int32_t current = client_get_id_locked(ip);
    if (current == number || (current >= 1 && !upnp_client_has_flag(current, "DB:AUTO")))
        return std::string();
    char item[64];
    snprintf(item, sizeof item, "%s|%03d|%d", ip, int(number), int(upnp_ini_get_int(UPNP_OPT_CLIENTAUTOENABLE)));
    std::string list = client_list_without(ip);
    if (!client_list_put(list, item)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_CLIENT_DB, "client list full: %s not entered\n", ip);
        return std::string();
    }
    return list;
}

int upnp_client_set(const char* ip, int32_t number)
{
    if (!upnp_client_ip_ok(ip))
        return 0;
    std::string list;
    {
        std::lock_guard<std::mutex> hold(client_lock);
        list = client_list_entered(ip, number);
        if (list.empty())
            return 0;
        client_store(list);
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_CLIENT_DB, "client %s is number %03d\n", ip, int(number));
    upnp_file_event(UPNP_EVENT_CLIENT_ADDED, list.c_str());
    return 1;
}

int upnp_client_allowed(const char* ip)
{
    std::lock_guard<std::mutex> hold(client_lock);
    const char* behind = client_list_find(ip);
    if (behind)
        return strnlen(behind, 5) == 5 && behind[4] == '1';
    return upnp_ini_get_int(UPNP_OPT_CLIENTAUTOENABLE) != 0;
}

int32_t upnp_client_lookup(const char* ip, const char* head)
{
    {
        std::lock_guard<std::mutex> hold(client_lock);
        if (const char* behind = client_list_find(ip))
            return client_atoi(behind);
    }
    if (!head || !upnp_stristr(head, "User"))
        return 0;
    int32_t number = client_match("HH:", head, strlen(head));
    if (number >= 0) {
        upnp_client_set(ip, number);
        return number;
    }
    upnp_client_local_test is_local = client_local_test.load();
    if (!ip || (is_local && is_local(ip)))
        return 0;
    upnp_client_set(ip, 1);
    return 1;
}

int32_t upnp_client_match_description(const char* text, size_t length)
{
    return client_match("DD:", text, length);
}

void upnp_client_set_local_test(upnp_client_local_test test)
{
    client_local_test = test;
}
