// A TCP listener for stand-in servers in tests.
//
// It binds to one numeric address, 127.0.0.1 unless told otherwise (::1 for
// IPv6), and hands out each accepted connection as a SocketStream with the
// same semantics and failure texts as the client's connection.
#ifndef TALVIX_NET_LISTENER_H_
#define TALVIX_NET_LISTENER_H_

#include <cstdint>
#include <memory>

#include <string>

#include "net/socket_stream.h"

namespace net {

class Listener {
 public:
  // Listens on the IPv4 or IPv6 `address` at `port` (0: any free port, see
  // port()) with room for `backlog` connections not yet accepted. Raises
  // util::ESystemError, e.g. "Error listening on <address>: <system text>
  // (<code>)"; an address that is not numeric fails with EINVAL's text.
  explicit Listener(uint16_t port = 0, int backlog = 16, const std::string& address = "127.0.0.1");
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  // Stops listening; connections not yet accepted are refused.
  ~Listener();

  // The port actually listened on.
  uint16_t port() const { return port_; }

  // Waits at most `timeout_ms` milliseconds (negative: without limit) for a
  // connection and returns it as a stream the caller owns; nullptr when none
  // came in time. Raises util::ESystemError when accepting fails.
  std::unique_ptr<SocketStream> accept(int timeout_ms = -1);

 private:
  int sock_ = -1;
  uint16_t port_ = 0;
};

}  // namespace net

#endif  // TALVIX_NET_LISTENER_H_
