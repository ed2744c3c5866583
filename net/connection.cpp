#include "net/connection.h"

#include <utility>

#include "net/buffer_io.h"
#include "net/socket.h"
#include "net/socket_stream.h"
#include "util/error.h"

namespace net {

std::unique_ptr<net::BasicIo> connectTcp(const std::string& host, uint32_t port,
                                         const TransportSettings& settings) {
  const uint16_t port16 = static_cast<uint16_t>(port);
  std::unique_ptr<SocketStream> socket = connect_socket(host, port16, settings.timeout);
  if (!settings.tls) return std::make_unique<net::BufferIo>(std::move(socket));
  return std::make_unique<net::BufferIo>(
      std::make_unique<TlsStream>(std::move(socket), settings.tlsSettings, host, port16));
}

ConnectionFactory::ConnectionFactory(TransportSettings settings)
    : connector_([settings = std::move(settings)](const std::string& host, uint32_t port) {
        return connectTcp(host, port, settings);
      }) {}

ConnectionFactory::ConnectionFactory(Connector connector) : connector_(std::move(connector)) {
  if (!connector_) util::assert_failed("ConnectionFactory needs a connector");
}

std::unique_ptr<net::BasicIo> ConnectionFactory::connect(const std::string& host,
                                                         uint32_t port) const {
  return connector_(host, port);
}

}  // namespace net
