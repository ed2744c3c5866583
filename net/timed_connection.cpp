#include "net/timed_connection.h"

#include "net/poll_wait.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>

#include "net/buffer_io.h"
#include "net/osal_socket.h"
#include "net/socket.h"
#include "util/error.h"

namespace net {

namespace {

enum class Wait { kReady, kExpired, kFailed };

// Waits at most `seconds` for `events` on `fd`. kFailed leaves errno set.
Wait wait_for(int fd, short events, unsigned seconds) {
  short revents = 0;
  const int result = net::detail::poll_until(fd, events, seconds, &revents);
  if (result < 0) return Wait::kFailed;
  return result == 0 ? Wait::kExpired : Wait::kReady;
}

// "<host>:<port>", the port as the socket address holds it.
std::string server_text(const std::string& host, uint32_t port) {
  return host + ":" + std::to_string(port & 0xFFFF);
}

std::string within_text(unsigned seconds) {
  return "within " + std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
}

[[noreturn]] void raise(const std::string& text) { util::throw_system_error(text); }

// The "%s (%d)" form of the socket layer for errno `code`.
std::string code_text(const char* head, int code) {
  return socket_errorf("%s%s (%d)", head, socket_strerror(static_cast<uint32_t>(code)).c_str(),
                       code);
}

// A connected blocking socket, or a raise. The connect itself is made
// non-blocking so that it can be given up after the limit.
socket_t connect_within(const std::string& host, uint32_t port, unsigned seconds) {
  uint32_t address = 0;
  if (const SocketError text = socket_resolve(host.c_str(), &address)) raise(*text);

  const socket_t sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (sock < 0) raise(code_text("Error creating socket: ", errno));
  auto fail = [sock](const std::string& text) {
    ::close(sock);
    raise(text);
  };
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<uint16_t>(port));
  peer.sin_addr.s_addr = address;
  if (::connect(sock, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    const int code = errno;
    if (code != EINPROGRESS && code != EINTR) fail(code_text("Error connecting: ", code));
    switch (wait_for(sock, POLLOUT, seconds)) {
      case Wait::kExpired:
        fail("Could not connect to server " + server_text(host, port) + " " + within_text(seconds));
        break;
      case Wait::kFailed:
        fail(code_text("Error connecting: ", errno));
        break;
      case Wait::kReady:
        break;
    }
    int pending = 0;
    socklen_t size = sizeof pending;
    if (::getsockopt(sock, SOL_SOCKET, SO_ERROR, &pending, &size) != 0) {
      fail(code_text("Error retrieving connection status: ", errno));
    }
    if (pending != 0) fail(code_text("Error connecting: ", pending));
  }
  // From here on the stream waits with poll(); the socket itself blocks, as
  // the untimed one does, so a receive after a ready poll never spins.
  const int flags = ::fcntl(sock, F_GETFL);
  if (flags < 0 || ::fcntl(sock, F_SETFL, flags & ~O_NONBLOCK) != 0) {
    fail(code_text("Error setting socket to nonblocking: ", errno));
  }
  return sock;
}

// A socket stream whose reads and writes give up when the server makes no
// progress for the limit.
class TimedSocketStream : public net::SocketStream {
 public:
  TimedSocketStream(const std::string& host, uint32_t port, unsigned seconds)
      : TimedSocketStream(connect_within(host, port, seconds), host, port, seconds) {}

  void write(const void* data, size_t length) override {
    const char* next = static_cast<const char*>(data);
    size_t remaining = length;
    while (remaining > 0) {
      const size_t piece = remaining > static_cast<size_t>(INT_MAX) ? INT_MAX : remaining;
      const ssize_t sent = ::send(fd_, next, piece, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent >= 0) {
        next += sent;
        remaining -= static_cast<size_t>(sent);
        continue;
      }
      const int code = errno;
      if (code == EINTR) continue;
      if (code != EAGAIN && code != EWOULDBLOCK) {
        raise("Error writing to socket: " +
              code_text("Bad error without sleep happened in socket_send(): ", code));
      }
      wait(POLLOUT, "Server " + server_ + " took no data " + within_, "Error writing to socket: ");
    }
  }

  uint64_t read(void* buffer, uint64_t capacity) override {
    if (capacity == 0) return 0;
    wait(POLLIN, "No answer from server " + server_ + " " + within_, "Error reading from socket: ");
    return SocketStream::read(buffer, capacity);
  }

 private:
  // `sock` is connected; the base takes ownership of it.
  TimedSocketStream(socket_t sock, const std::string& host, uint32_t port, unsigned seconds)
      : SocketStream(sock), fd_(sock), seconds_(seconds), server_(server_text(host, port)),
        within_(within_text(seconds)) {}

  // Waits for `events`; raises `expired` when the limit passes first, and
  // `prefix` + the system's text when the wait itself fails.
  void wait(short events, const std::string& expired, const char* prefix) const {
    switch (wait_for(fd_, events, seconds_)) {
      case Wait::kReady:
        return;
      case Wait::kExpired:
        raise(expired);
      case Wait::kFailed:
        raise(prefix + code_text("Bad error happened in poll(): ", errno));
    }
  }

  const int fd_;  // owned by SocketStream
  const unsigned seconds_;
  const std::string server_;  // "<host>:<port>"
  const std::string within_;  // "within <N> seconds"
};

}  // namespace

std::unique_ptr<net::BasicIo> connectTcpWithin(const std::string& host, uint32_t port,
                                               unsigned seconds) {
  if (seconds == 0) util::assert_failed("connectTcpWithin needs a limit of at least one second");
  auto socket = std::make_unique<TimedSocketStream>(host, port, seconds);
  return std::make_unique<net::BufferIo>(std::move(socket));
}

ConnectionFactory timedConnectionFactory(unsigned seconds) {
  return ConnectionFactory([seconds](const std::string& host, uint32_t port) {
    return connectTcpWithin(host, port, seconds);
  });
}

}  // namespace net
