#include "database/db_object.h"
#include "media/upnp_jpeg.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

struct entry { uint16_t tag, type; uint32_t count, value; };

std::string word(uint32_t v, int n, bool little = false)
{
    std::string s;
    for (int i = 0; i < n; i++)
        s += char(v >> (little ? 8 * i : 8 * (n - 1 - i)));
    return s;
}

std::string segment(int marker, const std::string& payload)
{
    return std::string{'\xFF', char(marker)} + word(uint32_t(payload.size() + 2), 2) + payload;
}

std::string frame(int marker, uint32_t width, uint32_t height)
{
    return segment(marker, "\x08" + word(height, 2) + word(width, 2) + "\x01\x01\x11");
}

// IFDs laid out one after another from 8. The first IFD's next word is
// absolute; later ones count from the IFD before, as the chain reads them.
std::string tiff(const std::vector<std::vector<entry>>& ifds, bool little = false, const std::string& tail = "")
{
    std::string s = std::string(little ? "II*\0" : "MM\0*", 4) + word(8, 4, little);
    for (size_t k = 0; k < ifds.size(); k++) {
        s += word(uint32_t(ifds[k].size()), 2, little);
        for (const entry& e : ifds[k])
            s += word(e.tag, 2, little) + word(e.type, 2, little) + word(e.count, 4, little) + word(e.value, 4, little);
        uint32_t size = uint32_t(6 + 12 * ifds[k].size());
        s += word(k + 1 == ifds.size() ? 0 : k == 0 ? uint32_t(s.size()) + 4 : size, 4, little);
    }
    return s + tail;
}

