// File streaming on 127.0.0.1, the library in-process over a shared folder
// of made files: ranges and time seeks byte for byte, and the faults players
// bring (stalls, slow reads, files that shrink or go, many streams at once).
#include <velmora/dapi_dms.h>

#include "control/upnp_mediaserver.h"
#include "database/db_object.h"
#include "http/http_server.h"
#include "http/http_stream.h"
#include "support/test_net.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

std::mutex event_lock;
std::vector<std::pair<int32_t, std::string>> events;

int32_t on_event(int32_t code, const char* text)
{
    std::lock_guard<std::mutex> hold(event_lock);
    events.emplace_back(code, text ? text : "");
    return 0;
}

// Stream events whose request head holds the marker.
int seen(int32_t code, const std::string& marker)
{
    std::lock_guard<std::mutex> hold(event_lock);
    int n = 0;
    for (const auto& [c, head] : events)
        n += c == code && head.find(marker) != std::string::npos;
    return n;
}

// Up to n bytes, fewer when the peer closes or a read times out.
std::string take(int s, size_t n)
{
    std::string got;
    char buffer[65536];
    for (ssize_t r = 1; got.size() < n && r > 0;)
        if ((r = recv(s, buffer, std::min(sizeof buffer, n - got.size()), 0)) > 0)
            got.append(buffer, size_t(r));
    return got;
}

// Bodies are compared without printing megabytes of bytes.
::testing::AssertionResult same(const std::string& want, const std::string& got)
{
    return want == got ? ::testing::AssertionSuccess()
                       : ::testing::AssertionFailure() << got.size() << " bytes instead of " << want.size();
}

// The rest of a response of which got holds the start, by its body's size.
std::string finish(int s, std::string got, size_t body)
{
    size_t head = got.find("\r\n\r\n");
    return got + take(s, head == std::string::npos ? 0 : head + 4 + body - got.size());
}

struct Stream : ::testing::Test {
    static inline test_dir* media;
    static inline std::string saved, base;
    static inline std::map<std::string, std::string> bytes, url;   // by file name

    static void SetUpTestSuite()
    {
        media = new test_dir;
        saved = test_read_file("velmora-mediaserver.ini");
        std::mt19937 random(7);
        for (auto [name, size] : {std::pair{"a.mp3", 1000000}, {"stall.mpg", 24 << 20}, {"cut.mpg", 24 << 20},
                                  {"gone.mpg", 2 << 20}, {"live.ts", 300000}}) {
            std::string& b = bytes[name];
            for (b.resize(size_t(size)); char& c : b)
                c = char(random());
            test_write_file(media->file(name), b);
        }
        test_write_file("velmora-mediaserver.ini", "[main]\r\nip=127.0.0.1\r\nhttpport=" +
                        std::to_string(test_free_port()) + "\r\nnicrestart=0\r\nclientautoenable=1\r\ncontentdir=" +
                        media->path + "\r\ndbdir=" + media->file("db") + "\r\n");
        HTTP_limits l;
        HTTP_get_limits(&l);
        l.send_timeout_ms = 3000;   // a stalled reader is dropped soon
        HTTP_set_limits(&l);
        dapi_dms_register_callback(on_event);
        ASSERT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, DAPI_FLAG_NO_SSDP));
        ASSERT_TRUE(test_eventually([] {
            db_lock_guard h;
            return std::all_of(bytes.begin(), bytes.end(),
                               [](const auto& b) { return db_object_find_by_path(media->file(b.first).c_str()); });
        }, 30000));
        nic_entry* list = nullptr;
        ASSERT_EQ(1u, upnp_nic_table(&list));
        base = "http://127.0.0.1:" + std::to_string(list[0].port);
        db_lock_guard hold;
        for (const auto& [name, b] : bytes) {
            char id[DB_ID_TEXT_SIZE];
            db_object_id_text(db_object_find_by_path(media->file(name).c_str()), id, sizeof id);
            url[name] = std::string(name[0] == 'a' ? "/disk/music/O" : "/disk/video/O") + id + name.substr(name.find('.'));
        }
        db_object_set_int(db_object_find_by_path(media->file("a.mp3").c_str()), DBK_DURATION, 100000);
        db_object_set_str(db_object_find_by_path(media->file("live.ts").c_str()), DBK_EXTENSION, "spts");
    }
    static void TearDownTestSuite()
    {
        dapi_dms_register_callback(nullptr);
        dapi_dms_terminate();
        HTTP_set_limits(nullptr);
        test_write_file("velmora-mediaserver.ini", saved);
        delete media;
    }
    static int open_get(const std::string& name, const std::string& headers, const char* from = "127.0.0.1")
    {
        int s = test_connect_from(from, port(), 20000);
        test_send_text(s, "GET " + url.at(name) + " HTTP/1.1\r\nHost: a\r\n" + headers + "\r\n");
        return s;
    }
    static int port() { return std::stoi(base.substr(base.rfind(':') + 1)); }
    // Another player is served a range meanwhile.
    static void still_serves(const char* from = "127.0.0.1")
    {
        int s = open_get("a.mp3", "Range: bytes=100-199\r\n", from);
        EXPECT_TRUE(same(bytes.at("a.mp3").substr(100, 100), test_body(test_read_response(s))));
        close(s);
    }
};

