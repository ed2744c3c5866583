#include "porter/options.h"

#include <cstring>

namespace porter {

int option_index = 1;

void reset_option_scanner() { option_index = 1; }

namespace {

bool is_option_argument(const char* arg) { return arg[0] == '-' || arg[0] == '/'; }

// Alphanumeric or punctuation in the POSIX locale: the printable ASCII
// characters without the space. Independent of the process locale.
bool is_graphic(char c) { return c > ' ' && c < 0x7f; }

}  // namespace

int next_option(int argc, char** argv, const char* optionString,
                std::optional<std::string>& value) {
  value.reset();
  if (option_index < 1) option_index = 1;
  if (option_index >= argc) return kOptionsEnd;

  const char* arg = argv[option_index++];
  if (!is_option_argument(arg)) {
    value = arg;
    return kNotAnOption;
  }

  const char letter = arg[1];
  const char* entry = is_graphic(letter) ? std::strchr(optionString, letter) : nullptr;
  if (entry == nullptr) {
    value = arg;
    return kUnknownOption;
  }

  if (entry[1] == ':') {
    if (arg[2] != '\0') {
      value = arg + 2;
    } else if (option_index < argc && !is_option_argument(argv[option_index])) {
      value = argv[option_index++];
    }
  }
  return static_cast<unsigned char>(letter);
}

char* last_option_value(char** argv) {
  if (option_index < 2) return nullptr;
  char* arg = argv[option_index - 1];
  if (!is_option_argument(arg)) return arg;  // the value was the next argument
  return arg[1] != '\0' && arg[2] != '\0' ? arg + 2 : nullptr;
}

}  // namespace porter
