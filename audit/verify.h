// talvix-audit verify: whether export documents are complete and intact.
#ifndef TALVIX_AUDIT_VERIFY_H_
#define TALVIX_AUDIT_VERIFY_H_

#include <ostream>
#include <string>
#include <vector>

namespace audit {

struct VerifyOptions {
  // A file without a "<file>.sha256" beside it is a problem.
  bool requireChecksum = false;
};

// Checks each file in turn: "<file>: OK" on `out` for a good one (with
// ", checksum OK" when its sidecar was checked), "<file>:<line>: byte
// <offset>: <what>" or "<file>: <what>" on `err` for a problem,
// "talvix-audit: <what>" for trouble. Returns 0 when every file is good, 2
// after any trouble, else 1.
int verify_files(const std::vector<std::string>& files, const VerifyOptions& options,
                 std::ostream& out, std::ostream& err);

}  // namespace audit

#endif  // TALVIX_AUDIT_VERIFY_H_
