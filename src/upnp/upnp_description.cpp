// upnp_description.cpp: the device description, the three service
// documents and the device icons.
//
// The description is filled at each request from one fixed template: the
// UDN and the friendly name are worked out anew each time (the name may
// change while the server runs), the maker and model fields come from the
// optional resource description.txt, read at the first request that finds
// it not yet loaded and kept for the process's life. description_lock
// guards that copy; each request renders from a snapshot of it, so the
// rest is per request and shares nothing. The service documents and icons
// are read from the resources at each request and sent unchanged.
#include "upnp/upnp_description.h"

#include "config/upnp_ini.h"
#include "http/http_server.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_string.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

enum {
    DESCRIPTION_TEXT_SIZE = 1024,     // description.txt must be smaller than this
    DESCRIPTION_OUT_SIZE = 8192,
    DESCRIPTION_HOST_SIZE = 257,
    DESCRIPTION_NAME_SIZE = 1024,
};

// The leading blank is part of the value: clients have always seen two
// blanks behind "Content-Type:".
static const char DESCRIPTION_MIME[] = " text/xml; charset=\"utf-8\"";

static const char DESCRIPTION_TEMPLATE[] =
    "<?xml version=\"1.0\"?><root xmlns=\"urn:schemas-upnp-org:device-1-0\"><specVersion><major>1</major>"
    "<minor>0</minor></specVersion>%s<device><dlna:X_DLNADOC xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">"
    "DMS-1.50</dlna:X_DLNADOC><dlna:X_DLNADOC xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">M-DMS-1.50"
    "</dlna:X_DLNADOC><dlna:X_DLNACAP xmlns:dlna=\"urn:schemas-dlna-org:device-1-0\">av-upload,image-upload,"
    "audio-upload</dlna:X_DLNACAP><deviceType>urn:schemas-upnp-org:device:MediaServer:1</deviceType>"
    "<UDN>%s</UDN><friendlyName>%s</friendlyName><manufacturer>%s</manufacturer><manufacturerURL>%s%s"
    "</manufacturerURL><modelName>%s</modelName><modelNumber>%s</modelNumber><modelURL>%s</modelURL>"
    "<modelDescription>%s</modelDescription><serialNumber>%s</serialNumber><UPC></UPC><iconList><icon>"
    "<mimetype>image/jpeg</mimetype><height>120</height><width>120</width><depth>24</depth>"
    "<url>/images/velmoraicon-120x120.jpg</url></icon><icon><mimetype>image/jpeg</mimetype><height>80</height>"
    "<width>80</width><depth>24</depth><url>/images/velmoraicon-80x80.jpg</url></icon><icon>"
    "<mimetype>image/jpeg</mimetype><height>48</height><width>48</width><depth>24</depth>"
    "<url>/images/velmoraicon-48x48.jpg</url></icon>%s</iconList><serviceList><service>"
    "<serviceType>urn:schemas-upnp-org:service:ConnectionManager:1</serviceType>"
    "<serviceId>urn:upnp-org:serviceId:ConnectionManager</serviceId><SCPDURL>%sConnectionManager.xml</SCPDURL>"
    "<eventSubURL>%sConnectionManager/Event</eventSubURL><controlURL>%sConnectionManager/Control</controlURL>"
    "</service><service><serviceType>urn:schemas-upnp-org:service:ContentDirectory:1</serviceType>"
    "<serviceId>urn:upnp-org:serviceId:ContentDirectory</serviceId><SCPDURL>%sContentDirectory.xml</SCPDURL>"
    "<eventSubURL>%sContentDirectory/Event</eventSubURL><controlURL>%sContentDirectory/Control</controlURL>"
    "</service>%s</serviceList></device></root>";

static const char DESCRIPTION_PNG_ICONS[] =
    "<icon><mimetype>image/png</mimetype><height>120</height><width>120</width><depth>24</depth>"
    "<url>/images/velmoraicon-120x120.png</url></icon><icon><mimetype>image/png</mimetype><height>80</height>"
    "<width>80</width><depth>24</depth><url>/images/velmoraicon-80x80.png</url></icon><icon>"
    "<mimetype>image/png</mimetype><height>48</height><width>48</width><depth>24</depth>"
    "<url>/images/velmoraicon-48x48.png</url></icon>";

