// The device description and the documents beside it, in a program folder of the test's own.
#include "upnp/upnp_description.h"

#include "config/upnp_ini.h"
#include "http/http_server.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_string.h"
#include "runtime/upnp_xml.h"
#include "support/test_support.h"
#include "support/test_wire.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

TEST(UpnpDescription, FriendlyNameFromOptionAndHostName)
{
    const struct { const char *why, *option, *host, *name; } cases[] = {
        {"unset", nullptr, "box", "[box] Velmora Server"}, {"empty", "", "box", "[box] Velmora Server"},
        {"own name", "Den", "box", "Den"}, {"marker alone", "%HOSTNAME%", "box", "box"},
        {"marker inside", "Music on %HOSTNAME% (2)", "box", "Music on box (2)"},
        {"only the first marker", "%HOSTNAME%/%HOSTNAME%", "box", "box/%HOSTNAME%"},
        {"marker in another case", "%hostname%", "box", "%hostname%"}, {"no host name", "", "", "[] Velmora Server"},
        {"no host name for the marker", "at %HOSTNAME%", "", "at "},
        {"not escaped", "Tom & Jerry", "box", "Tom & Jerry"},
    };
    for (const auto& c : cases) {
        char out[1024];
        upnp_description_friendly_name(c.option, c.host, out, sizeof out);
        EXPECT_STREQ(c.name, out) << c.why;
    }
}

TEST(UpnpDescription, FriendlyNameIsCutWithoutBreakingACharacter)
{
    char out[16];
    std::string accents;   // "é" is two bytes: the 15th byte would be half of one
    for (int i = 0; i < 20; i++)
        accents += "\xC3\xA9";
    upnp_description_friendly_name(accents.c_str(), "box", out, sizeof out);
    EXPECT_EQ(accents.substr(0, 14), out);
    upnp_description_friendly_name("x", "box", nullptr, 10);      // nothing to write into
}

std::string render(const std::string& text, const char* udn = "uuid:1", const char* name = "Den", size_t size = 8192)
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

struct field_case { const char* why; std::string text; const char *element, *value; };   // value null: as without

TEST(UpnpDescription, FieldsComeFromTheirKeysInTheDescriptionText)
{
    const field_case cases[] = {
        {"a value to the line end", "modelname:Shelf\r\nmodelnumber:7\r\n", "modelName", "Shelf"},
        {"LF alone ends a line", "modelserial:SN-1\nmodelname:x\n", "serialNumber", "SN-1"},
        {"CR alone ends a line", "modelserial:SN-2\rmodelname:x\r", "serialNumber", "SN-2"},
        {"the last line without its end", "modelname:x\nmodelserial:SN-3", "serialNumber", "SN-3"},
        {"blanks are kept", "manufacturer: Spaced Out \n", "manufacturer", " Spaced Out "},
        {"an empty value stays empty", "modelnumber:\n", "modelNumber", ""},
        {"a key in upper case is not found", "MODELNAME:Loud\n", "modelName", nullptr},
        {"anywhere in the text, not only at a line start", "# see modelname:Inline\n", "modelName", "Inline"},
        {"the first of two", "modelname:one\nmodelname:two\n", "modelName", "one"},
        {"the URL key is not the maker's key", "manufacturerurl:http://a.example/\n", "manufacturer", nullptr},
        {"the maker's URL", "manufacturerurl:http://a.example/\n", "manufacturerURL", "http://a.example/"},
        {"the text ends at a NUL", std::string("modelname:A\0modelnumber:9\n", 26), "modelNumber", nullptr},
    };
    for (const field_case& c : cases)
        EXPECT_EQ(c.value ? c.value : field(render(""), c.element), field(render(c.text), c.element)) << c.why;
}

// Icons JPEG first, then PNG (each is fetched by the integration tests); the
// registrar is reached by its fixed URLs only.
TEST(UpnpDescription, DocumentCarriesIdentityIconsAndServicesButNoUrlBase)
{
    std::string document = render("", "uuid:76656c6d-0000", "Den (2)");
    EXPECT_EQ(0u, document.find("<?xml version=\"1.0\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\">"));
    EXPECT_EQ(document.size() - 7, document.rfind("</root>"));
    EXPECT_EQ("uuid:76656c6d-0000", field(document, "UDN"));
    EXPECT_EQ("Den (2)", field(document, "friendlyName"));
    size_t at = 0;
    for (const char* text : {"<deviceType>urn:schemas-upnp-org:device:MediaServer:1<", "-48x48.jpg</url>",
                             "-120x120.png</url>", "<SCPDURL>/ConnectionManager.xml</SCPDURL>",
                             "<eventSubURL>/ConnectionManager/Event<", "<controlURL>/ConnectionManager/Control<",
                             "<SCPDURL>/ContentDirectory.xml</SCPDURL>", "<eventSubURL>/ContentDirectory/Event<",
                             "<controlURL>/ContentDirectory/Control<"}) {
        at = document.find(text, at);
        ASSERT_NE(std::string::npos, at) << text;
    }
    for (const char* absent : {"URLBase", "MediaReceiverRegistrar"})
        EXPECT_EQ(std::string::npos, document.find(absent)) << absent;
}

TEST(UpnpDescription, ALongDocumentIsCutAtTheBuffer)
{
    EXPECT_EQ(99u, render("", "uuid:1", "Den", 100).size());
    EXPECT_EQ(8191u, render("", "uuid:1", std::string(9000, 'n').c_str()).size());
    char one[1] = {'x'};
    EXPECT_EQ(0, upnp_description_render("", 0, "uuid:1", "Den", one, 1));
    EXPECT_EQ(0, one[0]);
}

