// The pipelined export under faults, against the sequential export of the
// same database:
//  - the connection closes, or an answer arrives as undecodable octets, at
//    every single request of a whole export: the run fails with the same
//    failure and the same closing message, and leaves a prefix of the
//    complete document; with -o reconnect, a first connection that closes
//    there costs nothing but the line that reports it;
//  - a server gone for good, and one refusing the second login: the tries,
//    then the failure as without reconnecting;
//  - every object in turn vanishes between its parent's answer and its own
//    re-select, has history of an invalid datatype (or of one no answer may
//    carry, refused while the answer is decoded), lacks its siblingName or
//    tree label, or has a property that cannot be written: document, error
//    stream and exit code are those of the sequential run, with answers out
//    of order.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "protocol/property_types.h"
#include "server/database.h"
#include "server/server_options.h"
#include "support/run_export.h"
#include "support/server_harness.h"

namespace {

using namespace support;
using support::TestServer;

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

const char kLost[] =
    "Connection lost (Error reading: OsalSocket::read end of stream); reconnecting, attempt 1 of 3\n";

// Only the first connection closes at request k: with -o reconnect the
// export, sequential and at depth 16, gets through as if nothing happened,
// and the error stream shows the complete run's marks around one report
// line (which begins a line of its own).
void check_reconnect_at(const std::shared_ptr<const server::Database>& db,
                        const Outcome& complete, uint32_t k) {
  server::ServerOptions options;
  options.faults.closeAtRequest = k;
  options.faults.faultConnections = 1;
  auto without_line_ends = [](std::string text) {
    std::erase(text, '\n');
    return text;
  };
  for (uint32_t depth : {kSequential, 16u}) {
    SCOPED_TRACE("reconnecting, close at " + std::to_string(k) + ", pipeline=" +
                 std::to_string(depth));
    TestServer faulty(db, options);  // a first connection of its own for each run
    const Outcome outcome =
        run_exporter(faulty.port(), {"-o", "reconnect=3,reconnect-wait=0"}, depth);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_EQ(outcome.document, complete.document);
    std::string marks = outcome.errors;
    const size_t line = marks.find(kLost);
    ASSERT_NE(line, std::string::npos) << marks;
    EXPECT_TRUE(line == 0 || marks[line - 1] == '\n') << marks;
    marks.erase(line, sizeof kLost - 1);
    EXPECT_EQ(without_line_ends(marks), without_line_ends(complete.errors));
  }
}

// One run with the connection closing (else an undecodable answer) at
// request k, sequential and at depths 1 and 64; false when the sequential
// export got through (k is past its last request). A closing connection is
// also tried with reconnecting.
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
  if (close) check_reconnect_at(db, complete, k);
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

// A database that logs its user in once only.
class OneLogin : public ForwardingDatabase {
 public:
  using ForwardingDatabase::ForwardingDatabase;
  bool checkLogin(const std::string& d, const std::string& u, const std::string& p) const override {
    return logins_++ == 0 && inner_->checkLogin(d, u, p);
  }

