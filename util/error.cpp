#include "util/error.h"

#include <cxxabi.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

namespace util {

void throw_system_error(const std::string& message) { throw ESystemError(message); }

void assert_failed(const std::string& text) {
  std::cerr << "Assertion failed: " << text << std::endl;
  std::abort();
}

std::string system_error_text(uint32_t code) {
  // strerror_r (GNU form) returns a pointer to the text, which may or may not
  // be the buffer; the last byte is forced to zero in either case.
  char buffer[256];
  buffer[0] = '\0';
  const char* text = strerror_r(static_cast<int>(code), buffer, sizeof buffer);
  if (text == nullptr) return std::to_string(code);
  std::string result(text);
  if (result.size() > sizeof buffer - 1) result.resize(sizeof buffer - 1);
  while (!result.empty() && (result.back() == '\r' || result.back() == '\n')) result.pop_back();
  if (result.empty()) return std::to_string(code);
  return result;
}

std::string last_error_text() { return system_error_text(static_cast<uint32_t>(errno)); }

std::string readable_type_name(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

}  // namespace util
