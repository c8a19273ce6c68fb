// Tests of the XML reader (the tree it builds from good, odd, truncated,
// deep and hostile documents), the DIDL-Lite value checks and the escapes.
#include "runtime/upnp_xml.h"

#include "control/upnp_log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Owns a parsed tree for the length of a test.
struct xml_tree {
    upnp_xml_node* root;
    explicit xml_tree(upnp_xml_node* n) : root(n) {}
    ~xml_tree() { upnp_xml_free(root); }
    xml_tree(const xml_tree&) = delete;
    xml_tree& operator=(const xml_tree&) = delete;
};

std::string or_null(const char* text) { return text ? text : "<null>"; }

std::string attr_names(const upnp_xml_node* n)
{
    std::string s;
    for (const upnp_xml_attr* a = n->attributes; a; a = a->next)
        s += std::string(a->name) + ";";
    return s;
}

std::string child_names(const upnp_xml_node* n)
{
    std::string s;
    for (const upnp_xml_node* c = n->children; c; c = c->next)
        s += std::string(c->name) + ";";
    return s;
}

std::string nested(int depth)
{
    std::string s;
    for (int i = 0; i < depth; i++)
        s += "<e" + std::to_string(i) + ">";
    s += "x";
    for (int i = depth - 1; i >= 0; i--)
        s += "</e" + std::to_string(i) + ">";
    return s;
}

// The checking parser prints a line for every name outside its table.
struct quiet_stdout {
    quiet_stdout() { testing::internal::CaptureStdout(); }
    ~quiet_stdout() { testing::internal::GetCapturedStdout(); }
};

// Stdout of one call, with the plugin channel's info lines switched on.
template <typename F>
std::string logged_stdout(F run)
{
    upnp_log_set_mode(UPNP_LOG_PLUGIN);
    upnp_log_set_level(UPNP_LOG_INFO);
    testing::internal::CaptureStdout();
    run();
    std::string out = testing::internal::GetCapturedStdout();
    upnp_log_set_mode(0);
    upnp_log_set_level(15);
    return out;
}

const char browse_body[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
    "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"\r\n"
    "  s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\r\n"
    "<s:Body><u:Browse xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\">"
    "<ObjectID>0$1$2</ObjectID><BrowseFlag>BrowseDirectChildren</BrowseFlag>"
    "<Filter>dc:title,res@size</Filter><StartingIndex>10</StartingIndex>"
    "<RequestedCount>25</RequestedCount><SortCriteria></SortCriteria>"
    "</u:Browse></s:Body></s:Envelope>\r\n";

const char didl_item[] =
    "<DIDL-Lite xmlns=\"urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/\" "
    "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" xmlns:upnp=\"urn:schemas-upnp-org:metadata-1-0/upnp/\">"
    "<item id=\"\" parentID=\"DLNA.ORG_AnyContainer\" restricted=\"0\">"
    "<dc:title>Holiday</dc:title><upnp:class>object.item.imageItem.photo</upnp:class>"
    "<dc:date>2011-05-04T10:20:30</dc:date>"
    "<res protocolInfo=\"http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_LRG\" size=\"1234\"></res>"
    "</item></DIDL-Lite>";

}  // namespace

TEST(Xml, ReadsTheArgumentsOfASoapBrowseBody)
{
    xml_tree t(upnp_xml_parse(browse_body));
    ASSERT_NE(nullptr, t.root);
    EXPECT_STREQ("s:Envelope", t.root->name);
    EXPECT_EQ(10, upnp_xml_get_int(t.root, "StartingIndex"));
    EXPECT_EQ(25, upnp_xml_get_int(t.root, "RequestedCount"));
    EXPECT_EQ("ObjectID;BrowseFlag;Filter;StartingIndex;RequestedCount;SortCriteria;",
              child_names(upnp_xml_find(t.root, "u:Browse")));
    EXPECT_EQ(int32_t(strlen(browse_body) - 2), t.root->consumed);
}

