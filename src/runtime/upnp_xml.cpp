// upnp_xml.cpp: the XML reader, the tree walks and the entity codecs. No
// state and no lock: every call works on its own text and its own tree.
//
// An element is read in one pass over [start, end): find the tag, cut the
// name, read the attributes, then either a leaf value up to "</", or the
// children one by one, each child's reader telling through `consumed` how
// far it got. Both parsers share this code; the checking one differs only
// in what it takes as a tag start and in refusing where the plain one keeps
// what it read. All searches stop at `end` (the terminator), and nesting is
// bounded by UPNP_XML_MAX_DEPTH, so no input can run the reader off its
// text or its stack.
#include "runtime/upnp_xml.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/upnp_log.h"
#include "runtime/upnp_string.h"

struct xml_reader {
    const char* end;          // the terminator of the whole text
    int checked;              // 1 for upnp_xml_parse_checked
};

static const char XML_NAME_END[] = " \t\r\n/>";
static const char XML_VALUE_END[] = " \t\r\n/>";

static bool xml_is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

static const char* xml_skip_blanks(const char* p, const char* end)
{
    while (p < end && xml_is_blank(*p))
        p++;
    return p;
}

// Steps over a quote character; true while inside a quoted stretch. A '
// inside "..." (and the other way round) is plain text.
static bool xml_in_quotes(char c, bool* dq, bool* sq)
{
    if (c == '"' && !*sq)
        *dq = !*dq;
    else if (c == '\'' && !*dq)
        *sq = !*sq;
    else
        return *dq || *sq;
    return true;
}

// The first character of `set` outside quotes, or end.
static const char* xml_find_set(const char* p, const char* end, const char* set)
{
    bool dq = false, sq = false;
    for (; p < end; p++)
        if (!xml_in_quotes(*p, &dq, &sq) && strchr(set, *p))
            return p;
    return end;
}

// The plain reader takes "<!DOCTYPE" and comments for elements; the
// checking one, fed by clients, steps over them.
static const char* xml_find_tag(const xml_reader* r, const char* p)
{
    bool dq = false, sq = false;
    for (; p < r->end; p++) {
        if (xml_in_quotes(*p, &dq, &sq) || *p != '<')
            continue;
        if (p[1] != '?' && !(r->checked && p[1] == '!'))
            return p;
    }
    return r->end;
}

static char* xml_copy_decoded(const char* p, size_t n)
{
    char* s = upnp_copy_bytes(p, n);
    upnp_xml_unescape(s);
    return s;
}

static upnp_xml_node* xml_close(upnp_xml_node* node, const char* start, const char* at)
{
    node->consumed = int32_t(at - start);
    return node;
}

// Of a quoted value only the inside of the first pair counts; an unclosed
// quote leaves the stretch as it stands.
static char* xml_attribute_value(const char* v, const char* vend)
{
    const char* open = v;
    while (open < vend && *open != '"' && *open != '\'')
        open++;
    if (open < vend) {
        const char* close = static_cast<const char*>(memchr(open + 1, *open, size_t(vend - open - 1)));
        if (close)
            return xml_copy_decoded(open + 1, size_t(close - open - 1));
    }
    return xml_copy_decoded(v, size_t(vend - v));
}

// 1 added, 0 out of memory, -1 refused by the check.
static int xml_add_attribute(const xml_reader* r, upnp_xml_node* node, const char* name, const char* eq,
                             const char* v, const char* vend)
{
    while (eq > name && (xml_is_blank(eq[-1]) || eq[-1] == '='))
        eq--;
    upnp_xml_attr* a = static_cast<upnp_xml_attr*>(calloc(1, sizeof *a));
    if (a) {
        a->name = upnp_copy_bytes(name, size_t(eq - name));
        a->value = xml_attribute_value(v, vend);
    }
    if (!a || !a->name || !a->value) {
        if (a) {
            free(a->name);
            free(a->value);
        }
        free(a);
        return 0;
    }
    a->next = node->attributes;
    node->attributes = a;
    if (r->checked && !upnp_xml_check_property(a->name, a->value))
        return -1;
    return 1;
}

