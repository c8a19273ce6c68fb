// Tests of the XML reader, the DIDL-Lite value checks and the escapes.
#include "runtime/upnp_xml.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

struct xml_tree {
    upnp_xml_node* root;
    ~xml_tree() { upnp_xml_free(root); }
};

static std::string or_null(const char* text) { return text ? text : "<null>"; }

// "name{attr=value;...}=value[child=value;...]" of a tree, or "<null>";
// attributes in list order, children without their own children.
static std::string outline(const upnp_xml_node* n, bool deep = true)
{
    if (!n)
        return "<null>";
    std::string s = std::string(n->name) + (n->attributes ? "{" : "");
    for (const upnp_xml_attr* a = n->attributes; a; a = a->next)
        s += std::string(a->name) + "=" + a->value + ";";
    s += (n->attributes ? "}" : "") + (n->value ? "=" + std::string(n->value) : "");
    if (!deep)
        return s + ";";
    s += "[";
    for (const upnp_xml_node* c = n->children; c; c = c->next)
        s += outline(c, false);
    return s + "]";
}

// The checking parser prints a line for every name outside its table; the
// lines (and any failure report among them) show only when a check failed.
struct quiet_stdout {
    quiet_stdout() { testing::internal::CaptureStdout(); }
    ~quiet_stdout()
    {
        std::string out = testing::internal::GetCapturedStdout();
        if (testing::Test::HasFailure())
            fputs(out.c_str(), stdout);
    }
};

const char didl_item[] =
    "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
    "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\">"
    "<item id=\"\" parentID=\"DLNA.ORG_AnyContainer\" restricted=\"0\">"
    "<dc:title>Holiday</dc:title><upnp:class>object.item.imageItem.photo</upnp:class>"
    "<dc:date>2011-05-04T10:20:30</dc:date>"
    "<res protocolInfo=\"http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_LRG\" size=\"1234\"></res>"
    "</item></DIDL-Lite>";


// What each parser builds; checked null: the same as the plain parser. The
// plain parser keeps what it could read of a truncated document; the
// checking one refuses a child it could not read but skips "<!" declarations.
struct shape_case { const char* doc; const char* plain; int32_t consumed; const char* checked = nullptr; };

const shape_case shape_cases[] = {
    {"<item id=\"1\"\n\tparentID='0' restricted=1>x</item>", "item{restricted=1;parentID=0;id=1;}=x[]", 48},
    {"<a x=\"1\"  \r\n >v</a>", "a{x=1;}=v[]", 19}, {"<a/>", "a[]", 3}, {"<a b = \"1\" >v</a>", "a{b=1;}=v[]", 17},
    {"<a x=\"1\"/>v</a>", "a{x=1;}[]", 9},           // self-closed: no value; up to the '/' and one more
    {"<a b=\"x>y\" c='p/q r' d=\"it's\"/>", "a{d=it's;c=p/q r;b=x>y;}[]", 30},   // quotes hide '>', '/' and blanks
    {"<a b=x/y/>", "a{b=x;}[]", 7},   // unquoted runs to '/'
    {"<a b=\"&lt;&amp;&quot;\"/>", "a{b=<&\";}[]", 23}, {"<a b=pre\"in\"post/>", "a{b=in;}[]", 17},
    {"<a b=\"open>", "a{b=\"open>;}[]", 11},         // no closing quote: the whole stretch
    {"<r><a t=\"<b>\">1</a><c>2</c></r>", "r[a{t=<b>;}=1;c=2;]", 31},            // a quoted '<' starts no tag
    {"<r>before<a>1</a>between<b>2</b>after</r>", "r[a=1;b=2;]", 41},   // text beside children is dropped
    {"<r><a>  x y\n</a><b>&lt;i&gt; &amp;amp;</b><c/><d></d></r>", "r[a=  x y\n;b=<i> &amp;;c;d=;]", 57},
    {"<a>x</a>tail", "a=x[]", 8}, {"  <a>x</a>", "a=x[]", 10}, {"<?xml version=\"1.0\"?><a/>", "a[]", 24},
    {"<r><b>x</c><d>y</d></r>", "r[b=x;d=y;]", 23},   // a wrong end tag closes the element all the same
    {"<!DOCTYPE root><root><a>1</a></root>", "!DOCTYPE[]", 27, "root[a=1;]"},
    {"<r><!-- note --><a>1</a></r>", "r[!--;]", 28, "r[a=1;]"},
    {"<a", "<null>", 0}, {"<a><b>x</b><c>", "a[b=x;c;]", 14},   // the name runs to the end; a child kept open
    {"<a><b>x</b><c", "a[b=x;]", 13, "<null>"},       // a child without its name's end
    {"<a><b>x</b>'<c>y</c>", "a[b=x;]", 20},           // an open quote hides the rest
};

