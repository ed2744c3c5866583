// The pipelined export under faults, against the sequential export of the
// same database: the connection closing or an undecodable answer at a
// request, a server that does not come back to a reconnecting run, and an
// object that vanishes or carries bad data. Failures, closing messages and
// documents are those of the sequential run.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <sstream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "server/server_options.h"
#include "support/process.h"
#include "support/run_export.h"
#include "support/server_harness.h"

namespace {

using namespace support;

// The closing message of a failed run: the error stream from the last
// "Error" line that carries the failure on.
std::string closing_message(const Outcome& outcome) {
  const size_t at = outcome.errors.rfind("Error\n" + outcome.failure);
  return at == std::string::npos ? "<no closing message in: " + outcome.errors + ">"
                                 : outcome.errors.substr(at);
}

// A failed run against the sequential run with the same fault and the
// complete run without one: the same failure and closing message, and a
// prefix of the complete document and progress marks.
void expect_same_failure(const Outcome& complete, const Outcome& sequential, const Outcome& run) {
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.failure, sequential.failure);
  EXPECT_EQ(closing_message(run), closing_message(sequential));
  EXPECT_EQ(complete.document.compare(0, run.document.size(), run.document), 0) << run.document;
  const size_t marks = run.errors.size() - closing_message(run).size();
  EXPECT_EQ(complete.errors.compare(0, marks, run.errors, 0, marks), 0) << run.errors;
}

const std::string kLost =
    "Connection lost (Error reading: OsalSocket::read end of stream); reconnecting, attempt 1 of ";