// From the first attribute to the '>' or '/' that ends the list (or end).
// Null when the checking reader refused a value.
static const char* xml_read_attributes(const xml_reader* r, upnp_xml_node* node, const char* p)
{
    for (;;) {
        p = xml_skip_blanks(p, r->end);
        if (p < r->end && *p == '>')          // blanks before '>', as some clients write
            return p;
        const char* eq = xml_find_set(p, r->end, "=/");
        if (eq == r->end || *eq == '/')
            return eq;
        const char* v = xml_skip_blanks(eq + 1, r->end);
        const char* vend = xml_find_set(v, r->end, XML_VALUE_END);
        int added = xml_add_attribute(r, node, p, eq, v, vend);
        if (added < 0)
            return nullptr;
        if (added == 0)                       // keep the content, drop the remaining attributes
            return xml_find_set(vend, r->end, ">/");
        p = vend;
        if (p == r->end || *p == '>' || *p == '/')
            return p;
        if (p[1] == '>')
            return p + 1;
    }
}

static upnp_xml_node* xml_element(const xml_reader* r, const char* start, int depth);

// Reads children from the first child's '<'. Gives the "</" that ends the
// list, or end; null when the checking reader refuses a child.
static const char* xml_read_children(const xml_reader* r, upnp_xml_node* node, const char* lt, int depth)
{
    upnp_xml_node** tail = &node->children;
    for (;;) {
        upnp_xml_node* child = xml_element(r, lt, depth + 1);
        if (!child)
            return r->checked ? nullptr : r->end;
        *tail = child;
        tail = &child->next;
        lt = xml_find_set(lt + child->consumed, r->end, "<");
        if (lt == r->end || lt[1] == '/')
            return lt;
    }
}

// `lt` is the "</" that closes node. A wrong name there still closes it.
static upnp_xml_node* xml_end_tag(const xml_reader* r, upnp_xml_node* node, const char* start, const char* lt)
{
    if (strncmp(node->name, lt + 2, strlen(node->name)) != 0)
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_PLUGIN, "XML: bad end tag!\n%s\n", node->name);
    const char* gt = static_cast<const char*>(memchr(lt, '>', size_t(r->end - lt)));
    return xml_close(node, start, gt ? gt + 1 : r->end);
}

// Everything behind the '>' of the start tag at p.
static upnp_xml_node* xml_content(const xml_reader* r, upnp_xml_node* node, const char* start, const char* p,
                                  int depth)
{
    const char* lt = static_cast<const char*>(memchr(p, '<', size_t(r->end - p)));
    if (!lt)
        return xml_close(node, start, p);
    if (lt[1] == '/') {
        node->value = xml_copy_decoded(p, size_t(lt - p));
        if (r->checked && node->value && !upnp_xml_check_property(node->name, node->value)) {
            upnp_xml_free(node);
            return nullptr;
        }
    } else {
        lt = xml_read_children(r, node, lt, depth);
        if (!lt) {
            upnp_xml_free(node);
            return nullptr;
        }
        if (lt == r->end)
            return xml_close(node, start, lt);
    }
    return xml_end_tag(r, node, start, lt);
}

// One element from the first tag at or behind start; `consumed` counts
// from start.
static upnp_xml_node* xml_element(const xml_reader* r, const char* start, int depth)
{
    if (depth > UPNP_XML_MAX_DEPTH)
        return nullptr;
    const char* tag = xml_find_tag(r, start);
    if (tag == r->end)
        return nullptr;
    const char* name_end = xml_find_set(tag + 1, r->end, XML_NAME_END);
    if (name_end == r->end || (r->checked && name_end == tag + 1))
        return nullptr;
    upnp_xml_node* node = static_cast<upnp_xml_node*>(calloc(1, sizeof *node));
    if (!node)
        return nullptr;
    node->name = upnp_copy_bytes(tag + 1, size_t(name_end - tag - 1));
    if (!node->name) {
        free(node);
        return nullptr;
    }
    const char* p = xml_skip_blanks(name_end, r->end);
    if (*p != '/' && *p != '>') {
        p = xml_read_attributes(r, node, p);
        if (!p) {
            upnp_xml_free(node);
            return nullptr;
        }
    }
    if (p == r->end)
        return xml_close(node, start, p);
    if (*p == '/')
        return xml_close(node, start, p + 1);
    return xml_content(r, node, start, p + 1, depth);
}

static upnp_xml_node* xml_parse(const char* text, int checked)
{
    if (!text)
        return nullptr;
    size_t n = strlen(text);
    if (n > size_t(INT32_MAX))                // consumed counts in 32 bits
        return nullptr;
    xml_reader r{text + n, checked};
    return xml_element(&r, text, 1);
}

upnp_xml_node* upnp_xml_parse(const char* text)
{
    return xml_parse(text, 0);
}

upnp_xml_node* upnp_xml_parse_checked(const char* text)
{
    return xml_parse(text, 1);
}

