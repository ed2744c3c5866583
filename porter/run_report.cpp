#include "porter/run_report.h"

#include <charconv>
#include <cmath>
#include <ctime>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "porter/document_output.h"
#include "util/error.h"

namespace porter {

namespace {

int64_t milliseconds_of(RunOutcome::Time time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

// Seconds since 1970 with milliseconds.
double seconds_of(RunOutcome::Time time) {
  return static_cast<double>(milliseconds_of(time)) / 1000.0;
}

double duration_of(const RunOutcome& outcome) {
  return static_cast<double>(milliseconds_of(outcome.finished) - milliseconds_of(outcome.started)) /
         1000.0;
}

// "2026-11-26T04:35:14.123Z".
std::string iso_8601(RunOutcome::Time time) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
  const std::time_t whole = static_cast<std::time_t>(ms.count() / 1000);
  std::tm utc {};
  gmtime_r(&whole, &utc);
  char text[64];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>(ms.count() % 1000));
  return std::string(text, length) + fraction;
}

// A number as Prometheus and JSON readers take it: whole numbers without a
// fraction, else with up to milliseconds.
std::string number(double value) {
  char text[64];
  std::snprintf(text, sizeof text, value == std::floor(value) ? "%.0f" : "%.3f", value);
  return text;
}

std::string compression_name(const RunSettings& settings) {
  if (!settings.gzip) return "none";
  return settings.extra.compression == Compression::kZstd ? "zstd" : "gzip";
}

// A label value in double quotes, with backslash, double quote and line feed
// escaped as the text format requires.
std::string label_value(const std::string& text) {
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '\\' || c == '"') quoted += '\\';
    if (c == '\n') {
      quoted += "\\n";
      continue;
    }
    quoted += c;
  }
  return quoted + "\"";
}

void write_atomically(const std::string& fileName, const std::string& text) {
  std::ostringstream unused;  // the file name is never empty: standard output stays unused
  DocumentOutput output(fileName, false, unused, OutputOptions{true});
  output.stream().write(text);
  output.close();
}

constexpr char kLastSuccess[] = "talvix_export_last_success_timestamp_seconds";

}  // namespace

