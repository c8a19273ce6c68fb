// upnp_cds.cpp: the ContentDirectory service. No element is written yet;
// the path lookup upnp_cds_db_file_get_id_by_res lives with the store's
// path index (database/db_id.cpp).
#include "upnp/upnp_cds.h"

upnp_string* upnp_cds_object_didl(upnp_string* out, db_object*, const char*, int32_t)
{
    return out;
}