TEST_F(Stream, CurlRangesAndTimeSeeksAnswerWithTheFilesOwnBytes)
{
    // Quoted: an id's "$" means something to the shell.
    auto quoted = [](const std::string& path) { return "'" + base + path + "'"; };
    const std::string a = quoted(url["a.mp3"]), live = quoted(url["live.ts"]), tail = url["a.mp3"].substr(11);
    const std::string no_bytes = quoted("/disk/music/DLNA-PNMP3-OP10-FLAGS01700000" + tail);
    const std::string no_time = quoted("/disk/music/DLNA-PNMP3-OP01-FLAGS01700000" + tail);
    const struct { const char* why; std::string args; const char* status; int64_t from, to; std::string has; } cases[] = {
        {"first byte", "-r 0-0 " + a, "HTTP/1.1 206", 0, 0, "Content-Range: bytes 0-0/1000000"},
        {"last two", "-r 999998-999999 " + a, "HTTP/1.1 206", 999998, 999999, "Content-Length: 2"},
        {"open range", "-r 999000- " + a, "HTTP/1.1 206", 999000, 999999, "Content-Range: bytes 999000-999999/"},
        {"suffix: served whole", "-r -500 " + a, "HTTP/1.1 200", 0, 999999, "Content-Length: 1000000"},
        {"start at the size", "-r 1000000- " + a, "HTTP/1.1 206", 1, 0, "Content-Range: bytes 1000000-999999/"},
        {"past the end", "-r 1000001- " + a, "HTTP/1.1 416", 1, 0, "Content-Length: 0"},
        {"end before start", "-r 5-2 " + a, "HTTP/1.1 400", 1, 0, "Content-Length: 0"},
        {"two ranges: the first", "-r 0-9,20-29 " + a, "HTTP/1.1 206", 0, 9, "Content-Length: 10"},
        {"time seek", "-H 'TimeSeekRange.dlna.org: npt=10.000-20.000' " + a, "HTTP/1.1 200", 100000, 200000,
         "TimeSeekRange.dlna.org: npt=010.0-020.0/100.0 bytes=100000-200000/1000000"},
        {"npt in seconds", "-H 'TimeSeekRange.dlna.org: npt=10-20' " + a, "HTTP/1.1 200", 100000, 200000, "bytes=100000-"},
        {"npt with colons", "-H 'TimeSeekRange.dlna.org: npt=0:00:10.000-' " + a, "HTTP/1.1 200", 100000, 999999,
         "npt=010.0-100.0/100.0 bytes=100000-999999/1000000"},
        {"npt digits behind the point count ms", "-H 'TimeSeekRange.dlna.org: npt=1.5-' " + a, "HTTP/1.1 200", 10050,
         999999, "npt=001.5-100.0/100.0"},
        {"time past the duration", "-H 'TimeSeekRange.dlna.org: npt=200.000-' " + a, "HTTP/1.1 416", 1, 0, ""},
        {"no byte seek in the URL", "-r 0-9 " + no_bytes, "HTTP/1.1 406", 1, 0, ""},
        {"no time seek in the URL", "-H 'TimeSeekRange.dlna.org: npt=1.000-' " + no_time, "HTTP/1.1 406", 1, 0, ""},
        {"unknown length: short form", live, "HTTP/1.0 200", 0, 299999, "Connection: close"},
        {"unknown length from 0", "-r 0- " + live, "HTTP/1.1 206", 0, 299999,
         "Content-Range: bytes 0-9999999999999998/9999999999999999"},
        {"the same for DLNA: short form", "-A 'x DLNADOC/1.50' -r 0- " + live, "HTTP/1.0 206", 0, 299999, "close"},
        {"unknown object", quoted("/disk/music/O99999.mp3"), "HTTP/1.1 404", -1, -1, "Not Found"},
        {"a path in the URL is no id", quoted("/disk/music/O/etc/passwd"), "HTTP/1.1 404", -1, -1, "Not Found"},
    };
    int heads = seen(DAPI_EVENT_STREAM_STARTED, "HEAD ");
    for (const auto& c : cases) {
        std::string got = test_output("curl -s -D - -o '" + media->file("body") + "' " + c.args);
        const std::string& file = bytes[c.args.find(".ts") != std::string::npos ? "live.ts" : "a.mp3"];
        EXPECT_EQ(0u, got.find(c.status)) << c.why << "\n" << got;
        EXPECT_NE(std::string::npos, got.find(c.has)) << c.why << "\n" << got;
        size_t n = c.to < c.from || c.from < 0 ? 0 : size_t(c.to - c.from + 1);
        std::string want = n ? file.substr(size_t(c.from), n) : "";
        EXPECT_TRUE(c.from < 0 || same(want, test_read_file(media->file("body")))) << c.why;
    }
    // HEAD: the head of the GET, then nothing until the close it asked for.
    int s = test_connect_from("127.0.0.1", port(), 20000);
    test_send_text(s, "HEAD " + url["a.mp3"] + " HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
    std::string got = take(s, 4096);
    EXPECT_EQ(got.find("\r\n\r\n") + 4, got.size()) << got;
    EXPECT_NE(std::string::npos, got.find("HTTP/1.1 200 OK\r\nContent-Type: audio/mpeg\r\nContent-Length: 1000000\r\n"));
    close(s);
    EXPECT_EQ(heads, seen(DAPI_EVENT_STREAM_STARTED, "HEAD "));
    // The tail reader stands behind the end until it first moves: the last
    // byte alone comes only once it has.
    s = open_get("a.mp3", "Range: bytes=999999-999999\r\n");
    EXPECT_EQ("", test_body(test_read_response(s)));
    EXPECT_EQ("", take(s, 1));
    close(s);
    s = open_get("a.mp3", "Range: bytes=999990-999998\r\n");
    test_send_text(s, "GET " + url["a.mp3"] + " HTTP/1.1\r\nHost: a\r\nRange: bytes=999999-999999\r\n\r\n");
    EXPECT_TRUE(same(bytes.at("a.mp3").substr(999990, 9), test_body(test_read_response(s))));
    EXPECT_TRUE(same(bytes.at("a.mp3").substr(999999), test_body(test_read_response(s))));
    close(s);
}

TEST_F(Stream, AStalledReaderIsDroppedAndASlowOneGetsEveryByteWhileOthersAreServed)
{
    int stalled = open_get("stall.mpg", "X-Case: stalled\r\n"), slow = open_get("stall.mpg", "X-Case: slow\r\n");
    take(stalled, 65536);
    std::string got;
    for (int i = 0; i < 5; i++) {
        got += take(slow, 4096);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        still_serves();
    }
    EXPECT_TRUE(same(bytes["stall.mpg"], test_body(finish(slow, got, 24 << 20))));
    EXPECT_TRUE(test_eventually([] { return seen(DAPI_EVENT_STREAM_FAILED, "stalled") == 1; }, 30000));
    EXPECT_EQ(1, seen(DAPI_EVENT_STREAM_FINISHED, "slow"));
    close(stalled), close(slow);
}

TEST_F(Stream, AFileThatShrinksEndsItsStreamEarlyAndOneThatGoesEndsTheConnection)
{
    int s = open_get("cut.mpg", "X-Case: cut\r\n");
    std::string got = take(s, 65536);
    ASSERT_EQ(0, truncate(media->file("cut.mpg").c_str(), 1 << 20));
    got += take(s, 24 << 20);
    EXPECT_LT(test_body(got).size(), size_t(24 << 20));
    EXPECT_TRUE(test_eventually([] { return seen(DAPI_EVENT_STREAM_FAILED, "cut") == 1; }));
    close(s);
    // What is open stays readable; the next request finds the file gone.
    s = open_get("gone.mpg", "");
    got = take(s, 4096);
    ASSERT_EQ(0, unlink(media->file("gone.mpg").c_str()));
    EXPECT_TRUE(same(bytes["gone.mpg"], test_body(finish(s, got, 2 << 20))));
    test_send_text(s, "GET " + url["gone.mpg"] + " HTTP/1.1\r\nHost: a\r\n\r\n");
    EXPECT_EQ("", take(s, 1));
    close(s);
    still_serves();
}

TEST_F(Stream, TwoHundredStreamsFromSixteenAddressesLeaveNoThreadOrDescriptorBehind)
{
    ASSERT_TRUE(test_eventually([] { return HTTP_connection_count() == 0; }));
    int fds = test_count_fds(), threads = test_count_threads();
    std::atomic<int> whole{0};
    std::vector<std::thread> players;
    for (int i = 0; i < 200; i++)
        players.emplace_back([&whole, i] {
            std::string from = "127.0.0." + std::to_string(i % 16 + 1);
            int s = open_get("a.mp3", "X-Case: many\r\n", from.c_str());
            whole += test_body(test_read_response(s)) == bytes.at("a.mp3");
            close(s);
        });
    still_serves("127.0.0.99");
    for (std::thread& t : players)
        t.join();
    EXPECT_EQ(200, whole.load());
    EXPECT_TRUE(test_eventually([] { return HTTP_connection_count() == 0 && HTTP_stream_transfers() == 0; }));
    EXPECT_TRUE(test_eventually([&] { return test_count_threads() == threads && test_count_fds() == fds; }));
    EXPECT_EQ(std::make_pair(200, 200), std::make_pair(seen(DAPI_EVENT_STREAM_STARTED, "many"),
                                                       seen(DAPI_EVENT_STREAM_FINISHED, "many")));
}

}  // namespace
