// A TCP listener on the loopback interface, for stand-in servers in tests.
//
// It binds to 127.0.0.1 only, never to another interface, and hands out each
// accepted connection as a SocketStream with the same semantics and failure
// texts as the client's OsalSocket.
#ifndef TALVIX_NET_LISTENER_H_
#define TALVIX_NET_LISTENER_H_

#include <cstdint>
#include <memory>

#include "net/osal_socket.h"
#include "net/socket.h"

namespace net {

class Listener {
 public:
  // Listens on 127.0.0.1 at `port` (0: any free port, see port()) with room
  // for `backlog` connections not yet accepted. Raises util::ESystemError.
  explicit Listener(uint16_t port = 0, int backlog = 16);
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
  socket_t sock_ = INVALID_SOCKET_HANDLE;
  uint16_t port_ = 0;
};

}  // namespace net

#endif  // TALVIX_NET_LISTENER_H_
