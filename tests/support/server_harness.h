// Helpers for tests of the stand-in server: a small database, the server run
// in-process on a free loopback port, and a raw protocol client that sends
// literal octets and decodes the answers with the BER reader. Every wait is
// bounded: a raw client gives up after five seconds instead of hanging.
#ifndef TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_
#define TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/ber_reader.h"
#include "protocol/messages.h"
#include "server/database.h"
#include "server/server.h"
#include "server/server_options.h"

namespace support {

// The root Domain "root" named "Root", alone, the MibRoot "mib", and user
// "admin" / "secret" of domain "lab".
std::shared_ptr<const server::Database> sample_database();

// A SelectReq of `startIds` and the parsed `pattern`.
std::unique_ptr<protocol::SelectReq> select_req(const std::vector<std::string>& startIds,
                                                const std::string& pattern);

// A server::Server on a free loopback port, started at construction and
// stopped at destruction.
class TestServer {
 public:
  explicit TestServer(std::shared_ptr<const server::Database> db,
                      const server::ServerOptions& options = server::ServerOptions());
  uint16_t port() const { return server_->port(); }

 private:
  std::unique_ptr<server::Server> server_;
};

// A protocol client that speaks message by message; destroying it closes
// its end at once (an abrupt disconnect).
class RawClient {
 public:
  explicit RawClient(uint16_t port);

  void sendBytes(const std::string& bytes);
  // The octets of Request `id` carrying `body`, for sending several at once.
  std::string requestBytes(int32_t id, std::unique_ptr<protocol::BerConstructed> body) const;

  // The next message, or null after the time limit, when the connection
  // ended or when an answer could not be decoded.
  std::unique_ptr<protocol::BerConstructed> receive();
  // Waits (within the limit) for the server to close the connection; true
  // when it did without sending another complete message first.
  bool waitForClose();

  // The handshake as admin / secret of domain lab; false when the server
  // refused.
  bool login();

 private:
  std::unique_ptr<protocol::BerReader> reader_;
  int fd_ = -1;  // of the reader's socket
  net::BasicIo* socket_;
  bool ended_ = false;
  std::string decodeError_;
};

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_
