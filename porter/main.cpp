// talvix-exporter: exports the object database of a monitoring server as one
// XML document.
#include <iostream>

#include "porter/export_base.h"
#include "porter/export_database.h"
#include "porter/run.h"
#include "porter/xml_export.h"

int main(int argc, char** argv) {
  // The document goes to standard output through its own buffer; messages go
  // to the error stream, which is written through at every line end.
  std::ios::sync_with_stdio(false);
  return porter::run_command_line(
      argc, argv,
      [](const porter::RunSettings& s) {
        const porter::XMLExport prototype(ElementKind::Object);
        porter::export_database(s.server, s.port, s.login, s.password, s.loginDomain,
                                s.exportDomain, s.outputFileName, prototype, s.classFilter,
                                s.history, s.gzip);
      },
      std::cerr);
}
