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
#include <utility>
#include <vector>

#include "net/tls_stream.h"

namespace porter {

// What the error stream shows of an export's progress. Notices about the data
// and error messages are written in every mode.
enum class ProgressMode {
  kMarks,    // "Exporting ..." lines and a dot per object (the default)
  kDisplay,  // progress=1: the live display (ProgressDisplay)
  kQuiet,    // quiet=1: nothing but the notices and errors
};

// The compressor of -z.
enum class Compression {
  kGzip,  // the default
  kZstd,  // compress=zstd
};

// The level zstd compresses at when no level is given.
inline constexpr int32_t kZstdDefaultLevel = 1;

struct ExtraSettings {
  uint32_t pipeline = 1;    // requests in flight at most (1 = sequential)
  // Written by both progress and quiet, so the later of the two wins.
  ProgressMode progress = ProgressMode::kMarks;
  bool atomic = false;      // -f output written to a temporary file, renamed at the end
  uint32_t timeout = 0;     // seconds for connecting and each wait; 0 = no limit
  uint32_t reconnect = 0;   // tries in a row after a lost connection; 0 = none
  double reconnectWait = 1.0;  // seconds before the first try, doubled for each further one
  // Compression level, 0..9 for gzip, 1..19 for zstd (check_extra_settings);
  // -1 = the compressor's default.
  int32_t level = -1;
  Compression compression = Compression::kGzip;
  bool checksum = false;    // with -f: <file>.sha256 written after the finished document
  std::string passwordFile;  // without -P: the password is this file's first line
  std::string reportFile;    // the run report (JSON) goes here at the end of the run
  std::string metricsFile;   // the run's metrics (Prometheus text format) go here
  bool tls = false;         // TLS over the TCP connection
  net::TlsSettings tlsSettings;  // tls-ca, tls-name, tls-cert, tls-key
  bool help = false;        // print the list of settings and stop

  bool operator==(const ExtraSettings&) const = default;
};

// Applies the settings of one -o value to `settings`. Returns an empty text on
// success, else the complaint about the first bad value (e.g. "bad value
// \"0\" for -o pipeline: expected a whole number from 1 to 4096").
std::string apply_extra_settings(const std::string& text, ExtraSettings& settings);

// The checks of settings that depend on each other, once every -o value is
// applied: the level's range depends on the compressor. Returns an empty
// text when the settings fit, else the complaint (e.g. "bad value \"0\" for
// -o level: expected a whole number from 1 to 19 with compress=zstd").
std::string check_extra_settings(const ExtraSettings& settings);

// Every setting but help with its value in effect, as -o takes it
// ("pipeline" -> "16", "atomic" -> "1"); in the order of "-o help".
std::vector<std::pair<std::string, std::string>> settings_in_effect(const ExtraSettings& settings);

// Writes one line per setting: "-o help".
void print_extra_settings_help(std::ostream& out);

}  // namespace porter

#endif  // TALVIX_PORTER_EXTRA_SETTINGS_H_