enum description_field {
    FIELD_MANUFACTURER,
    FIELD_MANUFACTURER_URL,
    FIELD_MODEL_NAME,
    FIELD_MODEL_NUMBER,
    FIELD_MODEL_URL,
    FIELD_MODEL_DESCRIPTION,
    FIELD_SERIAL,
    FIELD_COUNT
};

struct description_key {
    const char* key;
    const char* fallback;
};

// In the order they are looked up. Keys are matched as written: a key in
// another case is not found and the default holds.
static constexpr description_key description_keys[] = {
    {"manufacturer:", "Velmora Electronics Co., Ltd."},
    {"manufacturerurl:", "http://www.velmora.org/"},
    {"modelname:", "VelmoraMobile Server"},
    {"modelnumber:", "1.0"},
    {"modelurl:", "http://www.velmora.org/"},
    {"modeldescription:", "VelmoraMobile Server"},
    {"modelserial:", ""},
};
static_assert(sizeof description_keys / sizeof description_keys[0] == FIELD_COUNT);

struct description_values {
    char value[FIELD_COUNT][DESCRIPTION_TEXT_SIZE];
};

static char description_text[DESCRIPTION_TEXT_SIZE];   // description_lock
static std::mutex description_lock;

// ---- Friendly name ----------------------------------------------------------

// A cut inside a multibyte character would leave the document invalid
// UTF-8, which some players refuse as a whole.
static void description_drop_partial_char(char* text)
{
    size_t n = strlen(text);
    size_t start = n;
    while (start > 0 && (uint8_t(text[start - 1]) & 0xC0) == 0x80)
        start--;
    if (start == 0 || uint8_t(text[start - 1]) < 0xC0)
        return;
    uint8_t lead = uint8_t(text[start - 1]);
    size_t need = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (n - (start - 1) < need)
        text[start - 1] = 0;
}

void upnp_description_friendly_name(const char* option, const char* host, char* out, size_t size)
{
    if (!out || size == 0)
        return;
    if (!host)
        host = "";
    char fallback[DESCRIPTION_HOST_SIZE + 32];
    const char* name = option;
    if (!name || !*name) {
        snprintf(fallback, sizeof fallback, "[%s] %s", host, "Velmora Server");
        name = fallback;
    }
    static const char marker[] = "%HOSTNAME%";
    const char* at = strstr(name, marker);
    if (at)
        snprintf(out, size, "%.*s%s%s", int(at - name), name, host, at + sizeof marker - 1);
    else
        snprintf(out, size, "%s", name);
    description_drop_partial_char(out);
}

// ---- The document -------------------------------------------------------------

// Each value runs from behind its key to the line end, untrimmed: a blank
// behind the colon stays part of it.
static void description_lookup(std::string_view text, description_values* v)
{
    for (int i = 0; i < FIELD_COUNT; i++) {
        const description_key& k = description_keys[i];
        size_t at = text.empty() ? std::string_view::npos : text.find(k.key);
        if (at == std::string_view::npos) {
            snprintf(v->value[i], sizeof v->value[i], "%s", k.fallback);
            continue;
        }
        std::string_view value = text.substr(at + strlen(k.key));
        value = value.substr(0, value.find_first_of("\r\n"));
        snprintf(v->value[i], sizeof v->value[i], "%.*s", int(value.size()), value.data());
    }
}

int32_t upnp_description_render(const char* text, size_t length, const char* udn, const char* name, char* out,
                                size_t size)
{
    if (!out || size == 0)
        return 0;
    // The text is what the file held up to its first NUL.
    std::string_view body = text ? std::string_view(text, strnlen(text, length)) : std::string_view();
    description_values* v = static_cast<description_values*>(malloc(sizeof(description_values)));
    if (!v) {
        out[0] = 0;
        return 0;
    }
    description_lookup(body, v);
    // No URLBase: clients resolve the relative URLs against the address
    // they fetched the document from, which is right on every interface.
    // The service URLs are relative with a leading "/" for every client;
    // those flagged DX:ABSOLUTEURI read them as well as the rest.
    int n = snprintf(out, size, DESCRIPTION_TEMPLATE, "", udn ? udn : "", name ? name : "",
                     v->value[FIELD_MANUFACTURER], v->value[FIELD_MANUFACTURER_URL], "", v->value[FIELD_MODEL_NAME],
                     v->value[FIELD_MODEL_NUMBER], v->value[FIELD_MODEL_URL], v->value[FIELD_MODEL_DESCRIPTION],
                     v->value[FIELD_SERIAL], DESCRIPTION_PNG_ICONS, "/", "/", "/", "/", "/", "/", "");
    free(v);
    if (n < 0) {
        out[0] = 0;
        return 0;
    }
    return int32_t(size_t(n) < size ? size_t(n) : size - 1);
}

