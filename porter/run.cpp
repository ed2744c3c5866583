#include "porter/run.h"

#include <chrono>
#include <cstring>
#include <optional>
#include <string>

#include "porter/usage.h"
#include "util/error.h"
#include "util/format.h"

namespace porter {

namespace {

// Writes a line end: a line feed, then a flush.
std::ostream& line_end(std::ostream& out) { return out << std::endl; }

class CommandLine {
 public:
  CommandLine(int argc, char** argv, std::ostream& err)
      : argc_(argc), argv_(argv), err_(err),
        program_(argc > 0 && argv[0] != nullptr ? argv[0] : "") {}
  // The password is wiped once the run is over, whatever its outcome.
  ~CommandLine() { wipe_password(settings_.password); }
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Scans every option into settings_. Returns the exit code when the run
  // ends during scanning, std::nullopt when it goes on. Throws the parse
  // error of a bad -p value.
  std::optional<int> scan() {
    OptionScanner scanner(argc_, argv_, kOptionString);
    std::optional<std::string> value;
    for (;;) {
      int letter = scanner.next(value);
      if (letter == kOptionsEnd) {
        // Settings that depend on each other are checked once all are known.
        if (std::string complaint = check_extra_settings(settings_.extra); !complaint.empty()) {
          err_ << "Error: " << complaint << line_end;
          return fail_with_hint();
        }
        return std::nullopt;
      }

      if (!value && letter != 'c' && letter != 'h' && letter != 'z') {
        err_ << "Error: Option -" << static_cast<char>(letter) << " needs a argument." << line_end;
        return fail_with_hint();
      }
      switch (letter) {
        case kUnknownOption:
          err_ << "Error: " << *value << " is not a valid option. " << line_end;
          return fail_with_hint();
        case kNotAnOption:
          err_ << "Error: " << *value << " is not a valid option. Probably a missing option flag."
               << line_end;
          return fail_with_hint();
        case 't': settings_.format = *value; break;
        case 's': settings_.server = *value; break;
        case 'p':
          settings_.port = util::parse_int(*value);
          break;
        case 'd': settings_.loginDomain = *value; break;
        case 'l': settings_.login = *value; break;
        case 'P':
          settings_.password = *value;
          settings_.passwordGiven = true;
          hide(scanner.last_value());
          break;
        case 'f': settings_.outputFileName = *value; break;
        case 'e': settings_.exportDomain = *value; break;
        case 'c': settings_.history = false; break;
        case 'z': settings_.gzip = true; break;
        case 'h':
          print_usage(err_, program_);
          return 0;
        case 'i':
        case 'I':
          if (!settings_.classFilter.included.empty() || !settings_.classFilter.ignored.empty()) {
            err_ << "Error: -i and -I may be given at most once" << line_end;
            return fail_with_hint();
          }
          if (letter == 'i') {
            add_ignored_classes(settings_.classFilter, *value);
          } else {
            add_included_classes(settings_.classFilter, *value);
          }
          break;
        case 'o':
          if (std::string complaint = apply_extra_settings(*value, settings_.extra);
              !complaint.empty()) {
            err_ << "Error: " << complaint << line_end;
            return fail_with_hint();
          }
          if (settings_.extra.help) {
            print_extra_settings_help(err_);
            return 0;
          }
          break;
        default: break;   // every letter of kOptionString is handled above
      }
    }
  }

  // The checks after scanning. Returns the exit code when the run ends here.
  std::optional<int> check() {
    if (settings_.gzip && settings_.outputFileName.empty()) {
      err_ << "Error: when using -z flag you must also use the -f flag." << line_end;
      return 1;
    }
    if (settings_.extra.checksum && settings_.outputFileName.empty()) {
      err_ << "Error: when using -o checksum=1 you must also use the -f flag." << line_end;
      return 1;
    }
    if (settings_.format != "bin" && settings_.format != "xml") {
      // Only a warning: every format name gives the XML document.
      err_ << "Error: nu such format : '" << settings_.format << "'" << line_end;
      print_usage(err_, program_);
    }
    if (settings_.login.empty()) {
      err_ << "Error: Missing login argument!" << line_end << line_end;
      print_usage(err_, program_);
      return 1;
    }
    return std::nullopt;
  }

