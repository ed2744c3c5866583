#include "support/message_io.h"

#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"

namespace support {

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
