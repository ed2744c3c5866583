// Runs one export through export_database() against a stand-in server on
// the loopback interface, as talvix-exporter's main() does, with the error
// stream and standard output captured.
#ifndef TALVIX_TESTS_SUPPORT_RUN_EXPORT_H_
#define TALVIX_TESTS_SUPPORT_RUN_EXPORT_H_

#include <cstdint>
#include <memory>
#include <string>

#include "porter/export_database.h"
#include "server/database.h"

namespace export_test {

// An export of the whole tree from 127.0.0.1 as admin / secret in domain ".".
struct ExportRun {
  uint16_t port = 0;
  std::string outputFileName;  // empty: the document is captured in `document`
  bool gzip = false;
  porter::ExtraSettings extra;
  bool errorIsTerminal = false;
  unsigned timeout = 0;  // >0: connect through timedConnectionFactory()
};

struct ExportOutcome {
  bool ok = false;
  std::string failure;   // the failure's text when !ok
  std::string document;  // what went to standard output
  std::string err;       // what went to the error stream
};

// A small generated database (7 domains, 21 nodes, 42 checks with 4 history
// rows each) that a whole export walks; login admin / secret in domain ".".
std::shared_ptr<const server::Database> exportable_database();

// Runs `run`; error::Exception failures are caught into the outcome. The
// Meta timestamp is fixed (1970-01-01), so documents of two runs compare.
ExportOutcome run_export(const ExportRun& run);

// The bytes of a file ("" when it cannot be read) and of a gzip file
// decompressed.
std::string read_file(const std::string& path);
std::string read_gzip_file(const std::string& path);

}  // namespace export_test

#endif  // TALVIX_TESTS_SUPPORT_RUN_EXPORT_H_
