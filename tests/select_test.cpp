// The select query against a scripted server: the request it sends, the
// result set it builds from the answer, and its lookup failures.
#include "client/select.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "client/session.h"
#include "protocol/messages.h"
#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using peer::Bytes;
using peer::hex;
using peer::PeerLink;
using peer::ScriptedPeer;

// Logs the client in, checks that its one request is Select("X", ".", 0)
// with id 0 and answers it with `answer` (a Response body).
ScriptedPeer::Script answerSelect(Bytes answer) {
  return [answer](PeerLink& link) {
    peer::acceptLogin(link, peer::freshSessionId());
    link.expect(hex("74 80 02 01 00 A0 80 31 80 04 01 58 00 00 "
                    "30 80 04 01 2E 02 01 00 05 00 30 80 00 00 30 80 00 00 30 80 00 00 "
                    "31 80 00 00 00 00 02 01 00 00 00 00 00"),
                "Select request");
    link.send(peer::response(0, answer));
    link.expectEnd("after the answer");
  };
}

// Runs Select("X", ".", flags) against a server answering with `answer` and
// hands the answered select to `check`.
template <class Check>
void selectWithAnswer(const Bytes& answer, Check check, uint32_t flags = 0) {
  ScriptedPeer server(answerSelect(answer));
  {
    auto session = peer::openTestSession(server.port());
    auto select = std::make_shared<tqlquery::Select>("X", ".", flags);
    comquery::send(*session, select);
    comquery::await(*session, *select);
    check(*session, *select);
  }
  for (const std::string& complaint : server.finish()) ADD_FAILURE() << complaint;
}

std::string selectErrorOf(const std::function<void()>& lookup) {
  try {
    lookup();
  } catch (const errors::selecterror& e) {
    return e.text();
  }
  return "(no selecterror)";
}

std::string objectErrorOf(const std::function<void()>& lookup) {
  try {
    lookup();
  } catch (const errors::objecterror& e) {
    return e.text();
  }
  return "(no objecterror)";
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
    EXPECT_EQ(select.state, comquery::Request::kAnswered);
    EXPECT_EQ(select.error, 0u);
    EXPECT_TRUE(session.idsByRequest.empty());  // forgotten by done()

    const tqlquery::ResultObject& object = select.find_result("X");
    EXPECT_EQ(object.className(), "Domain");
    EXPECT_EQ(object.flags(), 5u);
    EXPECT_EQ(object.id(), "X");
    std::vector<std::string> names;
    for (const auto& entry : object.properties()) names.push_back(entry.first);
    EXPECT_EQ(names, (std::vector<std::string>{"alpha", "gone", "zeta"}));
    EXPECT_EQ(object.get_string("zeta"), "last");
    EXPECT_TRUE(object.has_property("alpha"));
    EXPECT_FALSE(object.has_property("beta"));
    EXPECT_TRUE(object.is_null("gone"));
    EXPECT_FALSE(object.is_null("alpha"));
    EXPECT_THROW(object.get_string("gone"), errors::tql);

    ASSERT_EQ(object.children().size(), 2u);
    EXPECT_EQ(object.children()[0]->id(), "C1");
    EXPECT_EQ(object.children()[0]->className(), "Node");
    EXPECT_EQ(object.children()[0]->flags(), 1u);
    EXPECT_EQ(object.children()[0]->get_string("siblingName"), "n1");
    EXPECT_EQ(object.children()[1]->id(), "C2");
    // Children are reached through their parents only.
    EXPECT_EQ(select.find_result_opt("C1"), nullptr);
  });
}

TEST(SelectTest, RepeatedIdKeepsTheLaterObject) {
  const Bytes answer = peer::selectResp(
      peer::object("Node", 0, "X", peer::stringProperty("v", "earlier")) +
      peer::object("Node", 0, "Y", peer::stringProperty("v", "other")) +
      peer::object("Node", 0, "X", peer::stringProperty("v", "later")));
  selectWithAnswer(answer, [](Session&, tqlquery::Select& select) {
    EXPECT_EQ(select.find_result("X").get_string("v"), "later");
    EXPECT_EQ(select.find_result("Y").get_string("v"), "other");
  });
}

TEST(SelectTest, RepeatedPropertyNameKeepsTheFirst) {
  const Bytes answer = peer::selectResp(peer::object(
      "Node", 0, "X", peer::stringProperty("v", "first") + peer::stringProperty("v", "second")));
  selectWithAnswer(answer, [](Session&, tqlquery::Select& select) {
    EXPECT_EQ(select.find_result("X").properties().size(), 1u);
    EXPECT_EQ(select.find_result("X").get_string("v"), "first");
  });
}

