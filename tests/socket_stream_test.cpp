// The socket streams, connectTcp and ConnectionFactory against our loopback
// listener: what the client sees of a server that answers, closes or is gone.
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "net/connection.h"
#include "net/listener.h"
#include "net/osal_socket.h"
#include "net/socket.h"
#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using namespace std::chrono_literals;
using net::BasicIo;
using net::Listener;
using net::OsalSocket;
using net::SocketStream;

std::string read_exactly(BasicIo& stream, size_t length) {
  std::string got;
  char buffer[256];
  while (got.size() < length) got.append(buffer, stream.read(buffer, std::min(sizeof buffer, length - got.size())));
  return got;
}

// Whether data shows up on `stream` within `wait`.
bool arrives_within(BasicIo& stream, std::chrono::milliseconds wait) {
  for (const auto deadline = std::chrono::steady_clock::now() + wait; std::chrono::steady_clock::now() < deadline;) {
    if (stream.readable()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return stream.readable();
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
    EXPECT_TRUE(arrives_within(client, 5000ms));
    EXPECT_EQ(read_exactly(client, 5), "pong!");
  }
}

// The first writes may still be taken; once the reset has come back, a write
// fails (and must not raise SIGPIPE, which would end this test program).
TEST(SocketStreamTest, WriteToClosedPeerFailsWithoutEndingTheProcess) {
  Listener listener;
  OsalSocket client("127.0.0.1", listener.port());
  listener.accept(5000)->close();
  std::string text = "(no error)";
  for (int attempt = 0; attempt < 100 && text == "(no error)"; ++attempt) {
    text = peer::errorText<util::ESystemError>([&] { client.write("data", 4); });
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(text.rfind("Error writing to socket: Bad error without sleep happened in socket_send(): ", 0), 0u)
      << text;
}

// A refused connection's text is pinned end to end; a failed lookup reaches
// the caller with the socket layer's text alone. A label longer than 63
// octets fails the lookup on this machine without asking any name server.
TEST(SocketStreamTest, FailedLookupCarriesTheSocketTextAlone) {
  const std::string name = std::string(70, 'q') + ".test";
  const std::string unresolved =
      peer::errorText<util::ESystemError>([&] { OsalSocket(name, 1); });
  const std::string head = "Error resolving \"" + name + "\": ";
  EXPECT_EQ(unresolved.rfind(head, 0), 0u) << unresolved;
  EXPECT_GT(unresolved.size(), head.size()) << "no system text";
}

TEST(SocketStreamTest, ClosedStreamReportsBadDescriptor) {
  Listener listener;
  OsalSocket client("127.0.0.1", listener.port());
  client.close();
  client.close();  // a second close does nothing
  char byte;
  EXPECT_EQ(peer::errorText<util::ESystemError>([&] { client.read(&byte, 1); }),
            "Error reading from socket: Bad error happened without sleep in socket_recv(): Bad "
            "file descriptor (9)");
  EXPECT_EQ(peer::errorText<util::ESystemError>([&] { client.write("x", 1); }),
            "Error writing to socket: Bad error without sleep happened in socket_send(): Bad file "
            "descriptor (9)");
  EXPECT_FALSE(client.readable());
}

// The port is taken as its low 16 bits; output waits in the buffer until
// flush; the peer's close is the end of the stream.
TEST(ConnectTcpTest, OutputWaitsInTheBufferUntilFlush) {
  Listener listener;
  std::unique_ptr<BasicIo> client = net::connectTcp("127.0.0.1", listener.port() + 0x10000u);
  std::unique_ptr<SocketStream> server = listener.accept(5000);
  ASSERT_NE(server, nullptr);
  client->write("request", 7);
  EXPECT_FALSE(arrives_within(*server, 200ms));
  client->flush();
  EXPECT_EQ(read_exactly(*server, 7), "request");
  server->write("answer", 6);
  EXPECT_EQ(read_exactly(*client, 6), "answer");
  server->close();
  char got[64];
  EXPECT_EQ(peer::errorText<util::ESystemError>([&] { client->read(got, sizeof got); }),
            "Error reading: OsalSocket::read end of stream");
}

}  // namespace
