// The socket layer and the socket streams over loopback connections to our
// own listener, as the client uses them: a blocking socket with Nagle's
// algorithm on; what the client sees of a server that answers, closes or is
// gone.
#include "net/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "net/connection.h"
#include "net/listener.h"
#include "net/osal_socket.h"
#include "support/error_text.h"
#include "util/error.h"

namespace {

using net::BasicIo;
using net::Listener;
using net::OsalSocket;
using net::SocketStream;

std::string text_of(const net::SocketError& text) { return text.value_or("(null)"); }

// A socket connected as the client's stream connects it; `fd` is left
// invalid when the connect failed.
std::string connect_to(uint16_t port, net::socket_t* fd) {
  const uint32_t address = htonl(INADDR_LOOPBACK);
  return text_of(net::socket_connect(&address, port, fd));
}

// Waits (at most five seconds) for data or the end of the stream, then asks
// the socket layer's immediate poll.
bool readable_after_wait(net::socket_t fd) {
  pollfd in{fd, POLLIN, 0};
  return poll(&in, 1, 5000) == 1 && net::socket_readable(&fd);
}

std::string read_exactly(BasicIo& stream, size_t length) {
  std::string got;
  char buffer[256];
  while (got.size() < length) got.append(buffer, stream.read(buffer, std::min(sizeof buffer, length - got.size())));
  return got;
}

template <class Action>
std::string failure(Action action) {
  return support::errorText<util::ESystemError>(action);
}

// The socket is blocking and keeps Nagle's algorithm; a send of nothing
// succeeds; a receive gives no more than its capacity and what has arrived
// without waiting to fill the buffer; the end of the stream is readable and
// a receive there gives count 0. A close releases the descriptor, and a
// refused connect leaves none open.
TEST(SocketTest, ConnectSendReceiveCloseAndRefusal) {
  Listener listener;
  net::socket_t fd = net::INVALID_SOCKET_HANDLE;
  ASSERT_EQ(connect_to(listener.port(), &fd), "(null)");
  std::unique_ptr<SocketStream> server = listener.accept(5000);
  ASSERT_NE(server, nullptr);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  int nodelay = -1;
  socklen_t size = sizeof nodelay;
  ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &size), 0);
  EXPECT_EQ(nodelay, 0);

  EXPECT_FALSE(net::socket_readable(&fd));
  EXPECT_EQ(text_of(net::socket_send(&fd, "", 0)), "(null)");
  server->write("xyz", 3);
  EXPECT_TRUE(readable_after_wait(fd));
  char got[8];
  size_t count = 0;
  EXPECT_EQ(text_of(net::socket_recv(&fd, got, 1, &count)), "(null)");
  EXPECT_EQ(std::string(got, count), "x");
  EXPECT_EQ(text_of(net::socket_recv(&fd, got, sizeof got, &count)), "(null)");
  EXPECT_EQ(std::string(got, count), "yz");
  server->close();
  EXPECT_TRUE(readable_after_wait(fd));
  count = 99;
  EXPECT_EQ(text_of(net::socket_recv(&fd, got, 1, &count)), "(null)");
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(text_of(net::socket_close(&fd)), "(null)");
  EXPECT_EQ(fd, net::INVALID_SOCKET_HANDLE);
  EXPECT_EQ(text_of(net::socket_close(&fd)),
            "socket_close: Error at ioctlsocket: Bad file descriptor (9)");

  const uint16_t closedPort = Listener().port();
  EXPECT_EQ(connect_to(closedPort, &fd), "Error connecting: Connection refused (111)");
  EXPECT_EQ(fd, net::INVALID_SOCKET_HANDLE);
}

// By address and by name (through the system's resolver).
TEST(OsalSocketTest, TalksBothWaysWithTheServer) {
  for (const char* host : {"127.0.0.1", "localhost"}) {
    SCOPED_TRACE(host);
    Listener listener;
    OsalSocket client(host, listener.port());
    std::unique_ptr<SocketStream> server = listener.accept(5000);
    ASSERT_NE(server, nullptr);
    client.write("ping", 4);
    client.flush();
    EXPECT_EQ(read_exactly(*server, 4), "ping");
    EXPECT_FALSE(client.readable());
    char nothing;
    EXPECT_EQ(client.read(&nothing, 0), 0u);  // returns at once although nothing is there
    server->write("pong!", 5);
    EXPECT_EQ(read_exactly(client, 1), "p");  // waits for the answer
    EXPECT_TRUE(client.readable());           // the rest came with it
    EXPECT_EQ(read_exactly(client, 4), "ong!");
  }
}