TEST(Xml, MissingPiecesGiveNullOrZero)
{
    EXPECT_EQ(nullptr, upnp_xml_parse(nullptr));
    EXPECT_EQ(nullptr, upnp_xml_parse_checked(nullptr));
    EXPECT_EQ(nullptr, upnp_xml_parse("no tag at all"));
    EXPECT_EQ(nullptr, upnp_xml_get_value(nullptr, "a"));
    EXPECT_EQ(0, upnp_xml_get_int(nullptr, "a"));
    EXPECT_EQ(nullptr, upnp_xml_get_attr(nullptr, "a"));
    xml_tree t(upnp_xml_parse("<a b=\"1\">7</a>"));
    ASSERT_NE(nullptr, t.root);
    EXPECT_EQ(0, upnp_xml_get_int(t.root, "missing"));
    EXPECT_EQ(7, upnp_xml_get_int(t.root, "a"));
    upnp_xml_free(nullptr);
}

struct shape_case {
    const char* doc;
    const char* value;       // of the root
    const char* attrs;       // names in list order
    const char* children;
};

const shape_case shape_cases[] = {
    {"<item id=\"1\"\n\tparentID='0' restricted=1>x</item>", "x", "restricted;parentID;id;", ""},   // reverse order
    {"<a x=\"1\">v</a>", "v", "x;", ""},
    {"<a x=\"1\" >v</a>", "v", "x;", ""},          // a '>' right behind the blank
    {"<a x=\"1\"  \r\n >v</a>", "v", "x;", ""},    // several blanks before the '>'
    {"<a x=1\n>v</a>", "v", "x;", ""},
    {"<a x=1 y=2>v</a>", "v", "y;x;", ""},
    {"<a x=\"1\"/>v</a>", nullptr, "x;", ""},        // self-closed: no value
    {"<a x=\"1\" />v</a>", nullptr, "x;", ""},
    {"<a x=\"1\" y=\"2\" />", nullptr, "y;x;", ""},
    {"<r><a t=\"<b>\">1</a><c>2</c></r>", nullptr, "", "a;c;"},          // a quoted '<' starts no tag
    {"<r>before<a>1</a>between<b>2</b>after</r>", nullptr, "", "a;b;"},   // text beside children is dropped
};

TEST(Xml, TreeShapeFollowsTagsQuotesAndSelfClosing)
{
    for (const shape_case& c : shape_cases) {
        SCOPED_TRACE(c.doc);
        xml_tree t(upnp_xml_parse(c.doc));
        ASSERT_NE(nullptr, t.root);
        EXPECT_EQ(or_null(c.value), or_null(t.root->value));
        EXPECT_EQ(c.attrs, attr_names(t.root));
        EXPECT_EQ(c.children, child_names(t.root));
    }
}

// A query "name" is upnp_xml_get_value from the root, "elem@attr" the
// attribute of the first element so named, "@attr" one of the root.
struct lookup_case {
    const char* doc;
    std::vector<std::pair<const char*, const char*>> found;
};

const lookup_case lookup_cases[] = {
    {browse_body,
     {{"ObjectID", "0$1$2"}, {"BrowseFlag", "BrowseDirectChildren"}, {"Filter", "dc:title,res@size"},
      {"SortCriteria", ""}, {"Browse", nullptr},     // whole names only, prefix included
      {"u:Browse@xmlns:u", "urn:schemas-upnp-org:service:ContentDirectory:1"},
      {"@s:encodingStyle", "http://schemas.xmlsoap.org/soap/encoding/"}}},
    {"<item id=\"1\"\n\tparentID='0' restricted=1>x</item>", {{"@id", "1"}, {"@parentID", "0"}, {"@restricted", "1"}}},
    {"<a b=\"x>y\">v</a>", {{"@b", "x>y"}}},                  // quoted '>' stays whole
    {"<a b='p/q r'/>", {{"@b", "p/q r"}}},                     // blank and '/' inside quotes too
    {"<a b=\"it's\"/>", {{"@b", "it's"}}},                     // the other quote is plain text
    {"<a b=plain c=2/>", {{"@c", "2"}}},                        // unquoted runs to '/'
    {"<a b=x/y/>", {{"@b", "x"}}},
    {"<a b = \"1\" >v</a>", {{"@b", "1"}, {"@c", nullptr}, {"missing", nullptr}}},   // blanks around '='
    {"<a b=\"&lt;&amp;&quot;\"/>", {{"@b", "<&\""}}},           // decoded
    {"<a b=pre\"in\"post/>", {{"@b", "in"}}},                    // only the first pair is kept
    {"<a b=\"open>", {{"@b", "\"open>"}}},                       // no closing quote: whole stretch
    {"<r><a t=\"<b>\">1</a><c>2</c></r>", {{"a@t", "<b>"}, {"b", nullptr}}},
    {"<r><a>  x y\n</a><b>&lt;i&gt; &amp;amp;</b><c/><d></d></r>",
     {{"a", "  x y\n"} /* not trimmed */, {"b", "<i> &amp;"} /* decoded once */, {"c", nullptr}, {"d", ""}}},
    {"<r><a><x>1</x></a><x>2</x><b><x>3</x></b></r>",
     {{"x", "1"} /* depth first, in document order */, {"X", nullptr}}},
};

