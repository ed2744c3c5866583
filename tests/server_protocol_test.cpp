// The stand-in server against literal protocol messages and against the
// client library: handshake variants, every select form with its error
// codes, history of every datatype, other requests, pipelining.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/get_data.h"
#include "client/request.h"
#include "client/select.h"
#include "client/session.h"
#include "net/connection.h"
#include "server/byte_sink.h"
#include "server/handshake.h"
#include "server/select_eval.h"
#include "support/server_harness.h"
#include "util/error.h"

namespace {

using server_test::RawClient;
using server_test::TestServer;

server::ServerOptions handshake_options(server::HandshakeOptions h) {
  server::ServerOptions o;
  o.handshake = std::move(h);
  return o;
}

// ---------------------------------------------------------------------------
// Handshake, literal messages.

TEST(ServerHandshake, DefaultOffersVersion0203WithoutAuthenticationAndLogsIn) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  protocol::ClientWants wants;
  wants.version = 0x0203;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  c.send(wants);
  auto offer = c.receiveAs<protocol::ServerOffers>();
  ASSERT_TRUE(offer);
  EXPECT_EQ(offer->version, 0x0203);
  EXPECT_TRUE(dynamic_cast<protocol::ServerNoAuth*>(offer->authentication.get()));
  EXPECT_FALSE(c.readerLegacy());
  c.send(protocol::NegotiateAck());
  protocol::NewSession login;
  login.loginDomain = "lab";
  login.userName = "admin";
  login.clientName = "Exporter";
  login.password = "secret";
  c.send(login);
  auto accepted = c.receiveAs<protocol::NewSessionResp>();
  ASSERT_TRUE(accepted);
  EXPECT_EQ(accepted->rootDomainId, "root");
  EXPECT_EQ(accepted->mibRootId, "mib");
  EXPECT_EQ(accepted->text, server::kServerText);
  EXPECT_NE(accepted->sessionId, BigNum(0u));
}

TEST(ServerHandshake, TwoLoginsGetDifferentSessionIds) {
  TestServer s(server_test::sample_database());
  RawClient a(s.port()), b(s.port());
  auto first = a.login();
  auto second = b.login();
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->sessionId, second->sessionId);
}

struct OfferCase {
  const char* name;
  int32_t version;
  server::OfferedAuth auth;
  bool (*isAlternative)(const protocol::BerConstructed*);
};

class ServerOfferTest : public testing::TestWithParam<OfferCase> {};

TEST_P(ServerOfferTest, OffersTheConfiguredVersionAndAlternative) {
  server::HandshakeOptions h;
  h.version = GetParam().version;
  h.auth = GetParam().auth;
  TestServer s(server_test::sample_database(), handshake_options(h));
  RawClient c(s.port());
  protocol::ClientWants wants;
  wants.version = 0x0203;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  c.send(wants);
  auto offer = c.receiveAs<protocol::ServerOffers>();
  ASSERT_TRUE(offer);
  EXPECT_EQ(offer->version, GetParam().version);
  EXPECT_TRUE(GetParam().isAlternative(offer->authentication.get()));
}

template <class T>
bool is(const protocol::BerConstructed* v) {
  return dynamic_cast<const T*>(v) != nullptr;
}

INSTANTIATE_TEST_SUITE_P(
    Offers, ServerOfferTest,
    testing::Values(OfferCase{"v0205_none", 0x0205, server::OfferedAuth::kNoAuth, is<protocol::ServerNoAuth>},
                    OfferCase{"v0300_none", 0x0300, server::OfferedAuth::kNoAuth, is<protocol::ServerNoAuth>},
                    OfferCase{"password", 0x0203, server::OfferedAuth::kPassword, is<protocol::ServerPassword>},
                    OfferCase{"private_key", 0x0203, server::OfferedAuth::kPrivateKey,
                              is<protocol::ServerPrivateKey>},
                    OfferCase{"link", 0x0203, server::OfferedAuth::kLinkHandshake,
                              is<protocol::LinkHandshakeInit>}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ServerHandshake, NackCarriesTheReasonAndCloses) {
  server::HandshakeOptions h;
  h.nackReason = "maintenance until noon";
  TestServer s(server_test::sample_database(), handshake_options(h));
  RawClient c(s.port());
  protocol::ClientWants wants;
  wants.version = 0x0203;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  c.send(wants);
  auto nack = c.receiveAs<protocol::NegotiateNack>();
  ASSERT_TRUE(nack);
  EXPECT_EQ(nack->reason, "maintenance until noon");
  EXPECT_TRUE(c.waitForClose());
}

struct RefusalCase {
  const char* name;
  const char* domain;
  const char* user;
  const char* password;
};

class ServerRefusalTest : public testing::TestWithParam<RefusalCase> {};

TEST_P(ServerRefusalTest, WrongCredentialsCloseWithoutAnswer) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  EXPECT_FALSE(c.login(GetParam().domain, GetParam().user, GetParam().password));
  EXPECT_TRUE(c.ended());
  EXPECT_EQ(c.decodeError(), "");
}

