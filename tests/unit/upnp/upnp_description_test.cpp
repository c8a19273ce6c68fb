// The device description and the documents beside it: the friendly name
// and its host name marker, the fields taken from description.txt, the
// shape of the document, and the handlers as a client on a socket sees
// them, with resources in a program folder of the test's own.
#include "upnp/upnp_description.h"

#include "config/upnp_ini.h"
#include "http/http_server.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_string.h"
#include "runtime/upnp_xml.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// ---- Friendly name ----------------------------------------------------------

struct name_case {
    const char* why;
    const char* option;
    const char* host;
    const char* name;
};

const name_case name_cases[] = {
    {"unset", nullptr, "box", "[box] Velmora Server"},
    {"empty", "", "box", "[box] Velmora Server"},
    {"own name", "Den", "box", "Den"},
    {"marker alone", "%HOSTNAME%", "box", "box"},
    {"marker inside", "Music on %HOSTNAME% (2)", "box", "Music on box (2)"},
    {"only the first marker", "%HOSTNAME%/%HOSTNAME%", "box", "box/%HOSTNAME%"},
    {"marker cut short", "%HOSTNAME", "box", "%HOSTNAME"},
    {"marker in another case", "%hostname%", "box", "%hostname%"},
    {"no host name", "", "", "[] Velmora Server"},
    {"no host name for the marker", "at %HOSTNAME%", "", "at "},
    {"not escaped", "Tom & Jerry", "box", "Tom & Jerry"},
};

TEST(UpnpDescription, FriendlyNameFromOptionAndHostName)
{
    for (const name_case& c : name_cases) {
        SCOPED_TRACE(c.why);
        char out[1024];
        upnp_description_friendly_name(c.option, c.host, out, sizeof out);
        EXPECT_STREQ(c.name, out);
    }
}

TEST(UpnpDescription, FriendlyNameIsCutWithoutBreakingACharacter)
{
    char out[16];
    upnp_description_friendly_name(std::string(40, 'a').c_str(), "box", out, sizeof out);
    EXPECT_EQ(std::string(15, 'a'), out);
    // "é" is two bytes: the 15th byte would be half of one.
    std::string accents;
    for (int i = 0; i < 20; i++)
        accents += "\xC3\xA9";
    upnp_description_friendly_name(accents.c_str(), "box", out, sizeof out);
    EXPECT_EQ(accents.substr(0, 14), out);
    upnp_description_friendly_name(("%HOSTNAME%" + accents).c_str(), "bc", out, sizeof out);
    EXPECT_EQ("bc" + accents.substr(0, 12), out);
    upnp_description_friendly_name("x", "box", nullptr, 10);      // nothing to write into
}

// ---- The document -------------------------------------------------------------

std::string render(const std::string& text, const char* udn = "uuid:1", const char* name = "Den",
                   size_t size = 8192)
{
    std::vector<char> out(size);
    int32_t n = upnp_description_render(text.data(), text.size(), udn, name, out.data(), size);
    EXPECT_EQ(size_t(n), strlen(out.data()));
    return std::string(out.data(), size_t(n));
}

// The text of the first element of that name; "<absent>" without one.
std::string field(const std::string& document, const char* element)
{
    upnp_xml_node* tree = upnp_xml_parse(document.c_str());
    EXPECT_NE(nullptr, tree) << document;
    std::string value = "<absent>";
    if (upnp_xml_node* node = upnp_xml_find(tree, element))
        value = node->value ? node->value : "";
    upnp_xml_free(tree);
    return value;
}

struct defaults_row {
    const char* element;
    const char* value;
};

const defaults_row defaults[] = {
    {"manufacturer", "Velmora Electronics Co., Ltd."},
    {"manufacturerURL", "http://www.velmora.org/"},
    {"modelName", "VelmoraMobile Server"},
    {"modelNumber", "1.0"},
    {"modelURL", "http://www.velmora.org/"},
    {"modelDescription", "VelmoraMobile Server"},
    {"serialNumber", ""},
};

