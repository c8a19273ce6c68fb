// http_stream.cpp: file streaming. It owns the open-file records and two
// plain words shared by all transfers: the count of running transfers and
// the chunk size of video, read from its option once per process run.
//
// Order of work for one request: the URL's object id goes to the store,
// which answers, under db_lock and on its own, with a copy of the file's
// path and the item's duration (and counts a play of a track); the lock is
// left before anything touches the socket. The path must lie within a
// shared folder; then two readers are opened on it. The Range or time seek
// of the head is judged, time is mapped to bytes by plain proportion, the
// response head goes out through HTTP_send_header, and the body is sent one
// chunk at a time with the nearer reader, from the page cache straight to
// the socket. A file system that cannot send that way is read into a
// buffer instead. The loop has no pacing: only the socket bounds it, and
// the connection's send timeout ends a peer that stops reading.
//
// No lock: a record belongs to its connection's thread, and the shared
// words are atomics.
#include "http/http_stream.h"

#include "config/upnp_client.h"
#include "config/upnp_ini.h"
#include "database/db_object.h"
#include "database/db_tree.h"
#include "http/http_server.h"
#include "runtime/upnp_file.h"
#include "runtime/upnp_log.h"
#include "runtime/upnp_mime.h"
#include "runtime/upnp_os.h"
#include "runtime/upnp_run.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

enum : int32_t {
    STREAM_MEDIA_CHUNK = 32000,       // music and photos; video unless its option says more
    STREAM_OTHER_CHUNK = 64000,
    STREAM_SMALLEST_CHUNK = 2048,
    // A mistyped option must not ask for gigabytes of buffer.
    STREAM_LARGEST_CHUNK = 16 * 1024 * 1024,
};

// What one chunk's move can end in, besides a count of bytes.
static constexpr int64_t STREAM_FILE_FAILED = -1, STREAM_SEND_FAILED = -2;

static std::atomic<int32_t> stream_transfers;
static std::atomic<int32_t> stream_video_chunk;     // 0 until the option was read

int32_t HTTP_stream_transfers()
{
    return stream_transfers.load();
}

// ---- The record ---------------------------------------------------------------

HTTP_stream* HTTP_stream_open_path(const char* path, const char* url, int32_t duration_ms, char kind)
{
    if (!path)
        return nullptr;
    HTTP_stream* s = static_cast<HTTP_stream*>(calloc(1, sizeof(HTTP_stream)));
    if (!s)
        return nullptr;
    s->path = strdup(path);
    s->url = strdup(url ? url : "");
    s->kind = kind;
    s->duration_ms = duration_ms;
    s->head.file = upnp_mediafile_open_read(path);
    s->tail.file = upnp_mediafile_open_read(path);
    if (!s->path || !s->url || !s->head.file || !s->tail.file) {
        HTTP_close_stream(s);
        return nullptr;
    }
    s->size = s->head.file->size;
    s->tail.position = s->size - 1;
    s->tail.at = s->size;
    return s;
}

void HTTP_close_stream(HTTP_stream* stream)
{
    if (!stream)
        return;
    upnp_file_close(stream->head.file);
    upnp_file_close(stream->tail.file);
    free(stream->path);
    free(stream->url);
    free(stream);
}

static char stream_kind(const char* url)
{
    return strstr(url, "/music") ? 'm' : strstr(url, "/video") ? 'v' : strstr(url, "/photo") ? 'p' : 'x';
}

HTTP_stream* HTTP_open_stream(HTTP_request* request)
{
    const char* at = strstr(request->url, "/O");
    if (!at)
        return nullptr;
    // The id alone: a title may follow it in the URL, and may hold a "$".
    char id[DB_ID_TEXT_SIZE];
    size_t n = strspn(at + 2, "0123456789$");
    if (n == 0 || n >= sizeof id)
        return nullptr;
    memcpy(id, at + 2, n);
    id[n] = 0;
    int32_t duration = 0;
    char* path = db_get_res_by_id(id, request, &duration);
    if (!path)
        return nullptr;
    HTTP_stream* s = nullptr;
    if (db_file_is_served(path))
        s = HTTP_stream_open_path(path, request->url, duration, stream_kind(request->url));
    else
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "HTTP_open_stream : %s is not in a shared folder\n", path);
    free(path);
    return s;
}

// ---- Readers ------------------------------------------------------------------

// The reader nearer to p, moved there if it stands elsewhere; a tie goes
// to the tail. A reader that stands at p reads from where it really is:
// the tail reader's first read of the last byte thus finds the end.
static HTTP_stream_reader* stream_reader_at(HTTP_stream* s, int64_t p)
{
    int64_t head = std::llabs(s->head.position - p), tail = std::llabs(s->tail.position - p);
    HTTP_stream_reader* r = head >= tail ? &s->tail : &s->head;
    if (r->position != p) {
        r->position = r->at = p;
        s->seeks++;
    }
    return r;
}

