// What a finished run tells the programs that watch it: the run report
// (-o report=FILE, one JSON object) and the run's metrics (-o
// metrics=FILE, Prometheus text format for a textfile collector).
#ifndef TALVIX_PORTER_RUN_REPORT_H_
#define TALVIX_PORTER_RUN_REPORT_H_

#include <chrono>
#include <optional>
#include <string>

#include "porter/options.h"
#include "porter/run_statistics.h"

namespace porter {

// How one run ended.
struct RunOutcome {
  using Time = std::chrono::system_clock::time_point;
  int exitCode = 0;
  std::string error;  // the failure's message; empty after a success
  Time started;
  Time finished;
};

// The run report: one JSON object with a line end. Holds no password: of
// the settings, the password file's name at most.
std::string run_report_json(const RunSettings& settings, const RunStatistics& statistics,
                            const RunOutcome& outcome);

// The metrics of the run, every one a gauge with HELP and TYPE lines and the
// labels server and export_domain. After a failure the time of the last
// success is `previousSuccess` (0 when there is none).
std::string run_metrics_text(const RunSettings& settings, const RunStatistics& statistics,
                             const RunOutcome& outcome, double previousSuccess);

// The value of the first talvix_export_last_success_timestamp_seconds sample
// in a metrics file's text; std::nullopt when there is none or it cannot be
// read (a garbled line, a negative or non-finite value).
std::optional<double> last_success_in(const std::string& metricsText);

// Writes the report and the metrics the settings ask for, each replacing its
// file whole (a temporary file renamed over it, as -o atomic=1 writes the
// export; a new file gets the mode of a new export file). For the metrics, a
// failed run reads the previous file first. Throws util::Exception for the
// first file that cannot be written, after trying both.
void write_run_files(const RunSettings& settings, const RunStatistics& statistics,
                     const RunOutcome& outcome);

}  // namespace porter

#endif  // TALVIX_PORTER_RUN_REPORT_H_