TEST(Xml, BothParsersBuildTheTreeTheTagsQuotesAndEntitiesDescribe)
{
    quiet_stdout quiet;
    for (const shape_case& c : shape_cases) {
        xml_tree plain{upnp_xml_parse(c.doc)}, checked{upnp_xml_parse_checked(c.doc)};
        EXPECT_EQ(std::make_tuple(std::string(c.plain), std::string(c.checked ? c.checked : c.plain), c.consumed),
                  std::make_tuple(outline(plain.root), outline(checked.root), plain.root ? plain.root->consumed : 0))
            << c.doc;
    }
    EXPECT_TRUE(!upnp_xml_parse(nullptr) && !upnp_xml_parse("no tag at all"));
    upnp_xml_free(nullptr);
}

// StartingIndex and RequestedCount are read by get_int: the leading number,
// clamped past the range.
TEST(Xml, LookupsTakeWholeNamesDepthFirstInDocumentOrder)
{
    const char body[] = "<?xml version=\"1.0\"?>\r\n"
                        "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
                        "<s:Body><u:Browse xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\"><ObjectID>0$1"
                        "</ObjectID><StartingIndex>10</StartingIndex><SortCriteria></SortCriteria></u:Browse></s:Body>"
                        "</s:Envelope>\r\n";
    xml_tree t{upnp_xml_parse(body)};
    ASSERT_NE(nullptr, t.root);
    EXPECT_EQ(int32_t(strlen(body) - 2), t.root->consumed);
    EXPECT_EQ("u:Browse{xmlns:u=urn:schemas-upnp-org:service:ContentDirectory:1;}[ObjectID=0$1;StartingIndex=10;"
              "SortCriteria=;]", outline(upnp_xml_find(t.root, "u:Browse")));
    EXPECT_EQ(nullptr, upnp_xml_get_value(t.root, "Browse"));      // the prefix is part of the name
    EXPECT_STREQ("http://schemas.xmlsoap.org/soap/encoding/", upnp_xml_get_attr(t.root, "s:encodingStyle"));
    EXPECT_EQ(nullptr, upnp_xml_get_attr(t.root, "encodingStyle"));
    EXPECT_EQ(nullptr, upnp_xml_get_value(nullptr, "a"));

    xml_tree r{upnp_xml_parse("<r><a><x>1</x></a><x>2</x><b><x>3</x></b></r>")};
    ASSERT_NE(nullptr, r.root);
    upnp_xml_node* second = r.root->children->next;   // a node finds itself first
    EXPECT_EQ("1|<null>|2|3", or_null(upnp_xml_get_value(r.root, "x")) + "|" + or_null(upnp_xml_get_value(r.root, "X"))
                                  + "|" + or_null(upnp_xml_get_value(second, "x")) + "|"
                                  + or_null(upnp_xml_get_value(second->next, "x")));
    EXPECT_EQ(r.root, upnp_xml_find(r.root, "r"));

    struct int_case { const char* value; int expected; };
    static const int_case cases[] = {
        {"-3", -3}, {"12abc", 12}, {"abc", 0}, {"2147483647", INT32_MAX}, {"2147483648", INT32_MAX},
        {"-2147483649", INT32_MIN}, {"99999999999999999999", INT32_MAX}, {nullptr, 0},   // null: no such element
    };
    for (const int_case& c : cases) {
        xml_tree n{upnp_xml_parse(("<r><n>" + std::string(c.value ? c.value : "") + "</n></r>").c_str())};
        EXPECT_EQ(c.expected, upnp_xml_get_int(n.root, c.value ? "n" : "missing")) << (c.value ? c.value : "(none)");
    }
}

