// test_netns.h: two network namespaces of the test's own, joined by a veth
// pair: the server side holds 192.0.2.1/24, the client side 192.0.2.2/24,
// both with a multicast route; nothing leaves the machine. Both go with the
// object; made stays false where creating them is refused (needs root).
#pragma once
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

struct test_netns_pair {
    std::string server, client;       // namespace names, for "ip netns exec"
    std::string server_link, client_link;
    bool made = false;

    // tag keeps the names apart from other tests' namespaces and links.
    explicit test_netns_pair(const std::string& tag)
        : server("velmora-" + tag + "-s-" + std::to_string(getpid())),
          client("velmora-" + tag + "-c-" + std::to_string(getpid())), server_link("v" + tag + "s"),
          client_link("v" + tag + "c")
    {
        if (run("ip netns add " + server) != 0 || run("ip netns add " + client) != 0)
            return;
        made = run("ip link add " + server_link + " netns " + server + " type veth peer name " + client_link +
                   " netns " + client) == 0 &&
               ip(server, "link set lo up") && ip(client, "link set lo up") &&
               ip(server, "link set " + server_link + " up") && ip(client, "link set " + client_link + " up") &&
               ip(server, "addr add 192.0.2.1/24 dev " + server_link) &&
               ip(client, "addr add 192.0.2.2/24 dev " + client_link) &&
               ip(server, "route add 224.0.0.0/4 dev " + server_link) &&
               ip(client, "route add 224.0.0.0/4 dev " + client_link);
    }
    ~test_netns_pair()
    {
        run("ip netns del " + server);
        run("ip netns del " + client);
    }
    test_netns_pair(const test_netns_pair&) = delete;
    test_netns_pair& operator=(const test_netns_pair&) = delete;

    static int run(const std::string& command) { return system((command + " >/dev/null 2>&1").c_str()); }
    static bool ip(const std::string& ns, const std::string& args) { return run("ip -n " + ns + " " + args) == 0; }
};

// Runs work on the calling thread inside the named namespace; sockets and
// threads made meanwhile belong to it. false when it could not enter.
template <typename F>
bool test_netns_inside(const std::string& ns, F work)
{
    int self = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    int target = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    bool entered = self >= 0 && target >= 0 && setns(target, CLONE_NEWNET) == 0;
    if (entered) {
        work();
        if (setns(self, CLONE_NEWNET) != 0)
            abort();                   // the test thread must never stay behind
    }
    for (int fd : {self, target})
        if (fd >= 0)
            close(fd);
    return entered;
}