// ---- The handlers on a socket -------------------------------------------------

struct response { std::string head, body; int result = -1; };

// Runs a handler on a GET of url and takes what it wrote.
response serve(int (*handler)(HTTP_request*), const std::string& url)
{
    request_on_wire q("GET " + url + " HTTP/1.1\r\nHost: a\r\n\r\n", 11, url.c_str());
    response out;
    out.result = handler(&q.r);
    std::string all = q.taken();
    size_t end = all.find("\r\n\r\n");
    out.head = all.substr(0, end == std::string::npos ? all.size() : end + 2);
    out.body = test_body(all);
    return out;
}

std::string document() { return serve(upnp_send_device_description, "/").body; }

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
        forget();
    }
    void TearDown() override { forget(); }
    static void forget()
    {
        upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "");
        upnp_description_reset();
    }
    void put(const std::string& name, const std::string& bytes)
    {
        ASSERT_TRUE(test_write_file(resources + "/" + name, bytes));
    }
};


// Until a file of 1 to 1023 bytes has been read, each answer tries again;
// after that the text stays as it was read.
TEST_F(DescriptionFiles, DescriptionTextIsReadUntilItHoldsOneTo1023BytesAndThenKept)
{
    const std::string text = "modelname:Sized\n", built_in = field(document(), "modelName");
    put("description.txt", text + std::string(1024 - text.size(), '#'));
    EXPECT_EQ(built_in, field(document(), "modelName"));
    put("description.txt", "");
    EXPECT_EQ(built_in, field(document(), "modelName"));
    put("description.txt", text + std::string(1023 - text.size(), '#'));
    EXPECT_EQ("Sized", field(document(), "modelName"));
    put("description.txt", "modelname:Changed\n");
    EXPECT_EQ("Sized", field(document(), "modelName"));
}

TEST_F(DescriptionFiles, NameAndUdnFollowTheOptionAtOnce)
{
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Kitchen (1)");
    std::string first = document();
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Hall (1)");
    std::string renamed = document();
    EXPECT_EQ("Kitchen (1) Hall (1)", field(first, "friendlyName") + " " + field(renamed, "friendlyName"));
    EXPECT_EQ(field(first, "UDN"), field(renamed, "UDN")) << "the same character behind the last (";
    upnp_ini_set(UPNP_OPT_FRIENDLYNAME, "Hall (2)");
    EXPECT_NE(field(first, "UDN"), field(document(), "UDN"));
}

TEST_F(DescriptionFiles, ServiceDocumentsGoOutUnchangedAndAMissingOneIsAnEmptyAnswer)
{
    const struct { int (*handler)(HTTP_request*); const char* file; } cases[] = {
        {upnp_send_cds_xml, "cds.xml"}, {upnp_send_cms_xml, "cms.xml"}, {upnp_send_msreg_xml, "msreg.xml"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        response missing = serve(c.handler, "/x.xml");
        EXPECT_EQ(0u, missing.head.find("HTTP/1.1 200 OK\r\n"));
        EXPECT_EQ("0", test_header(missing.head, "Content-Length"));
        std::string bytes = std::string("<scpd>%s %HOSTNAME% ") + c.file + "</scpd>\n";
        put(c.file, bytes);
        response r = serve(c.handler, "/x.xml");
        EXPECT_EQ(0, r.result);
        EXPECT_EQ(0u, r.head.find("HTTP/1.1 200 OK\r\n"));
        EXPECT_EQ(" text/xml; charset=\"utf-8\"", test_header(r.head, "Content-Type")) << r.head;
        EXPECT_EQ(bytes, r.body);
    }
    EXPECT_EQ(1, upnp_send_cds_xml(nullptr));
}

struct icon_url_case { const char* url; const char* mime; };   // mime null: the 404 page

TEST_F(DescriptionFiles, OnlyTheIconsTheDescriptionNamesAreServed)
{
    put("velmoraicon-120x120.jpg", "jpeg bytes");
    put("velmoraicon-48x48.png", "png bytes");
    put("velmoraicon-48x48.png.orig", "not an icon");
    put("description.txt", "modelname:private\n");
    const icon_url_case cases[] = {
        {"/images/velmoraicon-120x120.jpg", "image/jpeg"}, {"/images/velmoraicon-48x48.png", "image/png"},
        {"/images/velmoraicon-80x80.png", nullptr},   // named, but missing from the resources
        {"/images/velmoraicon-48x48.png.orig", nullptr}, {"/images/velmoraicon-48x48.pn", nullptr},
        {"/images/Velmoraicon-48x48.png", nullptr}, {"/images/description.txt", nullptr},
        {"/images//velmoraicon-48x48.png", nullptr}, {"/imagesXvelmoraicon-48x48.png", nullptr}, {"/images/", nullptr},
    };
    for (const icon_url_case& c : cases) {
        SCOPED_TRACE(c.url);
        response r = serve(upnp_send_device_icon, c.url);
        EXPECT_EQ(0u, r.head.find(c.mime ? "HTTP/1.1 200 OK\r\n" : "HTTP/1.1 404 Not Found\r\n")) << r.head;
        if (!c.mime)
            continue;
        EXPECT_EQ(c.mime + (c.mime[6] == 'j' ? " jpeg bytes"s : " png bytes"s),
                  test_header(r.head, "Content-Type") + " " + r.body);
    }
}

}  // namespace