static void stream_advance(HTTP_stream_reader* r, int64_t* position, int64_t n)
{
    r->position += n;
    r->at += n;
    *position += n;
}

int64_t HTTP_stream_read(HTTP_stream* stream, int64_t* position, void* buffer, int64_t size, int64_t remaining)
{
    HTTP_stream_reader* r = stream_reader_at(stream, *position);
    int64_t n = size < remaining ? size : remaining;
    if (n <= 0)
        return 0;
    int64_t got = upnp_file_pread(r->file, buffer, size_t(n), r->at);
    if (got > 0)
        stream_advance(r, position, got);
    return got;
}

// ---- Transfer -----------------------------------------------------------------

struct stream_transfer {
    HTTP_request* request;
    HTTP_stream* stream;
    int64_t chunk;
    char* buffer;                   // only once the page cache path was refused
};

// One chunk from *position to the socket: the bytes moved, 0 at the end of
// the file, or STREAM_FILE_FAILED / STREAM_SEND_FAILED.
static int64_t stream_move(stream_transfer* t, int64_t* position, int64_t remaining)
{
    HTTP_stream* s = t->stream;
    if (!s->copy) {
        HTTP_stream_reader* r = stream_reader_at(s, *position);
        int64_t n = t->chunk < remaining ? t->chunk : remaining;
        if (n <= 0)
            return 0;
        int64_t sent = upnp_socket_send_file(t->request->socket, r->file->fd, r->at, n);
        if (sent >= 0) {
            stream_advance(r, position, sent);
            return sent;
        }
        if (errno != EINVAL && errno != ENOSYS)
            return errno == EIO ? STREAM_FILE_FAILED : STREAM_SEND_FAILED;
        s->copy = 1;
    }
    if (!t->buffer && !(t->buffer = static_cast<char*>(malloc(size_t(t->chunk)))))
        return STREAM_FILE_FAILED;
    int64_t got = HTTP_stream_read(s, position, t->buffer, t->chunk, remaining);
    if (got <= 0)
        return got < 0 ? STREAM_FILE_FAILED : 0;
    return HTTP_send_bytes(t->request->socket, t->buffer, int32_t(got)) == got ? got : STREAM_SEND_FAILED;
}

// The body from the request's range start on. 0 when it went out whole (or
// the server stopped), 1 when the connection must close.
static int stream_run(HTTP_request* r, HTTP_stream* s, int64_t chunk)
{
    stream_transfer t = {r, s, chunk, nullptr};
    stream_transfers++;
    upnp_file_event(UPNP_EVENT_STREAM_STARTED, r->head);
    int64_t position = r->range_start, sent = 0, n = 0;
    while (upnp_server_get_status() == 1) {
        int64_t remaining = r->content_length < 0 ? chunk : r->content_length - sent;
        n = stream_move(&t, &position, remaining);
        if (n <= 0)
            break;
        sent += n;
        if (r->content_length >= 0 && sent >= r->content_length)
            break;
        upnp_keep_awake();
    }
    free(t.buffer);
    int failed = 1;
    if (n == STREAM_FILE_FAILED)
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_HTTP, "read less than 0 bytes from file! send (%s)\n", r->client_ip);
    else if (n == STREAM_SEND_FAILED)
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "cannnot send. server will kill connection.. (%s)\n", r->client_ip);
    else if (n == 0 && s->duration_ms >= 0 && r->content_length >= 0 && sent < r->content_length)
        // The file shrank under the transfer: the peer waits for bytes that
        // will never come, and only a close tells it so.
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "file ended %lld bytes early, closing (%s)\n",
                 static_cast<long long>(r->content_length - sent), r->client_ip);
    else
        failed = 0;
    stream_transfers--;
    upnp_file_event(failed ? UPNP_EVENT_STREAM_FAILED : UPNP_EVENT_STREAM_FINISHED, r->head);
    return failed;
}

// ---- The response ---------------------------------------------------------------

static const char* stream_mime(const HTTP_request* r, const HTTP_stream* s)
{
    const char* type = upnp_mime_from_extension(r->url, upnp_stream_extension(s->path),
                                                upnp_client_mime_type2(r->client_id) ? 1 : 0);
    if (strstr(r->url, "PNMPEG_TS") && !strstr(r->url, "PNMPEG_TS_SD_NA_ISO"))
        type = "video/vnd.dlna.mpeg-tts";
    return type ? type : "application/octet-stream";
}

// The status that refuses the range, or 0 when it may be served.
static int32_t stream_judge(const HTTP_stream* s, int64_t start, int64_t end, int32_t time_seek)
{
    if (start == HTTP_RANGE_BAD || end == HTTP_RANGE_BAD)
        return 400;
    if (start == HTTP_RANGE_REFUSED || end == HTTP_RANGE_REFUSED)
        return 406;
    if (!time_seek && start > s->size)
        return 416;
    if (time_seek && start > s->duration_ms)
        return 416;
    return 0;
}

