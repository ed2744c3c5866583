// talvix-exporter: exports the object database of a monitoring server as one
// XML document.
#include <unistd.h>

#include <iostream>

#include "net/timed_connection.h"
#include "porter/export_base.h"
#include "porter/export_database.h"
#include "porter/export_state.h"
#include "porter/run.h"
#include "porter/xml_export.h"

int main(int argc, char** argv) {
  // The document goes to standard output through its own buffer; messages go
  // to the error stream, which is written through at every line end.
  std::ios::sync_with_stdio(false);
  return porter::run_command_line(
      argc, argv,
      [](const porter::RunSettings& s) {
        // Notices reach the error stream the export has installed (the progress
        // display keeps them apart from its own line).
        const porter::XMLExport prototype(porter::ElementKind::Object, porter::export_notices());
        porter::ExportEnvironment environment;
        environment.extra = s.extra;
        environment.errorIsTerminal = isatty(STDERR_FILENO) == 1;
        if (s.extra.timeout > 0)
          environment.connector = net::timedConnectionFactory(s.extra.timeout);
        porter::export_database(s.server, s.port, s.login, s.password, s.loginDomain,
                                s.exportDomain, s.outputFileName, prototype, s.classFilter,
                                s.history, s.gzip, environment);
      },
      std::cerr);
}
