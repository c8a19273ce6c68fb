// The res elements of items by type, MIME type, DLNA level and client
// quirk, with and without conversions; the fitting of a picture in a box.
#include "unit/upnp/cds_test_support.h"
#include "upnp/upnp_res.h"

namespace {

// 1 plain, 2 no DLNA with picture and thumbnail sizes, 3 minimal MP3 URL,
// 4 title in the URL, 5 no LPCM and the second MIME column, 6 no DLNA.
const char res_clients[] = "ID:001\nNA:plain\nID:002\nXM:DLNANO\nPX:800\nPY:600\nTX:100\nTY:100\nID:003\n"
                           "XM:MINIMALMP3URL\nID:004\nXM:ADDTITLETOURL\nID:005\nXM:GIVEMP3NOLPCM\nHP:MIMETYPE2\n"
                           "ID:006\nXM:DLNANO\n\n";

void res_convert(const char* id, int32_t w, int32_t h, const char*, const char* to, char* out, int32_t size)
{
    const char* ext = !strcmp(to, "audio/L16") ? "pcm" : !strcmp(to, "audio/x-wav") ? "wav" : "jpg";
    std::string sized = w && h ? "/W" + std::to_string(w) + "/H" + std::to_string(h) : "";
    snprintf(out, size_t(size), "cgi-bin/O%s%s/Xc.%s", id, sized.c_str(), ext);
}

class Res : public CdsStoreTest {
protected:
    void SetUp() override
    {
        CdsStoreTest::SetUp();
        ASSERT_EQ(1, upnp_client_db_load_text(res_clients, sizeof res_clients - 1));
        upnp_res_set_conversions(res_convert);
    }
    void TearDown() override
    {
        upnp_res_set_conversions(nullptr);
        upnp_ini_set(UPNP_OPT_NORESCALE, "0");
        CdsStoreTest::TearDown();
    }
    // The res elements alone, one a line, unescaped and shortened: "@" for
    // the id, "~" for the base URL, "pi=" for the protocolInfo up to its
    // third field, "#" for the 24 zeros of the flags, no "DLNA.ORG_".
    static std::string res_of(db_object* o, int32_t client, const char* filter)
    {
        request_on_wire w(cds_post);
        prepare(w, client);
        upnp_string* s = db_object_to_didl(nullptr, o, filter, &w.r);
        std::string all = s->text, out;
        upnp_string_free(s);
        for (size_t at = 0, end; (at = all.find("&lt;res", at)) != std::string::npos; at = end)
            out += all.substr(at, (end = all.find("&lt;/res&gt;", at) + 12) - at) + "\n";
        const std::pair<std::string, std::string> swaps[] = {
            {"&quot;", "\""}, {"&lt;", "<"}, {"&gt;", ">"}, {id_of(o), "@"}, {"http://h:9000/", "~"},
            {"protocolInfo=\"http-get:*:", "pi=\""}, {std::string(24, '0') + "\"", "#\""}, {"DLNA.ORG_", ""}};
        for (const auto& [from, to] : swaps)
            for (size_t at = 0; (at = out.find(from, at)) != std::string::npos; at += to.size())
                out.replace(at, from.size(), to);
        return out;
    }
};

struct res_case { const char* name; db_object* item; int32_t client; const char* filter; std::string res; };

TEST_F(Res, ItemsGetTheElementsOfTheirFormatLevelAndClient)
{
    db_object* song = add("/m/a.mp3", DB_OBJ_AUDIO, {{DBK_TITLE, "It's"}, {DBK_EXTENSION, "mp3"}, {DBK_SIZE, "9"},
                                                      {DBK_SAMPLE_RATE, "44100"}, {DBK_CHANNELS, "2"},
                                                      {DBK_BITRATE, "16000"}, {DBK_DURATION, "0:01:00"}});
    db_object* low = add("/m/b.mp3", DB_OBJ_AUDIO, {{DBK_EXTENSION, "mp3"}, {DBK_SAMPLE_RATE, "22050"}});
    db_object* pcm = add("/m/c.pcm", DB_OBJ_AUDIO, {{DBK_EXTENSION, "pcm"}, {DBK_SAMPLE_RATE, "48000"}});
    auto file = [](const char* path, int32_t type, const char* profile = nullptr) {
        return add(path, type, {{DBK_EXTENSION, strrchr(path, '.') + 1}, {DBK_DLNA_PROFILE, profile}});
    };
    db_object *m4a = file("/m/d.m4a", DB_OBJ_AUDIO, "AAC_ISO_320"), *bare_m4a = file("/m/e.m4a", DB_OBJ_AUDIO);
    db_object *adts = file("/m/f.adts", DB_OBJ_AUDIO, "AAC_ADTS_320"), *flac = file("/m/g.flac", DB_OBJ_AUDIO);
    db_object* ogg = add("/m/h", DB_OBJ_AUDIO, {{DBK_TITLE, "x'y"}});
    db_object* mp4 = add("/v/a.mp4", DB_OBJ_VIDEO, {{DBK_EXTENSION, "mp4"}, {DBK_RESOLUTION, "640x360"},
                                                    {DBK_DLNA_PROFILE, "AVC_MP4_BL_CIF15_AAC_520"}});
    db_object *ts = file("/v/b.ts", DB_OBJ_VIDEO, "MPEG_TS_SD_EU"), *avi = file("/v/d.avi", DB_OBJ_VIDEO);
    db_object *iso = file("/v/c.ts", DB_OBJ_VIDEO, "MPEG_TS_SD_NA_ISO"), *png = file("/p/a.png", DB_OBJ_PHOTO);
    db_object *pdf = file("/d/a.pdf", DB_OBJ_DOCUMENT), *upload = file("/d/b.pdf", DB_OBJ_DOCUMENT);
    db_object* upload_jpeg = file("/p/u.jpg", DB_OBJ_PHOTO, "JPEG_SM");
    for (db_object* o : {upload, upload_jpeg})
        db_object_set_str(o, DBK_MIME_OVERRIDE, "http://h/u");
    const std::string mp3 = "<res    pi=\"audio/mpeg:PN=MP3;OP=01;FLAGS=01700000#\">~disk/music/DLNA-PNMP3-OP01-"
                            "FLAGS01700000/O@.mp3</res>\n", stream = "-OP01-FLAGS01700000";
    const res_case cases[] = {
        {"MP3, then as LPCM", song, 1, "res,size,duration,bitrate",
         "<res size=\"9\"  bitrate=\"16000\"  duration=\"0:01:00\"  pi=\"audio/mpeg:PN=MP3;OP=01;FLAGS=01700000#\">~"
         "disk/music/DLNA-PNMP3" + stream + "/O@.mp3</res>\n<res duration=\"0:01:00\"  pi=\"audio/L16;rate=44100;"
         "channels=2:*\" >~cgi-bin/DLNA-PNLPCM-CI1-FLAGS01700000-rate44100-channels2/cgi-bin/O@/Xc.pcm</res>\n"},
        {"MP3 below CD rate", low, 1, "res", mp3},
        {"MP3, no LPCM", song, 5, "res", mp3},
        {"MP3, no DLNA", song, 6, "res", "<res   pi=\"audio/mpeg:*\" >~disk/music/O@.mp3</res>\n"},
        {"MP3, minimal", song, 3, "res", "<res   pi=\"audio/mpeg:*\" >~disk/music/O@.mp3</res>\n"},
        {"MP3, titled", song, 4, "res", "<res    pi=\"audio/mpeg:*\" >~disk/music/O@.mp3/It?s.mp3</res>\n"},
        {"LPCM", pcm, 5, "res", "<res    pi=\"audio/lpcm;rate=48000;channels=-1:*\" >~disk/DLNA-PNLPCM" + stream +
                                    "-rate48000-channels-1/music/O@.pcm</res>\n"},
        {"MP4 audio", m4a, 1, "res", "<res     pi=\"audio/mp4:PN=AAC_ISO_320;OP=01;FLAGS=01700000#\" >~disk/music/"
                                     "DLNA-PNAAC_ISO_320" + stream + "/O@.m4a</res>\n"},
        {"MP4 audio, no profile", bare_m4a, 1, "res", "<res     pi=\"audio/mp4:*\" >~disk/music//O@.m4a</res>\n"},
        {"ADTS", adts, 6, "res", "<res     pi=\"audio/vnd.dlna.adts:PN=AAC_ADTS_320;OP=01;FLAGS=01700000#\" >~disk/"
                                 "music/DLNA-PNAAC_ADTS_320" + stream + "/O@.adts</res>\n"},
        {"FLAC, WAV first", flac, 1, "res", "<res   pi=\"audio/x-wav:*\" >~cgi-bin/O@/Xc.wav</res>\n"
                                            "<res    pi=\"audio/x-flac:*\" >~disk/music/O@.flac</res>\n"},
        {"other audio, no extension", ogg, 4, "res",
         "<res    pi=\"application/octet-stream:*\" >~disk/music/O@.bin/x?y.bin</res>\n"},
        {"video with profile", mp4, 1, "res,resolution",
         "<res   resolution=\"640x360\"  pi=\"video/mp4:PN=AVC_MP4_BL_CIF15_AAC_520;OP=01;FLAGS=01700000#\" >~disk/"
         "DLNA-PNAVC_MP4_BL_CIF15_AAC_520" + stream + "/video/O@.mp4</res>\n"},
        {"video, no DLNA", mp4, 6, "res", "<res    pi=\"video/mp4:*\" >~disk/video/O@.mp4</res>\n"},
        {"timed transport stream", ts, 1, "res",
         "<res    pi=\"video/vnd.dlna.mpeg-tts:*\" >~disk/DLNA-PNMPEG_TS_SD_EU" + stream + "/video/O@.ts</res>\n"},
        {"ISO transport stream", iso, 5, "res",
         "<res    pi=\"video/mpeg:*\" >~disk/DLNA-PNMPEG_TS_SD_NA_ISO" + stream + "/video/O@.ts</res>\n"},
        {"video, no profile", avi, 5, "res", "<res    pi=\"video/x-msvideo:*\" >~disk/video/O@.avi</res>\n"},
        {"other picture", png, 1, "res", "<res   pi=\"image/png:*\" >~disk/photo/O@.png</res>\n"},
        {"document", pdf, 1, "res", "<res  pi=\"application/pdf:*\" >~disk/document/O@.pdf</res>\n"},
        {"upload target", upload, 1, "res", "<res importUri=\"http://h/u\"   pi=\"application/pdf:*\" ></res>\n"},
        {"picture upload target", upload_jpeg, 1, "res",
         "<res  importUri=\"http://h/u\" pi=\"image/jpeg:PN=JPEG_SM\"></res>\n"},
    };
    for (const res_case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.res, res_of(c.item, c.client, c.filter));
    }
    upnp_res_set_conversions(nullptr);      // no conversion programs: no LPCM, no WAV
    EXPECT_EQ(std::string::npos, res_of(song, 1, "res").find("L16"));
    EXPECT_EQ(std::string::npos, res_of(flac, 1, "res").find("wav"));
}