static int64_t stream_ms_to_bytes(int64_t ms, int32_t duration_ms, int64_t total)
{
    return int64_t(std::trunc(double(ms) / double(duration_ms) * double(total)));
}

// Range, lengths and close flag of the request for the range asked; the
// status the head goes out with.
static int32_t stream_place(HTTP_request* r, const HTTP_stream* s, int64_t start, int64_t end, int32_t time_seek)
{
    if (end > s->size)
        end = s->size;              // in whatever unit the end is, as players have always had it
    if (s->duration_ms < 0) {
        r->close = 1;
        r->content_length = r->total_length = HTTP_UNKNOWN_LENGTH;
    }
    if (start >= 0 && time_seek && s->duration_ms > 0) {
        start = stream_ms_to_bytes(start, s->duration_ms, r->total_length);
        if (end != HTTP_RANGE_NONE)
            end = stream_ms_to_bytes(end, s->duration_ms, r->total_length);
    }
    r->range_start = start;
    // A suffix range reads as a negative start: the whole file is served.
    if (start < 0) {
        if (s->duration_ms < 0)
            r->content_length = -1;
        return 200;
    }
    if (end == HTTP_RANGE_NONE || end >= r->total_length)
        end = r->total_length > 0 ? r->total_length - 1 : 0;
    r->range_end = end;
    r->content_length = end - start + 1 < r->total_length ? end - start + 1 : r->total_length;
    return 206;
}

static int32_t stream_video_chunk_size()
{
    int32_t size = stream_video_chunk.load();
    if (size == 0) {
        size = upnp_ini_get_int(UPNP_OPT_STREAMBUFFER);
        size = size <= 0 ? STREAM_MEDIA_CHUNK : size > STREAM_LARGEST_CHUNK ? STREAM_LARGEST_CHUNK : size;
        stream_video_chunk = size;
    }
    return size;
}

// The chunk of one read and send. A body shorter than the chunk sizes it,
// by the low 32 bits of its length as players have always been served.
static int64_t stream_chunk(char kind, int64_t content_length)
{
    int32_t size = kind == 'm' || kind == 'p' ? STREAM_MEDIA_CHUNK
                   : kind == 'v'              ? stream_video_chunk_size()
                                              : STREAM_OTHER_CHUNK;
    int32_t low = int32_t(uint32_t(uint64_t(content_length)));
    if (content_length >= 0 && low < size)
        size = low & 65535;
    return size < 1 ? STREAM_SMALLEST_CHUNK : size;
}

int HTTP_send_stream(HTTP_request* request)
{
    HTTP_request* r = request;
    if (r->stream && strcmp(r->stream->url, r->url) != 0) {
        HTTP_close_stream(r->stream);
        r->stream = nullptr;
    }
    if (!r->stream && !(r->stream = HTTP_open_stream(r)))
        return HTTP_send_file_not_found(r);
    HTTP_stream* s = r->stream;
    r->duration_ms = s->duration_ms;
    r->content_length = r->total_length = s->size;
    r->mime_type = stream_mime(r, s);
    int64_t start, end;
    int32_t time_seek;
    HTTP_parse_range(r->head, &start, &end, &time_seek);
    if (int32_t refusal = stream_judge(s, start, end, time_seek))
        return HTTP_send_status(r, refusal);
    int failed = HTTP_send_header(r, stream_place(r, s, start, end, time_seek));
    if (failed || r->method == HTTP_METHOD_HEAD)
        return failed;
    if (r->range_start < 0)
        r->range_start = 0;
    return stream_run(r, s, stream_chunk(s->kind, r->content_length));
}

int HTTP_send_path(HTTP_request* request, const char* path, int32_t duration_ms, char kind)
{
    HTTP_request* r = request;
    if (r->stream && (strcmp(r->stream->url, r->url) != 0 || !path || strcmp(r->stream->path, path) != 0)) {
        HTTP_close_stream(r->stream);
        r->stream = nullptr;
    }
    if (!r->stream && !(r->stream = HTTP_stream_open_path(path, r->url, duration_ms, kind)))
        return HTTP_send_file_not_found(r);
    r->stream->duration_ms = duration_ms;
    return HTTP_send_stream(r);
}

int HTTP_send_file(HTTP_request* request)
{
    if (!upnp_client_allowed(request->client_ip))
        return HTTP_KILL_CONNECTION;
    if (HTTP_stream* s = request->stream) {
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_HTTP, "HTTP_send_file : strFilename %s\n", s->path);
        upnp_file_info info;
        if (upnp_file_stat(s->path, &info) != 0) {
            upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_HTTP, "HTTP_send_file : HTTP_KILL_CONNECTION\n");
            return HTTP_KILL_CONNECTION;
        }
    }
    return HTTP_send_stream(request);
}
