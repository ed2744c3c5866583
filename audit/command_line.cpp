#include "audit/command_line.h"

#include <string>
#include <vector>

#include "audit/diff.h"
#include "audit/stats.h"
#include "audit/verify.h"
#include "util/error.h"

namespace audit {

namespace {

constexpr const char* kUsage =
    "Usage: talvix-audit verify [--require-checksum] FILE...\n"
    "       talvix-audit stats [--json] FILE\n"
    "       talvix-audit diff [--history] [--ignore NAME,...] [--json] OLD NEW\n"
    "FILE may be plain, gzip or zstd; - is standard input.\n"
    "Exit: 0 no problem or no difference, 1 a problem or a difference, 2 trouble.\n";

int usage(std::ostream& err, const std::string& complaint) {
  if (!complaint.empty()) err << "talvix-audit: " << complaint << '\n';
  err << kUsage;
  err.flush();
  return 2;
}

int run_command(int argc, char** argv, std::ostream& out, std::ostream& err) {
  std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  if (args.empty()) return usage(err, "no command");
  const std::string command = args.front();
  if (command == "-h" || command == "--help") {
    out << kUsage;
    out.flush();
    return 0;
  }
  std::vector<std::string> files;
  VerifyOptions verify;
  DiffOptions diff;
  bool json = false;
  bool optionsEnd = false;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (optionsEnd || arg == "-" || arg.empty() || arg[0] != '-') {
      files.push_back(arg);
    } else if (arg == "--") {
      optionsEnd = true;
    } else if (arg == "--require-checksum" && command == "verify") {
      verify.requireChecksum = true;
    } else if (arg == "--json" && (command == "stats" || command == "diff")) {
      json = true;
    } else if (arg == "--history" && command == "diff") {
      diff.history = true;
    } else if (arg == "--ignore" && command == "diff" && i + 1 < args.size()) {
      std::string names = args[++i];
      for (size_t start = 0; start <= names.size();) {
        const size_t comma = std::min(names.find(',', start), names.size());
        if (comma > start) diff.ignored.insert(names.substr(start, comma - start));
        start = comma + 1;
      }
    } else {
      return usage(err, "unknown option " + arg + " for " + command);
    }
  }
  if (command == "verify") {
    if (files.empty()) return usage(err, "verify needs at least one file");
    return verify_files(files, verify, out, err);
  }
  if (command == "stats") {
    if (files.size() != 1) return usage(err, "stats needs one file");
    return print_stats(files[0], json, out, err);
  }
  if (command == "diff") {
    if (files.size() != 2) return usage(err, "diff needs two files, OLD and NEW");
    if (files[0] == "-" && files[1] == "-") return usage(err, "only one of OLD and NEW may be -");
    diff.json = json;
    return print_diff(files[0], files[1], diff, out, err);
  }
  return usage(err, "unknown command " + command);
}

}  // namespace

int run_audit(int argc, char** argv, std::ostream& out, std::ostream& err) {
  try {
    return run_command(argc, argv, out, err);
  } catch (const util::Exception& e) {
    err << "talvix-audit: " << e.text() << std::endl;
  } catch (const std::bad_alloc&) {
    err << "talvix-audit: out of memory" << std::endl;
  }
  return 2;
}

}  // namespace audit
