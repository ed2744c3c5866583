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
#include "util/error.h"

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
  std::string all() const {
    std::string s;
    for (const auto& p : pieces) s += p;
    return s;
  }
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

TEST(ReplyWriter, ChunksEveryReplyIntoPiecesOfTheGivenSize) {
  PieceSink sink;
  server::write_in_chunks(sink, "abcdefg", 3);
  EXPECT_EQ(sink.pieces, (std::vector<std::string>{"abc", "def", "g"}));
  PieceSink whole;
  server::write_in_chunks(whole, "abcdefg", 0);
  EXPECT_EQ(whole.pieces, (std::vector<std::string>{"abcdefg"}));
}

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
  const std::string stray = server::error_response(0x7FFFFFFF, 13, "stray answer", false);
  EXPECT_EQ(sink.all(), std::string("\x19\0\x19", 3) + "A" + std::string("\x19\0\x19", 3) + stray + "B");
}

TEST(ReplyWriter, ReversesWithinWindowsAndFlushesAPartialOne) {
  PieceSink sink;
  server::FaultOptions f;
  f.reverseWindow = 3;
  {
    server::ReplyWriter writer(sink, f, false);
    for (const char* a : {"1", "2", "3", "4", "5"}) writer.submit(a, server::Clock::now());
    EXPECT_TRUE(writer.windowPending());
    writer.flushWindow();
  }
  EXPECT_EQ(sink.all(), "32154");
}

// ---------------------------------------------------------------------------
// Faults end to end.

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

TEST(ServerFaults, ReverseWindowAnswersOutOfOrder) {
  server::FaultOptions f;
  f.reverseWindow = 3;
  TestServer s(server_test::sample_database(), with_faults(f));
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendBytes(burst(c, 0, 6));
  EXPECT_EQ(receive_ids(c, 6), (std::vector<int32_t>{2, 1, 0, 5, 4, 3}));
  c.sendBytes(burst(c, 6, 2));  // a partial window goes out when nothing follows
  EXPECT_EQ(receive_ids(c, 2), (std::vector<int32_t>{7, 6}));
}

TEST(ServerFaults, StrayResponsesCarryIdsNeverAsked) {
  server::FaultOptions f;
  f.strayEvery = 1;
  TestServer s(server_test::sample_database(), with_faults(f));
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendBytes(burst(c, 0, 2));
  EXPECT_EQ(receive_ids(c, 4), (std::vector<int32_t>{0x7FFFFFFF, 0, 0x7FFFFFFE, 1}));
}

TEST(ServerFaults, CloseAtRequestAnswersTheEarlierOnesThenCloses) {
  server::FaultOptions f;
  f.closeAtRequest = 3;
  f.delayMs = 50;
  TestServer s(server_test::sample_database(), with_faults(f));
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendBytes(burst(c, 0, 5));
  EXPECT_EQ(receive_ids(c, 5), (std::vector<int32_t>{0, 1}));
  EXPECT_TRUE(c.ended());
  EXPECT_EQ(c.decodeError(), "");
}

TEST(ServerFaults, MalformedAtRequestSendsUndecodableOctets) {
  server::FaultOptions f;
  f.malformedAtRequest = 2;
  TestServer s(server_test::sample_database(), with_faults(f));
  RawClient c(s.port());
  ASSERT_TRUE(c.login());
  c.sendBytes(burst(c, 0, 3));
  EXPECT_EQ(receive_ids(c, 3), (std::vector<int32_t>{0}));
  EXPECT_EQ(c.decodeError(), "Length field too long");
}

struct ClientFaultCase {
  const char* name;
  server::FaultOptions faults;
};

class ServerFaultsWithClientTest : public testing::TestWithParam<ClientFaultCase> {};

