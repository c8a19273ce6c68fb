// The DIDL-Lite text of containers, items and references under filters and
// client quirks; the loose filter match; escaping and the element buffer.
#include "unit/upnp/cds_test_support.h"

struct filter_case { const char* filter; const char* word; int has; };

TEST(DidlFilter, MatchesAWordFollowedByAnEndCommaOrAtWhateverStandsBeforeIt)
{
    const filter_case cases[] = {
        {"dc:date", "date", 1},        {"res@size", "res", 1},   {"res@size", "size", 1},
        {"*", "anything", 1},          {nullptr, "res", 0},      {"dc:title", "date", 0},
        {"upnp:albumArtURI", "album", 0}, {"a,upnp:album", "album", 1}, {"resx,xres", "res", 1},
        {"resource", "res", 0},        {"res\t", "res", 1},      {"", "res", 0},
    };
    for (const filter_case& c : cases) {
        SCOPED_TRACE(std::string(c.filter ? c.filter : "null") + " / " + c.word);
        EXPECT_EQ(c.has, db_filter_has(c.filter, c.word));
    }
}

struct element_case { std::string value; const char* attributes; std::string out; };

TEST(DidlElement, EscapesTwiceLeavesOutEmptyAndOverlongValuesAndNeverCuts)
{
    const element_case cases[] = {
        {"A & B", "", "&lt;t&gt;A &amp;amp; B&lt;/t&gt;"}, {"", "", ""},
        {"<x>\x01\"'", "", "&lt;t&gt;&amp;lt;x&amp;gt;&amp;#1;\"'&lt;/t&gt;"},
        {"", " a=&quot;1&quot;", "&lt;t a=&quot;1&quot;&gt;&lt;/t&gt;"}, {std::string(400, '&'), "", ""},
        {std::string(1023, 'a'), "", ""},            // fits its escaping, not the element buffer
        {std::string(1000, 'a'), "", "&lt;t&gt;" + std::string(1000, 'a') + "&lt;/t&gt;"},
    };
    for (const element_case& c : cases) {
        SCOPED_TRACE(c.value.substr(0, 20));
        upnp_string* s = db_append_element(upnp_string_new("", 16), "t", c.attributes, c.value.c_str(), 1);
        EXPECT_EQ(c.out, s->text);
        upnp_string_free(s);
    }
}

class Didl : public CdsStoreTest {
protected:
    std::string didl(db_object* o, const char* filter, int32_t client = 1)
    {
        request_on_wire q(cds_post);
        prepare(q, client);
        upnp_string* s = db_object_to_didl(nullptr, o, filter, &q.r);
        std::string out = s ? s->text : "<null>";
        upnp_string_free(s);
        return out;
    }
    static std::string q(const std::string& v) { return "&quot;" + v + "&quot;"; }
};

struct didl_case { const char* name; db_object* object; const char* filter; int32_t client; std::string has, lacks; };

