// Text for the error stream, held back and written out in batches.
//
// The progress marks come one character at a time; written one by one, each
// costs a system call and, since the error stream is tied to standard output,
// a flush of the document when it goes there. A HeldErrorStream keeps them in
// memory until one of these writes them out, in the order they came:
//  - release(): the export calls it before it waits for the server;
//  - a write to marks() once `interval` has passed since the last write-out,
//    so that a long stretch without waiting still shows its marks;
//  - every write to messages(): a notice never waits behind held marks;
//  - the destructor, before anything later reaches the error stream.
// std::flush and std::endl on marks() do not write out.
//
// Writing out goes through the error stream's own operator<< and flush, so
// a failure leaves that stream's state set as a direct write would; nothing
// is raised.
#ifndef TALVIX_PORTER_HELD_ERROR_STREAM_H_
#define TALVIX_PORTER_HELD_ERROR_STREAM_H_

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

namespace porter {

class HeldErrorStream {
 public:
  using Clock = std::chrono::steady_clock;
  using ClockFunction = std::function<Clock::time_point()>;

  static constexpr std::chrono::milliseconds kInterval{100};

  // `err` must outlive this object; `clock` is asked at every write to
  // marks(). `lineOpen`: text before this object's left a line unfinished.
  explicit HeldErrorStream(std::ostream& err, std::chrono::milliseconds interval = kInterval,
                           ClockFunction clock = Clock::now, bool lineOpen = false);
  HeldErrorStream(const HeldErrorStream&) = delete;
  HeldErrorStream& operator=(const HeldErrorStream&) = delete;
  ~HeldErrorStream();

  // The held stream and the stream for messages; both valid as long as this
  // object.
  std::ostream& marks() { return *marks_; }
  std::ostream& messages() { return *messages_; }

  // Writes out and flushes what is held (nothing when nothing is).
  void release();
  // Whether the last text written through either stream (or, before any,
  // the text before this object) left its line unfinished.
  bool lineOpen() const { return lineOpen_; }

 private:
  class Buffer;

  std::ostream& err_;
  const std::chrono::milliseconds interval_;
  const ClockFunction clock_;
  Clock::time_point lastRelease_;
  bool lineOpen_;
  std::string held_;
  std::unique_ptr<Buffer> marksBuffer_;
  std::unique_ptr<Buffer> messagesBuffer_;
  std::unique_ptr<std::ostream> marks_;
  std::unique_ptr<std::ostream> messages_;
};

}  // namespace porter

#endif  // TALVIX_PORTER_HELD_ERROR_STREAM_H_
