#include "database/db_object.h"
#include "media/upnp_jpeg.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

struct entry { uint16_t tag, type; uint32_t count, value; };

void put(std::string* s, uint32_t v, int n, bool little)
{
    for (int i = 0; i < n; i++)
        *s += char(v >> (little ? 8 * i : 8 * (n - 1 - i)));
}

std::string segment(int marker, const std::string& payload)
{
    std::string s = {'\xFF', char(marker)};
    put(&s, uint32_t(payload.size() + 2), 2, false);
    return s + payload;
}

std::string frame(int marker, uint32_t width, uint32_t height)
{
    std::string s = "\x08";
    put(&s, height, 2, false);
    put(&s, width, 2, false);
    return segment(marker, s + "\x01\x01\x11");
}

// IFDs laid out one after another from 8. The first IFD's next word is
// absolute; later ones count from the IFD before, as the chain reads them.
std::string tiff(const std::vector<std::vector<entry>>& ifds, bool little = false, const std::string& tail = "")
{
    std::string s = little ? std::string("II*\0", 4) : std::string("MM\0*", 4);
    put(&s, 8, 4, little);
    for (size_t k = 0; k < ifds.size(); k++) {
        put(&s, uint32_t(ifds[k].size()), 2, little);
        for (const entry& e : ifds[k]) {
            put(&s, e.tag, 2, little);
            put(&s, e.type, 2, little);
            put(&s, e.count, 4, little);
            put(&s, e.value, 4, little);
        }
        uint32_t size = uint32_t(6 + 12 * ifds[k].size());
        put(&s, k + 1 == ifds.size() ? 0 : k == 0 ? uint32_t(s.size()) + 4 : size, 4, little);
    }
    return s + tail;
}

std::string jpeg(const std::string& tiff_block, const std::string& before = "")
{
    return "\xFF\xD8" + before + segment(0xE1, std::string("Exif\0\0", 6) + tiff_block) + frame(0xC0, 640, 480);
}

upnp_exif_info parse(const std::string& file)
{
    upnp_exif_info info = {};
    upnp_exif_parse(reinterpret_cast<const uint8_t*>(file.data()), file.size(), &info);
    return info;
}

const entry exif_pointer = {34665, 4, 1, 1};

