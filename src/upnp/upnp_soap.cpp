// upnp_soap.cpp: the SOAP action dispatch, the reading of action
// arguments, the capability replies and the fault reply.
//
// One handler serves every control URL: which service a POST went to does
// not matter, the action is found from the SOAPACTION header alone. The
// texts of the action table are searched in the head from that header to
// its end, in table order, and the first one found runs. Each text names
// version 1 of its service and ends at the "#" and the action name, so an
// action of another version is unknown, and "#" keeps X_BrowseByLetter
// and Browse apart. The body is parsed into a tree once per action, read
// by element name and freed here after the action.
//
// No state and no lock: the tables are constant and everything else
// belongs to the request's connection thread. Actions without arguments
// never look at the tree, and nothing here touches the content tree
// except through the actions it calls.
#include "upnp/upnp_soap.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "http/http_server.h"
#include "runtime/upnp_string.h"
#include "runtime/upnp_xml.h"
#include "upnp/upnp_cds.h"
#include "upnp/upnp_cms.h"
#include "upnp/upnp_search.h"
#include "upnp/upnp_upload.h"

#include <cstdio>
#include <cstring>

const char soap_mime[] = " text/xml; charset=\"utf-8\"";

const upnp_soap_error upnp_soap_errors[] = {
    {400, "bad request"},
    {401, "invalid Action"},
    {402, "invalid Args"},
    {412, "precondition failed"},
    {501, "Action Failed"},
    {600, "Argument Value Invalid"},
    {601, "Argument Value Out of Range"},
    {602, "Optional Action Not implemented"},
    {603, "Out of Memory"},
    {604, "Human Intervention Required"},
    {605, "String Argument Too Long"},
    {606, "Action not authorized"},
    {607, "Signature failure"},
    {608, "Signature missing"},
    {609, "Not encrypted"},
    {610, "Invalid Sequence"},
    {611, "Invalid control URL"},
    {612, "No such session"},
    {701, "No such object"},
    {702, "No contents"},
    {703, "Read error"},
    {704, "Format not supported for playback"},
    {705, "Transport is locked"},
    {706, "Invalid connection reference."},
    {708, "Invalid search criteria"},
    {710, "No such container"},
    {711, "Illegal seek target"},
    {712, "Bad metadata"},
    {713, "Restricted parent object"},
    {714, "Illegal MIME-type"},
    {715, "Content BUSY"},
    {716, "Resource not found"},
    {717, "Play speed not supported"},
    {718, "Invalid InstanceID"},
    {801, "Authentication required"},
    {0, nullptr},
};

// ---- Faults -------------------------------------------------------------------

enum { SOAP_FAULT_SIZE = 1024, SOAP_REPLY_SIZE = 1024 };

