// upnp_jpeg.h: the picture size and EXIF fields of a JPEG file. The file
// shell reads the head of the file and hands the bytes to the parse core,
// so tests and fuzzers feed the core bytes directly. Texts in
// upnp_exif_info come from malloc and are freed with upnp_exif_info_free.
#pragma once
#include <cstddef>
#include <cstdint>

struct db_meta_list;

struct upnp_exif_info {
    uint32_t width;
    uint32_t height;
    uint32_t orientation;
    uint32_t x_resolution;          // read, not used further
    uint32_t y_resolution;
    uint32_t thumbnail_offset;      // read, not used further
    uint32_t thumbnail_size;
    int64_t file_size;
    uint32_t mtime;                 // low word of the last-write time, in seconds
    char* description;
    char* date_original;            // after the reading: the date to store
    char* date_time;
    char* software;                 // not used further
    char* user_comment;             // not used further
};

// The frame size of the JPEG whose SOI marker stands at start. 0 with
// width and height set; -1 when the marker walk refuses the bytes; 1 when
// the bytes end before an answer (the caller may have more of the file).
int upnp_jpeg_frame_size(const uint8_t* bytes, size_t size, size_t start, uint32_t* width,
                         uint32_t* height);
// The parse core: frame size and EXIF fields from the first size bytes of
// a file. Leaves file_size, mtime and the date choice to the caller.
void upnp_exif_parse(const uint8_t* bytes, size_t size, upnp_exif_info* info);
// The last step of a reading: date_original becomes the date to store,
// "YYYY-MM-DD" from the EXIF texts or else from created (seconds, UTC).
void upnp_exif_choose_date(upnp_exif_info* info, int64_t created);
// The whole reading of one file into a zeroed info. 0 when the file's
// attributes cannot be read (info then stays empty), else 1.
int upnp_exif_read(const char* path, upnp_exif_info* info);
void upnp_exif_info_free(upnp_exif_info* info);

// What the JPEG handler submits for path: a new list the caller frees, or
// null when no memory.
db_meta_list* upnp_jpeg_meta_list(const char* path, const upnp_exif_info* info);

// The fields of one reading in the caller's variables (null ones are
// skipped); date and description are new texts the caller frees. The four
// thumbnail outputs are always 0: covers are never taken from a picture.
// The date is the EXIF one from 1931 on, else the creation date, also when
// the reading stopped early; null only when the attributes could not be
// read, and then the result is 0, else 1.
int upnp_jpeg_read_info(const char* path, int64_t* size, uint32_t* width, uint32_t* height, uint32_t* thumb_offset,
                        uint32_t* thumb_size, uint32_t* thumb_width, uint32_t* thumb_height, uint32_t* orientation,
                        char** date, uint32_t* mtime, char** description);
// upnp_jpeg_handler and upnp_image_handler, the table's picture handlers,
// are declared in media/upnp_filetype.h.
