#include "net/socket.h"

#include "net/poll_wait.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace net {

namespace {

constexpr size_t kTextSize = 256;

// How long socket_connect() waits for a connect that goes on in the
// background: ten minutes.
constexpr unsigned kConnectWaitSeconds = 600;

SocketLookupResult system_lookup(const char* host) {
  SocketLookupResult result;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int rc = ::getaddrinfo(host, nullptr, &hints, &list);
  if (rc != 0) {
    result.error = rc == EAI_SYSTEM ? socket_strerror(static_cast<uint32_t>(errno)) : gai_strerror(rc);
    return result;
  }
  result.found = true;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET && entry->ai_addr != nullptr &&
        entry->ai_addrlen >= sizeof(sockaddr_in)) {
      sockaddr_in in;
      std::memcpy(&in, entry->ai_addr, sizeof in);
      result.addresses.push_back(in.sin_addr.s_addr);
    }
  }
  ::freeaddrinfo(list);
  return result;
}

bool would_block(int code) { return code == EWOULDBLOCK || code == EAGAIN; }

// A length for one send or receive call, which takes a 32-bit signed count.
size_t call_length(size_t length) {
  return length > static_cast<size_t>(INT_MAX) ? static_cast<size_t>(INT_MAX) : length;
}

int poll_one(socket_t fd, short events, unsigned seconds, short* revents) {
  return net::detail::poll_until(fd, events, seconds, revents);
}

bool set_blocking(socket_t fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0) return false;
  const int wanted = flags & ~O_NONBLOCK;
  return wanted == flags || ::fcntl(fd, F_SETFL, wanted) == 0;
}

// Formats `format` ("...%s (%d)") with the text and number of `code`.
std::string code_text(const char* format, int code) {
  return socket_errorf(format, socket_strerror(static_cast<uint32_t>(code)).c_str(), code);
}

// The failure of a connect step after the socket was created: the text is
// made first (so it reports the failing call's code), then the socket closed.
SocketError connect_failure(socket_t* sock, std::string text) {
  ::close(*sock);
  *sock = INVALID_SOCKET_HANDLE;
  return text;
}

}  // namespace

SocketError socket_resolve(const char* host, uint32_t* address, const SocketLookup& lookup) {
  *address = ::inet_addr(host);
  if (*address != INADDR_NONE) return std::nullopt;
  const SocketLookupResult record = lookup ? lookup(host) : system_lookup(host);
  if (!record.found) return socket_errorf("Error resolving \"%s\": %s", host, record.error.c_str());
  if (record.addresses.empty()) return socket_errorf("No addresses found when resolving \"%s\"", host);
  *address = record.addresses.front();
  return std::nullopt;
}

SocketError socket_connect(const uint32_t* address, uint16_t port, socket_t* sock) {
  *sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (*sock < 0) {
    const int code = errno;
    *sock = INVALID_SOCKET_HANDLE;
    return code_text("Error creating socket: %s (%d)", code);
  }
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  peer.sin_addr.s_addr = *address;
  if (::connect(*sock, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0) {
    return std::nullopt;
  }
  const int code = errno;
  // A connect interrupted by a signal goes on in the background and is waited
  // for, as is one that reports it is in progress or would block.
  if (code != EINPROGRESS && code != EINTR && !would_block(code)) {
    return connect_failure(sock, code_text("Error connecting: %s (%d)", code));
  }
  short events = 0;
  const int result = poll_one(*sock, POLLOUT, kConnectWaitSeconds, &events);
  if (result == 0) return connect_failure(sock, "Connection timed out");
  if (result != 1) {
    return connect_failure(sock, socket_errorf("Error connecting: Select returned: %d", result));
  }
  const bool failed = (events & (POLLERR | POLLHUP | POLLPRI)) != 0;
  if ((events & POLLOUT) != 0 && !failed) return std::nullopt;
  if (!failed) {
    return connect_failure(sock, "Error connecting: Select returned, but socket isn't present");
  }
  int pending = 0;
  socklen_t size = sizeof pending;
  if (::getsockopt(*sock, SOL_SOCKET, SO_ERROR, &pending, &size) != 0) {
    return connect_failure(sock, code_text("Error retrieving connection status: %s (%d)", errno));
  }
  if (pending == 0 && (events & POLLOUT) != 0) return std::nullopt;  // connected, then hung up
  return connect_failure(sock, code_text("Error connecting: %s (%d)", pending));
}

SocketError socket_send(const socket_t* sock, const void* data, size_t length) {
  const char* next = static_cast<const char*>(data);
  size_t remaining = length;
  for (;;) {
    const ssize_t sent = ::send(*sock, next, call_length(remaining), MSG_NOSIGNAL);
    if (sent < 0) {
      const int code = errno;
      if (code == EINTR) continue;
      return code_text("Bad error without sleep happened in socket_send(): %s (%d)", code);
    }
    if (static_cast<size_t>(sent) > remaining) return "send() sent too much - this is a Winsock error";
    next += sent;
    remaining -= static_cast<size_t>(sent);
    if (remaining == 0) return std::nullopt;
  }
}

SocketError socket_recv(const socket_t* sock, void* buffer, size_t capacity, size_t* count) {
  for (;;) {
    const ssize_t received = ::recv(*sock, buffer, call_length(capacity), 0);
    if (received >= 0) {
      *count = static_cast<size_t>(received);
      return std::nullopt;
    }
    const int code = errno;
    if (code == EINTR) continue;
    return code_text("Bad error happened without sleep in socket_recv(): %s (%d)", code);
  }
}

bool socket_readable(const socket_t* sock) {
  short events = 0;
  return poll_one(*sock, POLLIN, 0, &events) == 1;
}

SocketError socket_close(socket_t* sock) {
  if (!set_blocking(*sock)) {
    return code_text("socket_close: Error at ioctlsocket: %s (%d)", errno);
  }
  ::shutdown(*sock, SHUT_RDWR);
  const int result = ::close(*sock);
  const int code = errno;
  *sock = INVALID_SOCKET_HANDLE;  // close() releases the descriptor even when it fails
  if (result != 0) return code_text("Error closing socket: %s (%d)", code);
  return std::nullopt;
}

std::string socket_strerror(uint32_t code) {
  // strerrordesc_np() answers nullptr for a code the system has no text for,
  // which is the failed lookup; its own failure code is EINVAL.
  const char* text = code > static_cast<uint32_t>(INT_MAX) ? nullptr
                                                           : strerrordesc_np(static_cast<int>(code));
  if (text == nullptr) {
    return socket_errorf("%u (FormatMessage: %u)", code, static_cast<unsigned>(EINVAL));
  }
  std::string result(text, ::strnlen(text, kTextSize - 1));
  while (!result.empty() && (result.back() == '\n' || result.back() == '\r')) result.pop_back();
  if (result.empty()) return std::to_string(code);
  return result;
}

std::string socket_errorf(const char* format, ...) {
  char buffer[kTextSize];
  va_list args;
  va_start(args, format);
  if (std::vsnprintf(buffer, kTextSize, format, args) < 0) buffer[0] = '\0';
  va_end(args);
  return buffer;
}

}  // namespace net
