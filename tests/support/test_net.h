// test_net.h: loopback helpers for integration tests. Every connection goes
// to 127.0.0.0/8 only, with timeouts, so no test can hang on the network.
#pragma once
#include <string>

int test_free_port();                                    // a port free on 127.0.0.1 right now
bool test_can_connect(const char* ip, int port);         // a TCP connect within 2 s
// Sends the bytes and reads until the peer closes or timeout_ms passes.
std::string test_exchange(const char* ip, int port, const std::string& request, int timeout_ms = 5000);
