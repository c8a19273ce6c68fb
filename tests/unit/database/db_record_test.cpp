#include "database/db_record.h"

#include "config/upnp_ini.h"
#include "unit/database/db_test_support.h"

#include <string>
#include <vector>

typedef std::vector<std::pair<int, std::string>> db_fields;

struct parse_case { const char* name; std::string text; std::string path; int32_t type; db_fields fields; };

static const parse_case parse_cases[] = {
    {"stored record", "03002" "14\n" "3C00A/m/a.b.mp3\n" "14003abc\n", "/m/a.b.mp3", 14, {{20, "abc"}, {12, "mp3"}}},
    {"transit head", ">>>>\n" "03002" "16\n" "14001x\n", "<null>", 16, {{20, "x"}}},
    {"key 255 and above dropped", "FF003abc\n" "14001x\n", "<null>", 24, {{20, "x"}}},
    {"no type", "3C004/a.b\n", "/a.b", 24, {{12, "b"}}},
    {"path without a point", "3C006/a/b/c\n", "/a/b/c", 24, {}},
    {"point in a folder name", "3C008/a.d/b/c\n", "/a.d/b/c", 24, {{12, "d/b/c"}}},
    {"path given twice", "3C004/a.b\n" "3C004/c.d\n", "/c.d", 24, {{12, "d"}, {12, "b"}}},
    {"empty", "", "<null>", 24, {}},
};

// Each text is parsed from a block of exactly its size, so that any read
// past the end is a read outside the allocation; the quick path and type
// reader must agree with the parser. Damaged records are fuzz seeds.
TEST(DbRecord, ParserReadsEveryFieldShapeAndThePathReaderAgrees)
{
    for (const parse_case& c : parse_cases) {
        SCOPED_TRACE(c.name);
        std::vector<char> exact(c.text.begin(), c.text.end());
        db_meta_list* list = nullptr;
        char* path = nullptr;
        int32_t type = -7;
        EXPECT_EQ(1, upnp_cds_db_main_db_parse(exact.data(), int32_t(exact.size()), &list, &path, &type));
        db_fields fields;
        for (const db_meta_list* l = list; l; l = l->next)
            fields.push_back({l->key, l->value ? l->value : "<null>"});
        EXPECT_EQ(c.path, path ? path : "<null>");
        EXPECT_EQ(c.type, type);
        EXPECT_EQ(c.fields, fields);
        db_meta_list_free(list);
        free(path);
        type = -7;
        path = db_record_path_and_type(exact.data(), int32_t(exact.size()), &type);
        EXPECT_EQ(c.path, path ? path : "<null>");
        EXPECT_EQ(path ? c.type : -7, type);
        free(path);
    }
    db_meta_list* list = reinterpret_cast<db_meta_list*>(1);
    char* path = reinterpret_cast<char*>(1);
    int32_t type = 0;
    EXPECT_EQ(1, upnp_cds_db_main_db_parse(nullptr, 10, &list, &path, &type));
    EXPECT_TRUE(!list && !path && type == 24);
}

using DbRecordStore = DbStoreTest;

// A value is formatted whole in a buffer of its own; one that would not fit
// is refused, by the reader's entry and by the record writer, never cut.
TEST_F(DbRecordStore, AValueTooLongForItsFieldRefusesTheRecordRatherThanCutIt)
{
    std::string fits(DB_RECORD_VALUE_MAX, 'g'), too_long(DB_RECORD_VALUE_MAX + 1, 'g');
    upnp_ini_set(UPNP_OPT_ADAPTCASE, "0");      // the genre as given, whatever an earlier test set
    EXPECT_EQ(0, submit({{DBK_GENRE, too_long.c_str()}, {DBK_TYPE, "13"}, {DBK_PATH, "/p/a.jpg"}}));
    EXPECT_EQ(0u, db_file_last_block());
    ASSERT_EQ(1, submit({{DBK_GENRE, fits.c_str()}, {DBK_TYPE, "13"}, {DBK_PATH, "/p/a.jpg"}}));
    db_object* o = db_object_find_by_path("/p/a.jpg");
    ASSERT_NE(nullptr, o);
    // Stored as the reader gave it, without the transit head.
    EXPECT_EQ("3C008/p/a.jpg\n" "03002" "13\n" "193F9" + fits + "\n", db_test_read(db_id_to_block(o->id)));
    EXPECT_EQ(fits, db_object_get_str(o, DBK_GENRE));
    upnp_string* s = db_object_to_record(o, "/p/a.jpg");
    ASSERT_NE(nullptr, s);
    EXPECT_NE(std::string::npos, std::string(s->text).find("193F9" + fits + "\n"));
    upnp_string_free(s);
    db_object_set_str(o, DBK_GENRE, too_long.c_str());
    EXPECT_EQ(nullptr, db_object_to_record(o, "/p/a.jpg"));
}

static void db_collect_import(uint32_t block, const char* text, int32_t length, void* context)
{
    EXPECT_EQ(0u, block);
    static_cast<std::vector<std::string>*>(context)->push_back(std::string(text, size_t(length)));
}

static std::string db_overlong_record()
{
    std::string record;
    while (record.size() <= DB_FILE_RECORD_MAX)
        record += "147F9" + std::string(2041, 'v') + "\n";
    return record;
}

struct import_case { const char* name; std::string file; std::vector<std::string> records; };

static const import_case import_cases[] = {
    {"two records", "14001a\n>>>>\n14001b\n", {"14001a\n", "14001b\n"}},
    {"comment skipped", "#x003abc\n14001a\n", {"14001a\n"}},
    {"empty records handed nothing", ">>>>\n>>>>\n14001a\n>>>>\n", {"14001a\n"}},
    {"value too long ends the file", "14001a\n14800", {"14001a\n"}},
    {"longest value", "147F9" + std::string(2041, 'v') + "\n", {"147F9" + std::string(2041, 'v') + "\n"}},
    {"any line end byte", "14001aX14001b\r", {"14001aX14001b\r"}},
    {"a record that outgrows its limit is dropped", db_overlong_record() + ">>>>\n14001a\n", {"14001a\n"}},
};

TEST(DbRecordImport, ImportFilesSplitIntoRecords)
{
    for (const import_case& c : import_cases) {
        SCOPED_TRACE(c.name);
        std::vector<char> exact(c.file.begin(), c.file.end());
        std::vector<std::string> got;
        EXPECT_EQ(c.records.size(), db_import_items_parse(exact.data(), exact.size(), db_collect_import, &got));
        EXPECT_EQ(c.records, got);
    }
}
