// Command-line option scanning and the settings of one export run.
//
// Options are single letters introduced by '-' or '/'. A letter followed by
// ':' in the option string takes a value, written either right after the
// letter (-ladmin) or as the next argument (-l admin) when that argument does
// not itself begin with '-' or '/'.
#ifndef TALVIX_PORTER_OPTIONS_H_
#define TALVIX_PORTER_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "porter/class_filter.h"
#include "porter/extra_settings.h"

namespace porter {

// The options of talvix-exporter.
inline constexpr char kOptionString[] = "i:I:t:s:o:d:e:l:p:P:f:chz";

// Results of OptionScanner::next() besides an option letter.
inline constexpr int kOptionsEnd = 0;       // every argument has been examined
inline constexpr int kUnknownOption = -1;   // value = the whole argument
inline constexpr int kNotAnOption = 1;      // value = the argument (no '-' or '/')

// Scans one argument list, from argv[1] on. Any argc/argv a process can
// receive is accepted; argv entries below argc must be non-null and, like
// `optionString`, must outlive the scanner.
class OptionScanner {
 public:
  OptionScanner(int argc, char** argv, const char* optionString)
      : argc_(argc), argv_(argv), optionString_(optionString) {}

  // Examines the next argument and returns the option letter, or one of the
  // results above. For a letter that takes a value, `value` is that value or
  // std::nullopt when none was written; for a letter without value it is
  // std::nullopt and the rest of the argument is ignored (-cz is -c). The
  // scanner moves past the argument and a consumed value, also for
  // kUnknownOption and kNotAnOption, so repeated calls always end.
  int next(std::optional<std::string>& value);
  // The index of the next argument to examine.
  int index() const { return index_; }
  // Where in argv the value lies that the last call of next() returned with
  // a letter: inside the option's own argument (-Psecret) or the argument
  // after it (-P secret); nullptr when there was none. For a caller that must
  // overwrite a value which should not stay visible in the process list.
  char* last_value() const;

 private:
  const int argc_;
  char** const argv_;
  const char* const optionString_;
  int index_ = 1;
};

// Everything the command line decides about one export run. Defaults are
// those of a run without options.
struct RunSettings {
  std::string format = "xml";        // -t; only "xml" and "bin" are known
  std::string server = "localhost";  // -s
  int32_t port = 3241;               // -p, decimal
  std::string loginDomain = ".";     // -d
  std::string login;                 // -l, required
  std::string password;              // -P or the console prompt
  bool passwordGiven = false;        // -P was given (even with an empty value)
  std::string outputFileName;        // -f; empty means standard output
  std::string exportDomain = ".";    // -e; "." is the root domain
  bool history = true;               // cleared by -c
  bool gzip = false;                 // -z; needs -f
  ClassFilter classFilter;           // -i, -I
  ExtraSettings extra;               // -o name=value,...

  bool operator==(const RunSettings&) const = default;
};

// Whether the error stream frames the export with "Exporting database" and
// "Done": a file export that is not quiet. The frame's first line is still
// open while the export runs.
bool framed_export(const RunSettings& settings);

}  // namespace porter

#endif  // TALVIX_PORTER_OPTIONS_H_
