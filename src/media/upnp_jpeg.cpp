// upnp_jpeg.cpp: the frame size and the EXIF fields of a JPEG, and the
// two picture handlers: JPEG files with what their head tells, other
// pictures with what their attributes tell, unopened. Owns no globals and
// no lock: the words that gate the EXIF passes (exif_ifd_seen and its two
// siblings) live in one reading's state, because a reading may run on the
// scanner and on an HTTP thread at once, and one file's pointer must not
// start another's pass.
//
// Order of work: the file shell reads a head of the file, growing it only
// while the marker walk runs off its end, and hands the bytes to the core.
// The core walks the markers to the frame header, finds the APP1 EXIF block
// right behind SOI or behind one comment or APP0 segment, checks the TIFF
// head, reads IFD0, then the IFD chain from offset 8. Every read goes
// through a media_cursor clamped to the bytes really there; the chain stops
// after EXIF_CHAIN_MAX IFDs or at an IFD it has already read.
//
// The walk is not the textbook one, and stays so, since stored values
// depend on it: the EXIF sub-IFD pointer only allows the chain pass, which
// starts at 8 whatever the pointer says; BYTE and SHORT values are shifted
// out of the value word as read in file order, so only big-endian files
// give them; rationals are always read big-endian; and from the second IFD
// of the chain on, offsets count from the IFD before, so they add up.
#include "media/upnp_jpeg.h"

#include "database/db_object.h"
#include "database/db_record.h"
#include "media/media_cursor.h"
#include "media/upnp_filetype.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_string.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

static constexpr uint32_t EXIF_BLOCK_MAX = 1048576;
static constexpr int EXIF_CHAIN_MAX = 32;               // media structures nest 32 deep at most
static constexpr int64_t EXIF_OLDEST_YEAR = 1931;       // camera clocks left unset read earlier
// Enough for SOI, one skipped segment and the largest EXIF block.
static constexpr size_t JPEG_HEAD_FIRST = 192 * 1024;
static constexpr size_t JPEG_HEAD_MAX = 16 * 1024 * 1024;

// ---------------------------------------------------------------- frame size

// C4 (tables), C8 (reserved) and CC (arithmetic conditioning) share the
// prefix of the start-of-frame markers but carry no size.
static bool jpeg_is_frame(uint32_t marker)
{
    return marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
}

int upnp_jpeg_frame_size(const uint8_t* bytes, size_t size, size_t start, uint32_t* width,
                         uint32_t* height)
{
    media_cursor file = media_open(bytes, size);
    media_cursor c = media_at(&file, start);
    uint32_t soi = media_be16(&c);
    if (c.bad)
        return 1;
    if (soi != 0xFFD8)
        return -1;
    for (;;) {
        while (media_u8(&c) != 0xFF && !c.bad) {
        }
        uint32_t marker = media_u8(&c);
        if (c.bad)
            return 1;
        if (marker == 0)
            return -1;
        uint32_t length = media_be16(&c);
        if (jpeg_is_frame(marker)) {
            media_u8(&c);                                // sample precision
            uint32_t h = media_be16(&c), w = media_be16(&c);
            if (c.bad)
                return 1;
            *width = w;
            *height = h;
            return 0;
        }
        if (c.bad)
            return 1;
        if (length < 2)
            return -1;                                   // would step back into its own head
        // Two bytes more than the segment must be there, as always.
        if (length > media_left(&c))
            return 1;
        media_skip(&c, length - 2);
    }
}

// ---------------------------------------------------------------- EXIF block

static uint32_t jpeg_word(const uint8_t* b) { return uint32_t(b[0]) << 8 | b[1]; }

// The TIFF block of the EXIF segment, clamped to the bytes there; a bad
// cursor when the file has none where it is looked for.
static media_cursor exif_block(const uint8_t* bytes, size_t size)
{
    media_cursor file = media_open(bytes, size), c = file, none = {nullptr, nullptr, 1};
    const uint8_t* b;
    uint8_t head[12];
    if (!media_take(&c, 12, &b) || b[0] != 0xFF || b[1] != 0xD8)
        return none;
    memcpy(head, b, sizeof head);
    // One comment or APP0 segment is stepped over, never two: an EXIF
    // block behind a JFIF head and a comment is not found.
    if (head[2] == 0xFF && (head[3] == 0xFE || head[3] == 0xE0)) {
        c = media_at(&file, 4 + jpeg_word(head + 4));
        if (!media_take(&c, 10, &b))
            return none;
        memcpy(head + 2, b, 10);
    }
    uint32_t length = jpeg_word(head + 4);
    if (head[2] != 0xFF || head[3] != 0xE1 || memcmp(head + 6, "Exif\0\0", 6) != 0 || length < 12 ||
        length > EXIF_BLOCK_MAX)
        return none;
    // The length counts from its own word, so the block runs up to 8 bytes
    // past the segment; those bytes are taken as well.
    return media_sub(&c, std::min<size_t>(length, media_left(&c)));
}

