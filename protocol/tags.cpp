#include "protocol/tags.h"

#include "util/error.h"

namespace protocol {

size_t encode_tag(TagCode tag, uint8_t* out) {
  const uint8_t low = static_cast<uint8_t>((tag & 7) << 5);
  if (tag < 248) {
    out[0] = static_cast<uint8_t>(tag >> 3) | low;
    return 1;
  }
  out[0] = low | 0x1F;
  uint32_t number = tag >> 3;
  // Base 128, most significant group first; at most 5 groups for 29 bits.
  uint8_t groups[5];
  size_t count = 0;
  do {
    groups[count++] = number & 0x7F;
    number >>= 7;
  } while (number != 0);
  size_t n = 1;
  while (count > 0) {
    --count;
    out[n++] = groups[count] | (count > 0 ? 0x80 : 0x00);
  }
  return n;
}

size_t encode_length(size_t length, uint8_t* out) {
  if (length < 128) {
    out[0] = static_cast<uint8_t>(length);
    return 1;
  }
  if (length > 0xFFFFFFFFu) util::assert_failed("Length too large for BER encoding");
  size_t octets = 1;
  while (octets < 4 && (length >> (8 * octets)) != 0) ++octets;
  out[0] = static_cast<uint8_t>(0x80 + octets);
  for (size_t i = 0; i < octets; ++i) {
    out[1 + i] = static_cast<uint8_t>(length >> (8 * (octets - 1 - i)));
  }
  return octets + 1;
}

void write_tag(net::ByteOutput& stream, TagCode tag) {
  uint8_t octets[6];
  stream.write(octets, encode_tag(tag, octets));
}

void write_length(net::ByteOutput& stream, size_t length) {
  uint8_t octets[5];
  stream.write(octets, encode_length(length, octets));
}

void write_indefinite(net::ByteOutput& stream) {
  static const uint8_t kIndefinite = 0x80;
  stream.write(&kIndefinite, 1);
}

void write_end_of_contents(net::ByteOutput& stream) {
  static const uint8_t kEnd[2] = {0, 0};
  stream.write(kEnd, 2);
}

}  // namespace protocol
