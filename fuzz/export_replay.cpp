#include "fuzz/export_replay.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "client/session.h"
#include "protocol/messages.h"
#include "net/string_output.h"
#include "util/error.h"

namespace fuzz {

namespace {

constexpr uint32_t kPipelines[4] = {1, 2, 16, 64};
// Small pieces cut every field at every octet; larger ones cut messages.
constexpr size_t kChunkSizes[16] = {0, 1, 2, 3, 4, 5, 7, 8, 11, 16, 31, 64, 127, 256, 1000, 4096};

}  // namespace

ReplaySettings decode_settings(uint8_t octet) {
  ReplaySettings settings;
  settings.run.login = "admin";
  settings.run.password = "secret";
  settings.run.passwordGiven = true;
  settings.run.extra.pipeline = kPipelines[octet & 3];
  settings.run.history = (octet & 4) == 0;
  if ((octet & 8) != 0) settings.run.exportDomain = kSubdomainPath;
  settings.chunk = kChunkSizes[octet >> 4];
  return settings;
}

std::string handshake_octets() {
  net::StringOutput sink;
  protocol::ServerOffers offer;
  offer.version = client::PROTOCOL_VERSION;
  offer.authentication = std::make_unique<protocol::ServerNoAuth>();
  offer.write(sink, false);

  protocol::NewSessionResp accepted;
  accepted.sessionId = util::BigNum(1);
  accepted.serverTime = 0;
  accepted.rootDomainId = kRootDomainId;
  accepted.text = "replay";
  accepted.mibRootId = kMibRootId;
  accepted.write(sink, false);
  return std::move(sink.bytes);
}

uint64_t ReplayStream::read(void* buffer, uint64_t capacity) {
  if (capacity == 0) return 0;
  if (!readable()) throw util::ESystemError("Error reading: end of stream");
  size_t count = static_cast<size_t>(std::min<uint64_t>(capacity, prefix_.size() + size_ - pos_));
  if (chunk_ != 0) count = std::min(count, chunk_);
  size_t done = 0;
  if (pos_ < prefix_.size()) {
    done = std::min(count, prefix_.size() - pos_);
    std::memcpy(buffer, prefix_.data() + pos_, done);
  }
  if (done < count) {
    std::memcpy(static_cast<char*>(buffer) + done, data_ + (pos_ + done - prefix_.size()),
                count - done);
  }
  pos_ += count;
  return count;
}

}  // namespace fuzz