// The client library copes with every harmless fault: it reassembles chunks,
// skips filler and drops stray and reordered answers on the way.
TEST_P(ServerFaultsWithClientTest, ClientStillGetsEveryAnswer) {
  TestServer s(server_test::sample_database(), with_faults(GetParam().faults));
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

server::FaultOptions chunked(uint32_t n) {
  server::FaultOptions f;
  f.chunkSize = n;
  return f;
}
server::FaultOptions noisy() {
  server::FaultOptions f;
  f.filler = 5;
  f.strayEvery = 1;
  return f;
}
server::FaultOptions reversed() {
  server::FaultOptions f;
  f.reverseWindow = 4;
  return f;
}

INSTANTIATE_TEST_SUITE_P(Faults, ServerFaultsWithClientTest,
                         testing::Values(ClientFaultCase{"chunk_1", chunked(1)},
                                         ClientFaultCase{"chunk_7", chunked(7)},
                                         ClientFaultCase{"filler_and_stray", noisy()},
                                         ClientFaultCase{"reversed", reversed()}),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Malformed input and abrupt disconnects.

struct GarbageCase {
  const char* name;
  bool afterLogin;
  std::string bytes;
};

class ServerGarbageTest : public testing::TestWithParam<GarbageCase> {};

TEST_P(ServerGarbageTest, ClosesTheConnectionAndServesTheNextOne) {
  TestServer s(server_test::sample_database());
  {
    RawClient bad(s.port());
    if (GetParam().afterLogin) {
      ASSERT_TRUE(bad.login());
    }
    bad.sendBytes(GetParam().bytes);
    EXPECT_TRUE(bad.waitForClose());
  }
  RawClient good(s.port());
  ASSERT_TRUE(good.login());
  good.sendSelect(1, {"root"}, ".!");
  auto response = good.receiveAs<protocol::Response>();
  ASSERT_TRUE(response);
  EXPECT_TRUE(dynamic_cast<protocol::SelectResp*>(response->resp.get()));
}

INSTANTIATE_TEST_SUITE_P(
    Garbage, ServerGarbageTest,
    testing::Values(
        GarbageCase{"unknown_tag_first", false, std::string("\x7F\x30\x80\x00\x00", 5)},
        GarbageCase{"long_length_first", false, std::string("\x60\x85\x01\x01\x01\x01\x01", 7)},
        GarbageCase{"unknown_tag", true, std::string("\x7F\x30\x80\x00\x00", 5)},
        GarbageCase{"primitive_indefinite", true, std::string("\x74\x80\x02\x80", 4)},
        GarbageCase{"nonzero_after_zero", true, std::string("\x74\x80\x00\x05", 4)},
        GarbageCase{"too_few_fields", true, std::string("\x74\x80\x02\x01\x01\x00\x00", 7)},
        GarbageCase{"wrong_alternative", true, std::string("\x74\x80\x02\x01\x01\xA4\x80\x00\x00\x00\x00", 11)},
        GarbageCase{"overlong_string", true,
                    std::string("\x74\x80\x02\x01\x01\xA0\x80\x31\x80\x04\x82\x01\x00", 13) +
                        std::string(256, 'x')}),
    [](const auto& info) { return std::string(info.param.name); });

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

struct ArgsCase {
  const char* name;
  std::vector<const char*> args;
  const char* error;  // empty: accepted
};

class ServerArgsTest : public testing::TestWithParam<ArgsCase> {};

TEST_P(ServerArgsTest, AcceptsOrRejectsWithAReason) {
  std::vector<const char*> argv{"talvix-server"};
  argv.insert(argv.end(), GetParam().args.begin(), GetParam().args.end());
  server::ParsedArgs parsed = server::parse_server_args(static_cast<int>(argv.size()), argv.data());
  EXPECT_EQ(parsed.error, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Args, ServerArgsTest,
    testing::Values(
        ArgsCase{"db", {"--db", "x.json"}, ""},
        ArgsCase{"generate_everything", {"--generate", "2x3x4x5/2", "--port", "0", "--offer-version", "0x0205",
                                         "--auth", "password", "--nack", "no", "--legacy-greeting",
                                         "--delay-ms", "5", "--chunk", "1", "--filler", "2",
                                         "--stray-every", "3", "--reverse-window", "4",
                                         "--close-at", "9", "--malformed-at", "8"}, ""},
        ArgsCase{"no_database", {"--port", "0"}, "give exactly one of --db FILE and --generate SHAPE"},
        ArgsCase{"two_databases", {"--db", "a", "--generate", "1x1x1x1"},
                 "give exactly one of --db FILE and --generate SHAPE"},
        ArgsCase{"missing_value", {"--db"}, "option --db needs a value"},
        ArgsCase{"port_too_big", {"--db", "a", "--port", "65536"}, "bad port: 65536"},
        ArgsCase{"negative_delay", {"--db", "a", "--delay-ms", "-1"}, "bad delay: -1"},
        ArgsCase{"bad_auth", {"--db", "a", "--auth", "kerberos"}, "bad authentication: kerberos"},
        ArgsCase{"unknown", {"--db", "a", "--verbose", "1"}, "unknown option --verbose"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ServerArgs, ValuesArriveInTheOptions) {
  const char* argv[] = {"talvix-server", "--generate", "1x1x1x1", "--offer-version", "0x0300",
                        "--auth", "private-key", "--reverse-window", "4", "--close-at", "9"};
  server::ParsedArgs parsed = server::parse_server_args(11, argv);
  ASSERT_EQ(parsed.error, "");
  EXPECT_EQ(parsed.options.generateShape, "1x1x1x1");
  EXPECT_EQ(parsed.options.handshake.version, 0x0300);
  EXPECT_EQ(parsed.options.handshake.auth, server::OfferedAuth::kPrivateKey);
  EXPECT_EQ(parsed.options.faults.reverseWindow, 4u);
  EXPECT_EQ(parsed.options.faults.closeAtRequest, 9u);
  const char* help[] = {"talvix-server", "--help"};
  EXPECT_TRUE(server::parse_server_args(2, help).help);
}

}  // namespace
