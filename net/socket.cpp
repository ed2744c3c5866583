#include "net/socket.h"

#include "net/poll_wait.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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
constexpr unsigned kDefaultTimeout = 600;

bool g_initialised = false;
unsigned g_timeout = kDefaultTimeout;
char g_strerror_buffer[kTextSize];
char g_errorf_buffers[2][kTextSize];
int g_errorf_next = 0;

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

SocketLookup g_lookup = system_lookup;

bool would_block(int code) { return code == EWOULDBLOCK || code == EAGAIN; }

// A length for one send or receive call, which takes a 32-bit signed count.
size_t call_length(size_t length) {
  return length > static_cast<size_t>(INT_MAX) ? static_cast<size_t>(INT_MAX) : length;
}

int poll_one(socket_t fd, short events, unsigned seconds, short* revents) {
  return net::detail::poll_until(fd, events, seconds, revents);
}

bool set_nonblocking(socket_t fd, bool on) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0) return false;
  const int wanted = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return wanted == flags || ::fcntl(fd, F_SETFL, wanted) == 0;
}

// Formats `format` ("...%s (%d)") with the text and number of `code`.
const char* code_text(const char* format, int code) {
  return socket_errorf(format, socket_strerror(static_cast<uint32_t>(code)), code);
}

// The failure of a connect step after the socket was created: the text is
// made first (so it reports the failing call's code), then the socket closed.
const char* connect_failure(socket_t* sock, const char* text) {
  ::close(*sock);
  *sock = INVALID_SOCKET_HANDLE;
  return text;
}

}  // namespace

const char* socket_init() {
  // POSIX sockets need no start-up; the flag keeps the call order of the
  // stream (init, resolve, connect) meaningful and cheap to repeat.
  if (g_initialised) return nullptr;
  g_initialised = true;
  return nullptr;
}

const char* socket_resolve(const char* host, uint32_t* address) {
  *address = ::inet_addr(host);
  if (*address != INADDR_NONE) return nullptr;
  const SocketLookupResult record = g_lookup(host);
  if (!record.found) return socket_errorf("Error resolving \"%s\": %s", host, record.error.c_str());
  if (record.addresses.empty()) return socket_errorf("No addresses found when resolving \"%s\"", host);
  *address = record.addresses.front();
  return nullptr;
}

