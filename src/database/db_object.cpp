// db_object.cpp: the content tree. So far only the browsing policy lives
// here; the store is empty, so lookups find nothing and removals report
// "not found".
#include "database/db_object.h"

#include <atomic>

struct db_policy_row { int32_t type; std::atomic<uint32_t> visible; };

static db_policy_row db_browsing_policy[] = {
    {DB_TYPE_PICTURE_ITEM, {1}},
    {DB_TYPE_MUSIC_ITEM, {1}},
    {DB_TYPE_VIDEO_ITEM, {1}},
    {DB_TYPE_DOCUMENT_ITEM, {1}},
};
static std::atomic<int32_t> db_write_request;

static db_policy_row* db_policy_find(int32_t type)
{
    for (db_policy_row& row : db_browsing_policy)
        if (row.type == type)
            return &row;
    return nullptr;
}

db_object* db_get_pItem_by_id(uint32_t)
{
    return nullptr;
}

int db_object_remove(const char*)
{
    return 0;
}

int db_set_browsing_policy(int32_t type, uint32_t visible)
{
    db_policy_row* row = db_policy_find(type);
    if (!row)
        return 0;
    row->visible = visible;
    return 1;
}

uint32_t db_get_browsing_policy(int32_t type)
{
    db_policy_row* row = db_policy_find(type);
    return row ? row->visible.load() : 1;
}

void db_request_write()
{
    db_write_request = 1;
}