TEST(UpnpDescription, WithoutDescriptionTextEveryFieldHasItsDefault)
{
    std::string document = render("");
    for (const defaults_row& row : defaults) {
        SCOPED_TRACE(row.element);
        EXPECT_EQ(row.value, field(document, row.element));
    }
    EXPECT_EQ(document, render(std::string()));
    std::vector<char> out(8192);
    EXPECT_LT(0, upnp_description_render(nullptr, 0, "uuid:1", "Den", out.data(), out.size()));
    EXPECT_EQ(document, out.data());
}

struct field_case {
    const char* why;
    std::string text;
    const char* element;
    const char* value;
};

const field_case field_cases[] = {
    {"a value to the line end", "modelname:Shelf\r\nmodelnumber:7\r\n", "modelName", "Shelf"},
    {"the next line's value", "modelname:Shelf\r\nmodelnumber:7\r\n", "modelNumber", "7"},
    {"LF alone ends a line", "modelserial:SN-1\nmodelname:x\n", "serialNumber", "SN-1"},
    {"CR alone ends a line", "modelserial:SN-2\rmodelname:x\r", "serialNumber", "SN-2"},
    {"the last line without its end", "modelname:x\nmodelserial:SN-3", "serialNumber", "SN-3"},
    {"blanks are kept", "manufacturer: Spaced Out \n", "manufacturer", " Spaced Out "},
    {"an empty value stays empty", "modelnumber:\n", "modelNumber", ""},
    {"a key in upper case is not found", "MODELNAME:Loud\n", "modelName", "VelmoraMobile Server"},
    {"anywhere in the text, not only at a line start", "# see modelname:Inline\n", "modelName", "Inline"},
    {"the first of two", "modelname:one\nmodelname:two\n", "modelName", "one"},
    {"the URL key is not the maker's key", "manufacturerurl:http://a.example/\n", "manufacturer",
     "Velmora Electronics Co., Ltd."},
    {"the maker's URL", "manufacturerurl:http://a.example/\n", "manufacturerURL", "http://a.example/"},
    {"the model URL", "modelurl:http://m.example/\n", "modelURL", "http://m.example/"},
    {"the description", "modeldescription:Shelf of songs\n", "modelDescription", "Shelf of songs"},
    {"the text ends at a NUL", std::string("modelname:A\0modelnumber:9\n", 26), "modelNumber", "1.0"},
};

TEST(UpnpDescription, FieldsComeFromTheirKeysInTheDescriptionText)
{
    for (const field_case& c : field_cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(c.value, field(render(c.text), c.element));
    }
}

TEST(UpnpDescription, DocumentCarriesIdentityIconsAndServicesButNoUrlBase)
{
    std::string document = render("", "uuid:76656c6d-0000", "Den (2)");
    EXPECT_EQ(0u, document.find("<?xml version=\"1.0\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\">"));
    EXPECT_EQ(document.size() - 7, document.rfind("</root>"));
    EXPECT_EQ(std::string::npos, document.find("URLBase"));
    EXPECT_EQ("uuid:76656c6d-0000", field(document, "UDN"));
    EXPECT_EQ("Den (2)", field(document, "friendlyName"));
    EXPECT_EQ("urn:schemas-upnp-org:device:MediaServer:1", field(document, "deviceType"));
    EXPECT_NE(std::string::npos, document.find(">DMS-1.50</dlna:X_DLNADOC>"));
    EXPECT_NE(std::string::npos, document.find(">M-DMS-1.50</dlna:X_DLNADOC>"));
    EXPECT_NE(std::string::npos, document.find(">av-upload,image-upload,audio-upload</dlna:X_DLNACAP>"));

    // JPEG first, then PNG, each large to small.
    const char* icons[] = {"120x120.jpg", "80x80.jpg", "48x48.jpg", "120x120.png", "80x80.png", "48x48.png"};
    size_t at = 0;
    for (const char* icon : icons) {
        SCOPED_TRACE(icon);
        size_t found = document.find(std::string("<url>/images/velmoraicon-") + icon + "</url>", at);
        ASSERT_NE(std::string::npos, found);
        at = found;
    }
    for (const char* url : {"<SCPDURL>/ConnectionManager.xml</SCPDURL>", "<controlURL>/ConnectionManager/Control<",
                            "<eventSubURL>/ConnectionManager/Event<", "<SCPDURL>/ContentDirectory.xml</SCPDURL>",
                            "<controlURL>/ContentDirectory/Control<", "<eventSubURL>/ContentDirectory/Event<"})
        EXPECT_NE(std::string::npos, document.find(url)) << url;
    // The registrar is reached by its fixed URLs only.
    EXPECT_EQ(std::string::npos, document.find("MediaReceiverRegistrar"));
}