std::string jpeg(const std::string& tiff_block, const std::string& before = "", const std::string& after = "")
{
    return "\xFF\xD8" + before + segment(0xE1, std::string("Exif\0\0", 6) + tiff_block) + after +
           frame(0xC0, 640, 480);
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
    struct { const char* name; std::string bytes; int result; uint32_t width, height; } cases[] = {
        {"baseline", "\xFF\xD8" + segment(0xFE, "hi") + frame(0xC0, 640, 480), 0, 640, 480},
        {"progressive", "\xFF\xD8" + frame(0xC2, 3, 2), 0, 3, 2},
        {"tables carry no size", "\xFF\xD8" + frame(0xC4, 3, 2), 1, 0, 0},
        {"no SOI", "\xFF\xD9" + frame(0xC0, 3, 2), -1, 0, 0},
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
    using I = upnp_exif_info;
    struct { entry e; bool little; uint32_t I::*number; uint32_t want; char* I::*text; const char* said; } cases[] = {
        {{274, 3, 1, 6u << 16}, false, &I::orientation, 6, nullptr, nullptr},
        {{274, 3, 1, 6}, true, &I::orientation, 0, nullptr, nullptr},    // shifted out of a little-endian word
        {{282, 5, 1, tail}, false, &I::x_resolution, 72, nullptr, nullptr},
        {{514, 4, 1, 9}, true, &I::thumbnail_size, 9, nullptr, nullptr},
        {{40962, 4, 1, 800}, false, &I::width, 640, nullptr, nullptr},      // the frame came first
        {{305, 2, 4, 0x61626300}, false, nullptr, 0, &I::software, "abc"},
        {{306, 7, 8, tail + 8}, false, nullptr, 0, &I::date_time, "ASCII"},
        {{36867, 2, 3, 0x61620000}, false, nullptr, 0, &I::date_original, "ab"},
        {{37510, 7, 10, tail + 8}, false, nullptr, 0, &I::user_comment, "hi"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.e.tag);
        upnp_exif_info info = parse(jpeg(tiff({{c.e, exif_pointer}}, c.little, data)));
        if (c.number)
            EXPECT_EQ(info.*c.number, c.want);
        else
            EXPECT_STREQ(info.*c.text, c.said);
        upnp_exif_info_free(&info);
    }
}

TEST(UpnpJpeg, DateTextsBeforeNineteenThirtyOneGiveTheCreationDate)
{
    struct { const char* original; const char* date_time; const char* want; } cases[] = {
        {"2005:03:04 12:00:00", "2001:01:01 00:00:00", "2005-03-04"},
        {"1930:03:04 12:00:00", "1999:12:31 00:00:00", "1999-12-31"},
        {"1930:03:04 12:00:00", nullptr, "2009-02-13"},
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
    upnp_exif_info_free(&one);
}

TEST(UpnpJpeg, ChainIsReadOnceAndNeverDeeperThanThirtyTwoIfds)
{
    // Read once more from the IFD behind, the bytes at 16 would pass for
    // an IFD holding tag 36867 with text at 32.
    std::string block = tiff({{{34665, 4, 1, 0x90030002}}}, false, std::string("\0\0\0\x18\0\0", 6) + "2001:02:03");
    block.replace(22, 4, std::string("\0\0\0\x08", 4));
    upnp_exif_info info = parse(jpeg(block));
    EXPECT_EQ(info.date_original, nullptr);
    upnp_exif_info_free(&info);
    // Of forty IFDs, the thirty-second is read and the one after it not.
    std::vector<std::vector<entry>> ifds(40, {{1, 4, 1, 1}});
    ifds[0] = {exif_pointer};
    ifds[31] = {{40963, 4, 1, 31}};
    ifds[32] = {{40962, 4, 1, 32}};
    info = parse("\xFF\xD8" + segment(0xE1, std::string("Exif\0\0", 6) + tiff(ifds)));
    EXPECT_EQ(info.width * 10000 + info.height, 31u);
}

TEST(UpnpJpeg, HandlerListCarriesThePictureKeys)
{
    char date[] = "2005-03-04";
    const upnp_exif_info info = {640, 480, 6, 0, 0, 0, 0, 12345, 1000, nullptr, date, nullptr, nullptr, nullptr};
    std::map<int, std::string> keys;
    db_meta_list* list = upnp_jpeg_meta_list("/pics/Trip/beach.jpg", &info);
    for (db_meta_list* n = list; n; n = n->next)
        keys[n->key] = n->value;
    db_meta_list_free(list);
    EXPECT_EQ(keys, (std::map<int, std::string>{
        {DBK_TITLE, "beach"}, {DBK_ALBUM, "Trip"}, {DBK_SIZE_TEXT, "12345"}, {DBK_RESOLUTION, "640x480"},
        {DBK_IMAGE_VALUE, "6"}, {DBK_DATE, "2005-03-04"}, {DBK_MTIME, "1000"}, {DBK_TYPE, "13"},
        {DBK_PATH, "/pics/Trip/beach.jpg"}, {DBK_SOURCE_KIND, "d"}}));
}

// The frame lies past the first head read, so the head must grow to it.
TEST(UpnpJpeg, ReadInfoFindsAFrameBehindLargeSegmentsAndNeverHandsOverAThumbnail)
{
    test_dir dir;
    std::string big;
    for (int i = 0; i < 5; i++)
        big += segment(0xE2, std::string(60000, 'x'));
    const std::string file = jpeg(tiff({{{270, 2, 2, 0x78000000}, {274, 3, 1, 6u << 16}, {513, 4, 1, 20}}}), "", big);
    ASSERT_TRUE(test_write_file(dir.file("a.jpg"), file));
    int64_t size = -1;
    uint32_t n[8] = {9, 9, 9, 9, 9, 9, 9, 9};      // width, height, 4 thumbnail outputs, orientation, mtime
    char *date = nullptr, *description = nullptr;
    auto read = [&](const char* name) {
        return upnp_jpeg_read_info(dir.file(name).c_str(), &size, &n[0], &n[1], &n[2], &n[3], &n[4], &n[5], &n[6],
                                   &date, &n[7], &description);
    };
    EXPECT_EQ(read("a.jpg"), 1);
    EXPECT_EQ(size, int64_t(file.size()));
    EXPECT_EQ(std::vector<uint32_t>(n, n + 7), std::vector<uint32_t>({640, 480, 0, 0, 0, 0, 6}));
    EXPECT_EQ(std::string(description ? description : "-") + " " + std::to_string(strlen(date)), "x 10");
    free(date);
    free(description);
    EXPECT_EQ(read("gone.jpg") * 10 + (date != nullptr), 0);
}

}  // namespace
