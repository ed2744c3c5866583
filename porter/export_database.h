// The export driver: one export from login to the closing of the output.
#ifndef TALVIX_PORTER_EXPORT_DATABASE_H_
#define TALVIX_PORTER_EXPORT_DATABASE_H_

#include <iostream>

#include "net/connection.h"
#include "porter/options.h"
#include "porter/run_statistics.h"
#include "porter/xml_export.h"

namespace porter {

struct PipelineStats;

// Where an export writes besides the output file, and what a test observes;
// the defaults are the process's own. Everything referenced must outlive the
// call.
struct ExportEnvironment {
  std::ostream* standardOutput = &std::cout;
  std::ostream* errorStream = &std::cerr;
  bool errorIsTerminal = false;  // errorStream shows on a terminal (progress redraws in place)
  XMLExport::Clock clock = XMLExport::system_clock;  // for the Meta timestamp
  PipelineStats* pipelineStats = nullptr;  // with -o pipeline=N, N > 1: the source's counts
  // Makes the connection to the server in place of TCP (with -o timeout, the
  // timed TCP connector); null for the default.
  const net::ConnectionFactory* connector = nullptr;
};

// Runs the export `settings` describe: logs in to the server (within -o
// timeout, when given), finds the export domain (a dotted path below the
// root domain, "." for the whole database), opens the output (standard
// output, a file, a gzip file with -z) only after that, writes the document
// and closes the output. The session ends with the call; no logout is sent.
//
// Failures are thrown: util::EConnectError for a refused login,
// util::ESystemError for transport failures, util::EFatal for a missing
// export domain ("Domain \"<path>\" does not exist.", "Domain non
// existing"), an output that cannot be opened and the walk's own failures,
// and the errors of the layers below. A failure after the output was opened
// leaves what was written in it (see DocumentOutput for -o atomic=1).
// `statistics`, when given, is filled as far as the export gets.
void export_database(const RunSettings& settings,
                     const ExportEnvironment& environment = ExportEnvironment(),
                     RunStatistics* statistics = nullptr);

}  // namespace porter

#endif  // TALVIX_PORTER_EXPORT_DATABASE_H_
