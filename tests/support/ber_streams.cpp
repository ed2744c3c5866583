#include "support/ber_streams.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>

#include "util/error.h"

namespace support {

Octets hex(std::string_view text) {
  std::string digits(text);
  std::erase_if(digits, [](unsigned char c) { return std::isspace(c); });
  if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != digits.npos) {
    throw std::invalid_argument("bad hex: " + std::string(text));
  }
  Octets octets;
  for (size_t i = 0; i < digits.size(); i += 2) octets += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return octets;
}

Bytes from_hex(std::string_view text) {
  const Octets octets = hex(text);
  return Bytes(octets.begin(), octets.end());
}

std::string to_hex(std::string_view octets) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (unsigned char b : octets) {
    text += std::string(text.empty() ? "" : " ") + kDigits[b >> 4] + kDigits[b & 15];
  }
  return text;
}

std::string to_hex(const Bytes& bytes) {
  return to_hex(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

ScriptedStream& ScriptedStream::chunk(const Bytes& bytes) {
  script_.push_back(Step{bytes, ""});
  return *this;
}

ScriptedStream& ScriptedStream::octets(const Bytes& bytes) {
  for (uint8_t b : bytes) chunk(Bytes{b});
  return *this;
}

uint64_t ScriptedStream::read(void* buffer, uint64_t capacity) {
  if (capacity == 0) return 0;
  if (script_.empty()) throw util::ESystemError("end of script");
  Step& step = script_.front();
  if (!step.failure.empty()) {
    const std::string text = step.failure;
    script_.pop_front();
    throw util::ESystemError(text);
  }
  const size_t count = std::min<uint64_t>(capacity, step.bytes.size());
  if (count > 0) std::memcpy(buffer, step.bytes.data(), count);
  step.bytes.erase(step.bytes.begin(), step.bytes.begin() + static_cast<std::ptrdiff_t>(count));
  if (step.bytes.empty()) script_.pop_front();
  return count;
}

}  // namespace support
