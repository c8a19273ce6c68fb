// Feeds arbitrary bytes to the block-file loader as the content of a
// database file: the header, the free list, chains that loop, lie or leave
// the file, folder-time entries that point anywhere. The file is loaded,
// then written to as a running server would (a new record, a rewrite, a
// free, a folder time, a prune), then loaded again. Nothing may read or
// write outside the image, hang or leak.
#include "database/db_file.h"
#include "database/db_object.h"
#include "database/db_record.h"
#include "runtime/upnp_string.h"

#include <cstdint>
#include <cstdlib>

static void fuzz_parse(uint32_t, const char* text, int32_t length, void*)
{
    db_meta_list* list = nullptr;
    char* path = nullptr;
    int32_t type = 0;
    upnp_cds_db_main_db_parse(text, length, &list, &path, &type);
    db_meta_list_free(list);
    free(path);
}

// A block number taken from the input's tail, so that the writes hit the
// blocks the input describes.
static uint32_t fuzz_pick(const uint8_t* data, size_t size, size_t back)
{
    if (size < back + 2)
        return 1;
    uint32_t v = uint32_t(data[size - back - 1]) | uint32_t(data[size - back - 2]) << 8;
    return v % (db_file_last_block() + 2);
}

static void fuzz_write(const uint8_t* data, size_t size)
{
    upnp_string* text = upnp_string_append(nullptr, "03002" "14\n" "3C00A/m/a.b.mp3\n");
    for (int i = 0; i < 40; i++)
        text = upnp_string_append(text, "1C015a description of 24 b\n");
    uint32_t stored = db_file_store(text->text, text->length);
    db_file_rewrite(fuzz_pick(data, size, 0), text);
    db_file_free_chain(fuzz_pick(data, size, 2));
    upnp_string_empty(text);
    text = upnp_string_append(text, "14005short\n");
    db_file_rewrite(stored, text);
    upnp_string_free(text);
    db_file_set_folder_time("A|/fuzz", 1);
    db_file_get_folder_time("A|/fuzz");
    db_file_prune_folders();
    int32_t type = 0;
    free(db_file_get_path_and_type(fuzz_pick(data, size, 4), &type));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (!db_file_open_memory(data, size))
        return 0;
    db_file_walk(nullptr, fuzz_parse, nullptr, nullptr);
    fuzz_write(data, size);
    db_file_walk(nullptr, fuzz_parse, nullptr, nullptr);
    db_file_close();
    return 0;
}
