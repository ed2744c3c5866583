#include "net/osal_socket.h"

#include <unistd.h>

#include <string>

#include "util/error.h"

namespace net {

namespace {

void raise_if(const char* prefix, const SocketError& text) {
  if (text) util::throw_system_error(prefix + *text);
}

socket_t connect_to(const std::string& host, uint16_t port) {
  uint32_t address = 0;
  raise_if("", socket_resolve(host.c_str(), &address));
  socket_t sock = INVALID_SOCKET_HANDLE;
  raise_if("", socket_connect(&address, port, &sock));
  return sock;
}

}  // namespace

SocketStream::~SocketStream() {
  if (sock_ == INVALID_SOCKET_HANDLE) return;
  if (socket_close(&sock_) && sock_ != INVALID_SOCKET_HANDLE) ::close(sock_);
}

void SocketStream::write(const void* data, size_t length) {
  raise_if("Error writing to socket: ", socket_send(&sock_, data, length));
}

void SocketStream::flush() {}

uint64_t SocketStream::read(void* buffer, uint64_t capacity) {
  if (capacity == 0) return 0;
  size_t count = 0;
  const size_t wanted = capacity > SIZE_MAX ? SIZE_MAX : static_cast<size_t>(capacity);
  raise_if("Error reading from socket: ", socket_recv(&sock_, buffer, wanted, &count));
  if (count == 0) util::throw_system_error("Error reading: OsalSocket::read end of stream");
  return count;
}

bool SocketStream::readable() { return socket_readable(&sock_); }

void SocketStream::close() {
  if (sock_ == INVALID_SOCKET_HANDLE) return;
  const SocketError text = socket_close(&sock_);
  if (!text) return;
  const std::string message = "Error closing socket: " + *text;
  // A socket that could not be switched back to blocking mode is still open:
  // release it so the stream never leaks its descriptor.
  if (sock_ != INVALID_SOCKET_HANDLE) ::close(sock_);
  sock_ = INVALID_SOCKET_HANDLE;
  util::throw_system_error(message);
}

OsalSocket::OsalSocket(const std::string& host, uint16_t port) : SocketStream(connect_to(host, port)) {}

}  // namespace net
