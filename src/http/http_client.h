// http_client.h: the small blocking HTTP client with which the server itself
// fetches something: a device description of a player it has just seen,
// and the page of the public address lookup. One connection per request,
// closed when the reply has been read.
//
// Every exchange is bounded: the connect and the whole reply each have a
// time limit, and a reply larger than its cap (head and body together) is
// dropped whole, so a silent or endless peer costs one thread a few
// seconds and a bounded buffer.
#pragma once
#include <cstddef>
#include <cstdint>

struct upnp_string;

enum { HTTP_KIND_POST = 1, HTTP_KIND_GET = 2 };

inline constexpr int32_t HTTP_CLIENT_CONNECT_MS = 5000;
inline constexpr int32_t HTTP_CLIENT_REPLY_MS = 15000;
inline constexpr int32_t HTTP_CLIENT_MAX_REPLY = 1024 * 1024;

// Limits of one exchange; a field of 0 or less takes the default above.
struct HTTP_client_limits {
    int32_t connect_ms;
    int32_t reply_ms;      // from the sent request to the reply's last byte
    int32_t max_reply;     // bytes of all heads and the body together
};

// The reply's body, or null (no connection, a failed send, no head, a
// reply with no framing, a timeout, a reply over the cap). The status is
// not looked at: an error page comes back as a body. The caller frees it
// with upnp_string_free.
upnp_string* HTTP_get(const char* url);
upnp_string* HTTP_talk(int32_t kind, const char* url, const char* soap_action, const char* body);
upnp_string* HTTP_talk_limited(int32_t kind, const char* url, const char* soap_action, const char* body,
                               const HTTP_client_limits* limits);

// Connects to the URL's host and port; the socket, or -1.
int32_t HTTP_open(const char* url);

// Copies at most 127 bytes; text with a control character is refused.
void HTTP_set_user_agent(const char* text);
// Copies the User-Agent into buffer (size bytes, terminated), setting the
// default first if none was set.
void HTTP_get_user_agent(char* buffer, size_t size);

// The connect target of a URL: "http://" (port 80) or "ftp://" (port 21),
// a user part before "@" dropped, ":port" masked to 16 bits. host_out gets
// at most host_size - 1 bytes. 1, or 0 for another scheme, a URL with a
// control byte or blank, an empty host or a host that does not fit.
int HTTP_url_target(const char* url, char* host_out, size_t host_size, int32_t* port_out);

// The request head for kind and URL into out (size bytes): 1, or 0 when it
// would not fit or a text holds a control byte (POST also needs a path).
int HTTP_build_request(int32_t kind, const char* url, const char* soap_action, int32_t body_length, char* out,
                       size_t size);

// Looks at the bytes of a reply received so far. closed: the peer has
// ended the connection, so nothing more will come.
enum { HTTP_REPLY_MORE = 0, HTTP_REPLY_DONE = 1, HTTP_REPLY_NO_HEAD = -1 };
// MORE: wait for more bytes. DONE: *body is the body, or null for a reply
// that has neither a length, chunks nor "connection: close". NO_HEAD: the
// peer closed before a final head ended. Interim 1xx heads are skipped.
int HTTP_reply_parse(const char* data, size_t size, int closed, upnp_string** body);
