// The stand-in server against literal protocol messages: the handshake and
// its variants, and the answers to pipelined requests, with the select
// forms and error codes the exporter's own patterns do not reach.
#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

#include "server/handshake.h"
#include "server/select_eval.h"
#include "support/server_harness.h"

namespace {

using server_test::RawClient;
using server_test::select_req;
using server_test::TestServer;

// Options with the handshake `h` (version, offered authentication, nack
// reason, legacy greeting).
server::ServerOptions with(server::HandshakeOptions h) {
  server::ServerOptions o;
  o.handshake = std::move(h);
  return o;
}

// ---------------------------------------------------------------------------
// Handshake.

TEST(ServerHandshake, OffersTheConfiguredVersionAndAlternative) {
  using server::OfferedAuth;
  const struct {
    int32_t version;
    OfferedAuth auth;
    const std::type_info& alternative;
  } cases[] = {
      {0x0203, OfferedAuth::kNoAuth, typeid(protocol::ServerNoAuth)},  // the default
      {0x0300, OfferedAuth::kPassword, typeid(protocol::ServerPassword)},
      {0x0203, OfferedAuth::kPrivateKey, typeid(protocol::ServerPrivateKey)},
      {0x0203, OfferedAuth::kLinkHandshake, typeid(protocol::LinkHandshakeInit)},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(std::to_string(k.version) + " auth " + std::to_string(static_cast<int>(k.auth)));
    TestServer s(server_test::sample_database(), with({k.version, k.auth, std::nullopt, false}));
    RawClient c(s.port());
    c.sendWants();
    auto offer = c.receiveAs<protocol::ServerOffers>();
    ASSERT_TRUE(offer);
    EXPECT_EQ(offer->version, k.version);
    ASSERT_TRUE(offer->authentication);
    EXPECT_TRUE(typeid(*offer->authentication) == k.alternative);
    EXPECT_FALSE(c.readerLegacy());
  }
}

// Each login gets the roots and a session id of its own; a first message
// other than ClientWants closes without an answer. (A wrong password is
// refused end to end.)
TEST(ServerHandshake, LoginsAndRefusals) {
  TestServer s(server_test::sample_database());
  RawClient a(s.port()), b(s.port()), early(s.port());
  auto first = a.login();
  auto second = b.login();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->rootDomainId, "root");
  EXPECT_EQ(first->mibRootId, "mib");
  EXPECT_EQ(first->text, server::kServerText);
  EXPECT_NE(first->sessionId, util::BigNum(0u));
  EXPECT_NE(first->sessionId, second->sessionId);
  early.send(protocol::NegotiateAck());
  EXPECT_TRUE(early.waitForClose());
}

TEST(ServerHandshake, NackCarriesTheReasonAndCloses) {
  TestServer s(server_test::sample_database(), with({0x0203, server::OfferedAuth::kNoAuth, "maintenance until noon", false}));
  RawClient c(s.port());
  c.sendWants();
  auto nack = c.receiveAs<protocol::NegotiateNack>();
  ASSERT_TRUE(nack);
  EXPECT_EQ(nack->reason, "maintenance until noon");
  EXPECT_TRUE(c.waitForClose());
}

TEST(ServerHandshake, LegacyGreetingStartsWithTheMarkerAndSwitchesToLegacy) {
  EXPECT_EQ(server::legacy_greeting().substr(0, 8), std::string("\x60\x80\x02\x02\x01\x00\x61\x80", 8));
  TestServer s(server_test::sample_database(), with({0x0203, server::OfferedAuth::kNoAuth, std::nullopt, true}));
  RawClient c(s.port());
  c.sendWants();  // the client's first message: current encoding
  auto echoed = c.receiveAs<protocol::ClientWants>();
  ASSERT_TRUE(echoed);
  EXPECT_TRUE(c.readerLegacy());
  EXPECT_EQ(echoed->version, 0x0100);
  auto offer = c.receiveAs<protocol::ServerOffers>();
  ASSERT_TRUE(offer);
  EXPECT_EQ(offer->version, 0x0203);

  c.setLegacy(true);
  auto accepted = c.acceptOffer();
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->rootDomainId, "root");
  c.sendRequest(4, select_req({"root"}, ".!"));
  EXPECT_EQ(c.nextAnswer(), "#4 root:Domain{name=Root}");
}

// ---------------------------------------------------------------------------
// Requests.

const std::string kN1 = "n1:Node{name=gateway,load=7}";
const std::string kRootN1 = "root:Domain[" + kN1 + "]";

std::string too_deep_pattern() {
  std::string pattern = ".";
  for (size_t i = 0; i < server::kMaxPatternDepth; ++i) pattern += " > .";
  return pattern;
}

