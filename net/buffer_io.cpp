#include "net/buffer_io.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "util/error.h"

namespace net {

BufferIo::BufferIo(std::unique_ptr<BasicIo> lower)
    : lower_(std::move(lower)),
      read_buffer_(std::make_unique<uint8_t[]>(kBufferSize)),
      write_buffer_(std::make_unique<uint8_t[]>(kBufferSize)) {
  if (!lower_) util::assert_failed("BufferIo needs a stream below it");
}

BufferIo::~BufferIo() = default;

void BufferIo::write(const void* data, size_t length) {
  const uint8_t* next = static_cast<const uint8_t*>(data);
  while (length >= kBufferSize - write_cursor_) {
    const uint64_t fill = kBufferSize - write_cursor_;
    if (fill > 0) std::memcpy(write_buffer_.get() + write_cursor_, next, fill);
    next += fill;
    length -= fill;
    write_cursor_ = kBufferSize;  // if the send below fails, the full buffer waits for a retry
    lower_->write(write_buffer_.get(), kBufferSize);
    write_cursor_ = 0;
  }
  if (length > 0) std::memcpy(write_buffer_.get() + write_cursor_, next, length);
  write_cursor_ += length;
}

void BufferIo::flush() {
  if (write_cursor_ > 0) {
    lower_->write(write_buffer_.get(), write_cursor_);
    write_cursor_ = 0;
  }
  lower_->flush();
}

uint64_t BufferIo::read(void* buffer, uint64_t capacity) {
  if (capacity == 0) return 0;
  if (read_cursor_ == read_end_ && capacity >= kBufferSize) {
    return std::min(lower_->read(buffer, capacity), capacity);
  }
  if (read_cursor_ == read_end_) {
    read_cursor_ = 0;
    read_end_ = 0;
    // A stream below that claims more than it was given room for is cut back
    // to the buffer, so a faulty count can never run past it.
    read_end_ = std::min(lower_->read(read_buffer_.get(), kBufferSize), kBufferSize);
  }
  const uint64_t count = std::min(capacity, read_end_ - read_cursor_);
  if (count > 0) std::memcpy(buffer, read_buffer_.get() + read_cursor_, count);
  read_cursor_ += count;
  return count;
}

bool BufferIo::readable() { return true; }

}  // namespace net
