// upnp_socket.cpp: IPv4 sockets behind dotted-text addresses, and name
// lookup. It owns the socket counters, which are atomic words read only for
// log lines: a running count of open sockets is how a leak shows in the
// field. Every socket is close-on-exec and kept above descriptors 0 to 2;
// every send passes MSG_NOSIGNAL; an interrupted call is retried at once,
// while a timeout fails. Closing shuts the socket down first, because on
// Linux a close alone does not wake a thread blocked in accept or recv.
#include "runtime/upnp_os.h"

#include "runtime/upnp_log.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

static std::atomic<int32_t> socket_open_count{0};       // created or accepted, not yet closed
static std::atomic<int32_t> socket_close_failures{0};
static std::atomic<int32_t> socket_udp_failures{0};
static std::atomic<int32_t> socket_tcp_failures{0};

// ---- Addresses ------------------------------------------------------------

// Null or empty text is the any-address.
static int socket_parse_ip(const char* ip, in_addr* out)
{
    if (!ip || !*ip) {
        out->s_addr = htonl(INADDR_ANY);
        return 1;
    }
    return inet_pton(AF_INET, ip, out) == 1;
}

static int socket_make_addr(const char* ip, int32_t port, sockaddr_in* out)
{
    memset(out, 0, sizeof(*out));
    out->sin_family = AF_INET;
    if (port < 0 || port > 65535 || !socket_parse_ip(ip, &out->sin_addr)) {
        errno = EINVAL;
        return 0;
    }
    out->sin_port = htons(uint16_t(port));
    return 1;
}

// A destination: as socket_make_addr, but the any-address is refused.
static int socket_make_peer(const char* ip, int32_t port, sockaddr_in* out)
{
    if (!ip || !*ip) {
        errno = EINVAL;
        return 0;
    }
    return socket_make_addr(ip, port, out);
}

static void socket_ip_text(in_addr addr, char* ip_out)
{
    if (!ip_out)
        return;
    if (!inet_ntop(AF_INET, &addr, ip_out, UPNP_IP_TEXT_SIZE))
        ip_out[0] = 0;
}

static void socket_addr_text(const sockaddr_in& addr, char* ip_out, int32_t* port_out)
{
    socket_ip_text(addr.sin_addr, ip_out);
    if (port_out)
        *port_out = ntohs(addr.sin_port);
}

static void socket_clear_addr(char* ip_out, int32_t* port_out)
{
    if (ip_out)
        ip_out[0] = 0;
    if (port_out)
        *port_out = 0;
}

// ---- Creation and closing ---------------------------------------------------

int32_t upnp_fd_raise(int32_t fd)
{
    if (fd < 0 || fd > 2)
        return fd;
    int high = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    int saved = errno;
    close(fd);
    errno = saved;
    return high;
}

static int32_t socket_create(int type)
{
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    return upnp_fd_raise(fd);
}

int32_t upnp_socket_udp()
{
    int32_t s = socket_create(SOCK_DGRAM);
    if (s < 0) {
        int err = errno;
        socket_udp_failures.fetch_add(1);
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM,
                 "udp socket creation fail - opened socket [%d], closing failed socket [%d], wsa last error [%d]\n",
                 socket_open_count.load(), socket_close_failures.load(), err);
        return -1;
    }
    socket_open_count.fetch_add(1);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "udp socket ok - opened socket [%d], closing failed socket [%d]\n",
             socket_open_count.load(), socket_close_failures.load());
    return s;
}

int32_t upnp_socket_tcp()
{
    int32_t s = socket_create(SOCK_STREAM);
    if (s < 0) {
        socket_tcp_failures.fetch_add(1);
        return -1;
    }
    socket_open_count.fetch_add(1);
    return s;
}

int upnp_socket_shutdown(int32_t s)
{
    if (s < 3)
        return -1;
    return shutdown(s, SHUT_RDWR);
}

