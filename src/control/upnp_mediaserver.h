// upnp_mediaserver.h: the service lifecycle. Starts and stops everything
// that runs, in a fixed order; keeps one server record per interface, the
// once-a-second scheduler and the interface watch that restarts the
// per-interface servers when an address changes, leaving the store, the
// scanner and the options up.
#pragma once
#include <cstddef>
#include <cstdint>

struct nic_entry;

enum { UPNP_MAX_NICS = 5 };

void upnp_mediaserver_start();
void upnp_mediaserver_stop();

int upnp_nic_enumerate(int32_t* count, char* addresses, int32_t max);
void upnp_nic_request_change();
int upnp_nic_is_local(const char* ip);
uint32_t upnp_nic_table(nic_entry** out);   // the number of entries
int32_t upnp_nic_get_count();
int64_t upnp_mediaserver_start_time();
// Registers the functions by which the lower floors reach the upper ones.
// The start does it too; the control API does it before it reads the
// options, so that the shared folders read at start raise the scanner's
// reload, which loads the stored items.
void upnp_mediaserver_hand_down();   // seconds since 1970 of the last start

// The public address found at start when enableweb is 3 or more, else "".
const char* upnp_get_external_address();
// Digits and dots behind the page's title, at most size - 1 of them. 1 when
// an address was found.
int upnp_external_address_parse(const char* page, char* out, size_t size);
