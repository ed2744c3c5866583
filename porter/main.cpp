// talvix-exporter: exports the object database of a monitoring server as one
// XML document.
#include <unistd.h>

#include <iostream>

#include "porter/export_database.h"
#include "porter/run.h"

int main(int argc, char** argv) {
  // The document goes to standard output through its own buffer; messages go
  // to the error stream, which is written through at every line end.
  std::ios::sync_with_stdio(false);
  porter::ExportEnvironment environment;
  environment.errorIsTerminal = isatty(STDERR_FILENO) == 1;
  return porter::run_command_line(
      argc, argv,
      [&environment](const porter::RunSettings& s, porter::RunStatistics& statistics) {
        porter::export_database(s, environment, &statistics);
      },
      std::cerr);
}
