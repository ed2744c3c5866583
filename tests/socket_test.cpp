// The socket layer over loopback connections to our own listener.
#include "net/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "net/listener.h"
#include "util/error.h"

namespace {

using namespace std::chrono_literals;
using net::Listener;
using net::SocketStream;

std::string text_of(const net::SocketError& text) { return text.value_or("(null)"); }

// A client socket made by socket_connect, closed at the end of the test.
struct Client {
  net::socket_t fd = net::INVALID_SOCKET_HANDLE;
  ~Client() {
    if (fd != net::INVALID_SOCKET_HANDLE) net::socket_close(&fd);
  }
};

// The wait limit of the calls that test it.
constexpr unsigned kOneSecond = 1;

net::SocketError connect_to(uint16_t port, unsigned options, Client* client,
                            unsigned waitSeconds = net::SOCKET_WAIT_SECONDS) {
  const uint32_t address = htonl(INADDR_LOOPBACK);
  return net::socket_connect(&address, port, &client->fd, options, waitSeconds);
}

// A listener with a connected client (made with `options`) and its server end.
struct Connected {
  Listener listener;
  Client client;
  std::unique_ptr<SocketStream> server;
  explicit Connected(unsigned options = 0) {
    EXPECT_EQ(text_of(connect_to(listener.port(), options, &client)), "(null)");
    server = listener.accept(5000);
    EXPECT_NE(server, nullptr);
  }
};

// Each options value gives the blocking mode and Nagle setting of its bits;
// bit 2 (the value the client stream uses) changes nothing. A refusal closes
// the socket, whether the connect waited in the call or in poll.
TEST(SocketTest, ConnectAppliesTheOptionBitsAndReportsRefusal) {
  const struct { unsigned options; bool nonblocking, nodelay;
  } cases[] = {
      {net::SOCKET_NONBLOCK, true, false}, {net::SOCKET_NODELAY, false, true}, {4, false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    Connected link(c.options);
    EXPECT_EQ((fcntl(link.client.fd, F_GETFL) & O_NONBLOCK) != 0, c.nonblocking);
    int nodelay = -1;
    socklen_t size = sizeof nodelay;
    ASSERT_EQ(getsockopt(link.client.fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &size), 0);
    EXPECT_EQ(nodelay != 0, c.nodelay);

    const uint16_t closed_port = Listener().port();
    Client refused;
    EXPECT_EQ(text_of(connect_to(closed_port, c.options, &refused)),
              "Error connecting: Connection refused (111)");
    EXPECT_EQ(refused.fd, net::INVALID_SOCKET_HANDLE);
  }
}

// Readable waits up to the given seconds; the end of the stream is readable
// too, and a receive there gives count 0.
TEST(SocketTest, ReadableReportsArrivedDataAndEndOfStream) {
  Connected link;
  EXPECT_FALSE(net::socket_readable(&link.client.fd, 0));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(net::socket_readable(&link.client.fd, 1));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
  ASSERT_EQ(text_of(net::socket_send(&link.client.fd, "", 0, kOneSecond)), "(null)");
  link.server->write("xyz", 3);
  EXPECT_TRUE(net::socket_readable(&link.client.fd, 5));
  // A receive gives no more than its capacity, and what has arrived without
  // waiting to fill the buffer.
  char got[8];
  size_t count = 0;
  ASSERT_EQ(text_of(net::socket_recv(&link.client.fd, got, 1, &count, kOneSecond)), "(null)");
  EXPECT_EQ(std::string(got, count), "x");
  ASSERT_EQ(text_of(net::socket_recv(&link.client.fd, got, sizeof got, &count, kOneSecond)),
            "(null)");
  EXPECT_EQ(std::string(got, count), "yz");
  link.server->close();
  EXPECT_TRUE(net::socket_readable(&link.client.fd, 5));
  count = 99;
  EXPECT_EQ(text_of(net::socket_recv(&link.client.fd, got, 1, &count, kOneSecond)), "(null)");
  EXPECT_EQ(count, 0u);
}

// A non-blocking socket waits in poll for the peer and gives up after the
// wait limit it was given.
TEST(SocketTest, NonBlockingReceiveWaitsForDataThenTimesOut) {
  Connected link(net::SOCKET_NONBLOCK);
  std::thread writer([&link] {
    std::this_thread::sleep_for(100ms);
    link.server->write("late", 4);
  });
  char got[8];
  size_t count = 0;
  const std::string text =
      text_of(net::socket_recv(&link.client.fd, got, sizeof got, &count, kOneSecond));
  writer.join();
  ASSERT_EQ(text, "(null)");
  EXPECT_EQ(std::string(got, count), "late");
  EXPECT_EQ(text_of(net::socket_recv(&link.client.fd, got, sizeof got, &count, kOneSecond)),
            "Timeout in socket_recv()");
}

TEST(SocketTest, NonBlockingSendDeliversEverythingAndTimesOutWhenThePeerStopsReading) {
  Connected link(net::SOCKET_NONBLOCK);
  // Far more than the socket buffers hold, so the send has to wait for room.
  std::vector<char> data(8 << 20);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  std::vector<char> received;
  std::thread reader([&] {
    std::vector<char> chunk(1 << 16);
    while (received.size() < data.size()) {
      const uint64_t n = link.server->read(chunk.data(), chunk.size());
      received.insert(received.end(), chunk.begin(), chunk.begin() + static_cast<long>(n));
    }
  });
  const std::string text =
      text_of(net::socket_send(&link.client.fd, data.data(), data.size(), kOneSecond));
  reader.join();
  EXPECT_EQ(text, "(null)");
  EXPECT_TRUE(received == data);
  // Now nobody reads: the buffers fill and the send gives up.
  EXPECT_EQ(text_of(net::socket_send(&link.client.fd, data.data(), data.size(), kOneSecond)),
            "Timeout in socket_send()");
}

// A non-blocking connect that the server never answers ends with the wait
// limit. A listener whose queue of unaccepted connections is full drops
// further attempts unanswered.
TEST(SocketTest, UnansweredNonBlockingConnectTimesOut) {
  Listener listener(0, 0);
  std::vector<std::unique_ptr<Client>> clients;
  std::string text;
  for (int attempt = 0; attempt < 6 && text != "Connection timed out"; ++attempt) {
    clients.push_back(std::make_unique<Client>());
    text = text_of(
        connect_to(listener.port(), net::SOCKET_NONBLOCK, clients.back().get(), kOneSecond));
  }
  EXPECT_EQ(text, "Connection timed out");
  EXPECT_EQ(clients.back()->fd, net::INVALID_SOCKET_HANDLE);
}

// The read and write texts for a bad descriptor are pinned through the
// socket streams.
TEST(SocketTest, CloseReleasesTheSocketAndReportsABadHandle) {
  Connected link(net::SOCKET_NONBLOCK);
  EXPECT_EQ(text_of(net::socket_close(&link.client.fd)), "(null)");
  EXPECT_EQ(link.client.fd, net::INVALID_SOCKET_HANDLE);
  net::socket_t bad = net::INVALID_SOCKET_HANDLE;
  EXPECT_EQ(text_of(net::socket_close(&bad)),
            "socket_close: Error at ioctlsocket: Bad file descriptor (9)");
  EXPECT_FALSE(net::socket_readable(&bad, 5));  // at once, not after five seconds
}

// A dotted quad needs no lookup, but the all-ones address goes to the name
// lookup, of whose answer only the first address is used.
TEST(SocketResolveTest, ScriptedLookup) {
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
}

TEST(SocketTextTest, SystemTextsNumberedFallbackAndCutAt255Bytes) {
  EXPECT_EQ(net::socket_strerror(ECONNREFUSED), "Connection refused");
  EXPECT_EQ(net::socket_strerror(99999), "99999 (FormatMessage: 22)");
  EXPECT_EQ(net::socket_errorf("%s", std::string(300, 'x').c_str()), std::string(255, 'x'));
}

}  // namespace
