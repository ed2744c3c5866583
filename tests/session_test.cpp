// The login handshake against a scripted server that sends literal octets,
// and the tries of a session that reconnects.
#include "client/session.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/scripted_peer.h"
#include "util/bignum.h"
#include "util/error.h"

namespace {

using support::hex;
using support::PeerLink;
using support::ScriptedPeer;

// Any minor version of major version 2 is accepted; empty fields are sent
// empty; the session id may exceed 32 bits.
TEST(LoginTest, SendsItsMessagesLiterallyAndKeepsTheSessionFields) {
  ScriptedPeer server([](PeerLink& link) {
    link.expect(support::clientWants(), "ClientWants");
    link.send(hex("61 80 02 02 02 FF A0 80 00 00 00 00"));
    link.expect(hex("62 80 00 00"), "NegotiateAck");
    link.expect(hex("70 80 04 00 04 01 75 04 08 45 78 70 6F 72 74 65 72 04 00 00 00"), "NewSession");
    // Session id 0x0102030405, clock, root, unused, MIB root.
    link.send(hex("71 80 02 05 01 02 03 04 05 02 01 00 04 02 52 31 04 01 7A 04 02 4D 31 00 00"));
    link.expectEnd("after the login");
  });
  auto session = client::openSession(net::ConnectionFactory(),
                                     client::Login("127.0.0.1", server.port(), "Exporter", "u", "", ""));
  EXPECT_EQ(util::bn_to_string(session->sessionId), "4328719365");
  EXPECT_EQ(session->rootDomainId, "R1");
  EXPECT_EQ(session->mibRootId, "M1");
}

// The text of whichever error the login raises, prefixed by its kind.
std::string loginFailure(uint16_t port) {
  try {
    support::openTestSession(port);
  } catch (const util::EConnectError& e) {
    return "connect_error: " + e.text();
  } catch (const util::ESystemError& e) {
    return "ESystemError: " + e.text();
  }
  return "(logged in)";
}

struct Refusal {
  const char* name;
  const char* offer;  // the answer to ClientWants; "" drops the connection
  const char* login;  // the answer to NewSession, or null when none is due
  const char* failure;
};

class RefusalTest : public testing::TestWithParam<Refusal> {};

// The client reports the failure and sends nothing more.
TEST_P(RefusalTest, FailsInItsOwnWords) {
  const Refusal& r = GetParam();
  ScriptedPeer server([&r](PeerLink& link) {
    link.expect(support::clientWants(), "ClientWants");
    link.send(hex(r.offer));
    if (r.login != nullptr) {
      link.expect(hex("62 80 00 00"), "NegotiateAck");
      link.expect(support::testLogin(), "NewSession");
      link.send(hex(r.login));
    } else if (r.offer[0] != '\0') {
      link.expectEnd("after the refusal");
    }
  });
  EXPECT_EQ(loginFailure(server.port()), r.failure);
}

const char* const kOffer = "61 80 02 02 02 03 A0 80 00 00 00 00";
const char* const kNoVersion = "connect_error: Server does not support our version of the protocol";

INSTANTIATE_TEST_SUITE_P(
    Answers, RefusalTest,
    testing::Values(
        Refusal{"MajorVersion3", "61 80 02 02 03 00 A0 80 00 00 00 00", nullptr, kNoVersion},
        Refusal{"PasswordOffer", "61 80 02 02 02 03 A2 80 00 00 00 00", nullptr, kNoVersion},
        Refusal{"Nack", "63 80 04 0B 74 6F 6F 20 6D 61 6E 79 20 75 70 00 00", nullptr,
                "connect_error: Server rejected us: too many up"},
        Refusal{"AckInsteadOfOffer", "62 80 00 00", nullptr, "connect_error: Protocol error: Wrong type"},
        // Before the login, failures of the connection pass unchanged.
        Refusal{"DropBeforeTheOffer", "", nullptr, "ESystemError: Error reading: OsalSocket::read end of stream"},
        // Whatever goes wrong once the login has been sent reads as a refused login:
        // here an answer of the wrong type.
        Refusal{"OfferAgain", kOffer, kOffer, "connect_error: Wrong username / password"}),
    [](const testing::TestParamInfo<Refusal>& info) { return std::string(info.param.name); });

// A connector that is refused `refusals` times, then connects to `port`.
// Tries are counted in a row, the first failure of a row is the one that
// ends it, and the waits double from the first up to the limit.
TEST(ReconnectorTest, TriesWaitsAndTheFailureThatEndsTheRow) {
  const struct {
    uint32_t attempts;
    double firstWait;
    uint32_t refusals;
    std::vector<double> waits;
    const char* failure;  // null: logged in after the refusals
  } cases[] = {
      {3, 1, 4, {1, 2, 4}, "refused 1"},
      {9, 10, 8, {10, 20, 40, 60, 60, 60, 60, 60}, nullptr},
      {2, 0, 2, {}, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.attempts) + " attempts, " + std::to_string(c.refusals) +
                 " refusals");
    // Only a row that logs in at last connects.
    std::optional<ScriptedPeer> server;
    if (c.failure == nullptr) server.emplace(support::loginThen({}, {}));
    uint32_t refused = 0;
    net::ConnectionFactory refusing([&](const std::string& host, uint32_t port) {
      if (refused < c.refusals) throw util::ESystemError("refused " + std::to_string(++refused));
      return net::ConnectionFactory().connect(host, port);
    });
    std::vector<std::string> lines;
    std::vector<double> waits;
    client::ReconnectPolicy policy;
    policy.attempts = c.attempts;
    policy.firstWait = client::ReconnectPolicy::Seconds(c.firstWait);
    policy.report = [&lines](const std::string& line) { lines.push_back(line); };
    policy.sleep = [&waits](client::ReconnectPolicy::Seconds wait) { waits.push_back(wait.count()); };
    std::string outcome = "(logged in)";
    try {
      client::openSession(refusing,
                          client::Login("127.0.0.1", server ? server->port() : 1, "Exporter",
                                        "admin", "secret", "lab"),
                          policy);
    } catch (const util::ESystemError& e) {
      outcome = e.text();
    }
    EXPECT_EQ(outcome, c.failure != nullptr ? c.failure : "(logged in)");
    EXPECT_EQ(waits, c.waits);
    ASSERT_EQ(lines.size(), std::min(c.refusals, c.attempts));
    for (size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(lines[i], "Connection failed (refused " + std::to_string(i + 1) +
                              "); reconnecting, attempt " + std::to_string(i + 1) + " of " +
                              std::to_string(c.attempts));
    }
  }
}

}  // namespace
