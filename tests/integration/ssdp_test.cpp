// Discovery for real: the program runs in a network namespace of the
// test's own, joined by a veth pair to a second one where the clients sit:
// a GSSDP control point and plain sockets. The addresses, 198.51.100.0/24
// as a foreign subnet on the client's side too, exist only in the two.
#include <velmora/dapi_dms.h>

#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"
#include "support/test_host.h"
#include "support/test_net.h"
#include "support/test_netns.h"
#include "support/test_support.h"
#include "upnp/ssdp.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using steady = std::chrono::steady_clock;

const char server_ip[] = "192.0.2.1", client_ip[] = "192.0.2.2", group[] = "239.255.255.250";
const char foreign_ip[] = "198.51.100.2";     // on the client's link, outside the server's subnet
const char location[] = "http://192.0.2.1:9000/DeviceDescription.xml";
const int http_port = 9000;

const char* const server_targets[] = {"upnp:rootdevice", "urn:schemas-upnp-org:device:MediaServer:1",
                                      "urn:schemas-upnp-org:service:ContentDirectory:1"};

int64_t ms_since(steady::time_point start) { return std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - start).count(); }

// The pair of namespaces, with the foreign subnet on the client's side and
// a route to it on the server's, so that only the server's own rule keeps
// an answer from going there.
struct ssdp_netns : test_netns_pair {
    ssdp_netns() : test_netns_pair("ssdp")
    {
        made = made && ip(client, "addr add 198.51.100.2/24 dev " + client_link) &&
               ip(server, "route add 198.51.100.0/24 dev " + server_link);
    }
};

struct datagram { std::string text, from; int port; };

// A UDP socket in the client namespace, bound to ip:port; a multicast
// listener joins the group on ip.
struct udp_client {
    int fd = -1;

    udp_client(const std::string& ns, const char* ip, int port, bool listen_group = false)
    {
        test_netns_inside(ns, [&] { fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
        int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in bind_to = test_address(listen_group ? "0.0.0.0" : ip, port);
        ip_mreq join{test_address(group, 0).sin_addr, test_address(ip, 0).sin_addr};
        bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&bind_to), sizeof bind_to) == 0 &&
                  setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &join.imr_interface, sizeof join.imr_interface) == 0 &&
                  (!listen_group || setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join) == 0);
        if (!ok && fd >= 0)
            close(fd);
        fd = ok ? fd : -1;
    }
    ~udp_client()
    {
        if (fd >= 0)
            close(fd);
    }
    bool send(const std::string& text, const char* ip = group, int port = 1900)
    {
        sockaddr_in to = test_address(ip, port);
        return sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) ==
               ssize_t(text.size());
    }
    // Datagrams until timeout_ms have passed, or until count have come.
    std::vector<datagram> take(int timeout_ms, size_t count = SIZE_MAX)
    {
        std::vector<datagram> got;
        char buffer[4096];
        for (auto start = steady::now(); got.size() < count && ms_since(start) < timeout_ms;) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, int(std::max<int64_t>(0, timeout_ms - ms_since(start)))) != 1)
                continue;
            sockaddr_in from{};
            socklen_t length = sizeof from;
            ssize_t n = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
            if (n < 0)
                break;
            got.push_back({std::string(buffer, size_t(n)), inet_ntoa(from.sin_addr), ntohs(from.sin_port)});
        }
        return got;
    }
};

std::string search(const std::string& target, const std::string& mx = "1")
{
    return "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: " + mx +
           "\r\nST: " + target + "\r\n\r\n";
}

size_t count_with(const std::vector<datagram>& got, const std::string& text)
{
    return size_t(std::count_if(got.begin(), got.end(), [&](const datagram& d) { return d.text.find(text) != std::string::npos; }));
}

// The program in the server namespace, with an ini of our choosing.
struct Ssdp : ::testing::Test {
    ssdp_netns ns;
    test_dir media, work;
    host_run* host = nullptr;

