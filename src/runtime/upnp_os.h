// upnp_os.h: the thin layer over the operating system's threads, IPv4
// sockets, name lookup and child processes. The rest of the server never
// sees a socket address: addresses travel as dotted text in 16-byte buffers
// (UPNP_IP_TEXT_SIZE) and ports as plain integers.
//
// Threads are detached, run on small stacks with SIGPIPE blocked, and are
// counted while their entry runs, so that stop can wait until every thread
// the library started has left. Sockets are close-on-exec, never sit on
// descriptors 0 to 2, and -1 means invalid. Sends never raise SIGPIPE.
// Children start from an argument array (never a shell), each in its own
// process group with only descriptors 0 to 2 inherited, and every child is
// reaped.
#pragma once
#include <cstddef>
#include <cstdint>

inline constexpr int UPNP_IP_TEXT_SIZE = 16;            // "255.255.255.255" and its NUL

// ---- Threads ------------------------------------------------------------

typedef void (*upnp_thread_entry)(void* argument);

// Threads are many (one per HTTP connection), so each gets a small stack.
inline constexpr size_t UPNP_THREAD_STACK_SIZE = 256 * 1024;

// Priorities are the relative values +1 (above normal), 0 and -2 (lowest);
// they map to nice offsets from the process's own, best effort: a raise the
// system refuses leaves the thread at normal priority.

// Starts a detached thread; 1 when it runs, 0 when it could not be made.
int upnp_thread_spawn(upnp_thread_entry entry, void* argument, int32_t priority);

// Starts a joinable thread and returns its handle (0 on failure). Every
// handle must be passed once to upnp_thread_join or upnp_thread_detach.
uint64_t upnp_thread_start(upnp_thread_entry entry, void* argument, int32_t priority);
int upnp_thread_join(uint64_t handle);                 // 1 once the thread has ended
int upnp_thread_detach(uint64_t handle);

// Names the calling thread for debuggers (the first 15 bytes are kept).
void upnp_thread_set_name(const char* name);

// Threads started here whose entry has not yet returned.
int32_t upnp_thread_count();

// Waits, polling, until no other thread started here runs (the caller may
// be one of them) or timeout_ms has passed. 1 when none is left, 0 on
// timeout. A thread counts as ended once its entry has returned.
int upnp_thread_wait_idle(int32_t timeout_ms);

// Keeps the machine from sleeping during a stream; nothing is needed here.
void upnp_keep_awake();

// ---- Sockets ------------------------------------------------------------

int32_t upnp_socket_udp();                             // socket or -1
int32_t upnp_socket_tcp();                             // socket or -1

// Shuts the socket down, so that a thread blocked on it wakes, then closes
// it. 0, or -1 when the close failed or s is not a socket of ours (< 3).
int upnp_socket_close(int32_t s);
// Wakes threads blocked on s without giving up the descriptor.
int upnp_socket_shutdown(int32_t s);

// ip null or "" binds to every interface. Negative on failure.
int upnp_socket_bind(int32_t s, const char* ip, int32_t port);
int upnp_socket_listen(int32_t s);
int32_t upnp_socket_accept(int32_t s);                 // new socket or -1
int upnp_socket_connect(int32_t s, const char* ip, int32_t port);
// Connects, giving up after timeout_ms (then errno is ETIMEDOUT). 0 or -1.
int upnp_socket_connect_timeout(int32_t s, const char* ip, int32_t port, int32_t timeout_ms);

// Bytes sent or received, or -1; after a send or receive timeout the call
// fails with errno EAGAIN. A receive of 0 means the peer closed.
int32_t upnp_socket_send(int32_t s, const void* data, int32_t length);
// Sends everything or fails: length, or -1.
int32_t upnp_socket_send_all(int32_t s, const void* data, int32_t length);
int32_t upnp_socket_recv(int32_t s, void* buffer, int32_t size);
// Sends count bytes of the file descriptor fd from offset, straight from
// the page cache, without moving fd's own position: the bytes sent (fewer
// when the file ended or a later part failed), 0 at the file's end, or -1
// when nothing went, with errno: EIO for the file, EINVAL or ENOSYS when
// the file cannot be sent this way, anything else for the socket.
int64_t upnp_socket_send_file(int32_t s, int32_t fd, int64_t offset, int64_t count);
// As upnp_socket_recv, but the bytes stay queued for the next receive.
int32_t upnp_socket_peek(int32_t s, void* buffer, int32_t size);
int32_t upnp_socket_sendto(int32_t s, const void* data, int32_t length, const char* ip, int32_t port);
// ip_out (UPNP_IP_TEXT_SIZE bytes) and port_out may be null; when nothing
// came (a result below 1) they are "" and 0.
int32_t upnp_socket_recvfrom(int32_t s, void* buffer, int32_t size, char* ip_out, int32_t* port_out);
// As upnp_socket_recvfrom, and local_ip_out gets the address of the
// interface the datagram arrived on (needs upnp_socket_set_pktinfo).
int32_t upnp_socket_recvfrom_pktinfo(int32_t s, void* buffer, int32_t size, char* ip_out,
                                     int32_t* port_out, char* local_ip_out);