std::string run_report_json(const RunSettings& settings, const RunStatistics& statistics,
                            const RunOutcome& outcome) {
  nlohmann::ordered_json report;
  report["status"] = outcome.exitCode == 0 ? "ok" : "failed";
  report["exit_code"] = outcome.exitCode;
  if (outcome.exitCode != 0) report["error"] = outcome.error;
  report["started"] = iso_8601(outcome.started);
  report["finished"] = iso_8601(outcome.finished);
  report["duration_seconds"] = duration_of(outcome);
  report["server"] = settings.server;
  report["port"] = settings.port;
  report["login_domain"] = settings.loginDomain;
  report["user"] = settings.login;
  report["export_domain"] = settings.exportDomain;
  report["output"] = settings.outputFileName.empty() ? "-" : settings.outputFileName;
  report["compression"] = compression_name(settings);
  report["bytes"] = statistics.bytes;
  report["objects"] = statistics.objects;
  report["objects_by_class"] = statistics.objectsByClass;
  report["history_series"] = statistics.historySeries;
  report["history_rows"] = statistics.historyRows;
  report["requests"] = statistics.requests;
  report["reconnects"] = statistics.reconnects;
  nlohmann::ordered_json shown = nlohmann::ordered_json::object();
  for (const auto& [name, value] : settings_in_effect(settings.extra)) shown[name] = value;
  report["settings"] = shown;
  // Texts that are not UTF-8 (a server name from the command line) are
  // written with U+FFFD in place of the bad bytes rather than failing.
  return report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string run_metrics_text(const RunSettings& settings, const RunStatistics& statistics,
                             const RunOutcome& outcome, double previousSuccess) {
  const std::string labels = "{server=" + label_value(settings.server) +
                             ",export_domain=" + label_value(settings.exportDomain) + "} ";
  const bool ok = outcome.exitCode == 0;
  const struct {
    const char* name;
    const char* help;
    double value;
  } metrics[] = {
      {"talvix_export_success", "Whether the last export run succeeded (1) or failed (0).",
       ok ? 1.0 : 0.0},
      {"talvix_export_last_run_timestamp_seconds", "When the last export run ended.",
       seconds_of(outcome.finished)},
      {kLastSuccess, "When the last successful export run ended; 0 when none is known.",
       ok ? seconds_of(outcome.finished) : previousSuccess},
      {"talvix_export_duration_seconds", "How long the last export run took.",
       duration_of(outcome)},
      {"talvix_export_objects", "Objects the last export run wrote (history series not counted).",
       static_cast<double>(statistics.objects)},
      {"talvix_export_history_rows", "History rows the last export run wrote.",
       static_cast<double>(statistics.historyRows)},
      {"talvix_export_bytes", "Bytes the last export run wrote to its output.",
       static_cast<double>(statistics.bytes)},
      {"talvix_export_reconnects", "Lost connections the last export run replaced.",
       static_cast<double>(statistics.reconnects)},
  };
  std::string text;
  for (const auto& metric : metrics) {
    text += std::string("# HELP ") + metric.name + " " + metric.help + "\n";
    text += std::string("# TYPE ") + metric.name + " gauge\n";
    text += metric.name + labels + number(metric.value) + "\n";
  }
  return text;
}

std::optional<double> last_success_in(const std::string& metricsText) {
  std::istringstream lines(metricsText);
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, sizeof kLastSuccess - 1, kLastSuccess) != 0) continue;
    size_t at = sizeof kLastSuccess - 1;
    if (at < line.size() && line[at] == '{') {
      // Skips the labels: quoted values may hold '}' and escaped quotes.
      bool quoted = false;
      for (++at; at < line.size() && (quoted || line[at] != '}'); ++at) {
        if (line[at] == '\\' && quoted) ++at;
        else if (line[at] == '"') quoted = !quoted;
      }
      if (at >= line.size()) return std::nullopt;
      ++at;
    }
    if (at >= line.size() || (line[at] != ' ' && line[at] != '\t')) continue;  // a longer name
    at = line.find_first_not_of(" \t", at);
    if (at == std::string::npos) return std::nullopt;
    const size_t end = std::min(line.find_first_of(" \t\r", at), line.size());
    double value = 0;
    auto [ptr, ec] = std::from_chars(line.data() + at, line.data() + end, value);
    if (ec != std::errc() || ptr != line.data() + end || !std::isfinite(value) || value < 0) {
      return std::nullopt;
    }
    return value;
  }
  return std::nullopt;
}

void write_run_files(const RunSettings& settings, const RunStatistics& statistics,
                     const RunOutcome& outcome) {
  const ExtraSettings& extra = settings.extra;
  std::exception_ptr first;
  try {
    if (!extra.reportFile.empty()) {
      write_atomically(extra.reportFile, run_report_json(settings, statistics, outcome));
    }
  } catch (const util::Exception&) {
    first = std::current_exception();
  }
  try {
    if (!extra.metricsFile.empty()) {
      double previous = 0;
      if (outcome.exitCode != 0) {
        // Only the start of the file is read: a metrics file is small.
        std::ifstream in(extra.metricsFile, std::ios::binary);
        std::string text(64 * 1024, '\0');
        in.read(text.data(), static_cast<std::streamsize>(text.size()));
        text.resize(static_cast<size_t>(in.gcount()));
        previous = last_success_in(text).value_or(0);
      }
      write_atomically(extra.metricsFile,
                       run_metrics_text(settings, statistics, outcome, previous));
    }
  } catch (const util::Exception&) {
    if (!first) first = std::current_exception();
  }
  if (first) std::rethrow_exception(first);
}

}  // namespace porter
