// Opening the client's connection to the server.
//
// connectTcp() gives a buffered stream over TCP, or over TLS on TCP;
// ConnectionFactory is the connector the login is handed, so that tests can
// put any other stream in its place.
#ifndef TALVIX_NET_CONNECTION_H_
#define TALVIX_NET_CONNECTION_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "net/basic_io.h"
#include "net/tls_stream.h"

namespace net {

// How the client's connections are made.
struct TransportSettings {
  // Seconds that connecting (the TLS handshake included) and each later wait
  // for the server may take; 0: as long as the system lets them.
  unsigned timeout = 0;
  bool tls = false;  // TLS over the TCP connection, with `tlsSettings`
  TlsSettings tlsSettings;
};

// Connects to `host` at `port` (its low 16 bits), trying every address of
// the name (connect_socket()), then runs the TLS handshake when asked for,
// and returns a BufferIo over the connection; the caller owns the result.
// Raises what connect_socket() and TlsStream raise.
std::unique_ptr<net::BasicIo> connectTcp(const std::string& host, uint32_t port,
                                         const TransportSettings& settings = {});

// Holds the function that opens a new stream connected to a host and port.
class ConnectionFactory {
 public:
  using Connector =
      std::function<std::unique_ptr<net::BasicIo>(const std::string& host, uint32_t port)>;

  // Connects with connectTcp() and `settings`.
  explicit ConnectionFactory(TransportSettings settings = {});
  // Connects with `connector`, which must not be empty.
  explicit ConnectionFactory(Connector connector);

  // A new connected stream, owned by the caller; failures of the connector
  // pass through.
  std::unique_ptr<net::BasicIo> connect(const std::string& host, uint32_t port) const;

 private:
  Connector connector_;
};

}  // namespace net

#endif  // TALVIX_NET_CONNECTION_H_