// 0, or -1 with ip_out "" and port_out 0.
int upnp_socket_get_peer(int32_t s, char* ip_out, int32_t* port_out);
int32_t upnp_socket_local_port(int32_t s);             // bound port or -1

// Options; each returns 0 or -1.
int upnp_socket_set_send_timeout(int32_t s, int32_t ms);
int upnp_socket_set_recv_timeout(int32_t s, int32_t ms);
int upnp_socket_set_reuse(int32_t s);
int upnp_socket_set_multicast_ttl(int32_t s, int32_t ttl);
int upnp_socket_join_group(int32_t s, const char* group, const char* interface_ip);
int upnp_socket_set_multicast_if(int32_t s, const char* interface_ip);
// A socket bound to the any-address otherwise gets the groups that every
// other socket of the host joined.
int upnp_socket_set_multicast_all_off(int32_t s);
int upnp_socket_set_pktinfo(int32_t s);
// The netmask of the interface that holds ip, as dotted text into mask_out
// (UPNP_IP_TEXT_SIZE bytes). 1, or 0 with mask_out "" when none holds it.
int upnp_nic_netmask(const char* ip, char* mask_out);

// Moves a new descriptor above 0 to 2, which the host may have closed and
// which must never be mistaken for its standard streams. The descriptor
// stays close-on-exec; -1 (and fd closed) on failure.
int32_t upnp_fd_raise(int32_t fd);

// Sockets created or accepted and not yet closed.
int32_t upnp_socket_open_count();

// ---- Name lookup --------------------------------------------------------

// The machine's host name, always terminated. 1, or 0 with buffer "".
int upnp_get_hostname(char* buffer, int32_t size);

// The first IPv4 address of name into ip_out (UPNP_IP_TEXT_SIZE bytes).
// 1 on success; 0 when the lookup fails, with ip_out "" and a log line.
int upnp_resolve_host(const char* name, char* ip_out);

// ---- Processes ----------------------------------------------------------

// argv is the whole argument vector, argv[0] included, ended by a null;
// a null argv runs the program with its path as the only argument. The
// program must be a path to an executable file: nothing searches PATH.

// Runs the program and waits for its end. Its exit status, or -1 when it
// could not start or was ended by a signal. The child stands in the table
// while it runs, so that upnp_process_kill_all ends it too.
int upnp_process_run_wait(const char* program, const char* const* argv);

// Starts the program in the background and enters it in the child table.
// With stdout_fd_out, the child's standard output is a pipe whose reading
// end (close-on-exec) is returned there; the caller closes it. The pid, or
// -1 (and *stdout_fd_out -1).
int32_t upnp_process_spawn(const char* program, const char* const* argv, int32_t* stdout_fd_out);

// Whether a child from upnp_process_spawn has ended: 1 (status_out gets
// its exit status, or -1 after a signal, and it leaves the table), 0 while
// it runs, -1 for a pid that is not such a child.
int upnp_process_poll(int32_t pid, int* status_out);

// Ends one child with its process group (SIGTERM, then SIGKILL after about
// a second), reaps it and removes it. 1, or 0 for an unknown pid.
int upnp_process_end(int32_t pid);

// Reaps the children that have ended and removes them; the number removed.
int upnp_process_reap();

// Ends every child of the table with its process group, reaps them all and
// empties the table.
void upnp_process_kill_all();

// Children running or not yet reaped, upnp_process_run_wait's included.
int32_t upnp_process_count();
