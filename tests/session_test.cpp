// The login handshake against a scripted server that sends literal octets.
#include "client/session.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/ber_value.h"
#include "support/scripted_peer.h"
#include "util/bignum.h"
#include "util/error.h"

namespace {

using peer::Bytes;
using peer::hex;
using peer::PeerLink;
using peer::ScriptedPeer;

void expectNoComplaints(ScriptedPeer& server) {
  for (const std::string& complaint : server.finish()) ADD_FAILURE() << complaint;
}

// The text of the errors::connect_error that the login raises; other errors
// pass out and fail the test.
std::string connectErrorText(uint16_t port) {
  try {
    peer::openTestSession(port);
  } catch (const errors::connect_error& e) {
    return e.text();
  }
  return "(logged in)";
}

TEST(LoginTest, SendsItsMessagesLiterallyAndKeepsTheSessionFields) {
  ScriptedPeer server([](PeerLink& link) {
    link.expect(hex("60 80 02 02 02 03 A0 80 00 00 00 00"), "ClientWants");
    link.send(hex("61 80 02 02 02 03 A0 80 00 00 00 00"));
    link.expect(hex("62 80 00 00"), "NegotiateAck");
    link.expect(hex("70 80 04 03 6C 61 62 04 05 61 64 6D 69 6E "
                    "04 08 45 78 70 6F 72 74 65 72 04 06 73 65 63 72 65 74 00 00"),
                "NewSession");
    // Session id 0x0102030405 (more than 32 bits), clock, root, unused, MIB root.
    link.send(hex("71 80 02 05 01 02 03 04 05 02 01 00 04 02 52 31 "
                  "04 01 7A 04 02 4D 31 00 00"));
    link.expectEnd("after the login");
  });
  {
    std::unique_ptr<Session> session = peer::openTestSession(server.port());
    BigNum expected;
    const uint8_t id[] = {1, 2, 3, 4, 5};
    bn_set_data(expected, id, sizeof id);
    EXPECT_TRUE(session->sessionId == expected);
    EXPECT_EQ(session->rootDomainId, "R1");
    EXPECT_EQ(session->mibRootId, "M1");
    EXPECT_TRUE(session->requestsById.empty());
    EXPECT_TRUE(session->idsByRequest.empty());
  }
  expectNoComplaints(server);
}

TEST(LoginTest, EmptyPasswordIsAnEmptyFourthField) {
  ScriptedPeer server([](PeerLink& link) {
    link.expect(peer::clientWants(), "ClientWants");
    link.send(hex("61 80 02 02 02 03 A0 80 00 00 00 00"));
    link.expect(hex("62 80 00 00"), "NegotiateAck");
    link.expect(hex("70 80 04 00 04 01 75 04 08 45 78 70 6F 72 74 65 72 04 00 00 00"),
                "NewSession");
    link.send(peer::newSessionResp(7, "root", "mib"));
    link.expectEnd("after the login");
  });
  openSession(ConnectionFactory(), "127.0.0.1", server.port(), "Exporter", "u", "", "");
  expectNoComplaints(server);
}

// Offers with the same major version are accepted whatever the minor one.
class AcceptedOfferTest : public testing::TestWithParam<const char*> {};

TEST_P(AcceptedOfferTest, LogsIn) {
  const Bytes offer = hex(GetParam());
  ScriptedPeer server([&offer](PeerLink& link) {
    link.expect(peer::clientWants(), "ClientWants");
    link.send(offer);
    link.expect(hex("62 80 00 00"), "NegotiateAck");
    link.readMessage();
    link.send(peer::newSessionResp(9, "root", "mib"));
    link.expectEnd("after the login");
  });
  EXPECT_EQ(peer::openTestSession(server.port())->rootDomainId, "root");
  expectNoComplaints(server);
}

INSTANTIATE_TEST_SUITE_P(Versions, AcceptedOfferTest,
                         testing::Values("61 80 02 02 02 05 A0 80 00 00 00 00",
                                         "61 80 02 02 02 03 A0 80 00 00 00 00",
                                         "61 80 02 02 02 00 A0 80 00 00 00 00",
                                         "61 80 02 02 02 FF A0 80 00 00 00 00"));

struct Refusal {
  const char* name;
  const char* answer;  // the server's answer to ClientWants
  const char* text;    // the connect_error's text
};

class RefusedOfferTest : public testing::TestWithParam<Refusal> {};

// The client reports the refusal and sends nothing more.
TEST_P(RefusedOfferTest, RaisesConnectErrorInItsOwnWords) {
  const Bytes answer = hex(GetParam().answer);
  ScriptedPeer server([&answer](PeerLink& link) {
    link.expect(peer::clientWants(), "ClientWants");
    link.send(answer);
    link.expectEnd("after the refusal");
  });
  EXPECT_EQ(connectErrorText(server.port()), GetParam().text);
  expectNoComplaints(server);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, RefusedOfferTest,
    testing::Values(
        Refusal{"MajorVersion3", "61 80 02 02 03 00 A0 80 00 00 00 00",
                "Server does not support our version of the protocol"},
        Refusal{"MajorVersion1", "61 80 02 02 01 03 A0 80 00 00 00 00",
                "Server does not support our version of the protocol"},
        Refusal{"PasswordOffer", "61 80 02 02 02 03 A2 80 00 00 00 00",
                "Server does not support our version of the protocol"},
        Refusal{"PrivateKeyOffer", "61 80 02 02 02 03 A1 80 01 01 00 01 01 00 00 00 00 00",
                "Server does not support our version of the protocol"},
        Refusal{"Nack", "63 80 04 0B 74 6F 6F 20 6D 61 6E 79 20 75 70 00 00",
                "Server rejected us: too many up"},
        Refusal{"EmptyNack", "63 80 04 00 00 00", "Server rejected us: "},
        Refusal{"AckInsteadOfOffer", "62 80 00 00", "Protocol error: Wrong type"},
        Refusal{"LoginAnswerInsteadOfOffer",
                "71 80 02 01 01 02 01 00 04 00 04 00 04 00 00 00",
                "Protocol error: Wrong type"}),
    [](const testing::TestParamInfo<Refusal>& info) { return std::string(info.param.name); });

TEST(LoginTest, DropBeforeTheOfferIsTheTransportError) {
  ScriptedPeer server([](PeerLink& link) { link.expect(peer::clientWants(), "ClientWants"); });
  try {
    peer::openTestSession(server.port());
    ADD_FAILURE() << "logged in";
  } catch (const error::ESystemError& e) {
    EXPECT_EQ(e.text(), "Error reading: OsalSocket::read end of stream");
  }
  expectNoComplaints(server);
}

TEST(LoginTest, MalformedReplyBeforeTheLoginPassesUnchanged) {
  // Application tag 14 starts no message.
  ScriptedPeer server([](PeerLink& link) {
    link.expect(peer::clientWants(), "ClientWants");
    link.send(hex("6E 80 00 00"));
    link.expectEnd("after the bad reply");
  });
  try {
    peer::openTestSession(server.port());
    ADD_FAILURE() << "logged in";
  } catch (const protocol::EBer& e) {
    EXPECT_EQ(e.message(), "Unknown tag 115");
  }
  expectNoComplaints(server);
}

// Whatever goes wrong once the login has been sent reads as a refused login.
class RefusedLoginTest : public testing::TestWithParam<Refusal> {};

TEST_P(RefusedLoginTest, IsWrongUsernameOrPassword) {
  const Bytes answer = hex(GetParam().answer);
  ScriptedPeer server([&answer](PeerLink& link) {
    link.expect(peer::clientWants(), "ClientWants");
    link.send(hex("61 80 02 02 02 03 A0 80 00 00 00 00"));
    link.expect(hex("62 80 00 00"), "NegotiateAck");
    if (link.readMessage().substr(0, 2) != hex("70 80")) link.complain("no NewSession");
    link.send(answer);  // an empty answer just closes the connection
  });
  EXPECT_EQ(connectErrorText(server.port()), GetParam().text);
  expectNoComplaints(server);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, RefusedLoginTest,
    testing::Values(Refusal{"Dropped", "", "Wrong username / password"},
                    Refusal{"OfferAgain", "61 80 02 02 02 03 A0 80 00 00 00 00",
                            "Wrong username / password"},
                    Refusal{"Nack", "63 80 04 02 6E 6F 00 00", "Wrong username / password"},
                    Refusal{"TooFewFields", "71 80 02 01 01 02 01 00 00 00",
                            "Wrong username / password"},
                    Refusal{"UnknownTag", "6E 80 00 00", "Wrong username / password"}),
    [](const testing::TestParamInfo<Refusal>& info) { return std::string(info.param.name); });

TEST(LoginTest, UnreachableServerIsTheTransportError) {
  uint16_t port;
  {
    old_protocol::Listener closedAgain;  // a port on which nobody listens any more
    port = closedAgain.port();
  }
  EXPECT_THROW(peer::openTestSession(port), error::ESystemError);
}

}  // namespace
