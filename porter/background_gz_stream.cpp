#include "porter/background_gz_stream.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "util/error.h"

namespace porter {

// Everything the compressor thread shares with the writer. The compressing
// stream is used by the compressor alone until the thread has been joined.
struct BackgroundGZOutStream::Shared {
  explicit Shared(std::unique_ptr<CompressedOutStream> stream) : gz(std::move(stream)) {}

  // Compresses queued blocks until stop() and an empty queue. After a
  // failure the remaining blocks are dropped.
  void run() {
    for (;;) {
      std::string block;
      {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return !queue.empty() || stopping; });
        if (queue.empty()) return;
        block = std::move(queue.front());
        queue.pop_front();
        busy = true;
      }
      changed.notify_all();  // room in the queue
      if (!failed) {
        try {
          gz->write(block);
        } catch (const util::Exception& e) {
          std::lock_guard<std::mutex> lock(mutex);
          failure = e.text();
          failed = true;
        }
      }
      {
        std::lock_guard<std::mutex> lock(mutex);
        busy = false;
      }
      changed.notify_all();
    }
  }

  void stop() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    changed.notify_all();
    if (worker.joinable()) worker.join();
  }

  // Raises the compressor's failure; call with `mutex` held or after stop().
  void raise_failure() const { throw util::EFatal(failure); }

  std::unique_ptr<CompressedOutStream> gz;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<std::string> queue;  // full blocks, oldest first
  bool busy = false;              // the compressor holds a block
  bool stopping = false;
  std::atomic<bool> failed{false};
  std::string failure;  // the text of the compressor's failure
  std::thread worker;
};

BackgroundGZOutStream::BackgroundGZOutStream(const std::string& fileName, int level,
                                             Compression compression)
    : stopsAtZero_(compression == Compression::kGzip),
      closedText_(stopsAtZero_
                      ? "Error reading gz-stream: "
                      : "Error writing zstd-stream: " + fileName + ": the stream is closed"),
      shared_(std::make_unique<Shared>(open_compressed(fileName, level, compression))) {
  block_.reserve(kBlockSize);
  shared_->worker = std::thread([shared = shared_.get()] { shared->run(); });
}

BackgroundGZOutStream::~BackgroundGZOutStream() {
  if (shared_ == nullptr) return;
  if (!block_.empty()) {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->queue.push_back(std::move(block_));
  }
  shared_->stop();
}

BackgroundGZOutStream& BackgroundGZOutStream::write(const std::string& text) {
  if (shared_ == nullptr) throw util::EFatal(closedText_);
  if (shared_->failed) {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->raise_failure();
  }
  const size_t zero = stopsAtZero_ ? text.find('\0') : std::string::npos;
  block_.append(text, 0, zero);
  if (block_.size() >= kBlockSize) hand_over();
  // zlib takes a text up to its first zero byte and has no error to tell.
  if (zero != std::string::npos) throw util::EFatal("Error reading gz-stream: ");
  return *this;
}

void BackgroundGZOutStream::hand_over() {
  {
    std::unique_lock<std::mutex> lock(shared_->mutex);
    shared_->changed.wait(lock, [this] {
      return shared_->queue.size() < kBlocksQueued || shared_->failed;
    });
    if (shared_->failed) shared_->raise_failure();
    shared_->queue.push_back(std::move(block_));
  }
  shared_->changed.notify_all();
  block_ = std::string();
  block_.reserve(kBlockSize);
}

void BackgroundGZOutStream::finish() {
  if (shared_ == nullptr) return;
  if (!block_.empty()) hand_over();
  std::unique_lock<std::mutex> lock(shared_->mutex);
  shared_->changed.wait(lock, [this] {
    return (shared_->queue.empty() && !shared_->busy) || shared_->failed;
  });
  if (shared_->failed) shared_->raise_failure();
}

void BackgroundGZOutStream::close() {
  if (shared_ == nullptr) return;
  std::unique_ptr<Shared> shared;
  try {
    finish();
  } catch (...) {
    shared_->stop();
    shared_.reset();  // closes the file unchecked
    throw;
  }
  shared = std::move(shared_);
  shared->stop();
  shared->gz->close();
}

}  // namespace porter