TEST(Xml, ValuesAndAttributesAreCutAndDecoded)
{
    for (const lookup_case& c : lookup_cases) {
        xml_tree t(upnp_xml_parse(c.doc));
        ASSERT_NE(nullptr, t.root) << c.doc;
        for (const auto& [query, expected] : c.found) {
            SCOPED_TRACE(std::string(c.doc).substr(0, 60) + " " + query);
            const char* at = strchr(query, '@');
            const char* found;
            if (!at)
                found = upnp_xml_get_value(t.root, query);
            else if (at == query)
                found = upnp_xml_get_attr(t.root, at + 1);
            else
                found = upnp_xml_get_attr(upnp_xml_find(t.root, std::string(query, at).c_str()), at + 1);
            EXPECT_EQ(or_null(expected), or_null(found));
        }
    }
    xml_tree t(upnp_xml_parse("<r><a><x>1</x></a><x>2</x><b><x>3</x></b></r>"));
    ASSERT_NE(nullptr, t.root);
    upnp_xml_node* second = t.root->children->next;
    EXPECT_STREQ("2", upnp_xml_get_value(second, "x"));        // a node finds itself first
    EXPECT_STREQ("3", upnp_xml_get_value(second->next, "x"));
    EXPECT_EQ(t.root, upnp_xml_find(t.root, "r"));
}

TEST(Xml, ConsumedCountsFromWhereTheCallBegan)
{
    struct consumed_case { const char* doc; int32_t consumed; };
    static const consumed_case cases[] = {
        {"<a>x</a>tail", 8}, {"  <a>x</a>", 10},
        {"<a/>", 3},                 // up to the '/' and one more
        {"<a b=\"1\"/>", 9}, {"<a>x</b>", 8}, {"<?xml version=\"1.0\"?><a/>", 24},
    };
    for (const consumed_case& c : cases) {
        SCOPED_TRACE(c.doc);
        xml_tree t(upnp_xml_parse(c.doc));
        ASSERT_NE(nullptr, t.root);
        EXPECT_EQ(c.consumed, t.root->consumed);
    }
}

TEST(Xml, PrologIsSkippedByBothParsersDeclarationsOnlyByTheChecking)
{
    quiet_stdout quiet;
    struct skip_case { const char* doc; const char* plain_root; const char* checked_root; };
    static const skip_case cases[] = {
        {"<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<root><a>1</a></root>", "root", "root"},
        {"<!DOCTYPE root><root><a>1</a></root>", "!DOCTYPE", "root"},
        {"<r><!-- note --><a>1</a></r>", nullptr, "r"},
    };
    for (const skip_case& c : cases) {
        SCOPED_TRACE(c.doc);
        xml_tree plain(upnp_xml_parse(c.doc));
        xml_tree checked(upnp_xml_parse_checked(c.doc));
        ASSERT_NE(nullptr, plain.root);
        ASSERT_NE(nullptr, checked.root);
        if (c.plain_root) {
            EXPECT_STREQ(c.plain_root, plain.root->name);
        }
        EXPECT_STREQ(c.checked_root, checked.root->name);
        EXPECT_EQ("a;", child_names(checked.root));
        EXPECT_STREQ("1", upnp_xml_get_value(checked.root, "a"));
    }
}

TEST(Xml, WrongEndTagClosesTheElementWithOneLogLine)
{
    upnp_xml_node* root = nullptr;
    std::string out = logged_stdout([&] { root = upnp_xml_parse("<r><b>x</c><d>y</d></r>"); });
    xml_tree t(root);
    ASSERT_NE(nullptr, root);
    EXPECT_EQ("b;d;", child_names(root));
    EXPECT_STREQ("x", upnp_xml_get_value(root, "b"));
    EXPECT_STREQ("y", upnp_xml_get_value(root, "d"));
    EXPECT_NE(std::string::npos, out.find("XML: bad end tag!\nb\n"));
    EXPECT_EQ(out.find("bad end tag"), out.rfind("bad end tag"));   // once
    std::string quiet = logged_stdout([] { upnp_xml_free(upnp_xml_parse("<r><b>x</b></r>")); });
    EXPECT_EQ(std::string::npos, quiet.find("bad end tag"));
}

