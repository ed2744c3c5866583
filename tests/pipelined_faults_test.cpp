// The pipelined export under faults, against the sequential export of the
// same database:
//  - the connection closes, or an answer arrives as undecodable octets, at
//    every single request of a whole export: the run fails with the same
//    failure and the same closing message, and leaves a prefix of the
//    complete document;
//  - every object in turn vanishes between its parent's answer and its own
//    re-select, or has history of an invalid datatype: document, error
//    stream and exit code are those of the sequential run.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "server/database.h"
#include "server/server_options.h"
#include "support/pipelined_run.h"
#include "support/server_harness.h"

namespace {

using pipelined_test::kSequential;
using pipelined_test::Outcome;
using pipelined_test::run_exporter;
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

enum class Fault { kClose, kMalformed };

server::ServerOptions faulty_at(Fault fault, uint32_t request) {
  server::ServerOptions options;
  if (fault == Fault::kClose) {
    options.faults.closeAtRequest = request;
  } else {
    options.faults.malformedAtRequest = request;
  }
  return options;
}

// One run with `fault` at request k, sequential and at depths 1 and 64;
// false when the sequential export got through (k is past its last request).
bool check_fault_at(const std::shared_ptr<const server::Database>& db, const Outcome& complete,
                    Fault fault, uint32_t k) {
  TestServer faulty(db, faulty_at(fault, k));
  const Outcome sequential = run_exporter(faulty.port(), {}, kSequential);
  if (sequential.exitCode == 0) return false;
  SCOPED_TRACE((fault == Fault::kClose ? "close at " : "malformed at ") + std::to_string(k));
  EXPECT_EQ(sequential.exitCode, 1) << sequential.errors;
  EXPECT_FALSE(sequential.failure.empty());
  for (uint32_t depth : {1u, 64u}) {
    SCOPED_TRACE("pipeline=" + std::to_string(depth));
    expect_same_failure(complete, sequential, run_exporter(faulty.port(), {}, depth));
  }
  return true;
}

// Every request index of a whole export: the closing request moves on until
// the sequential export gets through, which counts the requests.
TEST(PipelinedExportFaultSweep, EveryRequestCanFailAndTheOutcomeIsTheSequentialOne) {
  std::shared_ptr<const server::Database> db = pipelined_test::tricky_database();
  TestServer plain(db);
  const Outcome complete = run_exporter(plain.port(), {}, kSequential);
  ASSERT_EQ(complete.exitCode, 0) << complete.errors;

  uint32_t requests = 0;
  while (requests < 1000 && check_fault_at(db, complete, Fault::kClose, requests + 1)) ++requests;
  // The root, its children, their history, the MIB: a few dozen requests.
  ASSERT_GT(requests, 20u);
  ASSERT_LT(requests, 1000u);

  for (uint32_t k = 1; k <= requests; ++k) {
    EXPECT_TRUE(check_fault_at(db, complete, Fault::kMalformed, k)) << "malformed at " << k;
  }
}

enum class ObjectFault { kVanishes, kBadHistory };

// `inner` with one object made faulty. A vanishing object is still listed
// by its parent (under a renamed key, so the server still finds it there),
// but selecting it by its own id finds nothing. An object with bad history
// answers every history request with datatype 12 and a continuous row.
class FaultyObjectDatabase : public server::Database {
 public:
  FaultyObjectDatabase(std::shared_ptr<const server::Database> inner, std::string victim,
                       ObjectFault fault)
      : inner_(std::move(inner)), victim_(std::move(victim)), fault_(fault) {}

  std::string rootDomainId() const override { return inner_->rootDomainId(); }
  std::string mibRootId() const override { return inner_->mibRootId(); }
  std::shared_ptr<const server::StoredObject> find(const std::string& id) const override {
    if (fault_ != ObjectFault::kVanishes) return inner_->find(id);
    if (id == victim_) return nullptr;
    if (id == listedKey()) return inner_->find(victim_);
    std::shared_ptr<const server::StoredObject> object = inner_->find(id);
    if (!object) return object;
    auto renamed = std::make_shared<server::StoredObject>(*object);
    for (std::string& child : renamed->children) {
      if (child == victim_) child = listedKey();
    }
    return renamed;
  }
  std::shared_ptr<const server::History> history(const std::string& objectId,
                                                 const std::string& indexName) const override {
    if (fault_ != ObjectFault::kBadHistory || objectId != victim_) {
      return inner_->history(objectId, indexName);
    }
    auto bad = std::make_shared<server::History>();
    bad->dataType = 12;
    bad->intervals.push_back(server::ContinuousRow{100, 200, 3, 2, 1, 4, 0});
    return bad;
  }
  bool checkLogin(const std::string& d, const std::string& u,
                  const std::string& p) const override {
    return inner_->checkLogin(d, u, p);
  }

 private:
  std::string listedKey() const { return victim_ + "~"; }

  std::shared_ptr<const server::Database> inner_;
  std::string victim_;
  ObjectFault fault_;
};

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
    for (auto child = object->children.rbegin(); child != object->children.rend(); ++child) {
      pending.push_back(*child);
    }
  }
  return ids;
}

TEST(PipelinedExportObjectFaults, EachObjectsFailureIsReportedAsSequentially) {
  std::shared_ptr<const server::Database> db = pipelined_test::tricky_database();
  const std::vector<std::string> ids = all_ids(*db);
  ASSERT_GT(ids.size(), 30u);

  for (ObjectFault fault : {ObjectFault::kVanishes, ObjectFault::kBadHistory}) {
    uint32_t failed = 0;
    for (const std::string& id : ids) {
      SCOPED_TRACE((fault == ObjectFault::kVanishes ? "vanishes: " : "bad history: ") + id);
      TestServer server(std::make_shared<FaultyObjectDatabase>(db, id, fault));
      const Outcome sequential = run_exporter(server.port(), {}, kSequential);
      const Outcome pipelined = run_exporter(server.port(), {}, 64);
      EXPECT_EQ(pipelined.exitCode, sequential.exitCode);
      EXPECT_EQ(pipelined.failure, sequential.failure);
      EXPECT_EQ(pipelined.document, sequential.document);
      EXPECT_EQ(pipelined.errors, sequential.errors);
      if (sequential.exitCode != 0) ++failed;
    }
    // Every written object is re-selected, but only n1 (load, state, ...)
    // and c1 have history the walk asks for.
    EXPECT_GE(failed, fault == ObjectFault::kVanishes ? 15u : 2u);
  }
}

}  // namespace
