// Opening the client's connection to the server.
//
// connectTcp() gives a buffered TCP stream; ConnectionFactory is the connector
// the login is handed, so that tests can put any other stream in its place.
#ifndef TALVIX_NET_CONNECTION_H_
#define TALVIX_NET_CONNECTION_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "net/basic_io.h"

namespace net {

// Connects to `host` at `port` and returns a BufferIo over a new OsalSocket;
// the caller owns the result. The port is taken as its low 16 bits, as the
// socket address holds it. Raises util::ESystemError when the host cannot be
// resolved or reached.
std::unique_ptr<net::BasicIo> connectTcp(const std::string& host, uint32_t port);

// Holds the function that opens a new stream connected to a host and port.
class ConnectionFactory {
 public:
  using Connector =
      std::function<std::unique_ptr<net::BasicIo>(const std::string& host, uint32_t port)>;

  // Connects with connectTcp().
  ConnectionFactory();
  // Connects with `connector`, which must not be empty.
  explicit ConnectionFactory(Connector connector);

  // A new connected stream, owned by the caller; failures of the connector
  // (util::ESystemError for connectTcp) pass through.
  std::unique_ptr<net::BasicIo> connect(const std::string& host, uint32_t port) const;

 private:
  Connector connector_;
};

}  // namespace net

#endif  // TALVIX_NET_CONNECTION_H_
