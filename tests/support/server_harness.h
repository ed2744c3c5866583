// Helpers for tests of the stand-in server: a small database, the server run
// in-process on a free loopback port, and a raw protocol client that sends
// literal messages and decodes the answers with the BER reader. Every wait is
// bounded: a raw client gives up after its time limit instead of hanging.
#ifndef TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_
#define TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_

#include <chrono>
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

// The small tree most tests use, with user "admin" / "secret" of domain "lab":
//   root Domain "Root", children europe, asia, n1; europe Domain "Europe",
//   children berlin, paris; berlin, paris, asia Domains "Berlin", "Paris",
//   "Asia"; n1 Node name "gateway", load 7 (Unsigned); n2 Node below berlin,
//   name "berlin-web", load 12, with the Check c2 whose Index "cpu" has two
//   continuous rows and "empty" none; mib an empty MibRoot.
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
  server::Server& server() { return *server_; }

 private:
  std::unique_ptr<server::Server> server_;
};

// A protocol client that speaks message by message.
class RawClient {
 public:
  explicit RawClient(uint16_t port, std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
  ~RawClient();

  void send(const protocol::BerValue& message);
  void sendBytes(const std::string& bytes);
  // The octets of Request `id` carrying `body`, for sending several at once.
  std::string requestBytes(int32_t id, std::unique_ptr<protocol::BerConstructed> body) const;
  void sendRequest(int32_t id, std::unique_ptr<protocol::BerConstructed> body) {
    sendBytes(requestBytes(id, std::move(body)));
  }

  // The next message, or null after the time limit or when the connection
  // ended or an answer could not be decoded.
  std::unique_ptr<protocol::BerConstructed> receive();
  template <class T>
  std::unique_ptr<T> receiveAs() {
    std::unique_ptr<protocol::BerConstructed> m = receive();
    if (dynamic_cast<T*>(m.get()) == nullptr) return nullptr;
    return std::unique_ptr<T>(static_cast<T*>(m.release()));
  }
  // The next Response as "#<id> " followed by "error <code>" (with the
  // number of texts unless there is one), "data <datatype> rows <n>", or the
  // SelectResp's objects, each "id:Class{prop=value,...}[child,...]"; "none"
  // when no Response came.
  std::string nextAnswer();
  // Waits (within the limit) for the server to close the connection; true
  // when it did without sending another complete message first.
  bool waitForClose();
  // Closes the client's end at once (an abrupt disconnect).
  void closeNow();

  // The handshake as admin / secret of domain lab: the NewSessionResp, or
  // null when the server refused.
  std::unique_ptr<protocol::NewSessionResp> login();

 private:
  std::unique_ptr<protocol::BerReader> reader_;
  int fd_ = -1;  // of the reader's socket
  net::BasicIo* socket_;
  std::chrono::milliseconds limit_;
  bool ended_ = false;
  std::string decodeError_;
};

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_