TEST(Xml, NestingBeyondTheCapIsRefused)
{
    quiet_stdout quiet;
    std::string ok = nested(UPNP_XML_MAX_DEPTH), deep = nested(UPNP_XML_MAX_DEPTH + 1);
    std::string last = "e" + std::to_string(UPNP_XML_MAX_DEPTH - 1), over = "e" + std::to_string(UPNP_XML_MAX_DEPTH);
    xml_tree plain_ok(upnp_xml_parse(ok.c_str()));
    xml_tree checked_ok(upnp_xml_parse_checked(ok.c_str()));
    ASSERT_NE(nullptr, plain_ok.root);
    ASSERT_NE(nullptr, checked_ok.root);
    EXPECT_STREQ("x", upnp_xml_get_value(checked_ok.root, last.c_str()));
    EXPECT_EQ(nullptr, upnp_xml_parse_checked(deep.c_str()));
    xml_tree plain_deep(upnp_xml_parse(deep.c_str()));
    ASSERT_NE(nullptr, plain_deep.root);
    EXPECT_NE(nullptr, upnp_xml_find(plain_deep.root, last.c_str()));
    EXPECT_EQ(nullptr, upnp_xml_find(plain_deep.root, over.c_str()));

    std::string hostile;                         // would exhaust the stack without the cap
    for (int i = 0; i < 100000; i++)
        hostile += "<a>";
    xml_tree h(upnp_xml_parse(hostile.c_str()));
    ASSERT_NE(nullptr, h.root);
    int depth = 0;
    for (const upnp_xml_node* n = h.root; n; n = n->children)
        depth++;
    EXPECT_EQ(UPNP_XML_MAX_DEPTH, depth);
    EXPECT_EQ(nullptr, upnp_xml_parse_checked(hostile.c_str()));
}

TEST(Xml, LongSiblingListsAreKeptInOrder)
{
    std::string doc = "<r>";
    for (int i = 0; i < 20000; i++)
        doc += "<i>" + std::to_string(i) + "</i>";
    xml_tree t(upnp_xml_parse((doc + "</r>").c_str()));
    ASSERT_NE(nullptr, t.root);
    int n = 0;
    const upnp_xml_node* last = nullptr;
    for (const upnp_xml_node* c = t.root->children; c; c = c->next, n++)
        last = c;
    EXPECT_EQ(20000, n);
    ASSERT_NE(nullptr, last);
    EXPECT_STREQ("19999", last->value);
}

struct truncated_case {
    const char* doc;
    const char* plain_children;   // null: the plain parser gives null too
    bool checked_ok;
};

const truncated_case truncated_cases[] = {
    {"<a", nullptr, false},                    // the name runs to the end
    {"<a>", "", true},
    {"<a><b>x", "b;", true},
    {"<a><b>x</b><c", "b;", false},            // a child without its name's end
    {"<a><b>x</b><c>", "b;c;", true},
    {"<a b=\"1", "", true},
    {"<a b", "", true},
    {"<a><b>x</", "b;", true},
    {"<a><b>x</b", "b;", true},
    {"<a><b/>", "b;", true},
    {"<a><b>x</b>'<c>y</c>", "b;", true},       // an open quote hides the rest
};

TEST(Xml, TruncatedDocumentsGiveWhatCouldBeRead)
{
    quiet_stdout quiet;
    for (const truncated_case& c : truncated_cases) {
        SCOPED_TRACE(c.doc);
        xml_tree plain(upnp_xml_parse(c.doc));
        if (!c.plain_children) {
            EXPECT_EQ(nullptr, plain.root);
        } else {
            ASSERT_NE(nullptr, plain.root);
            EXPECT_EQ(c.plain_children, child_names(plain.root));
            EXPECT_LE(plain.root->consumed, int32_t(strlen(c.doc)));
        }
        xml_tree checked(upnp_xml_parse_checked(c.doc));
        EXPECT_EQ(c.checked_ok, checked.root != nullptr);
    }
}