// The first write after the peer's close is taken and draws a reset; once
// that has come back, a write fails (and must not raise SIGPIPE, which would
// end this test program).
TEST(SocketStreamTest, WriteToClosedPeerFailsWithoutEndingTheProcess) {
  Listener listener;
  net::socket_t fd = net::INVALID_SOCKET_HANDLE;
  ASSERT_EQ(connect_to(listener.port(), &fd), "(null)");
  SocketStream client(fd);
  listener.accept(5000)->close();
  client.write("data", 4);
  pollfd reset{fd, 0, 0};  // only a hang-up or an error ends this wait
  ASSERT_EQ(poll(&reset, 1, 5000), 1);
  const std::string text = failure([&] { client.write("data", 4); });
  EXPECT_EQ(text.rfind("Error writing to socket: Bad error without sleep happened in socket_send(): ", 0), 0u)
      << text;
}

TEST(SocketStreamTest, ClosedStreamReportsBadDescriptor) {
  Listener listener;
  OsalSocket client("127.0.0.1", listener.port());
  client.close();
  client.close();  // a second close does nothing
  char byte;
  EXPECT_EQ(failure([&] { client.read(&byte, 1); }),
            "Error reading from socket: Bad error happened without sleep in socket_recv(): Bad "
            "file descriptor (9)");
  EXPECT_EQ(failure([&] { client.write("x", 1); }),
            "Error writing to socket: Bad error without sleep happened in socket_send(): Bad file "
            "descriptor (9)");
  EXPECT_FALSE(client.readable());
}

// The port is taken as its low 16 bits; flush sends what the buffer holds;
// the peer's close is the end of the stream.
TEST(ConnectTcpTest, FlushSendsAndThePeersCloseEndsTheStream) {
  Listener listener;
  std::unique_ptr<BasicIo> client = net::connectTcp("127.0.0.1", listener.port() + 0x10000u);
  std::unique_ptr<SocketStream> server = listener.accept(5000);
  ASSERT_NE(server, nullptr);
  client->write("request", 7);
  client->flush();
  EXPECT_EQ(read_exactly(*server, 7), "request");
  server->write("answer", 6);
  EXPECT_EQ(read_exactly(*client, 6), "answer");
  server->close();
  char got[64];
  EXPECT_EQ(failure([&] { client->read(got, sizeof got); }),
            "Error reading: OsalSocket::read end of stream");
}

// A dotted quad needs no lookup, but the all-ones address goes to the name
// lookup, of whose answer only the first address is used. A failed system
// lookup reaches the stream's caller with the socket layer's text alone (a
// label longer than 63 octets fails without asking any name server).
TEST(SocketResolveTest, AddressesAndLookupFailures) {
  int lookups = 0;
  net::SocketLookupResult answer{true, "", {htonl(0x01020304), htonl(0x05060708)}};
  const net::SocketLookup lookup = [&](const char*) {
    ++lookups;
    return answer;
  };
  uint32_t address = 0;
  EXPECT_EQ(text_of(net::socket_resolve("10.1.2.3", &address, lookup)), "(null)");
  EXPECT_EQ(address, htonl(0x0A010203));
  EXPECT_EQ(lookups, 0);
  EXPECT_EQ(text_of(net::socket_resolve("255.255.255.255", &address, lookup)), "(null)");
  EXPECT_EQ(lookups, 1);
  EXPECT_EQ(address, htonl(0x01020304));
  answer = {false, "Host not found", {}};
  EXPECT_EQ(text_of(net::socket_resolve("server.example", &address, lookup)),
            "Error resolving \"server.example\": Host not found");
  answer = {true, "", {}};
  EXPECT_EQ(text_of(net::socket_resolve("server.example", &address, lookup)),
            "No addresses found when resolving \"server.example\"");

  const std::string name = std::string(70, 'q') + ".test";
  const std::string unresolved = failure([&] { OsalSocket(name, 1); });
  const std::string head = "Error resolving \"" + name + "\": ";
  EXPECT_EQ(unresolved.rfind(head, 0), 0u) << unresolved;
  EXPECT_GT(unresolved.size(), head.size()) << "no system text";
}

TEST(SocketTextTest, SystemTextsNumberedFallbackAndCutAt255Bytes) {
  EXPECT_EQ(net::socket_strerror(ECONNREFUSED), "Connection refused");
  EXPECT_EQ(net::socket_strerror(99999), "99999 (FormatMessage: 22)");
  EXPECT_EQ(net::socket_errorf("%s", std::string(300, 'x').c_str()), std::string(255, 'x'));
}

}  // namespace