  // Asks for the password unless -P or a password file gives one. Returns the
  // exit code on failure; throws the password file's failures.
  std::optional<int> ask_password(const PasswordReader& readPassword) {
    // The TLS key is held to the password file's rule before anything connects.
    const net::TlsSettings& tls = settings_.extra.tlsSettings;
    const std::string& key = tls.keyFile.empty() ? tls.certFile : tls.keyFile;
    if (settings_.extra.tls && !key.empty()) check_private_file(key, "TLS key file");
    if (settings_.passwordGiven) return std::nullopt;
    if (!settings_.extra.passwordFile.empty()) {
      settings_.password = read_password_file(settings_.extra.passwordFile);
      return std::nullopt;
    }
    char buffer[kPasswordBufferSize] = {};
    const char* failure = readPassword(buffer, sizeof buffer, "Password: ");
    if (failure == nullptr) {
      buffer[sizeof buffer - 1] = '\0';  // a misbehaving reader cannot run us off the end
      settings_.password = buffer;
    }
    std::memset(buffer, 0, sizeof buffer);
    if (failure != nullptr) {
      failureMessage = "Error getting password";
      err_ << failureMessage << line_end;
      return 1;
    }
    return std::nullopt;
  }

  void run_export(const ExportDriver& exportDatabase, RunStatistics& statistics) {
    const bool framed = framed_export(settings_);
    if (framed) {
      err_ << "Exporting database";
      if (settings_.gzip) err_ << " using gz ";
      err_ << std::flush;
    }
    exportDatabase(settings_, statistics);
    if (framed) err_ << "\nDone" << line_end;
  }

  const RunSettings& settings() const { return settings_; }
  // The message of a failure that ended the run; empty when none did.
  std::string failureMessage;

 private:
  // Overwrites an argument's text in place, so that the process list (ps,
  // /proc/PID/cmdline) no longer shows it; the scanner is already past it.
  static void hide(char* text) {
    if (text != nullptr) std::memset(text, 'x', std::strlen(text));
  }

  int fail_with_hint() {
    err_ << "'" << program_ << " -h' for help." << line_end;
    return 1;
  }

  const int argc_;
  char** const argv_;
  std::ostream& err_;
  const std::string program_;
  RunSettings settings_;
};

}  // namespace

int run_command_line(int argc, char** argv, const ExportDriver& exportDatabase, std::ostream& err,
                     const PasswordReader& readPassword, const RunFilesWriter& writeRunFiles) {
  CommandLine commandLine(argc, argv, err);
  RunStatistics statistics;
  RunOutcome outcome;
  bool pastOptions = false;
  outcome.exitCode = [&] {
    try {
      if (auto code = commandLine.scan()) return *code;
      if (auto code = commandLine.check()) return *code;
      pastOptions = true;
      outcome.started = std::chrono::system_clock::now();
      if (auto code = commandLine.ask_password(readPassword)) return *code;
      commandLine.run_export(exportDatabase, statistics);
      return 0;
    } catch (const util::EConnectError& e) {
      err << "Failed connecting to server " << commandLine.settings().server << line_end;
      err << e.text() << line_end;
      commandLine.failureMessage = e.text();
      return 1;
    } catch (const util::Exception& e) {
      err << "Error" << line_end;
      err << e.text() << line_end;
      commandLine.failureMessage = e.text();
      return 1;
    }
  }();
  if (!pastOptions) return outcome.exitCode;
  outcome.finished = std::chrono::system_clock::now();
  outcome.error = commandLine.failureMessage;
  try {
    writeRunFiles(commandLine.settings(), statistics, outcome);
  } catch (const util::Exception& e) {
    err << "Error" << line_end;
    err << e.text() << line_end;
    return 1;
  }
  return outcome.exitCode;
}

}  // namespace porter
