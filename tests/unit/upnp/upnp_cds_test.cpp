// Browse and X_BrowseByLetter: paging and counts, sorted views kept until
// the tree changes, chunked replies, the client list and the browsing
// policy, and replies sent with db_lock left.
#include "unit/upnp/cds_test_support.h"

#include <atomic>
#include <poll.h>
#include <thread>

class Cds : public CdsStoreTest {
protected:
    const std::string music = "268435466";       // the music root of the test store

    template <typename F> cds_reply call(F action, int32_t client = 1, int* chunks = nullptr, int version = 11)
    {
        request_on_wire q(cds_post, version);
        prepare(q, client);
        action(&q.r);
        return cds_parse(q.taken(), chunks);
    }
    cds_reply browse(int32_t start, int32_t count, const char* sort = "", int32_t client = 1,
                     const std::string& filter = "dc:title", int* chunks = nullptr, int version = 11)
    {
        auto run = [&](HTTP_request* r) {
            upnp_cds_browse_children(r, music.c_str(), filter.c_str(), start, count, sort);
        };
        return call(run, client, chunks, version);
    }
    std::vector<std::string> fresh_sort(const char* criteria)
    {
        std::vector<db_object*> v(size_t(db_container_child_count(db_music_root)));
        db_container_children(db_music_root, v.data(), int32_t(v.size()));
        db_sort_prepare(criteria, DB_OBJ_MUSIC_CONTAINER, nullptr);
        db_sort_objects(v.data(), int32_t(v.size()));
        std::vector<std::string> out;
        for (db_object* o : v)
            out.push_back(db_object_get_str(o, DBK_TITLE));
        return out;
    }
};

struct page_case { int32_t start, count, returned; const char* first; };

TEST_F(Cds, PagesFromTheStartingIndexAndTotalMatchesStaysTheChildCount)
{
    for (const char* t : {"d", "b", "e", "a", "c"})
        track(t);
    const page_case cases[] = {
        {0, 0, 5, "a"}, {3, 0, 2, "d"}, {1, 2, 2, "b"}, {5, 0, 0, ""}, {9, 2, 0, ""}, {-1, 0, 0, ""},
    };
    const std::string update = std::to_string(db_object_get_int(db_music_root, DBK_UPDATE_ID));
    for (const page_case& c : cases) {
        SCOPED_TRACE(std::to_string(c.start) + "+" + std::to_string(c.count));
        cds_reply r = browse(c.start, c.count, "+dc:title");
        EXPECT_EQ(std::to_string(c.returned) + "/5/" + update, r.counts);
        EXPECT_EQ(c.first, r.titles.empty() ? "" : r.titles[0]);
    }
}

TEST_F(Cds, ChunkedRepliesHoldTheSameBodyOneChunkPerObject)
{
    for (const char* t : {"x", "y", "z"})
        track(t);
    int chunks = 0;
    cds_reply plain = browse(0, 0, "+dc:title", 1, "*");
    cds_reply chunked = browse(0, 0, "+dc:title", 4, "*", &chunks);
    EXPECT_EQ(plain.body, chunked.body);
    EXPECT_EQ(1 + 3 + 1, chunks);
    EXPECT_EQ(plain.body, browse(0, 0, "+dc:title", 4, "*", nullptr, 10).body);   // HTTP/1.0: no chunks
}

TEST_F(Cds, ByLetterStartsAtTheFirstTitleNotBelowTheLetterIgnoringCase)
{
    for (const char* t : {"delta", "Alpha", "Charlie", "beta"})
        track(t);
    for (const char* letter : {"c", "C"}) {
        cds_reply r = call([&](HTTP_request* q) {
            upnp_cds_browse_by_letter(q, music.c_str(), "dc:title", letter, 0, "+dc:title");
        });
        EXPECT_EQ(2, r.start);
        EXPECT_EQ((std::vector<std::string>{"Charlie", "delta"}), r.titles);
        EXPECT_EQ("2/4/", r.counts.substr(0, 4));
        EXPECT_EQ(std::string::npos, r.body.find("xmlns:dlna"));
    }
}

TEST_F(Cds, ASortedViewIsKeptUntilTheTreeChangesAndReadsAsAFreshSort)
{
    for (int i = 0; i < 40; i++)
        track("t" + std::to_string(i * 7 % 13), {{DBK_ARTIST, i % 2 ? "b" : "a"}});    // many ties
    const char* sort = "-upnp:artist,+dc:title";
    uint64_t before = upnp_cds_view_builds();
    std::vector<std::string> paged = browse(0, 15, sort).titles, rest = browse(15, 0, sort).titles;
    paged.insert(paged.end(), rest.begin(), rest.end());
    EXPECT_EQ(before + 1, upnp_cds_view_builds());
    EXPECT_EQ(fresh_sort(sort), paged);
    browse(0, 5, "+dc:title"), browse(0, 5, sort), browse(0, 5, sort, 3);   // client 3's criteria are dropped
    EXPECT_EQ(before + 2, upnp_cds_view_builds());

    track("t10");
    cds_reply after = browse(0, 0, sort);
    EXPECT_EQ(before + 3, upnp_cds_view_builds());
    EXPECT_EQ(fresh_sort(sort), after.titles);
}

