// The 4th field of protocolInfo and the URL tail from one build, and the
// DLNA response headers rebuilt from a request's URL and head.
#include "http/http_dlna.h"
#include "http/http_server.h"
#include "unit/database/db_test_support.h"

#include <string>

namespace {

const std::string Z24 = "000000000000000000000000";

struct build_case { const char* profile; int32_t byte_seek, time_seek, ci, streaming, interactive, background;
                    const char *prefix, *suffix; int32_t prefix_length, field_size, tail_size;
                    std::string field, tail; };

TEST(DlnaBuild, FieldOnlyForEligibleProfilesTailForAnyAndBothEmptyWhenAnythingIsTooSmall)
{
    const std::string sm = "DLNA.ORG_PN=JPEG_SM;DLNA.ORG_OP=01;DLNA.ORG_FLAGS=00f00000" + Z24;
    const build_case cases[] = {
        {"JPEG_SM", 1, 0, 0, 0, 1, 1, "disk/photo/", nullptr, 11, 128, 1024, sm,
         "disk/photo/DLNA-PNJPEG_SM-OP01-FLAGS00f00000"},
        {"LPCM", 0, 0, 1, 1, 0, 1, nullptr, nullptr, 0, 256, 256, "", "DLNA-PNLPCM-CI1-FLAGS01700000"},
        {"mp3", 1, 0, 0, 1, 0, 1, nullptr, nullptr, 0, 256, 256,
         "DLNA.ORG_PN=mp3;DLNA.ORG_OP=01;DLNA.ORG_FLAGS=01700000" + Z24, "DLNA-PNmp3-OP01-FLAGS01700000"},
        {"JPEG_TN", 0, 1, 2, 0, 1, 0, "albumart/xyz", "/O1.jpg", 9, 128, 1024,
         "DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=10;DLNA.ORG_CI=2;DLNA.ORG_FLAGS=00b00000" + Z24,
         "albumart/DLNA-PNJPEG_TN-OP10-CI2-FLAGS00b00000/O1.jpg"},
        {"JPEG", 0, 0, 0, 1, 1, 1, nullptr, nullptr, 0, 256, 256, "", "DLNA-PNJPEG-FLAGS01f00000"},
        {"MP3", 1, 0, 0, 1, 0, 1, nullptr, "/O1", 0, 256, 3 + 3 + 20, "", ""},      // tail of exactly the minimum
        {"MP3", 1, 0, 0, 1, 0, 1, nullptr, nullptr, 0, 3 + 42, 256, "", ""},       // field of exactly the minimum
        {"MP3", 1, 0, 1, 1, 0, 1, nullptr, nullptr, 0, 3 + 43, 256, "", ""},       // passes the check, text too long
    };
    for (const build_case& c : cases) {
        SCOPED_TRACE(c.field + " / " + c.tail);
        char field[256], tail[1024];
        memset(field, 'x', sizeof field), memset(tail, 'x', sizeof tail);
        HTTP_build_DLNA_4thfield(c.profile, c.byte_seek, c.time_seek, c.ci, c.streaming, c.interactive,
                                 c.background, c.prefix, c.prefix_length, c.suffix,
                                 c.suffix ? int32_t(strlen(c.suffix)) : 0, field, c.field_size, tail, c.tail_size);
        EXPECT_EQ(c.field, field);
        EXPECT_EQ(c.tail, tail);
    }
    HTTP_build_DLNA_4thfield("MP3", 1, 0, 0, 1, 0, 1, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0);
}

class DlnaHeaders : public DbStoreTest {};

struct header_case { const char* why; std::string head, url; bool stream; std::string extra; };

TEST_F(DlnaHeaders, ComeFromTheUrlTailAndTheHeadInTheirOrder)
{
    db_object* movie = add("/v/a.mpg", DB_OBJ_VIDEO, {{DBK_TITLE, "A"}, {DBK_SUBTITLES, "6"}});
    db_object* bare = add("/v/b.mpg", DB_OBJ_VIDEO, {{DBK_TITLE, "B"}});
    char id[DB_ID_TEXT_SIZE], bare_id[DB_ID_TEXT_SIZE];
    const std::string mp3 = "/disk/music/DLNA-PNMP3-OP01-FLAGS01700000/O1.mp3";
    const std::string movie_url = std::string("/disk/video/O") + db_object_id_text(movie, id, sizeof id) + ".mpg";
    const std::string features = "\r\ngetContentFeatures.dlna.org: 1", caption = "\r\ngetCaptionInfo.vel: 1";
    const std::string streaming = "transferMode.dlna.org: Streaming\r\n", I = "transferMode.dlna.org: Interactive\r\n";
    const header_case cases[] = {
        {"rebuilt from the tail", features, mp3, false,
         "contentFeatures.dlna.org: DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_FLAGS=01700000" + Z24 + "\r\n" + streaming},
        {"converted, cut at the rate", "\r\nGETCONTENTFEATURES.DLNA.ORG: 1",
         "/cgi-bin/DLNA-PNLPCM-CI1-FLAGS01700000-rate44100-channels2/cgi-bin/O1/Xa.pcm", false,
         "contentFeatures.dlna.org: DLNA.ORG_PN=LPCM;DLNA.ORG_CI=1;DLNA.ORG_FLAGS=01700000" + Z24 + "\r\n" + streaming},
        {"no tail", features, "/disk/music/O1.mp3", false, "contentFeatures.dlna.org: *\r\n"},
        {"no PN", features, "/disk/x-OP01/O1.mp3", false, "contentFeatures.dlna.org: ;DLNA.ORG_OP=01\r\n"},
        {"too long to fit its line", features, "/disk/DLNA-PN" + std::string(90, 'P') + "-OP01-FLAGS01700000/O1",
         false, streaming},
        {"no question, flags of an image", "", "/disk/photo/DLNA-PNJPEG_SM-OP01-FLAGS00f00000/O1.jpg", false, I},
        {"the client's wish", "\r\ntransferMode.dlna.org: Background", mp3, false,
         "transferMode.dlna.org: Background\r\n"},
        {"any word of the head", "\r\nX: interactive\r\ntransferMode.dlna.org: Streaming", mp3, false, I},
        {"caption of the first sidecar", caption + features, movie_url, true,
         "CaptionInfo.vel: http://h:9000/subtitle/O" + std::string(id) + ".srt\r\ncontentFeatures.dlna.org: *\r\n"},
        {"caption, reply from memory", caption, movie_url, false, ""},
        {"caption, no sidecar", caption, std::string("/disk/O") + db_object_id_text(bare, bare_id, 256), true, ""},
    };
    int stream_tag = 0;
    for (const header_case& c : cases) {
        SCOPED_TRACE(c.why);
        HTTP_request r{};
        snprintf(r.head, sizeof r.head, "GET %s HTTP/1.1%s\r\n\r\n", c.url.c_str(), c.head.c_str());
        snprintf(r.url, sizeof r.url, "%s", c.url.c_str());
        snprintf(r.base_url, sizeof r.base_url, "http://h:9000/");
        r.stream = c.stream ? reinterpret_cast<HTTP_stream*>(&stream_tag) : nullptr;
        HTTP_add_dlna_headers(&r);
        EXPECT_EQ(c.extra, r.extra_headers);
    }
}

}  // namespace
