// upnp_xml_check.cpp: the checks of DIDL-Lite property values that clients
// send to CreateObject. Owns the property table (name, value type, check)
// and the table of value types with their length limits. No state, no lock.
//
// A property is looked up without regard to case; an unknown one is logged
// and let through, since clients add vendor properties freely. The list
// checks only ask that the value occurs somewhere in the list text, so a
// part of an item passes: clients have long relied on that looseness.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <climits>
#include <strings.h>

#include "runtime/upnp_log.h"
#include "runtime/upnp_string.h"
#include "runtime/upnp_xml.h"

enum xml_type_id {
    XML_STRING, XML_DC_TITLE, XML_BOOLEAN, XML_UNSIGNED_INTEGER, XML_UI4, XML_INTEGER, XML_I4,
    XML_UNSIGNED_LONG, XML_LONG, XML_UI1, XML_UI2, XML_I1, XML_I2, XML_INT, XML_R4, XML_R8,
    XML_NUMBER, XML_FIXED_14_4, XML_FLOAT, XML_CHAR, XML_DATE, XML_DATETIME, XML_DATETIME_TZ,
    XML_TIME, XML_TIME_TZ, XML_NONE, XML_TYPE_COUNT
};

struct xml_type {
    const char* name;
    int max_length;
};

static constexpr xml_type xml_types[] = {
    {"string", 1024},    {"dc:title", 256},    {"boolean", 5},       {"unsigned integer", 10},
    {"ui4", 10},         {"integer", 11},      {"i4", 11},           {"unsigned long", 20},
    {"long", 21},        {"ui1", 3},           {"ui2", 5},           {"i1", 4},
    {"i2", 6},           {"int", 11},          {"r4", 14},           {"r8", 22},
    {"number", 22},      {"fixed.14.4", 20},   {"float", 110},       {"char", 1},
    {"date", 10},        {"dateTime", 19},     {"dateTime.tz", 29},  {"time", 8},
    {"time.tz", 18},     {"none", 256},
};
static_assert(sizeof xml_types / sizeof xml_types[0] == XML_TYPE_COUNT, "one row per value type");

typedef int (*xml_check)(const char* value, int max_length);

struct xml_property {
    const char* name;
    xml_type_id type;
    xml_check check;
};

static const char XML_BOOLEANS[] = "1,0,TRUE,FALSE,true,false";
// The tabs behind two items are part of the list as clients have met it.
static const char XML_STORAGE_MEDIA[] =
    "UNKNOWN,DV,MINI-DV,VHS,W-VHS,S-VHS,D-VHS,VHSC,VIDEO8\t\t,HI8,CD-ROM,CD-DA,CD-R,CD-RW,VIDEO-CD,SACD,"
    "MD-AUDIO,MD-PICTURE,DVD-ROM\t\t,DVD-VIDEO,DVD-R,DVD+RW,DVD-RW,DVD-RAM,DVD-AUDIO,DAT,LD,HDD";
static const char XML_WRITE_STATES[] = "WRITABLE,PROTECTED,NOT_WRITABLE,UNKNOWN,MIXED";

static int xml_check_boolean(const char* value, int max_length)
{
    size_t n = strlen(value);
    if (n == 0)
        return 1;
    return n <= size_t(max_length) && strstr(XML_BOOLEANS, value) != nullptr;
}

static int xml_check_title(const char* value, int max_length)
{
    size_t n = strlen(value);
    return n >= 1 && n <= size_t(max_length);
}

static int xml_check_in_list(const char* value, int max_length, const char* list)
{
    return xml_check_title(value, max_length) && strstr(list, value) != nullptr;
}

static int xml_check_storage_medium(const char* value, int max_length)
{
    return xml_check_in_list(value, max_length, XML_STORAGE_MEDIA);
}

static int xml_check_write_status(const char* value, int max_length)
{
    return xml_check_in_list(value, max_length, XML_WRITE_STATES);
}

static constexpr xml_property xml_properties[] = {
    {"xmlns", XML_NONE, nullptr},
    {"xmlns:dc", XML_NONE, nullptr},
    {"xmlns:upnp", XML_NONE, nullptr},
    {"xmlns:dlna", XML_NONE, nullptr},
    {"dc:creator", XML_STRING, nullptr},
    {"creator", XML_DC_TITLE, nullptr},
    {"dc:date", XML_DATETIME_TZ, upnp_xml_check_string_dcdate},
    {"dc:title", XML_DC_TITLE, xml_check_title},
    {"res", XML_STRING, nullptr},
    {"colorDepth", XML_UNSIGNED_INTEGER, nullptr},
    {"bitrate", XML_UNSIGNED_INTEGER, nullptr},
    {"duration", XML_STRING, upnp_xml_check_string_duration},
    {"size", XML_UNSIGNED_LONG, nullptr},
    {"resolution", XML_STRING, nullptr},
    {"protocolInfo", XML_STRING, nullptr},
    {"childCount", XML_STRING, nullptr},
    {"id", XML_STRING, nullptr},
    {"parentID", XML_STRING, nullptr},
    {"refID", XML_STRING, nullptr},
    {"importUri", XML_NONE, nullptr},
    {"includeDerived", XML_BOOLEAN, xml_check_boolean},
    {"searchable", XML_BOOLEAN, xml_check_boolean},
    {"restricted", XML_BOOLEAN, xml_check_boolean},
    {"upnp:album", XML_STRING, nullptr},
    {"upnp:artist", XML_STRING, nullptr},
    {"artist", XML_STRING, nullptr},
    {"upnp:author", XML_STRING, nullptr},
    {"upnp:channelName", XML_STRING, nullptr},
    {"role", XML_STRING, nullptr},
    {"upnp:class", XML_NONE, nullptr},
    {"upnp:channelNr", XML_INTEGER, nullptr},
    {"upnp:genre", XML_DC_TITLE, nullptr},
    {"upnp:writeStatus", XML_STRING, xml_check_write_status},
    {"upnp:storageMedium", XML_STRING, xml_check_storage_medium},
    {"dlna:importIfoFileURI", XML_NONE, nullptr},
    {"dlna:resumeUpload", XML_NONE, nullptr},
    {"dlna:dlnaManaged", XML_NONE, nullptr},
    {"none", XML_NONE, nullptr},
};