TEST_F(Cds, HugeFiltersAndCriteriaReplyAsTheirShortForms)
{
    for (int i = 0; i < 50; i++)
        track("n" + std::to_string(i % 9), {{DBK_DATE, i % 3 ? "2001" : "1999"}});
    std::string criteria, filter;
    for (int i = 0; i < 10000; i++) {
        criteria += i >= 64 ? "" : i % 2 ? "-dc:date," : "+dc:title,";
        filter += "x:name" + std::to_string(i) + ",";
    }
    EXPECT_EQ(browse(0, 0, "+dc:title,-dc:date").body, browse(0, 0, criteria.c_str()).body);
    EXPECT_EQ(browse(0, 0, "+dc:title,-dc:date", 1, "dc:title").body,
              browse(0, 0, "+dc:title,-dc:date", 1, filter + "dc:title").body);
}

TEST_F(Cds, DeniedClientsPolicyAndFaults)
{
    db_object* song = track("song");
    upnp_ini_set(UPNP_OPT_CLIENTS, "127.0.0.1|001|0");
    cds_reply denied = browse(0, 0);
    EXPECT_EQ("1/1/0 access denied", denied.counts + " " + (denied.titles.empty() ? "" : denied.titles[0]));
    upnp_ini_set(UPNP_OPT_CLIENTS, "");

    db_set_browsing_policy(DB_OBJ_AUDIO, 0);
    EXPECT_EQ("0/0/", browse(0, 0).counts.substr(0, 4));
    db_set_browsing_policy(DB_OBJ_AUDIO, 1);

    for (const std::string& id : {std::string("9$9"), id_of(song)})
        EXPECT_EQ("-1/-1/-1",
                  call([&](HTTP_request* r) { upnp_cds_browse_children(r, id.c_str(), "*", 0, 0, ""); }).counts);
    const std::string update = std::to_string(db_object_get_int(db_music_root, DBK_UPDATE_ID));
    for (db_object* o : {song, db_music_root})
        EXPECT_EQ(o == song ? "1/1/0" : "1/1/" + update,
                  call([&](HTTP_request* q) { upnp_cds_browse_metadata(q, id_of(o).c_str(), "*"); }).counts);
}

// A client that reads nothing: once its reply has started, db_lock is free,
// and a change then shows in what a chunked reply has not rendered yet.
TEST_F(Cds, RepliesAreSentWithTheLockLeftAndObjectsGoneMeanwhileAreSkipped)
{
    std::vector<db_object*> last;
    const std::string pad(300, 'p');
    for (int i = 0; i < 3000; i++)
        if (db_object* o = track("t" + std::to_string(10000 + i).substr(1) + pad); i >= 2990)
            last.push_back(o);
    struct { int32_t client; int returned, total; } cases[] = {{1, 3000, 3000}, {4, 2990, 3000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.client);
        request_on_wire q(cds_post);
        prepare(q, c.client);
        std::thread server([&] {
            upnp_cds_browse_children(&q.r, music.c_str(), "dc:title", 0, 0, "+dc:title");
            shutdown(q.fds[0], SHUT_WR);
        });
        pollfd started = {q.fds[1], POLLIN, 0};
        EXPECT_EQ(1, poll(&started, 1, 30000));
        std::atomic<bool> changed{false};
        std::thread writer([&] {
            db_lock_guard hold;
            for (db_object* o : last)
                if (c.client == 4)
                    db_object_delete(o);
            changed = true;
        });
        bool lock_was_free = test_eventually([&] { return changed.load(); }, 10000);
        std::string wire;
        char buffer[65536];
        for (ssize_t n; (n = recv(q.fds[1], buffer, sizeof buffer, 0)) > 0;)
            wire.append(buffer, size_t(n));
        server.join();
        writer.join();
        EXPECT_TRUE(lock_was_free);
        cds_reply r = cds_parse(wire);
        EXPECT_EQ(std::to_string(c.returned) + "/" + std::to_string(c.total), r.counts.substr(0, 9));
        ASSERT_EQ(size_t(c.returned), r.titles.size());
        EXPECT_EQ("t2989" + pad, r.titles[2989]);
    }
}