TEST(Xml, NestingBeyondTheCapIsRefusedAndLongSiblingListsAreNot)
{
    quiet_stdout quiet;
    std::string ok, deep;
    for (int i = 0; i < UPNP_XML_MAX_DEPTH; i++)
        ok = "<e" + std::to_string(i) + ">" + ok + "</e" + std::to_string(i) + ">";
    deep = "<top>" + ok + "</top>";
    xml_tree checked_ok{upnp_xml_parse_checked(ok.c_str())}, plain_deep{upnp_xml_parse(deep.c_str())};
    EXPECT_NE(nullptr, upnp_xml_find(checked_ok.root, "e0"));
    EXPECT_EQ(nullptr, upnp_xml_parse_checked(deep.c_str()));
    EXPECT_NE(nullptr, upnp_xml_find(plain_deep.root, "e1"));
    EXPECT_EQ(nullptr, upnp_xml_find(plain_deep.root, "e0"));

    std::string wide = "<r>";
    for (int i = 0; i < 20000; i++)
        wide += "<i>" + std::to_string(i) + "</i>";
    xml_tree w{upnp_xml_parse((wide + "</r>").c_str())};
    int n = 0;
    const char* last = "";
    for (const upnp_xml_node* c = w.root ? w.root->children : nullptr; c; c = c->next, n++)
        last = c->value;
    EXPECT_EQ(std::make_tuple(20000, std::string("19999")), std::make_tuple(n, std::string(last)));
}

// An unknown attribute passes; one bad value anywhere refuses the whole
// document, which the plain parser keeps.
TEST(Xml, CheckingParserAcceptsADidlItemWithUnknownNamesButNotWithOneBadValue)
{
    quiet_stdout quiet;
    std::string doc = didl_item;
    doc.insert(doc.find(" restricted="), " vel:rating=\"5\"");
    xml_tree t{upnp_xml_parse_checked(doc.c_str())};
    EXPECT_EQ("Holiday|5|1234", or_null(upnp_xml_get_value(t.root, "dc:title")) + "|"
                                    + or_null(upnp_xml_get_attr(upnp_xml_find(t.root, "item"), "vel:rating")) + "|"
                                    + or_null(upnp_xml_get_attr(upnp_xml_find(t.root, "res"), "size")));
    struct refused_case { const char* from; const char* to; };
    static const refused_case cases[] = {
        {"2011-05-04T10:20:30", "2011-13-04T10:20:30"}, {"restricted=\"0\"", "restricted=\"yes\""},
        {"size=\"1234\"", "duration=\"1:60:00\""},
        {"<dc:title>Holiday</dc:title>", "<x><dc:title>Holiday</dc:title></x><y><dc:title></dc:title></y>"},
        {"<upnp:class>", "<><upnp:class>"},                   // an empty name
    };
    for (const refused_case& c : cases) {
        std::string bad = didl_item;
        bad.replace(bad.find(c.from), strlen(c.from), c.to);
        xml_tree checked{upnp_xml_parse_checked(bad.c_str())}, plain{upnp_xml_parse(bad.c_str())};
        EXPECT_TRUE(!checked.root && plain.root) << c.to;
    }
}

struct check_group {
    const char* name;
    std::vector<std::string> pass, fail;
};