TEST(UpnpJpeg, FrameSizeComesOnlyFromStartOfFrameMarkers)
{
    const std::string comment = segment(0xFE, "hi");
    struct { const char* name; std::string bytes; int result; uint32_t width, height; } cases[] = {
        {"baseline", "\xFF\xD8" + comment + frame(0xC0, 640, 480), 0, 640, 480},
        {"progressive", "\xFF\xD8" + frame(0xC2, 3, 2), 0, 3, 2},
        {"tables carry no size", "\xFF\xD8" + frame(0xC4, 3, 2), 1, 0, 0},
        {"cut in the frame", ("\xFF\xD8" + frame(0xC0, 3, 2)).substr(0, 8), 1, 0, 0},
        {"no SOI", "\xFF\xD9" + frame(0xC0, 3, 2), -1, 0, 0},
        {"marker 0", std::string("\xFF\xD8\xFF\x00", 4) + frame(0xC0, 3, 2), -1, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        uint32_t width = 0, height = 0;
        EXPECT_EQ(upnp_jpeg_frame_size(reinterpret_cast<const uint8_t*>(c.bytes.data()), c.bytes.size(), 0,
                                       &width, &height), c.result);
        EXPECT_EQ(width * 10000 + height, c.width * 10000 + c.height);
    }
}

TEST(UpnpJpeg, EachTakenTagReachesItsField)
{
    const uint32_t tail = 8 + 2 + 24 + 4;       // IFD0 of two entries, then the tail
    const std::string data = std::string("\0\0\0\x90\0\0\0\x02", 8) + std::string("ASCII\0\0\0hi", 10);
    struct {
        entry e;
        uint32_t upnp_exif_info::*number;
        uint32_t want;
        char* upnp_exif_info::*text;
        const char* said;
    } cases[] = {
        {{274, 3, 1, 6u << 16}, &upnp_exif_info::orientation, 6, nullptr, nullptr},
        {{282, 5, 1, tail}, &upnp_exif_info::x_resolution, 72, nullptr, nullptr},
        {{283, 10, 1, tail}, &upnp_exif_info::y_resolution, 72, nullptr, nullptr},
        {{513, 4, 1, 20}, &upnp_exif_info::thumbnail_offset, 20, nullptr, nullptr},
        {{514, 4, 1, 9}, &upnp_exif_info::thumbnail_size, 9, nullptr, nullptr},
        {{40962, 4, 1, 800}, &upnp_exif_info::width, 640, nullptr, nullptr},      // the frame came first
        {{40963, 3, 2, 7}, &upnp_exif_info::height, 480, nullptr, nullptr},
        {{270, 2, 3, 0x61620000}, nullptr, 0, &upnp_exif_info::description, "ab"},
        {{305, 2, 4, 0x61626300}, nullptr, 0, &upnp_exif_info::software, "abc"},
        {{306, 7, 8, tail + 8}, nullptr, 0, &upnp_exif_info::date_time, "ASCII"},
        {{36867, 2, 3, 0x61620000}, nullptr, 0, &upnp_exif_info::date_original, "ab"},
        {{37510, 7, 10, tail + 8}, nullptr, 0, &upnp_exif_info::user_comment, "hi"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.e.tag);
        upnp_exif_info info = parse(jpeg(tiff({{c.e, exif_pointer}}, false, data)));
        if (c.number)
            EXPECT_EQ(info.*c.number, c.want);
        else
            EXPECT_STREQ(info.*c.text, c.said);
        upnp_exif_info_free(&info);
    }
}

TEST(UpnpJpeg, ShortsOfLittleEndianFilesComeOutAsZero)
{
    upnp_exif_info le = parse(jpeg(tiff({{{274, 3, 1, 6}}}, true)));
    upnp_exif_info be = parse(jpeg(tiff({{{274, 3, 1, 6u << 16}}})));
    EXPECT_EQ(le.orientation, 0u);
    EXPECT_EQ(be.orientation, 6u);
}

TEST(UpnpJpeg, DateTextsBeforeNineteenThirtyOneGiveTheCreationDate)
{
    struct { const char* original; const char* date_time; const char* want; } cases[] = {
        {"2005:03:04 12:00:00", "2001:01:01 00:00:00", "2005-03-04"},
        {nullptr, "2005:03:04 12:00:00", "2005-03-04"},
        {"1930:03:04 12:00:00", "1999:12:31 00:00:00", "1999-12-31"},
        {"1930:03:04 12:00:00", nullptr, "2009-02-13"},
        {nullptr, nullptr, "2009-02-13"},
    };
    for (const auto& c : cases) {
        upnp_exif_info info = {};
        info.date_original = c.original ? strdup(c.original) : nullptr;
        info.date_time = c.date_time ? strdup(c.date_time) : nullptr;
        upnp_exif_choose_date(&info, 1234567890);
        EXPECT_STREQ(info.date_original, c.want);
        upnp_exif_info_free(&info);
    }
}

TEST(UpnpJpeg, ExifIsFoundBehindOneSegmentOnly)
{
    const std::string block = tiff({{{270, 2, 2, 0x78000000}}});
    upnp_exif_info one = parse(jpeg(block, segment(0xE0, "JFIF")));
    upnp_exif_info two = parse(jpeg(block, segment(0xE0, "JFIF") + segment(0xFE, "c")));
    EXPECT_STREQ(one.description, "x");
    EXPECT_EQ(two.description, nullptr);
    EXPECT_EQ(two.width * 10000 + two.height, 640u * 10000 + 480);
    upnp_exif_info_free(&one);
}

TEST(UpnpJpeg, ChainThatLoopsBackIsReadOnce)
{
    // Read once more from the IFD behind, the bytes at 16 would pass for
    // an IFD holding tag 36867 with text at 32.
    std::string block = tiff({{{34665, 4, 1, 0x90030002}}}, false, std::string("\0\0\0\x18\0\0", 6) + "2001:02:03");
    block.replace(22, 4, std::string("\0\0\0\x08", 4));
    upnp_exif_info info = parse(jpeg(block));
    EXPECT_EQ(info.date_original, nullptr);
    upnp_exif_info_free(&info);
}

TEST(UpnpJpeg, ChainStopsAfterThirtyTwoIfds)
{
    std::vector<std::vector<entry>> ifds(40, {{1, 4, 1, 1}});
    ifds[0] = {exif_pointer};
    ifds[31] = {{40963, 4, 1, 31}};
    ifds[32] = {{40962, 4, 1, 32}};
    std::string file = "\xFF\xD8" + segment(0xE1, std::string("Exif\0\0", 6) + tiff(ifds));
    upnp_exif_info info = parse(file);
    EXPECT_EQ(info.height, 31u);
    EXPECT_EQ(info.width, 0u);
}

TEST(UpnpJpeg, HandlerListCarriesThePictureKeys)
{
    upnp_exif_info info = {};
    info.width = 640;
    info.height = 480;
    info.orientation = 6;
    info.file_size = 12345;
    info.mtime = 1000;
    info.date_original = strdup("2005-03-04");
    std::map<int, std::string> keys;
    db_meta_list* list = upnp_jpeg_meta_list("/pics/Trip/beach.jpg", &info);
    for (db_meta_list* n = list; n; n = n->next)
        keys[n->key] = n->value;
    db_meta_list_free(list);
    upnp_exif_info_free(&info);
    const std::map<int, std::string> want = {
        {DBK_TITLE, "beach"}, {DBK_ALBUM, "Trip"}, {DBK_SIZE_TEXT, "12345"}, {DBK_RESOLUTION, "640x480"},
        {DBK_IMAGE_VALUE, "6"}, {DBK_DATE, "2005-03-04"}, {DBK_MTIME, "1000"}, {DBK_TYPE, "13"},
        {DBK_PATH, "/pics/Trip/beach.jpg"}, {DBK_SOURCE_KIND, "d"},
    };
    EXPECT_EQ(keys, want);
}

}  // namespace
