// The documents a control point reads after discovery, as the program
// serves them: the device description, the three service documents and
// the icons, checked with xmllint over 127.0.0.1; and the whole road of a
// real GUPnP control point, which finds the server by SSDP in a network
// namespace of the test's own, builds the device from its description and
// introspects every service.
#include "support/test_host.h"
#include "support/test_net.h"
#include "support/test_netns.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

struct reply {
    int status = 0;
    std::string head, body;
};

reply fetch(int port, const std::string& url, const std::string& method = "GET", const std::string& extra = "")
{
    std::string raw = test_exchange("127.0.0.1", port,
                                    method + " " + url + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" +
                                        extra + "\r\n");
    reply r;
    size_t end = raw.find("\r\n\r\n");
    if (raw.compare(0, 9, "HTTP/1.1 ") != 0 || end == std::string::npos)
        return r;
    r.status = atoi(raw.c_str() + 9);
    r.head = raw.substr(0, end + 2);
    r.body = raw.substr(end + 4);
    return r;
}

std::string header(const reply& r, const std::string& name)
{
    size_t at = r.head.find("\r\n" + name + ":");
    if (at == std::string::npos)
        return "<none>";
    at += name.size() + 3;
    return r.head.substr(at, r.head.find("\r\n", at) - at);
}

