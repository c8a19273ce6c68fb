// db_test_support.h: a store made afresh for each test with a flat tree
// (root, Music, Picture, Video, Document), a record store in memory that
// counts what it was asked to do, and builders for items, folders and lists.
#pragma once
#include "database/db_object.h"
#include "database/db_record.h"
#include "runtime/upnp_run.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <string>
#include <utility>

typedef std::initializer_list<std::pair<int, const char*>> db_test_fields;

// A client's request for the flag probe; such a client has both flags.
inline int db_client_tag;
inline const HTTP_request* const db_client = reinterpret_cast<const HTTP_request*>(&db_client_tag);
inline int db_test_probe_flags(const HTTP_request*, const char* flag)
{
    return !strcmp(flag, "AV:M") || !strcmp(flag, "XM:NOUTF8SORT");
}

// The records of the fake database file, by block; text only for stores.
struct db_test_record { std::string path; int32_t type; std::string text; };
struct db_test_records {
    std::map<uint32_t, db_test_record> blocks;
    uint32_t next_block = 1;
    int stores = 0, rewrites = 0, frees = 0;
};
inline db_test_records* db_test_files;

inline uint32_t db_test_store(const char* text, int32_t length)
{
    int32_t type = DB_RECORD_NO_TYPE;
    char* path = db_record_path_and_type(text, length, &type);
    db_test_files->stores++;
    db_test_files->blocks[db_test_files->next_block] = {path ? path : "", type, std::string(text, size_t(length))};
    free(path);
    return db_test_files->next_block++;
}

inline int db_test_rewrite(uint32_t block, const db_object* o, const char* path)
{
    db_test_files->rewrites++;
    db_test_files->blocks[block] = {path, db_object_type_of(o), ""};
    return 1;
}

inline void db_test_free_chain(uint32_t block)
{
    db_test_files->frees++;
    db_test_files->blocks.erase(block);
}

inline char* db_test_read_path(uint32_t block, int32_t* type)
{
    auto it = db_test_files->blocks.find(block);
    if (it == db_test_files->blocks.end())
        return nullptr;
    *type = it->second.type;
    return strdup(it->second.path.c_str());
}

// A record as a scanner would submit it: type and path fields.
inline std::string db_test_raw(const std::string& path, int32_t type)
{
    char head[32];
    snprintf(head, sizeof head, "%02X%03X%02d\n%02X%03X", DBK_TYPE, 2, type, DBK_PATH, unsigned(path.size()));
    return head + path + "\n";
}

// A list from (key, value) pairs, behind a type node unless untyped: a
// record always names its type, which db_object_add ignores.
inline db_meta_list* db_test_list(db_test_fields fields, bool typed = true)
{
    db_meta_list* head = typed ? db_meta_list_add(nullptr, DBK_TYPE, "14", 0) : nullptr;
    for (const auto& f : fields)
        head = db_meta_list_add(head, f.first, f.second, 0);
    return head;
}

class DbStoreTest : public ::testing::Test {
protected:
    db_test_records files;

    void SetUp() override
    {
        upnp_switches.oid_seed = 0;
        db_test_files = &files;
        db_create();
        db_record_store store = {db_test_store, db_test_rewrite, db_test_free_chain, db_test_read_path};
        db_set_record_store(&store);
        db_root = db_container_new(0, "root", 1);
        db_music_root = db_all_music = add_top(DB_OBJ_MUSIC_CONTAINER, 10, "Music");
        db_picture_root = db_all_pictures = add_top(DB_OBJ_PHOTO_ALBUM, 30, "Picture");
        db_video_root = db_all_video = add_top(DB_OBJ_VIDEO_CONTAINER, 50, "Video");
        db_document_root = db_all_documents = add_top(DB_OBJ_DOCUMENT_CONTAINER, 57, "Document");
        settle_events();
    }

    void TearDown() override
    {
        db_set_event_sink(nullptr);
        db_set_tree_rules(nullptr);
        db_set_client_flag_probe(nullptr);
        db_set_record_store(nullptr);
        db_path_index_free();
        db_destroy();
        g_db_max_mem = -1;
        upnp_switches.oid_seed = 0;
        db_test_files = nullptr;
    }

    static db_object* add_top(int32_t type, uint32_t seq, const char* title)
    {
        db_object* c = db_container_new(uint32_t(type) << DB_ID_TYPE_SHIFT | seq, title, 1);
        db_container_add_child(db_root, c);
        return c;
    }

    // Sends out whatever is pending, so a test sees only its own changes.
    static void settle_events()
    {
        db_set_event_sink(nullptr);
        for (int64_t t = 10; t <= 30; t += 10)
            db_event_check(t);
    }

    static db_object* folder(int32_t type, const char* title, db_object* parent = nullptr)
    {
        db_object* c = db_container_new(db_next_id(type), title, 0);
        if (parent)
            db_container_add_child(parent, c);
        return c;
    }

    static db_object* ref(db_object* target, db_object* parent = nullptr, int32_t number = 0)
    {
        db_object* r = db_ref_new(number ? DB_OBJ_REF_TRACK : DB_OBJ_REF, target, number);
        if (parent)
            db_container_add_child(parent, r);
        return r;
    }

    // An item through the store's own entry, its record stored by the fake file.
    static db_object* add(const std::string& path, int32_t type, db_test_fields fields)
    {
        db_meta_list* list = db_test_list(fields);
        std::string raw = db_test_raw(path, type);
        db_object* o = db_object_add(list, path.c_str(), type, 0, raw.c_str(), int32_t(raw.size()));
        db_meta_list_free(list);
        return o;
    }

    // A list handed to db_scan_submit, as a format reader would.
    static int submit(db_test_fields fields)
    {
        db_meta_list* list = db_test_list(fields, false);
        int ok = db_scan_submit(list);
        db_meta_list_free(list);
        return ok;
    }
};
