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

// Four selects on one session, answered in order: a result set, "pattern
// matched nothing", a result set for a select with flags (which only travel
// to the server) and an answer of another type. In the first, "zeta" is
// sent before "alpha" and "alpha" twice; the child carries a property of its
// own; a repeated object id keeps the later object.
TEST(SelectTest, BuildsResultSetsFromTheAnswers) {
  const Bytes resultSet = support::selectResp(
      support::object("Node", 0, "X", support::stringProperty("v", "earlier")) +
      support::object("Node", 0, "Y", support::stringProperty("v", "other")) +
      support::object("Domain", 5, "X",
                   support::stringProperty("zeta", "last") + support::stringProperty("alpha", "first") +
                       support::stringProperty("alpha", "second") + support::nullProperty("gone", 6),
                   support::object("Node", 1, "C1", support::stringProperty("siblingName", "n1")) +
                       support::object("User", 0, "C2", Bytes())));
  support::ScriptedPeer server(support::loginThen(
      selectRequest(0, 0) + selectRequest(1, 0) + selectRequest(2, 1) + selectRequest(3, 0),
      support::response(0, resultSet) +
          support::response(1, hex("A8 80 02 01 02 30 80 04 07 6E 6F 74 68 69 6E 67 00 00 00 00")) +
          support::response(2, support::selectResp(support::object("Node", 0, "X", Bytes()))) +
          support::response(3, hex("A5 80 00 00"))));
  auto session = support::openTestSession(server.port());
  std::vector<std::shared_ptr<Select>> selects;
  for (uint32_t flags : {0, 0, 1, 0}) {
    selects.push_back(std::make_shared<Select>("X", ".", flags));
    client::send(*session, selects.back());
  }

  EXPECT_EQ(client::await(*session, *selects[0]), 0u);
  EXPECT_EQ(session->idsByRequest.count(selects[0].get()), 0u);  // forgotten by done()
  EXPECT_EQ(selects[0]->find_result("Y").get_string("v"), "other");
  const client::ResultObject& object = selects[0]->find_result("X");
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
  EXPECT_EQ(object.children()[0]->get_string("siblingName"), "n1");
  EXPECT_EQ(object.children()[1]->id(), "C2");
  EXPECT_EQ(selects[0]->find_result_opt("C1"), nullptr);  // children only through their parents

  EXPECT_EQ(client::await(*session, *selects[1]), 2u);
  EXPECT_EQ(selects[1]->find_result_opt("X"), nullptr);
  EXPECT_EQ(errorText<util::ESelectError>([&] { selects[1]->find_result("X"); }),
            "Id (X) not found in result set for query \".\"");

  EXPECT_EQ(client::await(*session, *selects[2]), 0u);
  EXPECT_NE(selects[2]->find_result_opt("X"), nullptr);

  EXPECT_EQ(errorText<util::EBerError>([&] { client::await(*session, *selects[3]); }),
            "Wrong type in Select::decode.");
  EXPECT_EQ(selects[3]->state, client::Request::kAnswered);
  EXPECT_EQ(session->idsByRequest.size(), 1u);
}

TEST(SelectTest, TextsBeforeTheAnswer) {
  Select select("0a1b", ".! > .", 0);
  EXPECT_EQ(select.name(), "[\"0a1b\"] .! > .");
  EXPECT_EQ(errorText<util::ESelectError>([&] { select.find_result("X"); }),
            "find_result() invoked before await() for query \".! > .\"");
  EXPECT_EQ(errorText<util::ESelectError>([&] { select.find_result_opt("X"); }),
            "find_result_opt() invoked before await() for query \".! > .\"");
  EXPECT_EQ(errorText<util::EParseError>([] { Select("X", "node", 0); }),
            "Expected class name got: \"node\": parsing node");
}

}  // namespace
