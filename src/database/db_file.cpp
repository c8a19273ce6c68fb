// db_file.cpp: the database files. So far only the reset request, which the
// close at stop will act on.
#include "database/db_file.h"

#include <atomic>

static std::atomic<int> db_file_reset_flag;

void db_file_request_reset()
{
    db_file_reset_flag = 1;
}

int db_file_reset_requested()
{
    return db_file_reset_flag.load();
}