const char* socket_connect(const uint32_t* address, uint16_t port, socket_t* sock,
                           unsigned options) {
  *sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (*sock < 0) {
    const int code = errno;
    *sock = INVALID_SOCKET_HANDLE;
    return code_text("Error creating socket: %s (%d)", code);
  }
  if (!set_nonblocking(*sock, (options & SOCKET_NONBLOCK) != 0)) {
    return connect_failure(sock, code_text("Error setting socket to nonblocking: %s (%d)", errno));
  }
  const int nodelay = (options & SOCKET_NODELAY) != 0 ? 1 : 0;
  if (::setsockopt(*sock, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay) != 0) {
    return connect_failure(sock, code_text("Error disabling Nagle: %s (%d)", errno));
  }
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  peer.sin_addr.s_addr = *address;
  if (::connect(*sock, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0) return nullptr;
  const int code = errno;
  // A non-blocking connect reports EINPROGRESS; one interrupted by a signal
  // goes on in the background. Both are waited for.
  if (code != EINPROGRESS && code != EINTR && !would_block(code)) {
    return connect_failure(sock, code_text("Error connecting: %s (%d)", code));
  }
  short events = 0;
  const int result = poll_one(*sock, POLLOUT, g_timeout, &events);
  if (result == 0) return connect_failure(sock, "Connection timed out");
  if (result != 1) {
    return connect_failure(sock, socket_errorf("Error connecting: Select returned: %d", result));
  }
  const bool failed = (events & (POLLERR | POLLHUP | POLLPRI)) != 0;
  if ((events & POLLOUT) != 0 && !failed) return nullptr;
  if (!failed) {
    return connect_failure(sock, "Error connecting: Select returned, but socket isn't present");
  }
  int pending = 0;
  socklen_t size = sizeof pending;
  if (::getsockopt(*sock, SOL_SOCKET, SO_ERROR, &pending, &size) != 0) {
    return connect_failure(sock, code_text("Error retrieving connection status: %s (%d)", errno));
  }
  if (pending == 0 && (events & POLLOUT) != 0) return nullptr;  // connected, then hung up
  return connect_failure(sock, code_text("Error connecting: %s (%d)", pending));
}

const char* socket_send(const socket_t* sock, const void* data, size_t length) {
  const char* next = static_cast<const char*>(data);
  size_t remaining = length;
  for (;;) {
    const ssize_t sent = ::send(*sock, next, call_length(remaining), MSG_NOSIGNAL);
    if (sent < 0) {
      const int code = errno;
      if (code == EINTR) continue;
      if (!would_block(code)) {
        return code_text("Bad error without sleep happened in socket_send(): %s (%d)", code);
      }
      short events = 0;
      const int result = poll_one(*sock, POLLOUT, g_timeout, &events);
      if (result == 0) return "Timeout in socket_send()";
      if (result == 1) continue;
      return code_text("Bad error after sleep happened in socket_send(): %s (%d)", errno);
    }
    if (static_cast<size_t>(sent) > remaining) return "send() sent too much - this is a Winsock error";
    next += sent;
    remaining -= static_cast<size_t>(sent);
    if (remaining == 0) return nullptr;
  }
}

const char* socket_recv(const socket_t* sock, void* buffer, size_t capacity, size_t* count) {
  for (;;) {
    const ssize_t received = ::recv(*sock, buffer, call_length(capacity), 0);
    if (received >= 0) {
      *count = static_cast<size_t>(received);
      return nullptr;
    }
    const int code = errno;
    if (code == EINTR) continue;
    if (!would_block(code)) {
      return code_text("Bad error happened without sleep in socket_recv(): %s (%d)", code);
    }
    short events = 0;
    const int result = poll_one(*sock, POLLIN, g_timeout, &events);
    if (result == 0) return "Timeout in socket_recv()";
    if (result == 1) continue;
    return code_text("Bad error happened in socket_recv(): %s (%d)", errno);
  }
}

bool socket_readable(const socket_t* sock, unsigned seconds) {
  short events = 0;
  return poll_one(*sock, POLLIN, seconds, &events) == 1;
}

const char* socket_flush(const socket_t*) { return nullptr; }

const char* socket_close(socket_t* sock) {
  if (!set_nonblocking(*sock, false)) {
    return code_text("socket_close: Error at ioctlsocket: %s (%d)", errno);
  }
  ::shutdown(*sock, SHUT_RDWR);
  const int result = ::close(*sock);
  const int code = errno;
  *sock = INVALID_SOCKET_HANDLE;  // close() releases the descriptor even when it fails
  if (result != 0) return code_text("Error closing socket: %s (%d)", code);
  return nullptr;
}

const char* socket_strerror(uint32_t code) {
  // strerrordesc_np() answers nullptr for a code the system has no text for,
  // which is the failed lookup; its own failure code is EINVAL.
  const char* text = code > static_cast<uint32_t>(INT_MAX) ? nullptr
                                                           : strerrordesc_np(static_cast<int>(code));
  if (text == nullptr) {
    std::snprintf(g_strerror_buffer, kTextSize, "%u (FormatMessage: %u)", code,
                  static_cast<unsigned>(EINVAL));
    return g_strerror_buffer;
  }
  std::strncpy(g_strerror_buffer, text, kTextSize);
  g_strerror_buffer[kTextSize - 1] = '\0';
  size_t length = std::strlen(g_strerror_buffer);
  while (length > 0 &&
         (g_strerror_buffer[length - 1] == '\n' || g_strerror_buffer[length - 1] == '\r')) {
    g_strerror_buffer[--length] = '\0';
  }
  if (length == 0) std::snprintf(g_strerror_buffer, kTextSize, "%u", code);
  return g_strerror_buffer;
}

const char* socket_errorf(const char* format, ...) {
  char* buffer = g_errorf_buffers[g_errorf_next];
  g_errorf_next ^= 1;
  va_list args;
  va_start(args, format);
  if (std::vsnprintf(buffer, kTextSize, format, args) < 0) buffer[0] = '\0';
  va_end(args);
  return buffer;
}

unsigned socket_timeout() { return g_timeout; }

void socket_set_timeout(unsigned seconds) { g_timeout = seconds; }

SocketLookup socket_set_lookup(SocketLookup lookup) {
  const SocketLookup previous = g_lookup;
  g_lookup = lookup != nullptr ? lookup : system_lookup;
  return previous;
}

}  // namespace net
