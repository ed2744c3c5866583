// The stand-in server's fault and latency options where no export pins them,
// and its robustness against malformed input and abrupt disconnects. Closing
// and undecodable answers at each request, and faults limited to the first
// connections, are swept by the pipelined export tests.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "server/byte_sink.h"
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
struct PieceSink : net::ByteOutput {
  void write(const void* data, size_t length) override { pieces.emplace_back(static_cast<const char*>(data), length); }
  void flush() override {}
  std::vector<std::string> pieces;
};

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
  const std::string stray = server::error_response(0x7FFFFFFF, 13, "stray answer");
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
      server::ReplyWriter writer(sink, k.faults);
      const auto due = server::Clock::now() + std::chrono::milliseconds(30);
      if (k.held) writer.hold();
      writer.submit("ab", due);
      writer.submit("cde", due);
      if (k.held) writer.release();
    }
    EXPECT_EQ(sink.pieces, k.pieces);
  }
}

// The ids of the answers in arrival order; a delayed run takes at least its
// delay. (How much the delays of pipelined requests overlap is a matter of
// time, measured by the benchmarks, not asserted here.)
TEST(ServerFaults, AnswersArriveAsTheOptionSays) {
  const struct {
    server::FaultOptions faults;
    int32_t requests;
    std::vector<int32_t> ids;
  } cases[] = {
      // The last window is partial and goes out when nothing follows.
      {{.reverseWindow = 3}, 8, {2, 1, 0, 5, 4, 3, 7, 6}},
      {{.strayEvery = 1}, 2, {0x7FFFFFFF, 0, 0x7FFFFFFE, 1}},
      {{.delayMs = 100}, 8, {0, 1, 2, 3, 4, 5, 6, 7}},
  };
  for (const auto& k : cases) {
    TestServer s(support::sample_database(), with_faults(k.faults));
    RawClient c(s.port());
    ASSERT_TRUE(c.login());
    const auto start = std::chrono::steady_clock::now();
    c.sendBytes(burst(c, k.requests));
    std::vector<int32_t> ids;
    while (ids.size() < k.ids.size()) {
      auto m = c.receive();
      auto* r = dynamic_cast<const protocol::Response*>(m.get());
      if (!r) break;
      ids.push_back(r->id);
    }
    EXPECT_EQ(ids, k.ids);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(k.faults.delayMs));
  }
}

// Garbage, or a handshake out of order, closes the connection; clients
// vanishing with a request cut short or inside ClientWants, while answers are
// still owed, leave the server serving the next one; stopping the server
// ends idle and busy connections without waiting for their clients.
TEST(ServerRobustness, BadClientsDoNotStopTheServer) {
  const struct {
    const char* name;
    bool afterLogin;
    std::string bytes;
    bool vanishes;  // else the server must close
  } cases[] = {
      {"unknown_tag_first", false, std::string("\x7F\x30\x80\x00\x00", 5), false},
      {"NegotiateAck_first", false, server::encode(protocol::NegotiateAck()), false},
      {"overlong_string", true,
       std::string("\x74\x80\x02\x01\x01\xA0\x80\x31\x80\x04\x82\x01\x00", 13) + std::string(256, 'x'), false},
      {"inside_ClientWants", false, std::string("\x60\x80\x02", 3), true},
      {"request_cut_short", true, "", true},
  };
  std::optional<TestServer> s(std::in_place, support::sample_database(), with_faults({.delayMs = 100}));
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    RawClient bad(s->port());
    ASSERT_TRUE(!k.afterLogin || bad.login());
    const std::string requests = burst(bad, 3);
    bad.sendBytes(k.bytes.empty() ? requests.substr(0, requests.size() - 5) : k.bytes);
    if (!k.vanishes) {
      EXPECT_TRUE(bad.waitForClose());
    }
  }
  RawClient idle(s->port()), good(s->port());
  ASSERT_TRUE(good.login());
  good.sendBytes(burst(good, 1));
  auto answer = good.receive();
  auto* response = dynamic_cast<const protocol::Response*>(answer.get());
  ASSERT_TRUE(response && dynamic_cast<const protocol::SelectResp*>(response->resp.get()));
  s.reset();
  EXPECT_TRUE(idle.waitForClose());
  EXPECT_TRUE(good.waitForClose());
}

}  // namespace