TEST(UpnpDescription, ALongDocumentIsCutAtTheBuffer)
{
    std::string document = render("", "uuid:1", "Den", 100);
    EXPECT_EQ(99u, document.size());
    std::string huge_name(9000, 'n');
    EXPECT_EQ(8191u, render("", "uuid:1", huge_name.c_str()).size());
    char one[1] = {'x'};
    EXPECT_EQ(0, upnp_description_render("", 0, "uuid:1", "Den", one, 1));
    EXPECT_EQ(0, one[0]);
}

// ---- The handlers on a socket -------------------------------------------------

struct wire {
    int fds[2] = {-1, -1};
    wire() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds)); }
    ~wire()
    {
        close(fds[0]);
        close(fds[1]);
    }
    std::string taken()
    {
        std::string all;
        char buffer[8192];
        pollfd p{fds[1], POLLIN, 0};
        while (poll(&p, 1, 50) == 1) {
            ssize_t n = recv(fds[1], buffer, sizeof buffer, MSG_DONTWAIT);
            if (n <= 0)
                break;
            all.append(buffer, size_t(n));
        }
        return all;
    }
};

struct response {
    std::string head, body;
    int result = -1;
};

// Runs a handler on a GET of url and takes what it wrote.
response serve(int (*handler)(HTTP_request*), const std::string& url, const std::string& extra = "")
{
    wire w;
    HTTP_request r{};
    r.socket = w.fds[0];
    r.version = 11;
    r.method = HTTP_METHOD_GET;
    snprintf(r.url, sizeof r.url, "%s", url.c_str());
    snprintf(r.head, sizeof r.head, "GET %s HTTP/1.1\r\nHost: a\r\n%s\r\n", url.c_str(), extra.c_str());
    response out;
    out.result = handler(&r);
    std::string all = w.taken();
    size_t end = all.find("\r\n\r\n");
    out.head = all.substr(0, end == std::string::npos ? all.size() : end + 2);
    out.body = end == std::string::npos ? "" : all.substr(end + 4);
    return out;
}

// A program folder with resources of the test's own; the loaded
// description.txt and the friendly name are forgotten on both sides.
struct DescriptionFiles : ::testing::Test {
    test_dir dir;
    std::string resources = dir.file("resources");

    void SetUp() override
    {
        std::string argv0 = dir.file("velmora");
        char* arguments[] = {argv0.data(), nullptr};
        upnp_ini_file_read_cmdline(1, arguments);
        ASSERT_STREQ(dir.path.c_str(), upnp_ini_get_program_dir());
        mkdir(resources.c_str(), 0755);
        upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "");
        upnp_description_reset();
    }
    void TearDown() override
    {
        upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "");
        upnp_description_reset();
    }
    void put(const std::string& name, const std::string& bytes)
    {
        ASSERT_TRUE(test_write_file(resources + "/" + name, bytes));
    }
};

const char XML_TYPE_LINE[] = "\r\nContent-Type:  text/xml; charset=\"utf-8\"\r\n";

