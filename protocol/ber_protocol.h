// The factory of top-level messages that the stream reader asks for every
// value arriving outside any open constructed value.
#ifndef TALVIX_PROTOCOL_BER_PROTOCOL_H_
#define TALVIX_PROTOCOL_BER_PROTOCOL_H_

#include <memory>

#include "protocol/ber_value.h"

namespace protocol {

class BerProtocol {
 public:
  virtual ~BerProtocol() = default;
  // A new, empty message for a top-level tag code; throws EBer
  // "Unknown tag <code>" for any tag that starts no known message. May be
  // asked twice for one arriving message: the reader then drops the first
  // one, unfinished (a message whose values refused its one-pass decoding).
  virtual std::unique_ptr<BerConstructed> makeMessage(TagCode tag, bool legacy) const = 0;
};

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_BER_PROTOCOL_H_
