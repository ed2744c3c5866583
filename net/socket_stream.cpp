#include "net/socket_stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <utility>

#include "net/poll_wait.h"
#include "net/socket.h"
#include "util/error.h"

namespace net {

namespace {

// A length for one send or receive call, which takes a 32-bit signed count.
size_t call_length(uint64_t length) {
  return length > static_cast<uint64_t>(INT_MAX) ? static_cast<size_t>(INT_MAX) : static_cast<size_t>(length);
}

}  // namespace

SocketStream::SocketStream(int fd, unsigned seconds, std::string server)
    : fd_(fd), seconds_(seconds), server_(std::move(server)) {}

SocketStream::~SocketStream() {
  if (fd_ < 0) return;
  ::shutdown(fd_, SHUT_RDWR);
  ::close(fd_);
}

void SocketStream::write(const void* data, size_t length) {
  const char* next = static_cast<const char*>(data);
  size_t remaining = length;
  do {
    const ssize_t sent = ::send(fd_, next, call_length(remaining), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      next += sent;
      remaining -= static_cast<size_t>(sent);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      wait(POLLOUT);
    } else if (errno != EINTR) {
      util::throw_system_error(
          code_text("Error writing to socket: Bad error without sleep happened in socket_send(): ", errno));
    }
  } while (remaining > 0);
}

void SocketStream::flush() {}

uint64_t SocketStream::read(void* buffer, uint64_t capacity) {
  if (capacity == 0) return 0;
  for (;;) {
    const ssize_t received = ::recv(fd_, buffer, call_length(capacity), MSG_DONTWAIT);
    if (received > 0) return static_cast<uint64_t>(received);
    if (received == 0) util::throw_system_error("Error reading: OsalSocket::read end of stream");
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      wait(POLLIN);
    } else if (errno != EINTR) {
      util::throw_system_error(code_text(
          "Error reading from socket: Bad error happened without sleep in socket_recv(): ", errno));
    }
  }
}

bool SocketStream::readable() {
  pollfd entry{fd_, POLLIN, 0};
  return fd_ >= 0 && ::poll(&entry, 1, 0) == 1;
}

void SocketStream::close() {
  if (fd_ < 0) return;
  ::shutdown(fd_, SHUT_RDWR);
  const int result = ::close(fd_);
  const int code = errno;
  fd_ = -1;  // close() releases the descriptor even when it fails
  if (result != 0) util::throw_system_error(code_text("Error closing socket: ", code));
}

void SocketStream::wait(short events, bool connecting) const {
  short revents = 0;
  const int result = detail::poll_until(fd_, events, seconds_, &revents);
  const bool reading = events == POLLIN;
  if (result == 0) {
    util::throw_system_error(connecting ? expired_connect_text(server_, seconds_)
                             : reading  ? "No answer from server " + server_ + " " + within_text(seconds_)
                                        : "Server " + server_ + " took no data " + within_text(seconds_));
  }
  if (result < 0) {
    util::throw_system_error((reading ? "Error reading from socket: " : "Error writing to socket: ") +
                             code_text("Bad error happened in poll(): ", errno));
  }
}

}  // namespace net
