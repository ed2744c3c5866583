// The pipelined export (-o pipeline=N) against the sequential one: the same
// document, the same error stream and the same exit code for every database,
// filter and depth, on standard output, in a file and in a compressed file;
// answers out of order change nothing; a connection that
// breaks leaves a prefix of the document; and the planner asks for nothing
// the walk does not take while holding no more answers than its bound.
#include <gtest/gtest.h>

#include <zlib.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "porter/export_base.h"
#include "porter/export_database.h"
#include "porter/out_stream.h"
#include "porter/pipelined_source.h"
#include "porter/run.h"
#include "porter/xml_export.h"
#include "server/database_json.h"
#include "server/generator.h"
#include "support/pipelined_run.h"
#include "support/server_harness.h"
#include "util/error.h"

namespace {

using pipelined_test::Outcome;
using pipelined_test::kSequential;
using pipelined_test::run_exporter;
using server_test::TestServer;

std::string sample_path() {
  std::string here = __FILE__;
  return here.substr(0, here.rfind("/tests/")) + "/server/sample/sample.json";
}

// A small tree with one faulty object `bad` (given as the JSON of its class
// and properties) after written siblings and before more of them, plus the
// history series `series` (JSON, may be empty).
std::string faulty_tree(const std::string& bad, const std::string& series = "") {
  return R"({
  "rootDomain": "root", "mibRoot": "mib",
  "users": [{"domain": ".", "name": "admin", "password": "secret"}],
  "objects": [
    {"class": "Domain", "id": "root", "properties": [
      {"name": "siblingName", "type": "String", "value": "root"},
      {"name": "treeLabel", "type": "String", "value": "."}
    ], "children": [
      {"class": "Node", "id": "a", "properties": [
        {"name": "siblingName", "type": "String", "value": "a"},
        {"name": "load", "type": "Index"}
      ], "children": [
        {"class": "Check", "id": "a1", "properties": [
          {"name": "siblingName", "type": "String", "value": "a1"}]}]},
      {"id": "bad", )" +
         bad + R"(, "children": [
        {"class": "Check", "id": "below-bad", "properties": [
          {"name": "siblingName", "type": "String", "value": "b1"}]}]},
      {"class": "Node", "id": "c", "properties": [
        {"name": "siblingName", "type": "String", "value": "c"}
      ], "children": [
        {"class": "Check", "id": "c1", "properties": [
          {"name": "siblingName", "type": "String", "value": "c1"}]}]}
    ]},
    {"class": "MibRoot", "id": "mib", "properties": []}
  ],
  "history": [
    {"object": "a", "index": "load", "datatype": "continuous", "intervals": [
      {"start": 100, "end": 200, "max": 3, "avg": 2, "min": 1, "ngood": 4, "nbad": 0}]})" +
         (series.empty() ? "" : ",\n    " + series) + R"(
  ]
})";
}

// An object whose id in its parent's answer finds nothing when the walk
// selects it again, between written siblings.
std::shared_ptr<server::Database> vanishing_database() {
  using server_test::text_property;
  auto db = std::make_shared<server_test::MemoryDatabase>("root", "mib");
  db->addUser(".", "admin", "secret");
  db->add("Domain", "root", "", {text_property("siblingName", "root"), text_property("treeLabel", ".")});
  db->add("Node", "a", "root", {text_property("siblingName", "a")});
  db->add("Check", "a1", "a", {text_property("siblingName", "a1")});
  // Stored under one id, sent with another.
  db->add("Node", "ghost-key", "root", {text_property("siblingName", "ghost")}).id = "ghost";
  db->add("Check", "g1", "ghost-key", {text_property("siblingName", "g1")});
  db->add("Node", "c", "root", {text_property("siblingName", "c")});
  db->add("MibRoot", "mib", "");
  return db;
}

// Counts the history lookups that reach the database: one per GetData the
// server answers.
class CountingDatabase : public server::Database {
 public:
  explicit CountingDatabase(std::shared_ptr<const server::Database> inner)
      : inner_(std::move(inner)) {}
  std::string rootDomainId() const override { return inner_->rootDomainId(); }
  std::string mibRootId() const override { return inner_->mibRootId(); }
  std::shared_ptr<const server::StoredObject> find(const std::string& id) const override {
    return inner_->find(id);
  }
  std::shared_ptr<const server::History> history(const std::string& objectId,
                                                 const std::string& indexName) const override {
    ++histories_;
    return inner_->history(objectId, indexName);
  }
  bool checkLogin(const std::string& d, const std::string& u,
                  const std::string& p) const override {
    return inner_->checkLogin(d, u, p);
  }
  uint64_t histories() const { return histories_; }
  void reset() { histories_ = 0; }

