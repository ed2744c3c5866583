#include "support/ber_streams.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>

#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"
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


const char kSelectRequest[] =
    "74 80 02 01 01 A0 80 31 80 04 01 58 00 00 30 80 04 01 2E 02 01 00 05 00 30 80 00 00"
    " 30 80 00 00 30 80 00 00 31 80 00 00 00 00 02 01 00 00 00 00 00";

namespace {

// A legacy ClientWants (version 0x0100, a ClientPrivateKey with empty texts
// and a false flag) whose first eight octets select the legacy encoding.
const char kLegacyMarker[] = "60 80 02 02 01 00 61 80 16 00 16 00 16 00 01 01 00 00 00 00 00";

// Answers the first top-level value of a legacy stream (the marker) with the
// real ClientWants and everything else through `inner`.
class MarkerProtocol : public protocol::BerProtocol {
 public:
  MarkerProtocol(const protocol::BerProtocol& inner, bool legacy)
      : inner_(inner), marker_(legacy) {}
  std::unique_ptr<protocol::BerConstructed> makeMessage(protocol::TagCode tag,
                                                        bool legacy) const override {
    const bool marker = marker_;
    marker_ = false;
    return (marker ? protocol::guiProtocol() : inner_).makeMessage(tag, legacy);
  }

 private:
  const protocol::BerProtocol& inner_;
  mutable bool marker_;
};

}  // namespace

Bytes encode_message(const protocol::BerValue& message, bool legacy) {
  ScriptedStream sink;
  message.write(sink, legacy);
  return sink.written;
}

MessageList decode_messages(const Bytes& bytes, bool legacy, const protocol::BerProtocol& protocol,
                            bool octetwise) {
  Bytes input = legacy ? from_hex(kLegacyMarker) : Bytes{};
  input.insert(input.end(), bytes.begin(), bytes.end());
  auto stream = std::make_unique<ScriptedStream>();
  ScriptedStream* script = octetwise ? &stream->octets(input) : &stream->chunk(input);
  MarkerProtocol marked(protocol, legacy);
  protocol::BerReader reader(marked, std::move(stream));
  while (script->readable()) reader.readSome(false);
  MessageList messages;
  while (auto m = reader.takeMessage()) messages.push_back(std::move(m));
  if (legacy && !messages.empty()) messages.erase(messages.begin());
  return messages;
}

}  // namespace support
