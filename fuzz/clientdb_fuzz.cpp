// Arbitrary bytes as clients.db: every entry walk, field copy and flag test
// must stay inside the text, and the indexed answers must equal the plain
// substring rules searched through the whole text.
#include "config/upnp_client.h"
#include "config/upnp_ini.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The flag rule as written: the first "ID:%03d", the flag behind it, and
// the next "ID:" behind the entry's own.
int reference_has_flag(const char* text, int number, const char* flag)
{
    char id[32];
    snprintf(id, sizeof id, "ID:%03d", number);
    const char* own = strstr(text, id);
    const char* f = own ? strstr(own, flag) : nullptr;
    const char* next = own ? strstr(own + 1, "ID:") : nullptr;
    return f && (!next || next > f);
}

void check_entries()
{
    char buffer[128];
    for (int i = 0; i < 64; i++) {
        const char* entry = upnp_client_entry(i);
        if (!entry)
            break;
        if (strncmp(entry, "ID:", 3) != 0)
            abort();
        upnp_client_entry_id(i);
        for (const char* key : {"HH:", "DD:", "NA:", "PX:", ""})
            if (upnp_client_entry_field(i, buffer, sizeof buffer, key) && strlen(buffer) >= sizeof buffer)
                abort();
    }
    free(upnp_client_names());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!upnp_client_db_load_text(reinterpret_cast<const char*>(data), size))
        return 0;
    std::string text(reinterpret_cast<const char*>(data), size - 1);
    const char* t = text.c_str();
    static const char* const flags[] = {"XM:DLNA15", "HP:chunked", "DB:AUTO", "AV:M", "ID:", "ID:00", "", "X",
                                        "XM:DLNA", "PX:"};
    const int numbers[] = {-1, 0, 1, 2, 3, 10, 40, 100, 999, 1000, size ? data[0] : 7};
    for (int n : numbers) {
        for (const char* flag : flags)
            if (upnp_client_has_flag(n, flag) != reference_has_flag(t, n, flag))
                abort();
        upnp_client_dlna_level(n);
        upnp_client_get_number(n, "PX:");
        upnp_client_get_number(n, "ID:");
    }
    check_entries();
    upnp_client_lookup("10.9.8.7", "GET / HTTP/1.1\r\nUser-Agent: DLNADOC/1.50 SEC_HHP_[TV] Kodi\r\n\r\n");
    upnp_client_allowed("10.9.8.7");
    upnp_client_remove("10.9.8.7");
    upnp_client_db_free();
    return 0;
}