 private:
  std::shared_ptr<const server::Database> inner_;
  mutable std::atomic<uint64_t> histories_{0};
};

std::shared_ptr<const server::Database> database(const std::string& name) {
  if (name == "sample") return server::load_json_database(sample_path());
  if (name == "tricky") return pipelined_test::tricky_database();
  if (name == "generated") {
    return server::make_generated_database(server::parse_generator_shape("3x4x2x3/2"));
  }
  // Small generated shapes: deep (four domain levels, one node each), wide
  // (forty nodes in one domain) and many history series (40 checks).
  if (name == "deep") return server::make_generated_database(server::parse_generator_shape("2x1x1x1/4"));
  if (name == "wide") return server::make_generated_database(server::parse_generator_shape("1x20x2x2/1"));
  if (name == "many-series") {
    return server::make_generated_database(server::parse_generator_shape("1x2x10x2/1"));
  }
  if (name == "vanishing") return vanishing_database();
  if (name == "no-sibling-name") {
    return server::parse_json_database(faulty_tree(R"("class": "Node", "properties": [
        {"name": "name", "type": "String", "value": "nameless"}])"));
  }
  if (name == "datatype-1") {
    return server::parse_json_database(faulty_tree(
        R"("class": "Node", "properties": [
        {"name": "siblingName", "type": "String", "value": "b"}, {"name": "old", "type": "Index"}])",
        R"({"object": "bad", "index": "old", "datatype": 1, "intervals": [
      {"start": 100, "end": 200, "max": 3, "min": 1, "values": [1, 2.5, 3]}]})"));
  }
  if (name == "datatype-12") {
    return server::parse_json_database(faulty_tree(
        R"("class": "Node", "properties": [
        {"name": "siblingName", "type": "String", "value": "b"}, {"name": "odd", "type": "Index"}])",
        R"({"object": "bad", "index": "odd", "datatype": 12, "intervals": [
      {"class": "continuous", "start": 1, "end": 2, "max": 3, "avg": 2, "min": 1, "ngood": 1, "nbad": 0}]})"));
  }
  if (name == "unrenderable") {
    return server::parse_json_database(faulty_tree(R"("class": "Node", "properties": [
        {"name": "siblingName", "type": "String", "value": "b"},
        {"name": "when", "type": "Date", "valueClass": "String", "value": "soon"}])"));
  }
  if (name == "bad-tree-label") {
    return server::parse_json_database(faulty_tree(R"("class": "Domain", "properties": [
        {"name": "siblingName", "type": "String", "value": "b"}])"));
  }
  ADD_FAILURE() << "no database " << name;
  return nullptr;
}

void expect_same(const Outcome& expected, const Outcome& actual) {
  EXPECT_EQ(expected.exitCode, actual.exitCode);
  EXPECT_EQ(expected.failure, actual.failure);
  EXPECT_EQ(expected.document, actual.document);
  EXPECT_EQ(expected.errors, actual.errors);
}

struct Case {
  const char* name;
  const char* db;
  std::vector<std::string> args;
  bool fails;  // the export ends with a failure of the data
};

const Case kCases[] = {
    {"sample", "sample", {}, false},
    {"sample_no_history", "sample", {"-c"}, false},
    {"sample_subdomain", "sample", {"-e", "Brambleton campus"}, false},
    {"sample_ignore_node", "sample", {"-i", "Node"}, false},
    {"sample_include_domain_node", "sample", {"-I", "Domain,Node"}, false},
    {"sample_include_node", "sample", {"-I", "Node"}, false},
    {"sample_include_node_subtree", "sample", {"-I", "Node+"}, false},
    {"sample_no_mib", "sample", {"-i", "MibObject,MibModule"}, false},
    {"tricky", "tricky", {}, false},
    {"tricky_subtree", "tricky", {"-I", "Domain,Node+"}, false},
    {"tricky_ignore_check", "tricky", {"-i", "Check"}, false},
    {"tricky_subdomain", "tricky", {"-e", "Sub"}, false},
    {"tricky_no_history", "tricky", {"-c"}, false},
    {"generated", "generated", {}, false},
    {"generated_subdomain", "generated", {"-e", ".."}, false},
    {"deep", "deep", {}, false},
    {"wide", "wide", {}, false},
    {"many_series", "many-series", {}, false},
    {"vanishing", "vanishing", {}, true},
    {"no_sibling_name", "no-sibling-name", {}, true},
    {"datatype_1", "datatype-1", {}, true},
    {"datatype_12", "datatype-12", {}, true},
    {"unrenderable", "unrenderable", {}, true},
    {"bad_tree_label", "bad-tree-label", {}, true},
};

