#include "net/timed_connection.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "net/listener.h"
#include "porter/export_state.h"
#include "porter/run.h"
#include "porter/xml_export.h"
#include "support/run_export.h"
#include "support/server_harness.h"
#include "util/error.h"

namespace {

std::string failure_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const error::ESystemError& e) {
    return e.text();
  }
  return "(no failure)";
}

// A listener whose connections complete in the kernel but are never accepted:
// the connect succeeds and nothing is ever answered or read.
TEST(TimedConnectionTest, AServerThatNeverAnswersEndsAReadAfterTheLimit) {
  old_protocol::Listener silent(0, 4);
  const std::string port = std::to_string(silent.port());
  std::unique_ptr<old_protocol::BasicIo> stream = connectTcpWithin("127.0.0.1", silent.port(), 1);
  stream->write("hello", 5);
  stream->flush();
  char buffer[16];
  EXPECT_EQ(failure_of([&] { stream->read(buffer, sizeof buffer); }),
            "No answer from server 127.0.0.1:" + port + " within 1 second");
}

TEST(TimedConnectionTest, AServerThatNeverReadsEndsAWriteAfterTheLimit) {
  old_protocol::Listener silent(0, 4);
  std::unique_ptr<old_protocol::BasicIo> stream = connectTcpWithin("127.0.0.1", silent.port(), 1);
  // Far more than the socket buffers of both ends hold.
  const std::string block(1 << 20, 'x');
  const std::string failure = failure_of([&] {
    for (int i = 0; i < 256; ++i) stream->write(block.data(), block.size());
  });
  EXPECT_EQ(failure, "Server 127.0.0.1:" + std::to_string(silent.port()) +
                         " took no data within 1 second");
}

TEST(TimedConnectionTest, ATimedStreamCarriesAConversationAndSeesTheEnd) {
  old_protocol::Listener listener;
  std::unique_ptr<old_protocol::BasicIo> client = connectTcpWithin("127.0.0.1", listener.port(), 5);
  std::unique_ptr<old_protocol::SocketStream> peer = listener.accept(5000);
  ASSERT_NE(peer, nullptr);

  client->write("ping", 4);
  client->flush();
  char buffer[8] = {};
  ASSERT_EQ(peer->read(buffer, sizeof buffer), 4u);
  EXPECT_EQ(std::string(buffer, 4), "ping");

  peer->write("pong!", 5);
  EXPECT_EQ(client->read(buffer, sizeof buffer), 5u);
  EXPECT_EQ(std::string(buffer, 5), "pong!");

  peer->close();
  EXPECT_EQ(failure_of([&] { client->read(buffer, sizeof buffer); }),
            "Error reading: OsalSocket::read end of stream");
}

TEST(TimedConnectionTest, ConnectFailuresKeepTheSocketLayersTexts) {
  uint16_t closedPort = 0;
  {
    old_protocol::Listener gone;
    closedPort = gone.port();
  }
  EXPECT_EQ(failure_of([&] { connectTcpWithin("127.0.0.1", closedPort, 1); }).rfind(
                "Error connecting: Connection refused (", 0),
            0u);
}

// A connect that is never completed: the listener's queue is full, so the
// kernel drops further connection requests instead of answering them.
TEST(TimedConnectionTest, AConnectThatIsNeverAnsweredEndsAfterTheLimit) {
  old_protocol::Listener full(0, 0);
  std::vector<std::unique_ptr<old_protocol::BasicIo>> queued;
  std::string failure;
  for (int i = 0; i < 8 && failure.empty(); ++i) {
    try {
      queued.push_back(connectTcpWithin("127.0.0.1", full.port(), 1));
    } catch (const error::ESystemError& e) {
      failure = e.text();
    }
  }
  EXPECT_EQ(failure, "Could not connect to server 127.0.0.1:" + std::to_string(full.port()) +
                         " within 1 second");
}

// Whole exports with the limit.
TEST(TimeoutExportTest, AnAnswerLaterThanTheLimitEndsTheExport) {
  server::ServerOptions options;
  options.faults.delayMs = 4000;
  server_test::TestServer server(export_test::exportable_database(), options);
  export_test::ExportRun run;
  run.port = server.port();
  run.timeout = 1;
  const export_test::ExportOutcome outcome = export_test::run_export(run);
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.failure,
            "No answer from server 127.0.0.1:" + std::to_string(server.port()) + " within 1 second");
  EXPECT_EQ(outcome.document, "") << "the output is opened only after the lookups";
}

TEST(TimeoutExportTest, TheCommandLineReportsTheLimitAndExitsWithOne) {
  server::ServerOptions options;
  options.faults.delayMs = 4000;
  server_test::TestServer server(export_test::exportable_database(), options);
  const std::string port = std::to_string(server.port());
  std::vector<std::string> args = {"talvix-exporter", "-s", "127.0.0.1", "-p", port, "-l",
                                   "admin", "-P", "secret", "-d", ".", "-o", "timeout=2"};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  std::ostringstream err, document;
  const int code = porter::run_command_line(
      static_cast<int>(argv.size()), argv.data(),
      [&](const porter::RunSettings& s) {
        const porter::XMLExport prototype(ElementKind::Object, err);
        porter::ExportEnvironment environment;
        environment.standardOutput = &document;
        environment.errorStream = &err;
        environment.extra = s.extra;
        if (s.extra.timeout > 0) environment.connector = timedConnectionFactory(s.extra.timeout);
        porter::export_database(s.server, s.port, s.login, s.password, s.loginDomain,
                                s.exportDomain, s.outputFileName, prototype, s.classFilter,
                                s.history, s.gzip, environment);
      },
      err);
  porter::export_state().err = &std::cerr;  // err ends with this test
  EXPECT_EQ(code, 1);
  EXPECT_EQ(err.str(), "Error\nNo answer from server 127.0.0.1:" + port + " within 2 seconds\n");
}

TEST(TimeoutExportTest, AnExportWithinTheLimitWritesTheSameDocument) {
  server_test::TestServer server(export_test::exportable_database());
  export_test::ExportRun run;
  run.port = server.port();
  const export_test::ExportOutcome untimed = export_test::run_export(run);
  ASSERT_TRUE(untimed.ok) << untimed.failure;
  run.timeout = 30;
  const export_test::ExportOutcome timed = export_test::run_export(run);
  ASSERT_TRUE(timed.ok) << timed.failure;
  EXPECT_EQ(timed.document, untimed.document);
  EXPECT_EQ(timed.err, untimed.err);
}

}  // namespace
