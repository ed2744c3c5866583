#include "support/run_export.h"

#include <zlib.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "net/timed_connection.h"
#include "porter/export_state.h"
#include "porter/xml_export.h"
#include "server/generator.h"
#include "util/error.h"

namespace export_test {

std::shared_ptr<const server::Database> exportable_database() {
  return server::make_generated_database(server::parse_generator_shape("2x3x2x4/2"));
}

ExportOutcome run_export(const ExportRun& run) {
  ExportOutcome outcome;
  std::ostringstream document, err;
  porter::ExportEnvironment environment;
  environment.standardOutput = &document;
  environment.errorStream = &err;
  environment.errorIsTerminal = run.errorIsTerminal;
  environment.extra = run.extra;
  if (run.timeout > 0) environment.connector = timedConnectionFactory(run.timeout);
  const porter::XMLExport prototype(ElementKind::Object, porter::export_notices(),
                                    [] { return int64_t{0}; });
  try {
    porter::export_database("127.0.0.1", run.port, "admin", "secret", ".", ".", run.outputFileName,
                            prototype, porter::ClassFilter{}, true, run.gzip, environment);
    outcome.ok = true;
  } catch (const error::Exception& e) {
    outcome.failure = e.text();
  }
  porter::export_state().err = &std::cerr;
  outcome.document = document.str();
  outcome.err = err.str();
  return outcome;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string read_gzip_file(const std::string& path) {
  gzFile file = gzopen(path.c_str(), "rb");
  if (file == nullptr) return "";
  std::string text;
  char buffer[8192];
  int n;
  while ((n = gzread(file, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  gzclose(file);
  return text;
}

}  // namespace export_test