// Copies description.txt as loaded into copy, loading it first when that
// has not succeeded yet. A file of 0 bytes, or too large for the buffer,
// is ignored and the defaults hold.
static void description_snapshot(char* copy)
{
    std::lock_guard<std::mutex> hold(description_lock);
    if (!description_text[0]) {
        int32_t size = 0;
        void* data = nullptr;
        if (upnp_read_resource("description.txt", &size, &data) && size > 0 && size < DESCRIPTION_TEXT_SIZE) {
            memcpy(description_text, data, size_t(size));
            description_text[size] = 0;
        }
        free(data);
    }
    memcpy(copy, description_text, sizeof description_text);
}

void upnp_description_reset()
{
    std::lock_guard<std::mutex> hold(description_lock);
    description_text[0] = 0;
}

int upnp_send_device_description(HTTP_request* request)
{
    if (!request)
        return 1;
    char text[DESCRIPTION_TEXT_SIZE];
    description_snapshot(text);
    char host[DESCRIPTION_HOST_SIZE];
    upnp_get_hostname(host, sizeof host);
    char name[DESCRIPTION_NAME_SIZE];
    upnp_description_friendly_name(upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME), host, name, sizeof name);
    char* document = static_cast<char*>(malloc(DESCRIPTION_OUT_SIZE));
    if (!document)
        return HTTP_send_status(request, 500);
    request->content_length = upnp_description_render(text, sizeof text, upnp_get_udn(upnp_ini_get_string(UPNP_OPT_FRIENDLYNAME)), name, document,
                                                      DESCRIPTION_OUT_SIZE);
    request->mime_type = DESCRIPTION_MIME;
    int result = HTTP_send_buffer(request, document);
    free(document);
    return result;
}

// ---- Files sent as they are ---------------------------------------------------

// A missing file goes out as an empty 200 response.
static int description_send_resource(HTTP_request* request, const char* name, const char* mime)
{
    if (!request)
        return 1;
    int32_t size = 0;
    void* data = nullptr;
    upnp_read_resource(name, &size, &data);
    request->content_length = size;
    request->mime_type = mime;
    int result = HTTP_send_buffer(request, data ? static_cast<const char*>(data) : "");
    free(data);
    return result;
}

int upnp_send_cds_xml(HTTP_request* request)
{
    return description_send_resource(request, "cds.xml", DESCRIPTION_MIME);
}

int upnp_send_cms_xml(HTTP_request* request)
{
    return description_send_resource(request, "cms.xml", DESCRIPTION_MIME);
}

int upnp_send_msreg_xml(HTTP_request* request)
{
    return description_send_resource(request, "msreg.xml", DESCRIPTION_MIME);
}

struct description_icon {
    const char* name;
    const char* mime;
};

static constexpr description_icon description_icons[] = {
    {"velmoraicon-120x120.jpg", "image/jpeg"}, {"velmoraicon-80x80.jpg", "image/jpeg"},
    {"velmoraicon-48x48.jpg", "image/jpeg"},   {"velmoraicon-120x120.png", "image/png"},
    {"velmoraicon-80x80.png", "image/png"},    {"velmoraicon-48x48.png", "image/png"},
};

// Only the names above are served: the URL never becomes a path, so no
// other file of the resources or elsewhere can be reached from here.
static const description_icon* description_find_icon(std::string_view url)
{
    constexpr std::string_view prefix = "/images/";
    if (url.substr(0, prefix.size()) != prefix)
        return nullptr;
    std::string_view name = url.substr(prefix.size());
    for (const description_icon& icon : description_icons)
        if (name == icon.name)
            return &icon;
    return nullptr;
}

int upnp_send_device_icon(HTTP_request* request)
{
    if (!request)
        return 1;
    const description_icon* icon = description_find_icon(request->url);
    int32_t size = 0;
    void* data = nullptr;
    if (!icon || !upnp_read_resource(icon->name, &size, &data))
        return HTTP_send_file_not_found(request);
    request->content_length = size;
    request->mime_type = icon->mime;
    int result = HTTP_send_buffer(request, static_cast<const char*>(data));
    free(data);
    return result;
}
