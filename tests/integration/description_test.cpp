// The documents a control point reads after discovery, as the program
// serves them on 127.0.0.1, checked with xmllint; and the whole road of a
// real GUPnP control point in a network namespace of the test's own.
#include "support/test_host.h"
#include "support/test_net.h"
#include "support/test_netns.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

struct reply { int status = 0; std::string head, body; };

// The status is 0 when no answer came.
reply fetch(int port, const std::string& url)
{
    int s = test_connect_from("127.0.0.1", port);
    std::string raw;
    if (s >= 0 && test_send_text(s, "GET " + url + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n"))
        raw = test_read_response(s);
    close(s);
    size_t end = raw.find("\r\n\r\n");
    bool whole = raw.compare(0, 9, "HTTP/1.1 ") == 0 && end != std::string::npos;
    return whole ? reply{atoi(raw.c_str() + 9), raw.substr(0, end + 2), raw.substr(end + 4)} : reply{};
}

std::string hostname()
{
    char name[257] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

// "" when xmllint finds the text well-formed; its messages otherwise.
std::string xmllint_complaints(const test_dir& dir, const std::string& text)
{
    std::string file = dir.file("document.xml");
    test_write_file(file, text);
    int status = 0;
    std::string said = test_output("/usr/bin/xmllint --noout " + file, &status);
    return status == 0 ? "" : said.empty() ? "xmllint failed" : said;
}

struct icon_case { const char* mime; int size; };
const icon_case icon_cases[] = {{"image/jpeg", 120}, {"image/png", 48}};

// The program on 127.0.0.1 and a free port, named with the host name in it.
struct Description : ::testing::Test {
    test_dir media, work;
    int port = test_free_port();
    host_run* host = nullptr;

    void SetUp() override
    {
        host = new host_run({media.path, "--workdir", work.path, "--ip", "127.0.0.1", "--port",
                             std::to_string(port), "--name", "Den (%HOSTNAME%)"});
        ASSERT_TRUE(host->wait_for("Serving on http://127.0.0.1:" + std::to_string(port) + "/")) << host->seen;
    }
    void TearDown() override
    {
        kill(host->pid, SIGTERM);
        EXPECT_EQ(0, host->wait_exit());
        delete host;
    }
};

TEST_F(Description, EveryDocumentIsWellFormedAndTheDescriptionNamesTheProgramAsItShowsItself)
{
    if (access("/usr/bin/xmllint", X_OK) != 0)
        GTEST_SKIP() << "needs xmllint (Debian package libxml2-utils)";
    test_dir scratch;
    std::string description;
    for (const char* url : {"/DeviceDescription.xml", "/ContentDirectory.xml", "/ConnectionManager.xml",
                            "/MediaReceiverRegistrar.xml"}) {
        SCOPED_TRACE(url);
        reply r = fetch(port, url);
        ASSERT_EQ(200, r.status) << r.head;
        EXPECT_EQ(std::to_string(r.body.size()), test_header(r.head, "Content-Length"));
        ASSERT_FALSE(r.body.empty());
        EXPECT_EQ("", xmllint_complaints(scratch, r.body));
        description = description.empty() ? r.body : description;
    }
    EXPECT_NE(std::string::npos, description.find("<friendlyName>Den (" + hostname() + ")</friendlyName>")) << description;
    size_t udn = host->seen.find("(uuid:");
    ASSERT_NE(std::string::npos, udn) << host->seen;
    std::string shown = host->seen.substr(udn + 1, host->seen.find(')', udn) - udn - 1);
    EXPECT_NE(std::string::npos, description.find("<UDN>" + shown + "</UDN>")) << description;
}

// What the icon handler serves and refuses on its own is checked with the
// handler; here what only the server's URL decoding can bring to it.
TEST_F(Description, NothingButTheIconsIsServedUnderImages)
{
    for (const char* url : {"/images/../resources/cds.xml", "/images/..%2fcds.xml", "/images/%2fetc%2fpasswd",
                            "/images/velmoraicon-48x48.png%00.txt", "/images/sub/velmoraicon-48x48.png"}) {
        SCOPED_TRACE(url);
        reply r = fetch(port, url);
        EXPECT_NE(0, r.status) << "no answer at all";
        EXPECT_NE(200, r.status) << r.body.substr(0, 200);
        EXPECT_EQ(std::string::npos, r.body.find("PNG")) << "no image bytes";
        EXPECT_EQ(200, fetch(port, "/images/velmoraicon-48x48.png").status) << "a good request after it";
    }
}

TEST(DescriptionNetns, GupnpControlPointBuildsTheDeviceAndIntrospectsEveryService)
{
    if (test_netns_pair::run("/usr/bin/python3 -c \"import gi; gi.require_version('GUPnP', '1.6')\"") != 0)
        GTEST_SKIP() << "needs Debian's python3-gi and gir1.2-gupnp-1.6";
    test_netns_pair ns("desc");
    if (!ns.made)
        GTEST_SKIP() << "this machine does not let the test create network namespaces (needs root)";
    test_dir media, work;
    // An earlier run kept to 127.0.0.1 leaves its address in the ini file;
    // a start without --ip serves every interface all the same.
    test_write_file(work.file("velmora-mediaserver.ini"), "[main]\r\nip=127.0.0.1\r\n");
    host_run host({media.path, "--workdir", work.path, "--port", "9000", "--name", "Den (%HOSTNAME%)"},
                  {"ip", "netns", "exec", ns.server});
    ASSERT_TRUE(host.wait_for("Serving on http://192.0.2.1:9000/")) << host.seen;

    std::string command = "ip netns exec " + ns.client + " /usr/bin/python3 " VELMORA_SOURCE_DIR
                          "/tests/integration/upnp_inspect.py --interface " + ns.client_link +
                          " --address 192.0.2.2 --timeout 20";
    int status = -1;
    std::string output = "\n" + test_output(command, &status);
    EXPECT_EQ(0, status) << output;
    EXPECT_NE(std::string::npos, output.find("\ndone\n")) << output;
    for (const char* failure : {"\nfailed", "\nunrelated"})
        EXPECT_EQ(std::string::npos, output.find(failure)) << output;
    EXPECT_NE(std::string::npos, output.find("\nname Den (" + hostname() + ")\n")) << output;
    // Each icon as the client read it: type, size and some bytes.
    for (const icon_case& c : icon_cases) {
        std::string size = std::to_string(c.size), line = "\nicon " + std::string(c.mime) + " " + size + "x" + size;
        size_t at = output.find(line + " ");
        EXPECT_TRUE(at != std::string::npos && output.compare(at + line.size(), 3, " 0\n") != 0) << line << output;
    }
    // Each service document read, its actions listed.
    for (const char* service : {"urn:schemas-upnp-org:service:ContentDirectory:1",
                                "urn:schemas-upnp-org:service:ConnectionManager:1",
                                "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1"})
        EXPECT_NE(std::string::npos, output.find(std::string("\naction ") + service + " ")) << service << output;
    kill(host.pid, SIGTERM);
    EXPECT_EQ(0, host.wait_exit());
}

}  // namespace
