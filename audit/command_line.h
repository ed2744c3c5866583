// The command line of talvix-audit.
#ifndef TALVIX_AUDIT_COMMAND_LINE_H_
#define TALVIX_AUDIT_COMMAND_LINE_H_

#include <ostream>

namespace audit {

// Runs "talvix-audit <command> ..." and returns its exit code, as diff(1)
// does: 0 no problem or no difference, 1 a problem or a difference, 2
// trouble (bad usage: the usage text on `err`).
int run_audit(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace audit

#endif  // TALVIX_AUDIT_COMMAND_LINE_H_
