// The socket layer: free functions over the system's TCP socket interface.
//
// None of these functions throws. Each returns nothing on success or a text
// that describes the failure; the socket streams above turn such a text into
// an exception. The layer keeps no state of its own: a wait limit or a name
// lookup is passed to the call that needs it.
#ifndef TALVIX_NET_SOCKET_H_
#define TALVIX_NET_SOCKET_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace net {

// A socket descriptor. The caller owns it and passes it by address.
using socket_t = int;
constexpr socket_t INVALID_SOCKET_HANDLE = -1;

// A failure text, or nothing on success.
using SocketError = std::optional<std::string>;

// A name lookup for socket_resolve(). `found` false means no record; `error`
// is then the system's text for the failure.
struct SocketLookupResult {
  bool found = false;
  std::string error;
  std::vector<uint32_t> addresses;  // network byte order
};
using SocketLookup = std::function<SocketLookupResult(const char* host)>;

// Stores the IPv4 address (network byte order) of `host` into *address.
// Dotted-quad text is converted without a lookup; anything else, including
// "255.255.255.255" (which equals the "no address" value), is looked up by
// name with `lookup` (empty: the system's lookup) and the first address found
// is used.
SocketError socket_resolve(const char* host, uint32_t* address, const SocketLookup& lookup = {});

// Creates a blocking TCP socket with Nagle's algorithm on, stores it into
// *sock and connects it to *address at `port` (host byte order). On failure
// the socket is closed again and nothing stays open. A connect interrupted by
// a signal goes on in the background and is waited for, at most ten minutes.
SocketError socket_connect(const uint32_t* address, uint16_t port, socket_t* sock);

// Sends all `length` bytes over a blocking socket (at least one send, so a
// length of 0 succeeds). Never raises SIGPIPE: a closed peer is an ordinary
// failure text.
SocketError socket_send(const socket_t* sock, const void* data, size_t length);

// Receives once into buffer from a blocking socket: returns as soon as any
// bytes have arrived and stores their number into *count; a count of 0 means
// the peer closed the connection.
SocketError socket_recv(const socket_t* sock, void* buffer, size_t capacity, size_t* count);

// An immediate poll: whether a receive would not block.
bool socket_readable(const socket_t* sock);

// Switches the socket to blocking mode, shuts it down and closes it. If the
// mode cannot be read or set, it is left open; once the descriptor has been
// released, *sock is set to INVALID_SOCKET_HANDLE.
SocketError socket_close(socket_t* sock);

// The system's text of an error code (an errno value), without trailing line
// breaks, cut to 255 bytes.
std::string socket_strerror(uint32_t code);

// printf-style formatting; longer output than 255 bytes is cut to 255.
std::string socket_errorf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace net

#endif  // TALVIX_NET_SOCKET_H_
