// upnp_client.h: the client database. clients.db is a text of entries, each
// starting at "ID:" and running to the next "ID:", with detection patterns
// (HH: in a request head, DD: in a device description) and quirk flags as
// plain substrings. The option "clients" ties each client address to an
// entry number as items "ip|NNN|E" (E: the enable digit).
//
// A flag belongs to an entry when it occurs after the entry's "ID:NNN" and
// before the next "ID:". Nothing else is parsed: an unknown flag is simply
// not found, and with no clients.db loaded every test answers 0.
#pragma once
#include <cstddef>
#include <cstdint>

// ---- Loading ------------------------------------------------------------

// Reads clients.db from the resources; 1, or 0 (and no database) when the
// file is missing. A database loaded before is replaced.
int upnp_client_db_load();
// The same from bytes in memory, as the file would hold them: the last
// byte stands for the terminator and is dropped. 1, or 0 for no bytes.
int upnp_client_db_load_text(const char* bytes, size_t size);
// Frees the database; waits until no thread reads it any more.
void upnp_client_db_free();

// ---- Clients by address (the option "clients", under the client lock) ----

// The number of the client at ip: from the list, else from the first entry
// whose HH: text occurs in the head (which enters the client in the list),
// else 1 for any other machine. 0 for a head without "User" and for the
// server's own addresses.
int32_t upnp_client_lookup(const char* ip, const char* head);
// The number in the list, 0 when ip has no item.
int32_t upnp_client_get_id(const char* ip);
// Enters ip with number unless it has it already, or has a number of 1 or
// more from an entry without DB:AUTO. Tells the host (event
// UPNP_EVENT_CLIENT_ADDED). 1 when the list changed. ip must be dotted
// IPv4 text, and the list stays within 1023 bytes of whole items.
int upnp_client_set(const char* ip, int32_t number);
void upnp_client_remove(const char* ip);
// Whether ip may use the server: its enable digit, else clientautoenable.
int upnp_client_allowed(const char* ip);
// 1 when ip is dotted IPv4 text that fits an address buffer.
int upnp_client_ip_ok(const char* ip);
// The number of the first entry whose DD: text occurs in a device
// description, -1 for none.
int32_t upnp_client_match_description(const char* text, size_t length);
// How the table tells the server's own addresses, which never become
// clients; registered at start (none: no address is the server's).
typedef int (*upnp_client_local_test)(const char* ip);
void upnp_client_set_local_test(upnp_client_local_test test);

// ---- Entries and flags (no lock: the text is read-only once loaded) ------

int upnp_client_has_flag(int32_t number, const char* flag);
// 10, 15, -1 (no DLNA fields) or 0, from the first "XM:DLNA" of the entry.
int32_t upnp_client_dlna_level(int32_t number);
// The number behind key in the entry, or 0.
int32_t upnp_client_get_number(int32_t number, const char* key);
// The index-th entry (from 0) in file order; the text stays valid until
// the database is freed. Null past the end.
const char* upnp_client_entry(int32_t index);
// Copies the value behind key in the index-th entry, up to a control byte,
// at most size - 1 bytes. 1 when the entry has the key.
int upnp_client_entry_field(int32_t index, char* buffer, int32_t size, const char* key);
// The number of the index-th entry, -1 past the end.
int32_t upnp_client_entry_id(int32_t index);
// A new text of every ID: and NA: value joined by ","; null when no
// database is loaded. The caller frees it.
char* upnp_client_names();

// ---- One question per flag ----------------------------------------------

inline int upnp_client_music_root(int32_t n) { return upnp_client_has_flag(n, "AV:M"); }
inline int upnp_client_wants_m3u(int32_t n) { return !upnp_client_has_flag(n, "AV:no-m3u"); }
inline int upnp_client_no_utf8_sort(int32_t n) { return upnp_client_has_flag(n, "XM:NOUTF8SORT"); }
inline int upnp_client_short_title(int32_t n) { return upnp_client_has_flag(n, "XM:SHORTTITLE"); }
inline int upnp_client_ignore_sort(int32_t n) { return upnp_client_has_flag(n, "XM:IGNORESORT"); }
inline int upnp_client_wmc_ids(int32_t n) { return upnp_client_has_flag(n, "XM:WMCIDS"); }
inline int upnp_client_minimal_mp3_url(int32_t n) { return upnp_client_has_flag(n, "XM:MINIMALMP3URL"); }
inline int upnp_client_title_in_url(int32_t n) { return upnp_client_has_flag(n, "XM:ADDTITLETOURL"); }
inline int upnp_client_mp3_without_lpcm(int32_t n) { return upnp_client_has_flag(n, "XM:GIVEMP3NOLPCM"); }
inline int upnp_client_no_utf8(int32_t n) { return upnp_client_has_flag(n, "XM:noutf8"); }
inline int upnp_client_wan(int32_t n) { return upnp_client_has_flag(n, "XM:WAN"); }
inline int upnp_client_child_count(int32_t n) { return upnp_client_has_flag(n, "XM:GIVECHILDCOUNT"); }
inline int upnp_client_force_res(int32_t n) { return upnp_client_has_flag(n, "XM:FORCERES"); }
inline int upnp_client_philips(int32_t n) { return upnp_client_has_flag(n, "XM:PHILIPS"); }
inline int upnp_client_chunked(int32_t n) { return upnp_client_has_flag(n, "HP:chunked"); }
inline int upnp_client_mime_type2(int32_t n) { return upnp_client_has_flag(n, "HP:MIMETYPE2"); }
inline int upnp_client_http10_response(int32_t n) { return upnp_client_has_flag(n, "HP:1.0RESPONSE"); }
inline int upnp_client_redsonic(int32_t n) { return upnp_client_has_flag(n, "DX:REDSONIC"); }
inline int upnp_client_absolute_uri(int32_t n) { return upnp_client_has_flag(n, "DX:ABSOLUTEURI"); }
inline int upnp_client_search_roku(int32_t n) { return upnp_client_has_flag(n, "SC:roku"); }
inline int upnp_client_search_yamaha(int32_t n) { return upnp_client_has_flag(n, "SC:yamaha"); }
inline int upnp_client_search_sony(int32_t n) { return upnp_client_has_flag(n, "SC:sony"); }
inline int upnp_client_search_nodups(int32_t n) { return upnp_client_has_flag(n, "SC:nodups"); }
inline int upnp_client_auto(int32_t n) { return upnp_client_has_flag(n, "DB:AUTO"); }
