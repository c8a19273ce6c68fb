// Id texts and sort criteria come from clients: any bytes must walk the
// tree, hash as a path and order a list without a fault.
#include "database/db_object.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

static std::vector<db_object*> fuzz_items;

static char* fuzz_read_path(uint32_t block, int32_t* type)
{
    *type = DB_OBJ_AUDIO;
    return block == 1 ? strdup("/m/a.mp3") : nullptr;
}

static uint32_t fuzz_store(const char*, int32_t)
{
    static uint32_t next = 1;
    return next++;
}

// A small tree: root, Music with tracks, folders with references.
static void fuzz_build()
{
    db_create();
    db_record_store store = {fuzz_store, nullptr, nullptr, fuzz_read_path};
    db_set_record_store(&store);
    db_root = db_container_new(0, "root", 1);
    db_music_root = db_all_music = db_container_new(uint32_t(DB_OBJ_MUSIC_CONTAINER) << DB_ID_TYPE_SHIFT | 10, "Music", 1);
    db_container_add_child(db_root, db_music_root);
    db_object* folder = db_container_new(db_next_id(DB_OBJ_MUSIC_ALBUM), "Album", 0);
    db_container_add_child(db_root, folder);
    const char* titles[] = {"b", "\xC3\x84", "a", "\xC3", ""};
    for (int i = 0; i < 5; i++) {
        db_meta_list* l = db_meta_list_add(nullptr, DBK_TITLE, titles[i], 0);
        l = db_meta_list_add(l, DBK_DATE, i % 2 ? "2001-01-01" : "1999", 0);
        std::string path = "/m/" + std::to_string(i) + ".mp3";
        db_object* o = db_object_add(l, path.c_str(), DB_OBJ_AUDIO, 0, "x", 1);
        db_meta_list_free(l);
        if (o) {
            fuzz_items.push_back(o);
            db_container_add_child(folder, db_ref_new(DB_OBJ_REF, o, 0));
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool built = (fuzz_build(), true);
    (void)built;
    std::string text(reinterpret_cast<const char*>(data), size);
    db_lock_guard hold;
    db_object* o = db_get_item_by_id(text.c_str(), nullptr);
    char id[DB_ID_TEXT_SIZE];
    db_object_id_text(o, id, sizeof id);
    db_object_get_str(o, DBK_ARTIST);
    db_object_get_int(o, DBK_ART_OFFSET);
    upnp_cds_db_file_get_id_by_res(text.c_str());
    std::vector<db_object*> v(fuzz_items);
    v.push_back(db_music_root);
    db_sort_prepare(text.c_str(), DB_OBJ_MUSIC_CONTAINER, nullptr);
    db_sort_objects(v.data(), int32_t(v.size()));
    return 0;
}
