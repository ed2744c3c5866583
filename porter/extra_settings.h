// The -o settings: opt-in behaviour beyond the documented defaults.
//
// The value of -o is a comma-separated list of name=value settings. A known
// name with a value it cannot take is an error; anything else (unknown
// names, pieces without '=') is ignored, as -o always ignored its value.
// -o may be given several times; later settings win.
#ifndef TALVIX_PORTER_EXTRA_SETTINGS_H_
#define TALVIX_PORTER_EXTRA_SETTINGS_H_

#include <cstdint>
#include <iosfwd>
#include <string>

#include "net/tls_stream.h"

namespace porter {

// What the error stream shows of an export's progress. Notices about the data
// and error messages are written in every mode.
enum class ProgressMode {
  kMarks,    // "Exporting ..." lines and a dot per object (the default)
  kDisplay,  // progress=1: the live display (ProgressDisplay)
  kQuiet,    // quiet=1: nothing but the notices and errors
};

struct ExtraSettings {
  uint32_t pipeline = 1;    // requests in flight at most (1 = sequential)
  // Written by both progress and quiet, so the later of the two wins.
  ProgressMode progress = ProgressMode::kMarks;
  bool atomic = false;      // -f output written to a temporary file, renamed at the end
  uint32_t timeout = 0;     // seconds for connecting and each wait; 0 = no limit
  uint32_t reconnect = 0;   // tries in a row after a lost connection; 0 = none
  double reconnectWait = 1.0;  // seconds before the first try, doubled for each further one
  int32_t level = -1;       // gzip compression level 0..9; -1 = zlib's default
  std::string passwordFile;  // without -P: the password is this file's first line
  bool tls = false;         // TLS over the TCP connection
  net::TlsSettings tlsSettings;  // tls-ca, tls-name, tls-cert, tls-key
  bool help = false;        // print the list of settings and stop

  bool operator==(const ExtraSettings&) const = default;
};

// Applies the settings of one -o value to `settings`. Returns an empty text on
// success, else the complaint about the first bad value (e.g. "bad value
// \"0\" for -o pipeline: expected a whole number from 1 to 4096").
std::string apply_extra_settings(const std::string& text, ExtraSettings& settings);

// Writes one line per setting: "-o help".
void print_extra_settings_help(std::ostream& out);

}  // namespace porter

#endif  // TALVIX_PORTER_EXTRA_SETTINGS_H_
