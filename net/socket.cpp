#include "net/socket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "net/poll_wait.h"
#include "net/socket_stream.h"
#include "util/error.h"

namespace net {

namespace {

constexpr size_t kTextSize = 256;

void set_port(SocketAddress& address, uint16_t port) {
  if (address.storage.ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(&address.storage)->sin6_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in*>(&address.storage)->sin_port = htons(port);
  }
}

// Connects a new socket to `address`; returns its descriptor (left
// non-blocking) or -1 with the failure's text in `failure`.
int connect_one(const SocketAddress& address, unsigned seconds, const std::string& server,
                std::string& failure) {
  const int fd = ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    failure = code_text("Error creating socket: ", errno);
    return -1;
  }
  // Each text is made before the socket is closed, so it reports the failing call's code.
  auto fail = [fd, &failure](std::string text) {
    failure = std::move(text);
    ::close(fd);
    return -1;
  };
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address.storage), address.length) == 0) return fd;
  if (errno != EINPROGRESS && errno != EINTR) return fail(code_text("Error connecting: ", errno));
  short events = 0;
  const int ready = detail::poll_until(fd, POLLOUT, seconds, &events);
  if (ready == 0) {
    return fail(expired_connect_text(server, seconds));
  }
  if (ready < 0) return fail(code_text("Error connecting: ", errno));
  int pending = 0;
  socklen_t size = sizeof pending;
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &size) != 0) {
    return fail(code_text("Error retrieving connection status: ", errno));
  }
  if (pending != 0) return fail(code_text("Error connecting: ", pending));
  return fd;
}

}  // namespace

LookupResult system_lookup(const std::string& host) {
  LookupResult result;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int rc = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (rc != 0) {
    result.error = rc == EAI_SYSTEM ? socket_strerror(static_cast<uint32_t>(errno)) : gai_strerror(rc);
    return result;
  }
  result.found = true;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if ((entry->ai_family == AF_INET || entry->ai_family == AF_INET6) &&
        entry->ai_addrlen <= sizeof(sockaddr_storage)) {
      SocketAddress address;
      std::memcpy(&address.storage, entry->ai_addr, entry->ai_addrlen);
      address.length = entry->ai_addrlen;
      result.addresses.push_back(address);
    }
  }
  ::freeaddrinfo(list);
  return result;
}

std::unique_ptr<SocketStream> connect_socket(const std::string& host, uint16_t port,
                                             unsigned seconds, const Lookup& lookup) {
  LookupResult record = lookup ? lookup(host) : system_lookup(host);
  if (!record.found) {
    util::throw_system_error(
        socket_errorf("Error resolving \"%s\": %s", host.c_str(), record.error.c_str()));
  }
  if (record.addresses.empty()) {
    util::throw_system_error(socket_errorf("No addresses found when resolving \"%s\"", host.c_str()));
  }
  const std::string server = server_text(host, port);
  std::string failure;
  for (SocketAddress& address : record.addresses) {
    set_port(address, port);
    const int fd = connect_one(address, seconds, server, failure);
    if (fd >= 0) return std::make_unique<SocketStream>(fd, seconds, server);
  }
  util::throw_system_error(failure);
}

std::string server_text(const std::string& host, uint16_t port) {
  const bool ipv6 = host.find(':') != std::string::npos;
  return (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string within_text(unsigned seconds) {
  return "within " + std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
}

std::string expired_connect_text(const std::string& server, unsigned seconds) {
  return "Could not connect to server " + server + " " + within_text(seconds);
}

std::string socket_strerror(uint32_t code) {
  // strerrordesc_np() answers nullptr for a code the system has no text for;
  // that is reported with the number and EINVAL, the lookup's own failure.
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

std::string code_text(const char* head, int code) {
  return socket_errorf("%s%s (%d)", head, socket_strerror(static_cast<uint32_t>(code)).c_str(), code);
}

}  // namespace net