const check_group check_groups[] = {
    {"upnp:class", {"anything at all", ""}, {}}, {"DC:TITLE", {}, {""}},   // no check; the table ignores case
    {"dc:title", {"a", std::string(256, 'a')}, {"", std::string(257, 'a')}},
    // Booleans (empty too, but no more than 5 bytes), storage media and write states: a part of the list passes.
    {"restricted", {"1", "false", "0,TRU", ""}, {"FALSE,", "yes", "True"}},
    {"upnp:storageMedium", {"HDD", "MIN", "DVD-ROM\t\t,DVD-VIDEO"}, {"", "hdd"}}, {"upnp:writeStatus", {"NOT_"}, {""}},
    {"dc:date", {"2011-05-04", "2011-00-00", "2011-05-04T24:00:00", "2011-05-04T10:20:30.123+09:00"},
     {"2011-13-04", "2011-05-04T25:00:00", "2011-05-04T10:20:30+25:00", "2011-05-04T10:20:30.123456+09:00",
      "2011-05-04T10:20:99999999999"}},   // longer than 29; no overflow into a pass
    {"duration", {"0:03:25", "0:03:25.500", "99999:59:59.999", "", "5"}, {"100000:00:00", "1:60:00"}},
    {"vel:rating", {"5"}, {}},   // unknown: passes, with a log line
};

TEST(XmlCheck, PropertyValuesFollowTheirTypes)
{
    quiet_stdout quiet;
    for (const check_group& g : check_groups)
        for (int ok : {1, 0})
            for (const std::string& value : ok ? g.pass : g.fail)
                EXPECT_EQ(ok, upnp_xml_check_property(g.name, value.c_str()))
                    << std::string(g.name) + " = " + value.substr(0, 40);
    EXPECT_EQ(0, upnp_xml_check_property(nullptr, "1"));
}

TEST(Xml, UnescapeDecodesOnceAndEscapeEscapesTwiceWithin1023Bytes)
{
    struct unescape_case { const char* in; const char* out; };
    static const unescape_case unescape_cases[] = {
        {"a &amp; b", "a & b"}, {"&lt;b&gt;&apos;&quot;", "<b>'\""}, {"x&nbsp;y", "x y"}, {"&amp;lt;", "&lt;"},
        {"&#65;&#x42;&#x4a;&#x4A;", "ABJJ"}, {"&unknown;", "&unknown;"}, {"&AMP;", "&AMP;"},
        {"&#1234;", "\xd2"}, {"&#x123;", "#"}, {"&#12345;", "&#12345;"},   // kept as one byte; ';' too far
    };
    for (const unescape_case& c : unescape_cases) {
        std::vector<char> buf(c.in, c.in + strlen(c.in) + 1);
        upnp_xml_unescape(buf.data());
        EXPECT_STREQ(c.out, buf.data()) << c.in;
    }
    upnp_xml_unescape(nullptr);

    std::string amps, fits(1023, 'a');
    for (int i = 0; i < 113; i++)
        amps += "&amp;amp;";
    const std::string escape_cases[][2] = {
        {"a<b>c", "a&amp;lt;b&amp;gt;c"}, {"R&B", "R&amp;amp;B"}, {"tab\there\n", "tab&amp;#9;here&amp;#10;"},
        {"\x1f", "&amp;#31;"}, {"\"quotes' stay\"", "\"quotes' stay\""}, {"caf\xc3\xa9", "caf\xc3\xa9"},
        {fits, fits}, {fits + "a", "<null>"}, {"", "<null>"},
        {std::string(113, '&') + "abcdef", amps + "abcdef"},   // 113 * 9 + 6 = 1023
        {std::string(113, '&') + "abcdefg", "<null>"}, {std::string(114, '&'), "<null>"},   // a piece is never cut
    };
    for (const auto& c : escape_cases) {
        char* out = upnp_xml_escape(c[0].c_str());
        EXPECT_EQ(c[1], or_null(out)) << c[0].substr(0, 20);
        free(out);
    }
    EXPECT_EQ(nullptr, upnp_xml_escape(nullptr));
}