TEST(Xml, EveryPrefixOfADocumentParsesInsideItsBuffer)
{
    quiet_stdout quiet;
    std::string doc = std::string(browse_body) + didl_item;
    for (size_t n = 0; n <= doc.size(); n++) {
        // An exact-size copy, so that a read past the terminator is caught under ASan.
        std::vector<char> text(doc.begin(), doc.begin() + long(n));
        text.push_back(0);
        upnp_xml_node* plain = upnp_xml_parse(text.data());
        EXPECT_LE(plain ? plain->consumed : 0, int32_t(n));
        upnp_xml_free(plain);
        upnp_xml_free(upnp_xml_parse_checked(text.data()));
    }
}

// An attribute outside the table passes, with its two log lines.
TEST(Xml, CheckingParserAcceptsAPlainDidlItemAndUnknownNames)
{
    std::string doc = didl_item;
    doc.insert(doc.find(" restricted="), " vel:rating=\"5\"");
    upnp_xml_node* root = nullptr;
    std::string out = logged_stdout([&] { root = upnp_xml_parse_checked(doc.c_str()); });
    xml_tree t(root);
    ASSERT_NE(nullptr, root);
    EXPECT_STREQ("Holiday", upnp_xml_get_value(root, "dc:title"));
    EXPECT_STREQ("5", upnp_xml_get_attr(upnp_xml_find(root, "item"), "vel:rating"));
    EXPECT_STREQ("1234", upnp_xml_get_attr(upnp_xml_find(root, "res"), "size"));
    EXPECT_NE(std::string::npos, out.find("PLUGIN:XML: Can't process XML property!! = vel:rating\n"));
    EXPECT_NE(std::string::npos, out.find("ERROR : XML: Can't process XML property!! = vel:rating\n"));
    EXPECT_EQ(out.find("ERROR : XML"), out.rfind("ERROR : XML"));   // every other name is known
}

TEST(Xml, CheckingParserRefusesTheWholeDocumentOnOneBadValue)
{
    quiet_stdout quiet;
    struct refused_case { const char* what; const char* from; const char* to; };
    static const refused_case cases[] = {
        {"empty title", "<dc:title>Holiday</dc:title>", "<dc:title></dc:title>"},
        {"month 13", "2011-05-04T10:20:30", "2011-13-04T10:20:30"},
        {"restricted word", "restricted=\"0\"", "restricted=\"yes\""},
        {"bad duration", "size=\"1234\"", "duration=\"1:60:00\""},
        {"storage medium", "<upnp:class>", "<upnp:storageMedium>FLOPPY</upnp:storageMedium><upnp:class>"},
        {"deep child", "<dc:title>Holiday</dc:title>",
         "<x><dc:title>Holiday</dc:title></x><y><dc:title></dc:title></y>"},
        {"empty name", "<upnp:class>", "<><upnp:class>"},
    };
    for (const refused_case& c : cases) {
        SCOPED_TRACE(c.what);
        std::string doc = didl_item;
        size_t at = doc.find(c.from);
        ASSERT_NE(std::string::npos, at);
        doc.replace(at, strlen(c.from), c.to);
        EXPECT_EQ(nullptr, upnp_xml_parse_checked(doc.c_str()));
        xml_tree plain(upnp_xml_parse(doc.c_str()));
        EXPECT_NE(nullptr, plain.root);
    }
}

struct check_group {
    const char* name;
    std::vector<std::string> pass, fail;
};

const check_group check_groups[] = {
    {"res", {""}, {}},
    {"upnp:class", {"anything at all"}, {}},
    {"DC:TITLE", {}, {""}},                            // the table ignores case
    {"dc:title", {"a", std::string(256, 'a')}, {"", std::string(257, 'a')}},
    {"upnp:genre", {""}, {}},                          // a title type without the check
    // Booleans: a part of the list passes, empty too, but no more than 5 bytes.
    {"restricted", {"1", "false", "0,TRU"}, {"FALSE,", "yes", "True"}},
    {"searchable", {"RU"}, {}},
    {"includeDerived", {""}, {}},
    // Storage medium and write status: a part of one item passes.
    {"upnp:storageMedium", {"HDD", "MIN", "VIDEO8\t\t", "DVD-ROM\t\t,DVD-VIDEO"}, {"VIDEO8,HI8", "", "hdd"}},
    {"upnp:writeStatus", {"WRITABLE", "NOT_"}, {"", "READONLY"}},
    {"dc:date",
     {"2011-05-04", "2011-00-00", "2011-05-04T10:20:30", "2011-05-04T24:00:00", "2011-05-04T10:20:30.123",
      "2011-05-04T10:20:30.123+09:00", "2011-05-04T10:20:30-05:30", "2011-05-04T10:20:30.5-05:00"},
     {"2011-13-04", "2011-05-32", "10000-01-01", "2011-05", "2011", "", "2011-05-04T", "2011-05-04T25:00:00",
      "2011-05-04T10:20",                             // no seconds
      "2011-05-04T10:60:00", "2011-05-04T10:20:60", "2011-05-04T10:20:30+25:00", "2011-05-04T10:20:30+09:60",
      "2011-05-04T10:20:30.123456+09:00",             // longer than 29
      "2011-05-04T10:20:99999999999"}},               // no overflow into a pass
    {"duration", {"0:03:25", "0:03:25.500", "99999:59:59.999", "", "5"},
     {"100000:00:00", "123456:00:00", "1:60:00", "1:00:60", "1:001:00", "1:00:00.1000",
      "1:00:00:00"}},                                 // the rest is the seconds
    {"Duration", {"1:2:3"}, {}},
    {"vel:rating", {"5"}, {}},                       // unknown: passes, with a log line
};

