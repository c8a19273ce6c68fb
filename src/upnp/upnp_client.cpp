// upnp_client.cpp: the client database. clients.db is not loaded yet.
#include "upnp/upnp_client.h"

char* upnp_client_db_list()
{
    return nullptr;
}