// ---------------------------------------------------------------- values

struct exif_view {              // offsets in one IFD count from whole.p
    media_cursor whole;
    int little;
};

struct exif_entry {
    uint32_t tag, type, count;
    uint32_t value;             // the value word in file order
    uint8_t raw[4];             // the value word as it stands in the file
};

static uint32_t exif_u16(media_cursor* c, int little) { return little ? media_le16(c) : media_be16(c); }
static uint32_t exif_u32(media_cursor* c, int little) { return little ? media_le32(c) : media_be32(c); }
static uint64_t exif_size(const exif_view* v) { return media_left(&v->whole); }

// Bytes per element of types 1 to 10. A RATIONAL counts 4 here, not 8:
// the size check has always measured it so.
static constexpr uint32_t exif_type_size[11] = {0, 1, 1, 2, 4, 4, 1, 1, 2, 4, 4};

// A value wider than its word must end before the block does.
static int exif_fits(const exif_view* v, const exif_entry* e, uint32_t factor)
{
    uint64_t total = uint64_t(e->count) * factor;
    if (total <= 4 || total + e->value < exif_size(v))
        return 1;
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_PLUGIN, "EXIF: buffer too small: total=%u offset=%d count=%d factor=%d\n",
             unsigned(exif_size(v)), int32_t(e->value), int32_t(e->count), int32_t(factor));
    return 0;
}

static uint32_t exif_rational(const exif_view* v, uint32_t offset)
{
    media_cursor c = media_at(&v->whole, offset);
    uint32_t numerator = media_be32(&c), denominator = media_be32(&c);
    return denominator ? numerator / denominator : 0;
}

static uint32_t upnp_exif_number(const exif_view* v, const exif_entry* e)
{
    if (e->type < 1 || e->type > 10 || !exif_fits(v, e, exif_type_size[e->type]))
        return 0;
    switch (e->type) {
    case 1:
        return e->count >= 1 && e->count <= 4 ? e->value >> (32 - 8 * e->count) : 0;
    case 3:
        return e->count == 1 ? e->value >> 16 : e->count == 2 ? e->value : 0;
    case 4:
    case 9:
        return e->count == 1 ? e->value : 0;
    case 5:
    case 10:
        return e->count == 1 ? exif_rational(v, e->value) : 0;
    }
    return 0;
}

static char* upnp_exif_text(const exif_view* v, const exif_entry* e)
{
    if ((e->type != 2 && e->type != 7) || e->count == 0 || !exif_fits(v, e, 1))
        return nullptr;
    const uint8_t* bytes = e->raw;
    media_cursor c = media_at(&v->whole, e->value);
    if (e->count > 4 && !media_take(&c, e->count, &bytes))
        return nullptr;
    return upnp_copy_bytes(bytes, e->count);
}

// Only the ASCII form of a user comment is taken: an 8-byte code, then text.
static void exif_comment(const exif_view* v, const exif_entry* e, upnp_exif_info* info)
{
    if (info->user_comment || e->count <= 8 || e->type != 7)
        return;
    media_cursor c = media_at(&v->whole, e->value);
    const uint8_t *code, *text;
    if (media_take(&c, 8, &code) && memcmp(code, "ASCII\0\0\0", 8) == 0 && media_take(&c, e->count - 8, &text))
        info->user_comment = upnp_copy_bytes(text, e->count - 8);
}

// ---------------------------------------------------------------- IFDs

struct exif_walk {
    exif_view block;
    uint32_t exif_ifd_seen;     // only a go-ahead for the chain pass
    uint32_t gps_ifd_seen;      // kept as found: nothing in these two IFDs
    uint32_t interop_ifd_seen;  // is stored, so they are never read
};

enum exif_rule { EXIF_NUMBER, EXIF_NUMBER_IF_ZERO, EXIF_TEXT, EXIF_SEEN, EXIF_THUMB_OFFSET, EXIF_THUMB_SIZE,
                 EXIF_COMMENT };

