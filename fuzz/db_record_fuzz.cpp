// Feeds arbitrary bytes to the record parser, both as a stored record and
// as it travels with its ">>>>\n" head, and to the reader of item import
// files, whose records go through the parser in turn. Nothing may read
// past the input, hang or leak.
#include "database/db_object.h"
#include "database/db_record.h"

#include <cstdint>
#include <cstdlib>
#include <string>

static void fuzz_parse(uint32_t, const char* text, int32_t length, void*)
{
    db_meta_list* list = nullptr;
    char* path = nullptr;
    int32_t type = 0;
    upnp_cds_db_main_db_parse(text, length, &list, &path, &type);
    db_meta_list_free(list);
    free(path);
    free(db_record_path_and_type(text, length, &type));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > DB_FILE_RECORD_MAX)
        return 0;
    const char* text = reinterpret_cast<const char*>(data);
    fuzz_parse(0, text, int32_t(size), nullptr);
    std::string transit = ">>>>\n" + std::string(text, size);
    fuzz_parse(0, transit.data(), int32_t(transit.size()), nullptr);
    db_import_items_parse(data, size, fuzz_parse, nullptr);
    return 0;
}