TEST_F(DescriptionFiles, DescriptionGoesOutWithNameUdnAndTheFieldsOfTheFile)
{
    put("description.txt", "modelname:Shelf\r\nmodelserial:SN-9\r\n");
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Den on %HOSTNAME%");
    response r = serve(upnp_send_device_description, "/DeviceDescription.xml");
    EXPECT_EQ(0, r.result);
    EXPECT_EQ(0u, r.head.find("HTTP/1.1 200 OK\r\n")) << r.head;
    EXPECT_NE(std::string::npos, r.head.find(XML_TYPE_LINE)) << r.head;
    EXPECT_NE(std::string::npos, r.head.find("\r\nContent-Length: " + std::to_string(r.body.size()) + "\r\n"));
    char host[257];
    upnp_get_hostname(host, sizeof host);
    EXPECT_EQ(std::string("Den on ") + host, field(r.body, "friendlyName"));
    EXPECT_EQ(upnp_get_udn(), field(r.body, "UDN"));
    EXPECT_EQ("Shelf", field(r.body, "modelName"));
    EXPECT_EQ("SN-9", field(r.body, "serialNumber"));
    EXPECT_EQ("Velmora Electronics Co., Ltd.", field(r.body, "manufacturer"));
}

TEST_F(DescriptionFiles, DescriptionTextIsKeptOnceLoadedAndRetriedWhileMissing)
{
    EXPECT_EQ("VelmoraMobile Server", field(serve(upnp_send_device_description, "/").body, "modelName"));
    put("description.txt", "modelname:Arrived\n");
    EXPECT_EQ("Arrived", field(serve(upnp_send_device_description, "/").body, "modelName"));
    put("description.txt", "modelname:Changed\n");
    EXPECT_EQ("Arrived", field(serve(upnp_send_device_description, "/").body, "modelName"));
}

struct size_case {
    const char* why;
    size_t size;
    bool used;
};

TEST_F(DescriptionFiles, DescriptionTextOfNoBytesOrOfAKilobyteIsIgnored)
{
    const size_case cases[] = {{"empty", 0, false}, {"1023 bytes", 1023, true}, {"1024 bytes", 1024, false}};
    for (const size_case& c : cases) {
        SCOPED_TRACE(c.why);
        upnp_description_reset();
        std::string text = "modelname:Sized\n";
        if (c.size < text.size())
            text.resize(c.size);
        else
            text += std::string(c.size - text.size(), '#');
        put("description.txt", text);
        EXPECT_EQ(c.used ? "Sized" : "VelmoraMobile Server",
                  field(serve(upnp_send_device_description, "/").body, "modelName"));
    }
}

TEST_F(DescriptionFiles, NameAndUdnFollowTheOptionAtOnce)
{
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Kitchen (1)");
    std::string first = serve(upnp_send_device_description, "/").body;
    EXPECT_EQ("Kitchen (1)", field(first, "friendlyName"));
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Hall (1)");
    std::string renamed = serve(upnp_send_device_description, "/").body;
    EXPECT_EQ("Hall (1)", field(renamed, "friendlyName"));
    EXPECT_EQ(field(first, "UDN"), field(renamed, "UDN")) << "the same character behind the last (";
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Hall (2)");
    std::string second = serve(upnp_send_device_description, "/").body;
    EXPECT_NE(field(first, "UDN"), field(second, "UDN"));
}

struct service_case {
    int (*handler)(HTTP_request*);
    const char* file;
};

const service_case service_cases[] = {
    {upnp_send_cds_xml, "cds.xml"}, {upnp_send_cms_xml, "cms.xml"}, {upnp_send_msreg_xml, "msreg.xml"}};

TEST_F(DescriptionFiles, ServiceDocumentsGoOutUnchanged)
{
    for (const service_case& c : service_cases) {
        SCOPED_TRACE(c.file);
        std::string bytes = std::string("<scpd>%s %HOSTNAME% ") + c.file + "</scpd>\n";
        put(c.file, bytes);
        response r = serve(c.handler, "/x.xml");
        EXPECT_EQ(0, r.result);
        EXPECT_EQ(0u, r.head.find("HTTP/1.1 200 OK\r\n"));
        EXPECT_NE(std::string::npos, r.head.find(XML_TYPE_LINE)) << r.head;
        EXPECT_EQ(bytes, r.body);
    }
}