INSTANTIATE_TEST_SUITE_P(Logins, ServerRefusalTest,
                         testing::Values(RefusalCase{"password", "lab", "admin", "wrong"},
                                         RefusalCase{"empty_password", "lab", "admin", ""},
                                         RefusalCase{"user", "lab", "nobody", "secret"},
                                         RefusalCase{"domain", "other", "admin", "secret"}),
                         [](const auto& info) { return std::string(info.param.name); });

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
  protocol::ClientWants wants;  // the client's first message: current encoding
  wants.version = 0x0203;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  c.send(wants);
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
// Handshake through the client library.

struct ClientCase {
  const char* name;
  server::HandshakeOptions handshake;
  const char* password;
  const char* error;  // empty: the login succeeds
};

class ServerWithClientTest : public testing::TestWithParam<ClientCase> {};

TEST_P(ServerWithClientTest, OpenSessionSeesTheConfiguredHandshake) {
  TestServer s(server_test::sample_database(), handshake_options(GetParam().handshake));
  std::string error;
  std::unique_ptr<Session> session;
  try {
    session = openSession(ConnectionFactory(), "127.0.0.1", s.port(), "Exporter", "admin",
                          GetParam().password, "lab");
  } catch (const error::Exception& e) {
    error = e.text();
  }
  EXPECT_EQ(error, GetParam().error);
  if (GetParam().error[0] == '\0') {
    ASSERT_TRUE(session);
    EXPECT_EQ(session->rootDomainId, "root");
    EXPECT_EQ(session->mibRootId, "mib");
  }
}

server::HandshakeOptions with_version(int32_t v) {
  server::HandshakeOptions h;
  h.version = v;
  return h;
}
server::HandshakeOptions with_auth(server::OfferedAuth a) {
  server::HandshakeOptions h;
  h.auth = a;
  return h;
}
server::HandshakeOptions with_nack(const char* reason) {
  server::HandshakeOptions h;
  h.nackReason = reason;
  return h;
}
server::HandshakeOptions with_greeting() {
  server::HandshakeOptions h;
  h.legacyGreeting = true;
  return h;
}

