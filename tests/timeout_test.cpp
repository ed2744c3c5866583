#include "support/error_text.h"
#include "net/connection.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "net/listener.h"
#include "support/run_export.h"
#include "support/server_harness.h"
#include "util/error.h"

namespace {

net::TransportSettings limit(unsigned seconds) {
  net::TransportSettings settings;
  settings.timeout = seconds;
  return settings;
}

// The text of the ESystemError that `action` raises, on a thread of its own
// so that the waits of several cases overlap.
template <class Action>
std::future<std::string> failure_of(Action action) {
  return std::async(std::launch::async, [action] { return support::errorText<util::ESystemError>(action); });
}

// Waits that end at the limit, all at once: a read and a write on a listener
// whose connections complete in the kernel but are never accepted (nothing
// is answered or read), a TLS handshake there, which counts as connecting,
// and a connect that is never answered (the queue of the second listener is
// full, so the kernel drops further requests).
TEST(TimedConnectionTest, AServerThatMakesNoProgressEndsTheWaitAfterTheLimit) {
  net::Listener silent(0, 4);
  const std::string port = std::to_string(silent.port());
  std::future<std::string> read = failure_of([&] {
    std::unique_ptr<net::BasicIo> reader = net::connectTcp("127.0.0.1", silent.port(), limit(2));
    reader->write("hello", 5);
    reader->flush();
    char buffer[16];
    reader->read(buffer, sizeof buffer);
  });
  std::future<std::string> write = failure_of([&] {
    std::unique_ptr<net::BasicIo> writer = net::connectTcp("127.0.0.1", silent.port(), limit(1));
    const std::string block(1 << 20, 'x');  // 256 of these: more than the buffers of both ends
    for (int i = 0; i < 256; ++i) writer->write(block.data(), block.size());
  });
  std::future<std::string> handshake = failure_of([&] {
    net::TransportSettings tls = limit(1);
    tls.tls = true;
    net::connectTcp("127.0.0.1", silent.port(), tls);
  });
  net::Listener full(0, 0);
  std::future<std::string> connect = failure_of([&] {
    std::vector<std::unique_ptr<net::BasicIo>> queued;
    for (int i = 0; i < 8; ++i) queued.push_back(net::connectTcp("127.0.0.1", full.port(), limit(1)));
  });
  EXPECT_EQ(read.get(), "No answer from server 127.0.0.1:" + port + " within 2 seconds");
  EXPECT_EQ(write.get(), "Server 127.0.0.1:" + port + " took no data within 1 second");
  EXPECT_EQ(handshake.get(), "Could not connect to server 127.0.0.1:" + port + " within 1 second");
  EXPECT_EQ(connect.get(), "Could not connect to server 127.0.0.1:" + std::to_string(full.port()) +
                               " within 1 second");
}

// Whole exports with the limit: an answer later than it ends the export
// before the output is opened, and is a lost connection to reconnecting
// (a server gone after the first connection fails the try at once, and the
// run ends with the failure that began the tries); one within it changes
// nothing. The command line's message for a bad value is in run_test.
TEST(TimeoutExportTest, OnlyAnAnswerLaterThanTheLimitEndsTheExport) {
  server::ServerOptions options;
  options.faults.delayMs = 2000;
  options.faults.goneAfterFirst = true;
  support::TestServer slow(support::exportable_database(), options);
  const support::Outcome late =
      support::run_exporter(slow.port(), {"-o", "timeout=1,reconnect=1,reconnect-wait=0"});
  const std::string lost = "No answer from server 127.0.0.1:" + std::to_string(slow.port()) + " within 1 second";
  EXPECT_EQ(late.failure, lost);
  EXPECT_EQ(late.document, "") << "the output is opened only after the lookups";
  EXPECT_NE(late.errors.find("Connection lost (" + lost + "); reconnecting, attempt 1 of 1\n"), std::string::npos)
      << late.errors;

  support::TestServer server(support::exportable_database());
  const support::Outcome untimed = support::run_exporter(server.port(), {});
  const support::Outcome timed = support::run_exporter(server.port(), {"-otimeout=1"});
  EXPECT_EQ(timed.exitCode, 0) << timed.errors;
  EXPECT_EQ(timed.document, untimed.document);
  EXPECT_EQ(timed.errors, untimed.errors);
}

}  // namespace