std::string hostname()
{
    char name[257] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

bool have_xmllint()
{
    return access("/usr/bin/xmllint", X_OK) == 0;
}

// 0 when xmllint finds the text well-formed; its messages otherwise.
std::string xmllint_complaints(const test_dir& dir, const std::string& text)
{
    std::string file = dir.file("document.xml");
    test_write_file(file, text);
    std::string command = "/usr/bin/xmllint --noout " + file + " 2>&1";
    FILE* p = popen(command.c_str(), "r");
    if (!p)
        return "xmllint did not start";
    std::string said;
    char line[512];
    while (fgets(line, sizeof line, p))
        said += line;
    int status = pclose(p);
    return status == 0 ? "" : said.empty() ? "xmllint failed" : said;
}

uint32_t be16(const std::string& b, size_t at)
{
    return uint32_t(uint8_t(b[at])) << 8 | uint8_t(b[at + 1]);
}

// Width and height from a PNG header or a JPEG frame header; 0 when the
// bytes are neither.
std::pair<uint32_t, uint32_t> image_size(const std::string& b)
{
    if (b.size() >= 24 && b.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0 && b.compare(12, 4, "IHDR") == 0)
        return {be16(b, 18), be16(b, 22)};
    if (b.size() < 4 || uint8_t(b[0]) != 0xFF || uint8_t(b[1]) != 0xD8)
        return {0, 0};
    for (size_t at = 2; at + 9 <= b.size() && uint8_t(b[at]) == 0xFF; at += 2 + be16(b, at + 2)) {
        uint8_t marker = uint8_t(b[at + 1]);
        if (marker == 0xC0 || marker == 0xC1 || marker == 0xC2)
            return {be16(b, at + 7), be16(b, at + 5)};
    }
    return {0, 0};
}

struct icon_case {
    const char* name;
    const char* mime;
    uint32_t size;
};

const icon_case icon_cases[] = {
    {"velmoraicon-120x120.jpg", "image/jpeg", 120}, {"velmoraicon-80x80.jpg", "image/jpeg", 80},
    {"velmoraicon-48x48.jpg", "image/jpeg", 48},    {"velmoraicon-120x120.png", "image/png", 120},
    {"velmoraicon-80x80.png", "image/png", 80},     {"velmoraicon-48x48.png", "image/png", 48},
};

const char XML_TYPE[] = "  text/xml; charset=\"utf-8\"";

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

TEST_F(Description, EveryDocumentIsWellFormedForXmllint)
{
    if (!have_xmllint())
        GTEST_SKIP() << "needs xmllint (Debian package libxml2-utils)";
    test_dir scratch;
    for (const char* url : {"/DeviceDescription.xml", "/ContentDirectory.xml", "/ConnectionManager.xml",
                            "/MediaReceiverRegistrar.xml"}) {
        SCOPED_TRACE(url);
        reply r = fetch(port, url);
        ASSERT_EQ(200, r.status) << r.head;
        EXPECT_EQ(XML_TYPE, header(r, "Content-Type"));
        EXPECT_EQ(std::to_string(r.body.size()), header(r, "Content-Length").substr(1));
        ASSERT_FALSE(r.body.empty());
        EXPECT_EQ("", xmllint_complaints(scratch, r.body));
    }
}

TEST_F(Description, TheDescriptionAnnouncesTheNameAndUdnThatTheProgramShows)
{
    reply r = fetch(port, "/DeviceDescription.xml");
    ASSERT_EQ(200, r.status);
    EXPECT_NE(std::string::npos, r.body.find("<friendlyName>Den (" + hostname() + ")</friendlyName>")) << r.body;
    size_t udn = host->seen.find("(uuid:");
    ASSERT_NE(std::string::npos, udn) << host->seen;
    std::string shown = host->seen.substr(udn + 1, host->seen.find(')', udn) - udn - 1);
    EXPECT_NE(std::string::npos, r.body.find("<UDN>" + shown + "</UDN>")) << r.body;
    EXPECT_EQ(std::string::npos, r.body.find("URLBase"));
    EXPECT_NE(std::string::npos,
              host->seen.find("Description http://127.0.0.1:" + std::to_string(port) + "/DeviceDescription.xml"));
}

TEST_F(Description, HeadAndRangeWorkOnTheDocuments)
{
    reply whole = fetch(port, "/ContentDirectory.xml");
    ASSERT_EQ(200, whole.status);
    reply head = fetch(port, "/ContentDirectory.xml", "HEAD");
    EXPECT_EQ(200, head.status);
    EXPECT_EQ(header(whole, "Content-Length"), header(head, "Content-Length"));
    EXPECT_EQ("", head.body);
    reply part = fetch(port, "/DeviceDescription.xml", "GET", "Range: bytes=0-20\r\n");
    EXPECT_EQ(206, part.status) << part.head;
    EXPECT_EQ("<?xml version=\"1.0\"?>", part.body);
}

TEST_F(Description, TheSixIconsAreServedAsTheyLieInTheResources)
{
    for (const icon_case& c : icon_cases) {
        SCOPED_TRACE(c.name);
        reply r = fetch(port, std::string("/images/") + c.name);
        ASSERT_EQ(200, r.status) << r.head;
        EXPECT_EQ(std::string(" ") + c.mime, header(r, "Content-Type"));
        EXPECT_EQ(test_read_file(std::string(VELMORA_SOURCE_DIR "/resources/") + c.name), r.body);
        EXPECT_EQ(std::make_pair(c.size, c.size), image_size(r.body));
    }
}

TEST_F(Description, NothingButTheIconsIsServedUnderImages)
{
    const char* const refused[] = {
        "/images/description.txt",
        "/images/cds.xml",
        "/images/clients.db",
        "/images/velmora-mediaserver.ini",
        "/images/",
        "/images",
        "/imagesvelmoraicon-48x48.png",
        "/images/velmoraicon-48x48.png.bak",
        "/images/velmoraicon-48x48.pn",
        "/images/VELMORAICON-48x48.png",
        "/images/sub/velmoraicon-48x48.png",
        "/images//velmoraicon-48x48.png",
        "/images/../resources/cds.xml",
        "/images/%2e%2e/resources/cds.xml",
        "/images/..%2fcds.xml",
        "/images/%2fetc%2fpasswd",
        "/images/velmoraicon-48x48.png%00.txt",
        "/images/velmoraicon-48x48.png?size=big",
    };
    for (const char* url : refused) {
        SCOPED_TRACE(url);
        reply r = fetch(port, url);
        EXPECT_NE(0, r.status) << "no answer at all";
        EXPECT_NE(200, r.status) << r.body.substr(0, 200);
        EXPECT_EQ(std::string::npos, r.body.find("PNG")) << "no image bytes";
        EXPECT_EQ(200, fetch(port, "/images/velmoraicon-48x48.png").status) << "a good request after it";
    }
}

// ---- A real control point ---------------------------------------------------

// What the control point printed, by kind of line.
struct inspection {
    std::string name;
    std::vector<std::string> icons, unrelated, failures;
    std::map<std::string, std::map<std::string, std::vector<std::string>>> actions;   // service, action: args
    bool done = false;
};

inspection read_inspection(const std::string& output)
{
    inspection seen;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string kind, service, action, arg;
        words >> kind;
        if (kind == "name")
            seen.name = line.substr(5);
        else if (kind == "icon")
            seen.icons.push_back(line.substr(5));
        else if (kind == "unrelated")
            seen.unrelated.push_back(line);
        else if (kind == "failed" || kind == "missing")
            seen.failures.push_back(line);
        else if (kind == "done")
            seen.done = true;
        else if (kind == "action" && words >> service >> action) {
            std::vector<std::string>& args = seen.actions[service][action];
            while (words >> arg)
                args.push_back(arg);
        }
    }
    return seen;
}

const char CDS[] = "urn:schemas-upnp-org:service:ContentDirectory:1";
const char CMS[] = "urn:schemas-upnp-org:service:ConnectionManager:1";
const char MSR[] = "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1";

// Every action the control URLs answer, with the arguments the server
// reads from the request: a client that follows the documents must be
// able to send each of them.
struct action_row {
    const char* service;
    const char* action;
    std::vector<std::string> inputs;
};

