// The stand-in server's fault and latency options, its command line, and
// its robustness against malformed input and abrupt disconnects.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "client/request.h"
#include "client/select.h"
#include "client/session.h"
#include "net/connection.h"
#include "server/reply_writer.h"
#include "server/request_handler.h"
#include "server/server_options.h"
#include "support/server_harness.h"

namespace {

using server_test::RawClient;
using server_test::TestServer;

server::ServerOptions with_faults(server::FaultOptions f) {
  server::ServerOptions o;
  o.faults = f;
  return o;
}

// Collects each write as one piece.
class PieceSink : public protocol::BasicIo {
 public:
  void write(const void* data, size_t length) override {
    pieces.emplace_back(static_cast<const char*>(data), length);
  }
  void flush() override {}
  std::vector<std::string> pieces;
};

std::vector<int32_t> receive_ids(RawClient& c, size_t count) {
  std::vector<int32_t> ids;
  for (size_t i = 0; i < count; ++i) {
    auto r = c.receiveAs<protocol::Response>();
    if (!r) break;
    ids.push_back(r->id);
  }
  return ids;
}

std::string burst(RawClient& c, int32_t first, int32_t count) {
  std::string bytes;
  for (int32_t id = first; id < first + count; ++id) bytes += c.selectBytes(id, "root", ".!");
  return bytes;
}

// ---------------------------------------------------------------------------
// The reply writer on its own: exact octets and pieces.

// Answers due at the same time must leave in one write, or pipelined answers
// stall on acknowledgements.
TEST(ReplyWriter, AnswersDueTogetherLeaveInOneWriteUnlessChunked) {
  PieceSink together;
  {
    server::ReplyWriter writer(together, server::FaultOptions(), false);
    const auto due = server::Clock::now() + std::chrono::milliseconds(30);
    writer.submit("ab", due);
    writer.submit("cd", due);
  }
  EXPECT_EQ(together.pieces, (std::vector<std::string>{"abcd"}));
  PieceSink chunked;
  server::FaultOptions f;
  f.chunkSize = 2;
  {
    server::ReplyWriter writer(chunked, f, false);
    writer.submit("ab", server::Clock::now());
    writer.submit("cde", server::Clock::now());
  }
  EXPECT_EQ(chunked.pieces, (std::vector<std::string>{"ab", "cd", "e"}));
}

TEST(ReplyWriter, FillerAndStrayAnswersGoBeforeTheAnswer) {
  PieceSink sink;
  server::FaultOptions f;
  f.filler = 3;
  f.strayEvery = 2;
  {
    server::ReplyWriter writer(sink, f, false);
    writer.submit("A", server::Clock::now());
    writer.submit("B", server::Clock::now());
  }
  std::string all;
  for (const auto& p : sink.pieces) all += p;
  const std::string stray = server::error_response(0x7FFFFFFF, 13, "stray answer", false);
  EXPECT_EQ(all, std::string("\x19\0\x19", 3) + "A" + std::string("\x19\0\x19", 3) + stray + "B");
}

// ---------------------------------------------------------------------------
// Faults end to end.

struct FaultCase {
  const char* name;
  server::FaultOptions faults;
  int32_t requests;
  std::vector<int32_t> ids;  // of the answers, in arrival order
  const char* ending;        // null: stays open; "": closed; else the decode error
};

server::FaultOptions faults(uint32_t reverse, uint32_t stray, uint32_t closeAt, uint32_t malformedAt,
                            uint32_t delayMs = 0) {
  server::FaultOptions f;
  f.reverseWindow = reverse;
  f.strayEvery = stray;
  f.closeAtRequest = closeAt;
  f.malformedAtRequest = malformedAt;
  f.delayMs = delayMs;
  return f;
}

class ServerFaultTest : public testing::TestWithParam<FaultCase> {};

TEST_P(ServerFaultTest, DoesWhatTheOptionSays) {
  const FaultCase& k = GetParam();
  TestServer s(server_test::sample_database(), with_faults(k.faults));
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendBytes(burst(c, 0, k.requests));
  EXPECT_EQ(receive_ids(c, k.ids.size()), k.ids);
  if (k.ending != nullptr) {
    EXPECT_EQ(c.receive(), nullptr);
    EXPECT_TRUE(c.ended());
    EXPECT_EQ(c.decodeError(), k.ending);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ServerFaultTest,
    testing::Values(
        // The last window is partial and goes out when nothing follows.
        FaultCase{"reverse_window", faults(3, 0, 0, 0), 8, {2, 1, 0, 5, 4, 3, 7, 6}, nullptr},
        FaultCase{"stray_every", faults(0, 1, 0, 0), 2, {0x7FFFFFFF, 0, 0x7FFFFFFE, 1}, nullptr},
        // The delay keeps the earlier answers owed when the closing request arrives.
        FaultCase{"close_at", faults(0, 0, 3, 0, 50), 5, {0, 1}, ""},
        FaultCase{"malformed_at", faults(0, 0, 0, 2), 3, {0}, "Length field too long"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ServerFaults, DelaysOfPipelinedRequestsOverlap) {
  server::FaultOptions f;
  f.delayMs = 400;
  TestServer s(server_test::sample_database(), with_faults(f));
  RawClient c(s.port(), std::chrono::milliseconds(10000));
  ASSERT_TRUE(c.login());
  const auto start = std::chrono::steady_clock::now();
  c.sendBytes(burst(c, 0, 8));
  EXPECT_EQ(receive_ids(c, 8), (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6, 7}));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(400));
  // Eight delays in a row would take 3.2 s; overlapping they take one, and the
  // wide margin keeps a loaded machine from failing the test.
  EXPECT_LT(elapsed, std::chrono::milliseconds(2800));
}

// The client library copes with every harmless fault at once: it reassembles
// one-octet chunks, skips filler and drops stray and reordered answers.
TEST(ServerFaults, ClientStillGetsEveryAnswerThroughHarmlessFaults) {
  server::FaultOptions f = faults(4, 1, 0, 0);
  f.chunkSize = 1;
  f.filler = 5;
  TestServer s(server_test::sample_database(), with_faults(f));
  auto session = openSession(ConnectionFactory(), "127.0.0.1", s.port(), "Exporter", "admin",
                             "secret", "lab");
  std::vector<std::shared_ptr<tqlquery::Select>> selects;
  for (const char* id : {"root", "europe", "asia", "n1"}) {
    selects.push_back(std::make_shared<tqlquery::Select>(id, ".!", 0));
    comquery::send(*session, selects.back());
  }
  for (const auto& select : selects) {
    EXPECT_EQ(comquery::await(*session, *select), 0u);
    EXPECT_EQ(select->find_result_opt("asia") != nullptr, select.get() == selects[2].get());
  }
}

// ---------------------------------------------------------------------------
// Malformed input and abrupt disconnects.

TEST(ServerRobustness, GarbageClosesTheConnectionAndTheNextOneIsServed) {
  struct Case {
    const char* name;
    bool afterLogin;
    std::string bytes;
  } const cases[] = {
      {"unknown_tag_first", false, std::string("\x7F\x30\x80\x00\x00", 5)},
      {"unknown_tag", true, std::string("\x7F\x30\x80\x00\x00", 5)},
      {"too_few_fields", true, std::string("\x74\x80\x02\x01\x01\x00\x00", 7)},
      {"overlong_string", true,
       std::string("\x74\x80\x02\x01\x01\xA0\x80\x31\x80\x04\x82\x01\x00", 13) + std::string(256, 'x')},
  };
  TestServer s(server_test::sample_database());
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    RawClient bad(s.port());
    if (k.afterLogin) {
      ASSERT_TRUE(bad.login());
    }
    bad.sendBytes(k.bytes);
    EXPECT_TRUE(bad.waitForClose());
    RawClient good(s.port());
    ASSERT_TRUE(good.login());
    good.sendSelect(1, {"root"}, ".!");
    auto response = good.receiveAs<protocol::Response>();
    ASSERT_TRUE(response);
    EXPECT_TRUE(dynamic_cast<protocol::SelectResp*>(response->resp.get()));
  }
}

TEST(ServerRobustness, AbruptDisconnectsDoNotStopTheServer) {
  server::FaultOptions f;
  f.delayMs = 100;  // answers still owed when the clients vanish
  TestServer s(server_test::sample_database(), with_faults(f));
  for (int i = 0; i < 5; ++i) {
    RawClient c(s.port());
    if (i % 2 == 0) {
      ASSERT_TRUE(c.login());
      std::string half = burst(c, 0, 3);
      c.sendBytes(half.substr(0, half.size() - 5));  // the last request cut short
    } else {
      c.sendBytes(std::string("\x60\x80\x02", 3));  // inside ClientWants
    }
    c.closeNow();
  }
  RawClient good(s.port());
  ASSERT_TRUE(good.login());
  good.sendSelect(1, {"root"}, ".!");
  EXPECT_EQ(receive_ids(good, 1), (std::vector<int32_t>{1}));
  EXPECT_EQ(s.server().accepted(), 6u);
}

TEST(ServerRobustness, StopEndsIdleAndBusyConnections) {
  auto s = std::make_unique<TestServer>(server_test::sample_database());
  RawClient idle(s->port());
  RawClient loggedIn(s->port());
  ASSERT_TRUE(loggedIn.login());
  s.reset();  // must not wait for the clients
  EXPECT_TRUE(idle.waitForClose());
  EXPECT_TRUE(loggedIn.waitForClose());
}

// ---------------------------------------------------------------------------
// The command line.

server::ParsedArgs parse(std::vector<const char*> args) {
  args.insert(args.begin(), "talvix-server");
  return server::parse_server_args(static_cast<int>(args.size()), args.data());
}

TEST(ServerArgs, RefusesWithAReason) {
  struct Case {
    std::vector<const char*> args;
    const char* error;
  } const cases[] = {
      {{"--port", "0"}, "give exactly one of --db FILE and --generate SHAPE"},
      {{"--db", "a", "--generate", "1x1x1x1"}, "give exactly one of --db FILE and --generate SHAPE"},
      {{"--db"}, "option --db needs a value"},
      {{"--db", "a", "--port", "65536"}, "bad port: 65536"},
      {{"--db", "a", "--auth", "kerberos"}, "bad authentication: kerberos"},
      {{"--db", "a", "--verbose", "1"}, "unknown option --verbose"},
  };
  for (const Case& k : cases) EXPECT_EQ(parse(k.args).error, k.error);
}

TEST(ServerArgs, EveryOptionArrivesInTheOptions) {
  server::ParsedArgs parsed =
      parse({"--generate", "2x3x4x5/2", "--port", "65535", "--offer-version", "0x0300", "--auth",
             "private-key", "--nack", "no", "--legacy-greeting", "--delay-ms", "5", "--chunk", "1",
             "--filler", "2", "--stray-every", "3", "--reverse-window", "4", "--close-at", "9",
             "--malformed-at", "8"});
  ASSERT_EQ(parsed.error, "");
  const server::ServerOptions& o = parsed.options;
  EXPECT_EQ(o.generateShape, "2x3x4x5/2");
  EXPECT_EQ(o.port, 65535);
  EXPECT_EQ(o.handshake.version, 0x0300);
  EXPECT_EQ(o.handshake.auth, server::OfferedAuth::kPrivateKey);
  EXPECT_EQ(o.handshake.nackReason, "no");
  EXPECT_TRUE(o.handshake.legacyGreeting);
  EXPECT_EQ(std::vector<uint32_t>({o.faults.delayMs, o.faults.chunkSize, o.faults.filler,
                                   o.faults.strayEvery, o.faults.reverseWindow,
                                   o.faults.closeAtRequest, o.faults.malformedAtRequest}),
            std::vector<uint32_t>({5, 1, 2, 3, 4, 9, 8}));
  EXPECT_TRUE(parse({"--help"}).help);
}

}  // namespace