struct exif_tag {
    uint16_t tag;
    exif_rule rule;
    uint32_t upnp_exif_info::*number;
    char* upnp_exif_info::*text;        // first one wins
    uint32_t exif_walk::*seen;
};

using exif_info = upnp_exif_info;
static constexpr exif_tag exif_ifd0_tags[] = {
    {270, EXIF_TEXT, nullptr, &exif_info::description, nullptr},
    {274, EXIF_NUMBER, &exif_info::orientation, nullptr, nullptr},
    {282, EXIF_NUMBER, &exif_info::x_resolution, nullptr, nullptr},
    {283, EXIF_NUMBER, &exif_info::y_resolution, nullptr, nullptr},
    {305, EXIF_TEXT, nullptr, &exif_info::software, nullptr},
    {306, EXIF_TEXT, nullptr, &exif_info::date_time, nullptr},
    {513, EXIF_NUMBER, &exif_info::thumbnail_offset, nullptr, nullptr},
    {514, EXIF_NUMBER, &exif_info::thumbnail_size, nullptr, nullptr},
    {34665, EXIF_SEEN, nullptr, nullptr, &exif_walk::exif_ifd_seen},
    {34853, EXIF_SEEN, nullptr, nullptr, &exif_walk::gps_ifd_seen},
};
static constexpr exif_tag exif_chain_tags[] = {
    {513, EXIF_THUMB_OFFSET, nullptr, nullptr, nullptr},
    {514, EXIF_THUMB_SIZE, nullptr, nullptr, nullptr},
    {36867, EXIF_TEXT, nullptr, &exif_info::date_original, nullptr},
    {37510, EXIF_COMMENT, nullptr, nullptr, nullptr},
    {40962, EXIF_NUMBER_IF_ZERO, &exif_info::width, nullptr, nullptr},
    {40963, EXIF_NUMBER_IF_ZERO, &exif_info::height, nullptr, nullptr},
    {40965, EXIF_SEEN, nullptr, nullptr, &exif_walk::interop_ifd_seen},
};

struct exif_tags {
    const exif_tag* rows;
    size_t count;
};

static void exif_apply(exif_walk* w, const exif_view* v, const exif_tag* t, const exif_entry* e,
                       upnp_exif_info* info)
{
    int64_t size = int64_t(exif_size(v));
    switch (t->rule) {
    case EXIF_NUMBER_IF_ZERO:
        if (info->*t->number)
            return;
        [[fallthrough]];
    case EXIF_NUMBER:
        info->*t->number = upnp_exif_number(v, e);
        return;
    case EXIF_TEXT:
        if (!(info->*t->text))
            info->*t->text = upnp_exif_text(v, e);
        return;
    case EXIF_SEEN:
        w->*t->seen = e->value;
        return;
    case EXIF_THUMB_OFFSET:
        if (int64_t n = upnp_exif_number(v, e); n < size)
            info->thumbnail_offset = uint32_t(n);
        return;
    case EXIF_THUMB_SIZE:
        if (int64_t n = std::min<int64_t>(upnp_exif_number(v, e), size - info->thumbnail_offset); n > 0)
            info->thumbnail_size = uint32_t(n);
        return;
    case EXIF_COMMENT:
        exif_comment(v, e, info);
        return;
    }
}

static exif_entry exif_read_entry(const exif_view* v, uint64_t at)
{
    media_cursor c = media_at(&v->whole, at);
    exif_entry e = {};
    e.tag = exif_u16(&c, v->little);
    e.type = exif_u16(&c, v->little);
    e.count = exif_u32(&c, v->little);
    media_cursor word = c;
    e.value = exif_u32(&c, v->little);
    const uint8_t* raw;
    if (media_take(&word, 4, &raw))
        memcpy(e.raw, raw, 4);
    return e;
}

// Takes the tags of one IFD; the offset of the next IFD, or 0 when the
// word that holds it lies outside the block.
static uint32_t exif_ifd(exif_walk* w, const exif_view* v, uint64_t offset, exif_tags tags, upnp_exif_info* info)
{
    uint64_t size = exif_size(v);
    if (size <= offset + 2)
        return 0;
    media_cursor c = media_at(&v->whole, offset);
    uint32_t count = exif_u16(&c, v->little);
    uint64_t at = offset + 2;
    // An entry that ends right at the block's end is left out, as always.
    for (uint32_t i = 0; i < count && size > at + 12; i++, at += 12) {
        exif_entry e = exif_read_entry(v, at);
        for (size_t t = 0; t < tags.count; t++)
            if (tags.rows[t].tag == e.tag)
                exif_apply(w, v, &tags.rows[t], &e, info);
    }
    at = offset + 2 + 12 * uint64_t(count);
    if (at + 4 > size)
        return 0;
    c = media_at(&v->whole, at);
    return exif_u32(&c, v->little);
}

