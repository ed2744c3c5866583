// The stand-in server against literal protocol messages: the handshake and
// its variants, select evaluation with its error codes, history, other
// requests and pipelined requests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "server/handshake.h"
#include "server/select_eval.h"
#include "support/server_harness.h"

namespace {

using server_test::RawClient;
using server_test::TestServer;

server::ServerOptions handshake_options(server::HandshakeOptions h) {
  server::ServerOptions o;
  o.handshake = std::move(h);
  return o;
}

void send_wants(RawClient& c) {
  protocol::ClientWants wants;
  wants.version = 0x0203;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  c.send(wants);
}

template <class T>
bool is(const protocol::BerConstructed* v) {
  return dynamic_cast<const T*>(v) != nullptr;
}

// ---------------------------------------------------------------------------
// Handshake.

TEST(ServerHandshake, OffersTheConfiguredVersionAndAlternative) {
  struct Case {
    int32_t version;
    server::OfferedAuth auth;
    bool (*isAlternative)(const protocol::BerConstructed*);
  } const cases[] = {
      {0x0203, server::OfferedAuth::kNoAuth, is<protocol::ServerNoAuth>},  // the default
      {0x0300, server::OfferedAuth::kNoAuth, is<protocol::ServerNoAuth>},
      {0x0203, server::OfferedAuth::kPassword, is<protocol::ServerPassword>},
      {0x0203, server::OfferedAuth::kPrivateKey, is<protocol::ServerPrivateKey>},
      {0x0203, server::OfferedAuth::kLinkHandshake, is<protocol::LinkHandshakeInit>},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.version) + " auth " + std::to_string(static_cast<int>(c.auth)));
    server::HandshakeOptions h;
    h.version = c.version;
    h.auth = c.auth;
    TestServer s(server_test::sample_database(), handshake_options(h));
    RawClient client(s.port());
    send_wants(client);
    auto offer = client.receiveAs<protocol::ServerOffers>();
    ASSERT_TRUE(offer);
    EXPECT_EQ(offer->version, c.version);
    EXPECT_TRUE(c.isAlternative(offer->authentication.get()));
    EXPECT_FALSE(client.readerLegacy());
  }
}

TEST(ServerHandshake, LoginAnswersWithTheRootsAndAFreshSessionId) {
  TestServer s(server_test::sample_database());
  RawClient a(s.port()), b(s.port());
  auto first = a.login();
  auto second = b.login();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->rootDomainId, "root");
  EXPECT_EQ(first->mibRootId, "mib");
  EXPECT_EQ(first->text, server::kServerText);
  EXPECT_NE(first->sessionId, BigNum(0u));
  EXPECT_NE(first->sessionId, second->sessionId);
}

TEST(ServerHandshake, WrongPasswordClosesWithoutAnswer) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  EXPECT_FALSE(c.login("lab", "admin", "wrong"));
  EXPECT_TRUE(c.ended());
  EXPECT_EQ(c.decodeError(), "");
}

TEST(ServerHandshake, NackCarriesTheReasonAndCloses) {
  server::HandshakeOptions h;
  h.nackReason = "maintenance until noon";
  TestServer s(server_test::sample_database(), handshake_options(h));
  RawClient c(s.port());
  send_wants(c);
  auto nack = c.receiveAs<protocol::NegotiateNack>();
  ASSERT_TRUE(nack);
  EXPECT_EQ(nack->reason, "maintenance until noon");
  EXPECT_TRUE(c.waitForClose());
}

TEST(ServerHandshake, UnexpectedFirstMessageClosesWithoutAnswer) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  c.send(protocol::NegotiateAck());
  EXPECT_TRUE(c.waitForClose());
}

TEST(ServerHandshake, LegacyGreetingStartsWithTheMarkerAndSwitchesToLegacy) {
  const std::string greeting = server::legacy_greeting();
  ASSERT_GE(greeting.size(), 8u);
  EXPECT_EQ(greeting.substr(0, 8), std::string("\x60\x80\x02\x02\x01\x00\x61\x80", 8));

  server::HandshakeOptions h;
  h.legacyGreeting = true;
  TestServer s(server_test::sample_database(), handshake_options(h));
  RawClient c(s.port());
  send_wants(c);  // the client's first message: current encoding
  auto echoed = c.receiveAs<protocol::ClientWants>();
  ASSERT_TRUE(echoed);
  EXPECT_TRUE(c.readerLegacy());
  EXPECT_EQ(echoed->version, 0x0100);
  auto offer = c.receiveAs<protocol::ServerOffers>();
  ASSERT_TRUE(offer);
  EXPECT_EQ(offer->version, 0x0203);

  c.setLegacy(true);
  c.send(protocol::NegotiateAck());
  protocol::NewSession login;
  login.loginDomain = "lab";
  login.userName = "admin";
  login.password = "secret";
  c.send(login);
  auto accepted = c.receiveAs<protocol::NewSessionResp>();
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->rootDomainId, "root");
  c.sendSelect(4, {"root"}, ".!");
  auto response = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->id, 4);
  auto* select = dynamic_cast<protocol::SelectResp*>(response->resp.get());
  ASSERT_TRUE(select);
  EXPECT_EQ(server_test::describe(*select), "root:Domain{name=Root}");
}

