// The request pipeline: ids, matching answers to outstanding requests in any
// order, forgetting, and the failures on the way.
#include "client/request.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "client/session.h"
#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using Bytes = support::Octets;
using support::hex;
using support::loginThen;
using support::ScriptedPeer;

// A request whose body is a ForgetReq carrying `tag`; it accepts ForgetResp
// and ErrorResp and counts its done() calls.
class Probe : public client::Request {
 public:
  explicit Probe(int32_t tag) : tag_(tag) {}

  std::unique_ptr<protocol::BerConstructed> makeBody() override {
    auto body = std::make_unique<protocol::ForgetReq>();
    body->id = tag_;
    return body;
  }
  void decode(protocol::BerConstructed* body) override {
    if (dynamic_cast<protocol::ForgetResp*>(body) != nullptr) {
      error = 0;
    } else if (auto* refusal = dynamic_cast<protocol::ErrorResp*>(body)) {
      error = static_cast<uint32_t>(refusal->code);
    } else {
      throw util::EBerError("probe got something else");
    }
  }
  void done(client::Session& session) override {
    ++doneCalls;
    client::forget(session, *this);
  }

  int doneCalls = 0;

 private:
  int32_t tag_;
};

// What the client sends for a Probe with `tag` under request id `id`.
Bytes probeRequest(int32_t id, int32_t tag) {
  return support::berIndefinite("74", support::berInt(id) + support::berIndefinite("A5", support::berInt(tag)));
}
Bytes forgetAnswer(int32_t id) { return support::response(id, hex("A5 80 00 00")); }

using Probes = std::vector<std::shared_ptr<Probe>>;

// Sends the probes with `tags` (in order) to a server expecting `requests`
// and answering `answers`, then hands the session and probes to `check`.
template <class Check>
void probesWith(std::vector<int32_t> tags, const Bytes& requests, const Bytes& answers, Check check) {
  ScriptedPeer server(loginThen(requests, answers));
  auto session = support::openTestSession(server.port());
  Probes probes;
  for (int32_t tag : tags) {
    probes.push_back(std::make_shared<Probe>(tag));
    client::send(*session, probes.back());
    EXPECT_EQ(probes.back()->state, client::Request::kSent);
  }
  check(*session, probes);
}

TEST(RequestPipelineTest, IdsCountFromZeroInSendOrderAndEnvelopeIsLiteral) {
  probesWith(
      {10, 11, 12},
      hex("74 80 02 01 00 A5 80 02 01 0A 00 00 00 00 74 80 02 01 01 A5 80 02 01 0B 00 00 00 00"
          "74 80 02 01 02 A5 80 02 01 0C 00 00 00 00"),
      hex("75 80 02 01 00 A5 80 00 00 00 00 75 80 02 01 01 A5 80 00 00 00 00"
          "75 80 02 01 02 A5 80 00 00 00 00"),
      [](client::Session& session, Probes& probes) {
        EXPECT_EQ(session.requestsById.size(), 3u);
        for (auto& probe : probes) {
          EXPECT_EQ(client::await(session, *probe), 0u);
          EXPECT_EQ(probe->state, client::Request::kAnswered);
          EXPECT_EQ(probe->doneCalls, 1);
          EXPECT_EQ(probe.use_count(), 1);  // the session let go of it
        }
        EXPECT_TRUE(session.requestsById.empty());
        EXPECT_TRUE(session.idsByRequest.empty());
      });
}

// Answers out of send order reach their own requests: awaiting the first
// dispatches the second's answer on the way, and awaiting that one then
// returns at once (a second read would wait for the peer's timeout). A server
// error is an answer, not an exception; an answer for an unknown id is
// dropped.
TEST(RequestPipelineTest, AnswersOutOfOrderReachTheirRequests) {
  probesWith({5, 6}, probeRequest(0, 5) + probeRequest(1, 6),
             forgetAnswer(99) +
                 hex("75 80 02 01 01 A8 80 02 01 0F 30 80 04 02 6E 6F 00 00 00 00 00 00") +
                 forgetAnswer(0),
             [](client::Session& session, Probes& p) {
               EXPECT_EQ(client::await(session, *p[0]), 0u);
               EXPECT_EQ(p[1]->state, client::Request::kAnswered);
               EXPECT_EQ(p[1]->doneCalls, 1);
               EXPECT_EQ(client::await(session, *p[1]), 15u);
               EXPECT_EQ(p[0]->doneCalls, 1);
             });
}

// A message other than a Response fails the await and leaves the request
// sent; an answer that its request cannot decode (here an EraseResp) fails
// the await and leaves the request answered but outstanding until forgotten.
TEST(RequestPipelineTest, FailuresOnTheWay) {
  probesWith({1}, probeRequest(0, 1), hex("62 80 00 00") + support::response(0, hex("A1 80 00 00")),
             [](client::Session& session, Probes& p) {
               EXPECT_EQ(support::errorText<util::EBerError>([&] { client::await(session, *p[0]); }),
                         "Wrong type. Expected Response");
               EXPECT_EQ(p[0]->state, client::Request::kSent);
               EXPECT_THROW(client::await(session, *p[0]), util::EBerError);
               EXPECT_EQ(p[0]->state, client::Request::kAnswered);
               EXPECT_EQ(p[0]->doneCalls, 0);
               EXPECT_EQ(session.idsByRequest.count(p[0].get()), 1u);
               client::forget(session, *p[0]);
               EXPECT_EQ(p[0].use_count(), 1);
             });
}

// A stream that refuses everything, for a session that never talks (a death
// test forks, so no peer thread may run).
class DeadStream : public net::BasicIo {
 public:
  void write(const void*, size_t) override { throw util::ESystemError("dead"); }
  void flush() override {}
  uint64_t read(void*, uint64_t) override { throw util::ESystemError("dead"); }
  bool readable() override { return false; }
};

// Either table missing the request is a broken invariant; the texts differ
// by the final full stop.
TEST(RequestPipelineDeathTest, ForgettingAnUnknownRequestAborts) {
  for (bool inIdsByRequest : {false, true}) {
    EXPECT_DEATH(
        {
          client::Session session(client::LoggedIn{
              std::make_unique<protocol::BerReader>(protocol::guiProtocol(), std::make_unique<DeadStream>()),
              util::BigNum(1), "root", "mib"});
          Probe probe(1);
          if (inIdsByRequest) session.idsByRequest.emplace(&probe, 4);
          client::forget(session, probe);
        },
        inIdsByRequest ? "^Assertion failed: forget called with unknown request\\.\n$"
                       : "^Assertion failed: forget called with unknown request\n$");
  }
}

}  // namespace
