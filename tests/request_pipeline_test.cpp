// The request pipeline with select queries against a scripted server: ids,
// matching answers to outstanding requests in any order, forgetting, the
// result set a select builds, and the failures on the way.
#include "client/request.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "client/select.h"
#include "client/session.h"
#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"
#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using client::Select;
using Bytes = support::Octets;
using support::errorText;
using support::hex;

// Select("X", ".", `flags`) as request `id`.
Bytes selectRequest(char id, char flags) {
  return hex("74 80 02 01") + Bytes(1, id) +
         hex("A0 80 31 80 04 01 58 00 00 30 80 04 01 2E 02 01 00 05 00 30 80 00 00 30 80 00 00 "
             "30 80 00 00 31 80 00 00 00 00 02 01") + Bytes(1, flags) + hex("00 00 00 00");
}

// Three selects get the ids 0 to 2 in send order; flags only travel to the
// server. Awaiting the first dispatches on the way an answer for an unknown
// id (dropped) and the second's "pattern matched nothing" (a server error is
// an answer, not an exception); awaiting the second then returns at once.
// In the first's result set "zeta" is sent before "alpha" and "alpha" twice,
// and a repeated object id keeps the later object. For the third, a message
// other than a Response fails the await and leaves it sent; an answer of
// another type fails the await and leaves it answered but outstanding until
// forgotten.
TEST(RequestPipelineTest, AnswersInAnyOrderResultSetsAndFailures) {
  using namespace support;  // NOLINT(build/namespaces)
  const Bytes resultSet = selectResp(
      object("Node", 0, "X", stringProperty("v", "earlier")) +
      object("Domain", 5, "X", stringProperty("zeta", "last") + stringProperty("alpha", "first") +
                 stringProperty("alpha", "second") + nullProperty("gone", 6),
             object("Node", 1, "C1", Bytes()) + object("User", 0, "C2", Bytes())));
  ScriptedPeer server(loginThen(
      selectRequest(0, 0) + selectRequest(1, 1) + selectRequest(2, 0),
      response(99, hex("A5 80 00 00")) + response(1, hex("A8 80 02 01 02 30 80 04 07 6E 6F 74 68 69 6E 67 00 00 00 00")) +
          response(0, resultSet) + hex("62 80 00 00") + response(2, hex("A5 80 00 00"))));
  auto session = support::openTestSession(server.port());
  std::vector<std::shared_ptr<Select>> s;
  for (uint32_t flags : {0, 1, 0}) {
    s.push_back(std::make_shared<Select>("X", ".", flags));
    client::send(*session, s.back());
    EXPECT_EQ(s.back()->state, client::Request::kSent);
  }
  EXPECT_EQ(client::await(*session, *s[0]), 0u);
  EXPECT_EQ(s[1]->state, client::Request::kAnswered);
  EXPECT_EQ(session->idsByRequest.size(), 1u);  // done() forgot both
  EXPECT_EQ(client::await(*session, *s[1]), 2u);

  const client::ResultObject& object = s[0]->find_result("X");
  EXPECT_EQ(object.className(), "Domain");
  EXPECT_EQ(object.flags(), 5u);
  std::vector<std::string> names;
  for (const auto& entry : object.properties()) names.emplace_back(entry.first);
  EXPECT_EQ(names, (std::vector<std::string>{"alpha", "gone", "zeta"}));
  EXPECT_EQ(object.get_string("alpha"), "first");
  EXPECT_EQ(object.get_string("zeta"), "last");
  EXPECT_TRUE(object.is_null("gone"));
  EXPECT_EQ(errorText<util::EObjectError>([&] { object.get_string("name"); }),
            "Property \"name\" not found in X");
  ASSERT_EQ(object.children().size(), 2u);
  EXPECT_EQ(object.children()[0]->id() + object.children()[1]->id(), "C1C2");
  EXPECT_EQ(s[0]->find_result_opt("C1"), nullptr);  // children only through their parents
  EXPECT_EQ(s[1]->find_result_opt("X"), nullptr);
  EXPECT_EQ(errorText<util::ESelectError>([&] { s[1]->find_result("X"); }),
            "Id (X) not found in result set for query \".\"");

  EXPECT_EQ(errorText<util::EBerError>([&] { client::await(*session, *s[2]); }),
            "Wrong type. Expected Response");
  EXPECT_EQ(s[2]->state, client::Request::kSent);
  EXPECT_EQ(errorText<util::EBerError>([&] { client::await(*session, *s[2]); }),
            "Wrong type in Select::decode.");
  EXPECT_EQ(s[2]->state, client::Request::kAnswered);
  EXPECT_EQ(session->idsByRequest.count(s[2].get()), 1u);
  client::forget(*session, *s[2]);
  EXPECT_TRUE(session->requestsById.empty());  // the session let go of all three
  EXPECT_TRUE(session->idsByRequest.empty());
}

TEST(SelectTest, TextsBeforeTheAnswer) {
  Select select("0a1b", ".! > .", 0);
  EXPECT_EQ(select.name(), "[\"0a1b\"] .! > .");
  EXPECT_EQ(errorText<util::ESelectError>([&] { select.find_result("X"); }),
            "find_result() invoked before await() for query \".! > .\"");
  EXPECT_EQ(errorText<util::ESelectError>([&] { select.find_result_opt("X"); }),
            "find_result_opt() invoked before await() for query \".! > .\"");
}

// A stream that refuses everything, for a session that never talks (a death
// test forks, so no peer thread may run).
struct DeadStream : net::BasicIo {
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
          Select probe("X", ".", 0);
          if (inIdsByRequest) session.idsByRequest.emplace(&probe, 4);
          client::forget(session, probe);
        },
        inIdsByRequest ? "^Assertion failed: forget called with unknown request\\.\n$"
                       : "^Assertion failed: forget called with unknown request\n$");
  }
}

}  // namespace