class PipelinedExportTest : public ::testing::TestWithParam<Case> {};

TEST_P(PipelinedExportTest, EveryDepthWritesWhatTheSequentialWalkWrites) {
  const Case& c = GetParam();
  TestServer server(database(c.db));
  const Outcome sequential = run_exporter(server.port(), c.args, kSequential);
  ASSERT_EQ(sequential.exitCode, c.fails ? 1 : 0) << sequential.errors;
  EXPECT_EQ(sequential.failure.empty(), !c.fails) << sequential.failure;
  if (c.args.empty() || c.fails) {
    EXPECT_NE(sequential.document.find("<Object"), std::string::npos);
  }

  for (uint32_t depth : {1u, 2u, 7u, 64u, 1024u}) {
    SCOPED_TRACE("pipeline=" + std::to_string(depth));
    const Outcome pipelined = run_exporter(server.port(), c.args, depth);
    expect_same(sequential, pipelined);
    EXPECT_EQ(pipelined.stats.abandoned, 0u);
    EXPECT_LE(pipelined.stats.peakOutstanding, depth);
    if (!c.fails) {
      EXPECT_EQ(pipelined.stats.sent, pipelined.stats.taken);
    }
  }
}

// Answers reversed in windows, split into small pieces and mixed with
// responses nobody asked for: the pipeline matches them by id.
TEST_P(PipelinedExportTest, AnswersOutOfOrderChangeNothing) {
  const Case& c = GetParam();
  std::shared_ptr<const server::Database> db = database(c.db);
  TestServer plain(db);
  const Outcome sequential = run_exporter(plain.port(), c.args, kSequential);

  server::ServerOptions options;
  options.faults.reverseWindow = 5;
  options.faults.strayEvery = 7;
  options.faults.chunkSize = 13;
  TestServer shuffled(db, options);
  for (uint32_t depth : {7u, 64u, 1024u}) {
    SCOPED_TRACE("pipeline=" + std::to_string(depth));
    expect_same(sequential, run_exporter(shuffled.port(), c.args, depth));
  }
}

