// db_test_support.h: a store made afresh for each test with a flat tree
// (root, Music, Picture, Video, Document) over a block file in memory, and
// builders for items, folders and lists.
#pragma once
#include "database/db_file.h"
#include "database/db_id.h"
#include "database/db_object.h"
#include "database/db_record.h"
#include "runtime/upnp_run.h"
#include "runtime/upnp_string.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
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

// The text of the record at block in the block file; "<none>" at its end.
inline std::string db_test_read(uint32_t block)
{
    upnp_string* s = nullptr;
    std::string out = !db_file_read_record(block, &s) ? "<none>" : s ? std::string(s->text, size_t(s->length)) : "";
    upnp_string_free(s);
    return out;
}

// A field as a record holds it: key, length, value.
inline std::string db_test_field(int32_t key, const std::string& value)
{
    char head[16];
    snprintf(head, sizeof head, "%02X%03X", unsigned(key), unsigned(value.size()));
    return head + value + "\n";
}

// A record as a scanner would submit it: type and path fields.
inline std::string db_test_raw(const std::string& path, int32_t type)
{
    return db_test_field(DBK_TYPE, std::string(type < 10, '0') + std::to_string(type)) + db_test_field(DBK_PATH, path);
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
    void SetUp() override
    {
        upnp_switches.oid_seed = 0;
        db_create();
        ASSERT_TRUE(db_file_open_memory(nullptr, 0));
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
        db_file_close();
        db_destroy();
        g_db_max_mem = -1;
        upnp_switches.oid_seed = 0;
    }

    static db_object* add_top(int32_t type, uint32_t seq, const char* title)
    {
        db_object* c = db_container_new(uint32_t(type) << DB_ID_TYPE_SHIFT | seq, title, 1);
        db_container_add_child(db_root, c);
        return c;
    }

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

    static db_object* add(const std::string& path, int32_t type, db_test_fields fields)
    {
        db_meta_list* list = db_test_list(fields);
        std::string raw = db_test_raw(path, type);
        db_object* o = db_object_add(list, path.c_str(), type, 0, raw.c_str(), int32_t(raw.size()));
        db_meta_list_free(list);
        return o;
    }

    static int submit(db_test_fields fields)
    {
        db_meta_list* list = db_test_list(fields, false);
        int ok = db_scan_submit(list);
        db_meta_list_free(list);
        return ok;
    }
};
