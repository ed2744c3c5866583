// The socket layer: free functions over the system's TCP socket interface.
//
// None of these functions throws. Each returns nullptr on success or a text
// that describes the failure; the socket streams above turn such a text into
// an exception. A text is either a string literal or a message formatted by
// socket_errorf(), which reuses two static buffers in turn: copy a text before
// the second-next formatted message is made. The module keeps unsynchronised
// static state and is meant to be used from one thread.
#ifndef TALVIX_NET_SOCKET_H_
#define TALVIX_NET_SOCKET_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace net {

// A socket descriptor. The caller owns it and passes it by address.
using socket_t = int;
constexpr socket_t INVALID_SOCKET_HANDLE = -1;

// Options of socket_connect(), a bit set; other bits are ignored.
constexpr unsigned SOCKET_NONBLOCK = 1;  // non-blocking socket
constexpr unsigned SOCKET_NODELAY = 2;   // Nagle's algorithm off

// Starts the socket subsystem once; later calls do nothing.
const char* socket_init();

// Stores the IPv4 address (network byte order) of `host` into *address.
// Dotted-quad text is converted without a lookup; anything else, including
// "255.255.255.255" (which equals the "no address" value), is looked up by
// name and the first address found is used.
const char* socket_resolve(const char* host, uint32_t* address);

// Creates a TCP socket, stores it into *sock and connects it to *address at
// `port` (host byte order). On failure the socket is closed again and nothing
// stays open. A non-blocking connect (SOCKET_NONBLOCK) waits at most
// socket_timeout() seconds for the connection to be made.
const char* socket_connect(const uint32_t* address, uint16_t port, socket_t* sock,
                           unsigned options);

// Sends all `length` bytes (at least one send, so a length of 0 succeeds).
// Never raises SIGPIPE: a closed peer is an ordinary failure text.
const char* socket_send(const socket_t* sock, const void* data, size_t length);

// Receives once into buffer: returns as soon as any bytes have arrived and
// stores their number into *count; a count of 0 means the peer closed the
// connection.
const char* socket_recv(const socket_t* sock, void* buffer, size_t capacity, size_t* count);

// Whether the socket becomes readable within `seconds` (0: immediate poll).
bool socket_readable(const socket_t* sock, unsigned seconds);

// Does nothing: every send hands its bytes to the system at once.
const char* socket_flush(const socket_t* sock);

// Switches the socket back to blocking mode, shuts it down and closes it. If
// it cannot be switched back, it is left open; once the descriptor has been
// released, *sock is set to INVALID_SOCKET_HANDLE.
const char* socket_close(socket_t* sock);

// The system's text of an error code (an errno value), without trailing line
// breaks. The text lives in a static buffer overwritten by the next call.
const char* socket_strerror(uint32_t code);

// printf-style formatting into one of two alternating static 256-byte
// buffers; longer output is cut to 255 bytes.
const char* socket_errorf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The wait limit, in seconds, of socket_send() and socket_recv() on a socket
// that would block, and of a non-blocking socket_connect(). 600 by default.
unsigned socket_timeout();
void socket_set_timeout(unsigned seconds);

// The name lookup behind socket_resolve(), replaceable so that tests can see
// whether a lookup is made and what becomes of its answer. `found` false means
// no record; `error` is then the system's text for the failure.
struct SocketLookupResult {
  bool found = false;
  std::string error;
  std::vector<uint32_t> addresses;  // network byte order
};
using SocketLookup = SocketLookupResult (*)(const char* host);
// Installs `lookup` (nullptr: the system's lookup) and returns the previous one.
SocketLookup socket_set_lookup(SocketLookup lookup);

}  // namespace net

#endif  // TALVIX_NET_SOCKET_H_