// ---------------------------------------------------------------------------
// Selects: one case per branch of the evaluation.

struct SelectCase {
  const char* name;
  std::vector<std::string> starts;
  std::string pattern;
  int32_t error;         // 0: a SelectResp
  std::string expected;  // describe() of the SelectResp
};

class ServerSelectTest : public testing::TestWithParam<SelectCase> {
 protected:
  static void SetUpTestSuite() { server_ = new TestServer(server_test::sample_database()); }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  static TestServer* server_;
};
TestServer* ServerSelectTest::server_ = nullptr;

TEST_P(ServerSelectTest, AnswersWithTheMatchedTreeOrTheErrorCode) {
  RawClient c(server_->port());
  ASSERT_TRUE(c.login());
  c.sendSelect(17, GetParam().starts, GetParam().pattern);
  auto response = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(response) << c.decodeError();
  EXPECT_EQ(response->id, 17);
  if (GetParam().error != 0) {
    auto* error = dynamic_cast<protocol::ErrorResp*>(response->resp.get());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, GetParam().error);
    EXPECT_EQ(error->texts.size(), 1u);
  } else {
    auto* select = dynamic_cast<protocol::SelectResp*>(response->resp.get());
    ASSERT_TRUE(select);
    EXPECT_EQ(server_test::describe(*select), GetParam().expected);
  }
}

const char kN1[] = "n1:Node{name=gateway,load=7,siblingName=gateway}";
const std::string kRootN1 = std::string("root:Domain[") + kN1 + "]";

std::string too_deep_pattern() {
  std::string pattern = ".";
  for (size_t i = 0; i < server::kMaxPatternDepth; ++i) pattern += " > .";
  return pattern;
}

