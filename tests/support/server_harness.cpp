#include "tests/support/server_harness.h"

#include <gtest/gtest.h>

#include <thread>

#include "net/osal_socket.h"
#include "protocol/gui_protocol.h"
#include "server/byte_sink.h"
#include "tql/parser.h"
#include "util/error.h"

namespace server_test {

using server::PropertyValue;
using server::StoredObject;

server::StoredObject& MemoryDatabase::add(const std::string& className, const std::string& id,
                                          const std::string& parentId,
                                          std::vector<PropertyValue> properties, uint32_t flags) {
  auto object = std::make_shared<StoredObject>();
  object->className = className;
  object->id = id;
  object->flags = flags;
  object->parentId = parentId;
  object->properties = std::move(properties);
  if (!parentId.empty()) objects_.at(parentId)->children.push_back(id);
  objects_[id] = object;
  return *object;
}

void MemoryDatabase::addHistory(const std::string& objectId, const std::string& indexName,
                                server::History history) {
  history_[{objectId, indexName}] = std::make_shared<const server::History>(std::move(history));
}

void MemoryDatabase::addUser(const std::string& domain, const std::string& name,
                             const std::string& password) {
  users_.push_back(server::User{domain, name, password});
}

std::shared_ptr<const StoredObject> MemoryDatabase::find(const std::string& id) const {
  auto it = objects_.find(id);
  return it == objects_.end() ? nullptr : it->second;
}

std::shared_ptr<const server::History> MemoryDatabase::history(const std::string& objectId,
                                                               const std::string& indexName) const {
  auto it = history_.find({objectId, indexName});
  return it == history_.end() ? nullptr : it->second;
}

bool MemoryDatabase::checkLogin(const std::string& loginDomain, const std::string& user,
                                const std::string& password) const {
  for (const server::User& u : users_) {
    if (u.loginDomain == loginDomain && u.name == user && u.password == password) return true;
  }
  return false;
}

PropertyValue text_property(const std::string& name, const std::string& value) {
  return PropertyValue{name, server::kTypeString, value};
}
PropertyValue unsigned_property(const std::string& name, uint32_t value) {
  return PropertyValue{name, server::kTypeUnsigned, value};
}

std::shared_ptr<MemoryDatabase> sample_database() {
  auto db = std::make_shared<MemoryDatabase>("root", "mib");
  db->add("Domain", "root", "", {text_property("name", "Root")});
  db->add("Domain", "europe", "root", {text_property("name", "Europe")});
  db->add("Domain", "berlin", "europe", {text_property("name", "Berlin")});
  db->add("Domain", "paris", "europe", {text_property("name", "Paris")});
  db->add("Domain", "asia", "root", {text_property("name", "Asia")});
  db->add("Node", "n1", "root",
          {text_property("name", "gateway"), unsigned_property("load", 7),
           text_property("siblingName", "gateway")});
  db->add("Node", "n2", "berlin", {text_property("name", "berlin-web"), unsigned_property("load", 12)},
          1);
  db->add("MibRoot", "mib", "");
  db->add("MibModule", "mod1", "mib", {text_property("name", "IF-MIB")});
  db->add("MibObject", "obj1", "mib", {text_property("name", "ifInOctets")});
  db->add("Note", "other", "mib", {text_property("name", "note")});

  server::History cpu{5, {}};
  cpu.intervals.push_back(server::ContinuousRow{100, 200, 9.5, 5.0, 1.0, 3, 0});
  cpu.intervals.push_back(server::ContinuousRow{200, 300, 12.0, 7.5, 3.0, 5, 1});
  db->addHistory("n1", "cpu", cpu);
  db->addHistory("n2", "acc", server::History{6, {server::SawtoothRow{60, 120, 6, 5, 4, 2, 2}}});
  db->addHistory("n2", "empty", server::History{5, {}});
  db->addUser("lab", "admin", "secret");
  return db;
}

TestServer::TestServer(std::shared_ptr<const server::Database> db,
                       const server::ServerOptions& options)
    : server_(std::make_unique<server::Server>(std::move(db), options)) {
  server_->start();
}

RawClient::RawClient(uint16_t port, std::chrono::milliseconds limit) : limit_(limit) {
  auto socket = std::make_unique<old_protocol::OsalSocket>("127.0.0.1", port);
  socket_ = socket.get();
  reader_ = std::make_unique<old_protocol::BerReader>(protocol::guiProtocol(), std::move(socket));
}

RawClient::~RawClient() = default;

void RawClient::send(const protocol::BerValue& message) {
  sendBytes(server::encode(message, legacy_));
}

void RawClient::sendBytes(const std::string& bytes) {
  socket_->write(bytes.data(), bytes.size());
  socket_->flush();
}

std::unique_ptr<protocol::BerConstructed> RawClient::receive() {
  const auto end = std::chrono::steady_clock::now() + limit_;
  for (;;) {
    if (auto message = reader_->takeMessage()) return message;
    if (ended_) return nullptr;
    while (!socket_->readable()) {
      if (std::chrono::steady_clock::now() >= end) return nullptr;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    try {
      reader_->readSome(false);
    } catch (const protocol::EBer& e) {
      decodeError_ = e.text();
      ended_ = true;
    } catch (const error::Exception&) {
      ended_ = true;
    }
  }
}

bool RawClient::waitForClose() {
  std::unique_ptr<protocol::BerConstructed> m = receive();
  return m == nullptr && ended_ && decodeError_.empty();
}

void RawClient::closeNow() {
  reader_.reset();
  socket_ = nullptr;
  ended_ = true;
}

std::unique_ptr<protocol::NewSessionResp> RawClient::login(const std::string& domain,
                                                           const std::string& user,
                                                           const std::string& password) {
  protocol::ClientWants wants;
  wants.version = 0x0203;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  send(wants);
  if (!receiveAs<protocol::ServerOffers>()) return nullptr;
  send(protocol::NegotiateAck());
  protocol::NewSession session;
  session.loginDomain = domain;
  session.userName = user;
  session.clientName = "Exporter";
  session.password = password;
  send(session);
  return receiveAs<protocol::NewSessionResp>();
}

namespace {

std::unique_ptr<protocol::Request> select_request(int32_t id, const std::vector<std::string>& starts,
                                                  const std::string& pattern) {
  auto select = std::make_unique<protocol::SelectReq>();
  select->startIds = starts;
  select->pattern = tql::parse(pattern);
  auto request = std::make_unique<protocol::Request>();
  request->id = id;
  request->req = std::move(select);
  return request;
}

}  // namespace

void RawClient::sendSelect(int32_t id, const std::vector<std::string>& startIds,
                           const std::string& pattern) {
  send(*select_request(id, startIds, pattern));
}

void RawClient::sendRequest(int32_t id, std::unique_ptr<protocol::BerConstructed> body) {
  protocol::Request request;
  request.id = id;
  request.req = std::move(body);
  send(request);
}

std::string RawClient::selectBytes(int32_t id, const std::string& startId,
                                   const std::string& pattern) {
  return server::encode(*select_request(id, {startId}, pattern), legacy_);
}

std::string describe(const protocol::Object& object) {
  std::string text = object.id + ":" + object.className;
  if (!object.properties.empty()) {
    text += "{";
    for (size_t i = 0; i < object.properties.size(); ++i) {
      const protocol::Property& p = *object.properties[i];
      if (i != 0) text += ",";
      text += p.name;
      if (auto* s = dynamic_cast<const protocol::StringProp*>(p.data.get())) {
        text += "=" + s->value;
      } else if (auto* u = dynamic_cast<const protocol::UnsignedIntProp*>(p.data.get())) {
        text += "=" + std::to_string(u->value);
      }
    }
    text += "}";
  }
  if (!object.children.empty()) {
    text += "[";
    for (size_t i = 0; i < object.children.size(); ++i) {
      if (i != 0) text += ",";
      text += describe(*object.children[i]);
    }
    text += "]";
  }
  return text;
}

std::string describe(const protocol::SelectResp& response) {
  std::string text;
  for (const auto& o : response.objects) {
    if (!text.empty()) text += " ";
    text += describe(*o);
  }
  return text;
}

}  // namespace server_test
