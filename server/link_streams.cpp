#include "server/link_streams.h"

#include <algorithm>
#include <cstring>

namespace server {

uint64_t PrefixedStream::read(void* buffer, uint64_t capacity) {
  if (cursor_ >= prefix_.size()) return BorrowedStream::read(buffer, capacity);
  const size_t count = static_cast<size_t>(std::min<uint64_t>(capacity, prefix_.size() - cursor_));
  std::memcpy(buffer, prefix_.data() + cursor_, count);
  cursor_ += count;
  return count;
}

}  // namespace server
