// http_server.h: the HTTP subsystem's chief header. One listening socket
// per interface, found by stepping upward from the configured port; one
// accept thread per interface hands each connection on.
#pragma once
#include <cstdint>

struct HTTP_server {
    int32_t socket;                 // listening socket, -1 when none
    char ip[16];                    // interface address, dotted text
    int32_t port;                   // the port really bound
    int32_t second_port;            // never set; feeds only the rtsp base URL
};

enum { HTTP_DEFAULT_PORT = 9000, HTTP_PORT_STEPS = 1000 };

// Opens, binds (stepping upward from option httpport) and listens. 1 on
// success with socket and port set; 0 with socket -1.
int HTTP_listen(HTTP_server* server);
// Thread body: accepts until the server status leaves 1.
void HTTP_accept(void* server);
// Starts HTTP_accept on its own thread. 1, or 0 when no thread could be made.
int HTTP_accept_start(HTTP_server* server);
// Accept threads that have not yet left; stop waits for 0 before it closes
// the listening sockets, so that no thread accepts on a reused descriptor.
int32_t HTTP_accept_count();
