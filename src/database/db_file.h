// db_file.h: the database files in dbdir.
#pragma once

void db_file_request_reset();   // the reset runs when the files are closed at stop
int db_file_reset_requested();
