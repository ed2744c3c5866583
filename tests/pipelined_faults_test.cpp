// The pipelined export under faults, against the sequential export of the
// same database:
//  - the connection closes, or an answer arrives as undecodable octets, at
//    every single request of a whole export: the run fails with the same
//    failure and the same closing message, and leaves a prefix of the
//    complete document;
//  - every object in turn vanishes between its parent's answer and its own
//    re-select, has history of an invalid datatype (or of one no answer may
//    carry, refused while the answer is decoded), lacks its siblingName or
//    tree label, or has a property that cannot be written: document, error
//    stream and exit code are those of the sequential run, with answers out
//    of order.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "server/database.h"
#include "server/server_options.h"
#include "support/run_export.h"
#include "support/server_harness.h"

namespace {

using namespace export_test;
using server_test::TestServer;

// The closing message of a failed run: the error stream from the last
// "Error" line that carries the failure on.
std::string closing_message(const Outcome& outcome) {
  const size_t at = outcome.errors.rfind("Error\n" + outcome.failure);
  return at == std::string::npos ? "<no closing message in: " + outcome.errors + ">"
                                 : outcome.errors.substr(at);
}

// A failed pipelined run against the sequential run with the same fault and
// the complete run without one.
void expect_same_failure(const Outcome& complete, const Outcome& sequential,
                         const Outcome& pipelined) {
  EXPECT_EQ(pipelined.exitCode, 1);
  EXPECT_EQ(pipelined.failure, sequential.failure);
  EXPECT_EQ(closing_message(pipelined), closing_message(sequential));
  EXPECT_EQ(complete.document.compare(0, pipelined.document.size(), pipelined.document), 0)
      << pipelined.document;
  // The progress marks before the closing message are a prefix of the
  // complete run's.
  const size_t marks = pipelined.errors.size() - closing_message(pipelined).size();
  EXPECT_EQ(complete.errors.compare(0, marks, pipelined.errors, 0, marks), 0) << pipelined.errors;
}

// One run with the connection closing (else an undecodable answer) at
// request k, sequential and at depths 1 and 64; false when the sequential
// export got through (k is past its last request).
bool check_fault_at(const std::shared_ptr<const server::Database>& db, const Outcome& complete,
                    bool close, uint32_t k) {
  server::ServerOptions options;
  (close ? options.faults.closeAtRequest : options.faults.malformedAtRequest) = k;
  TestServer faulty(db, options);
  const Outcome sequential = run_exporter(faulty.port(), {}, kSequential);
  if (sequential.exitCode == 0) return false;
  SCOPED_TRACE((close ? "close at " : "malformed at ") + std::to_string(k));
  EXPECT_FALSE(sequential.failure.empty());
  expect_same_failure(complete, sequential, sequential);  // the sequential run leaves a prefix too
  for (uint32_t depth : {1u, 64u}) {
    SCOPED_TRACE("pipeline=" + std::to_string(depth));
    expect_same_failure(complete, sequential, run_exporter(faulty.port(), {}, depth));
  }
  return true;
}

// Every request index of a whole export: the closing request moves on until
// the sequential export gets through, which counts the requests.
TEST(PipelinedExportFaultSweep, EveryRequestCanFailAndTheOutcomeIsTheSequentialOne) {
  std::shared_ptr<const server::Database> db = tricky_database();
  TestServer plain(db);
  const Outcome complete = run_exporter(plain.port(), {}, kSequential);
  ASSERT_EQ(complete.exitCode, 0) << complete.errors;

  uint32_t requests = 0;
  while (requests < 1000 && check_fault_at(db, complete, true, requests + 1)) ++requests;
  // The root, its children, their history, the MIB: a few dozen requests.
  ASSERT_GT(requests, 20u);
  ASSERT_LT(requests, 1000u);

  for (uint32_t k = 1; k <= requests; ++k) {
    EXPECT_TRUE(check_fault_at(db, complete, false, k)) << "malformed at " << k;
  }
}

// The ids of every object below the root domain and the MIB root, roots
// included, in depth-first order.
std::vector<std::string> all_ids(const server::Database& db) {
  std::vector<std::string> ids;
  std::vector<std::string> pending = {db.mibRootId(), db.rootDomainId()};
  while (!pending.empty()) {
    const std::string id = pending.back();
    pending.pop_back();
    ids.push_back(id);
    std::shared_ptr<const server::StoredObject> object = db.find(id);
    pending.insert(pending.end(), object->children.rbegin(), object->children.rend());
  }
  return ids;
}

// A fault and how many objects of the tricky database at least end the
// export with it: only written objects are re-selected and asked for their
// properties, only n1 and c1 have history the walk asks for, and only
// Domains have a tree label. When `failure` is set, it is the text of every
// failure the fault causes. Every fault is tried at depth 64 against a server
// answering out of order; `everyDepth` adds depth 1 (in order) and 2.
struct FaultCase {
  const char* name;
  ObjectFault fault;
  uint32_t atLeast;
  const char* failure = nullptr;
  bool everyDepth = false;
};

class PipelinedExportObjectFaults : public ::testing::TestWithParam<FaultCase> {};

TEST_P(PipelinedExportObjectFaults, EachObjectsFailureIsReportedAsSequentially) {
  std::shared_ptr<const server::Database> db = tricky_database();
  const auto [name, fault, atLeast, failure, everyDepth] = GetParam();
  uint32_t failed = 0;
  for (const std::string& id : all_ids(*db)) {
    SCOPED_TRACE(id);
    TestServer server(with_fault(db, id, fault));
    // Out of order for more than one request in flight (a reverse window
    // waits for its requests a moment: no use at depth 1).
    server::ServerOptions reversed;
    reversed.faults.reverseWindow = 2;
    TestServer shuffled(with_fault(db, id, fault), reversed);
    const Outcome sequential = run_exporter(server.port(), {}, kSequential);
    for (uint32_t depth : {1u, 2u, 64u}) {
      if (depth != 64 && !everyDepth) continue;
      SCOPED_TRACE("pipeline=" + std::to_string(depth));
      const Outcome pipelined = run_exporter((depth == 1 ? server : shuffled).port(), {}, depth);
      EXPECT_EQ(pipelined.exitCode, sequential.exitCode);
      EXPECT_EQ(pipelined.failure, sequential.failure);
      EXPECT_EQ(pipelined.document, sequential.document);
      EXPECT_EQ(pipelined.errors, sequential.errors);
    }
    if (sequential.exitCode != 0) {
      ++failed;
      if (failure != nullptr) {
        EXPECT_EQ(sequential.failure, failure);
      }
    }
  }
  EXPECT_GE(failed, atLeast);
}

INSTANTIATE_TEST_SUITE_P(Faults, PipelinedExportObjectFaults,
                         ::testing::Values(FaultCase{"Vanishes", ObjectFault::kVanishes, 15},
                                           FaultCase{"Datatype12", ObjectFault::kBadHistory, 2},
                                           FaultCase{"Datatype1", ObjectFault::kOldHistory, 2},
                                           FaultCase{"Datatype18", ObjectFault::kDatatype18, 2,
                                                     "data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17",
                                                     true},
                                           FaultCase{"NoSiblingName", ObjectFault::kNoSiblingName, 15},
                                           FaultCase{"NoTreeLabel", ObjectFault::kNoTreeLabel, 1},
                                           FaultCase{"Unrenderable", ObjectFault::kUnrenderable, 10}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
