#include "server/reply_writer.h"

#include <algorithm>
#include <utility>

#include "server/request_handler.h"
#include "util/error.h"

namespace server {

std::string malformed_reply() { return std::string("\x75\x80\x02\x85\x01\x01\x01\x01\x01", 9); }

void write_in_chunks(net::ByteOutput& stream, const std::string& bytes, uint32_t chunkSize) {
  if (chunkSize == 0 || bytes.size() <= chunkSize) {
    stream.write(bytes.data(), bytes.size());
    stream.flush();
    return;
  }
  for (size_t at = 0; at < bytes.size(); at += chunkSize) {
    stream.write(bytes.data() + at, std::min<size_t>(chunkSize, bytes.size() - at));
    stream.flush();
  }
}

namespace {

// Whether any fault needs answers to wait, be reordered or be written apart.
bool needs_thread(const FaultOptions& faults) {
  return faults.delayMs != 0 || faults.chunkSize != 0 || faults.filler != 0 ||
         faults.strayEvery != 0 || faults.reverseWindow > 1;
}

}  // namespace

ReplyWriter::ReplyWriter(net::ByteOutput& stream, const FaultOptions& faults)
    : stream_(stream), faults_(faults), direct_(!needs_thread(faults)) {
  if (!direct_) thread_ = std::thread([this] { run(); });
}

ReplyWriter::~ReplyWriter() { finish(); }

void ReplyWriter::submit(std::string answer, Clock::time_point due) {
  if (direct_) {
    if (holding_) {
      if (held_.empty()) {
        held_ = std::move(answer);
      } else {
        held_ += answer;
      }
    } else {
      sendNow(answer);
    }
    return;
  }
  Item item{std::move(answer), due};
  if (faults_.reverseWindow > 1) {
    window_.push_back(std::move(item));
    if (window_.size() >= faults_.reverseWindow) flushWindow();
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  queue_.push_back(std::move(item));
  if (!holding_) wake_.notify_all();
}

void ReplyWriter::release() {
  holding_ = false;
  if (direct_) {
    if (!held_.empty()) sendNow(held_);
    held_.clear();
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  wake_.notify_all();
}

bool ReplyWriter::windowPending() const { return !window_.empty(); }

void ReplyWriter::flushWindow() {
  if (window_.empty()) return;
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = window_.rbegin(); it != window_.rend(); ++it) queue_.push_back(std::move(*it));
  window_.clear();
  wake_.notify_all();
}

void ReplyWriter::finish() {
  if (direct_) {
    release();
    return;
  }
  holding_ = false;
  flushWindow();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    finishing_ = true;
    wake_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void ReplyWriter::abort() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    aborted_ = true;
    wake_.notify_all();
  }
}

bool ReplyWriter::healthy() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return !failed_;
}

void ReplyWriter::sendNow(const std::string& bytes) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (aborted_ || failed_) return;
  }
  try {
    stream_.write(bytes.data(), bytes.size());
    stream_.flush();
  } catch (const util::Exception&) {
    std::lock_guard<std::mutex> lock(mutex_);
    failed_ = true;  // the client went away; what is left is dropped
  }
}

void ReplyWriter::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return aborted_ || finishing_ || !queue_.empty(); });
    if (aborted_) return;
    if (queue_.empty()) return;  // finishing with nothing left
    // The head may be due later than answers behind it (reversed windows):
    // order wins, so everything waits for the head.
    const Clock::time_point due = queue_.front().due;
    if (wake_.wait_until(lock, due, [this] { return aborted_; })) return;
    // Everything due by now goes out in one write (unless replies are to
    // be chunked), so that pipelined answers do not wait on each other's
    // acknowledgements.
    std::string bytes;
    const Clock::time_point now = Clock::now();
    do {
      append(bytes, queue_.front());
      queue_.pop_front();
    } while (faults_.chunkSize == 0 && !queue_.empty() && queue_.front().due <= now);
    if (failed_) continue;
    lock.unlock();
    bool ok = true;
    try {
      write_in_chunks(stream_, bytes, faults_.chunkSize);
    } catch (const util::Exception&) {
      ok = false;  // the client went away; what is left is dropped
    }
    lock.lock();
    if (!ok) failed_ = true;
  }
}

void ReplyWriter::append(std::string& bytes, const Item& item) {
  ++answers_;
  for (uint32_t i = 0; i < faults_.filler; ++i) bytes += (i % 2 == 0) ? '\x19' : '\0';
  if (faults_.strayEvery != 0 && answers_ % faults_.strayEvery == 0) {
    bytes += error_response(nextStrayId_--, 13, "stray answer");
  }
  bytes += item.bytes;
}

}  // namespace server
