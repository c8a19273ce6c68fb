// cds_test_support.h: the store of the database tests with tracks and a
// photo in it, a client table with the quirks DIDL-Lite output bends to,
// and a request whose reply lands in a socket pair.
#pragma once
#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "support/test_support.h"
#include "support/test_wire.h"
#include "unit/database/db_test_support.h"
#include "upnp/upnp_cds.h"

// Client 1 plain, 2 forces res, 3 drops sort criteria, 4 takes chunks.
static const char cds_clients[] = "ID:001\nNA:plain\nID:002\nNA:forced\nXM:FORCERES\n"
                                  "ID:003\nNA:unsorted\nXM:IGNORESORT\nID:004\nNA:chunks\nHP:chunked\n\n";

static const char cds_post[] = "POST /ContentDirectory/Control HTTP/1.1\r\nHost: h\r\n\r\n";

class CdsStoreTest : public DbStoreTest {
protected:
    std::string saved[2];           // the options this fixture sets
    int next = 0;

    void SetUp() override
    {
        DbStoreTest::SetUp();
        db_set_client_flag_probe(HTTP_request_has_flag);
        ASSERT_EQ(1, upnp_client_db_load_text(cds_clients, sizeof cds_clients - 1));
        for (int i = 0; i < 2; i++)
            if (const char* v = upnp_ini_get_string(cds_options[i]))
                saved[i] = v;
        upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "1");
        upnp_ini_set(UPNP_OPT_CLIENTS, "");
    }
    void TearDown() override
    {
        upnp_cds_forget_views();
        for (int i = 0; i < 2; i++)
            upnp_ini_set(cds_options[i], saved[i].c_str());
        upnp_client_db_free();
        DbStoreTest::TearDown();
    }
    static constexpr int32_t cds_options[2] = {UPNP_OPT_CLIENTAUTOENABLE, UPNP_OPT_CLIENTS};
    static std::string id_of(const db_object* o)
    {
        char id[DB_ID_TEXT_SIZE];
        return db_object_id_text(o, id, sizeof id);
    }
    db_object* track(const std::string& title, db_test_fields more = {})
    {
        db_object* o = add("/m/t" + std::to_string(next++) + ".mp3", DB_OBJ_AUDIO, {{DBK_TITLE, title.c_str()}});
        db_meta_list* list = db_test_list(more, false);
        db_object_apply_meta(o, list);
        db_meta_list_free(list);
        return o;
    }
    static void prepare(request_on_wire& q, int32_t client)
    {
        q.r.client_id = client;
        snprintf(q.r.base_url, sizeof q.r.base_url, "http://h:9000/");
        snprintf(q.r.client_ip, sizeof q.r.client_ip, "127.0.0.1");
    }
};

// What a reply says: "NumberReturned/TotalMatches/UpdateID", the
// StartingIndex and the titles of its objects, in order.
struct cds_reply {
    std::string body, counts;
    int start;
    std::vector<std::string> titles;
};

// The reply's body, chunks joined; the number of chunks in chunks.
inline cds_reply cds_parse(const std::string& wire, int* chunks = nullptr)
{
    cds_reply r;
    r.body = test_body(wire);
    if (test_header(wire, "Transfer-Encoding") == "chunked") {
        std::string chunked = std::exchange(r.body, "");
        int n = 0;
        for (size_t at = 0, line, size; (line = chunked.find("\r\n", at)) != std::string::npos;
             n++, at = line + size + 4)
            if ((size = std::stoul(chunked.substr(at, line - at), nullptr, 16)) != 0)
                r.body += chunked.substr(line + 2, size);
        if (chunks)
            *chunks = n - 1;        // the last, empty one is no chunk of the reply
    }
    auto number = [&r](const std::string& tag) {
        size_t at = r.body.find("<" + tag + ">");
        return at == std::string::npos ? -1 : std::stoi(r.body.substr(at + tag.size() + 2, 12));
    };
    r.counts = std::to_string(number("NumberReturned")) + "/" + std::to_string(number("TotalMatches")) + "/" +
               std::to_string(number("UpdateID"));
    r.start = number("StartingIndex");
    const std::string open = "&lt;dc:title&gt;", close = "&lt;/dc:title&gt;";
    for (size_t at = 0; (at = r.body.find(open, at)) != std::string::npos;) {
        size_t end = r.body.find(close, at += open.size());
        r.titles.push_back(r.body.substr(at, end - at));
    }
    return r;
}
