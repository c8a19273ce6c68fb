// The interface watch for real: the program runs inside a network
// namespace of the test's own, whose veth pair carries addresses from the
// documentation range that exist only there. Adding, changing and removing
// addresses must restart the servers within nicchecktime + 1 seconds, and
// nothing may restart while nothing changes.
#include "support/test_host.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

static int run(const std::string& command)
{
    return system((command + " >/dev/null 2>&1").c_str());
}

struct test_netns {
    std::string name = "velmora-nic-" + std::to_string(getpid());
    bool made = false;
    test_netns()
    {
        made = run("ip netns add " + name) == 0;
        if (made)
            made = ip("link add v0 type veth peer name v1") && ip("link set v0 up") && ip("link set v1 up");
    }
    ~test_netns()
    {
        run("ip netns del " + name);
    }
    bool ip(const std::string& args) { return run("ip -n " + name + " " + args) == 0; }
};

// Counts the restarts the program reported after position from.
static int restarts_since(const host_run& host, size_t from)
{
    int n = 0;
    for (size_t at = host.seen.find("network restart", from); at != std::string::npos;
         at = host.seen.find("network restart", at + 1))
        n++;
    return n;
}

TEST(NicWatch, AddressChangesRestartTheServersAndQuietMeansNoRestart)
{
    test_netns ns;
    if (!ns.made)
        GTEST_SKIP() << "this machine does not let the test create network namespaces (needs root)";
    ASSERT_TRUE(ns.ip("addr add 192.0.2.1/24 dev v0"));
    test_dir media, work;
    test_write_file(work.file("velmora-mediaserver.ini"), "[main]\r\nnicchecktime=1\r\nnicrestart=1\r\n");
    host_run host({media.path, "--workdir", work.path, "--port", "9000"}, {"ip", "netns", "exec", ns.name});
    ASSERT_TRUE(host.wait_for("Serving on http://192.0.2.1:")) << host.seen;

    // A second adapter comes up.
    size_t mark = host.seen.size();
    ASSERT_TRUE(ns.ip("addr add 192.0.2.9/24 dev v1"));
    EXPECT_TRUE(host.wait_for("network restart", 2000, mark)) << host.seen.substr(mark);
    EXPECT_TRUE(host.wait_for("Serving on http://192.0.2.9:", 5000, mark)) << host.seen.substr(mark);

    // An address changes on one adapter.
    mark = host.seen.size();
    ASSERT_TRUE(ns.ip("addr del 192.0.2.1/24 dev v0"));
    ASSERT_TRUE(ns.ip("addr add 192.0.2.5/24 dev v0"));
    EXPECT_TRUE(host.wait_for("network restart", 2000, mark)) << host.seen.substr(mark);
    EXPECT_TRUE(host.wait_for("Serving on http://192.0.2.5:", 5000, mark)) << host.seen.substr(mark);

    // Nothing changes: nothing restarts.
    host.wait_for("Serving on http://192.0.2.9:", 2000, mark);
    mark = host.seen.size();
    host.wait_for("network restart", 3000, mark);
    EXPECT_EQ(0, restarts_since(host, mark)) << host.seen.substr(mark);

    // All addresses go, then one comes back.
    mark = host.seen.size();
    ASSERT_TRUE(ns.ip("addr flush dev v0"));
    ASSERT_TRUE(ns.ip("addr flush dev v1"));
    EXPECT_TRUE(host.wait_for("Waiting for a network interface", 5000, mark)) << host.seen.substr(mark);
    mark = host.seen.size();
    ASSERT_TRUE(ns.ip("addr add 192.0.2.7/24 dev v0"));
    EXPECT_TRUE(host.wait_for("Serving on http://192.0.2.7:", 5000, mark)) << host.seen.substr(mark);

    kill(host.pid, SIGTERM);
    EXPECT_EQ(0, host.wait_exit());
}

}  // namespace