INSTANTIATE_TEST_SUITE_P(Databases, PipelinedExportTest, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The whole content of `path`, decompressed when `gzip`; the file is removed.
std::string take_file(const std::string& path, bool gzip) {
  std::string text;
  if (gzip) {
    gzFile f = gzopen(path.c_str(), "rb");
    if (f == nullptr) {
      ADD_FAILURE() << "no output file " << path;
      return text;
    }
    char buffer[4096];
    int n;
    while ((n = gzread(f, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
    EXPECT_EQ(n, 0) << "gzread failed";
    gzclose(f);
  } else {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << "no output file " << path;
    text.assign(std::istreambuf_iterator<char>(in), {});
  }
  std::remove(path.c_str());
  return text;
}

// Written to a file (-f) and to a compressed file (-f -z): the same document
// as on standard output, and the pipelined runs' files and error streams are
// the sequential run's, failures included.
TEST_P(PipelinedExportTest, FilesHoldWhatStandardOutputShows) {
  const Case& c = GetParam();
  // The plain export of the hand-written databases, failing ones included,
  // and of one generated shape covers every way the output is written.
  const std::string db = c.db;
  if (!c.args.empty() || db == "generated" || db == "deep" || db == "wide") {
    GTEST_SKIP() << "covered by the plain export of the other databases";
  }
  TestServer server(database(c.db));
  const Outcome onStdout = run_exporter(server.port(), {}, kSequential);
  const std::string path = ::testing::TempDir() + "pipelined-" + c.name + ".xml";
  for (bool gzip : {false, true}) {
    SCOPED_TRACE(gzip ? "-f -z" : "-f");
    std::vector<std::string> args = {"-f" + path};
    if (gzip) args.push_back("-z");
    const Outcome sequential = run_exporter(server.port(), args, kSequential);
    const std::string expected = take_file(path, gzip);
    EXPECT_EQ(sequential.exitCode, onStdout.exitCode) << sequential.errors;
    EXPECT_EQ(sequential.document, "");
    EXPECT_EQ(expected, onStdout.document);
    for (uint32_t depth : {1u, 64u, 1024u}) {
      SCOPED_TRACE("pipeline=" + std::to_string(depth));
      const Outcome pipelined = run_exporter(server.port(), args, depth);
      expect_same(sequential, pipelined);
      EXPECT_EQ(take_file(path, gzip), expected);
    }
  }
}

// The connection closes when the server receives its n-th request: the
// document is a prefix of the complete one, the progress marks a prefix of
// the complete run's, and the failure is the transport's, as sequentially.
TEST(PipelinedExportBrokenConnection, LeavesAPrefixAndTheTransportsError) {
  std::shared_ptr<const server::Database> db = database("generated");
  TestServer plain(db);
  const Outcome complete = run_exporter(plain.port(), {}, kSequential);
  ASSERT_EQ(complete.exitCode, 0);

  for (uint32_t closeAt : {3u, 10u, 40u, 150u}) {
    server::ServerOptions options;
    options.faults.closeAtRequest = closeAt;
    TestServer closing(db, options);
    const Outcome sequential = run_exporter(closing.port(), {}, kSequential);
    ASSERT_EQ(sequential.exitCode, 1);
    ASSERT_FALSE(sequential.failure.empty());
    for (uint32_t depth : {2u, 7u, 64u, 4096u}) {
      SCOPED_TRACE("close at " + std::to_string(closeAt) + ", pipeline=" + std::to_string(depth));
      const Outcome pipelined = run_exporter(closing.port(), {}, depth);
      EXPECT_EQ(pipelined.exitCode, 1);
      EXPECT_EQ(pipelined.failure, sequential.failure);
      EXPECT_EQ(complete.document.compare(0, pipelined.document.size(), pipelined.document), 0)
          << pipelined.document;
      // The marks before the closing message are a prefix of a complete run's.
      const std::string closing_message = "Error\n" + pipelined.failure;
      const size_t at = pipelined.errors.rfind(closing_message);
      ASSERT_NE(at, std::string::npos) << pipelined.errors;
      EXPECT_EQ(complete.errors.compare(0, at, pipelined.errors, 0, at), 0) << pipelined.errors;
    }
  }
}

// Dropped objects all have children and history; a planner that looked
// below them would send requests the walk never takes, and the server would
// answer more history requests than sequentially.
TEST(PipelinedExportRequests, NothingIsFetchedBelowDroppedObjects) {
  auto counting = std::make_shared<CountingDatabase>(database("tricky"));
  TestServer server(counting);
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"-I", "Domain,Node+"}, {"-i", "Check"}}) {
    counting->reset();
    const Outcome sequential = run_exporter(server.port(), args, kSequential);
    ASSERT_EQ(sequential.exitCode, 0);
    const uint64_t sequentialHistories = counting->histories();
    for (uint32_t depth : {2u, 7u, 64u}) {
      SCOPED_TRACE("pipeline=" + std::to_string(depth));
      counting->reset();
      const Outcome pipelined = run_exporter(server.port(), args, depth);
      ASSERT_EQ(pipelined.exitCode, 0);
      EXPECT_EQ(counting->histories(), sequentialHistories);
      EXPECT_EQ(pipelined.stats.sent, pipelined.stats.taken);
      EXPECT_EQ(pipelined.stats.abandoned, 0u);
    }
  }
}

// A tree far larger than the window: requests really overlap, and the
// answers held ahead of the walk never exceed 4N + 1.
TEST(PipelinedExportRequests, HeldAnswersStayWithinTheBound) {
  std::shared_ptr<const server::Database> db =
      server::make_generated_database(server::parse_generator_shape("4x6x3x2/3"));
  TestServer server(db);
  for (uint32_t depth : {2u, 7u, 64u}) {
    SCOPED_TRACE("pipeline=" + std::to_string(depth));
    const Outcome pipelined = run_exporter(server.port(), {"-c"}, depth);
    ASSERT_EQ(pipelined.exitCode, 0) << pipelined.errors;
    EXPECT_GT(pipelined.stats.sent, 10u * depth);
    EXPECT_EQ(pipelined.stats.peakOutstanding, depth);
    EXPECT_LE(pipelined.stats.peakHeld, 4 * depth + 1);
    EXPECT_LE(pipelined.stats.peakAhead, 4 * depth + 1);
    EXPECT_EQ(pipelined.stats.sent, pipelined.stats.taken);
  }
}

}  // namespace