// The connection closes (else an answer is undecodable) at request k, for a
// sample of a whole export's requests: the lookups, the edges of a window
// of 16, every eighth and the last. With -o reconnect, a first connection
// that closes there costs nothing but the line that reports it (which
// begins a line of its own).
TEST(PipelinedExportFaultSweep, AFailingRequestEndsTheRunAsSequentially) {
  std::shared_ptr<const server::Database> db = tricky_database();
  std::atomic<uint32_t> requests{0};
  server::ServerOptions counting;
  counting.onRequest = [&](const protocol::Request&) { ++requests; };
  TestServer plain(db, counting);
  const Outcome complete = run_exporter(plain.port(), {}, kSequential);
  ASSERT_EQ(complete.exitCode, 0) << complete.errors;
  const uint32_t last = requests;
  ASSERT_GT(last, 20u);
  std::set<uint32_t> sample = {1, 2, 3, 4, 5, 16, 17, last};
  for (uint32_t k = 8; k < last; k += 8) sample.insert(k);

  for (uint32_t k : sample) {
    for (bool close : {true, false}) {
      SCOPED_TRACE((close ? "close at " : "malformed at ") + std::to_string(k));
      server::ServerOptions options;
      (close ? options.faults.closeAtRequest : options.faults.malformedAtRequest) = k;
      TestServer faulty(db, options);
      const Outcome sequential = run_exporter(faulty.port(), {}, kSequential);
      EXPECT_FALSE(sequential.failure.empty());
      expect_same_failure(complete, sequential, sequential);
      for (uint32_t depth : close ? std::vector<uint32_t>{1, 64} : std::vector<uint32_t>{64}) {
        SCOPED_TRACE("pipeline=" + std::to_string(depth));
        expect_same_failure(complete, sequential, run_exporter(faulty.port(), {}, depth));
      }
      if (!close) continue;
      // Reconnecting: sequentially at odd requests, in a window of 16 at even ones.
      options.faults.faultConnections = 1;
      TestServer once(db, options);
      const uint32_t depth = k % 2 == 1 ? kSequential : 16u;
      const Outcome outcome = run_exporter(once.port(), {"-o", "reconnect=3,reconnect-wait=0"}, depth);
      EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
      EXPECT_EQ(outcome.document, complete.document);
      std::string marks = outcome.errors, expected = complete.errors;
      const size_t line = marks.find(kLost + "3\n");
      ASSERT_NE(line, std::string::npos) << marks;
      EXPECT_TRUE(line == 0 || marks[line - 1] == '\n') << marks;
      marks.erase(line, kLost.size() + 2);
      std::erase(marks, '\n');
      std::erase(expected, '\n');
      EXPECT_EQ(marks, expected);
      if (k != 5) continue;
      // Answers between two losses start the count of tries again.
      options.faults.faultConnections = 2;
      TestServer twice(db, options);
      const Outcome again = run_exporter(twice.port(), {"-o", "reconnect=1,reconnect-wait=0"}, depth);
      EXPECT_EQ(again.exitCode, 0) << again.errors;
      EXPECT_EQ(again.document, complete.document);
    }
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
// an answer, in a window of 16: a server gone for good (every try fails,
// then the run ends with the failure that began them, leaving a prefix of
// the document) or one that refuses the second login (no further try).
TEST(ReconnectingExport, EndsAsWithoutItWhenTheServerDoesNotComeBack) {
  std::shared_ptr<const server::Database> db = tricky_database();
  TestServer plain(db);
  const Outcome complete = run_exporter(plain.port(), {}, kSequential);
  for (bool refuseLogin : {false, true}) {
    SCOPED_TRACE(refuseLogin ? "login refused" : "gone");
    server::ServerOptions options;
    options.faults.closeAtRequest = 5;
    options.faults.goneAfterFirst = !refuseLogin;
    TestServer once(refuseLogin ? std::make_shared<OneLogin>(db) : db, options);
    const Outcome outcome = run_exporter(once.port(), {"-o", "reconnect=2,reconnect-wait=0"}, 16);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(complete.document.compare(0, outcome.document.size(), outcome.document), 0);
    // Each try is reported once: the first line after the loss, the second after a failed try.
    std::string expected = kLost + "2\n";
    if (!refuseLogin) expected += "Connection failed (Error reading: OsalSocket::read end of stream); reconnecting, attempt 2 of 2\n";
    expected += refuseLogin ? "Failed connecting to server 127.0.0.1\nWrong username / password\n"
                            : "Error\nError reading: OsalSocket::read end of stream\n";
    const size_t at = outcome.errors.find("Conn");
    EXPECT_EQ(at == std::string::npos ? outcome.errors : outcome.errors.substr(at), expected);
  }
}

// The run report and the metrics as Python's json module and the Prometheus
// text parser read them: "name=value" lines; metric samples with the labels
// of a run against 127.0.0.1 and "." carry no labels in their name.
const char kReadRunFiles[] = R"(import json, sys
from prometheus_client.parser import text_string_to_metric_families
r = json.load(open(sys.argv[1]))
print('keys=' + ','.join(r))
[print('report.%s=%s' % (k, v)) for k, v in r.items() if not isinstance(v, dict)]
fams = list(text_string_to_metric_families(open(sys.argv[2]).read()))
print('families=%d:%s' % (len(fams), ','.join(sorted({f.type for f in fams if f.documentation}))))
for f in fams:
    for s in f.samples:
        std = s.labels == {'server': '127.0.0.1', 'export_domain': '.'}
        print('%s%s=%r' % (s.name, '' if std else s.labels, s.value))
)";

// Runs ending in each way, one after the other on the same two files: a run
// after a garbled metrics file, a complete one, one whose lost connection
// is survived, and failed runs, which keep the time of the last success.
TEST(RunFiles, TellHowEachRunEndedWithoutThePassword) {
  std::shared_ptr<const server::Database> db = tricky_database();
  TestServer plain(db);
  server::ServerOptions closing;
  closing.faults.closeAtRequest = 5;
  TestServer lost(db, closing);
  closing.faults.faultConnections = 1;
  TestServer once(db, closing);
  support::TempDir dir;
  const std::string report = dir.file("report.json"), metrics = dir.file("metrics.prom");
  support::write_file(metrics, "talvix_export_last_success_timestamp_seconds{a=\"}\"} 1x\n");
  const std::string keys = "status,exit_code,error,started,finished,duration_seconds,server,port,"
                           "login_domain,user,export_domain,output,compression,bytes,objects,"
                           "objects_by_class,history_series,history_rows,requests,reconnects,settings";
  using Expected = std::map<std::string, std::string>;
  const struct { const TestServer& server; std::vector<std::string> args; Expected expected; } cases[] = {
      {plain, {"-d", "elsewhere"},
       {{"keys", keys}, {"report.error", "Wrong username / password"}, {"report.requests", "0"},
        {"report.login_domain", "elsewhere"}, {"talvix_export_success", "0.0"},
        {"talvix_export_last_success_timestamp_seconds", "0.0"}}},
      {plain, {"-z", "-f" + dir.file("out.zst"), "-o", "compress=zstd"},
       {{"report.compression", "zstd"},
        {"report.output", dir.file("out.zst")}, {"families", "8:gauge"}, {"talvix_export_success", "1.0"}}},
      {once, {"-o", "reconnect=3,reconnect-wait=0"},
       {{"report.reconnects", "1"}, {"talvix_export_reconnects", "1.0"}}},
      {lost, {}, {{"report.exit_code", "1"}, {"report.error", "Error reading: OsalSocket::read end of stream"},
                  {"report.reconnects", "0"}, {"talvix_export_success", "0.0"}}},
      {plain, {"-f/dev/full"},
       {{"report.error", "Error writing: /dev/full: No space left on device"},
        {"report.compression", "none"}, {"report.output", "/dev/full"}}},
  };
  std::string lastSuccess = "0.0";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "connection lost" : c.args.back());
    std::vector<std::string> args = c.args;
    args.insert(args.end(), {"-o", "report=" + report + ",metrics=" + metrics});
    const Outcome outcome = run_exporter(c.server.port(), args);
    const support::RunResult read = support::run_process(
        "/usr/bin/python3", {"-c", kReadRunFiles, report, metrics}, dir.path(), std::chrono::seconds(60));
    ASSERT_EQ(read.exitCode, 0) << read.err;
    std::map<std::string, std::string> got;
    std::istringstream lines(read.out);
    for (std::string line; std::getline(lines, line);) {
      const size_t equals = line.find('=');
      got[line.substr(0, equals)] = line.substr(equals + 1);
    }
    for (const auto& [key, value] : c.expected) EXPECT_EQ(got[key], value) << key;
    const bool ok = outcome.exitCode == 0;
    EXPECT_EQ(got["report.status"], ok ? "ok" : "failed");
    if (ok) lastSuccess = got["talvix_export_last_run_timestamp_seconds"];
    EXPECT_EQ(got["talvix_export_last_success_timestamp_seconds"], lastSuccess);
    EXPECT_EQ(got["talvix_export_objects"], got["report.objects"] + ".0");
    if (ok && !outcome.document.empty()) {
      // The counts against the document itself.
      const auto count = [&](const std::string& text) {
        size_t n = 0;
        for (size_t at = 0; (at = outcome.document.find(text, at)) != std::string::npos; ++at) ++n;
        return std::to_string(n);
      };
      EXPECT_EQ(got["report.history_series"], count("type=\"Data\""));
      EXPECT_EQ(got["report.history_rows"], count("<Data "));
      EXPECT_EQ(got["report.bytes"], std::to_string(outcome.document.size()));
      EXPECT_EQ(std::stoul(got["report.objects"]) + std::stoul(got["report.history_series"]),
                std::stoul(count("<Object ")));
    }
    EXPECT_EQ((support::read_file(report) + support::read_file(metrics)).find("secret"), std::string::npos);
  }
}

