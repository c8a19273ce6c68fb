// The interface watch for real: the program runs inside the server side of
// a namespace pair of the test's own (192.0.2.1 on its veth end), with a
// second veth pair there as a further adapter; the documentation-range
// addresses exist only there. Adding, changing and removing addresses must
// restart the servers within nicchecktime + 1 seconds, and nothing may
// restart while nothing changes.
#include "support/test_host.h"
#include "support/test_netns.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

namespace {

TEST(NicWatch, AddressChangesRestartTheServersAndQuietMeansNoRestart)
{
    test_netns_pair ns("nic");
    if (!ns.made)
        GTEST_SKIP() << "this machine does not let the test create network namespaces (needs root)";
    auto ip = [&](const std::string& args) { return test_netns_pair::ip(ns.server, args); };
    ASSERT_TRUE(ip("link add d1 type veth peer name d2") && ip("link set d1 up") && ip("link set d2 up"));
    test_dir media, work;
    test_write_file(work.file("velmora-mediaserver.ini"), "[main]\r\nnicchecktime=1\r\nnicrestart=1\r\n");
    host_run host({media.path, "--workdir", work.path, "--port", "9000"}, {"ip", "netns", "exec", ns.server});
    ASSERT_TRUE(host.wait_for("Serving on http://192.0.2.1:")) << host.seen;
    const std::string v0 = " dev " + ns.server_link;

    // A second adapter comes up.
    size_t mark = host.seen.size();
    ASSERT_TRUE(ip("addr add 192.0.2.9/24 dev d1"));
    EXPECT_TRUE(host.wait_for("network restart", 2000, mark)) << host.seen.substr(mark);
    EXPECT_TRUE(host.wait_for("Serving on http://192.0.2.9:", 5000, mark)) << host.seen.substr(mark);

    // An address changes on one adapter.
    mark = host.seen.size();
    ASSERT_TRUE(ip("addr del 192.0.2.1/24" + v0) && ip("addr add 192.0.2.5/24" + v0));
    EXPECT_TRUE(host.wait_for("network restart", 2000, mark)) << host.seen.substr(mark);
    EXPECT_TRUE(host.wait_for("Serving on http://192.0.2.5:", 5000, mark)) << host.seen.substr(mark);

    // Nothing changes: nothing restarts.
    host.wait_for("Serving on http://192.0.2.9:", 2000, mark);
    mark = host.seen.size();
    EXPECT_FALSE(host.wait_for("network restart", 3000, mark)) << host.seen.substr(mark);

    // All addresses go, then one comes back.
    mark = host.seen.size();
    ASSERT_TRUE(ip("addr flush" + v0) && ip("addr flush dev d1"));
    EXPECT_TRUE(host.wait_for("Waiting for a network interface", 5000, mark)) << host.seen.substr(mark);
    mark = host.seen.size();
    ASSERT_TRUE(ip("addr add 192.0.2.7/24" + v0));
    EXPECT_TRUE(host.wait_for("Serving on http://192.0.2.7:", 5000, mark)) << host.seen.substr(mark);

    kill(host.pid, SIGTERM);
    EXPECT_EQ(0, host.wait_exit());
}

}  // namespace
