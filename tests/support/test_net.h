// test_net.h: loopback helpers for integration tests. Every connection goes
// to 127.0.0.0/8 only, with timeouts, so no test can hang on the network.
#pragma once
#include <netinet/in.h>
#include <string>

sockaddr_in test_address(const char* ip, int port);       // an IPv4 address and port
int test_free_port();                                    // a port free on 127.0.0.1 right now
bool test_can_connect(const char* ip, int port);         // a TCP connect from ip to 127.0.0.1 within 2 s
// A blocking TCP connection from source (any 127.0.0.0/8 address) to
// 127.0.0.1:port, its reads and writes timing out after timeout_ms; -1 on failure.
int test_connect_from(const char* source, int port, int timeout_ms = 5000);
bool test_send_text(int s, const std::string& text);
// One response: its head and, by its Content-Length, its body; without a
// length, everything until the peer closes. "" when nothing came in time.
std::string test_read_response(int s);
// True when the peer closed (not a timeout) before timeout_ms.
bool test_closed_by_peer(int s, int timeout_ms);