// Siblings in a loop and children by recursion: the reader never builds a
// tree deeper than UPNP_XML_MAX_DEPTH, while sibling lists may be long.
void upnp_xml_free(upnp_xml_node* node)
{
    while (node) {
        upnp_xml_node* next = node->next;
        upnp_xml_attr* a = node->attributes;
        while (a) {
            upnp_xml_attr* an = a->next;
            free(a->name);
            free(a->value);
            free(a);
            a = an;
        }
        upnp_xml_free(node->children);
        free(node->name);
        free(node->value);
        free(node);
        node = next;
    }
}

upnp_xml_node* upnp_xml_find(upnp_xml_node* node, const char* name)
{
    if (!name)
        return nullptr;
    for (; node; node = node->next) {
        if (node->name && strcmp(node->name, name) == 0)
            return node;
        if (upnp_xml_node* hit = upnp_xml_find(node->children, name))
            return hit;
    }
    return nullptr;
}

const char* upnp_xml_get_attr(const upnp_xml_node* node, const char* name)
{
    if (!node || !name)
        return nullptr;
    for (const upnp_xml_attr* a = node->attributes; a; a = a->next)
        if (a->name && strcmp(a->name, name) == 0)
            return a->value;
    return nullptr;
}

const char* upnp_xml_get_value(upnp_xml_node* node, const char* name)
{
    upnp_xml_node* hit = upnp_xml_find(node, name);
    return hit ? hit->value : nullptr;
}

// atoi's reading, kept for what clients send: blanks before the number and
// text behind it are allowed. A value past int's range clamps to its end.
int upnp_xml_get_int(upnp_xml_node* node, const char* name)
{
    return upnp_parse_lenient_i32(upnp_xml_get_value(node, name));
}

struct xml_entity {
    const char* text;
    size_t length;
    char ch;
};

static constexpr xml_entity xml_entities[] = {
    {"&amp;", 5, '&'}, {"&nbsp;", 6, ' '}, {"&lt;", 4, '<'},
    {"&gt;", 4, '>'},  {"&apos;", 6, '\''}, {"&quot;", 6, '"'},
};

// The decimal number of a reference, read as atoi reads it; the ';' within
// 5 characters keeps the field short enough to fit.
static int64_t xml_decimal_reference(const char* text)
{
    return upnp_parse_lenient(text);
}

// A "&#" reference is taken only when its ';' comes within 5 characters;
// the number is kept as one byte. Length of the reference, or 0.
static size_t xml_numeric_reference(const char* p, char* out)
{
    const char* semi = nullptr;
    for (int i = 2; i <= 6 && p[i]; i++)
        if (p[i] == ';') {
            semi = p + i;
            break;
        }
    if (!semi)
        return 0;
    if (p[2] == 'x')
        *out = char(upnp_hex_to_i64(p + 3, int(semi - p - 3)));
    else
        *out = char(xml_decimal_reference(p + 2));
    return size_t(semi - p + 1);
}

// One pass: the character a reference stands for is never read again, so
// "&amp;lt;" gives "&lt;".
void upnp_xml_unescape(char* text)
{
    if (!text)
        return;
    char* w = text;
    const char* p = text;
    while (*p) {
        size_t taken = 0;
        if (*p == '&') {
            for (const xml_entity& e : xml_entities)
                if (strncmp(p, e.text, e.length) == 0) {
                    *w = e.ch;
                    taken = e.length;
                    break;
                }
            if (!taken && p[1] == '#')
                taken = xml_numeric_reference(p, w);
        }
        if (taken) {
            w++;
            p += taken;
        } else {
            *w++ = *p++;
        }
    }
    *w = 0;
}

enum { XML_ESCAPE_LIMIT = 1023 };

char* upnp_xml_escape(const char* text)
{
    if (!text || !*text)
        return nullptr;
    char out[XML_ESCAPE_LIMIT + 1];
    size_t n = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; p++) {
        char piece[16];
        const char* add = piece;
        if (*p == '<')
            add = "&amp;lt;";
        else if (*p == '>')
            add = "&amp;gt;";
        else if (*p == '&')
            add = "&amp;amp;";
        else if (*p < 32)
            snprintf(piece, sizeof piece, "&amp;#%d;", *p);
        else {
            piece[0] = char(*p);
            piece[1] = 0;
        }
        size_t len = strlen(add);
        if (len > XML_ESCAPE_LIMIT - n)
            return nullptr;
        memcpy(out + n, add, len);
        n += len;
    }
    return upnp_copy_bytes(out, n);
}
