// The socket layer and the socket streams over loopback connections to our
// own listener: what the client sees of a server that answers, closes or is
// gone, and the texts of the failures no export produces.
#include "net/socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "net/listener.h"
#include "net/osal_socket.h"
#include "support/error_text.h"
#include "util/error.h"

namespace {

std::string text_of(const net::SocketError& text) { return text.value_or("(null)"); }
constexpr auto failure = [](auto action) { return support::errorText<util::ESystemError>(action); };

// `fd` is left invalid when the connect failed.
std::string connect_to(uint16_t port, net::socket_t* fd) {
  const uint32_t address = htonl(INADDR_LOOPBACK);
  return text_of(net::socket_connect(&address, port, fd));
}

// A read of nothing returns at once; a read gives no more than its capacity
// and what has arrived without waiting to fill the buffer. A closed stream
// fails with the system's text, and a second close does nothing.
TEST(OsalSocketTest, ReadsWhatHasArrivedAndFailsOnceClosed) {
  net::Listener listener;
  net::OsalSocket client("127.0.0.1", listener.port());
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

// A close releases the descriptor (a second close names the failing call),
// and a refused connect leaves none open.
TEST(SocketTest, CloseAndRefusal) {
  net::socket_t fd = net::INVALID_SOCKET_HANDLE;
  {
    net::Listener listener;
    ASSERT_EQ(connect_to(listener.port(), &fd), "(null)");
  }
  EXPECT_EQ(text_of(net::socket_close(&fd)), "(null)");
  EXPECT_EQ(fd, net::INVALID_SOCKET_HANDLE);
  EXPECT_EQ(text_of(net::socket_close(&fd)),
            "socket_close: Error at ioctlsocket: Bad file descriptor (9)");
  const uint16_t closedPort = net::Listener().port();
  EXPECT_EQ(connect_to(closedPort, &fd), "Error connecting: Connection refused (111)");
  EXPECT_EQ(fd, net::INVALID_SOCKET_HANDLE);
}

// The first write after the peer's close is taken and draws a reset; once
// that has come back, a write fails (and must not raise SIGPIPE, which would
// end this test program).
TEST(SocketStreamTest, WriteToClosedPeerFailsWithoutEndingTheProcess) {
  net::Listener listener;
  net::socket_t fd = net::INVALID_SOCKET_HANDLE;
  ASSERT_EQ(connect_to(listener.port(), &fd), "(null)");
  net::SocketStream client(fd);
  listener.accept(5000)->close();
  client.write("data", 4);
  pollfd reset{fd, 0, 0};  // only a hang-up or an error ends this wait
  ASSERT_EQ(poll(&reset, 1, 5000), 1);
  const std::string text = failure([&] { client.write("data", 4); });
  EXPECT_EQ(text.rfind("Error writing to socket: Bad error without sleep happened in socket_send(): ", 0), 0u)
      << text;
}

// A dotted quad needs no lookup, but the all-ones address goes to the name
// lookup, of whose answer only the first address is used. A failed system
// lookup reaches the stream's caller with the socket layer's text alone (a
// label longer than 63 octets fails without asking any name server).
TEST(SocketResolveTest, AddressesAndLookupFailures) {
  net::SocketLookupResult answer{true, "", {htonl(0x01020304), htonl(0x05060708)}};
  const net::SocketLookup lookup = [&](const char*) { return answer; };
  uint32_t address = 0;
  EXPECT_EQ(text_of(net::socket_resolve("10.1.2.3", &address, lookup)), "(null)");
  EXPECT_EQ(address, htonl(0x0A010203));
  EXPECT_EQ(text_of(net::socket_resolve("255.255.255.255", &address, lookup)), "(null)");
  EXPECT_EQ(address, htonl(0x01020304));
  answer = {false, "Host not found", {}};
  EXPECT_EQ(text_of(net::socket_resolve("server.example", &address, lookup)),
            "Error resolving \"server.example\": Host not found");
  answer = {true, "", {}};
  EXPECT_EQ(text_of(net::socket_resolve("server.example", &address, lookup)),
            "No addresses found when resolving \"server.example\"");

  const std::string name = std::string(70, 'q') + ".test";
  const std::string unresolved = failure([&] { net::OsalSocket(name, 1); });
  EXPECT_EQ(unresolved.rfind("Error resolving \"" + name + "\": ", 0), 0u) << unresolved;
  EXPECT_GT(unresolved.size(), name.size() + 20) << "no system text";
}

TEST(SocketTextTest, SystemTextsNumberedFallbackAndCutAt255Bytes) {
  EXPECT_EQ(net::socket_strerror(99999), "99999 (FormatMessage: 22)");
  EXPECT_EQ(net::socket_errorf("%s", std::string(300, 'x').c_str()), std::string(255, 'x'));
}

}  // namespace
