#include "porter/options.h"

#include <cstring>

namespace porter {

namespace {

bool is_option_argument(const char* arg) { return arg[0] == '-' || arg[0] == '/'; }

// Alphanumeric or punctuation in the POSIX locale: the printable ASCII
// characters without the space. Independent of the process locale.
bool is_graphic(char c) { return c > ' ' && c < 0x7f; }

}  // namespace

int OptionScanner::next(std::optional<std::string>& value) {
  value.reset();
  if (index_ >= argc_) return kOptionsEnd;

  const char* arg = argv_[index_++];
  if (!is_option_argument(arg)) {
    value = arg;
    return kNotAnOption;
  }

  const char letter = arg[1];
  const char* entry = is_graphic(letter) ? std::strchr(optionString_, letter) : nullptr;
  if (entry == nullptr) {
    value = arg;
    return kUnknownOption;
  }

  if (entry[1] == ':') {
    if (arg[2] != '\0') {
      value = arg + 2;
    } else if (index_ < argc_ && !is_option_argument(argv_[index_])) {
      value = argv_[index_++];
    }
  }
  return static_cast<unsigned char>(letter);
}

char* OptionScanner::last_value() const {
  if (index_ < 2) return nullptr;
  char* arg = argv_[index_ - 1];
  if (!is_option_argument(arg)) return arg;  // the value was the next argument
  return arg[1] != '\0' && arg[2] != '\0' ? arg + 2 : nullptr;
}

bool framed_export(const RunSettings& settings) {
  return !settings.outputFileName.empty() && settings.extra.progress != ProgressMode::kQuiet;
}

}  // namespace porter