TEST(XmlCheck, PropertyValuesFollowTheirTypes)
{
    quiet_stdout quiet;
    for (const check_group& g : check_groups)
        for (int ok : {1, 0})
            for (const std::string& value : ok ? g.pass : g.fail) {
                SCOPED_TRACE(std::string(g.name) + " = " + value.substr(0, 40));
                EXPECT_EQ(ok, upnp_xml_check_property(g.name, value.c_str()));
            }
    EXPECT_EQ(0, upnp_xml_check_property(nullptr, "1"));
    EXPECT_EQ(0, upnp_xml_check_property("dc:title", nullptr));
}

TEST(Xml, UnescapeDecodesInOnePass)
{
    struct unescape_case { const char* in; const char* out; };
    static const unescape_case cases[] = {
        {"a &amp; b", "a & b"}, {"&lt;b&gt;", "<b>"}, {"&apos;&quot;", "'\""}, {"x&nbsp;y", "x y"},
        {"&amp;lt;", "&lt;"}, {"&amp;amp;", "&amp;"},      // one pass
        {"&#65;&#x42;", "AB"}, {"&#x4a;&#x4A;", "JJ"},
        {"&#1234;", "\xd2"},                                // kept as one byte
        {"&#12345;", "&#12345;"},                           // ';' too far
        {"&#x123;", "#"}, {"&#65", "&#65"}, {"&#", "&#"}, {"&", "&"}, {"&unknown;", "&unknown;"},
        {"&AMP;", "&AMP;"}, {"&lt", "&lt"}, {"plain", "plain"}, {"", ""},
    };
    for (const unescape_case& c : cases) {
        SCOPED_TRACE(c.in);
        std::vector<char> buf(c.in, c.in + strlen(c.in) + 1);
        upnp_xml_unescape(buf.data());
        EXPECT_STREQ(c.out, buf.data());
    }
    upnp_xml_unescape(nullptr);
}

TEST(Xml, EscapeEscapesTwiceAndRefusesOutputBeyond1023Bytes)
{
    std::string amps, fits(1023, 'a');
    for (int i = 0; i < 113; i++)
        amps += "&amp;amp;";
    struct escape_case { std::string in, out; };
    const escape_case cases[] = {
        {"a<b>c", "a&amp;lt;b&amp;gt;c"}, {"R&B", "R&amp;amp;B"}, {"tab\there\n", "tab&amp;#9;here&amp;#10;"},
        {"\x1f", "&amp;#31;"}, {"\"quotes' stay\"", "\"quotes' stay\""}, {"caf\xc3\xa9", "caf\xc3\xa9"},
        {fits, fits}, {fits + "a", "<null>"},
        {std::string(113, '&') + "abcdef", amps + "abcdef"},   // 113 * 9 + 6 = 1023
        {std::string(113, '&') + "abcdefg", "<null>"},
        {std::string(114, '&'), "<null>"},                      // a piece is never cut
        {"", "<null>"},
    };
    for (const escape_case& c : cases) {
        SCOPED_TRACE(c.in.substr(0, 20));
        char* out = upnp_xml_escape(c.in.c_str());
        EXPECT_EQ(c.out, or_null(out));
        free(out);
    }
    EXPECT_EQ(nullptr, upnp_xml_escape(nullptr));
}