static const xml_property* xml_find_property(const char* name)
{
    for (const xml_property& p : xml_properties)
        if (strcasecmp(p.name, name) == 0)
            return &p;
    return nullptr;
}

int upnp_xml_check_property(const char* name, const char* value)
{
    if (!name || !value)
        return 0;
    const xml_property* p = xml_find_property(name);
    if (!p) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_PLUGIN, "XML: Can't process XML property!! = %s\n", name);
        printf("ERROR : XML: Can't process XML property!! = %s\n", name);
        return 1;
    }
    if (!p->check)
        return 1;
    return p->check(value, xml_types[p->type].max_length) != 0;
}

// The next field as strtok cuts it: leading delimiters are skipped, and
// nothing left gives null. An empty delimiter set takes the whole rest.
static char* xml_cut(char** rest, const char* delimiters)
{
    char* s = *rest + strspn(*rest, delimiters);
    if (!*s) {
        *rest = s;
        return nullptr;
    }
    char* e = s + strcspn(s, delimiters);
    if (*e)
        *e++ = 0;
    *rest = e;
    return s;
}

// atoi's reading of a field, blanks and trailing text allowed; huge fields
// saturate, so they fail the limits.
static long xml_number(const char* text)
{
    return upnp_parse_lenient_i32(text);
}

static bool xml_between(const char* field, long low, long high)
{
    long v = xml_number(field);
    return v >= low && v <= high;
}

static char* xml_copy_or_report(const char* value, const char* function, int line)
{
    char* copy = strdup(value);
    if (!copy)
        printf("ERROR : Out of system memory, %s,%d", function, line);
    return copy;
}

// The clock part behind the 'T': hour and minute by ':', the seconds up to
// a fraction or a zone, then the zone's hour and minute.
static int xml_dcdate_time(char* rest)
{
    char* hour = xml_cut(&rest, ":");
    char* minute = xml_cut(&rest, ":");
    char* second;
    if (strchr(rest, '.')) {
        second = xml_cut(&rest, ".");
        xml_cut(&rest, "+-");
    } else {
        second = xml_cut(&rest, "+-");
    }
    if (!hour || !minute || !second)
        return 0;
    if (!xml_between(hour, 0, 24) || xml_number(minute) > 59 || xml_number(second) > 59)
        return 0;
    char* zone_hour = xml_cut(&rest, ":");
    char* zone_minute = xml_cut(&rest, ":");
    if (zone_hour && xml_number(zone_hour) > 24)
        return 0;
    return !zone_minute || xml_number(zone_minute) <= 59;
}

int upnp_xml_check_string_dcdate(const char* value, int max_length)
{
    if (!value)
        return 0;
    size_t n = strlen(value);
    if (n < 1 || n > size_t(max_length))
        return 0;
    char* copy = xml_copy_or_report(value, __func__, __LINE__);
    if (!copy)
        return 0;
    char* rest = copy;
    char* year = xml_cut(&rest, "-");
    char* month = xml_cut(&rest, "-");
    char* day = xml_cut(&rest, "T");
    int ok = year && month && day && xml_between(year, 0, 9999) && xml_between(month, 0, 12) &&
             xml_between(day, 0, 31);
    if (ok && strchr(value, 'T'))
        ok = xml_dcdate_time(rest);
    free(copy);
    return ok;
}

static bool xml_duration_field(const char* field, size_t max_chars, long max_value)
{
    return !field || (strlen(field) <= max_chars && xml_number(field) <= max_value);
}

int upnp_xml_check_string_duration(const char* value, int max_length)
{
    (void)max_length;                 // the fields carry their own limits
    if (!value)
        return 0;
    char* copy = xml_copy_or_report(value, __func__, __LINE__);
    if (!copy)
        return -1;
    char* rest = copy;
    char* hours = xml_cut(&rest, ":");
    char* minutes = xml_cut(&rest, ":");
    char* seconds;
    char* fraction = nullptr;
    if (strchr(rest, '.')) {
        seconds = xml_cut(&rest, ".");
        fraction = xml_cut(&rest, "");
    } else {
        seconds = xml_cut(&rest, "");
    }
    int ok = xml_duration_field(hours, 5, 99999) && xml_duration_field(minutes, 2, 59) &&
             xml_duration_field(seconds, 2, 59) && xml_duration_field(fraction, 3, 999);
    free(copy);
    return ok;
}
