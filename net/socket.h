// Connecting TCP sockets: name lookup, the connect routine and the texts of
// the system's failures.
//
// A host name may yield several addresses of either family (IPv6, IPv4); the
// connect routine tries them in the order the lookup gives them until one
// accepts the connection.
#ifndef TALVIX_NET_SOCKET_H_
#define TALVIX_NET_SOCKET_H_

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace net {

class SocketStream;

// One address a name yields, of any family; its port is set by the connect.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;
};

// The answer of a name lookup. `found` false means no record; `error` is then
// the system's text for the failure.
struct LookupResult {
  bool found = false;
  std::string error;
  std::vector<SocketAddress> addresses;  // in the order they are to be tried
};
using Lookup = std::function<LookupResult(const std::string& host)>;

// The system's lookup of `host` for a TCP connection, any family. Numeric
// addresses ("10.1.2.3", "::1") are taken as they are.
LookupResult system_lookup(const std::string& host);

// Looks `host` up with `lookup` (empty: system_lookup) and connects to each
// address it yields at `port`, in order, until one connection is made; each
// attempt may take `seconds` (0: as long as the system lets it). Returns the
// connected stream, whose waits have the same limit. Raises
// util::ESystemError with the failure of the last address tried:
//   "Error resolving \"<host>\": <system text>"
//   "No addresses found when resolving \"<host>\""
//   "Error creating socket: <system text> (<code>)"
//   "Error connecting: <system text> (<code>)"
//   "Error retrieving connection status: <system text> (<code>)"
//   "Could not connect to server <host>:<port> within <N> seconds"
std::unique_ptr<SocketStream> connect_socket(const std::string& host, uint16_t port,
                                             unsigned seconds, const Lookup& lookup = {});

// "<host>:<port>" as messages name a server; an IPv6 address is bracketed.
std::string server_text(const std::string& host, uint16_t port);

// "within <N> seconds" ("1 second" for one).
std::string within_text(unsigned seconds);
// "Could not connect to server <server> within <N> seconds".
std::string expired_connect_text(const std::string& server, unsigned seconds);

// The system's text of an error code (an errno value), without trailing line
// breaks, cut to 255 bytes.
std::string socket_strerror(uint32_t code);

// printf-style formatting; longer output than 255 bytes is cut to 255.
std::string socket_errorf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// "<head><system text> (<code>)" for errno value `code`.
std::string code_text(const char* head, int code);

}  // namespace net

#endif  // TALVIX_NET_SOCKET_H_