TEST(SelectTest, MissingPropertyIsAnObjectError) {
  const Bytes answer = peer::selectResp(peer::object("Node", 0, "X", Bytes()));
  selectWithAnswer(answer, [](Session&, tqlquery::Select& select) {
    const tqlquery::ResultObject& object = select.find_result("X");
    EXPECT_EQ(objectErrorOf([&] { object.get_string("name"); }),
              "Property \"name\" not found in X");
    EXPECT_EQ(objectErrorOf([&] { object.is_null("name"); }), "Property \"name\" not found in X");
  });
}

TEST(SelectTest, PatternMatchedNothingLeavesAnEmptyResultSet) {
  const Bytes answer = hex("A8 80 02 01 02 30 80 04 07 6E 6F 74 68 69 6E 67 00 00 00 00");
  selectWithAnswer(answer, [](Session& session, tqlquery::Select& select) {
    EXPECT_EQ(select.state, comquery::Request::kAnswered);
    EXPECT_EQ(select.error, 2u);
    EXPECT_TRUE(session.idsByRequest.empty());
    EXPECT_EQ(select.find_result_opt("X"), nullptr);
    EXPECT_EQ(selectErrorOf([&] { select.find_result("X"); }),
              "Id (X) not found in result set for query \".\"");
  });
}

TEST(SelectTest, AnswerOfAnotherTypeIsRejected) {
  ScriptedPeer server(answerSelect(hex("A5 80 00 00")));  // a ForgetResp
  {
    auto session = peer::openTestSession(server.port());
    auto select = std::make_shared<tqlquery::Select>("X", ".", 0);
    comquery::send(*session, select);
    try {
      comquery::await(*session, *select);
      ADD_FAILURE() << "no error";
    } catch (const errors::bererror& e) {
      EXPECT_EQ(e.text(), "Wrong type in Select::decode.");
    }
    EXPECT_EQ(select->state, comquery::Request::kAnswered);
    EXPECT_EQ(session->idsByRequest.count(select.get()), 1u);
  }
  for (const std::string& complaint : server.finish()) ADD_FAILURE() << complaint;
}

TEST(SelectTest, KeepOutstandingFlagSkipsTheForget) {
  const Bytes answer = peer::selectResp(peer::object("Node", 0, "X", Bytes()));
  ScriptedPeer server([&answer](PeerLink& link) {
    peer::acceptLogin(link, peer::freshSessionId());
    link.readMessage();
    link.send(peer::response(0, answer));
    link.expectEnd("after the answer");
  });
  {
    auto session = peer::openTestSession(server.port());
    auto select = std::make_shared<tqlquery::Select>("X", ".", 1);
    comquery::send(*session, select);
    EXPECT_EQ(comquery::processResponse(*session), select);
    EXPECT_EQ(session->idsByRequest.count(select.get()), 1u);
    EXPECT_NE(select->find_result_opt("X"), nullptr);
    comquery::forget(*session, *select);
    EXPECT_EQ(select.use_count(), 1);
  }
  for (const std::string& complaint : server.finish()) ADD_FAILURE() << complaint;
}

TEST(SelectTest, ResultsBeforeTheAnswerAreASelectError) {
  tqlquery::Select select("X", ".! > .", 0);
  EXPECT_EQ(selectErrorOf([&] { select.find_result("X"); }),
            "find_result() invoked before await() for query \".! > .\"");
  EXPECT_EQ(selectErrorOf([&] { select.find_result_opt("X"); }),
            "find_result_opt() invoked before await() for query \".! > .\"");
}

TEST(SelectTest, NameListsTheStartIdAndThePattern) {
  EXPECT_EQ(tqlquery::Select("0a1b", ".! > .", 0).name(), "[\"0a1b\"] .! > .");
}

TEST(SelectTest, PatternThatDoesNotParseMakesNoSelect) {
  try {
    tqlquery::Select select("X", "node", 0);
    ADD_FAILURE() << "parsed";
  } catch (const error::EParseError& e) {
    EXPECT_NE(e.text().find(": parsing node"), std::string::npos) << e.text();
  }
}

TEST(SelectTest, BodyTakesThePatternOver) {
  tqlquery::Select select("X", ".! > .", 0);
  std::unique_ptr<protocol::BerConstructed> body = select.makeBody();
  auto* request = dynamic_cast<protocol::SelectReq*>(body.get());
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(request->startIds, std::vector<std::string>{"X"});
  ASSERT_NE(request->pattern, nullptr);
  EXPECT_EQ(request->pattern->className, ".");
  EXPECT_EQ(request->pattern->flags, 2u);
  ASSERT_EQ(request->pattern->children.size(), 1u);
  EXPECT_EQ(request->flags, 0u);
  // Sent once: a second body has no pattern left.
  auto second = select.makeBody();
  EXPECT_EQ(dynamic_cast<protocol::SelectReq*>(second.get())->pattern, nullptr);
}

}  // namespace
