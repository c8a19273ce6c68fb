#include "runtime/upnp_xml.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "control/upnp_log.h"

namespace {

// Owns a parsed tree for the length of a test.
struct xml_tree {
    upnp_xml_node* root;
    explicit xml_tree(upnp_xml_node* n) : root(n) {}
    ~xml_tree() { upnp_xml_free(root); }
    xml_tree(const xml_tree&) = delete;
    xml_tree& operator=(const xml_tree&) = delete;
};

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

int count_of(const std::string& text, const char* piece)
{
    int n = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        n++;
    return n;
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
    EXPECT_STREQ("0$1$2", upnp_xml_get_value(t.root, "ObjectID"));
    EXPECT_STREQ("BrowseDirectChildren", upnp_xml_get_value(t.root, "BrowseFlag"));
    EXPECT_STREQ("dc:title,res@size", upnp_xml_get_value(t.root, "Filter"));
    EXPECT_EQ(10, upnp_xml_get_int(t.root, "StartingIndex"));
    EXPECT_EQ(25, upnp_xml_get_int(t.root, "RequestedCount"));
    EXPECT_STREQ("", upnp_xml_get_value(t.root, "SortCriteria"));
    EXPECT_EQ(nullptr, upnp_xml_get_value(t.root, "Browse"));    // whole names only, prefix included
    upnp_xml_node* browse = upnp_xml_find(t.root, "u:Browse");
    ASSERT_NE(nullptr, browse);
    EXPECT_STREQ("urn:schemas-upnp-org:service:ContentDirectory:1", upnp_xml_get_attr(browse, "xmlns:u"));
    EXPECT_EQ("ObjectID;BrowseFlag;Filter;StartingIndex;RequestedCount;SortCriteria;", child_names(browse));
    EXPECT_STREQ("http://schemas.xmlsoap.org/soap/encoding/", upnp_xml_get_attr(t.root, "s:encodingStyle"));
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
    EXPECT_EQ(nullptr, upnp_xml_get_attr(t.root, "c"));
    EXPECT_EQ(0, upnp_xml_get_int(t.root, "missing"));
    EXPECT_EQ(7, upnp_xml_get_int(t.root, "a"));
    upnp_xml_free(nullptr);
}

TEST(Xml, AttributesRunInReverseDocumentOrder)
{
    xml_tree t(upnp_xml_parse("<item id=\"1\"\n\tparentID='0' restricted=1>x</item>"));
    ASSERT_NE(nullptr, t.root);
    EXPECT_EQ("restricted;parentID;id;", attr_names(t.root));
    EXPECT_STREQ("1", upnp_xml_get_attr(t.root, "id"));
    EXPECT_STREQ("0", upnp_xml_get_attr(t.root, "parentID"));
    EXPECT_STREQ("1", upnp_xml_get_attr(t.root, "restricted"));
    EXPECT_STREQ("x", t.root->value);
}

struct attr_case {
    const char* doc;
    const char* name;
    const char* value;
};

static const attr_case attr_cases[] = {
    {"<a b=\"x>y\">v</a>", "b", "x>y"},                 // quoted '>' stays whole
    {"<a b='p/q r'/>", "b", "p/q r"},                    // blank and '/' inside quotes too
    {"<a b=\"it's\"/>", "b", "it's"},                    // the other quote is plain text
    {"<a b=plain c=2/>", "c", "2"},                       // unquoted runs to '/'
    {"<a b=x/y/>", "b", "x"},
    {"<a b = \"1\" >v</a>", "b", "1"},                   // blanks around '='
    {"<a b=\"&lt;&amp;&quot;\"/>", "b", "<&\""},          // decoded
    {"<a b=pre\"in\"post/>", "b", "in"},                   // only the first pair is kept
    {"<a b=\"open>", "b", "\"open>"},                      // no closing quote: whole stretch
};

TEST(Xml, AttributeValuesAreCutAndDecoded)
{
    for (const attr_case& c : attr_cases) {
        SCOPED_TRACE(c.doc);
        xml_tree t(upnp_xml_parse(c.doc));
        ASSERT_NE(nullptr, t.root);
        EXPECT_STREQ(c.value, upnp_xml_get_attr(t.root, c.name));
    }
}

TEST(Xml, AttributeListEndsWhereTheTagDoes)
{
    struct end_case { const char* doc; const char* value; const char* attrs; };
    static const end_case cases[] = {
        {"<a x=\"1\">v</a>", "v", "x;"},
        {"<a x=\"1\" >v</a>", "v", "x;"},          // a '>' right behind the blank
        {"<a x=\"1\"  \r\n >v</a>", "v", "x;"},    // several blanks before the '>'
        {"<a x=1\n>v</a>", "v", "x;"},
        {"<a x=1 y=2>v</a>", "v", "y;x;"},
        {"<a x=\"1\"/>v</a>", nullptr, "x;"},        // self-closed: no value
        {"<a x=\"1\" />v</a>", nullptr, "x;"},
        {"<a x=\"1\" y=\"2\" />", nullptr, "y;x;"},
    };
    for (const end_case& c : cases) {
        SCOPED_TRACE(c.doc);
        xml_tree t(upnp_xml_parse(c.doc));
        ASSERT_NE(nullptr, t.root);
        EXPECT_STREQ(c.value, t.root->value);
        EXPECT_EQ(c.attrs, attr_names(t.root));
    }
}

TEST(Xml, QuotedAngleBracketStartsNoTag)
{
    xml_tree t(upnp_xml_parse("<r><a t=\"<b>\">1</a><c>2</c></r>"));
    ASSERT_NE(nullptr, t.root);
    EXPECT_EQ("a;c;", child_names(t.root));
    EXPECT_EQ(nullptr, upnp_xml_find(t.root, "b"));
    EXPECT_STREQ("<b>", upnp_xml_get_attr(t.root->children, "t"));
}

TEST(Xml, LeafValuesAreDecodedButNotTrimmed)
{
    xml_tree t(upnp_xml_parse("<r><a>  x y\n</a><b>&lt;i&gt; &amp;amp;</b><c/><d></d></r>"));
    ASSERT_NE(nullptr, t.root);
    EXPECT_STREQ("  x y\n", upnp_xml_get_value(t.root, "a"));
    EXPECT_STREQ("<i> &amp;", upnp_xml_get_value(t.root, "b"));
    EXPECT_EQ(nullptr, upnp_xml_get_value(t.root, "c"));
    EXPECT_STREQ("", upnp_xml_get_value(t.root, "d"));
}

TEST(Xml, TextBesideChildrenIsDropped)
{
    xml_tree t(upnp_xml_parse("<r>before<a>1</a>between<b>2</b>after</r>"));
    ASSERT_NE(nullptr, t.root);
    EXPECT_EQ(nullptr, t.root->value);
    EXPECT_EQ("a;b;", child_names(t.root));
}

TEST(Xml, ConsumedCountsFromWhereTheCallBegan)
{
    struct consumed_case { const char* doc; int32_t consumed; };
    static const consumed_case cases[] = {
        {"<a>x</a>tail", 8},
        {"  <a>x</a>", 10},
        {"<a/>", 3},                 // up to the '/' and one more
        {"<a b=\"1\"/>", 9},
        {"<a>x</b>", 8},
        {"<?xml version=\"1.0\"?><a/>", 24},
    };
    for (const consumed_case& c : cases) {
        SCOPED_TRACE(c.doc);
        xml_tree t(upnp_xml_parse(c.doc));
        ASSERT_NE(nullptr, t.root);
        EXPECT_EQ(c.consumed, t.root->consumed);
    }
}

TEST(Xml, PrologIsSkippedByBothParsers)
{
    quiet_stdout quiet;
    const char* doc = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<root><a>1</a></root>";
    xml_tree plain(upnp_xml_parse(doc));
    xml_tree checked(upnp_xml_parse_checked(doc));
    ASSERT_NE(nullptr, plain.root);
    ASSERT_NE(nullptr, checked.root);
    EXPECT_STREQ("root", plain.root->name);
    EXPECT_STREQ("root", checked.root->name);
    EXPECT_STREQ("1", upnp_xml_get_value(checked.root, "a"));
}

TEST(Xml, DeclarationsAreSkippedOnlyByTheCheckingParser)
{
    quiet_stdout quiet;
    const char* doc = "<!DOCTYPE root><root><a>1</a></root>";
    xml_tree plain(upnp_xml_parse(doc));
    xml_tree checked(upnp_xml_parse_checked(doc));
    ASSERT_NE(nullptr, plain.root);
    ASSERT_NE(nullptr, checked.root);
    EXPECT_STREQ("!DOCTYPE", plain.root->name);
    EXPECT_STREQ("root", checked.root->name);

    xml_tree comment(upnp_xml_parse_checked("<r><!-- note --><a>1</a></r>"));
    ASSERT_NE(nullptr, comment.root);
    EXPECT_EQ("a;", child_names(comment.root));
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
    EXPECT_EQ(1, count_of(out, "bad end tag"));

    std::string quiet = logged_stdout([] { upnp_xml_free(upnp_xml_parse("<r><b>x</b></r>")); });
    EXPECT_EQ(std::string::npos, quiet.find("bad end tag"));
}

TEST(Xml, FindWalksDepthFirstInDocumentOrder)
{
    xml_tree t(upnp_xml_parse("<r><a><x>1</x></a><x>2</x><b><x>3</x></b></r>"));
    ASSERT_NE(nullptr, t.root);
    EXPECT_STREQ("1", upnp_xml_get_value(t.root, "x"));
    upnp_xml_node* second = t.root->children->next;
    EXPECT_STREQ("2", upnp_xml_get_value(second, "x"));
    EXPECT_STREQ("3", upnp_xml_get_value(second->next, "x"));
    EXPECT_EQ(t.root, upnp_xml_find(t.root, "r"));
    EXPECT_EQ(nullptr, upnp_xml_find(t.root, "X"));
}

TEST(Xml, NestingBeyondTheCapIsRefused)
{
    quiet_stdout quiet;
    std::string ok = nested(UPNP_XML_MAX_DEPTH);
    std::string deep = nested(UPNP_XML_MAX_DEPTH + 1);
    std::string last = "e" + std::to_string(UPNP_XML_MAX_DEPTH - 1);
    std::string over = "e" + std::to_string(UPNP_XML_MAX_DEPTH);

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
    doc += "</r>";
    xml_tree t(upnp_xml_parse(doc.c_str()));
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

static const truncated_case truncated_cases[] = {
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
        if (plain) {
            EXPECT_LE(plain->consumed, int32_t(n));
        }
        upnp_xml_free(plain);
        upnp_xml_free(upnp_xml_parse_checked(text.data()));
    }
}

TEST(Xml, CheckingParserAcceptsAPlainDidlItem)
{
    std::string doc = didl_item;
    doc.insert(doc.find(" restricted="), " vel:rating=\"5\"");
    upnp_xml_node* root = nullptr;
    std::string out = logged_stdout([&] { root = upnp_xml_parse_checked(doc.c_str()); });
    xml_tree t(root);
    ASSERT_NE(nullptr, root);
    EXPECT_STREQ("Holiday", upnp_xml_get_value(root, "dc:title"));
    EXPECT_STREQ("5", upnp_xml_get_attr(upnp_xml_find(root, "item"), "vel:rating"));
    upnp_xml_node* res = upnp_xml_find(root, "res");
    ASSERT_NE(nullptr, res);
    EXPECT_STREQ("1234", upnp_xml_get_attr(res, "size"));
    // An attribute outside the table passes, with its lines.
    EXPECT_NE(std::string::npos, out.find("ERROR : XML: Can't process XML property!! = vel:rating\n"));
    EXPECT_EQ(1, count_of(out, "ERROR : XML: Can't process"));   // every other name is known
}

struct refused_case {
    const char* what;
    const char* from;
    const char* to;
};

static const refused_case refused_cases[] = {
    {"empty title", "<dc:title>Holiday</dc:title>", "<dc:title></dc:title>"},
    {"month 13", "2011-05-04T10:20:30", "2011-13-04T10:20:30"},
    {"restricted word", "restricted=\"0\"", "restricted=\"yes\""},
    {"bad duration", "size=\"1234\"", "duration=\"1:60:00\""},
    {"storage medium", "<upnp:class>", "<upnp:storageMedium>FLOPPY</upnp:storageMedium><upnp:class>"},
    {"deep child", "<dc:title>Holiday</dc:title>", "<x><dc:title>Holiday</dc:title></x><y><dc:title></dc:title></y>"},
    {"empty name", "<upnp:class>", "<><upnp:class>"},
};

TEST(Xml, CheckingParserRefusesTheWholeDocumentOnOneBadValue)
{
    quiet_stdout quiet;
    for (const refused_case& c : refused_cases) {
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

TEST(XmlCheck, UnknownPropertyPassesWithALogLine)
{
    int result = 0;
    std::string out = logged_stdout([&] { result = upnp_xml_check_property("vel:rating", "5"); });
    EXPECT_EQ(1, result);
    EXPECT_NE(std::string::npos, out.find("PLUGIN:XML: Can't process XML property!! = vel:rating\n"));
    EXPECT_NE(std::string::npos, out.find("ERROR : XML: Can't process XML property!! = vel:rating\n"));
}

struct check_case {
    const char* name;
    const char* value;
    int ok;
};

static std::string long_text(size_t n)
{
    return std::string(n, 'a');
}

static const std::string title_256 = long_text(256);
static const std::string title_257 = long_text(257);

static const check_case check_cases[] = {
    {nullptr, "1", 0},
    {"dc:title", nullptr, 0},
    {"res", "", 1},
    {"upnp:class", "anything at all", 1},
    {"DC:TITLE", "", 0},                              // the table ignores case
    // titles: 1 to 256 bytes
    {"dc:title", "a", 1},
    {"dc:title", "", 0},
    {"dc:title", title_256.c_str(), 1},
    {"dc:title", title_257.c_str(), 0},
    {"upnp:genre", "", 1},                            // a title type without the check
    // booleans: a part of the list passes, empty too
    {"restricted", "1", 1},
    {"restricted", "false", 1},
    {"searchable", "RU", 1},
    {"includeDerived", "", 1},
    {"restricted", "0,TRU", 1},
    {"restricted", "FALSE,", 0},                      // longer than 5
    {"restricted", "yes", 0},
    {"restricted", "True", 0},
    // storage medium and write status: a part of one item passes
    {"upnp:storageMedium", "HDD", 1},
    {"upnp:storageMedium", "MIN", 1},
    {"upnp:storageMedium", "VIDEO8\t\t", 1},
    {"upnp:storageMedium", "DVD-ROM\t\t,DVD-VIDEO", 1},
    {"upnp:storageMedium", "VIDEO8,HI8", 0},
    {"upnp:storageMedium", "", 0},
    {"upnp:storageMedium", "hdd", 0},
    {"upnp:writeStatus", "WRITABLE", 1},
    {"upnp:writeStatus", "NOT_", 1},
    {"upnp:writeStatus", "", 0},
    {"upnp:writeStatus", "READONLY", 0},
    // dates
    {"dc:date", "2011-05-04", 1},
    {"dc:date", "2011-13-04", 0},
    {"dc:date", "2011-00-00", 1},
    {"dc:date", "2011-05-32", 0},
    {"dc:date", "10000-01-01", 0},
    {"dc:date", "2011-05", 0},
    {"dc:date", "2011", 0},
    {"dc:date", "", 0},
    {"dc:date", "2011-05-04T10:20:30", 1},
    {"dc:date", "2011-05-04T10:20", 0},               // no seconds
    {"dc:date", "2011-05-04T", 0},
    {"dc:date", "2011-05-04T24:00:00", 1},
    {"dc:date", "2011-05-04T25:00:00", 0},
    {"dc:date", "2011-05-04T10:60:00", 0},
    {"dc:date", "2011-05-04T10:20:60", 0},
    {"dc:date", "2011-05-04T10:20:30.123", 1},
    {"dc:date", "2011-05-04T10:20:30.123+09:00", 1},
    {"dc:date", "2011-05-04T10:20:30-05:30", 1},
    {"dc:date", "2011-05-04T10:20:30+25:00", 0},
    {"dc:date", "2011-05-04T10:20:30+09:60", 0},
    {"dc:date", "2011-05-04T10:20:30.5-05:00", 1},
    {"dc:date", "2011-05-04T10:20:30.123456+09:00", 0},   // longer than 29
    {"dc:date", "2011-05-04T10:20:99999999999", 0},      // no overflow into a pass
    // durations
    {"duration", "0:03:25", 1},
    {"duration", "0:03:25.500", 1},
    {"duration", "99999:59:59.999", 1},
    {"duration", "100000:00:00", 0},
    {"duration", "123456:00:00", 0},
    {"duration", "1:60:00", 0},
    {"duration", "1:00:60", 0},
    {"duration", "1:001:00", 0},
    {"duration", "1:00:00.1000", 0},
    {"duration", "1:00:00:00", 0},                   // the rest is the seconds
    {"duration", "", 1},
    {"duration", "5", 1},
    {"Duration", "1:2:3", 1},
};

TEST(XmlCheck, PropertyValuesFollowTheirTypes)
{
    quiet_stdout quiet;
    for (const check_case& c : check_cases) {
        SCOPED_TRACE(std::string(c.name ? c.name : "(null)") + " = " +
                     (c.value ? std::string(c.value).substr(0, 40) : "(null)"));
        EXPECT_EQ(c.ok, upnp_xml_check_property(c.name, c.value));
    }
}

struct unescape_case {
    const char* in;
    const char* out;
};

static const unescape_case unescape_cases[] = {
    {"a &amp; b", "a & b"},
    {"&lt;b&gt;", "<b>"},
    {"&apos;&quot;", "'\""},
    {"x&nbsp;y", "x y"},
    {"&amp;lt;", "&lt;"},             // one pass
    {"&amp;amp;", "&amp;"},
    {"&#65;&#x42;", "AB"},
    {"&#x4a;&#x4A;", "JJ"},
    {"&#1234;", "\xd2"},              // kept as one byte
    {"&#12345;", "&#12345;"},         // ';' too far
    {"&#x123;", "#"},
    {"&#65", "&#65"},
    {"&#", "&#"},
    {"&", "&"},
    {"&unknown;", "&unknown;"},
    {"&AMP;", "&AMP;"},
    {"&lt", "&lt"},
    {"plain", "plain"},
    {"", ""},
};

TEST(Xml, UnescapeDecodesInOnePass)
{
    for (const unescape_case& c : unescape_cases) {
        SCOPED_TRACE(c.in);
        std::vector<char> buf(c.in, c.in + strlen(c.in) + 1);
        upnp_xml_unescape(buf.data());
        EXPECT_STREQ(c.out, buf.data());
    }
    upnp_xml_unescape(nullptr);
}

TEST(Xml, EscapeEscapesTwice)
{
    struct escape_case { const char* in; const char* out; };
    static const escape_case cases[] = {
        {"a<b>c", "a&amp;lt;b&amp;gt;c"},
        {"R&B", "R&amp;amp;B"},
        {"tab\there\n", "tab&amp;#9;here&amp;#10;"},
        {"\x1f", "&amp;#31;"},
        {"\"quotes' stay\"", "\"quotes' stay\""},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
    };
    for (const escape_case& c : cases) {
        SCOPED_TRACE(c.in);
        char* out = upnp_xml_escape(c.in);
        EXPECT_STREQ(c.out, out);
        free(out);
    }
    EXPECT_EQ(nullptr, upnp_xml_escape(""));
    EXPECT_EQ(nullptr, upnp_xml_escape(nullptr));
}

TEST(Xml, EscapeRefusesOutputBeyond1023Bytes)
{
    std::string fits = long_text(1023);
    char* out = upnp_xml_escape(fits.c_str());
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(fits, out);
    free(out);
    EXPECT_EQ(nullptr, upnp_xml_escape(long_text(1024).c_str()));

    std::string amps = std::string(113, '&') + "abcdef";      // 113 * 9 + 6 = 1023
    out = upnp_xml_escape(amps.c_str());
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(size_t(1023), strlen(out));
    free(out);
    EXPECT_EQ(nullptr, upnp_xml_escape((amps + "g").c_str()));
    EXPECT_EQ(nullptr, upnp_xml_escape(std::string(114, '&').c_str()));   // a piece is never cut
}