struct jpeg_case { const char* resolution; int32_t client; bool cover; const char* norescale; std::string res; };

TEST_F(Res, PicturesGetTheProfileTheirSizeFitsAndTheRescaledSizesTheyLack)
{
    const std::string I = ";FLAGS=00f00000#\">", P = "\" pi=\"image/jpeg:PN=", C = "~cgi-bin/DLNA-PN";
    const std::string cover = "<res resolution=\"160x120" + P + "JPEG_TN" + I + "~albumart/DLNA-PNJPEG_TN-FLAGS00f00000"
                              "/O@.jpg</res>\n", plain = "\" pi=\"image/jpeg:*\">";
    const std::string tn = "<res resolution=\"160x160" + P + "JPEG_TN;CI=1" + I + C + "JPEG_TN-CI1-FLAGS00f00000/"
                           "cgi-bin/O@/W160/H160/Xc.jpg</res>\n";
    const jpeg_case cases[] = {
        {"640x480", 1, false, "0", "<res resolution=\"640x480" + P + "JPEG_SM;OP=01" + I + "~disk/photo/DLNA-PNJPEG_"
                                   "SM-OP01-FLAGS00f00000/O@.jpg</res>\n" + tn},
        {"641x480", 1, true, "0", "<res resolution=\"641x480" + P + "JPEG_MED;OP=01" + I + "~disk/photo/DLNA-PNJPEG_"
                                  "MED-OP01-FLAGS00f00000/O@.jpg</res>\n" + cover + "<res resolution=\"640x479" + P +
                                  "JPEG_SM;CI=1" + I + C + "JPEG_SM-CI1-FLAGS00f00000/cgi-bin/O@/W640/H479/Xc.jpg"
                                  "</res>\n"},
        {"1024x768", 1, true, "1", "<res resolution=\"1024x768" + P + "JPEG_MED;OP=01" + I + "~disk/photo/DLNA-PN"
                                   "JPEG_MED-OP01-FLAGS00f00000/O@.jpg</res>\n" + cover},
        {"5000x3000", 1, false, "0", "<res resolution=\"5000x3000" + plain + "~disk/photo/O@.jpg</res>\n<res resolution"
                                     "=\"640x384" + P + "JPEG_SM;CI=1" + I + C + "JPEG_SM-CI1-FLAGS00f00000/cgi-bin/O@/"
                                     "W640/H384/Xc.jpg</res>\n<res resolution=\"720x432" + P + "JPEG_MED;CI=1" + I + C +
                                     "JPEG_MED-CI1-FLAGS00f00000/cgi-bin/O@/W720/H432/Xc.jpg</res>\n" + tn},
        {"1000x600", 2, true, "0", "<res resolution=\"800x480" + plain + "~cgi-bin/O@/W800/H480/Xc.jpg</res>\n"
                                   "<res resolution=\"100x100" + plain + "~cgi-bin/O@/W100/H100/Xc.jpg</res>\n"},
        {"1000x900", 6, true, "0", "<res resolution=\"1000x900" + plain + "~disk/photo/O@.jpg</res>\n"},
        {"900x900", 6, true, "0", "<res resolution=\"900x900" + plain + "~disk/photo/O@.jpg</res>\n"
                                  "<res resolution=\"160x120" + plain + "~albumart/O@.jpg</res>\n"},
    };
    for (const jpeg_case& c : cases) {
        SCOPED_TRACE(std::string(c.resolution) + " client " + std::to_string(c.client));
        upnp_ini_set(UPNP_OPT_NORESCALE, c.norescale);
        db_object* o = add("/p/" + std::string(c.resolution) + std::to_string(c.client) + ".jpg", DB_OBJ_PHOTO,
                           {{DBK_EXTENSION, "jpg"}, {DBK_RESOLUTION, c.resolution},
                            {DBK_ART_OFFSET, c.cover ? "9" : nullptr}, {DBK_ART_RESOLUTION, "160x120"}});
        EXPECT_EQ(c.res, res_of(o, c.client, "res,resolution"));
    }
}

TEST(ResFit, APictureKeepsItsAspectInsideTheBoxAndAnUnknownSizeTakesTheBox)
{
    const int32_t cases[][6] = {{641, 480, 640, 480, 640, 479}, {1024, 768, 640, 480, 640, 480},
                                {480, 960, 640, 480, 240, 480}, {0, 480, 640, 480, 640, 480},
                                {INT32_MAX, 1, 1, INT32_MAX, 1, 0}, {-5, 10, 640, 480, 640, 480}};
    for (const auto& c : cases) {
        int32_t w = -1, h = -1;
        db_fit_box(c[0], c[1], c[2], c[3], &w, &h);
        EXPECT_EQ(std::make_pair(c[4], c[5]), std::make_pair(w, h)) << c[0] << "x" << c[1];
    }
}

}  // namespace
