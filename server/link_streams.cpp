#include "server/link_streams.h"

#include <algorithm>
#include <cstring>

namespace server {

uint64_t FeedStream::read(void* buffer, uint64_t capacity) {
  if (cursor_ < fed_.size()) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(capacity, fed_.size() - cursor_));
    std::memcpy(buffer, fed_.data() + cursor_, count);
    cursor_ += count;
    if (cursor_ == fed_.size()) {
      fed_.clear();
      cursor_ = 0;
    }
    return count;
  }
  const uint64_t got = BorrowedStream::read(buffer, capacity);
  if (recording_) recorded_.append(static_cast<const char*>(buffer), static_cast<size_t>(got));
  return got;
}

}  // namespace server