INSTANTIATE_TEST_SUITE_P(
    Patterns, ServerSelectTest,
    testing::Values(
        SelectCase{"self", {"root"}, ".!", 0, "root:Domain{name=Root}"},
        SelectCase{"self_with_children", {"root"}, ".! > .", 0,
                   (std::string("root:Domain{name=Root}[europe:Domain{name=Europe},asia:Domain{name=Asia},") +
                    kN1 + "]")},
        SelectCase{"leaf_with_children_matches_nothing", {"n1"}, ".! > .", 2, ""},
        SelectCase{"without_bang_no_properties", {"root"}, ". > Node", 0, kRootN1},
        SelectCase{"domain_path", {"root"},
                   ". > Domain { name ~= \"Europe\"} > Domain { name ~= \"Berlin\"}", 0,
                   "root:Domain[europe:Domain{name=Europe}[berlin:Domain{name=Berlin}]]"},
        SelectCase{"like_wildcard_ignores_case", {"root"}, ". > Domain { name ~= \"*ROP?\"}", 0,
                   "root:Domain[europe:Domain{name=Europe}]"},
        SelectCase{"alternatives", {"mib"}, ".! > (MibModule | MibObject)", 0,
                   "mib:MibRoot[mod1:MibModule{name=IF-MIB},obj1:MibObject{name=ifInOctets}]"},
        SelectCase{"colon_children_optional", {"root"}, ".! > (Domain { name = \"Asia\"} : Node)", 0,
                   (std::string("root:Domain{name=Root}[asia:Domain{name=Asia},") + kN1 + "]")},
        SelectCase{"colon_children_not_enough", {"root"}, ".! > (Domain { name = \"Mars\"} : Node)", 2,
                   ""},
        SelectCase{"nested_steps", {"root"}, ". > Domain > Domain > Node", 0,
                   "root:Domain[europe:Domain{name=Europe}[berlin:Domain{name=Berlin}["
                   "n2:Node{name=berlin-web,load=12}]]]"},
        SelectCase{"number_limits_matches", {"root"}, ". > Domain=1", 0,
                   "root:Domain[europe:Domain{name=Europe}]"},
        SelectCase{"property_list", {"root"}, ".![name] > Node[load]", 0,
                   "root:Domain{name=Root}[n1:Node{load=7}]"},
        SelectCase{"equal_and_text", {"root"}, ". > Node { load = 7 and name = \"gateway\" }", 0,
                   kRootN1},
        SelectCase{"not_equal", {"root"}, ". > Node { load <> 7 }", 2, ""},
        SelectCase{"signed_constant", {"root"}, ". > Node { load > -3 }", 0, kRootN1},
        SelectCase{"substring", {"root"}, ". > Node { name isubstr \"GATE\" }", 0, kRootN1},
        SelectCase{"not_like", {"root"}, ". > Domain { name !~ \"Europe\" }", 0,
                   "root:Domain[asia:Domain{name=Asia}]"},
        SelectCase{"id_in_set", {"root"}, ". > Domain { id in {\"asia\", \"paris\"} }", 0,
                   "root:Domain[asia:Domain{name=Asia}]"},
        SelectCase{"missing_property_is_false", {"root"}, ". > Domain { colour = \"red\" }", 2, ""},
        SelectCase{"incomparable", {"root"}, ". > Node { name > 5 }", 11, ""},
        SelectCase{"two_starts", {"asia", "paris"}, ".!", 0, "asia:Domain{name=Asia} paris:Domain{name=Paris}"},
        SelectCase{"unknown_start", {"root", "nowhere"}, ".!", 1, ""},
        SelectCase{"no_start", {}, ".!", 2, ""},
        SelectCase{"modifier_not_implemented", {"root"}, ".* > .", 12, ""},
        SelectCase{"deeper_than_the_limit", {"root"}, too_deep_pattern(), 12, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ServerSelect, OverlongStoredIdIsABackendErrorAndTheConnectionGoesOn) {
  auto db = server_test::sample_database();
  db->add("Node", std::string(40, 'x'), "asia");
  TestServer s(db);
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendSelect(1, {"asia"}, ".! > .");
  c.sendSelect(2, {"asia"}, ".!");
  auto response = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(response);
  auto* error = dynamic_cast<protocol::ErrorResp*>(response->resp.get());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, 14);
  auto next = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(next);
  EXPECT_TRUE(dynamic_cast<protocol::SelectResp*>(next->resp.get()));
}

// ---------------------------------------------------------------------------
// History and other requests.

std::unique_ptr<protocol::GetDataReq> get_data(const std::string& object, const std::string& index) {
  auto req = std::make_unique<protocol::GetDataReq>();
  req->objectId = object;
  req->indexName = index;
  req->flag = true;
  req->p2 = 0x7FFFFFFF;
  req->p3 = 1;
  return req;
}

// The record classes and their fields are checked byte for byte by the
// end-to-end export; here the answers' order, types and errors.
TEST(ServerGetData, AnswersFromStoredHistory) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  const struct {
    const char* object;
    const char* index;
    int32_t dataType;  // -1: an ErrorResp with code 1
    size_t rows;
  } cases[] = {{"n1", "cpu", 5, 2}, {"n2", "acc", 6, 1}, {"n2", "empty", 5, 0},
               {"nowhere", "cpu", -1, 0}, {"n1", "memory", -1, 0}};
  int32_t id = 0;
  for (const auto& k : cases) c.sendRequest(id++, get_data(k.object, k.index));
  id = 0;
  for (const auto& k : cases) {
    SCOPED_TRACE(std::string(k.object) + "/" + k.index);
    auto response = c.receiveAs<protocol::Response>();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->id, id++);
    if (k.dataType < 0) {
      auto* error = dynamic_cast<protocol::ErrorResp*>(response->resp.get());
      ASSERT_TRUE(error);
      EXPECT_EQ(error->code, 1);
    } else {
      auto* data = dynamic_cast<protocol::GetDataResp*>(response->resp.get());
      ASSERT_TRUE(data);
      EXPECT_EQ(data->dataType, k.dataType);
      EXPECT_EQ(data->intervals.size(), k.rows);
    }
  }
}

TEST(ServerRequests, OtherRequestKindsAreNotImplemented) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  auto erase = std::make_unique<protocol::EraseReq>();
  erase->id = "n1";
  c.sendRequest(3, std::move(erase));
  c.sendRequest(4, std::make_unique<protocol::ForgetReq>());
  for (int32_t id : {3, 4}) {
    auto response = c.receiveAs<protocol::Response>();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->id, id);
    auto* error = dynamic_cast<protocol::ErrorResp*>(response->resp.get());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 12);
  }
}

TEST(ServerRequests, PipelinedRequestsAreAllAnsweredInOrder) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  const std::vector<std::string> starts = {"root", "europe", "n1", "nowhere", "mib"};
  std::string burst;
  for (int32_t id = 0; id < 100; ++id) burst += c.selectBytes(id, starts[id % starts.size()], ".!");
  c.sendBytes(burst);
  for (int32_t id = 0; id < 100; ++id) {
    auto response = c.receiveAs<protocol::Response>();
    ASSERT_TRUE(response) << "answer " << id;
    EXPECT_EQ(response->id, id);
    const bool unknown = starts[id % starts.size()] == "nowhere";
    EXPECT_EQ(dynamic_cast<protocol::ErrorResp*>(response->resp.get()) != nullptr, unknown);
  }
}

}  // namespace
