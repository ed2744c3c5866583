#include "tests/support/server_harness.h"

#include <arpa/inet.h>

#include <stdexcept>

#include "net/osal_socket.h"
#include "protocol/gui_protocol.h"
#include "server/byte_sink.h"
#include "server/database_json.h"
#include "support/process.h"
#include "tql/parser.h"
#include "util/error.h"

namespace support {

std::shared_ptr<const server::Database> sample_database() {
  static const std::shared_ptr<const server::Database> db = server::parse_json_database(R"({
  "rootDomain": "root", "mibRoot": "mib", "users": [{"domain": "lab", "name": "admin", "password": "secret"}],
  "objects": [{"class": "MibRoot", "id": "mib"},
    {"class": "Domain", "id": "root", "properties": [{"name": "name", "type": "String", "value": "Root"}], "children": [
      {"class": "Domain", "id": "europe", "properties": [{"name": "name", "type": "String", "value": "Europe"}], "children": [
        {"class": "Domain", "id": "berlin", "properties": [{"name": "name", "type": "String", "value": "Berlin"}], "children": [
          {"class": "Node", "id": "n2", "properties": [{"name": "name", "type": "String", "value": "berlin-web"},
             {"name": "load", "type": "Unsigned Integer", "value": 12}], "children": [
            {"class": "Check", "id": "c2", "properties": [{"name": "cpu", "type": "Index"}, {"name": "empty", "type": "Index"}]}]}]},
        {"class": "Domain", "id": "paris", "properties": [{"name": "name", "type": "String", "value": "Paris"}]}]},
      {"class": "Domain", "id": "asia", "properties": [{"name": "name", "type": "String", "value": "Asia"}]},
      {"class": "Node", "id": "n1", "properties": [{"name": "name", "type": "String", "value": "gateway"},
         {"name": "load", "type": "Unsigned Integer", "value": 7}]}]}],
  "history": [
    {"object": "c2", "index": "cpu", "datatype": "continuous", "intervals": [
      {"start": 100, "end": 200, "max": 9.5, "avg": 5, "min": 1, "ngood": 3, "nbad": 0},
      {"start": 200, "end": 300, "max": 12, "avg": 7.5, "min": 3, "ngood": 5, "nbad": 1}]},
    {"object": "c2", "index": "empty", "datatype": "continuous", "intervals": []}]})");
  return db;
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

RawClient::RawClient(uint16_t port, std::chrono::milliseconds limit) : limit_(limit) {
  const uint32_t loopback = htonl(INADDR_LOOPBACK);
  if (net::socket_connect(&loopback, port, &fd_, 0, 10)) throw std::runtime_error("cannot connect");
  auto socket = std::make_unique<net::SocketStream>(fd_);
  socket_ = socket.get();
  reader_ = std::make_unique<protocol::BerReader>(protocol::guiProtocol(), std::move(socket));
}

RawClient::~RawClient() = default;

void RawClient::send(const protocol::BerValue& message) { sendBytes(server::encode(message, false)); }

void RawClient::sendBytes(const std::string& bytes) {
  socket_->write(bytes.data(), bytes.size());
  socket_->flush();
}

std::string RawClient::requestBytes(int32_t id, std::unique_ptr<protocol::BerConstructed> body) const {
  protocol::Request request;
  request.id = id;
  request.req = std::move(body);
  return server::encode(request, false);
}

std::unique_ptr<protocol::BerConstructed> RawClient::receive() {
  const auto end = std::chrono::steady_clock::now() + limit_;
  for (;;) {
    if (auto message = reader_->takeMessage()) return message;
    if (ended_) return nullptr;
    if (!wait_readable(fd_, end)) return nullptr;
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

namespace {

std::string describe(const protocol::Object& object) {
  std::string text = object.id + ":" + object.className;
  for (size_t i = 0; i < object.properties.size(); ++i) {
    const protocol::Property& p = *object.properties[i];
    text += (i == 0 ? "{" : ",") + p.name;
    if (auto* s = dynamic_cast<const protocol::StringProp*>(p.data.get())) text += "=" + s->value;
    if (auto* u = dynamic_cast<const protocol::UnsignedIntProp*>(p.data.get())) text += "=" + std::to_string(u->value);
  }
  if (!object.properties.empty()) text += "}";
  for (size_t i = 0; i < object.children.size(); ++i) text += (i == 0 ? "[" : ",") + describe(*object.children[i]);
  if (!object.children.empty()) text += "]";
  return text;
}

}  // namespace

std::string RawClient::nextAnswer() {
  auto response = receiveAs<protocol::Response>();
  if (!response) return "none";
  std::string text = "#" + std::to_string(response->id);
  if (auto* e = dynamic_cast<const protocol::ErrorResp*>(response->resp.get())) {
    text += " error " + std::to_string(e->code);
    return e->texts.size() == 1 ? text : text + " with " + std::to_string(e->texts.size()) + " texts";
  }
  if (auto* d = dynamic_cast<const protocol::GetDataResp*>(response->resp.get())) {
    return text + " data " + std::to_string(d->dataType) + " rows " + std::to_string(d->intervals.size());
  }
  auto* select = dynamic_cast<const protocol::SelectResp*>(response->resp.get());
  if (!select) return text + " other";
  for (const auto& o : select->objects) text += " " + describe(*o);
  return text;
}

bool RawClient::waitForClose() {
  std::unique_ptr<protocol::BerConstructed> m = receive();
  return m == nullptr && ended_ && decodeError_.empty();
}

void RawClient::closeNow() {
  reader_.reset();
  socket_ = nullptr;
  fd_ = -1;
  ended_ = true;
}

std::unique_ptr<protocol::NewSessionResp> RawClient::login() {
  protocol::ClientWants wants;
  wants.version = 0x0203;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  send(wants);
  if (!receiveAs<protocol::ServerOffers>()) return nullptr;
  send(protocol::NegotiateAck());
  protocol::NewSession session;
  session.loginDomain = "lab";
  session.userName = "admin";
  session.clientName = "Exporter";
  session.password = "secret";
  send(session);
  return receiveAs<protocol::NewSessionResp>();
}

}  // namespace support
