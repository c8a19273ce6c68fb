// http_stream.h: file streaming, the handler of the /disk route and the
// engine under CGI output and cache files.
//
// A request resolves its URL's object id through the store to a file, and
// the open file is kept in an HTTP_stream that the connection holds across
// its requests, so that a series of Range requests for one URL reuses it.
// The file is read through two readers, one that starts at the head and
// one at the tail: a player that reads an index at the end and media data
// at the front keeps each reader where it is instead of seeking on every
// request. Bytes go from the page cache to the socket without a copy.
#pragma once
#include <cstdint>

struct HTTP_request;
struct upnp_file;

// One read handle on the file and where it stands. position is where the
// stream believes the reader to be; at is where its next read really
// starts, which differs for the tail reader until its first seek (it is
// opened at the end, while its position names the last byte).
struct HTTP_stream_reader {
    upnp_file* file;
    int64_t position;
    int64_t at;
};

struct HTTP_stream {
    char* path;                     // owned
    char* url;                      // the URL it was opened for, owned
    char kind;                      // 'm' music, 'v' video, 'p' photo, 'x' anything else
    int32_t duration_ms;            // 0 unknown, -1 a stream whose end is not known
    int64_t size;
    HTTP_stream_reader head;
    HTTP_stream_reader tail;
    int32_t seeks;                  // reader moves so far, for the record's owner to see
    int32_t copy;                   // 1 once the file refused to be sent from the page cache
};

// Handler of /disk: 1 (HTTP_KILL_CONNECTION) for a refused client or a file
// that vanished under an open stream, else what HTTP_send_stream returns.
int HTTP_send_file(HTTP_request* request);
// The whole response for the request's stream, opened by object id when
// the request has none for its URL. 0 to keep the connection, 1 to close.
int HTTP_send_stream(HTTP_request* request);
// The stream for the URL's object, found through the store alone; null
// for no such item, a file outside the shared folders or one that cannot
// be opened.
HTTP_stream* HTTP_open_stream(HTTP_request* request);
// Sends a file that the caller named by path (CGI output, cache files), as
// HTTP_send_stream does; the path is the caller's, never the URL's.
int HTTP_send_path(HTTP_request* request, const char* path, int32_t duration_ms, char kind);
// A stream on a file, for a URL; null when the file cannot be opened.
HTTP_stream* HTTP_stream_open_path(const char* path, const char* url, int32_t duration_ms, char kind);
void HTTP_close_stream(HTTP_stream* stream);

// Reads at most size bytes, and no more than remaining, at *position with
// the nearer reader, and advances *position: the count, 0 at the end,
// negative on an error.
int64_t HTTP_stream_read(HTTP_stream* stream, int64_t* position, void* buffer, int64_t size, int64_t remaining);

// Transfers running now.
int32_t HTTP_stream_transfers();
