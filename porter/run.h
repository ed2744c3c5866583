// The command-line front of talvix-exporter: scans and checks the options,
// asks for the password, runs the export and turns every failure into a
// message on the error stream and an exit code. main() (porter/main.cpp)
// runs it with export_database() as the driver.
#ifndef TALVIX_PORTER_RUN_H_
#define TALVIX_PORTER_RUN_H_

#include <cstddef>
#include <functional>
#include <ostream>

#include "porter/options.h"
#include "porter/password.h"
#include "porter/run_report.h"
#include "porter/run_statistics.h"

namespace porter {

// Runs one export with the validated settings, counting what it does into
// the statistics as far as it gets; reports every failure by throwing
// (util::EConnectError for a refused login, other util::Exception classes for
// the rest). Both arguments stay valid for the whole call.
using ExportDriver = std::function<void(const RunSettings&, RunStatistics&)>;

// Reads the password into a buffer of `size` bytes; nullptr on success, an
// error text on failure (see read_console_password()).
using PasswordReader = std::function<const char*(char* buffer, size_t size, const char* prompt)>;

// Writes the files of -o report and -o metrics at the end of a run.
using RunFilesWriter =
    std::function<void(const RunSettings&, const RunStatistics&, const RunOutcome&)>;

// The body of main(). Scans argv from argv[1] on, checks the settings, asks
// `readPassword` for the password when no -P was given, and calls
// `exportDatabase` at most once. Every message and
// progress line goes to `err`; nothing is written to standard output here.
// A run that got past the options (password, export) ends by calling
// `writeRunFiles`; when that throws a util::Exception, its message follows
// and the exit code is 1.
// Returns the process exit code: 0 after a finished export or -h, 1 after any
// failure. Exceptions of the util::Exception family are reported and give
// 1; others (out of memory, ...) pass through to the caller.
int run_command_line(int argc, char** argv, const ExportDriver& exportDatabase, std::ostream& err,
                     const PasswordReader& readPassword = read_console_password,
                     const RunFilesWriter& writeRunFiles = write_run_files);

}  // namespace porter

#endif  // TALVIX_PORTER_RUN_H_