    void SetUp() override
    {
        if (!ns.made)
            GTEST_SKIP() << "this machine does not let the test create network namespaces (needs root)";
    }
    void TearDown() override { delete host; }

    void start(const std::string& ini = "")
    {
        test_write_file(work.file("velmora-mediaserver.ini"), "[main]\r\nnicrestart=0\r\n" + ini);
        host = new host_run({media.path, "--workdir", work.path, "--port", std::to_string(http_port)},
                            {"ip", "netns", "exec", ns.server});
        ASSERT_TRUE(host->wait_for("Serving on http://192.0.2.1:9000/")) << host->seen;
    }
    // The answers to a search sent from ip, as long as they keep coming.
    std::vector<datagram> ask(const char* ip, const std::string& text, int timeout_ms = 1500,
                              const char* to = group, size_t enough = SIZE_MAX)
    {
        udp_client asker(ns.client, ip, 0);
        EXPECT_GE(asker.fd, 0);
        EXPECT_TRUE(asker.send(text, to));
        return asker.take(timeout_ms, enough);
    }
};

TEST_F(Ssdp, AliveBurstsAtStartComeFromTheNamespaceAddressWithTheIniLifetime)
{
    udp_client watcher(ns.client, client_ip, 1900, true);
    ASSERT_GE(watcher.fd, 0);
    start("upnptimeout=1800\r\n");
    std::vector<datagram> alive = watcher.take(1500);
    // Two bursts of the five rows, each from the namespace address with the
    // ini's lifetime; the rows' shapes are the unit tests'.
    ASSERT_EQ(10u, count_with(alive, "NTS: ssdp:alive")) << host->seen;
    EXPECT_EQ(10u, count_with(alive, "CACHE-CONTROL: max-age=1800\r\nLOCATION: " + std::string(location) + "\r\n"));
    for (const datagram& d : alive)
        EXPECT_EQ(server_ip, d.from);
    EXPECT_EQ(2u, count_with(alive, "M-SEARCH * HTTP/1.1\r\nMX: 4\r\nST: urn:schemas-upnp-org:device:MediaRenderer:1"));
    // Nothing more until the next round, which is two minutes away; the
    // byebye burst at stop is the soak's.
    EXPECT_EQ(0u, count_with(watcher.take(1000), "ssdp:alive"));
}