int upnp_socket_close(int32_t s)
{
    // Descriptors 0 to 2 are never ours: a record's "none" must not close
    // the host's standard streams.
    if (s < 3) {
        errno = EBADF;
        return -1;
    }
    (void)shutdown(s, SHUT_RDWR);      // fails harmlessly on unconnected sockets
    if (close(s) != 0) {
        int err = errno;
        socket_close_failures.fetch_add(1);
        upnp_log(UPNP_LOG_ERROR, UPNP_LOG_SYSTEM,
                 "socket close fail - opened socket [%d], closing failed socket [%d], wsa last error [%d]\n",
                 socket_open_count.load(), socket_close_failures.load(), err);
        errno = err;
        return -1;
    }
    socket_open_count.fetch_sub(1);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "close socket ok - opened socket [%d], closing failed socket [%d]\n",
             socket_open_count.load(), socket_close_failures.load());
    return 0;
}

int32_t upnp_socket_open_count()
{
    return socket_open_count.load();
}

// ---- Connections ------------------------------------------------------------

int upnp_socket_bind(int32_t s, const char* ip, int32_t port)
{
    sockaddr_in addr;
    int rc = -1;
    if (socket_make_addr(ip, port, &addr))
        rc = bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    if (rc != 0) {
        int err = errno;
        upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "binding fail ip=%s, port=%d wsa last error [%d]\n", ip ? ip : "",
                 port, err);
        errno = err;
        return -1;
    }
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "binding ok! ip=%s, port=%d\n", ip ? ip : "", port);
    return 0;
}

int upnp_socket_listen(int32_t s)
{
    return listen(s, 0x7FFFFFFF);      // the kernel reads this as its maximum
}