static const char SOAP_FAULT_FORM[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\n <s:Body>\n  <s:Fault>\n"
    "   <faultcode>s:Client</faultcode>\n   <faultstring>UPnPError</faultstring>\n   <detail>\n"
    "    <UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">\n     <errorCode>%d</errorCode>\n"
    "     <errorDescription>%s</errorDescription>\n    </UPnPError>\n   </detail>\n  </s:Fault>\n </s:Body>\n"
    "</s:Envelope>\n";

upnp_string* upnp_soap_fault_text(int32_t code)
{
    const upnp_soap_error* row = &upnp_soap_errors[0];
    for (const upnp_soap_error* e = upnp_soap_errors; e->code; e++)
        if (e->code == code) {
            row = e;
            break;
        }
    char text[SOAP_FAULT_SIZE];
    int n = snprintf(text, sizeof text, SOAP_FAULT_FORM, int(row->code), row->description);
    if (n < 0)
        return nullptr;
    upnp_string* s = upnp_string_new(text, n + 1);
    if (s && size_t(s->length) != strlen(text)) {
        upnp_string_free(s);
        return nullptr;
    }
    return s;
}

// Codes that are HTTP statuses too go out as that status, all others as
// 500. The head sender's own table then turns 400, 412 and 500 into HTML
// pages by MIME type, and sends 501, which it has no row for, as "200 OK":
// clients have always seen faults so.
static int32_t soap_fault_status(int32_t code)
{
    return code == 400 || code == 412 || code == 501 ? code : 500;
}

int upnp_soap_send_fault(HTTP_request* request, int32_t code)
{
    request->mime_type = soap_mime;
    upnp_string* document = upnp_soap_fault_text(code);
    if (!document)
        return HTTP_send_status(request, 501);
    request->content_length = document->length;
    int failed = HTTP_send_header(request, soap_fault_status(code));
    if (!failed)
        failed = HTTP_send_bytes(request->socket, document->text, document->length) != document->length;
    upnp_string_free(document);
    return failed;
}

int upnp_soap_send_reply(HTTP_request* request, const char* document)
{
    request->content_length = int64_t(strlen(document));
    request->mime_type = soap_mime;
    return HTTP_send_buffer(request, document);
}

// ---- Capability replies -------------------------------------------------------

#define SOAP_CDS_OPEN(action)                                                                                   \
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" " \
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" action                       \
    "Response xmlns:u=\"urn:schemas-upnp-org:service:ContentDirectory:1\">"
#define SOAP_CDS_CLOSE(action) "</u:" action "Response></s:Body></s:Envelope>"

static const char SOAP_SYSTEM_UPDATE_ID[] =
    SOAP_CDS_OPEN("GetSystemUpdateID") "<Id>%u</Id>" SOAP_CDS_CLOSE("GetSystemUpdateID");
static const char SOAP_SORT_CAPS[] =
    SOAP_CDS_OPEN("GetSortCapabilities")
    "<SortCaps>dc:title,dc:creator,upnp:artist,upnp:genre,upnp:album,dc:date,upnp:originalTrackNumber</SortCaps>"
    SOAP_CDS_CLOSE("GetSortCapabilities");
static const char SOAP_SEARCH_CAPS[] =
    SOAP_CDS_OPEN("GetSearchCapabilities") "<SearchCaps>%s</SearchCaps>" SOAP_CDS_CLOSE("GetSearchCapabilities");
static const char SOAP_SEARCH_PROPERTIES[] = "dc:title,dc:creator,upnp:artist,upnp:genre,upnp:album,dc:date,"
                                             "upnp:originalTrackNumber,upnp:class,@id,@refID,@protocolInfo";

#undef SOAP_CDS_OPEN
#undef SOAP_CDS_CLOSE

static int soap_system_update_id(HTTP_request* request, upnp_xml_node*)
{
    char reply[SOAP_REPLY_SIZE];
    snprintf(reply, sizeof reply, SOAP_SYSTEM_UPDATE_ID, unsigned(db_get_system_update_id()));
    return upnp_soap_send_reply(request, reply);
}

static int soap_sort_capabilities(HTTP_request* request, upnp_xml_node*)
{
    return upnp_soap_send_reply(request, SOAP_SORT_CAPS);
}

// Roku players search with "*" alone and are told so; the option nosearch
// takes even that from them.
static int soap_search_capabilities(HTTP_request* request, upnp_xml_node*)
{
    const char* caps = SOAP_SEARCH_PROPERTIES;
    if (upnp_client_search_roku(request->client_id))
        caps = upnp_ini_get_int(UPNP_OPT_NOSEARCH) ? "" : "*";
    char reply[SOAP_REPLY_SIZE];
    snprintf(reply, sizeof reply, SOAP_SEARCH_CAPS, caps);
    return upnp_soap_send_reply(request, reply);
}

// ---- Actions with arguments ---------------------------------------------------

static const char SOAP_DIRECT_CHILDREN[] = "BrowseDirectChildren";
static const char SOAP_METADATA[] = "BrowseMetadata";

int upnp_soap_browse(HTTP_request* request, upnp_xml_node* args)
{
    const char* flag = upnp_xml_get_value(args, "BrowseFlag");
    const char* id = upnp_xml_get_value(args, "ObjectID");
    if (!id)     // some clients name the object so
        id = upnp_xml_get_value(args, "ContainerID");
    const char* filter = upnp_xml_get_value(args, "Filter");
    const char* start = upnp_xml_get_value(args, "StartingIndex");
    const char* count = upnp_xml_get_value(args, "RequestedCount");
    const char* sort = upnp_xml_get_value(args, "SortCriteria");
    // Clients have always received the second fault behind the first.
    if (!id)
        return upnp_soap_send_fault(request, 710) || upnp_soap_send_fault(request, 402);
    if (!flag || !start || !count || upnp_parse_lenient_i32(start) < 0)
        return upnp_soap_send_fault(request, 402);
    if (strcmp(flag, SOAP_DIRECT_CHILDREN) == 0)
        return upnp_cds_browse_children(request, id, filter, upnp_parse_lenient_i32(start),
                                        upnp_parse_lenient_i32(count), sort);
    if (strcmp(flag, SOAP_METADATA) == 0)
        return upnp_cds_browse_metadata(request, id, filter);
    return upnp_soap_send_fault(request, 402);
}

// A missing object id is left to the browse itself, which refuses it.
int upnp_soap_browse_by_letter(HTTP_request* request, upnp_xml_node* args)
{
    const char* flag = upnp_xml_get_value(args, "BrowseFlag");
    if (!flag)
        return upnp_soap_send_fault(request, 402);
    const char* sort = upnp_xml_get_value(args, "SortCriteria");
    int32_t count = upnp_xml_get_int(args, "RequestedCount");
    const char* letter = upnp_xml_get_value(args, "StartingLetter");
    const char* filter = upnp_xml_get_value(args, "Filter");
    const char* id = upnp_xml_get_value(args, "ObjectID");
    if (strcmp(flag, SOAP_DIRECT_CHILDREN) == 0)
        return upnp_cds_browse_by_letter(request, id, filter, letter, count, sort);
    if (strcmp(flag, SOAP_METADATA) == 0)
        return upnp_cds_browse_metadata(request, id, filter);
    return upnp_soap_send_fault(request, 402);
}

// An absent StartingIndex reads as 0.
int upnp_soap_search(HTTP_request* request, upnp_xml_node* args)
{
    int32_t start = upnp_xml_get_int(args, "StartingIndex");
    if (start < 0)
        return upnp_soap_send_fault(request, 402);
    return upnp_cds_search(request, upnp_xml_get_value(args, "ContainerID"),
                           upnp_xml_get_value(args, "SearchCriteria"), upnp_xml_get_value(args, "Filter"), start,
                           upnp_xml_get_int(args, "RequestedCount"), upnp_xml_get_value(args, "SortCriteria"));
}

// ---- The action table ---------------------------------------------------------

static int soap_not_implemented(HTTP_request* request, upnp_xml_node*)
{
    return upnp_soap_send_fault(request, 602);
}

static int soap_create_object(HTTP_request* request, upnp_xml_node* args)
{
    return upnp_cds_create_object(request, upnp_xml_get_value(args, "ContainerID"),
                                  upnp_xml_get_value(args, "Elements"));
}

static int soap_destroy_object(HTTP_request* request, upnp_xml_node* args)
{
    return upnp_cds_destroy_object(request, upnp_xml_get_value(args, "ObjectID"));
}

// The fixed replies take the request alone.
template <int (*reply)(HTTP_request*)> static int soap_fixed(HTTP_request* request, upnp_xml_node*)
{
    return reply(request);
}

struct soap_action {
    const char* text;
    int (*run)(HTTP_request* request, upnp_xml_node* args);
};

static const soap_action soap_actions[] = {
    {"ConnectionManager:1#PrepareForConnection", soap_not_implemented},
    {"ConnectionManager:1#ConnectionComplete", soap_not_implemented},
    {"ContentDirectory:1#GetSearchCapabilities", soap_search_capabilities},
    {"ContentDirectory:1#GetSortCapabilities", soap_sort_capabilities},
    {"ContentDirectory:1#GetSystemUpdateID", soap_system_update_id},
    {"ContentDirectory:1#X_BrowseByLetter", upnp_soap_browse_by_letter},
    {"ContentDirectory:1#Browse", upnp_soap_browse},
    {"ContentDirectory:1#Search", upnp_soap_search},
    {"ContentDirectory:1#CreateObject", soap_create_object},
    {"ContentDirectory:1#DestroyObject", soap_destroy_object},
    {"ContentDirectory:1#UpdateObject", soap_not_implemented},
    {"ContentDirectory:1#ImportResource", soap_not_implemented},
    {"ContentDirectory:1#ExportResource", soap_not_implemented},
    {"ContentDirectory:1#StopTransferResource", soap_not_implemented},
    {"ContentDirectory:1#GetTransferProgress", soap_not_implemented},
    {"ContentDirectory:1#DeleteResource", soap_not_implemented},
    {"ContentDirectory:1#CreateReference", soap_not_implemented},
    {"ConnectionManager:1#GetProtocolInfo", soap_fixed<upnp_cms_get_protocol_info>},
    {"ConnectionManager:1#GetCurrentConnectionIDs", soap_fixed<upnp_cms_get_current_connection_ids>},
    {"ConnectionManager:1#GetCurrentConnectionInfo", soap_fixed<upnp_cms_get_current_connection_info>},
    {"X_MS_MediaReceiverRegistrar:1#IsAuthorized", soap_fixed<upnp_msr_is_authorized>},
    {"X_MS_MediaReceiverRegistrar:1#IsValidated", soap_fixed<upnp_msr_is_validated>},
    {"X_MS_MediaReceiverRegistrar:1#RegisterDevice", soap_fixed<upnp_msr_register_device>},
};

int32_t upnp_soap_action_number(const char* text)
{
    if (!text)
        return 0;
    for (size_t i = 0; i < sizeof soap_actions / sizeof soap_actions[0]; i++)
        if (strstr(text, soap_actions[i].text))
            return int32_t(i + 1);
    return 0;
}

int upnp_soap_dispatch(HTTP_request* request)
{
    const char* action = upnp_stristr(request->head, "SOAPACTION");
    if (!action)
        return upnp_soap_send_fault(request, 402);
    if (!upnp_client_allowed(request->client_ip))
        return upnp_soap_send_fault(request, 401);
    int32_t number = upnp_soap_action_number(action);
    if (number == 0)
        return upnp_soap_send_fault(request, 401);
    // A missing or broken body still reaches the action, which then sees
    // no arguments and answers with its own fault.
    upnp_xml_node* args = upnp_xml_parse(request->body);
    int result = soap_actions[number - 1].run(request, args);
    upnp_xml_free(args);
    return result;
}
