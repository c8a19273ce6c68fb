// upnp_upload.cpp: the upload folder. Written once when uploads are first
// prepared, read by the store without a lock afterwards.
#include "upnp/upnp_upload.h"

char upnp_upload_dir[UPNP_UPLOAD_DIR_SIZE];
