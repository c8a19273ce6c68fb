// upnp_lang.cpp: the language string tables. Owns the code of the loaded
// language, the table of that language and the English table, each one
// UTF-8 text made from a UTF-16 string file of the resources. A lookup
// searches the local table, then the English one, then gives the key back,
// so a missing file or line never leaves a caller without text.
//
// Readers take no lock, like the options: any thread may look a text up
// while "language" is set through the control API or the RPC. A select
// loads the new table before it publishes it (release; readers load with
// acquire), and the table it replaces goes on a retired list that
// upnp_lang_release frees at stop, so a lookup never searches freed text.
// Selects, forgets and the release come only from the option store, under
// its write lock, which is the lock of everything here that only writers
// touch.
#include "config/upnp_ini.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_string.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct lang_retired {
    char* table;
    lang_retired* next;
};

static char* lang_code;                     // writers; code of the tables below, null before the first select
static std::atomic<char*> strings_local;    // null for "en" and when the file is missing
static std::atomic<char*> strings_en;       // loaded once, at the first select of "en"
static lang_retired* lang_retired_list;     // writers; freed at release

static constexpr size_t LANG_TEXT_MAX = 1023;
static constexpr size_t LANG_CODE_MAX = 15;

// The codes the system language can map to; "em" is what the old language
// identifier of New Zealand English has always given, and stays so.
static const char* const lang_codes[] = {
    "af", "ar", "az", "be", "bg", "ca", "cs", "da", "de", "el", "em", "en", "es", "et", "eu",
    "fa", "fi", "fo", "fr", "gd", "he", "hi", "hr", "hu", "hy", "id", "is", "it", "ja", "ko",
    "lt", "lv", "mk", "mr", "ms", "mt", "nl", "no", "pl", "pt", "rm", "ro", "ru", "sa", "sb",
    "sk", "sl", "sq", "sr", "sv", "sw", "sx", "ta", "th", "tn", "tr", "ts", "tt", "uk", "ur",
    "uz", "vi", "xh", "yi", "zh", "zu",
};

// Locale names that differ from the codes above for the same language.
struct lang_alias {
    const char* locale;
    const char* code;
};
static const lang_alias lang_aliases[] = {
    {"nb", "no"}, {"nn", "no"},      // both Norwegian forms share one code
    {"iw", "he"}, {"in", "id"}, {"ji", "yi"},   // old ISO names glibc still knows
    {"st", "sx"},                    // Sesotho
    {"hsb", "sb"}, {"dsb", "sb"},    // Sorbian
};

// The code becomes part of a file name; anything but letters, digits, '_'
// and '-' could lead the name out of the resources folder.
static int lang_code_is_safe(const char* code)
{
    size_t n = strlen(code);
    if (n == 0 || n > LANG_CODE_MAX)
        return 0;
    for (size_t i = 0; i < n; i++) {
        unsigned char c = static_cast<unsigned char>(code[i]);
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-'))
            return 0;
    }
    return 1;
}

// A string file is UTF-16LE behind its mark; its last unit (the final line
// end) gives way to the terminator.
static char* lang_decode(const void* data, int32_t size)
{
    const uint8_t* b = static_cast<const uint8_t*>(data);
    if (size < 4 || b[0] != 0xFF || b[1] != 0xFE)
        return nullptr;
    size_t units = size_t(size) / 2 - 2;
    uint16_t* wide = static_cast<uint16_t*>(malloc((units + 1) * sizeof(uint16_t)));
    if (!wide)
        return nullptr;
    for (size_t i = 0; i < units; i++)
        wide[i] = uint16_t(b[2 + 2 * i] | b[3 + 2 * i] << 8);
    wide[units] = 0;
    char* text = units ? upnp_string_utf16_to_utf8_n(wide, units) : strdup("");
    free(wide);
    return text;
}

static char* lang_load(const char* code)
{
    if (!lang_code_is_safe(code)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "language code \"%.32s\" refused\n", code);
        return nullptr;
    }
    char name[64];
    snprintf(name, sizeof name, "strings-%s.txt", code);
    int32_t size = 0;
    void* data = nullptr;
    if (!upnp_read_resource(name, &size, &data)) {
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "string file %s not found\n", name);
        return nullptr;
    }
    char* text = lang_decode(data, size);
    free(data);
    if (!text)
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "string file %s is not UTF-16\n", name);
    return text;
}

