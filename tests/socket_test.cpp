// The socket layer over loopback connections to our own listener.
#include "net/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "net/listener.h"
#include "util/error.h"

namespace {

using namespace std::chrono_literals;
using old_protocol::Listener;
using old_protocol::SocketStream;

std::string text_of(const char* text) { return text == nullptr ? "(null)" : text; }

// A client socket made by socket_connect, closed at the end of the test.
struct Client {
  socket_t fd = INVALID_SOCKET_HANDLE;
  ~Client() {
    if (fd != INVALID_SOCKET_HANDLE) socket_close(&fd);
  }
};

uint32_t loopback() { return htonl(INADDR_LOOPBACK); }

const char* connect_to(uint16_t port, unsigned options, Client* client) {
  const uint32_t address = loopback();
  return socket_connect(&address, port, &client->fd, options);
}

// A loopback port that nothing listens on (a listener's port, after it closed).
uint16_t closed_port() {
  Listener listener;
  return listener.port();
}

// Restores the module's wait limit when a test changed it.
struct TimeoutGuard {
  unsigned saved = socket_timeout();
  ~TimeoutGuard() { socket_set_timeout(saved); }
};

TEST(SocketTest, DefaultWaitLimitIsTenMinutes) { EXPECT_EQ(socket_timeout(), 600u); }

// Each options value gives the blocking mode and Nagle setting of its bits;
// bit 2 (the value the client stream uses) changes nothing.
struct OptionCase {
  unsigned options;
  bool nonblocking;
  bool nodelay;
};

class SocketOptionsTest : public testing::TestWithParam<OptionCase> {};

TEST_P(SocketOptionsTest, ConnectAppliesTheOptionBits) {
  Listener listener;
  Client client;
  ASSERT_EQ(connect_to(listener.port(), GetParam().options, &client), nullptr);
  EXPECT_EQ((fcntl(client.fd, F_GETFL) & O_NONBLOCK) != 0, GetParam().nonblocking);
  int nodelay = -1;
  socklen_t size = sizeof nodelay;
  ASSERT_EQ(getsockopt(client.fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &size), 0);
  EXPECT_EQ(nodelay != 0, GetParam().nodelay);
  EXPECT_NE(listener.accept(5000), nullptr);
}

TEST_P(SocketOptionsTest, RefusedConnectionNamesTheSystemErrorAndClosesTheSocket) {
  Client client;
  EXPECT_EQ(text_of(connect_to(closed_port(), GetParam().options, &client)),
            "Error connecting: Connection refused (111)");
  EXPECT_EQ(client.fd, INVALID_SOCKET_HANDLE);
}

INSTANTIATE_TEST_SUITE_P(Bits, SocketOptionsTest,
                         testing::Values(OptionCase{0, false, false}, OptionCase{SOCKET_NONBLOCK, true, false},
                                         OptionCase{SOCKET_NODELAY, false, true}, OptionCase{4, false, false}));

TEST(SocketTest, SendAndReceiveOverLoopback) {
  Listener listener;
  Client client;
  ASSERT_EQ(connect_to(listener.port(), 4, &client), nullptr);
  std::unique_ptr<SocketStream> server = listener.accept(5000);
  ASSERT_NE(server, nullptr);

  ASSERT_EQ(socket_send(&client.fd, "", 0), nullptr);
  ASSERT_EQ(socket_send(&client.fd, "hello", 5), nullptr);
  char got[16] = {};
  ASSERT_EQ(server->read(got, sizeof got), 5u);
  EXPECT_EQ(std::string(got, 5), "hello");

  // A receive returns what has arrived without waiting to fill the buffer,
  // and never more than its capacity.
  server->write("abcdef", 6);
  size_t count = 0;
  ASSERT_EQ(socket_recv(&client.fd, got, 4, &count), nullptr);
  ASSERT_EQ(count, 4u);
  EXPECT_EQ(std::string(got, 4), "abcd");
  ASSERT_EQ(socket_recv(&client.fd, got, sizeof got, &count), nullptr);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(std::string(got, 2), "ef");
  EXPECT_EQ(socket_flush(&client.fd), nullptr);
}

TEST(SocketTest, ReceiveAfterPeerCloseGivesCountZero) {
  Listener listener;
  Client client;
  ASSERT_EQ(connect_to(listener.port(), 0, &client), nullptr);
  listener.accept(5000)->close();
  size_t count = 99;
  char buffer[8];
  EXPECT_EQ(socket_recv(&client.fd, buffer, sizeof buffer, &count), nullptr);
  EXPECT_EQ(count, 0u);
}

TEST(SocketTest, SendToClosedPeerFailsWithoutKillingTheProcess) {
  Listener listener;
  Client client;
  ASSERT_EQ(connect_to(listener.port(), 0, &client), nullptr);
  listener.accept(5000)->close();
  // The first sends may still be taken; once the reset has come back, a send
  // fails (and must not raise SIGPIPE, which would end this test program).
  std::string text = "(null)";
  for (int attempt = 0; attempt < 100 && text == "(null)"; ++attempt) {
    text = text_of(socket_send(&client.fd, "x", 1));
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(text.rfind("Bad error without sleep happened in socket_send(): ", 0), 0u) << text;
}

TEST(SocketTest, ReadableReportsArrivedDataAndEndOfStream) {
  Listener listener;
  Client client;
  ASSERT_EQ(connect_to(listener.port(), 0, &client), nullptr);
  std::unique_ptr<SocketStream> server = listener.accept(5000);
  ASSERT_NE(server, nullptr);
  EXPECT_FALSE(socket_readable(&client.fd, 0));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(socket_readable(&client.fd, 1));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
  server->write("x", 1);
  EXPECT_TRUE(socket_readable(&client.fd, 5));
  server->close();
  char byte;
  size_t count = 0;
  ASSERT_EQ(socket_recv(&client.fd, &byte, 1, &count), nullptr);
  EXPECT_TRUE(socket_readable(&client.fd, 0));  // the end of the stream is readable too
}

// A non-blocking socket waits in poll for the peer and gives up after the
// module's wait limit.
TEST(SocketTest, NonBlockingReceiveWaitsForDataThenTimesOut) {
  TimeoutGuard guard;
  socket_set_timeout(1);
  Listener listener;
  Client client;
  ASSERT_EQ(connect_to(listener.port(), SOCKET_NONBLOCK, &client), nullptr);
  std::unique_ptr<SocketStream> server = listener.accept(5000);
  ASSERT_NE(server, nullptr);

  std::thread writer([&server] {
    std::this_thread::sleep_for(100ms);
    server->write("late", 4);
  });
  char got[8];
  size_t count = 0;
  const char* text = socket_recv(&client.fd, got, sizeof got, &count);
  writer.join();
  ASSERT_EQ(text, nullptr) << text;
  EXPECT_EQ(std::string(got, count), "late");

  EXPECT_EQ(text_of(socket_recv(&client.fd, got, sizeof got, &count)), "Timeout in socket_recv()");
}

TEST(SocketTest, NonBlockingSendDeliversEverythingAndTimesOutWhenThePeerStopsReading) {
  TimeoutGuard guard;
  socket_set_timeout(1);
  Listener listener;
  Client client;
  ASSERT_EQ(connect_to(listener.port(), SOCKET_NONBLOCK, &client), nullptr);
  std::unique_ptr<SocketStream> server = listener.accept(5000);
  ASSERT_NE(server, nullptr);

  // Far more than the socket buffers hold, so the send has to wait for room.
  std::vector<char> data(8 << 20);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  std::vector<char> received;
  std::thread reader([&] {
    std::vector<char> chunk(1 << 16);
    while (received.size() < data.size()) {
      const uint64_t n = server->read(chunk.data(), chunk.size());
      received.insert(received.end(), chunk.begin(), chunk.begin() + static_cast<long>(n));
    }
  });
  const char* text = socket_send(&client.fd, data.data(), data.size());
  reader.join();
  EXPECT_EQ(text, nullptr) << text;
  EXPECT_TRUE(received == data);

  // Now nobody reads: the buffers fill and the send gives up.
  EXPECT_EQ(text_of(socket_send(&client.fd, data.data(), data.size())), "Timeout in socket_send()");
}

TEST(SocketTest, CloseReleasesTheSocketAndReportsABadHandle) {
  Listener listener;
  Client client;
  ASSERT_EQ(connect_to(listener.port(), SOCKET_NONBLOCK, &client), nullptr);
  EXPECT_EQ(socket_close(&client.fd), nullptr);
  EXPECT_EQ(client.fd, INVALID_SOCKET_HANDLE);
  socket_t bad = INVALID_SOCKET_HANDLE;
  EXPECT_EQ(text_of(socket_close(&bad)), "socket_close: Error at ioctlsocket: Bad file descriptor (9)");
  size_t count = 0;
  char byte;
  EXPECT_EQ(text_of(socket_recv(&bad, &byte, 1, &count)),
            "Bad error happened without sleep in socket_recv(): Bad file descriptor (9)");
  EXPECT_FALSE(socket_readable(&bad, 5));  // at once, not after five seconds
}

// --- name resolution -------------------------------------------------------

int g_lookups = 0;
SocketLookupResult g_answer;

SocketLookupResult scripted_lookup(const char*) {
  ++g_lookups;
  return g_answer;
}

class SocketResolveTest : public testing::Test {
 protected:
  void SetUp() override {
    g_lookups = 0;
    g_answer = SocketLookupResult();
  }
  void TearDown() override { socket_set_lookup(nullptr); }
  void script(SocketLookupResult answer) {
    g_answer = std::move(answer);
    socket_set_lookup(scripted_lookup);
  }
};

// A dotted quad needs no lookup, but the all-ones address goes to the name
// lookup, of whose answer only the first address is used.
TEST_F(SocketResolveTest, ScriptedLookup) {
  script({true, "", {htonl(0x01020304), htonl(0x05060708)}});
  uint32_t address = 0;
  EXPECT_EQ(socket_resolve("10.1.2.3", &address), nullptr);
  EXPECT_EQ(address, htonl(0x0A010203));
  EXPECT_EQ(g_lookups, 0);
  EXPECT_EQ(socket_resolve("255.255.255.255", &address), nullptr);
  EXPECT_EQ(g_lookups, 1);
  EXPECT_EQ(address, htonl(0x01020304));

  script({false, "Host not found", {}});
  EXPECT_EQ(text_of(socket_resolve("server.example", &address)),
            "Error resolving \"server.example\": Host not found");
  script({true, "", {}});
  EXPECT_EQ(text_of(socket_resolve("server.example", &address)),
            "No addresses found when resolving \"server.example\"");
}

TEST_F(SocketResolveTest, UnknownNameFailsWithTheSystemText) {
  // A label longer than 63 octets cannot be put in a query, so the lookup
  // fails on this machine without asking any name server.
  const std::string name = std::string(70, 'q') + ".test";
  auto outcome = std::make_shared<std::promise<std::string>>();
  std::future<std::string> result = outcome->get_future();
  std::thread([outcome, name] {
    uint32_t address = 0;
    outcome->set_value(text_of(socket_resolve(name.c_str(), &address)));
  }).detach();
  ASSERT_EQ(result.wait_for(10s), std::future_status::ready) << "the lookup did not finish in time";
  const std::string text = result.get();
  const std::string head = "Error resolving \"" + name + "\": ";
  EXPECT_EQ(text.rfind(head, 0), 0u) << text;
  EXPECT_GT(text.size(), head.size()) << "no system text";
}

// --- texts -----------------------------------------------------------------

TEST(SocketTextTest, StrerrorGivesSystemTextOrNumberedFallback) {
  EXPECT_EQ(std::string(socket_strerror(ECONNREFUSED)), "Connection refused");
  EXPECT_EQ(std::string(socket_strerror(99999)), "99999 (FormatMessage: 22)");
  EXPECT_EQ(std::string(socket_strerror(0xFFFFFFFFu)), "4294967295 (FormatMessage: 22)");
  const char* first = socket_strerror(EPIPE);
  socket_strerror(ECONNRESET);
  EXPECT_EQ(std::string(first), "Connection reset by peer");  // one buffer, overwritten
}

TEST(SocketTextTest, ErrorfAlternatesTwoBuffersAndCutsAt256) {
  const char* first = socket_errorf("first %d", 1);
  const char* second = socket_errorf("second %s", "two");
  EXPECT_NE(first, second);
  EXPECT_EQ(std::string(first), "first 1");  // still intact after one more message
  EXPECT_EQ(std::string(second), "second two");
  const char* third = socket_errorf("third");
  EXPECT_EQ(third, first);
  EXPECT_EQ(std::string(first), "third");
  EXPECT_EQ(socket_errorf("fourth"), second);

  const std::string long_text(300, 'x');
  const std::string cut = socket_errorf("%s", long_text.c_str());
  EXPECT_EQ(cut, std::string(255, 'x'));
}

// A non-blocking connect that the server never answers ends with the wait
// limit. A listener whose queue of unaccepted connections is full drops
// further attempts unanswered.
TEST(SocketTest, UnansweredNonBlockingConnectTimesOut) {
  TimeoutGuard guard;
  socket_set_timeout(1);
  Listener listener(0, 0);
  std::vector<std::unique_ptr<Client>> clients;
  std::string text;
  for (int attempt = 0; attempt < 6 && text != "Connection timed out"; ++attempt) {
    clients.push_back(std::make_unique<Client>());
    text = text_of(connect_to(listener.port(), SOCKET_NONBLOCK, clients.back().get()));
  }
  EXPECT_EQ(text, "Connection timed out");
  EXPECT_EQ(clients.back()->fd, INVALID_SOCKET_HANDLE);
}

}  // namespace
