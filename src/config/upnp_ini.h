// upnp_ini.h: the configuration subsystem's chief header. One fixed table
// of named text options, read by number everywhere; filled at start from
// the defaults, the ini file and the command line, written back to the ini
// file (UTF-16LE with its mark, CRLF) at start, at changes through the
// control API and at stop. The language string tables live here too,
// because the ini comments and the navigation names come from them.
//
// Any thread may read options without a lock while others set them: a text
// or list item returned by the readers never changes and stays readable
// until upnp_ini_release, whatever sets follow. Sets are serialized among
// themselves. The language tables follow the same rules.
#pragma once
#include <cstddef>
#include <cstdint>

enum upnp_option_id : int32_t {
    UPNP_OPT_ACCESSUSER = 0,
    UPNP_OPT_ACCESSPWD = 1,
    UPNP_OPT_ADAPTCASE = 2,
    UPNP_OPT_AUTOTREE = 3,
    UPNP_OPT_ALLNAME = 4,
    UPNP_OPT_PLAYLISTNUMENTRIES = 5,
    UPNP_OPT_CACHEDIR = 6,
    UPNP_OPT_CACHEMAXSIZE = 7,
    UPNP_OPT_CLIENTS = 8,
    UPNP_OPT_CLIENTAUTOENABLE = 9,
    UPNP_OPT_COMPILATIONSDIR = 10,
    UPNP_OPT_CONTENTBASE = 11,        // no row: always empty
    UPNP_OPT_CONTENTDIR = 12,
    UPNP_OPT_DBDIR = 13,
    UPNP_OPT_ENABLEWEB = 14,
    UPNP_OPT_FOLDERPREFIX = 15,
    UPNP_OPT_FRIENDLYNAME = 18,
    UPNP_OPT_HTTPPORT = 19,
    UPNP_OPT_IGNOREDIR = 20,
    UPNP_OPT_IP = 21,
    UPNP_OPT_LANGUAGE = 22,
    UPNP_OPT_UNNAMED_23 = 23,         // no row; its default is "0"
    UPNP_OPT_MUSICNODE1 = 24,
    UPNP_OPT_MUSICNODE10 = 25,
    UPNP_OPT_MUSICNODE2 = 26,
    UPNP_OPT_MUSICNODE3 = 27,
    UPNP_OPT_MUSICNODE4 = 28,
    UPNP_OPT_MUSICNODE5 = 29,
    UPNP_OPT_MUSICNODE6 = 30,
    UPNP_OPT_MUSICNODE7 = 31,
    UPNP_OPT_MUSICNODE8 = 32,
    UPNP_OPT_MUSICNODE9 = 33,
    UPNP_OPT_ALLTRACKS = 34,
    UPNP_OPT_PLAYLISTLASTPLAYED = 35,
    UPNP_OPT_PLAYLISTMOSTPLAYED = 36,
    UPNP_OPT_PLAYLISTS = 37,
    UPNP_OPT_ROOTMUSIC = 38,
    UPNP_OPT_NEWOBJECTDIR = 39,
    UPNP_OPT_NICRESTART = 40,
    UPNP_OPT_NORESCALE = 41,
    UPNP_OPT_NOSEARCH = 42,
    UPNP_OPT_PICTURENODE1 = 43,
    UPNP_OPT_PICTURENODE2 = 44,
    UPNP_OPT_PICTURENODE3 = 45,
    UPNP_OPT_PICTURENODE4 = 46,
    UPNP_OPT_PICTURENODE5 = 47,
    UPNP_OPT_ALLPICTURES = 48,
    UPNP_OPT_ROOTPICTURE = 49,
    UPNP_OPT_TAGSPICTURE = 50,
    UPNP_OPT_PLATFORM = 51,
    UPNP_OPT_RANDOMIZEPLAYLISTS = 52,
    UPNP_OPT_SCANTIME = 53,
    UPNP_OPT_STARTUPMB = 54,
    UPNP_OPT_STREAMBUFFER = 55,
    UPNP_OPT_UPNPTIMEOUT = 56,
    UPNP_OPT_USERNAME = 57,
    UPNP_OPT_USERPWD = 58,
    UPNP_OPT_USERKEY = 59,
    UPNP_OPT_VIDEONODE1 = 60,
    UPNP_OPT_VIDEONODE2 = 61,
    UPNP_OPT_VIDEONODE3 = 62,
    UPNP_OPT_VIDEONODE4 = 63,
    UPNP_OPT_VIDEONODE5 = 64,
    UPNP_OPT_ALLVIDEOS = 65,
    UPNP_OPT_ROOTVIDEO = 66,
    UPNP_OPT_NETWORKINTERFACE = 67,
    UPNP_OPT_NICCHECKTIME = 68,
    UPNP_OPT_V = 69,
    UPNP_OPT_LOGFILE = 70,
    UPNP_OPT_LOGSOURCE = 71,
    UPNP_OPT_LOGLEVEL = 72,
    UPNP_OPT_ALLDOCUMENT = 73,
    UPNP_OPT_END = 74,                // upnp_ini_find's "no such name"
};

const char* upnp_ini_get_string(int32_t id);
int32_t upnp_ini_get_int(int32_t id);
int32_t upnp_ini_get_bool(int32_t id);
const char* upnp_ini_get_item(int32_t id, int32_t index);
int32_t upnp_ini_get_item_count(int32_t id);
const char* upnp_ini_get_name(int32_t id);
int32_t upnp_ini_find(const char* name);
// 1 when the option changed. 0 for an unknown number, an empty enableweb,
// the present value, a node without a level after its last comma, a value
// holding a control character, and for "" (which unsets all the same).
int32_t upnp_ini_set(int32_t id, const char* value);
int32_t upnp_ini_set_by_name(const char* name, const char* value);
void upnp_ini_note_change(int32_t id);
// What a change of the shared folders sets off (the scanner's reload): the
// scanner hands it down at start. Without one, nothing happens.
typedef void (*upnp_ini_folders_changed_fn)();
void upnp_ini_set_folders_hook(upnp_ini_folders_changed_fn hook);

int32_t upnp_ini_get_restart_needed();
const char* upnp_ini_get_program_dir();
const char* upnp_ini_get_argv0();
const char* upnp_ini_get_path();
const char* upnp_lang_get_local();
const char* upnp_lang_get_en();

// The whole start-up load. Turns tabs in the arguments into blanks in
// place; an argument holding "?" or "help" prints the usage and ends the
// process with status 0.
void upnp_ini_file_read_cmdline(int32_t count, char** arguments);
void upnp_ini_file_read();
void upnp_ini_file_write();
void upnp_ini_file_restore_default();
void upnp_ini_release();                  // writes the ini unless the default was restored

const char* upnp_contentdir_get(int32_t index);
char* upnp_lang_text(const char* key);   // caller frees
char* upnp_lang_help(const char* key);   // caller frees

// The ini body's parse core: decodes raw file bytes (UTF-16LE after its
// FF FE mark, else Latin-1) and applies every "name=value" line through
// upnp_ini_set_by_name. Returns the number of lines applied.
int32_t upnp_ini_parse(const void* data, size_t size);

// Between the configuration sources: the language state behind the
// "language" option. upnp_lang_select loads the tables of a code and
// returns 1 when the code differs from the loaded one, else 0.
int32_t upnp_lang_select(const char* code);
void upnp_lang_forget_code();            // the next select loads afresh
const char* upnp_lang_system_code();     // static text, "en" when unknown
void upnp_lang_release();
