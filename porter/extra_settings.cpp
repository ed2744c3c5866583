#include "porter/extra_settings.h"

#include <charconv>
#include <ostream>
#include <vector>

#include "util/format.h"

namespace porter {

namespace {

struct Setting {
  const char* name;
  const char* help;
  // Stores a parsed value; false when the value does not fit.
  bool (*apply)(const std::string& value, ExtraSettings& settings);
  const char* expected;
};

// A decimal number within [low, high], nothing else (no sign, no blanks).
bool parse_number(const std::string& text, uint32_t low, uint32_t high, uint32_t& out) {
  uint32_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (text.empty() || ec != std::errc() || ptr != end || value < low || value > high) return false;
  out = value;
  return true;
}

// A decimal number of seconds within [0, high], a fraction allowed ("0.25",
// "2"); no sign, exponent or blanks.
bool parse_seconds(const std::string& text, double high, double& out) {
  if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
  double value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
  if (ec != std::errc() || ptr != end || !(value <= high)) return false;
  out = value;
  return true;
}

bool parse_flag(const std::string& text, bool& out) {
  if (text == "1" || text == "on" || text == "yes" || text == "true") {
    out = true;
  } else if (text == "0" || text == "off" || text == "no" || text == "false") {
    out = false;
  } else {
    return false;
  }
  return true;
}

// progress=1 and quiet=1 select their mode, whatever was selected before;
// =0 goes back to the marks only from its own mode, so "quiet=1,progress=0"
// stays quiet.
bool parse_mode(const std::string& text, ProgressMode mode, ProgressMode& out) {
  bool on = false;
  if (!parse_flag(text, on)) return false;
  if (on) {
    out = mode;
  } else if (out == mode) {
    out = ProgressMode::kMarks;
  }
  return true;
}

// A non-empty text, such as a file name.
bool set_path(const std::string& text, std::string& out) {
  if (text.empty()) return false;
  out = text;
  return true;
}

const Setting kSettings[] = {
    {"pipeline", "pipeline=N   keep up to N requests (1 to 4096) in flight; 1 is sequential",
     [](const std::string& v, ExtraSettings& s) { return parse_number(v, 1, 4096, s.pipeline); },
     "a whole number from 1 to 4096"},
    {"progress", "progress=1   show a live progress display instead of the dots",
     [](const std::string& v, ExtraSettings& s) {
       return parse_mode(v, ProgressMode::kDisplay, s.progress);
     },
     "0 or 1"},
    {"quiet",
     "quiet=1      no progress marks (for unattended runs); notices and errors still show;\n"
     "               of progress and quiet the later one in the list wins",
     [](const std::string& v, ExtraSettings& s) {
       return parse_mode(v, ProgressMode::kQuiet, s.progress);
     },
     "0 or 1"},
    {"atomic",
     "atomic=1     with -f: write a temporary file and rename it over the target only on success;\n"
     "               a target that is not a regular file (FIFO, device) is written directly",
     [](const std::string& v, ExtraSettings& s) { return parse_flag(v, s.atomic); }, "0 or 1"},
    {"timeout",
     "timeout=S    give up when connecting or a wait for the server makes no progress for S seconds",
     [](const std::string& v, ExtraSettings& s) { return parse_number(v, 1, 86400, s.timeout); },
     "a whole number of seconds from 1 to 86400"},
    {"reconnect",
     "reconnect=N  when the connection fails, connect and log in again up to N times in a row\n"
     "               (1 to 100; 0, the default, never) and go on where the export was",
     [](const std::string& v, ExtraSettings& s) { return parse_number(v, 0, 100, s.reconnect); },
     "a whole number from 0 to 100"},
    {"reconnect-wait",
     "reconnect-wait=S  seconds (decimals allowed, default 1) before the first try to reconnect,\n"
     "               doubled for each further try, at most 60",
     [](const std::string& v, ExtraSettings& s) { return parse_seconds(v, 60.0, s.reconnectWait); },
     "a number of seconds from 0 to 60"},
    {"level", "level=N      gzip compression level 0 (none) to 9 (best) for -z",
     [](const std::string& v, ExtraSettings& s) {
       uint32_t level = 0;
       if (!parse_number(v, 0, 9, level)) return false;
       s.level = static_cast<int32_t>(level);
       return true;
     },
     "a whole number from 0 to 9"},
    {"password-file",
     "password-file=PATH  without -P: log in with the first line of the file PATH, which\n"
     "               must be a regular file that neither group nor others may read",
     [](const std::string& v, ExtraSettings& s) { return set_path(v, s.passwordFile); },
     "a file name"},
    {"tls",
     "tls=1        connect with TLS 1.2 or later; the server's certificate must be valid for\n"
     "               the -s host (or tls-name) and trusted by the system (or tls-ca)",
     [](const std::string& v, ExtraSettings& s) { return parse_flag(v, s.tls); }, "0 or 1"},
    {"tls-ca", "tls-ca=PATH  with tls=1: trust only the CA certificates of the PEM file PATH",
     [](const std::string& v, ExtraSettings& s) { return set_path(v, s.tlsSettings.caFile); },
     "a file name"},
    {"tls-name",
     "tls-name=NAME  with tls=1: the name the server's certificate must carry (default: the -s host)",
     [](const std::string& v, ExtraSettings& s) { return set_path(v, s.tlsSettings.name); },
     "a host name"},
    {"tls-cert",
     "tls-cert=PATH  with tls=1: present the PEM client certificate PATH",
     [](const std::string& v, ExtraSettings& s) { return set_path(v, s.tlsSettings.certFile); },
     "a file name"},
    {"tls-key",
     "tls-key=PATH  the PEM private key of tls-cert, a regular file that neither group nor\n"
     "               others may read (default: tls-cert's file)",
     [](const std::string& v, ExtraSettings& s) { return set_path(v, s.tlsSettings.keyFile); },
     "a file name"},
    {"help", "help         print this list and exit",
     [](const std::string&, ExtraSettings& s) {
       s.help = true;
       return true;
     },
     ""},
};

}  // namespace

std::string apply_extra_settings(const std::string& text, ExtraSettings& settings) {
  std::vector<std::string> pieces;
  util::split(text, ',', pieces);
  for (const std::string& piece : pieces) {
    const size_t equals = piece.find('=');
    const std::string name = piece.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : piece.substr(equals + 1);
    for (const Setting& setting : kSettings) {
      if (name != setting.name) continue;
      if (equals == std::string::npos && name != "help") break;  // a bare word: ignored
      if (!setting.apply(value, settings)) {
        return "bad value " + util::quote_escape(value) + " for -o " + name + ": expected " +
               setting.expected;
      }
      break;
    }
  }
  return "";
}

void print_extra_settings_help(std::ostream& out) {
  out << "Settings of -o (a comma-separated list of name=value):\n";
  for (const Setting& setting : kSettings) out << "  " << setting.help << "\n";
  out.flush();
}

}  // namespace porter
