// The select query against a scripted server: the request it sends, the
// result set it builds from the answer, and its lookup failures.
#include "client/select.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "client/session.h"
#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using peer::Bytes;
using peer::errorText;
using peer::hex;

// Select("X", ".", 0) as request id 0.
const Bytes kSelectRequest = hex(
    "74 80 02 01 00 A0 80 31 80 04 01 58 00 00 "
    "30 80 04 01 2E 02 01 00 05 00 30 80 00 00 30 80 00 00 30 80 00 00 "
    "31 80 00 00 00 00 02 01 00 00 00 00 00");

// Runs Select("X", ".", 0) against a server answering with `answer` and
// hands the awaited select to `check`.
template <class Check>
void selectWithAnswer(const Bytes& answer, Check check) {
  peer::ScriptedPeer server(peer::answerOne(kSelectRequest, answer));
  auto session = peer::openTestSession(server.port());
  auto select = std::make_shared<tqlquery::Select>("X", ".", 0);
  comquery::send(*session, select);
  comquery::await(*session, *select);
  check(*session, *select);
}

TEST(SelectTest, BuildsTheResultSetFromTheAnswer) {
  // "zeta" is sent before "alpha"; the child carries a property of its own.
  const Bytes answer = peer::selectResp(peer::object(
      "Domain", 5, "X",
      peer::stringProperty("zeta", "last") + peer::stringProperty("alpha", "first") +
          peer::nullProperty("gone", 6),
      peer::object("Node", 1, "C1", peer::stringProperty("siblingName", "n1")) +
          peer::object("User", 0, "C2", Bytes())));
  selectWithAnswer(answer, [](Session& session, tqlquery::Select& select) {
    EXPECT_EQ(select.error, 0u);
    EXPECT_TRUE(session.idsByRequest.empty());  // forgotten by done()
    const tqlquery::ResultObject& object = select.find_result("X");
    EXPECT_EQ(object.className(), "Domain");
    EXPECT_EQ(object.flags(), 5u);
    std::vector<std::string> names;
    for (const auto& entry : object.properties()) names.push_back(entry.first);
    EXPECT_EQ(names, (std::vector<std::string>{"alpha", "gone", "zeta"}));
    EXPECT_EQ(object.get_string("zeta"), "last");
    EXPECT_TRUE(object.is_null("gone"));
    EXPECT_FALSE(object.is_null("alpha"));
    EXPECT_THROW(object.get_string("gone"), errors::tql);
    EXPECT_EQ(errorText<errors::objecterror>([&] { object.get_string("name"); }),
              "Property \"name\" not found in X");
    EXPECT_EQ(errorText<errors::objecterror>([&] { object.is_null("name"); }),
              "Property \"name\" not found in X");

    ASSERT_EQ(object.children().size(), 2u);
    EXPECT_EQ(object.children()[0]->className(), "Node");
    EXPECT_EQ(object.children()[0]->flags(), 1u);
    EXPECT_EQ(object.children()[0]->get_string("siblingName"), "n1");
    EXPECT_EQ(object.children()[1]->id(), "C2");
    // Children are reached through their parents only.
    EXPECT_EQ(select.find_result_opt("C1"), nullptr);
  });
}

// A repeated object id keeps the later object; a repeated property name
// within one object keeps the first.
TEST(SelectTest, RepeatsKeepTheLaterObjectAndTheFirstProperty) {
  const Bytes answer = peer::selectResp(
      peer::object("Node", 0, "X", peer::stringProperty("v", "earlier")) +
      peer::object("Node", 0, "Y", peer::stringProperty("v", "other")) +
      peer::object("Node", 0, "X",
                   peer::stringProperty("v", "later") + peer::stringProperty("v", "second")));
  selectWithAnswer(answer, [](Session&, tqlquery::Select& select) {
    EXPECT_EQ(select.find_result("X").properties().size(), 1u);
    EXPECT_EQ(select.find_result("X").get_string("v"), "later");
    EXPECT_EQ(select.find_result("Y").get_string("v"), "other");
  });
}

TEST(SelectTest, PatternMatchedNothingLeavesAnEmptyResultSet) {
  const Bytes answer = hex("A8 80 02 01 02 30 80 04 07 6E 6F 74 68 69 6E 67 00 00 00 00");
  selectWithAnswer(answer, [](Session& session, tqlquery::Select& select) {
    EXPECT_EQ(select.state, comquery::Request::kAnswered);
    EXPECT_EQ(select.error, 2u);
    EXPECT_TRUE(session.idsByRequest.empty());
    EXPECT_EQ(select.find_result_opt("X"), nullptr);
    EXPECT_EQ(errorText<errors::selecterror>([&] { select.find_result("X"); }),
              "Id (X) not found in result set for query \".\"");
  });
}

TEST(SelectTest, AnswerOfAnotherTypeIsRejected) {
  peer::ScriptedPeer server(peer::answerOne(kSelectRequest, hex("A5 80 00 00")));  // ForgetResp
  auto session = peer::openTestSession(server.port());
  auto select = std::make_shared<tqlquery::Select>("X", ".", 0);
  comquery::send(*session, select);
  EXPECT_EQ(errorText<errors::bererror>([&] { comquery::await(*session, *select); }),
            "Wrong type in Select::decode.");
  EXPECT_EQ(select->state, comquery::Request::kAnswered);
  EXPECT_EQ(session->idsByRequest.count(select.get()), 1u);
}

TEST(SelectTest, KeepOutstandingFlagSkipsTheForget) {
  Bytes request = kSelectRequest;
  request[request.size() - 5] = 1;  // the flags INTEGER
  peer::ScriptedPeer server(
      peer::answerOne(request, peer::selectResp(peer::object("Node", 0, "X", Bytes()))));
  auto session = peer::openTestSession(server.port());
  auto select = std::make_shared<tqlquery::Select>("X", ".", 1);
  comquery::send(*session, select);
  EXPECT_EQ(comquery::processResponse(*session), select);
  EXPECT_EQ(session->idsByRequest.count(select.get()), 1u);
  EXPECT_NE(select->find_result_opt("X"), nullptr);
  comquery::forget(*session, *select);
  EXPECT_EQ(select.use_count(), 1);
}

TEST(SelectTest, TextsBeforeTheAnswer) {
  tqlquery::Select select("0a1b", ".! > .", 0);
  EXPECT_EQ(select.name(), "[\"0a1b\"] .! > .");
  EXPECT_EQ(errorText<errors::selecterror>([&] { select.find_result("X"); }),
            "find_result() invoked before await() for query \".! > .\"");
  EXPECT_EQ(errorText<errors::selecterror>([&] { select.find_result_opt("X"); }),
            "find_result_opt() invoked before await() for query \".! > .\"");
  EXPECT_EQ(errorText<error::EParseError>([] { tqlquery::Select("X", "node", 0); }),
            "Expected class name got: \"node\": parsing node");
}

}  // namespace