int32_t upnp_socket_accept(int32_t s)
{
    int fd;
    do {
        // A peer that gave up before we took its connection is no failure
        // of the listener.
        fd = accept4(s, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
    fd = upnp_fd_raise(fd);
    if (fd < 0)
        return -1;
    // A reply leaves as a head and then a body; held back by Nagle's rule,
    // the body would wait for the ACK of the head, which clients delay by
    // up to 40 ms.
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    socket_open_count.fetch_add(1);
    upnp_log(UPNP_LOG_INFO, UPNP_LOG_SYSTEM, "socket accept ok - opened socket [%d], closing failed socket [%d]\n",
             socket_open_count.load(), socket_close_failures.load());
    return fd;
}

// Waits until a started connect has finished; timeout_ms < 0 waits without
// limit. 0 when connected, else -1 with errno.
static int socket_finish_connect(int32_t s, int32_t timeout_ms)
{
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms < 0 ? 0 : timeout_ms);
    for (;;) {
        int wait = -1;
        if (timeout_ms >= 0) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
            wait = left > 0 ? int(left) : 0;
        }
        pollfd p{s, POLLOUT, 0};
        int rc = poll(&p, 1, wait);
        if (rc > 0)
            break;
        if (rc == 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        if (errno != EINTR)
            return -1;
    }
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        return -1;
    if (err != 0) {
        errno = err;
        return -1;
    }
    // A shutdown from another thread also makes the socket writable.
    sockaddr_in peer;
    socklen_t peer_len = sizeof(peer);
    return getpeername(s, reinterpret_cast<sockaddr*>(&peer), &peer_len) == 0 ? 0 : -1;
}

int upnp_socket_connect(int32_t s, const char* ip, int32_t port)
{
    sockaddr_in addr;
    if (!socket_make_peer(ip, port, &addr))
        return -1;
    if (connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0)
        return 0;
    // An interrupted connect goes on in the background; retrying it would
    // only report EALREADY.
    if (errno != EINTR)
        return -1;
    return socket_finish_connect(s, -1);
}

int upnp_socket_connect_timeout(int32_t s, const char* ip, int32_t port, int32_t timeout_ms)
{
    sockaddr_in addr;
    if (!socket_make_peer(ip, port, &addr))
        return -1;
    int flags = fcntl(s, F_GETFL);
    if (flags < 0 || fcntl(s, F_SETFL, flags | O_NONBLOCK) != 0)
        return -1;
    int rc = connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    if (rc != 0 && (errno == EINPROGRESS || errno == EINTR))
        rc = socket_finish_connect(s, timeout_ms < 0 ? 0 : timeout_ms);
    int err = errno;
    fcntl(s, F_SETFL, flags);
    errno = err;
    return rc == 0 ? 0 : -1;
}

// ---- Data -----------------------------------------------------------------

int32_t upnp_socket_send(int32_t s, const void* data, int32_t length)
{
    if (length < 0 || (!data && length > 0)) {
        errno = EINVAL;
        return -1;
    }
    ssize_t n;
    do {
        n = send(s, data, size_t(length), MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : int32_t(n);
}

int32_t upnp_socket_send_all(int32_t s, const void* data, int32_t length)
{
    const char* p = static_cast<const char*>(data);
    int32_t done = 0;
    while (done < length) {
        int32_t n = upnp_socket_send(s, p + done, length - done);
        if (n <= 0)
            return -1;
        done += n;
    }
    return length < 0 ? -1 : length;
}

// sendfile has no MSG_NOSIGNAL: a peer that hung up raises SIGPIPE, which
// the library's threads block.
int64_t upnp_socket_send_file(int32_t s, int32_t fd, int64_t offset, int64_t count)
{
    if (offset < 0 || count < 0) {
        errno = EINVAL;
        return -1;
    }
    off_t at = off_t(offset);
    int64_t done = 0;
    while (done < count) {
        ssize_t n = sendfile(s, fd, &at, size_t(count - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return done > 0 ? done : n < 0 ? -1 : 0;
        done += n;
    }
    return done;
}

static int32_t socket_recv_flags(int32_t s, void* buffer, int32_t size, int flags)
{
    if (size < 0 || (!buffer && size > 0)) {
        errno = EINVAL;
        return -1;
    }
    ssize_t n;
    do {
        n = recv(s, buffer, size_t(size), flags);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : int32_t(n);
}

int32_t upnp_socket_recv(int32_t s, void* buffer, int32_t size)
{
    return socket_recv_flags(s, buffer, size, 0);
}

int32_t upnp_socket_peek(int32_t s, void* buffer, int32_t size)
{
    return socket_recv_flags(s, buffer, size, MSG_PEEK);
}

int32_t upnp_socket_sendto(int32_t s, const void* data, int32_t length, const char* ip, int32_t port)
{
    sockaddr_in addr;
    if (length < 0 || (!data && length > 0)) {
        errno = EINVAL;
        return -1;
    }
    if (!socket_make_peer(ip, port, &addr))
        return -1;
    ssize_t n;
    do {
        n = sendto(s, data, size_t(length), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : int32_t(n);
}

int32_t upnp_socket_recvfrom(int32_t s, void* buffer, int32_t size, char* ip_out, int32_t* port_out)
{
    return upnp_socket_recvfrom_pktinfo(s, buffer, size, ip_out, port_out, nullptr);
}

// The arrival interface's own address, from the IP_PKTINFO control message.
static void socket_pktinfo_text(msghdr* msg, char* local_ip_out)
{
    for (cmsghdr* c = CMSG_FIRSTHDR(msg); c; c = CMSG_NXTHDR(msg, c)) {
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO &&
            c->cmsg_len >= CMSG_LEN(sizeof(in_pktinfo))) {
            in_pktinfo info;
            memcpy(&info, CMSG_DATA(c), sizeof(info));
            socket_ip_text(info.ipi_spec_dst, local_ip_out);
            return;
        }
    }
}

int32_t upnp_socket_recvfrom_pktinfo(int32_t s, void* buffer, int32_t size, char* ip_out, int32_t* port_out,
                                     char* local_ip_out)
{
    if (local_ip_out)
        local_ip_out[0] = 0;
    if (size < 0 || (!buffer && size > 0)) {
        socket_clear_addr(ip_out, port_out);
        errno = EINVAL;
        return -1;
    }
    sockaddr_in from;
    iovec iov{buffer, size_t(size)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
    msghdr msg;
    ssize_t n;
    do {
        memset(&from, 0, sizeof(from));
        memset(&msg, 0, sizeof(msg));
        msg.msg_name = &from;
        msg.msg_namelen = sizeof(from);
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        n = recvmsg(s, &msg, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 1) {
        socket_clear_addr(ip_out, port_out);
        return n < 0 ? -1 : int32_t(n);
    }
    socket_addr_text(from, ip_out, port_out);
    if (local_ip_out)
        socket_pktinfo_text(&msg, local_ip_out);
    return int32_t(n);
}

int upnp_socket_get_peer(int32_t s, char* ip_out, int32_t* port_out)
{
    sockaddr_in addr;
    socklen_t len = sizeof(addr);
    if (getpeername(s, reinterpret_cast<sockaddr*>(&addr), &len) != 0 || addr.sin_family != AF_INET) {
        socket_clear_addr(ip_out, port_out);
        return -1;
    }
    socket_addr_text(addr, ip_out, port_out);
    return 0;
}

int32_t upnp_socket_local_port(int32_t s)
{
    sockaddr_in addr;
    socklen_t len = sizeof(addr);
    if (getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len) != 0 || addr.sin_family != AF_INET)
        return -1;
    return ntohs(addr.sin_port);
}

// ---- Options ----------------------------------------------------------------

static int socket_set_timeout(int32_t s, int option, int32_t ms)
{
    if (ms < 0)
        ms = 0;                        // 0: no timeout
    timeval tv{ms / 1000, suseconds_t(ms % 1000) * 1000};
    return setsockopt(s, SOL_SOCKET, option, &tv, sizeof(tv)) == 0 ? 0 : -1;
}

int upnp_socket_set_send_timeout(int32_t s, int32_t ms)
{
    return socket_set_timeout(s, SO_SNDTIMEO, ms);
}

int upnp_socket_set_recv_timeout(int32_t s, int32_t ms)
{
    return socket_set_timeout(s, SO_RCVTIMEO, ms);
}

static int socket_set_int(int32_t s, int level, int option, int value)
{
    return setsockopt(s, level, option, &value, sizeof(value)) == 0 ? 0 : -1;
}

int upnp_socket_set_reuse(int32_t s)
{
    return socket_set_int(s, SOL_SOCKET, SO_REUSEADDR, 1);
}

int upnp_socket_set_multicast_ttl(int32_t s, int32_t ttl)
{
    if (ttl < 0 || ttl > 255) {
        errno = EINVAL;
        return -1;
    }
    unsigned char byte = static_cast<unsigned char>(ttl);
    return setsockopt(s, IPPROTO_IP, IP_MULTICAST_TTL, &byte, sizeof(byte)) == 0 ? 0 : -1;
}

int upnp_socket_join_group(int32_t s, const char* group, const char* interface_ip)
{
    ip_mreq req;
    memset(&req, 0, sizeof(req));
    if (!group || inet_pton(AF_INET, group, &req.imr_multiaddr) != 1 ||
        !socket_parse_ip(interface_ip, &req.imr_interface)) {
        errno = EINVAL;
        return -1;
    }
    return setsockopt(s, IPPROTO_IP, IP_ADD_MEMBERSHIP, &req, sizeof(req)) == 0 ? 0 : -1;
}

int upnp_socket_set_multicast_if(int32_t s, const char* interface_ip)
{
    in_addr addr;
    if (!socket_parse_ip(interface_ip, &addr)) {
        errno = EINVAL;
        return -1;
    }
    return setsockopt(s, IPPROTO_IP, IP_MULTICAST_IF, &addr, sizeof(addr)) == 0 ? 0 : -1;
}

int upnp_socket_set_multicast_all_off(int32_t s)
{
    return socket_set_int(s, IPPROTO_IP, IP_MULTICAST_ALL, 0);
}

int upnp_socket_set_pktinfo(int32_t s)
{
    return socket_set_int(s, IPPROTO_IP, IP_PKTINFO, 1);
}

int upnp_nic_netmask(const char* ip, char* mask_out)
{
    if (!mask_out)
        return 0;
    mask_out[0] = 0;
    in_addr wanted;
    if (!ip || inet_pton(AF_INET, ip, &wanted) != 1)
        return 0;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return 0;
    for (ifaddrs* a = list; a && !mask_out[0]; a = a->ifa_next)
        if (a->ifa_addr && a->ifa_netmask && a->ifa_addr->sa_family == AF_INET &&
            reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr.s_addr == wanted.s_addr)
            socket_ip_text(reinterpret_cast<sockaddr_in*>(a->ifa_netmask)->sin_addr, mask_out);
    freeifaddrs(list);
    return mask_out[0] != 0;
}

// ---- Name lookup ------------------------------------------------------------

int upnp_get_hostname(char* buffer, int32_t size)
{
    if (!buffer || size < 1)
        return 0;
    if (gethostname(buffer, size_t(size)) != 0) {
        buffer[0] = 0;
        return 0;
    }
    buffer[size - 1] = 0;              // a cut name is not terminated
    return 1;
}

static bool resolve_ends_with(std::string_view name, std::string_view suffix)
{
    if (name.size() < suffix.size())
        return false;
    std::string_view tail = name.substr(name.size() - suffix.size());
    for (size_t i = 0; i < tail.size(); i++)
        if ((tail[i] | 0x20) != suffix[i])
            return false;
    return true;
}

// Names that never go out as a query: "localhost" is the loopback and
// ".invalid" never exists, whatever a resolver on the network would say.
// 1 resolved, 0 known not to exist, -1 to be looked up.
static int resolve_reserved(std::string_view name, char* ip_out)
{
    if (!name.empty() && name.back() == '.')
        name.remove_suffix(1);
    if ((name.size() == 9 && resolve_ends_with(name, "localhost")) || resolve_ends_with(name, ".localhost")) {
        memcpy(ip_out, "127.0.0.1", 10);
        return 1;
    }
    if ((name.size() == 7 && resolve_ends_with(name, "invalid")) || resolve_ends_with(name, ".invalid"))
        return 0;
    return -1;
}

static int resolve_lookup(const char* name, char* ip_out)
{
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0 || !found)
        return 0;
    int ok = 0;
    for (addrinfo* a = found; a && !ok; a = a->ai_next) {
        if (a->ai_family == AF_INET && a->ai_addrlen >= sizeof(sockaddr_in)) {
            socket_ip_text(reinterpret_cast<sockaddr_in*>(a->ai_addr)->sin_addr, ip_out);
            ok = ip_out[0] != 0;
        }
    }
    freeaddrinfo(found);
    return ok;
}

int upnp_resolve_host(const char* name, char* ip_out)
{
    if (!ip_out)
        return 0;
    ip_out[0] = 0;
    int found = 0;
    in_addr literal;
    if (name && *name) {
        if (inet_pton(AF_INET, name, &literal) == 1) {
            socket_ip_text(literal, ip_out);
            found = 1;
        } else {
            found = resolve_reserved(name, ip_out);
            if (found < 0)
                found = resolve_lookup(name, ip_out);
        }
    }
    if (found != 1) {
        ip_out[0] = 0;
        upnp_log(UPNP_LOG_PROBLEM, UPNP_LOG_SYSTEM, "cannot get IP of %s\n", name ? name : "(null)");
        return 0;
    }
    return 1;
}
