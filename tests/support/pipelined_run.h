// Runs the exporter in-process against the stand-in server, sequentially or
// with -o pipeline=N, and keeps everything it wrote, for the tests that
// compare the pipelined export with the sequential one.
#ifndef TALVIX_TESTS_SUPPORT_PIPELINED_RUN_H_
#define TALVIX_TESTS_SUPPORT_PIPELINED_RUN_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "porter/pipelined_source.h"
#include "server/database.h"

namespace pipelined_test {

struct Outcome {
  int exitCode = -1;
  std::string document;  // what went to standard output
  std::string errors;    // everything the run wrote to the error stream
  std::string failure;   // the text of the exception that ended the export
  porter::PipelineStats stats;
};

// No -o pipeline option at all.
constexpr uint32_t kSequential = 0;

// Runs the exporter's command line in-process against 127.0.0.1:port with
// `args` after the login, and -o pipeline=`depth` unless depth is
// kSequential. The Meta timestamp is always that of 2008-03-01 00:00:00 UTC.
// Elements a failed export left open are closed afterwards (into a scratch
// stream), so runs can follow each other in one process.
Outcome run_exporter(uint16_t port, std::vector<std::string> args, uint32_t depth);

// The path of `relative` (e.g. "server/sample/sample.json") in the source
// tree, wherever the test program runs.
std::string source_path(const std::string& relative);

// tests/data/pipelined_tricky.json, one table of objects for most cases:
// written objects with history (a series with rows, an empty one, one the
// server refuses), duplicates, flagged children, a null siblingName, an
// AlertPathUsage without one, a MIB object outside the MIB selection, a
// default-ignored class, subdomains, and a MIB section with a duplicate
// name. Every dropped object has children.
std::shared_ptr<const server::Database> tricky_database();

// What goes wrong with the one object `victim` of a database.
enum class ObjectFault {
  kVanishes,       // listed by its parent, but selecting it by its id finds nothing
  kBadHistory,     // every history series of datatype 12, with a continuous row
  kOldHistory,     // every history series of datatype 1 (continuousDEPRECATED)
  kNoSiblingName,  // its siblingName property is missing
  kNoTreeLabel,    // its treeLabel property is missing
  kUnrenderable,   // an extra Date property holding a string
};
std::shared_ptr<const server::Database> with_fault(std::shared_ptr<const server::Database> inner,
                                                   std::string victim, ObjectFault fault);

}  // namespace pipelined_test

#endif  // TALVIX_TESTS_SUPPORT_PIPELINED_RUN_H_
