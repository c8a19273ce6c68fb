// upnp_cms.cpp: the ConnectionManager and the receiver registrar. No state
// and no lock: each reply is a constant text, formatted on the connection
// thread into a buffer of its own and sent through the SOAP reply sender.
// The registrar answers every device as authorized and validated without
// reading its arguments, since the server serves all clients the client
// list allows.
#include "upnp/upnp_cms.h"

#include "http/http_server.h"
#include "runtime/upnp_xml.h"
#include "upnp/upnp_soap.h"

#include <cstdio>

#define CMS_JPEG(profile, op)                                                                                   \
    "http-get:*:image/jpeg:DLNA.ORG_PN=" profile ";" op "DLNA.ORG_CI=1;"                                       \
    "DLNA.ORG_FLAGS=00f00000000000000000000000000000,"
#define CMS_STREAM(mime, profile)                                                                               \
    "http-get:*:" mime ":DLNA.ORG_PN=" profile ";DLNA.ORG_OP=01;DLNA.ORG_FLAGS=01700000000000000000000000000000,"

const char upnp_cms_source_list[] =
    CMS_JPEG("JPEG_TN", "DLNA.ORG_OP=01;")
    CMS_JPEG("JPEG_SM", "DLNA.ORG_OP=01;")
    CMS_JPEG("JPEG_MED", "DLNA.ORG_OP=01;")
    CMS_JPEG("JPEG_LRG", "DLNA.ORG_OP=01;")
    CMS_JPEG("JPEG_SM_ICO", "")
    CMS_JPEG("JPEG_LRG_ICO", "")
    CMS_STREAM("audio/mpeg", "MP3")
    CMS_STREAM("audio/mp4", "AAC_ISO_320")
    CMS_STREAM("audio/3gpp", "AAC_ISO_320")
    CMS_STREAM("audio/vnd.dlna.adts", "AAC_ADTS_320")
    CMS_STREAM("video/mp4", "AVC_MP4_BL_CIF15_AAC_520")
    "http-get:*:audio/mpeg:*,"
    "http-get:*:audio/x-ms-wma:*,"
    "http-get:*:audio/wav:*,"
    "http-get:*:audio/mp4:*,"
    "http-get:*:audio/x-aiff:*,"
    "http-get:*:audio/x-flac:*,"
    "http-get:*:audio/ogg:*,"
    "http-get:*:image/jpeg:*,"
    "http-get:*:image/gif:*,"
    "http-get:*:audio/x-mpegurl:*,"
    "http-get:*:image/x-ycbcr-yuv420:*,"
    "http-get:*:video/mpeg:*,"
    "http-get:*:video/x-msvideo:*,"
    "http-get:*:video/avi:*,"
    "http-get:*:video/mpeg2:*,"
    "http-get:*:video/MP4V-ES:*,"
    "http-get:*:video/x-ms-wvx:*,"
    "http-get:*:video/x-ms-wmv:*";

#undef CMS_JPEG
#undef CMS_STREAM

enum { CMS_REPLY_SIZE = 4096 };

#define CMS_ENVELOPE                                                                                            \
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" " \
    "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">  <s:Body>    "
#define CMS_END "  </s:Body></s:Envelope>"
#define CMS_URN "\"urn:schemas-upnp-org:service:ConnectionManager:1\""
#define MSR_URN "\"urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1\""

static const char CMS_PROTOCOL_INFO[] =
    CMS_ENVELOPE "<u:GetProtocolInfoResponse xmlns:u=" CMS_URN ">      <Source>%s</Source>      <Sink>%s</Sink>"
                 "    </u:GetProtocolInfoResponse>" CMS_END;

static const char CMS_CONNECTION_IDS[] =
    CMS_ENVELOPE "<u:GetCurrentConnectionIDsResponse xmlns:u=" CMS_URN ">      <ConnectionIDs>0</ConnectionIDs>"
                 "    </u:GetCurrentConnectionIDsResponse>" CMS_END;

static const char CMS_CONNECTION_INFO[] =
    CMS_ENVELOPE "<u:GetCurrentConnectionInfoResponse xmlns:u=" CMS_URN ">      <RcsID>-1</RcsID>"
                 "      <AVTransportID>-1</AVTransportID>      <ProtocolInfo></ProtocolInfo>"
                 "      <PeerConnectionManager></PeerConnectionManager>      <PeerConnectionID>-1</PeerConnectionID>"
                 "      <Direction>Output</Direction>      <Status>Unknown</Status>"
                 "    </u:GetCurrentConnectionInfoResponse>" CMS_END;

static const char MSR_IS_AUTHORIZED[] =
    CMS_ENVELOPE "<u:IsAuthorizedResponse xmlns:u=" MSR_URN ">      <Result>1</Result>"
                 "    </u:IsAuthorizedResponse>" CMS_END;

static const char MSR_IS_VALIDATED[] =
    CMS_ENVELOPE "<u:IsValidatedResponse xmlns:u=" MSR_URN ">      <Result>1</Result>"
                 "    </u:IsValidatedResponse>" CMS_END;

static const char MSR_REGISTER_DEVICE[] =
    CMS_ENVELOPE "<u:RegisterDeviceResponse xmlns:u=" MSR_URN ">      <RegistrationRespMsg></RegistrationRespMsg>"
                 "    </u:RegisterDeviceResponse>" CMS_END;

#undef CMS_ENVELOPE
#undef CMS_END
#undef CMS_URN
#undef MSR_URN

static_assert(sizeof upnp_cms_source_list + sizeof CMS_PROTOCOL_INFO < CMS_REPLY_SIZE,
              "the protocol list fits its reply");

int upnp_cms_get_protocol_info(HTTP_request* request)
{
    char reply[CMS_REPLY_SIZE];
    snprintf(reply, sizeof reply, CMS_PROTOCOL_INFO, upnp_cms_source_list, "");
    return upnp_soap_send_reply(request, reply);
}

int upnp_cms_get_current_connection_ids(HTTP_request* request)
{
    return upnp_soap_send_reply(request, CMS_CONNECTION_IDS);
}

// Whatever the ConnectionID, the answer is the same: no connection of the
// server has a state worth telling.
int upnp_cms_get_current_connection_info(HTTP_request* request)
{
    upnp_xml_node* args = upnp_xml_parse(request->body);
    if (!args) {
        printf("ERROR : XML Parse error!!, %s, %d\n", __func__, __LINE__);
        return upnp_soap_send_fault(request, 402);
    }
    bool has_id = upnp_xml_find(args, "ConnectionID") != nullptr;
    upnp_xml_free(args);
    if (!has_id)
        return upnp_soap_send_fault(request, 402);
    return upnp_soap_send_reply(request, CMS_CONNECTION_INFO);
}

int upnp_msr_is_authorized(HTTP_request* request)
{
    return upnp_soap_send_reply(request, MSR_IS_AUTHORIZED);
}

int upnp_msr_is_validated(HTTP_request* request)
{
    return upnp_soap_send_reply(request, MSR_IS_VALIDATED);
}

int upnp_msr_register_device(HTTP_request* request)
{
    return upnp_soap_send_reply(request, MSR_REGISTER_DEVICE);
}