TEST_F(Ssdp, GssdpControlPointFindsTheServerForEveryTarget)
{
    if (system("/usr/bin/python3 -c \"import gi; gi.require_version('GSSDP', '1.6')\" >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "needs Debian's python3-gi and gir1.2-gssdp-1.6";
    std::string command = "ip netns exec " + ns.client + " /usr/bin/python3 " VELMORA_SOURCE_DIR
                          "/tests/integration/ssdp_discover.py --interface " + ns.client_link +
                          " --address 192.0.2.2 --timeout 10 ssdp:all " + server_targets[0] + " " + server_targets[1] +
                          " " + server_targets[2] + " 2>&1";
    // The control point is up first, so that the start's announcements can
    // find it; then, with the server up and its announcements over, only the
    // answers to its searches can.
    for (int round = 0; round < 2; round++) {
        SCOPED_TRACE(round);
        usleep(round * 1000 * 1000);
        FILE* finder = popen(command.c_str(), "r");
        ASSERT_NE(nullptr, finder);
        char line[1024];
        ASSERT_TRUE(fgets(line, sizeof line, finder) && strncmp(line, "ready", 5) == 0) << line;
        if (round == 0)
            start();
        std::string output;
        while (fgets(line, sizeof line, finder))
            output += line;
        EXPECT_EQ(0, pclose(finder)) << output;
        for (const char* target : server_targets)
            EXPECT_NE(std::string::npos, output.find(std::string(" ") + target + " uuid:")) << output;
        EXPECT_NE(std::string::npos, output.find(location)) << output;
    }
}

TEST_F(Ssdp, SearchesAreAnsweredThreeTimesPerMatchingTargetButNotFromOutsideTheSubnet)
{
    start();
    std::vector<datagram> all = ask(client_ip, search("ssdp:all"));
    ASSERT_EQ(15u, all.size()) << host->seen;
    std::set<std::string> targets;          // the rows and their order are the unit tests'
    for (const datagram& d : all) {
        EXPECT_TRUE(d.from == server_ip && d.port != 1900) << d.from << ":" << d.port;
        targets.insert(test_header(d.text, "ST"));
    }
    EXPECT_EQ(5u, targets.size());
    EXPECT_EQ(3u, ask(client_ip, search("upnp:rootdevice"), 1500, server_ip).size()) << "unicast";
    EXPECT_EQ(0u, ask(foreign_ip, search("ssdp:all"), 2000).size()) << "from outside";
}

// The parser's rules are checked on bytes; here what a socket can carry
// that no text holds, and the log that must not grow per datagram.
TEST_F(Ssdp, MalformedDatagramsAreDroppedAndTheServerStillAnswers)
{
    const std::string good = search("upnp:rootdevice");
    std::string binary;
    for (int i = 0; i < 600; i++)
        binary += char((i * 131 + 7) & 0xFF);
    const struct { const char* name; std::string text; } cases[] = {
        {"binary", binary},
        {"NUL bytes", std::string(64, '\0') + good},
        {"oversize", good.substr(0, good.size() - 2) + "X-PAD: " + std::string(1400, 'p') + "\r\n\r\n"},
        {"huge", std::string(60000, 'M')},
    };
    start("logsource=2\r\nloglevel=14\r\n");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        size_t mark = host->seen.size();
        EXPECT_EQ(0u, ask(client_ip, c.text, 1200).size());
        host->wait_for("\n", 100, mark);
        size_t lines = 0;
        for (size_t at = host->seen.find("dlna DMS(", mark); at != std::string::npos;
             at = host->seen.find("dlna DMS(", at + 1))
            lines++;
        EXPECT_LE(lines, 1u) << host->seen.substr(mark);
        EXPECT_EQ(3u, ask(client_ip, good, 1500, group, 3).size()) << "a good search after it";
    }
}

TEST_F(Ssdp, FloodOfSearchesLeavesHttpAnsweringAndRepliesCapped)
{
    start();
    pid_t pid = host->pid;
    usleep(4500 * 1000);      // the server's own search ends, so that only the flood adds threads
    int base = test_count_threads(pid);
    ASSERT_GT(base, 0);
    udp_client flooder(ns.client, client_ip, 0);
    ASSERT_GE(flooder.fd, 0);
    const std::string text = search("ssdp:all", "5");
    int most = base, sent = 0, connects = 0, connected = 0;
    auto start_time = steady::now();
    for (int round = 0; round < 100 && ms_since(start_time) < 10000; round++) {
        for (int i = 0; i < 100; i++)
            sent += flooder.send(text);
        most = std::max(most, test_count_threads(pid));
        if (round % 10 == 0) {
            connects++;
            connected += test_netns_pair::run("ip netns exec " + ns.client + " curl -s -o /dev/null --max-time 2 " +
                                              location) == 0;
        }
        usleep(60 * 1000);
    }
    EXPECT_EQ(10000, sent);
    EXPECT_EQ(connects, connected);
    // The reply threads, and a connection thread or two of our own checks.
    EXPECT_LE(most - base, 64 + 2);
    EXPECT_GE(most - base, 32) << "the flood should have kept many reply threads busy";
    // The storm over, a new search is answered again.
    usleep(5500 * 1000);
    EXPECT_EQ(3u, ask(client_ip, search("upnp:rootdevice")).size());
    EXPECT_LE(test_count_threads(pid), base + 2);
    kill(pid, SIGTERM);
    EXPECT_EQ(0, host->wait_exit());
}

std::string renderer_alive(const std::string& url)
{
    return "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=1800\r\nLOCATION: " + url +
           "\r\nNT: urn:schemas-upnp-org:device:MediaRenderer:1\r\nNTS: ssdp:alive\r\n"
           "USN: uuid:00000000-0000-0000-0000-000000000001::urn:schemas-upnp-org:device:MediaRenderer:1\r\n\r\n";
}

// A renderer's description is fetched only from the address its
// announcement came from.
TEST_F(Ssdp, RenderersAreFollowedUpOnlyAtTheAddressTheyCameFrom)
{
    std::unique_ptr<test_peer> own, other;     // listening inside the client namespace
    test_netns_inside(ns.client, [&] {
        own = std::make_unique<test_peer>("HTTP/1.1 404 Not Found\r\n\r\n", client_ip);
        other = std::make_unique<test_peer>("HTTP/1.1 404 Not Found\r\n\r\n", foreign_ip);
    });
    udp_client renderer(ns.client, client_ip, 0);
    ASSERT_TRUE(own && own->port > 0 && other->port > 0 && renderer.fd >= 0);
    start();
    usleep(1500 * 1000);               // the listener is up once the start's burst is out
    ASSERT_TRUE(renderer.send(renderer_alive(other->url("/elsewhere.xml"))));
    usleep(500 * 1000);                // one check per address at a time
    ASSERT_TRUE(renderer.send(renderer_alive(own->url("/alive.xml"))));
    EXPECT_TRUE(test_eventually([&] { return !own->seen().empty(); }, 3000));
    EXPECT_EQ(0u, own->seen().find("GET /alive.xml")) << own->seen();
    EXPECT_EQ(0, other->accepted.load());
}

// The library in this process as a host drives it, its threads made inside
// the server's namespace, with SSDP, the scheduler and the scanner up: init
// and terminate again and again must leave no thread, descriptor, socket or
// child behind, and every terminate says goodbye. This is the one
// start-and-stop soak of the suite. The library reads its options from the
// working folder, which the environment of dapi_dms_test.cpp made this
// process's; its ini file is swapped for one pinned to the namespace
// address and put back after.
TEST(SsdpInProcess, ManyInitsAndTerminatesLeaveNoThreadDescriptorSocketOrChildBehind)
{
    ssdp_netns ns;
    if (!ns.made)
        GTEST_SKIP() << "this machine does not let the test create network namespaces (needs root)";
    udp_client watcher(ns.client, client_ip, 1900, true);
    ASSERT_GE(watcher.fd, 0);
    const std::string ini = "velmora-mediaserver.ini", saved = test_read_file(ini);
    ASSERT_TRUE(test_write_file(ini, "[main]\r\nip=192.0.2.1\r\nhttpport=9000\r\nnicrestart=0\r\n"));
    auto cycle = [&] {
        ASSERT_TRUE(test_netns_inside(ns.server, [] { EXPECT_EQ(1, dapi_dms_init(DAPI_MODE_FULL, 0)); }));
        EXPECT_EQ(1, dapi_dms_status());
        EXPECT_TRUE(upnp_switches.ssdp_enabled && upnp_switches.scheduler_enabled && upnp_switches.scanner_enabled);
        EXPECT_EQ(1, dapi_dms_terminate());
    };
    cycle();                           // what lives for the process is made now
    watcher.take(300);
    int fds = test_count_fds(), threads = test_count_threads();
    int32_t sockets = upnp_socket_open_count();
    for (int i = 0; i < 30; i++) {
        SCOPED_TRACE(i);
        cycle();
        EXPECT_EQ(0, ssdp_thread_count());
        EXPECT_EQ(10u, count_with(watcher.take(150), "NTS: ssdp:byebye"));
    }
    EXPECT_EQ(fds, test_count_fds());
    EXPECT_EQ(threads, test_count_threads());
    EXPECT_EQ(sockets, upnp_socket_open_count());
    EXPECT_EQ(0, upnp_process_count());
    test_write_file(ini, saved);
}

}  // namespace
