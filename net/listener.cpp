#include "net/listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "net/socket.h"
#include "util/error.h"

namespace net {

namespace {

[[noreturn]] void raise_errno(const char* what, int code) {
  util::throw_system_error(socket_errorf(
      "%s: %s (%d)", what, socket_strerror(static_cast<uint32_t>(code)).c_str(), code));
}

}  // namespace

Listener::Listener(uint16_t port, int backlog, const std::string& address) {
  const std::string failure = "Error listening on " + address;
  sockaddr_storage local{};
  auto* in4 = reinterpret_cast<sockaddr_in*>(&local);
  auto* in6 = reinterpret_cast<sockaddr_in6*>(&local);
  socklen_t size = sizeof local;
  if (::inet_pton(AF_INET, address.c_str(), &in4->sin_addr) == 1) {
    in4->sin_family = AF_INET;
    in4->sin_port = htons(port);
    size = sizeof *in4;
  } else if (::inet_pton(AF_INET6, address.c_str(), &in6->sin6_addr) == 1) {
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(port);
    size = sizeof *in6;
  } else {
    raise_errno(failure.c_str(), EINVAL);
  }
  // Non-blocking, so that accept() never hangs on a connection that went away.
  sock_ = ::socket(local.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (sock_ < 0) raise_errno("Error creating listening socket", errno);
  const int reuse = 1;
  ::setsockopt(sock_, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  if (::bind(sock_, reinterpret_cast<const sockaddr*>(&local), size) != 0 ||
      ::listen(sock_, backlog) != 0 ||
      ::getsockname(sock_, reinterpret_cast<sockaddr*>(&local), &size) != 0) {
    const int code = errno;
    ::close(sock_);
    sock_ = -1;
    raise_errno(failure.c_str(), code);
  }
  port_ = ntohs(local.ss_family == AF_INET6 ? in6->sin6_port : in4->sin_port);
}

Listener::~Listener() {
  if (sock_ >= 0) ::close(sock_);
}

std::unique_ptr<SocketStream> Listener::accept(int timeout_ms) {
  for (;;) {
    pollfd entry{sock_, POLLIN, 0};
    const int ready = ::poll(&entry, 1, timeout_ms);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) raise_errno("Error waiting for a connection", errno);
    if (ready == 0) return nullptr;
    const int accepted = ::accept4(sock_, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted >= 0) {
      // Each answer leaves when it is written. With Nagle's algorithm an
      // answer written while an earlier one is unacknowledged would wait for
      // the client's delayed acknowledgement (some 40 ms), which a pipelining
      // client that is waiting for that very answer never hurries.
      const int nodelay = 1;
      ::setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);
      return std::make_unique<SocketStream>(accepted);
    }
    const int code = errno;
    // The connection may have gone again before it was taken; wait for the next.
    if (code == EINTR || code == ECONNABORTED || code == EAGAIN || code == EWOULDBLOCK) continue;
    raise_errno("Error accepting a connection", code);
  }
}

}  // namespace net