INSTANTIATE_TEST_SUITE_P(
    Client, ServerWithClientTest,
    testing::Values(
        ClientCase{"defaults", {}, "secret", ""},
        ClientCase{"minor_0205", with_version(0x0205), "secret", ""},
        ClientCase{"major_3", with_version(0x0300), "secret",
                   "Server does not support our version of the protocol"},
        ClientCase{"password_alternative", with_auth(server::OfferedAuth::kPassword), "secret",
                   "Server does not support our version of the protocol"},
        ClientCase{"nack", with_nack("go away"), "secret", "Server rejected us: go away"},
        ClientCase{"wrong_password", {}, "guess", "Wrong username / password"},
        ClientCase{"legacy_greeting", with_greeting(), "secret", "Protocol error: Wrong type"}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Selects.

struct SelectCase {
  const char* name;
  std::vector<std::string> starts;
  const char* pattern;
  int32_t error;         // 0: a SelectResp
  const char* expected;  // describe() of the SelectResp
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

const char kRootChildren[] =
    "root:Domain{name=Root}[europe:Domain{name=Europe},asia:Domain{name=Asia},"
    "n1:Node{name=gateway,load=7,siblingName=gateway}]";

INSTANTIATE_TEST_SUITE_P(
    Patterns, ServerSelectTest,
    testing::Values(
        SelectCase{"self", {"root"}, ".!", 0, "root:Domain{name=Root}"},
        SelectCase{"self_with_children", {"root"}, ".! > .", 0, kRootChildren},
        SelectCase{"leaf_with_children_matches_nothing", {"n1"}, ".! > .", 2, ""},
        SelectCase{"leaf_self", {"n1"}, ".!", 0, "n1:Node{name=gateway,load=7,siblingName=gateway}"},
        SelectCase{"flags_are_sent", {"europe"}, ".! > .", 0,
                   "europe:Domain{name=Europe}[berlin:Domain{name=Berlin},paris:Domain{name=Paris}]"},
        SelectCase{"without_bang_no_properties", {"root"}, ". > Node", 0,
                   "root:Domain[n1:Node{name=gateway,load=7,siblingName=gateway}]"},
        SelectCase{"domain_path", {"root"},
                   ". > Domain { name ~= \"Europe\"} > Domain { name ~= \"Berlin\"}", 0,
                   "root:Domain[europe:Domain{name=Europe}[berlin:Domain{name=Berlin}]]"},
        SelectCase{"domain_path_ignores_case", {"root"}, ". > Domain { name ~= \"europe\"}", 0,
                   "root:Domain[europe:Domain{name=Europe}]"},
        SelectCase{"domain_path_wildcard", {"root"}, ". > Domain { name ~= \"*rop?\"}", 0,
                   "root:Domain[europe:Domain{name=Europe}]"},
        SelectCase{"domain_path_partial_match", {"root"},
                   ". > Domain { name ~= \"Europe\"} > Domain { name ~= \"Tokyo\"}", 2, ""},
        SelectCase{"domain_path_unknown", {"root"}, ". > Domain { name ~= \"Mars\"}", 2, ""},
        SelectCase{"mib", {"mib"}, ".! > (MibModule | MibObject)", 0,
                   "mib:MibRoot[mod1:MibModule{name=IF-MIB},obj1:MibObject{name=ifInOctets}]"},
        SelectCase{"class_of_start", {"root"}, "Node!", 2, ""},
        SelectCase{"colon_children_optional", {"root"}, ".! > (Domain { name = \"Asia\"} : Node)", 0,
                   "root:Domain{name=Root}[asia:Domain{name=Asia},"
                   "n1:Node{name=gateway,load=7,siblingName=gateway}]"},
        SelectCase{"colon_children_not_enough", {"root"}, ".! > (Domain { name = \"Mars\"} : Node)", 2,
                   ""},
        SelectCase{"nested_steps", {"root"}, ". > Domain > Domain > Node", 0,
                   "root:Domain[europe:Domain{name=Europe}[berlin:Domain{name=Berlin}["
                   "n2:Node{name=berlin-web,load=12}]]]"},
        SelectCase{"number_limits_matches", {"root"}, ". > Domain=1", 0,
                   "root:Domain[europe:Domain{name=Europe}]"},
        SelectCase{"property_list", {"root"}, ".![name] > Node[load]", 0,
                   "root:Domain{name=Root}[n1:Node{load=7}]"},
        SelectCase{"unsigned_less", {"root"}, ". > Node { load < 10 }", 0,
                   "root:Domain[n1:Node{name=gateway,load=7,siblingName=gateway}]"},
        SelectCase{"unsigned_greater", {"root"}, ". > Node { load > 10 }", 2, ""},
        SelectCase{"unsigned_equal", {"root"}, ". > Node { load = 7 and name = \"gateway\" }", 0,
                   "root:Domain[n1:Node{name=gateway,load=7,siblingName=gateway}]"},
        SelectCase{"unsigned_not_equal", {"root"}, ". > Node { load <> 7 }", 2, ""},
        SelectCase{"at_least", {"root"}, ". > Node { load >= 7 }", 0,
                   "root:Domain[n1:Node{name=gateway,load=7,siblingName=gateway}]"},
        SelectCase{"at_most", {"root"}, ". > Node { load <= 6 }", 2, ""},
        SelectCase{"signed_constant", {"root"}, ". > Node { load > -3 }", 0,
                   "root:Domain[n1:Node{name=gateway,load=7,siblingName=gateway}]"},
        SelectCase{"substring", {"root"}, ". > Node { name isubstr \"GATE\" }", 0,
                   "root:Domain[n1:Node{name=gateway,load=7,siblingName=gateway}]"},
        SelectCase{"not_like", {"root"}, ". > Domain { name !~ \"Europe\" }", 0,
                   "root:Domain[asia:Domain{name=Asia}]"},
        SelectCase{"id_in_set", {"root"}, ". > Domain { id in {\"asia\", \"paris\"} }", 0,
                   "root:Domain[asia:Domain{name=Asia}]"},
        SelectCase{"missing_property_is_false", {"root"}, ". > Domain { colour = \"red\" }", 2, ""},
        SelectCase{"incomparable", {"root"}, ". > Node { name > 5 }", 11, ""},
        SelectCase{"list_operator_on_text", {"root"}, ". > Node { name subsetof {\"a\"} }", 11, ""},
        SelectCase{"two_starts", {"asia", "paris"}, ".!", 0, "asia:Domain{name=Asia} paris:Domain{name=Paris}"},
        SelectCase{"unknown_start", {"root", "nowhere"}, ".!", 1, ""},
        SelectCase{"no_start", {}, ".!", 2, ""},
        SelectCase{"star_not_implemented", {"root"}, ".* > .", 12, ""},
        SelectCase{"dollar_not_implemented", {"root"}, ". > Node$", 12, ""},
        SelectCase{"hash_not_implemented", {"root"}, ".#", 12, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ServerSelect, PatternDeeperThanTheLimitIsNotImplemented) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  std::string pattern = ".";
  for (size_t i = 0; i < server::kMaxPatternDepth; ++i) pattern += " > .";
  c.sendSelect(1, {"root"}, pattern);
  auto response = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(response);
  auto* error = dynamic_cast<protocol::ErrorResp*>(response->resp.get());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, 12);
}

TEST(ServerSelect, OverlongStoredIdIsABackendError) {
  auto db = server_test::sample_database();
  db->add("Node", std::string(40, 'x'), "asia");
  TestServer s(db);
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendSelect(1, {"asia"}, ".! > .");
  auto response = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(response);
  auto* error = dynamic_cast<protocol::ErrorResp*>(response->resp.get());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, 14);
  // The connection goes on serving.
  c.sendSelect(2, {"asia"}, ".!");
  auto next = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(next);
  EXPECT_TRUE(dynamic_cast<protocol::SelectResp*>(next->resp.get()));
}

// ---------------------------------------------------------------------------
// History.

struct DataCase {
  const char* name;
  const char* object;
  const char* index;
  int32_t error;  // 0: a GetDataResp
  int32_t dataType;
  size_t rows;
  bool (*isRecord)(const protocol::BerConstructed*);
};

class ServerGetDataTest : public testing::TestWithParam<DataCase> {};

std::unique_ptr<protocol::GetDataReq> get_data(const std::string& object, const std::string& index) {
  auto req = std::make_unique<protocol::GetDataReq>();
  req->objectId = object;
  req->indexName = index;
  req->flag = true;
  req->p2 = 0x7FFFFFFF;
  req->p3 = 1;
  return req;
}

TEST_P(ServerGetDataTest, AnswersFromStoredHistory) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendRequest(9, get_data(GetParam().object, GetParam().index));
  auto response = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->id, 9);
  if (GetParam().error != 0) {
    auto* error = dynamic_cast<protocol::ErrorResp*>(response->resp.get());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, GetParam().error);
    return;
  }
  auto* data = dynamic_cast<protocol::GetDataResp*>(response->resp.get());
  ASSERT_TRUE(data);
  EXPECT_EQ(data->dataType, GetParam().dataType);
  ASSERT_EQ(data->intervals.size(), GetParam().rows);
  for (const auto& row : data->intervals) EXPECT_TRUE(GetParam().isRecord(row->data.get()));
}

