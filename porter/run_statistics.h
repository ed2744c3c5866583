// What one run did, counted as it goes, for the run report and the metrics.
#ifndef TALVIX_PORTER_RUN_STATISTICS_H_
#define TALVIX_PORTER_RUN_STATISTICS_H_

#include <cstdint>
#include <map>
#include <string>

namespace porter {

// Filled by the export as far as it gets: a failed run keeps the counts up
// to its failure. One value per run, owned by the command line
// (run_command_line) and lent to the export for the call.
struct RunStatistics {
  uint64_t objects = 0;                           // Object elements other than history series
  std::map<std::string, uint64_t> objectsByClass;  // the same, by their type attribute
  uint64_t historySeries = 0;                     // history series elements written
  uint64_t historyRows = 0;                       // Data elements written
  uint64_t requests = 0;                          // requests sent after the login
  uint64_t reconnects = 0;                        // lost connections replaced by a new login
  uint64_t bytes = 0;                             // see DocumentOutput's OutputOptions::targetBytes
};

}  // namespace porter

#endif  // TALVIX_PORTER_RUN_STATISTICS_H_