TEST_F(Didl, ObjectsCarryWhatTheFilterAndTheClientAskFor)
{
    db_object* song = track("A & B", {{DBK_EXTENSION, "mp3"}, {DBK_SIZE, "1234"}, {DBK_DURATION, "0:03:05"},
                                      {DBK_ARTIST, "Art"}, {DBK_DATE, "2001-02-03"}});
    db_object* album = folder(DB_OBJ_MUSIC_ALBUM, "Album", db_music_root);
    db_object* in_album = ref(song, album, 7);
    db_object* photo = add("/p/x.jpg", DB_OBJ_PHOTO, {{DBK_TITLE, "Pic"}, {DBK_EXTENSION, "jpg"}});
    db_object* tags = folder(DB_OBJ_PHOTO_ALBUM, "Tags", db_picture_root);
    db_object* photo_ref = ref(photo, tags);
    db_object* long_title = track(std::string(1020, 'x') + "&");
    const std::string S = id_of(song), A = id_of(album), M = id_of(db_music_root), T = id_of(tags);
    const std::string title = "&lt;dc:title&gt;A &amp;amp; B&lt;/dc:title&gt;", no = "<nothing>";
    const std::string mp3 = "DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_FLAGS=01700000000000000000000000000000";
    const didl_case cases[] = {
        {"item, title only", song, "dc:title", 1,
         "&lt;item id=" + q(S) + " parentID=" + q(M) + " restricted=" + q("1") + " &gt;" + title +
             "&lt;upnp:class&gt;object.item.audioItem.musicTrack&lt;/upnp:class&gt;&lt;/item&gt;",
         "&lt;res"},
        {"item, all", song, "*", 1,
         "&lt;dc:date&gt;2001-02-03&lt;/dc:date&gt;&lt;upnp:originalTrackNumber&gt;0&lt;/upnp:originalTrackNumber&gt;"
         "&lt;res size=" + q("1234") + "   duration=" + q("0:03:05") + "  protocolInfo=" +
             q("http-get:*:audio/mpeg:" + mp3) + "&gt;http://h:9000/disk/music/DLNA-PNMP3-OP01-FLAGS01700000/O" + S +
             ".mp3&lt;/res&gt;",
         no},
        {"item, forced res", song, "dc:title", 2, "&lt;res    protocolInfo=", "size="},
        {"item, res and size", song, "res@size", 1, "&lt;res size=" + q("1234") + "    protocolInfo=", "duration="},
        {"reference with number", in_album, "@refID,upnp:originalTrackNumber", 1,
         "&lt;item id=" + q(id_of(in_album)) + " refID=" + q(S) + " parentID=" + q(A) + " restricted=" + q("1") +
             "&gt;" + title + "&lt;upnp:originalTrackNumber&gt;7&lt;",
         no},
        {"photo reference", photo_ref, "dc:title", 1,
         " parentID=" + q(T) + " restricted=" + q("1") + "&gt;&lt;dc:title&gt;Pic&lt;/dc:title&gt;&lt;upnp:class&gt;"
         "object.item.imageItem.photo&lt;",
         "refID"},
        {"overlong title", long_title, "dc:title", 1, "&lt;item ", "dc:title"},
        {"container, title only", album, "dc:title", 1,
         "&lt;container id=" + q(A) + " parentID=" + q(M) + " restricted=" + q("1") + " &gt;&lt;dc:title&gt;Album"
         "&lt;/dc:title&gt;&lt;upnp:class&gt;object.container.album.musicAlbum&lt;/upnp:class&gt;&lt;/container&gt;",
         "childCount"},
        {"container, counted and searchable", album, "childCount,searchable", 1,
         "childCount=" + q("1") + " restricted=" + q("0") + " searchable=" + q("1") + "&gt;", no},
        {"music container, all", album, "*", 1,
         "&lt;upnp:artist&gt;Art&lt;/upnp:artist&gt;&lt;dc:creator&gt;Unknown&lt;/dc:creator&gt;&lt;upnp:genre&gt;"
         "Unknown&lt;/upnp:genre&gt;&lt;res protocolInfo=" + q("http-get:*:audio/x-mpegurl:*") +
             "&gt;http://h:9000/m3u/" + A + ".m3u&lt;/res&gt;",
         no},
        {"photo container, all", tags, "*", 1, "object.container.album.photoAlbum", "m3u"},
        {"root, all", db_root, "*", 1,
         "parentID=" + q("-1") + " childCount=" + q("4") + " restricted=" + q("1") + " searchable=" + q("1") +
             "&gt;&lt;upnp:searchClass includeDerived=" + q("1") + "&gt;object&lt;",
         no},
    };
    for (const didl_case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string out = didl(c.object, c.filter, c.client);
        EXPECT_NE(std::string::npos, out.find(c.has)) << out;
        EXPECT_EQ(std::string::npos, out.find(c.lacks)) << out;
    }
    EXPECT_EQ(nullptr, db_object_to_didl(nullptr, nullptr, "*", nullptr));
    upnp_string* api = upnp_cds_object_didl(nullptr, song, "http://10.0.0.1:9000/", 40);   // for the control API
    EXPECT_NE(nullptr, strstr(api->text, ("&gt;http://10.0.0.1:9000/disk/music/DLNA-PNMP3-OP01-FLAGS01700000/O" + S)
                                              .c_str()));
    upnp_string_free(api);
}

TEST_F(Didl, MusicIsFoundBelowFirstChildrenAndInMusicKindsAlone)
{
    db_object* outer = folder(DB_OBJ_CONTAINER, "Outer", db_root);
    db_object* inner = folder(DB_OBJ_CONTAINER, "Inner", outer);
    EXPECT_EQ(0, db_object_is_music(outer));               // no children on the way
    ref(track("t"), inner);
    typedef std::vector<std::pair<db_object*, int>> music_cases;
    for (auto [o, music] : music_cases{{outer, 1}, {db_picture_root, 0}, {folder(DB_OBJ_MUSIC_GENRE, "G"), 1},
                                       {db_container_child(inner, 0), 0}})
        EXPECT_EQ(music, db_object_is_music(o));
}
