// jpeg_fuzz.cpp: any bytes through the JPEG frame walk, the EXIF walk, the
// date choice and the handler's list. The input is copied into a buffer of
// its exact size, so that a read past the end of the file is a read past
// the end of the allocation.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "database/db_object.h"
#include "media/upnp_jpeg.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The buffer check prints a line per refused value; keep the run readable.
    if (!freopen("/dev/null", "w", stdout))
        return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    uint8_t* bytes = static_cast<uint8_t*>(malloc(size ? size : 1));
    if (!bytes)
        return 0;
    memcpy(bytes, data, size);
    uint32_t width = 0, height = 0;
    int found = upnp_jpeg_frame_size(bytes, size, size > 2 ? bytes[0] % 3 : 0, &width, &height);
    if (found < -1 || found > 1)
        abort();
    upnp_exif_info info = {};
    upnp_exif_parse(bytes, size, &info);
    upnp_exif_choose_date(&info, int64_t(size) * 86400);
    if (!info.date_original || strlen(info.date_original) > 10)
        abort();
    db_meta_list_free(upnp_jpeg_meta_list("/fuzz/pictures/input.jpg", &info));
    upnp_exif_info_free(&info);
    free(bytes);
    return 0;
}
