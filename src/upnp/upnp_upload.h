// upnp_upload.h: where the files that clients upload are kept: a folder
// "VelmoraMedia-Downloads" below the option newobjectdir. The store counts
// files there as shared even when no shared folder holds them.
#pragma once

inline constexpr int UPNP_UPLOAD_DIR_SIZE = 1024;
// Empty until the upload folder has been prepared.
extern char upnp_upload_dir[UPNP_UPLOAD_DIR_SIZE];