TEST_F(DescriptionFiles, AMissingServiceDocumentIsAnEmptyAnswer)
{
    for (const service_case& c : service_cases) {
        SCOPED_TRACE(c.file);
        response r = serve(c.handler, "/x.xml");
        EXPECT_EQ(0u, r.head.find("HTTP/1.1 200 OK\r\n"));
        EXPECT_NE(std::string::npos, r.head.find("\r\nContent-Length: 0\r\n"));
        EXPECT_EQ("", r.body);
    }
}

TEST_F(DescriptionFiles, ServiceDocumentsAnswerARange)
{
    put("cms.xml", "0123456789");
    response r = serve(upnp_send_cms_xml, "/ConnectionManager.xml", "Range: bytes=2-5\r\n");
    EXPECT_EQ(0u, r.head.find("HTTP/1.1 206 Partial Content\r\n")) << r.head;
    EXPECT_EQ("2345", r.body);
}

TEST_F(DescriptionFiles, HandlersRefuseANullRequest)
{
    for (int (*handler)(HTTP_request*) : {upnp_send_device_description, upnp_send_cds_xml, upnp_send_cms_xml,
                                          upnp_send_msreg_xml, upnp_send_device_icon})
        EXPECT_EQ(1, handler(nullptr));
}

struct icon_url_case {
    const char* url;
    const char* mime;         // null: the 404 page
};

const icon_url_case icon_url_cases[] = {
    {"/images/velmoraicon-120x120.jpg", "image/jpeg"},
    {"/images/velmoraicon-48x48.png", "image/png"},
    {"/images/velmoraicon-48x48.png.orig", nullptr},
    {"/images/velmoraicon-48x48.pn", nullptr},
    {"/images/Velmoraicon-48x48.png", nullptr},
    {"/images/description.txt", nullptr},
    {"/images/../description.txt", nullptr},
    {"/images//velmoraicon-48x48.png", nullptr},
    {"/imagesXvelmoraicon-48x48.png", nullptr},
    {"/images", nullptr},
    {"/images/", nullptr},
    {"/other/velmoraicon-48x48.png", nullptr},
};

TEST_F(DescriptionFiles, OnlyTheIconsTheDescriptionNamesAreServed)
{
    put("velmoraicon-120x120.jpg", "jpeg bytes");
    put("velmoraicon-48x48.png", "png bytes");
    put("velmoraicon-48x48.png.orig", "not an icon");
    put("description.txt", "modelname:private\n");
    for (const icon_url_case& c : icon_url_cases) {
        SCOPED_TRACE(c.url);
        response r = serve(upnp_send_device_icon, c.url);
        if (!c.mime) {
            EXPECT_EQ(0u, r.head.find("HTTP/1.1 404 Not Found\r\n")) << r.head;
            continue;
        }
        EXPECT_EQ(0u, r.head.find("HTTP/1.1 200 OK\r\n")) << r.head;
        EXPECT_NE(std::string::npos, r.head.find(std::string("\r\nContent-Type: ") + c.mime + "\r\n")) << r.head;
        EXPECT_EQ(c.mime[6] == 'j' ? "jpeg bytes" : "png bytes", r.body);
    }
}

TEST_F(DescriptionFiles, AnIconMissingFromTheResourcesIsNotFound)
{
    response r = serve(upnp_send_device_icon, "/images/velmoraicon-80x80.png");
    EXPECT_EQ(0u, r.head.find("HTTP/1.1 404 Not Found\r\n")) << r.head;
}

// The files the program ships are the ones a client reads.
TEST(UpnpDescriptionResources, ShippedDescriptionTextGivesTheDefaults)
{
    std::string text = test_read_file(VELMORA_SOURCE_DIR "/resources/description.txt");
    ASSERT_FALSE(text.empty());
    ASSERT_LT(text.size(), 1024u);
    std::string document = render(text);
    for (const defaults_row& row : defaults) {
        SCOPED_TRACE(row.element);
        EXPECT_EQ(row.value, field(document, row.element));
    }
}

}  // namespace
