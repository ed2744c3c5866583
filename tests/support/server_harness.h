// Helpers for tests of the stand-in server: a database built in code, the
// server run in-process on a free loopback port, and a raw protocol client
// that sends literal messages and decodes the answers with the BER reader.
//
// Every wait is bounded: a raw client gives up after its time limit and
// reports a timeout instead of hanging.
#ifndef TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_
#define TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/ber_reader.h"
#include "protocol/messages.h"
#include "server/database.h"
#include "server/server.h"
#include "server/server_options.h"

namespace server_test {

// A database whose objects, history and users are added by the test.
class MemoryDatabase : public server::Database {
 public:
  MemoryDatabase(std::string rootDomainId, std::string mibRootId)
      : root_(std::move(rootDomainId)), mibRoot_(std::move(mibRootId)) {}

  // Adds `object`; when `parentId` is not empty the object is appended to
  // that (already added) parent's children. Returns the stored object for
  // further changes before the database is shared.
  server::StoredObject& add(const std::string& className, const std::string& id,
                            const std::string& parentId,
                            std::vector<server::PropertyValue> properties = {},
                            uint32_t flags = 0);
  void addHistory(const std::string& objectId, const std::string& indexName,
                  server::History history);
  void addUser(const std::string& domain, const std::string& name, const std::string& password);

  std::string rootDomainId() const override { return root_; }
  std::string mibRootId() const override { return mibRoot_; }
  std::shared_ptr<const server::StoredObject> find(const std::string& id) const override;
  std::shared_ptr<const server::History> history(const std::string& objectId,
                                                 const std::string& indexName) const override;
  bool checkLogin(const std::string& loginDomain, const std::string& user,
                  const std::string& password) const override;

 private:
  std::string root_, mibRoot_;
  std::map<std::string, std::shared_ptr<server::StoredObject>> objects_;
  std::map<std::pair<std::string, std::string>, std::shared_ptr<const server::History>> history_;
  std::vector<server::User> users_;
};

// Property values for building objects.
server::PropertyValue text_property(const std::string& name, const std::string& value);
server::PropertyValue unsigned_property(const std::string& name, uint32_t value);

// The sample tree most tests use, with user "admin" / "secret" of domain
// "lab":
//   root  Domain  name "Root"     children: europe, asia, n1
//   europe Domain name "Europe"   children: berlin, paris
//   berlin Domain name "Berlin"   children: n2
//   paris  Domain name "Paris"
//   asia   Domain name "Asia"
//   n1     Node   name "gateway", load 7 (Unsigned), siblingName "gateway"
//   n2     Node   name "berlin-web", load 12, flags 1
//   mib    MibRoot    children: mod1, obj1, other
//   mod1   MibModule, obj1 MibObject, other Note
// History: n1/cpu continuous (2 rows), n2/acc accumulation (1 row), n2/empty
// continuous without rows.
std::shared_ptr<MemoryDatabase> sample_database();

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
  explicit RawClient(uint16_t port,
                     std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
  ~RawClient();

  // Writes `message` in the client's current encoding (see setLegacy).
  void send(const protocol::BerValue& message);
  void sendBytes(const std::string& bytes);
  void setLegacy(bool legacy) { legacy_ = legacy; }
  bool readerLegacy() const { return reader_->legacy(); }

  // The next message, or null after the time limit or when the connection
  // ended (see ended()). Decoding failures are recorded in decodeError().
  std::unique_ptr<protocol::BerConstructed> receive();
  template <class T>
  std::unique_ptr<T> receiveAs() {
    std::unique_ptr<protocol::BerConstructed> m = receive();
    if (dynamic_cast<T*>(m.get()) == nullptr) return nullptr;
    return std::unique_ptr<T>(static_cast<T*>(m.release()));
  }
  // Waits (within the limit) for the server to close the connection; true
  // when it did without sending another complete message first.
  bool waitForClose();
  bool ended() const { return ended_; }
  const std::string& decodeError() const { return decodeError_; }
  // Closes the client's end at once (an abrupt disconnect).
  void closeNow();

  // The whole handshake with the given credentials; the NewSessionResp, or
  // null when the server refused.
  std::unique_ptr<protocol::NewSessionResp> login(const std::string& domain = "lab",
                                                  const std::string& user = "admin",
                                                  const std::string& password = "secret");

  // Sends Request `id` with a SelectReq of `startIds` and the parsed
  // `pattern`, or with `body`.
  void sendSelect(int32_t id, const std::vector<std::string>& startIds, const std::string& pattern);
  void sendRequest(int32_t id, std::unique_ptr<protocol::BerConstructed> body);
  // Encoded Request octets for sending several at once.
  std::string selectBytes(int32_t id, const std::string& startId, const std::string& pattern);

 private:
  std::unique_ptr<old_protocol::BerReader> reader_;
  old_protocol::BasicIo* socket_;
  std::chrono::milliseconds limit_;
  bool legacy_ = false;
  bool ended_ = false;
  std::string decodeError_;
};

// The id, class and (string) properties of a select answer's objects, for
// comparisons: "id:Class{prop=value,...}[child,...]".
std::string describe(const protocol::Object& object);
std::string describe(const protocol::SelectResp& response);

}  // namespace server_test

#endif  // TALVIX_TESTS_SUPPORT_SERVER_HARNESS_H_
