// talvix-audit stats: what an export document holds.
#ifndef TALVIX_AUDIT_STATS_H_
#define TALVIX_AUDIT_STATS_H_

#include <ostream>
#include <string>

namespace audit {

// Reads `file` and writes its summary to `out`: an aligned table, or with
// `json` one JSON object on one line. A problem with the document goes to
// `err` as verify writes it and gives 1, trouble gives 2; else 0.
int print_stats(const std::string& file, bool json, std::ostream& out, std::ostream& err);

}  // namespace audit

#endif  // TALVIX_AUDIT_STATS_H_
