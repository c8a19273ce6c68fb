// upnp_client.h: the client database (clients.db) and its quirk flags.
#pragma once

// A new comma-separated text of the ID: and NA: fields of clients.db, for
// the caller to free(); null when the file was not loaded.
char* upnp_client_db_list();
