// The writing half of a connection: sends the answers at their time, in
// their order, with the configured faults.
//
// Answers are handed in by the reading half in the order their requests
// arrived, each with the time it is due (arrival plus the configured
// delay). With a delay, a reverse window, chunking, filler or stray answers
// configured, a writer thread of its own sends each one once it is due, so
// the delays of pipelined requests overlap as network latency would.
// Without any of them every answer is due on arrival, and the answers are
// sent by the submitting thread itself: each at once, or those submitted
// between hold() and release() together in one write at release(); no
// thread is started then. With a
// reverse window of K, answers are collected K at a time and sent in
// reverse order. Before an answer go the filler octets and, every n-th
// answer, a stray Response with an id no client has used; every reply is
// cut into pieces of the configured chunk size, each written on its own.
#ifndef TALVIX_SERVER_REPLY_WRITER_H_
#define TALVIX_SERVER_REPLY_WRITER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net/basic_io.h"
#include "server/server_options.h"

namespace server {

using Clock = std::chrono::steady_clock;

// Writes `bytes` to `stream` in pieces of `chunkSize` octets (0: at once),
// flushing after each. Failures of the stream pass out.
void write_in_chunks(net::ByteOutput& stream, const std::string& bytes, uint32_t chunkSize);

// The octets sent instead of the answer to a request picked for
// malformation: a Response whose id announces five length octets, which no
// reader accepts.
std::string malformed_reply();

class ReplyWriter {
 public:
  // Writes to `stream` (not owned; must outlive the writer). Starts the
  // writer thread unless the faults need none.
  ReplyWriter(net::ByteOutput& stream, const FaultOptions& faults);
  ReplyWriter(const ReplyWriter&) = delete;
  ReplyWriter& operator=(const ReplyWriter&) = delete;
  // finish().
  ~ReplyWriter();

  // Queues an encoded answer due at `due`; without a writer thread, sends
  // it (or holds it until release()), whatever `due` says. A failure to send
  // makes the writer unhealthy; it does not throw.
  void submit(std::string answer, Clock::time_point due);
  // Between hold() and release() submitted answers are queued without
  // waking the writer thread, so that the answers to the requests of one
  // read go out together, in as few writes as they fit; their due times
  // stay as given.
  void hold() { holding_ = true; }
  void release();
  // Whether answers are sent by the submitting thread.
  bool direct() const { return direct_; }
  // Whether answers wait for their reverse window to fill up.
  bool windowPending() const;
  // Sends a partly filled reverse window as it is (reversed).
  void flushWindow();
  // Sends what is queued, each at its time, then ends the writer thread.
  void finish();
  // From any thread: makes the writer thread end at once, dropping what is
  // queued; finish() (or the destructor) then joins it without waiting.
  void abort();
  // False once a write failed; nothing more is written then.
  bool healthy() const;

 private:
  struct Item {
    std::string bytes;
    Clock::time_point due;
  };
  void run();
  // Appends the octets that go out for `item`: filler, a stray answer when
  // one is due, the answer itself.
  void append(std::string& bytes, const Item& item);
  // Direct mode: sends `bytes` unless aborted or failed before.
  void sendNow(const std::string& bytes);

  net::ByteOutput& stream_;
  const FaultOptions faults_;
  const bool direct_;

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Item> queue_;
  std::vector<Item> window_;  // touched by the submitting thread only
  bool holding_ = false;      // likewise
  std::string held_;          // direct mode: the answers held; likewise
  bool finishing_ = false;
  bool aborted_ = false;
  bool failed_ = false;
  uint64_t answers_ = 0;       // writer thread only
  int32_t nextStrayId_ = 0x7FFFFFFF;
  std::thread thread_;
};

}  // namespace server

#endif  // TALVIX_SERVER_REPLY_WRITER_H_