const action_row action_rows[] = {
    {CMS, "PrepareForConnection", {}},
    {CMS, "ConnectionComplete", {}},
    {CDS, "GetSearchCapabilities", {}},
    {CDS, "GetSortCapabilities", {}},
    {CDS, "GetSystemUpdateID", {}},
    {CDS, "X_BrowseByLetter", {"BrowseFlag", "SortCriteria", "RequestedCount", "StartingLetter", "Filter", "ObjectID"}},
    {CDS, "Browse", {"BrowseFlag", "ObjectID", "Filter", "StartingIndex", "RequestedCount", "SortCriteria"}},
    {CDS, "Search", {"SortCriteria", "RequestedCount", "StartingIndex", "Filter", "SearchCriteria", "ContainerID"}},
    {CDS, "CreateObject", {"ContainerID", "Elements"}},
    {CDS, "DestroyObject", {"ObjectID"}},
    {CDS, "UpdateObject", {}},
    {CDS, "ImportResource", {}},
    {CDS, "ExportResource", {}},
    {CDS, "StopTransferResource", {}},
    {CDS, "GetTransferProgress", {}},
    {CDS, "DeleteResource", {}},
    {CDS, "CreateReference", {}},
    {CMS, "GetProtocolInfo", {}},
    {CMS, "GetCurrentConnectionIDs", {}},
    {CMS, "GetCurrentConnectionInfo", {"ConnectionID"}},
    {MSR, "IsAuthorized", {}},
    {MSR, "IsValidated", {}},
    {MSR, "RegisterDevice", {}},
};

bool has_input(const std::vector<std::string>& args, const std::string& name)
{
    for (const std::string& a : args)
        if (a.compare(0, name.size() + 4, name + ":in:") == 0)
            return true;
    return false;
}

TEST(DescriptionNetns, GupnpControlPointBuildsTheDeviceAndIntrospectsEveryService)
{
    const char script[] = VELMORA_SOURCE_DIR "/tests/integration/upnp_inspect.py";
    if (access("/usr/bin/python3", X_OK) != 0 ||
        test_netns_pair::run("/usr/bin/python3 -c \"import gi; gi.require_version('GUPnP', '1.6')\"") != 0)
        GTEST_SKIP() << "needs Debian's python3-gi and gir1.2-gupnp-1.6";
    test_netns_pair ns("desc");
    if (!ns.made)
        GTEST_SKIP() << "this machine does not let the test create network namespaces (needs root)";
    test_dir media, work;
    host_run host({media.path, "--workdir", work.path, "--port", "9000", "--name", "Den (%HOSTNAME%)"},
                  {"ip", "netns", "exec", ns.server});
    ASSERT_TRUE(host.wait_for("Serving on http://192.0.2.1:9000/")) << host.seen;

    std::string command = "ip netns exec " + ns.client + " /usr/bin/python3 " + script + " --interface " +
                          ns.client_link + " --address 192.0.2.2 --timeout 20 2>&1";
    FILE* inspector = popen(command.c_str(), "r");
    ASSERT_NE(nullptr, inspector);
    std::string output;
    char line[4096];
    while (fgets(line, sizeof line, inspector))
        output += line;
    EXPECT_EQ(0, pclose(inspector)) << output;
    inspection seen = read_inspection(output);
    EXPECT_TRUE(seen.done) << output;
    EXPECT_TRUE(seen.failures.empty()) << output;
    EXPECT_TRUE(seen.unrelated.empty()) << output;
    EXPECT_EQ("Den (" + hostname() + ")", seen.name);

    std::set<std::string> icons(seen.icons.begin(), seen.icons.end());
    EXPECT_EQ(6u, icons.size()) << output;
    for (const icon_case& c : icon_cases) {
        std::string prefix = std::string(c.mime) + " " + std::to_string(c.size) + "x" + std::to_string(c.size) + " ";
        bool found = false;
        for (const std::string& icon : icons)
            found = found || (icon.compare(0, prefix.size(), prefix) == 0 && icon.substr(prefix.size()) != "0");
        EXPECT_TRUE(found) << c.name << "\n" << output;
    }

    size_t expected = 0;
    for (const action_row& row : action_rows) {
        SCOPED_TRACE(std::string(row.service) + " " + row.action);
        auto& actions = seen.actions[row.service];
        auto found = actions.find(row.action);
        ASSERT_NE(actions.end(), found) << output;
        for (const std::string& input : row.inputs)
            EXPECT_TRUE(has_input(found->second, input)) << input;
        expected++;
    }
    size_t listed = 0;
    for (const auto& service : seen.actions)
        listed += service.second.size();
    EXPECT_EQ(expected, listed) << "an action that nothing answers";
    kill(host.pid, SIGTERM);
    EXPECT_EQ(0, host.wait_exit());
}

}  // namespace