// One select per branch of the evaluation; the exporter's own patterns are
// checked by its end-to-end tests.
const struct {
  std::vector<std::string> starts;
  std::string pattern;
  std::string answer;  // RawClient::nextAnswer() without the id
} kSelects[] = {
    {{"root"}, ". > Node", kRootN1},  // without '!': no properties
    {{"root"}, ". > Domain { name ~= \"*ROP?\"}", "root:Domain[europe:Domain{name=Europe}]"},
    {{"root"}, ".! > (Domain { name = \"Asia\"} : Node)", "root:Domain{name=Root}[asia:Domain{name=Asia}," + kN1 + "]"},
    {{"root"}, ". > Domain=1", "root:Domain[europe:Domain{name=Europe}]"},
    {{"root"}, ".![name] > Node[load]", "root:Domain{name=Root}[n1:Node{load=7}]"},
    {{"root"}, ". > Node { load = 7 and name = \"gateway\" }", kRootN1},
    {{"root"}, ". > Node { load <> 7 }", "error 2"},
    {{"root"}, ". > Domain { id in {\"asia\", \"paris\"} }", "root:Domain[asia:Domain{name=Asia}]"},
    {{"root"}, ". > Domain { colour = \"red\" }", "error 2"},  // a missing property is false
    {{"root"}, ". > Node { name > 5 }", "error 11"},
    {{"asia", "paris"}, ".!", "asia:Domain{name=Asia} paris:Domain{name=Paris}"},
    {{"root", "nowhere"}, ".!", "error 1"},
    {{}, ".!", "error 2"},
    {{"root"}, ".* > .", "error 12"},
    {{"root"}, too_deep_pattern(), "error 12"},
};

std::unique_ptr<protocol::GetDataReq> get_data(const std::string& object, const std::string& index) {
  auto req = std::make_unique<protocol::GetDataReq>();
  req->objectId = object;
  req->indexName = index;
  req->flag = true;
  req->p2 = 0x7FFFFFFF;
  req->p3 = 1;
  return req;
}

// Everything sent at once is answered in order. The history records are
// checked byte for byte by the end-to-end export; here their count and the
// errors.
TEST(ServerRequests, PipelinedRequestsAreAnsweredInOrder) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  std::string burst;
  std::vector<std::pair<std::string, std::string>> asked;  // the request, the answer it wants
  auto ask = [&](const std::string& what, std::unique_ptr<protocol::BerConstructed> body, const std::string& answer) {
    burst += c.requestBytes(static_cast<int32_t>(asked.size()), std::move(body));
    asked.emplace_back(what, "#" + std::to_string(asked.size()) + " " + answer);
  };
  for (const auto& k : kSelects) ask(k.pattern, select_req(k.starts, k.pattern), k.answer);
  ask("history", get_data("c2", "cpu"), "data 5 rows 2");
  ask("empty history", get_data("c2", "empty"), "data 5 rows 0");
  ask("history of an unknown object", get_data("nowhere", "cpu"), "error 1");
  ask("history of an unknown index", get_data("c2", "memory"), "error 1");
  ask("erase", std::make_unique<protocol::EraseReq>(), "error 12");
  c.sendBytes(burst);
  for (const auto& [what, answer] : asked) EXPECT_EQ(c.nextAnswer(), answer) << what;
}

// The sample with a child of "asia" whose id is longer than the protocol
// carries.
class OverlongChild : public server::Database {
  const std::shared_ptr<const server::Database> sample_ = server_test::sample_database();
  const std::string long_ = std::string(server::kMaxIdLength + 1, 'x');

 public:
  std::string rootDomainId() const override { return sample_->rootDomainId(); }
  std::string mibRootId() const override { return sample_->mibRootId(); }
  std::shared_ptr<const server::History> history(const std::string& o, const std::string& i) const override {
    return sample_->history(o, i);
  }
  bool checkLogin(const std::string& d, const std::string& u, const std::string& p) const override {
    return sample_->checkLogin(d, u, p);
  }
  std::shared_ptr<const server::StoredObject> find(const std::string& id) const override {
    if (id == long_) return std::make_shared<server::StoredObject>(server::StoredObject{"Node", long_, 0, "asia", {}, {}});
    auto o = sample_->find(id);
    if (id != "asia") return o;
    auto asia = std::make_shared<server::StoredObject>(*o);
    asia->children = {long_};
    return asia;
  }
};

TEST(ServerRequests, OverlongStoredIdIsABackendErrorAndTheConnectionGoesOn) {
  TestServer s(std::make_shared<OverlongChild>());
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendRequest(1, select_req({"asia"}, ".! > ."));
  c.sendRequest(2, select_req({"asia"}, ".!"));
  EXPECT_EQ(c.nextAnswer(), "#1 error 14");
  EXPECT_EQ(c.nextAnswer(), "#2 asia:Domain{name=Asia}");
}

}  // namespace
