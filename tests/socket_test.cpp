// The connect routine and the socket stream over loopback connections to our
// own listener: what the client sees of a server that answers, closes or is
// gone, of a name with several addresses, and the texts of the failures no
// export produces.
#include "net/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "net/listener.h"
#include "net/socket_stream.h"
#include "support/error_text.h"
#include "util/error.h"

namespace {

constexpr auto failure = [](auto action) { return support::errorText<util::ESystemError>(action); };

std::unique_ptr<net::SocketStream> connect_to(uint16_t port, const net::Lookup& lookup = {}) {
  return net::connect_socket("127.0.0.1", port, 0, lookup);
}

// A lookup answering `addresses` (numeric) for every name.
net::Lookup answering(std::vector<std::string> addresses) {
  return [addresses](const std::string&) {
    net::LookupResult result{true, "", {}};
    for (const std::string& text : addresses) {
      result.addresses.push_back(net::system_lookup(text).addresses.at(0));
    }
    return result;
  };
}

// A read of nothing returns at once; a read gives no more than its capacity
// and what has arrived without waiting to fill the buffer. A closed stream
// fails with the system's text, and a second close does nothing.
TEST(SocketStreamTest, ReadsWhatHasArrivedAndFailsOnceClosed) {
  net::Listener listener;
  std::unique_ptr<net::SocketStream> connected = connect_to(listener.port());
  net::SocketStream& client = *connected;
  std::unique_ptr<net::SocketStream> server = listener.accept(5000);
  ASSERT_NE(server, nullptr);
  EXPECT_FALSE(client.readable());
  char got[8];
  EXPECT_EQ(client.read(got, 0), 0u);
  server->write("xyz", 3);
  EXPECT_EQ(std::string(got, client.read(got, 1)), "x");  // waits for the answer
  EXPECT_TRUE(client.readable());  // the rest came with it
  EXPECT_EQ(std::string(got, client.read(got, sizeof got)), "yz");

  client.close();
  client.close();
  EXPECT_EQ(failure([&] { client.read(got, 1); }),
            "Error reading from socket: Bad error happened without sleep in socket_recv(): Bad "
            "file descriptor (9)");
  EXPECT_EQ(failure([&] { client.write("x", 1); }),
            "Error writing to socket: Bad error without sleep happened in socket_send(): Bad file "
            "descriptor (9)");
  EXPECT_FALSE(client.readable());
}

// The first write after the peer's close is taken and draws a reset; once
// that has come back, a write fails (and must not raise SIGPIPE, which would
// end this test program).
TEST(SocketStreamTest, WriteToClosedPeerFailsWithoutEndingTheProcess) {
  net::Listener listener;
  std::unique_ptr<net::SocketStream> connected = connect_to(listener.port());
  net::SocketStream& client = *connected;
  listener.accept(5000)->close();
  client.write("data", 4);
  pollfd reset{client.descriptor(), 0, 0};  // only a hang-up or an error ends this wait
  ASSERT_EQ(poll(&reset, 1, 5000), 1);
  const std::string text = failure([&] { client.write("data", 4); });
  EXPECT_EQ(text.rfind("Error writing to socket: Bad error without sleep happened in socket_send(): ", 0), 0u)
      << text;
}

// Every address of a name is tried in the lookup's order, IPv6 and IPv4
// alike, until one answers; the failure of the last one is reported when none
// does. A failed or empty lookup, and a failed system lookup (a label longer
// than 63 octets fails without asking any name server), reach the caller with
// the texts alone.
TEST(ConnectSocketTest, TriesEveryAddressInTurn) {
  const struct {
    const char* listenOn;
    std::vector<std::string> addresses;
  } cases[] = {{"127.0.0.1", {"::1", "127.0.0.1"}}, {"::1", {"127.0.0.1", "::1"}}};
  for (const auto& c : cases) {
    net::Listener listener(0, 16, c.listenOn);
    EXPECT_NO_THROW(connect_to(listener.port(), answering(c.addresses))) << c.listenOn;
  }
  const uint16_t closedPort = net::Listener().port();
  EXPECT_EQ(failure([&] { connect_to(closedPort, answering({"::1", "127.0.0.1"})); }),
            "Error connecting: Connection refused (111)");
  EXPECT_EQ(failure([&] { connect_to(1, [](const std::string&) { return net::LookupResult{false, "Host not found", {}}; }); }),
            "Error resolving \"127.0.0.1\": Host not found");
  EXPECT_EQ(failure([&] { connect_to(1, answering({})); }),
            "No addresses found when resolving \"127.0.0.1\"");

  const std::string name = std::string(70, 'q') + ".test";
  const std::string unresolved = failure([&] { net::connect_socket(name, 1, 0); });
  EXPECT_EQ(unresolved.rfind("Error resolving \"" + name + "\": ", 0), 0u) << unresolved;
  EXPECT_GT(unresolved.size(), name.size() + 20) << "no system text";
}

TEST(SocketTextTest, SystemTextsNumberedFallbackAndCutAt255Bytes) {
  EXPECT_EQ(net::socket_strerror(99999), "99999 (FormatMessage: 22)");
  EXPECT_EQ(net::socket_errorf("%s", std::string(300, 'x').c_str()), std::string(255, 'x'));
}

}  // namespace
