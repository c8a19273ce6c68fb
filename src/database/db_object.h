// db_object.h: the database subsystem's chief header: the content tree.
// Every entry point that touches the tree takes db_lock.
#pragma once
#include <cstdint>

struct db_object;

enum db_object_type : int32_t {
    DB_TYPE_PICTURE_ITEM = 13,
    DB_TYPE_MUSIC_ITEM = 14,
    DB_TYPE_VIDEO_ITEM = 16,
    DB_TYPE_DOCUMENT_ITEM = 17,
};

db_object* db_get_pItem_by_id(uint32_t id);
int db_object_remove(const char* path);                 // 1 removed, 0 not found
int db_set_browsing_policy(int32_t type, uint32_t visible);   // 0 for other types
uint32_t db_get_browsing_policy(int32_t type);          // 1 visible (the default), 0 hidden
void db_request_write();                                // write the database at the next chance
