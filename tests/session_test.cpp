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

struct Answers {
  const char* name;
  const char* offer;  // the answer to ClientWants; "" drops the connection
  const char* login;  // the answer to NewSession, or null when none is due
  const char* outcome;
};

class LoginTest : public testing::TestWithParam<Answers> {};

// A refused login is reported in its own words, and the client sends nothing
// more; an accepted one keeps the session's fields.
TEST_P(LoginTest, LogsInOrFailsInItsOwnWords) {
  const Answers& a = GetParam();
  ScriptedPeer server([&a](PeerLink& link) {
    link.expect(support::clientWants(), "ClientWants");
    link.send(hex(a.offer));
    if (a.login != nullptr) {
      link.expect(hex("62 80 00 00"), "NegotiateAck");
      link.expect(support::testLogin(), "NewSession");
      link.send(hex(a.login));
    }
    if (a.offer[0] != '\0') link.expectEnd("at the end");
  });
  std::string outcome;
  try {
    auto s = support::openTestSession(server.port());
    outcome = util::bn_to_string(s->sessionId) + " " + s->rootDomainId + " " + s->mibRootId;
  } catch (const util::EConnectError& e) {
    outcome = "connect_error: " + e.text();
  } catch (const util::ESystemError& e) {
    outcome = "ESystemError: " + e.text();
  }
  EXPECT_EQ(outcome, a.outcome);
}

const char* const kOffer = "61 80 02 02 02 03 A0 80 00 00 00 00";
const char* const kNoVersion = "connect_error: Server does not support our version of the protocol";

INSTANTIATE_TEST_SUITE_P(
    Table, LoginTest,
    testing::Values(
        // Any minor version of major version 2 is accepted (here 0, below ours); the session id
        // may exceed 32 bits (0x0102030405); then clock, root, unused, MIB root.
        Answers{"Accepted", "61 80 02 02 02 00 A0 80 00 00 00 00",
                "71 80 02 05 01 02 03 04 05 02 01 00 04 02 52 31 04 01 7A 04 02 4D 31 00 00",
                "4328719365 R1 M1"},
        Answers{"MajorVersion3", "61 80 02 02 03 00 A0 80 00 00 00 00", nullptr, kNoVersion},
        Answers{"PasswordOffer", "61 80 02 02 02 03 A2 80 00 00 00 00", nullptr, kNoVersion},
        Answers{"Nack", "63 80 04 0B 74 6F 6F 20 6D 61 6E 79 20 75 70 00 00", nullptr,
                "connect_error: Server rejected us: too many up"},
        Answers{"AckInsteadOfOffer", "62 80 00 00", nullptr, "connect_error: Protocol error: Wrong type"},
        // Before the login, failures of the connection pass unchanged.
        Answers{"DropBeforeTheOffer", "", nullptr, "ESystemError: Error reading: OsalSocket::read end of stream"},
        // Whatever goes wrong once the login has been sent reads as a refused login:
        // here an answer of the wrong type.
        Answers{"OfferAgain", kOffer, kOffer, "connect_error: Wrong username / password"}),
    [](const auto& info) { return std::string(info.param.name); });

// A connector that is refused `refusals` times, then connects. Tries are
// counted in a row (each reported; the text is pipelined_faults_test's), the
// first failure of a row is the one that ends it, and the waits double from
// the first up to the limit.
TEST(ReconnectorTest, TriesWaitsAndTheFailureThatEndsTheRow) {
  const struct {
    uint32_t attempts;
    double firstWait;
    uint32_t refusals;
    std::vector<double> waits;
    const char* outcome;
  } cases[] = {
      {3, 1, 4, {1, 2, 4}, "refused 1"},
      {9, 10, 8, {10, 20, 40, 60, 60, 60, 60, 60}, "(logged in)"},
      {2, 0, 2, {}, "(logged in)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << (&c - cases));
    // Only a row that logs in at last (no more refusals than tries) connects.
    std::optional<ScriptedPeer> server;
    if (c.refusals <= c.attempts) server.emplace(support::loginThen({}, {}));
    uint32_t refused = 0;
    net::ConnectionFactory refusing([&](const std::string& host, uint32_t port) {
      if (refused < c.refusals) throw util::ESystemError("refused " + std::to_string(++refused));
      return net::ConnectionFactory().connect(host, port);
    });
    uint32_t reports = 0;
    std::vector<double> waits;
    const client::ReconnectPolicy policy{c.attempts, client::ReconnectPolicy::Seconds(c.firstWait),
                                         [&reports](const std::string&) { ++reports; },
                                         [&waits](auto wait) { waits.push_back(wait.count()); }};
    std::string outcome = "(logged in)";
    try {
      client::openSession(refusing, client::Login("127.0.0.1", server ? server->port() : 1, "Exporter", "admin", "secret", "lab"), policy);
    } catch (const util::ESystemError& e) {
      outcome = e.text();
    }
    EXPECT_EQ(outcome, c.outcome);
    EXPECT_EQ(waits, c.waits);
    EXPECT_EQ(reports, std::min(c.refusals, c.attempts));
  }
}

}  // namespace
