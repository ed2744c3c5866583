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
using tqlquery::Select;

// Sends Select("X", ".", `flags`), checking its octets as request id 0, to a
// server answering with `answer` and hands the session and select to `check`.
template <class Check>
void selectWithAnswer(const Bytes& answer, Check check, uint8_t flags = 0) {
  const Bytes request = hex("74 80 02 01 00 A0 80 31 80 04 01 58 00 00 "
                            "30 80 04 01 2E 02 01 00 05 00 30 80 00 00 30 80 00 00 30 80 00 00 "
                            "31 80 00 00 00 00 02 01") +
                        Bytes(1, static_cast<char>(flags)) + hex("00 00 00 00");
  peer::ScriptedPeer server(peer::loginThen(request, peer::response(0, answer)));
  auto session = peer::openTestSession(server.port());
  auto select = std::make_shared<Select>("X", ".", flags);
  comquery::send(*session, select);
  check(*session, select);
}

// "zeta" is sent before "alpha" and "alpha" twice; the child carries a
// property of its own; a repeated object id keeps the later object.
TEST(SelectTest, BuildsTheResultSetFromTheAnswer) {
  const Bytes answer = peer::selectResp(
      peer::object("Node", 0, "X", peer::stringProperty("v", "earlier")) +
      peer::object("Node", 0, "Y", peer::stringProperty("v", "other")) +
      peer::object("Domain", 5, "X",
                   peer::stringProperty("zeta", "last") + peer::stringProperty("alpha", "first") +
                       peer::stringProperty("alpha", "second") + peer::nullProperty("gone", 6),
                   peer::object("Node", 1, "C1", peer::stringProperty("siblingName", "n1")) +
                       peer::object("User", 0, "C2", Bytes())));
  selectWithAnswer(answer, [](Session& session, std::shared_ptr<Select>& select) {
    EXPECT_EQ(comquery::await(session, *select), 0u);
    EXPECT_TRUE(session.idsByRequest.empty());  // forgotten by done()
    EXPECT_EQ(select->find_result("Y").get_string("v"), "other");
    const tqlquery::ResultObject& object = select->find_result("X");
    EXPECT_EQ(object.className(), "Domain");
    EXPECT_EQ(object.flags(), 5u);
    std::vector<std::string> names;
    for (const auto& entry : object.properties()) names.push_back(entry.first);
    EXPECT_EQ(names, (std::vector<std::string>{"alpha", "gone", "zeta"}));
    EXPECT_EQ(object.get_string("alpha"), "first");
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
    EXPECT_EQ(select->find_result_opt("C1"), nullptr);  // children only through their parents
  });
}

TEST(SelectTest, PatternMatchedNothingLeavesAnEmptyResultSet) {
  const Bytes answer = hex("A8 80 02 01 02 30 80 04 07 6E 6F 74 68 69 6E 67 00 00 00 00");
  selectWithAnswer(answer, [](Session& session, std::shared_ptr<Select>& select) {
    EXPECT_EQ(comquery::await(session, *select), 2u);
    EXPECT_EQ(select->state, comquery::Request::kAnswered);
    EXPECT_TRUE(session.idsByRequest.empty());
    EXPECT_EQ(select->find_result_opt("X"), nullptr);
    EXPECT_EQ(errorText<errors::selecterror>([&] { select->find_result("X"); }),
              "Id (X) not found in result set for query \".\"");
  });
}

TEST(SelectTest, AnswerOfAnotherTypeIsRejected) {
  selectWithAnswer(hex("A5 80 00 00"), [](Session& session, std::shared_ptr<Select>& select) {
    EXPECT_EQ(errorText<errors::bererror>([&] { comquery::await(session, *select); }),
              "Wrong type in Select::decode.");
    EXPECT_EQ(select->state, comquery::Request::kAnswered);
    EXPECT_EQ(session.idsByRequest.count(select.get()), 1u);
  });
}

TEST(SelectTest, KeepOutstandingFlagSkipsTheForget) {
  const Bytes answer = peer::selectResp(peer::object("Node", 0, "X", Bytes()));
  selectWithAnswer(answer, [](Session& session, std::shared_ptr<Select>& select) {
    EXPECT_EQ(comquery::processResponse(session), select);
    EXPECT_EQ(session.idsByRequest.count(select.get()), 1u);
    EXPECT_NE(select->find_result_opt("X"), nullptr);
    comquery::forget(session, *select);
    EXPECT_EQ(select.use_count(), 1);
  }, 1);
}

TEST(SelectTest, TextsBeforeTheAnswer) {
  Select select("0a1b", ".! > .", 0);
  EXPECT_EQ(select.name(), "[\"0a1b\"] .! > .");
  EXPECT_EQ(errorText<errors::selecterror>([&] { select.find_result("X"); }),
            "find_result() invoked before await() for query \".! > .\"");
  EXPECT_EQ(errorText<errors::selecterror>([&] { select.find_result_opt("X"); }),
            "find_result_opt() invoked before await() for query \".! > .\"");
  EXPECT_EQ(errorText<error::EParseError>([] { Select("X", "node", 0); }),
            "Expected class name got: \"node\": parsing node");
}

}  // namespace