 private:
  mutable std::atomic<int> logins_{0};
};

// The first connection closes at request 5 and no later one gets as far as
// an answer: a server gone for good (every try fails, then the run ends with
// the failure and closing message of a run without reconnecting, leaving a
// prefix of the document) or one that refuses the second login (no further
// try).
TEST(ReconnectingExport, EndsAsWithoutItWhenTheServerDoesNotComeBack) {
  const struct {
    bool refuseLogin;
    uint32_t depth;
    std::vector<std::string> lines;
    const char* closing;  // null: that of the run without reconnecting
  } cases[] = {
      {false, kSequential,
       {"Connection lost (Error reading: OsalSocket::read end of stream); reconnecting, attempt 1 of 2",
        "Connection failed (Error reading: OsalSocket::read end of stream); reconnecting, attempt 2 of 2"},
       nullptr},
      {false, 16u,
       {"Connection lost (Error reading: OsalSocket::read end of stream); reconnecting, attempt 1 of 2",
        "Connection failed (Error reading: OsalSocket::read end of stream); reconnecting, attempt 2 of 2"},
       nullptr},
      {true, 16u,
       {"Connection lost (Error reading: OsalSocket::read end of stream); reconnecting, attempt 1 of 2"},
       "Failed connecting to server 127.0.0.1\nWrong username / password\n"},
  };
  std::shared_ptr<const server::Database> db = tricky_database();
  TestServer plain(db);
  const Outcome complete = run_exporter(plain.port(), {}, kSequential);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.refuseLogin ? "login refused" : "gone") + ", pipeline=" +
                 std::to_string(c.depth));
    server::ServerOptions options;
    options.faults.closeAtRequest = 5;
    options.faults.goneAfterFirst = !c.refuseLogin;
    std::shared_ptr<const server::Database> served = db;
    if (c.refuseLogin) served = std::make_shared<OneLogin>(db);
    TestServer once(served, options);
    const Outcome outcome = run_exporter(once.port(), {"-o", "reconnect=2,reconnect-wait=0"}, c.depth);
    TestServer again(db, options);
    const Outcome plainFailure = run_exporter(again.port(), {}, c.depth);

    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(complete.document.compare(0, outcome.document.size(), outcome.document), 0);
    const std::string closing = c.closing != nullptr ? c.closing : closing_message(plainFailure);
    ASSERT_GE(outcome.errors.size(), closing.size());
    EXPECT_EQ(outcome.errors.substr(outcome.errors.size() - closing.size()), closing);
    std::vector<std::string> lines;
    for (size_t at = outcome.errors.find("Conn"); at != std::string::npos;
         at = outcome.errors.find("Conn", at + 1)) {
      lines.push_back(outcome.errors.substr(at, outcome.errors.find('\n', at) - at));
    }
    EXPECT_EQ(lines, c.lines) << outcome.errors;
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
// answering out of order; `everyDepth` adds depth 1 (in order) and 2. A fault
// that needs a property (`needs`; "Index": any Index property, whose history
// the walk may ask for) is tried on the objects that have one, as it changes
// nothing about the others.
struct FaultCase {
  const char* name;
  ObjectFault fault;
  uint32_t atLeast;
  const char* failure = nullptr;
  bool everyDepth = false;
  std::string needs = "";
};

bool has_property(const server::StoredObject& object, const std::string& needs) {
  return needs.empty() || std::any_of(object.properties.begin(), object.properties.end(),
                                      [&](const server::PropertyValue& p) {
                                        return needs == "Index"
                                                   ? protocol::type_code(p.type) == protocol::kTypeIndex
                                                   : p.name == needs;
                                      });
}

class PipelinedExportObjectFaults : public ::testing::TestWithParam<FaultCase> {};

TEST_P(PipelinedExportObjectFaults, EachObjectsFailureIsReportedAsSequentially) {
  std::shared_ptr<const server::Database> db = tricky_database();
  const auto [name, fault, atLeast, failure, everyDepth, needs] = GetParam();
  uint32_t failed = 0;
  for (const std::string& id : all_ids(*db)) {
    if (!has_property(*db->find(id), needs)) continue;
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
                                           FaultCase{"Datatype12", ObjectFault::kBadHistory, 2, nullptr, false, "Index"},
                                           FaultCase{"Datatype1", ObjectFault::kOldHistory, 2, nullptr, false, "Index"},
                                           FaultCase{"Datatype18", ObjectFault::kDatatype18, 2,
                                                     "data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17",
                                                     true, "Index"},
                                           FaultCase{"NoSiblingName", ObjectFault::kNoSiblingName, 15},
                                           FaultCase{"NoTreeLabel", ObjectFault::kNoTreeLabel, 1, nullptr, false, "treeLabel"},
                                           FaultCase{"Unrenderable", ObjectFault::kUnrenderable, 10}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
