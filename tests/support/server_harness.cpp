#include "tests/support/server_harness.h"

#include <chrono>
#include <stdexcept>

#include "net/socket.h"
#include "net/socket_stream.h"
#include "protocol/gui_protocol.h"
#include "server/byte_sink.h"
#include "server/database_json.h"
#include "support/process.h"
#include "support/scripted_peer.h"
#include "tql/parser.h"
#include "util/error.h"

namespace support {

std::shared_ptr<const server::Database> sample_database() {
  return server::parse_json_database(R"({
  "rootDomain": "root", "mibRoot": "mib", "users": [{"domain": "lab", "name": "admin", "password": "secret"}],
  "objects": [{"class": "MibRoot", "id": "mib"},
    {"class": "Domain", "id": "root", "properties": [{"name": "name", "type": "String", "value": "Root"}]}],
  "history": []})");
}

std::unique_ptr<protocol::SelectReq> select_req(const std::vector<std::string>& startIds,
                                                const std::string& pattern) {
  auto select = std::make_unique<protocol::SelectReq>();
  select->startIds = startIds;
  select->pattern = tql::parse(pattern);
  return select;
}

TestServer::TestServer(std::shared_ptr<const server::Database> db, const server::ServerOptions& options)
    : server_(std::make_unique<server::Server>(std::move(db), options)) {
  server_->start();
}

RawClient::RawClient(uint16_t port) {
  std::unique_ptr<net::SocketStream> socket = net::connect_socket("127.0.0.1", port, 0);
  fd_ = socket->descriptor();
  socket_ = socket.get();
  reader_ = std::make_unique<protocol::BerReader>(protocol::guiProtocol(), std::move(socket));
}

void RawClient::sendBytes(const std::string& bytes) {
  socket_->write(bytes.data(), bytes.size());
  socket_->flush();
}

std::string RawClient::requestBytes(int32_t id, std::unique_ptr<protocol::BerConstructed> body) const {
  protocol::Request request;
  request.id = id;
  request.req = std::move(body);
  return server::encode(request);
}

std::unique_ptr<protocol::BerConstructed> RawClient::receive() {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    if (auto message = reader_->takeMessage()) return message;
    if (ended_ || !wait_readable(fd_, end)) return nullptr;
    try {
      reader_->readSome(false);
    } catch (const protocol::EBer& e) {
      decodeError_ = e.text();
      ended_ = true;
    } catch (const util::Exception&) {
      ended_ = true;
    }
  }
}

bool RawClient::waitForClose() {
  std::unique_ptr<protocol::BerConstructed> m = receive();
  return m == nullptr && ended_ && decodeError_.empty();
}

bool RawClient::login() {
  sendBytes(clientWants());
  if (!dynamic_cast<protocol::ServerOffers*>(receive().get())) return false;
  sendBytes(hex("62 80 00 00") + testLogin());  // NegotiateAck, NewSession
  return dynamic_cast<protocol::NewSessionResp*>(receive().get()) != nullptr;
}

}  // namespace support
