#include "net/connection.h"

#include <utility>

#include "net/buffer_io.h"
#include "net/osal_socket.h"
#include "util/error.h"

namespace net {

std::unique_ptr<net::BasicIo> connectTcp(const std::string& host, uint32_t port) {
  auto socket = std::make_unique<net::OsalSocket>(host, static_cast<uint16_t>(port));
  return std::make_unique<net::BufferIo>(std::move(socket));
}

ConnectionFactory::ConnectionFactory() : connector_(connectTcp) {}

ConnectionFactory::ConnectionFactory(Connector connector) : connector_(std::move(connector)) {
  if (!connector_) util::assert_failed("ConnectionFactory needs a connector");
}

std::unique_ptr<net::BasicIo> ConnectionFactory::connect(const std::string& host,
                                                         uint32_t port) const {
  return connector_(host, port);
}

}  // namespace net
