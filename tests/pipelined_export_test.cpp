// The pipelined export (-o pipeline=N) against the sequential one: the same
// document, error stream and exit code for database shapes and filters, with
// answers in order and out of order, on standard output and in (compressed)
// files; and the planner sends exactly the sequential walk's requests while
// holding no more answers than its bound.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "protocol/messages.h"
#include "server/byte_sink.h"
#include "server/generator.h"
#include "support/process.h"
#include "support/run_export.h"
#include "support/server_harness.h"

namespace {

using namespace support;

// "tricky", "tricky-vanishing" (n1 vanishes between its parent's
// answer and its own select), or a generated shape.
std::shared_ptr<const server::Database> database(const std::string& name) {
  if (name == "tricky") return tricky_database();
  if (name == "tricky-vanishing") return with_fault(tricky_database(), "n1", ObjectFault::kVanishes);
  return server::make_generated_database(server::parse_generator_shape(name));
}

void expect_same(const Outcome& a, const Outcome& b) {
  EXPECT_EQ(std::tie(a.exitCode, a.failure, a.document, a.errors), std::tie(b.exitCode, b.failure, b.document, b.errors));
}

struct Case {
  const char* name;
  const char* db;
  std::vector<std::string> args;
  bool fails = false;  // the export ends with a failure of the data
  bool files = false;  // also written with -f and -f -z
};

const Case kCases[] = {
    {"tricky", "tricky", {}},
    {"tricky_subtree", "tricky", {"-I", "Domain,Node+"}},
    {"tricky_subdomain", "tricky", {"-e", "Sub"}},
    {"tricky_no_history", "tricky", {"-c"}},
    {"tricky_vanishing", "tricky-vanishing", {}, true, true},
    {"generated_subdomain", "3x4x2x3/2", {"-e", ".."}},  // the root, but without a MIB section
    {"deep", "2x1x1x1/4", {}},  // four domain levels, one node each
    {"many_series", "1x2x10x2/1", {}, false, true},  // forty checks with history
};

class PipelinedExportTest : public ::testing::TestWithParam<Case> {};

TEST_P(PipelinedExportTest, EveryDepthWritesWhatTheSequentialWalkWrites) {
  const Case& c = GetParam();
  std::shared_ptr<const server::Database> db = database(c.db);
  // The requests the server receives, each as its body (without its id).
  std::mutex mutex;
  std::multiset<std::string> bodies;
  server::ServerOptions recording;
  recording.onRequest = [&](const protocol::Request& request) {
    std::string body = server::encode(*request.req);
    std::lock_guard<std::mutex> lock(mutex);
    bodies.insert(std::move(body));
  };
  auto take = [&] {
    std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(bodies, {});
  };
  TestServer plain(db, recording);
  // Answers reversed in windows, split into small pieces and mixed with
  // responses nobody asked for: the pipeline matches them by id.
  server::ServerOptions options;
  options.faults.reverseWindow = 5;
  options.faults.strayEvery = 7;
  options.faults.chunkSize = 13;
  TestServer shuffled(db, options);

  const Outcome sequential = run_exporter(plain.port(), c.args, kSequential);
  const std::multiset<std::string> asked = take();
  ASSERT_EQ(sequential.exitCode, c.fails ? 1 : 0) << sequential.errors;
  EXPECT_EQ(sequential.failure.empty(), !c.fails) << sequential.failure;
  EXPECT_TRUE(!c.args.empty() || sequential.document.find("<Object") != std::string::npos);
  // Depth 2 fills its window at once; 1024 is more than the requests.
  for (uint32_t depth : {1u, 2u, 1024u}) {
    SCOPED_TRACE("pipeline=" + std::to_string(depth));
    const Outcome pipelined = run_exporter(plain.port(), c.args, depth);
    expect_same(sequential, pipelined);
    EXPECT_EQ(pipelined.stats.abandoned, 0u);
    EXPECT_TRUE(depth == 2 ? pipelined.stats.peakOutstanding == 2 : pipelined.stats.peakOutstanding <= depth)
        << pipelined.stats.peakOutstanding;
    EXPECT_LE(pipelined.stats.peakHeld, 4 * depth + 1);
    EXPECT_LE(pipelined.stats.peakAhead, 4 * depth + 1);
    // A failed walk may have asked ahead of its failure; a finished one asks
    // exactly the sequential walk's requests.
    const bool sameRequests = take() == asked;
    if (!c.fails) {
      EXPECT_TRUE(sameRequests) << "other requests than sequentially";
      EXPECT_EQ(pipelined.stats.sent, pipelined.stats.taken);
    }
    if (depth == 1024) {
      SCOPED_TRACE("out of order");
      expect_same(sequential, run_exporter(shuffled.port(), c.args, depth));
    }
  }
  if (!c.files) return;

  TempDir dir;
  for (bool gzip : {false, true}) {
    SCOPED_TRACE(gzip ? "-f -z" : "-f");
    const std::string path = dir.file("out.xml");
    std::vector<std::string> args = {"-f" + path};
    if (gzip) args.push_back("-z");
    const Outcome toFile = run_exporter(plain.port(), args, 64);
    EXPECT_EQ(toFile.exitCode, sequential.exitCode) << toFile.errors;
    EXPECT_EQ(toFile.document, "");
    // The progress lines framed for a file.
    EXPECT_EQ(toFile.errors, std::string(gzip ? "Exporting database using gz " : "Exporting database") +
                                 sequential.errors + (c.fails ? "" : "\nDone\n"));
    EXPECT_EQ(gzip ? read_gzip_file(path) : read_file(path), sequential.document);
  }
}

INSTANTIATE_TEST_SUITE_P(Databases, PipelinedExportTest, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
