// The export driver: one export from login to the closing of the output.
#ifndef TALVIX_PORTER_EXPORT_DATABASE_H_
#define TALVIX_PORTER_EXPORT_DATABASE_H_

#include <cstdint>
#include <iostream>
#include <string>

#include "net/connection.h"
#include "porter/class_filter.h"
#include "porter/extra_settings.h"

namespace porter {

class ExportBase;

struct PipelineStats;

// Where an export connects and writes besides the output file; the defaults
// are the process's own. Everything referenced must outlive the call.
struct ExportEnvironment {
  net::ConnectionFactory connector;  // connectTcp
  std::ostream* standardOutput = &std::cout;
  std::ostream* errorStream = &std::cerr;
  bool errorIsTerminal = false;      // errorStream shows on a terminal (progress redraws in place)
  ExtraSettings extra;               // the -o settings; the defaults change nothing
  PipelineStats* pipelineStats = nullptr;  // with extra.pipeline > 1: the source's counts
};

// Logs in to server:port as `login` of `loginDomain`, finds the export domain
// (a dotted path below the root domain, "." for the whole database), opens
// the output (standard output when `outputFileName` is empty, a gzip file
// with `gzip`) only after that, writes the document through exporters made
// by `prototype` (element kind Object) and closes the output. Returns 0.
//
// Failures are thrown: util::EConnectError for a refused login,
// util::ESystemError for transport failures, util::EFatal for a missing
// export domain ("Domain \"<path>\" does not exist.", "Domain non
// existing"), an output that cannot be opened and the walk's own failures,
// and the errors of the layers below. A failure after the output was opened
// leaves what was written in it.
int export_database(const std::string& server, int32_t port, const std::string& login,
                    const std::string& password, const std::string& loginDomain,
                    const std::string& exportDomain, const std::string& outputFileName,
                    const ExportBase& prototype, const ClassFilter& filter, bool history,
                    bool gzip, const ExportEnvironment& environment = ExportEnvironment());

}  // namespace porter

#endif  // TALVIX_PORTER_EXPORT_DATABASE_H_