// Without memory for the note the table stays allocated for good: a leak
// of one table is better than a reader searching freed text.
static void lang_retire(char* table)
{
    if (!table)
        return;
    lang_retired* note = static_cast<lang_retired*>(malloc(sizeof(lang_retired)));
    if (!note)
        return;
    *note = lang_retired{table, lang_retired_list};
    lang_retired_list = note;
}

int32_t upnp_lang_select(const char* code)
{
    if (!code || (lang_code && strcmp(lang_code, code) == 0))
        return 0;
    char* copy = strdup(code);
    if (!copy)
        return 0;
    free(lang_code);
    lang_code = copy;
    int english = strcmp(code, "en") == 0;
    char* local = english ? nullptr : lang_load(code);
    lang_retire(strings_local.exchange(local, std::memory_order_acq_rel));
    if (english && !strings_en.load(std::memory_order_relaxed))
        strings_en.store(lang_load("en"), std::memory_order_release);
    return 1;
}

void upnp_lang_forget_code()
{
    free(lang_code);
    lang_code = nullptr;
}

// At stop, when no thread looks texts up any more.
void upnp_lang_release()
{
    upnp_lang_forget_code();
    free(strings_local.exchange(nullptr, std::memory_order_acq_rel));
    free(strings_en.exchange(nullptr, std::memory_order_acq_rel));
    while (lang_retired* note = lang_retired_list) {
        lang_retired_list = note->next;
        free(note->table);
        free(note);
    }
}

const char* upnp_lang_get_local()
{
    return strings_local.load(std::memory_order_acquire);
}

const char* upnp_lang_get_en()
{
    return strings_en.load(std::memory_order_acquire);
}

// The text behind "|key" and the mark, up to the first control character.
static char* lang_find(const char* key, char mark)
{
    size_t n = strlen(key);
    char* needle = static_cast<char*>(malloc(n + 3));
    if (!needle)
        return nullptr;
    needle[0] = '|';
    memcpy(needle + 1, key, n);
    needle[n + 1] = mark;
    needle[n + 2] = 0;
    const char* local = upnp_lang_get_local();
    const char* en = upnp_lang_get_en();
    const char* hit = local ? strstr(local, needle) : nullptr;
    if (!hit && en)
        hit = strstr(en, needle);
    free(needle);
    if (!hit)
        return nullptr;
    hit += n + 2;
    size_t len = 0;
    while (len < LANG_TEXT_MAX && static_cast<unsigned char>(hit[len]) >= 32)
        len++;
    // A cut inside a UTF-8 sequence would leave half a character.
    if (len == LANG_TEXT_MAX && static_cast<unsigned char>(hit[len]) >= 32)
        while (len > 0 && (static_cast<unsigned char>(hit[len]) & 0xC0) == 0x80)
            len--;
    return strndup(hit, len);
}

char* upnp_lang_text(const char* key)
{
    if (!key)
        return nullptr;
    if (char* text = lang_find(key, '|'))
        return text;
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "NO TRANSLATION FOR %s\n", key);
    return strdup(key);
}

char* upnp_lang_help(const char* key)
{
    if (!key)
        return nullptr;
    if (char* text = lang_find(key, '?'))
        return text;
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "NO HELP FOR %s\n", key);
    return strdup(key);
}

static const char* lang_known(const char* code)
{
    for (const lang_alias& a : lang_aliases)
        if (strcmp(a.locale, code) == 0)
            return a.code;
    for (const char* known : lang_codes)
        if (strcmp(known, code) == 0)
            return known;
    return nullptr;
}

// "de_DE.UTF-8", "pt_BR", "sr@latin": the language is the lower-case
// letters before the first '_', '.', '@' or '-'; the region only matters
// for New Zealand English.
static const char* lang_from_locale(const char* locale)
{
    char language[4] = {0};
    size_t n = 0;
    for (; locale[n] && strchr("_.@-", locale[n]) == nullptr; n++) {
        char c = locale[n];
        if (n >= 3 || !((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')))
            return "en";
        language[n] = char(c | 0x20);
    }
    if (n < 2)
        return "en";
    if (strcmp(language, "en") == 0 && strncmp(locale + n, "_NZ", 3) == 0)
        return "em";
    const char* code = lang_known(language);
    return code ? code : "en";
}

const char* upnp_lang_system_code()
{
    static const char* const variables[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
    for (const char* name : variables) {
        const char* value = getenv(name);
        if (value && *value)
            return lang_from_locale(value);
    }
    return "en";
}
