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
  // The value in effect, as the setting takes it; null for help.
  std::string (*show)(const ExtraSettings& settings);
};

constexpr char kGzipLevels[] = "a whole number from 0 to 9";
constexpr char kZstdLevels[] = "a whole number from 1 to 19 with compress=zstd";
constexpr int32_t kZlibDefaultLevel = 6;  // what zlib's default (-1) compresses at

std::string show_flag(bool on) { return on ? "1" : "0"; }

std::string show_seconds(double seconds) {
  char text[32];
  auto [end, ec] = std::to_chars(text, text + sizeof text, seconds);
  return ec == std::errc() ? std::string(text, end) : std::string();
}

// A non-empty text, such as a file name.
bool parse_name(const std::string& text, std::string& out) {
  if (text.empty()) return false;
  out = text;
  return true;
}

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

const Setting kSettings[] = {
    {"pipeline", "pipeline=N   keep up to N requests (1 to 4096) in flight; 1 is sequential",
     [](const std::string& v, ExtraSettings& s) { return parse_number(v, 1, 4096, s.pipeline); },
     "a whole number from 1 to 4096",
     [](const ExtraSettings& s) { return std::to_string(s.pipeline); }},
    {"progress", "progress=1   show a live progress display instead of the dots",
     [](const std::string& v, ExtraSettings& s) {
       return parse_mode(v, ProgressMode::kDisplay, s.progress);
     },
     "0 or 1",
     [](const ExtraSettings& s) { return show_flag(s.progress == ProgressMode::kDisplay); }},
    {"quiet",
     "quiet=1      no progress marks (for unattended runs); notices and errors still show;\n"
     "               of progress and quiet the later one in the list wins",
     [](const std::string& v, ExtraSettings& s) {
       return parse_mode(v, ProgressMode::kQuiet, s.progress);
     },
     "0 or 1",
     [](const ExtraSettings& s) { return show_flag(s.progress == ProgressMode::kQuiet); }},
    {"atomic",
     "atomic=1     with -f: write a temporary file and rename it over the target only on success;\n"
     "               a target that is not a regular file (FIFO, device) is written directly",
     [](const std::string& v, ExtraSettings& s) { return parse_flag(v, s.atomic); }, "0 or 1",
     [](const ExtraSettings& s) { return show_flag(s.atomic); }},
    {"timeout",
     "timeout=S    give up when connecting or a wait for the server makes no progress for S seconds",
     [](const std::string& v, ExtraSettings& s) { return parse_number(v, 1, 86400, s.timeout); },
     "a whole number of seconds from 1 to 86400",
     [](const ExtraSettings& s) { return std::to_string(s.timeout); }},
    {"reconnect",
     "reconnect=N  when the connection fails, connect and log in again up to N times in a row\n"
     "               (1 to 100; 0, the default, never) and go on where the export was",
     [](const std::string& v, ExtraSettings& s) { return parse_number(v, 0, 100, s.reconnect); },
     "a whole number from 0 to 100",
     [](const ExtraSettings& s) { return std::to_string(s.reconnect); }},
    {"reconnect-wait",
     "reconnect-wait=S  seconds (decimals allowed, default 1) before the first try to reconnect,\n"
     "               doubled for each further try, at most 60",
     [](const std::string& v, ExtraSettings& s) { return parse_seconds(v, 60.0, s.reconnectWait); },
     "a number of seconds from 0 to 60",
     [](const ExtraSettings& s) { return show_seconds(s.reconnectWait); }},
    {"level",
     "level=N      compression level for -z: gzip 0 (none) to 9 (best), default 6;\n"
     "               zstd 1 (fastest) to 19 (best), default 1",
     [](const std::string& v, ExtraSettings& s) {
       uint32_t level = 0;
       if (!parse_number(v, 0, 19, level)) return false;
       s.level = static_cast<int32_t>(level);
       return true;
     },
     kGzipLevels,
     [](const ExtraSettings& s) {
       if (s.level >= 0) return std::to_string(s.level);
       return std::to_string(s.compression == Compression::kZstd ? kZstdDefaultLevel
                                                                  : kZlibDefaultLevel);
     }},
    {"checksum",
     "checksum=1   with -f: after the finished document write <file>.sha256 in sha256sum's format\n"
     "               (replaced atomically; a failed export leaves an earlier one as it was)",
     [](const std::string& v, ExtraSettings& s) { return parse_flag(v, s.checksum); }, "0 or 1",
     [](const ExtraSettings& s) { return show_flag(s.checksum); }},
    {"password-file",
     "password-file=PATH  without -P: log in with the first line of the file PATH, which\n"
     "               must be a regular file that neither group nor others may read",
     [](const std::string& v, ExtraSettings& s) { return parse_name(v, s.passwordFile); },
     "a file name",
     [](const ExtraSettings& s) { return s.passwordFile; }},
    {"compress", "compress=C   the compressor of -z: gzip (the default) or zstd",
     [](const std::string& v, ExtraSettings& s) {
       if (v != "gzip" && v != "zstd") return false;
       s.compression = v == "zstd" ? Compression::kZstd : Compression::kGzip;
       return true;
     },
     "gzip or zstd",
     [](const ExtraSettings& s) {
       return std::string(s.compression == Compression::kZstd ? "zstd" : "gzip");
     }},
    {"report",
     "report=PATH  at the end of the run, success or failure, write a report of it (JSON)\n"
     "               to PATH, replacing it whole",
     [](const std::string& v, ExtraSettings& s) { return parse_name(v, s.reportFile); },
     "a file name", [](const ExtraSettings& s) { return s.reportFile; }},
    {"metrics",
     "metrics=PATH at the end of the run, write its metrics (Prometheus text format) to PATH,\n"
     "               replacing it whole; a failed run keeps the time of the last success",
     [](const std::string& v, ExtraSettings& s) { return parse_name(v, s.metricsFile); },
     "a file name", [](const ExtraSettings& s) { return s.metricsFile; }},
    {"tls",
     "tls=1        connect with TLS 1.2 or later; the server's certificate must be valid for\n"
     "               the -s host (or tls-name) and trusted by the system (or tls-ca)",
     [](const std::string& v, ExtraSettings& s) { return parse_flag(v, s.tls); }, "0 or 1",
     [](const ExtraSettings& s) { return show_flag(s.tls); }},
    {"tls-ca", "tls-ca=PATH  with tls=1: trust only the CA certificates of the PEM file PATH",
     [](const std::string& v, ExtraSettings& s) { return parse_name(v, s.tlsSettings.caFile); },
     "a file name", [](const ExtraSettings& s) { return s.tlsSettings.caFile; }},
    {"tls-name",
     "tls-name=NAME  with tls=1: the name the server's certificate must carry (default: the -s host)",
     [](const std::string& v, ExtraSettings& s) { return parse_name(v, s.tlsSettings.name); },
     "a host name", [](const ExtraSettings& s) { return s.tlsSettings.name; }},
    {"tls-cert",
     "tls-cert=PATH  with tls=1: present the PEM client certificate PATH",
     [](const std::string& v, ExtraSettings& s) { return parse_name(v, s.tlsSettings.certFile); },
     "a file name", [](const ExtraSettings& s) { return s.tlsSettings.certFile; }},
    {"tls-key",
     "tls-key=PATH  the PEM private key of tls-cert, a regular file that neither group nor\n"
     "               others may read (default: tls-cert's file)",
     [](const std::string& v, ExtraSettings& s) { return parse_name(v, s.tlsSettings.keyFile); },
     "a file name", [](const ExtraSettings& s) { return s.tlsSettings.keyFile; }},
    {"help", "help         print this list and exit",
     [](const std::string&, ExtraSettings& s) {
       s.help = true;
       return true;
     },
     "",
     nullptr},
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
        const bool zstdLevel = name == "level" && settings.compression == Compression::kZstd;
        return "bad value " + util::quote_escape(value) + " for -o " + name + ": expected " +
               (zstdLevel ? kZstdLevels : setting.expected);
      }
      break;
    }
  }
  return "";
}

std::string check_extra_settings(const ExtraSettings& settings) {
  const bool zstd = settings.compression == Compression::kZstd;
  if (settings.level < 0 || (zstd ? settings.level >= 1 : settings.level <= 9)) return "";
  return "bad value " + util::quote_escape(std::to_string(settings.level)) +
         " for -o level: expected " + (zstd ? kZstdLevels : kGzipLevels);
}

std::vector<std::pair<std::string, std::string>> settings_in_effect(const ExtraSettings& settings) {
  std::vector<std::pair<std::string, std::string>> shown;
  for (const Setting& setting : kSettings) {
    if (setting.show != nullptr) shown.emplace_back(setting.name, setting.show(settings));
  }
  return shown;
}

void print_extra_settings_help(std::ostream& out) {
  out << "Settings of -o (a comma-separated list of name=value):\n";
  for (const Setting& setting : kSettings) out << "  " << setting.help << "\n";
  out.flush();
}

}  // namespace porter