// The chain begins at 8 whatever IFD0's offset or the EXIF pointer says.
// From the second IFD on, each next offset counts from the IFD before.
static void exif_chain(exif_walk* w, upnp_exif_info* info)
{
    exif_view v = w->block;
    uint64_t base = 0, offset = 8, read[EXIF_CHAIN_MAX];
    for (int depth = 0; depth < EXIF_CHAIN_MAX; depth++) {
        read[depth] = base + offset;
        if (std::find(read, read + depth, read[depth]) != read + depth)
            return;
        uint32_t next = exif_ifd(w, &v, offset, {exif_chain_tags, std::size(exif_chain_tags)}, info);
        if (next == 0)
            return;
        if (depth >= 1) {
            v.whole = media_at(&v.whole, offset);
            base += offset;
        }
        offset = next;
    }
}

static void exif_walk_block(const media_cursor* block, upnp_exif_info* info)
{
    exif_walk w = {};
    w.block.whole = *block;
    media_cursor c = *block;
    const uint8_t* order;
    if (!media_take(&c, 4, &order))
        return;
    if (memcmp(order, "II*\0", 4) == 0)
        w.block.little = 1;
    else if (memcmp(order, "MM\0*", 4) != 0)
        return;
    uint32_t first = exif_u32(&c, w.block.little);
    if (c.bad || first > exif_size(&w.block))
        return;
    if (first)
        exif_ifd(&w, &w.block, first, {exif_ifd0_tags, std::size(exif_ifd0_tags)}, info);
    if (w.exif_ifd_seen)
        exif_chain(&w, info);
}

void upnp_exif_parse(const uint8_t* bytes, size_t size, upnp_exif_info* info)
{
    if (!info)
        return;
    upnp_jpeg_frame_size(bytes, size, 0, &info->width, &info->height);
    media_cursor block = exif_block(bytes, size);
    if (!block.bad)
        exif_walk_block(&block, info);
}

// ---------------------------------------------------------------- date

// The first ten characters of an EXIF date of 1931 or later, its colons
// turned into dashes; null for no text or an earlier year.
static char* exif_date_from(const char* text)
{
    if (!text || upnp_parse_lenient(text) < EXIF_OLDEST_YEAR)
        return nullptr;
    char* date = static_cast<char*>(calloc(11, 1));
    if (date) {
        memcpy(date, text, strnlen(text, 10));
        date[4] = '-';
        date[7] = '-';
    }
    return date;
}

void upnp_exif_choose_date(upnp_exif_info* info, int64_t created)
{
    char* date = exif_date_from(info->date_original);
    if (!date)
        date = exif_date_from(info->date_time);
    if (!date) {
        char day[32];
        upnp_date_ymd(created, day, sizeof day);
        date = strdup(day);
    }
    free(info->date_original);
    info->date_original = date;
}

// ---------------------------------------------------------------- file shell

// The head of the file, grown while the marker walk runs off its end: the
// EXIF block always lies in the first JPEG_HEAD_FIRST bytes, the frame
// header nearly always.
static void jpeg_read_head(upnp_file* file, uint64_t file_size, std::vector<uint8_t>* head)
{
    size_t want = size_t(std::min<uint64_t>(file_size, JPEG_HEAD_FIRST));
    for (;;) {
        size_t have = head->size();
        head->resize(want);
        head->resize(have + upnp_file_read_full(file, head->data() + have, want - have));
        uint32_t width, height;
        if (head->size() < want || want == file_size || want == JPEG_HEAD_MAX ||
            upnp_jpeg_frame_size(head->data(), head->size(), 0, &width, &height) != 1)
            return;
        want = size_t(std::min<uint64_t>({file_size, JPEG_HEAD_MAX, uint64_t(want) * 4}));
    }
}

