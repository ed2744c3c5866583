// The help text of talvix-exporter.
#ifndef TALVIX_PORTER_USAGE_H_
#define TALVIX_PORTER_USAGE_H_

#include <ostream>
#include <string>

namespace porter {

// Writes the usage text to `out`, naming the program `programName` (the
// first command-line argument, unchanged) in the synopsis.
void print_usage(std::ostream& out, const std::string& programName);

}  // namespace porter

#endif  // TALVIX_PORTER_USAGE_H_
