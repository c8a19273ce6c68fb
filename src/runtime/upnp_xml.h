// upnp_xml.h: the small XML reader for SOAP bodies and for the DIDL-Lite
// that clients send, and the checks of DIDL-Lite property values. Not a
// general parser: no namespaces, no CDATA, text beside child elements is
// dropped, values come from leaf elements only. Quoted stretches are
// skipped while searching, so a '<' inside an attribute value starts no tag.
// Nesting is capped; deeper input is refused as malformed.
#pragma once
#include <cstdint>

struct upnp_xml_attr {
    char* name;
    char* value;              // entities decoded
    upnp_xml_attr* next;      // the list runs in reverse document order
};

struct upnp_xml_node {
    char* name;               // as written, with any prefix
    char* value;              // text of a leaf, decoded; null if none
    upnp_xml_attr* attributes;
    upnp_xml_node* next;      // next sibling
    upnp_xml_node* children;  // first child
    int32_t consumed;         // input bytes this element took
};

enum { UPNP_XML_MAX_DEPTH = 64 };

// Both parse the first element of a NUL-terminated text into a heap tree
// that the caller frees with upnp_xml_free. The plain one keeps what it
// could read of a truncated or too deep document; the checking one refuses
// (null) a document with a value upnp_xml_check_property refuses, a child
// it couldn't read, or nesting beyond UPNP_XML_MAX_DEPTH. It also skips
// "<!" declarations. Texts of 2 GiB or more give null.
upnp_xml_node* upnp_xml_parse(const char* text);
upnp_xml_node* upnp_xml_parse_checked(const char* text);
void upnp_xml_free(upnp_xml_node* node);   // the node, its children and all following siblings
upnp_xml_node* upnp_xml_find(upnp_xml_node* node, const char* name);
const char* upnp_xml_get_attr(const upnp_xml_node* node, const char* name);
const char* upnp_xml_get_value(upnp_xml_node* node, const char* name);
int upnp_xml_get_int(upnp_xml_node* node, const char* name);
void upnp_xml_unescape(char* text);
// Escapes twice, for text inside a DIDL-Lite document that travels escaped
// once more. A new text, or null for an empty text or an output of more
// than 1023 bytes.
char* upnp_xml_escape(const char* text);
// 1 when the value suits the DIDL-Lite property of that name (found
// without regard to case), else 0. An unknown property is accepted with a
// log line; null name or value gives 0.
int upnp_xml_check_property(const char* name, const char* value);
// The two value checks with a grammar of their own, run with the length
// limit of the property's type. The duration check gives -1 when it can't
// allocate, which callers count as a pass.
int upnp_xml_check_string_dcdate(const char* value, int max_length);
int upnp_xml_check_string_duration(const char* value, int max_length);