int upnp_exif_read(const char* path, upnp_exif_info* info)
{
    upnp_file_info attr;
    if (!info)
        return 0;
    *info = upnp_exif_info{};
    if (!path || upnp_file_stat(path, &attr) != 0)
        return 0;
    info->file_size = int64_t(attr.size);
    info->mtime = uint32_t(attr.modified);
    upnp_file* file = attr.size ? upnp_file_open_read(path) : nullptr;
    if (file) {
        std::vector<uint8_t> head;
        jpeg_read_head(file, attr.size, &head);
        upnp_file_close(file);
        upnp_exif_parse(head.data(), head.size(), info);
    }
    upnp_exif_choose_date(info, attr.created);
    return 1;
}

void upnp_exif_info_free(upnp_exif_info* info)
{
    if (!info)
        return;
    free(info->description);
    free(info->date_original);
    free(info->date_time);
    free(info->software);
    free(info->user_comment);
    *info = upnp_exif_info{};
}

// ---------------------------------------------------------------- handlers

db_meta_list* upnp_jpeg_meta_list(const char* path, const upnp_exif_info* info)
{
    if (!path || !info)
        return nullptr;
    char* title = upnp_title_from_path(path);
    char* album = upnp_filetype_folder_name(path);
    char size[24], resolution[32], orientation[16], mtime[16], type[8];
    snprintf(size, sizeof size, "%" PRId64, info->file_size);
    snprintf(resolution, sizeof resolution, "%" PRId32 "x%" PRId32, int32_t(info->width), int32_t(info->height));
    snprintf(orientation, sizeof orientation, "%" PRId32, int32_t(info->orientation));
    snprintf(mtime, sizeof mtime, "%" PRId32, int32_t(info->mtime));
    snprintf(type, sizeof type, "%d", int(DB_OBJ_PHOTO));
    // Thumbnail values never lead to art keys: pictures have no cover.
    const struct { db_meta_key key; const char* value; } rows[] = {
        {DBK_TITLE, title},
        {DBK_ALBUM, album},
        {DBK_SIZE_TEXT, size},
        {DBK_DESCRIPTION, info->description},
        {DBK_RESOLUTION, info->width && info->height ? resolution : nullptr},
        {DBK_IMAGE_VALUE, info->orientation ? orientation : nullptr},
        {DBK_DATE, info->date_original},
        {DBK_MTIME, mtime},
        {DBK_TYPE, type},
        {DBK_PATH, path},
        {DBK_SOURCE_KIND, "d"},
    };
    db_meta_list* list = nullptr;
    for (const auto& row : rows) {
        if (row.value && !(list = db_meta_list_add(list, row.key, row.value, 0)))
            break;
    }
    free(title);
    free(album);
    return list;
}

static void jpeg_move(char** out, char** text)
{
    if (out) {
        *out = *text;
        *text = nullptr;
    }
}

int upnp_jpeg_read_info(const char* path, int64_t* size, uint32_t* width, uint32_t* height, uint32_t* thumb_offset,
                        uint32_t* thumb_size, uint32_t* thumb_width, uint32_t* thumb_height, uint32_t* orientation,
                        char** date, uint32_t* mtime, char** description)
{
    upnp_exif_info info;
    int read = upnp_exif_read(path, &info);
    const struct { uint32_t* out; uint32_t value; } numbers[] = {
        {width, info.width}, {height, info.height}, {orientation, info.orientation}, {mtime, info.mtime},
        {thumb_offset, 0}, {thumb_size, 0}, {thumb_width, 0}, {thumb_height, 0},
    };
    for (const auto& n : numbers)
        if (n.out)
            *n.out = n.value;
    if (size)
        *size = info.file_size;
    jpeg_move(date, &info.date_original);
    jpeg_move(description, &info.description);
    upnp_exif_info_free(&info);
    return read;
}

// A picture whose attributes cannot be read is stored all the same, with
// what its path gives.
void upnp_jpeg_handler(const char* path, int)
{
    upnp_exif_info info;
    upnp_exif_read(path, &info);
    db_meta_list* list = upnp_jpeg_meta_list(path, &info);
    if (list)
        db_scan_submit(list);
    db_meta_list_free(list);
    upnp_exif_info_free(&info);
}

// Other pictures are not opened, so they have no resolution.
void upnp_image_handler(const char* path, int)
{
    upnp_filetype_store_plain(path, DB_OBJ_PHOTO, 0, UPNP_PLAIN_MTIME | UPNP_PLAIN_ALBUM | UPNP_PLAIN_NEEDS_FILE);
}
