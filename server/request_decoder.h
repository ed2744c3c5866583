// A fast decoder for the requests clients send again and again: a Request
// carrying a GetDataReq, or a SelectReq whose pattern steps have no number,
// colon children, conditions or property list.
//
// It accepts only the form the protocol's message classes write (every
// constructed value with indefinite length, every primitive with a definite
// length in at most two octets, every declared field present, no filler
// octets inside a message) and only values the protocol's reader accepts as
// well, and then yields the same Request that reader would. Everything else
// it declines, at the first octet that leaves that form, so that the caller
// can hand the octets to the protocol's reader, which decodes or refuses
// them as always. An incomplete message is reported as such only while every
// octet of it so far is of that form and valid.
#ifndef TALVIX_SERVER_REQUEST_DECODER_H_
#define TALVIX_SERVER_REQUEST_DECODER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "protocol/messages.h"

namespace server {

class RequestDecoder {
 public:
  RequestDecoder();

  enum class Outcome { kComplete, kIncomplete, kDeclined };
  struct Result {
    Outcome outcome = Outcome::kDeclined;
    size_t length = 0;                           // octets of the message, when complete
    std::unique_ptr<protocol::Request> request;  // set when complete
  };

  // Decodes the message that starts at data[0].
  Result decode(const uint8_t* data, size_t size) const;

  // The identifier octets of the values read.
  struct Tags {
    std::string request, select, getData, pattern, list, set, string, integer, boolean, null;
  };

 private:
  Tags tags_;
};

// Whether `bytes` is a whole number of top-level values, `count` of them,
// each in the form described above for the decoder (any tags), with nothing
// but 00 and 19 octets between them.
bool is_whole_values(const std::string& bytes, size_t count);

}  // namespace server

#endif  // TALVIX_SERVER_REQUEST_DECODER_H_
