// The stand-in server's fault and latency options, its command line, and
// its robustness against malformed input and abrupt disconnects. Closing and
// undecodable answers at each request are swept by the pipelined export tests.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "server/reply_writer.h"
#include "server/request_handler.h"
#include "server/server_options.h"
#include "support/server_harness.h"

namespace {

using support::RawClient;
using support::TestServer;

server::ServerOptions with_faults(const server::FaultOptions& faults) {
  server::ServerOptions o;
  o.faults = faults;
  return o;
}

// Collects each write as one piece.
class PieceSink : public net::ByteOutput {
 public:
  void write(const void* data, size_t length) override { pieces.emplace_back(static_cast<const char*>(data), length); }
  void flush() override {}
  std::vector<std::string> pieces;
};

// The ids of the next `count` Responses, fewer when the answers stop.
std::vector<int32_t> receive_ids(RawClient& c, size_t count) {
  std::vector<int32_t> ids;
  while (ids.size() < count) {
    auto r = c.receiveAs<protocol::Response>();
    if (!r) break;
    ids.push_back(r->id);
  }
  return ids;
}

// Requests 0 to count-1, each selecting the root alone.
std::string burst(RawClient& c, int32_t count) {
  std::string bytes;
  for (int32_t id = 0; id < count; ++id) bytes += c.requestBytes(id, support::select_req({"root"}, ".!"));
  return bytes;
}

// Answers due together leave in one write, or pipelined answers stall on
// acknowledgements; without faults, the answers held together leave in one
// write and the others at once; chunked replies go piece by piece; filler
// and stray answers go before the answer.
TEST(ReplyWriter, WritesOfTwoAnswersDueTogether) {
  const std::string filler("\x19\0\x19", 3);
  const std::string stray = server::error_response(0x7FFFFFFF, 13, "stray answer", false);
  const struct {
    server::FaultOptions faults;
    bool held;
    std::vector<std::string> pieces;
  } cases[] = {
      {{}, true, {"abcde"}},
      {{}, false, {"ab", "cde"}},
      {{.delayMs = 30}, false, {"abcde"}},
      {{.chunkSize = 2}, false, {"ab", "cd", "e"}},
      {{.filler = 3, .strayEvery = 2}, false, {filler + "ab" + filler + stray + "cde"}},
  };
  for (const auto& k : cases) {
    PieceSink sink;
    {
      server::ReplyWriter writer(sink, k.faults, false);
      const auto due = server::Clock::now() + std::chrono::milliseconds(30);
      if (k.held) writer.hold();
      writer.submit("ab", due);
      writer.submit("cde", due);
      if (k.held) writer.release();
    }
    EXPECT_EQ(sink.pieces, k.pieces);
  }
}

// Each run takes at least its delay, and well below eight delays in a row:
// the delays of pipelined requests overlap (the wide margin keeps a loaded
// machine from failing the test).
TEST(ServerFaults, AnswersArriveAsTheOptionSays) {
  const struct {
    const char* name;
    server::FaultOptions faults;
    int32_t requests;
    std::vector<int32_t> ids;  // of the answers, in arrival order
    bool closes;
    // Faults limited to the first connection: the ids of a second one.
    std::vector<int32_t> secondIds = {};
  } cases[] = {
      // The last window is partial and goes out when nothing follows.
      {"reverse_window", {.reverseWindow = 3}, 8, {2, 1, 0, 5, 4, 3, 7, 6}, false},
      {"stray_every", {.strayEvery = 1}, 2, {0x7FFFFFFF, 0, 0x7FFFFFFE, 1}, false},
      // The delay keeps the earlier answers owed when the closing request arrives.
      {"close_at", {.delayMs = 50, .closeAtRequest = 3}, 5, {0, 1}, true},
      {"delays_overlap", {.delayMs = 400}, 8, {0, 1, 2, 3, 4, 5, 6, 7}, false},
      {"malformed_first_only", {.malformedAtRequest = 1, .faultConnections = 1}, 2, {}, false, {0, 1}},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    TestServer s(support::sample_database(), with_faults(k.faults));
    RawClient c(s.port());
    ASSERT_TRUE(c.login());
    const auto start = std::chrono::steady_clock::now();
    c.sendBytes(burst(c, k.requests));
    EXPECT_EQ(receive_ids(c, k.ids.size()), k.ids);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(k.faults.delayMs));
    EXPECT_LT(elapsed, std::chrono::milliseconds(2800));
    if (k.closes) {
      EXPECT_TRUE(c.waitForClose());
    }
    if (k.secondIds.empty()) continue;
    RawClient again(s.port());
    ASSERT_TRUE(again.login());
    again.sendBytes(burst(again, k.requests));
    EXPECT_EQ(receive_ids(again, k.secondIds.size()), k.secondIds);
  }
}

// ---------------------------------------------------------------------------
// Malformed input and abrupt disconnects.

// Garbage closes the connection; clients vanishing with a request cut short
// or inside ClientWants, while answers are still owed, leave the server
// serving the next one.
TEST(ServerRobustness, BadClientsDoNotStopTheServer) {
  const struct {
    const char* name;
    bool afterLogin;
    std::string bytes;
    bool vanishes;  // else the server must close
  } cases[] = {
      {"unknown_tag_first", false, std::string("\x7F\x30\x80\x00\x00", 5), false},
      {"overlong_string", true,
       std::string("\x74\x80\x02\x01\x01\xA0\x80\x31\x80\x04\x82\x01\x00", 13) + std::string(256, 'x'), false},
      {"inside_ClientWants", false, std::string("\x60\x80\x02", 3), true},
      {"request_cut_short", true, "", true},
  };
  TestServer s(support::sample_database(), with_faults({.delayMs = 100}));
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    RawClient bad(s.port());
    if (k.afterLogin) {
      ASSERT_TRUE(bad.login());
    }
    const std::string requests = burst(bad, 3);
    bad.sendBytes(k.bytes.empty() ? requests.substr(0, requests.size() - 5) : k.bytes);
    if (k.vanishes) {
      bad.closeNow();
    } else {
      EXPECT_TRUE(bad.waitForClose());
    }
  }
  RawClient good(s.port());
  ASSERT_TRUE(good.login());
  good.sendRequest(1, support::select_req({"root"}, ".!"));
  EXPECT_EQ(good.nextAnswer(), "#1 root:Domain{name=Root}");
  EXPECT_EQ(s.server().accepted(), 5u);
}

TEST(ServerRobustness, StopEndsIdleAndBusyConnections) {
  auto s = std::make_unique<TestServer>(support::sample_database());
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
  const struct {
    std::vector<const char*> args;
    const char* error;
  } cases[] = {
      {{"--port", "0"}, "give exactly one of --db FILE and --generate SHAPE"},
      {{"--db"}, "option --db needs a value"},
      {{"--db", "a", "--port", "65536"}, "bad port: 65536"},
      {{"--db", "a", "--verbose", "1"}, "unknown option --verbose"},
      {{"--db", "a", "--fault-connections", "-1"}, "bad connection count: -1"},
  };
  for (const auto& k : cases) EXPECT_EQ(parse(k.args).error, k.error);
  EXPECT_TRUE(parse({"--help"}).help);
  const server::FaultOptions limited =
      parse({"--db", "a", "--fault-connections", "2", "--gone-after-first"}).options.faults;
  EXPECT_EQ(limited.faultConnections, 2u);
  EXPECT_TRUE(limited.goneAfterFirst);
}

}  // namespace
