// The stand-in server against literal protocol messages: the handshake, and
// the answers to pipelined requests, with the select
// forms and error codes the exporter's own patterns do not reach.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "protocol/gui_protocol.h"
#include "server/answer_encoder.h"
#include "server/handshake.h"
#include "server/request_handler.h"
#include "server/request_decoder.h"
#include "server/select_eval.h"
#include "support/error_text.h"
#include "support/message_io.h"
#include "support/run_export.h"
#include "support/server_harness.h"

namespace {

using support::RawClient;
using support::select_req;
using support::TestServer;

// ---------------------------------------------------------------------------
// Handshake.

// Each login gets the roots and a session id of its own; a first message
// other than ClientWants closes without an answer. (A wrong password is
// refused end to end.)
TEST(ServerHandshake, LoginsAndRefusals) {
  TestServer s(support::sample_database());
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
  TestServer s(support::sample_database());
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
class OverlongChild : public support::ForwardingDatabase {
  const std::string long_ = std::string(server::kMaxIdLength + 1, 'x');

 public:
  OverlongChild() : ForwardingDatabase(support::sample_database()) {}
  std::shared_ptr<const server::StoredObject> find(const std::string& id) const override {
    if (id == long_) return std::make_shared<server::StoredObject>(server::StoredObject{"Node", long_, 0, "asia", {}, {}});
    auto o = inner_->find(id);
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

// ---------------------------------------------------------------------------
// The server's own decoding and encoding, against the protocol classes.

using support::Bytes;
using support::to_hex;
using Outcome = server::RequestDecoder::Outcome;

std::unique_ptr<protocol::Request> request(int32_t id, std::unique_ptr<protocol::BerConstructed> body) {
  auto r = std::make_unique<protocol::Request>();
  r->id = id;
  r->req = std::move(body);
  return r;
}

// Every select of kSelects, history requests and an erase: the forms the
// fast decoder takes and those it leaves to the protocol's reader.
std::vector<std::unique_ptr<protocol::Request>> sample_requests() {
  std::vector<std::unique_ptr<protocol::Request>> out;
  int32_t id = 0;
  for (const auto& k : kSelects) out.push_back(request(id += 977, select_req(k.starts, k.pattern)));
  out.push_back(request(0x7fffffff, get_data("c2", "cpu")));
  auto extremes = get_data(std::string(32, 'o'), std::string(16, 'i'));
  extremes->p1 = -1;
  extremes->p2 = std::numeric_limits<int32_t>::min();
  extremes->p3 = 2000;
  extremes->p4 = 128;
  extremes->flag = false;
  out.push_back(request(0, std::move(extremes)));
  auto numbered = select_req({"root"}, ". > Node=3 [load, name]");
  numbered->flags = 0xffffffffu;
  out.push_back(request(128, std::move(numbered)));
  out.push_back(request(5, std::make_unique<protocol::EraseReq>()));
  return out;
}

bool has_conditions(const protocol::PathPattern& p) {
  if (!p.conditions.empty()) return true;
  for (const auto* list : {&p.children, &p.colonChildren}) {
    for (const auto& c : *list) {
      if (has_conditions(*c)) return true;
    }
  }
  return false;
}

// What the fast decoder makes of `bytes` must be what the protocol's reader
// makes of the same octets.
void expect_agreement(const server::RequestDecoder& decoder, const Bytes& bytes, const std::string& what) {
  server::RequestDecoder::Result r = decoder.decode(bytes.data(), bytes.size());
  if (r.outcome != Outcome::kComplete) return;
  const Bytes message(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(r.length));
  support::MessageList read;
  try {
    read = support::decode_messages(message, false, protocol::guiProtocol());
  } catch (const protocol::EBer& e) {
    ADD_FAILURE() << what << ": decoded here, refused by the reader: " << e.text();
    return;
  }
  ASSERT_EQ(read.size(), 1u) << what;
  EXPECT_TRUE(*read.front() == *r.request) << what;
}

TEST(ServerCodec, FastDecoderAgreesWithTheProtocolReader) {
  const server::RequestDecoder decoder(false);
  for (const auto& original : sample_requests()) {
    const Bytes bytes = support::encode_message(*original, false);
    const std::string what = to_hex(bytes);
    server::RequestDecoder::Result r = decoder.decode(bytes.data(), bytes.size());
    auto* select = dynamic_cast<const protocol::SelectReq*>(original->req.get());
    if (select ? has_conditions(*select->pattern) : !dynamic_cast<const protocol::GetDataReq*>(original->req.get())) {
      EXPECT_EQ(r.outcome, Outcome::kDeclined) << what;
      continue;
    }
    ASSERT_EQ(r.outcome, Outcome::kComplete) << what;
    EXPECT_EQ(r.length, bytes.size()) << what;
    EXPECT_TRUE(*r.request == *original) << what;
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
      EXPECT_EQ(decoder.decode(bytes.data(), cut).outcome, Outcome::kIncomplete) << what << " cut at " << cut;
    }
    // Every octet changed: declined, or decoded as the reader decodes it.
    for (size_t i = 0; i < bytes.size(); ++i) {
      for (uint8_t flip : {0x01, 0x20, 0x80, 0xff}) {
        Bytes changed = bytes;
        changed[i] ^= flip;
        expect_agreement(decoder, changed, what + " octet " + std::to_string(i));
      }
    }
  }
}

TEST(ServerCodec, WholeValuesAfterTheHandshake) {
  const Bytes select = support::encode_message(*request(1, select_req({"a"}, ".!")), false);
  const std::string one(select.begin(), select.end());
  EXPECT_TRUE(server::is_whole_values(one + std::string("\0\x19", 2) + one, 2));
  EXPECT_FALSE(server::is_whole_values(one + one, 1));
  EXPECT_FALSE(server::is_whole_values(one + one.substr(0, 5), 2));
  EXPECT_FALSE(server::is_whole_values(one.substr(0, 4) + "\x19" + one.substr(4), 1));  // filler inside
  EXPECT_FALSE(server::is_whole_values(std::string("\x30\x03\x02\x01\x01", 5), 1));  // definite constructed
}

// Values of every kind, and reals that take every branch of the encoding.
server::StoredObject every_kind() {
  server::StoredObject o{"Node", "n1", 5, "root", {}, {}};
  const std::vector<server::Value> values = {
      std::string("text"), std::vector<std::string>{"a", std::string(200, 'b')},
      std::numeric_limits<int32_t>::min(), int32_t{-1}, int32_t{0}, int32_t{128},
      uint32_t{0xffffffffu}, uint32_t{0x80}, true, false, server::NullValue{},
      server::BlobValue{std::string(300, '\0')}, std::vector<uint32_t>{0, 0x7f, 0x80, 0xffffffffu},
      std::numeric_limits<int64_t>::min(), uint64_t{0xffffffffffffffffu},
      server::BigNumValue{std::string("\x01\x00\x00\x00\x00\x00\x00\x00\x00", 9)},
      server::LobValue{"lob"}};
  for (const auto& v : values) o.properties.push_back({"p" + std::to_string(o.properties.size()), 7, v});
  const double reals[] = {0.0, -0.0, 1.0, -1.0, 0.1, 127.5, 0.125, 1234567.0, 12345678.0, 9999999.5,
                          1e-5, 2.5e-310, 1e300, -123.456e-7, std::numeric_limits<double>::max(),
                          std::numeric_limits<double>::denorm_min(), std::nan(""),
                          std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                          0.5 / 3, 1.0 / 3, 2.0 / 3, 999999.95, 9.9999995, 1e7 - 0.5};
  for (double r : reals) o.properties.push_back({"r" + std::to_string(o.properties.size()), 4, r});
  return o;
}

// The head the protocol classes write for `object`: without children,
// numbers and end.
std::string generic_head(const server::StoredObject& object) {
  protocol::Object message;
  message.className = object.className;
  message.flags = object.flags;
  message.id = object.id;
  for (const auto& p : object.properties) message.properties.push_back(server::to_property(p));
  const Bytes bytes = support::encode_message(message, false);
  return std::string(bytes.begin(), bytes.end() - 10);
}

std::string fast_head(const server::StoredObject& object) {
  std::string head;
  server::append_object_head(head, object, server::PropertyChoice{}, false);
  return head;
}

TEST(ServerCodec, AnswersAreWrittenAsTheProtocolClassesWriteThem) {
  EXPECT_EQ(to_hex(fast_head(every_kind())), to_hex(generic_head(every_kind())));

  server::History history;
  history.dataType = 5;
  history.intervals = {server::ContinuousRow{1, -2, 0.5, 1e-9, -7.25, 3, 0xffffffffu},
                       server::SawtoothRow{0, 0, std::nan(""), 0, -0.0, 0, 0},
                       server::EnumRow{-1, 1, 0x80000000u, 1, 2},
                       server::IncidentRow{7, -3, "incident"},
                       server::IncidentRow{7, 0, ""},
                       server::ContinuousDeprecatedRow{1, 2, 3.5, 4.5, {1.5, 0.0, -2e10}},
                       server::RawDeprecatedRow{{server::ContinuousRow{1, 2, 3, 4, 5, 6, 7}}}};
  protocol::Response response;
  response.id = 0x12345;
  auto body = std::make_unique<protocol::GetDataResp>();
  body->dataType = history.dataType;
  for (const auto& row : history.intervals) body->intervals.push_back(server::to_interval(row));
  response.resp = std::move(body);
  std::string answer;
  server::append_get_data_response(answer, response.id, history, false);
  EXPECT_EQ(to_hex(answer), to_hex(support::encode_message(response, false)));

  protocol::Response refusal;
  refusal.id = 0x7fffffff;
  auto error = std::make_unique<protocol::ErrorResp>();
  error->code = -2;
  error->texts = {std::string(1024, 't')};
  refusal.resp = std::move(error);
  EXPECT_EQ(to_hex(server::error_response(refusal.id, -2, std::string(1100, 't'), false)),
            to_hex(support::encode_message(refusal, false)));

  // A field beyond its wire limit fails as the protocol classes fail.
  const server::StoredObject overlong{std::string(129, 'C'), "n1", 0, "", {}, {}};
  const std::string failure = support::errorText<protocol::EBer>([&] { fast_head(overlong); });
  EXPECT_NE(failure, "(no error)");
  EXPECT_EQ(failure, support::errorText<protocol::EBer>([&] { generic_head(overlong); }));
}

}  // namespace