// A fault of one object in turn of `victims`, and how many of them at least
// end the export with it. Every fault is tried at depth 64 against a server
// answering out of order; `everyDepth` adds depth 1 (in order) and 2.
struct FaultCase {
  const char* name;
  ObjectFault fault;
  uint32_t atLeast;
  std::vector<const char*> victims;
  const char* failure = nullptr;  // when set, the failure with the first victim
  bool everyDepth = false;
};

// The roots, written objects with history, a dropped duplicate, a subdomain
// and its last object, and the last object.
const std::vector<const char*> kVictims = {"root", "n1", "c1", "n1dup", "sub", "n3", "mib", "ag"};
// The objects with history the walk asks for.
const std::vector<const char*> kWithHistory = {"n1", "c1", "n2"};

class PipelinedExportObjectFaults : public ::testing::TestWithParam<FaultCase> {};

TEST_P(PipelinedExportObjectFaults, EachObjectsFailureIsReportedAsSequentially) {
  std::shared_ptr<const server::Database> db = tricky_database();
  const FaultCase& c = GetParam();
  uint32_t failed = 0;
  for (const char* id : c.victims) {
    SCOPED_TRACE(id);
    TestServer server(with_fault(db, id, c.fault));
    // A reverse window waits for its requests a moment: no use at depth 1.
    server::ServerOptions reversed;
    reversed.faults.reverseWindow = 2;
    TestServer shuffled(with_fault(db, id, c.fault), reversed);
    const Outcome sequential = run_exporter(server.port(), {}, kSequential);
    for (uint32_t depth : c.everyDepth ? std::vector<uint32_t>{1, 2, 64} : std::vector<uint32_t>{64}) {
      SCOPED_TRACE("pipeline=" + std::to_string(depth));
      const Outcome pipelined = run_exporter((depth == 1 ? server : shuffled).port(), {}, depth);
      EXPECT_EQ(std::tie(pipelined.exitCode, pipelined.failure, pipelined.document, pipelined.errors),
                std::tie(sequential.exitCode, sequential.failure, sequential.document, sequential.errors));
    }
    if (c.failure != nullptr && id == c.victims.front()) {
      EXPECT_EQ(sequential.failure, c.failure);
    }
    failed += sequential.exitCode != 0;
  }
  EXPECT_GE(failed, c.atLeast);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, PipelinedExportObjectFaults,
    ::testing::Values(FaultCase{"Vanishes", ObjectFault::kVanishes, 7, kVictims},
                      FaultCase{"Datatype12", ObjectFault::kBadHistory, 3, kWithHistory},
                      FaultCase{"Datatype1", ObjectFault::kOldHistory, 3, kWithHistory},
                      FaultCase{"Datatype18", ObjectFault::kDatatype18, 3, kWithHistory,
                                "data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17", true},
                      FaultCase{"NoSiblingName", ObjectFault::kNoSiblingName, 7, kVictims,
                                "Couldn't get siblingName for root of class Domain"},
                      FaultCase{"NoTreeLabel", ObjectFault::kNoTreeLabel, 2, {"root", "sub"}},
                      FaultCase{"Unrenderable", ObjectFault::kUnrenderable, 6, kVictims}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
