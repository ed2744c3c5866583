// Feeds arbitrary argument lists to the command-line front: option scanning,
// -p numbers, -o settings and -i/-I class lists. The input is split at every
// NUL octet into the arguments after the program name. The export driver
// connects nowhere; it checks that the settings it is handed keep the
// promises of the checks before it. The password prompt answers a fixed text.
//
// -o password-file=PATH reads PATH as the real program would: only regular
// files are read, and of them at most one line, so no path the input names
// can block or exhaust the fuzzer.
//
// Any failure must end in exit code 1 and a message; a crash, sanitizer
// report, hang or escaping exception is a fault.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "porter/options.h"
#include "porter/run.h"

namespace {

constexpr char kPromptAnswer[] = "typed-at-prompt";

// A class name as add_*_classes() leave it: split at ',' and ' '.
bool whole_name(const std::string& name) { return name.find_first_of(", ") == std::string::npos; }

// The promises the front makes to the export driver.
bool sane(const porter::RunSettings& settings) {
  const porter::ClassFilter& filter = settings.classFilter;
  for (const std::string& name : filter.ignored) {
    if (name.empty() || !whole_name(name)) return false;
  }
  for (const std::string& name : filter.included) {
    if (!whole_name(name)) return false;
  }
  for (const std::string& name : filter.includedWithSubtree) {
    if (filter.included.count(name) == 0) return false;
  }
  if (!filter.ignored.empty() && !filter.included.empty()) return false;  // -i and -I exclude each other
  const porter::ExtraSettings& extra = settings.extra;
  if (extra.pipeline < 1 || extra.pipeline > 4096) return false;
  if (extra.level < -1 || extra.level > 9) return false;
  if (extra.help) return false;  // -o help ends the run before any export
  if (settings.login.empty()) return false;
  if (settings.gzip && settings.outputFileName.empty()) return false;
  // Without -P and a password file the prompt's answer is the password.
  if (!settings.passwordGiven && extra.passwordFile.empty() && settings.password != kPromptAnswer) {
    return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Writable copies, NUL-terminated: -P overwrites its value in place.
  std::vector<std::vector<char>> arguments(1, std::vector<char>{'t', 'e', 'x', '\0'});
  arguments.emplace_back();
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      arguments.back().push_back('\0');
      arguments.emplace_back();
    } else {
      arguments.back().push_back(static_cast<char>(data[i]));
    }
  }
  arguments.back().push_back('\0');
  if (size == 0) arguments.pop_back();  // no arguments at all
  std::vector<char*> argv;
  for (std::vector<char>& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  int exports = 0;
  const porter::ExportDriver driver = [&](const porter::RunSettings& settings,
                                          porter::RunStatistics&) {
    ++exports;
    if (!sane(settings)) std::abort();
  };
  const porter::PasswordReader prompt = [](char* buffer, size_t capacity, const char*) {
    std::strncpy(buffer, kPromptAnswer, capacity);
    return static_cast<const char*>(nullptr);
  };
  std::ostringstream err;
  // The files of -o report and -o metrics are not written: any path may come.
  const int code = porter::run_command_line(static_cast<int>(argv.size() - 1), argv.data(), driver,
                                            err, prompt, [](auto&, auto&, auto&) {});
  // The driver runs at most once and its run exits with 0; every other
  // outcome is a failure with a message or the help.
  if (exports > 1 || (exports == 1 && code != 0)) std::abort();
  if (code != 0 && code != 1) std::abort();
  if (exports == 0 && err.str().empty()) std::abort();
  return 0;
}