INSTANTIATE_TEST_SUITE_P(
    Series, ServerGetDataTest,
    testing::Values(
        DataCase{"continuous", "n1", "cpu", 0, 5, 2, is<protocol::DataIntervalContinuous>},
        DataCase{"enum", "n1", "state", 0, 3, 1, is<protocol::DataIntervalEnum>},
        DataCase{"incidents", "n1", "events", 0, 4, 1, is<protocol::DataIntervalIncident>},
        DataCase{"sawtooth", "n2", "saw", 0, 2, 1, is<protocol::DataIntervalSawtooth>},
        DataCase{"accumulation", "n2", "acc", 0, 6, 1, is<protocol::DataIntervalSawtooth>},
        DataCase{"no_rows", "n2", "empty", 0, 5, 0, nullptr},
        DataCase{"unknown_object", "nowhere", "cpu", 1, 0, 0, nullptr},
        DataCase{"unknown_series", "n1", "memory", 1, 0, 0, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ServerGetData, RowFieldsTravelUnchanged) {
  TestServer s(server_test::sample_database());
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendRequest(1, get_data("n1", "cpu"));
  c.sendRequest(2, get_data("n1", "events"));
  auto cpu = c.receiveAs<protocol::Response>();
  auto events = c.receiveAs<protocol::Response>();
  ASSERT_TRUE(cpu && events);
  auto& rows = dynamic_cast<protocol::GetDataResp&>(*cpu->resp).intervals;
  auto& second = dynamic_cast<protocol::DataIntervalContinuous&>(*rows.at(1)->data);
  EXPECT_EQ(second.start, 200);
  EXPECT_EQ(second.end, 300);
  EXPECT_EQ(second.max, 12.0);
  EXPECT_EQ(second.avg, 7.5);
  EXPECT_EQ(second.min, 3.0);
  EXPECT_EQ(second.ngood, 5u);
  EXPECT_EQ(second.nbad, 1u);
  auto& incident = dynamic_cast<protocol::DataIntervalIncident&>(
      *dynamic_cast<protocol::GetDataResp&>(*events->resp).intervals.at(0)->data);
  EXPECT_EQ(incident.time, 50);
  EXPECT_EQ(incident.severity, 2);
  EXPECT_EQ(incident.message, "link <down>");
}

// ---------------------------------------------------------------------------
// Other requests and pipelining.

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
  for (int32_t id = 0; id < 100; ++id) {
    burst += c.selectBytes(id, starts[id % starts.size()], ".!");
  }
  c.sendBytes(burst);
  for (int32_t id = 0; id < 100; ++id) {
    auto response = c.receiveAs<protocol::Response>();
    ASSERT_TRUE(response) << "answer " << id;
    EXPECT_EQ(response->id, id);
    const bool unknown = starts[id % starts.size()] == "nowhere";
    EXPECT_EQ(dynamic_cast<protocol::ErrorResp*>(response->resp.get()) != nullptr, unknown);
  }
}

// ---------------------------------------------------------------------------
// The client library's queries.

TEST(ServerWithClient, SelectsAndHistoryThroughTheClientLibrary) {
  TestServer s(server_test::sample_database());
  auto session = openSession(ConnectionFactory(), "127.0.0.1", s.port(), "Exporter", "admin",
                             "secret", "lab");
  auto children = std::make_shared<tqlquery::Select>("root", ".! > .", 0);
  auto path = std::make_shared<tqlquery::Select>(
      "root", ". > Domain { name ~= \"Europe\"} > Domain { name ~= \"Berlin\"}", 0);
  auto leaf = std::make_shared<tqlquery::Select>("n1", ".! > .", 0);
  auto history = std::make_shared<dataquery::GetData>("n1", "cpu", 0, 0x7FFFFFFF, 1, 0, true);
  // All four outstanding at once; awaited in reverse order.
  comquery::send(*session, children);
  comquery::send(*session, path);
  comquery::send(*session, leaf);
  comquery::send(*session, history);
  EXPECT_EQ(comquery::await(*session, *history), 0u);
  EXPECT_EQ(comquery::await(*session, *leaf), 2u);
  EXPECT_EQ(comquery::await(*session, *path), 0u);
  EXPECT_EQ(comquery::await(*session, *children), 0u);

  const tqlquery::ResultObject& root = children->find_result("root");
  EXPECT_EQ(root.get_string("name"), "Root");
  ASSERT_EQ(root.children().size(), 3u);
  EXPECT_EQ(root.children()[2]->id(), "n1");
  EXPECT_EQ(root.children()[2]->get_string("siblingName"), "gateway");

  const tqlquery::ResultObject* top = path->find_result_opt("root");
  ASSERT_TRUE(top);
  ASSERT_EQ(top->children().size(), 1u);
  ASSERT_EQ(top->children()[0]->children().size(), 1u);
  EXPECT_EQ(top->children()[0]->children()[0]->id(), "berlin");

  EXPECT_EQ(leaf->find_result_opt("n1"), nullptr);
  EXPECT_EQ(history->dataType, 5u);
  EXPECT_EQ(history->intervals.size(), 2u);
}

}  // namespace
