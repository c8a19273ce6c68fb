// soap_fuzz.cpp: a control request through the SOAP dispatch, as a
// connection thread would hand it over. The input is a flags byte, then
// the SOAPACTION value up to the first line end (no line end: no SOAPACTION
// header at all), then the body. The replies go into one end of a socket
// pair and are read back from the other: every reply must be a whole HTTP
// response whose Content-Length matches the bytes that follow its head.
#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "http/http_server.h"
#include "upnp/upnp_soap.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>

static int fuzz_fds[2] = {-1, -1};

enum { FUZZ_ROKU = 1, FUZZ_REFUSED_PEER = 2, FUZZ_NOSEARCH = 4 };

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // A failed parse prints a line on standard output; keep the run readable.
    if (!freopen("/dev/null", "w", stdout) ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fuzz_fds) != 0)
        abort();
    static const char db[] = "ID:001\nNA:Any\nID:002\nNA:Roku\nSC:roku\n\n";
    upnp_client_db_load_text(db, sizeof db - 1);
    upnp_ini_set(UPNP_OPT_CLIENTAUTOENABLE, "1");
    upnp_ini_set(UPNP_OPT_CLIENTS, "127.0.0.9|001|0");
    return 0;
}

// Everything the dispatch wrote, cut into responses by their heads.
static void fuzz_check_replies()
{
    std::string all;
    char buffer[65536];
    for (ssize_t n; (n = recv(fuzz_fds[1], buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
        all.append(buffer, size_t(n));
    for (size_t at = 0; at < all.size();) {
        size_t end = all.find("\r\n\r\n", at);
        if (all.compare(at, 9, "HTTP/1.1 ") != 0 || end == std::string::npos)
            abort();
        size_t length = all.find("\r\nContent-Length: ", at);
        if (length == std::string::npos || length > end)
            return;      // a body that runs to the close
        at = end + 4 + size_t(strtoull(all.c_str() + length + 18, nullptr, 10));
        if (at > all.size())
            abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > HTTP_BODY_MAX)
        return 0;
    uint8_t flags = data[0];
    std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    static HTTP_request request;
    memset(&request, 0, sizeof request);
    request.socket = fuzz_fds[0];
    request.method = HTTP_METHOD_POST;
    request.version = 11;
    request.client_id = flags & FUZZ_ROKU ? 2 : 1;
    snprintf(request.client_ip, sizeof request.client_ip, "%s", flags & FUZZ_REFUSED_PEER ? "127.0.0.9" : "127.0.0.1");
    snprintf(request.url, sizeof request.url, "/ContentDirectory/Control");
    size_t line = rest.find('\n');
    std::string action = line == std::string::npos ? "" : "SOAPACTION: " + rest.substr(0, std::min(line, size_t(900))) + "\r\n";
    snprintf(request.head, sizeof request.head, "POST /ContentDirectory/Control HTTP/1.1\r\nHost: a\r\n%s\r\n",
             action.c_str());
    std::string text = line == std::string::npos ? rest : rest.substr(line + 1);
    // A copy of its exact size, so that a read past the body is a read
    // past its allocation.
    char* body = static_cast<char*>(malloc(text.size() + 1));
    if (!body)
        return 0;
    memcpy(body, text.c_str(), text.size() + 1);
    request.body = body;
    request.content_length = int64_t(text.size());
    upnp_ini_set(UPNP_OPT_NOSEARCH, flags & FUZZ_NOSEARCH ? "1" : "0");
    int result = upnp_soap_dispatch(&request);
    free(body);
    if (result != 0 && result != 1)
        abort();
    fuzz_check_replies();
    return 0;
}
