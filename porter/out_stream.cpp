#include "porter/out_stream.h"

#include <zlib.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "porter/zstd_out_stream.h"
#include "util/error.h"

namespace porter {

// A stream found failed before a write or flush was made to fail by a flush
// from elsewhere: the error stream is tied to standard output and flushes it
// first. errno is then still that failure's, as the calls since then succeeded.
CPPOutStream::~CPPOutStream() {
  if (!gathered_.empty() && stream_->good()) {
    stream_->write(gathered_.data(), static_cast<std::streamsize>(gathered_.size()));
  }
}

CPPOutStream& CPPOutStream::write(const std::string& text) {
  if (gathered_.empty()) gathered_.reserve(kPieceSize + 4096);
  gathered_ += text;
  accepted_ += text.size();
  if (gathered_.size() >= kPieceSize) hand_over();
  return *this;
}

void CPPOutStream::hand_over() {
  if (stream_->good()) {
    errno = 0;
    stream_->write(gathered_.data(), static_cast<std::streamsize>(gathered_.size()));
  }
  gathered_.clear();
  check();
}

void CPPOutStream::flush() {
  hand_over();
  if (stream_->good()) {
    errno = 0;
    stream_->flush();
  }
  check();
}

void CPPOutStream::check() const {
  if (stream_->good()) return;
  // The stream keeps no error code of its own; errno is that of the system
  // call that failed, unless the stream failed without one.
  throw util::EFatal("Error writing: " + name_ + ": " +
                      (errno != 0 ? util::last_error_text() : std::string("the stream failed")));
}

namespace {

std::string gz_mode(int level) {
  return level >= 0 && level <= 9 ? "wb" + std::to_string(level) : "wb";
}

}  // namespace

GZOutStream::GZOutStream(const std::string& fileName, int level)
    : fileName_(fileName), file_(gzopen(fileName.c_str(), gz_mode(level).c_str())) {
  if (file_ == nullptr) {
    throw util::EFatal("Couldn't open for writing gz-stream: " + fileName);
  }
  // Larger pieces for the compressor than zlib's default of 8 KiB; only
  // refused once the file was written to, which it was not.
  gzbuffer(file_, 128 * 1024);
}

GZOutStream::~GZOutStream() {
  if (file_ != nullptr) gzclose(file_);
}

void GZOutStream::close() {
  if (file_ == nullptr) return;
  errno = 0;
  const int result = gzclose(file_);
  file_ = nullptr;
  if (result == Z_OK) return;
  // The handle is gone with the close, so zlib's message cannot be asked for.
  std::string reason;
  if (result == Z_ERRNO) {
    reason = std::strerror(errno);
  } else if (result == Z_BUF_ERROR) {
    reason = "incomplete data";
  } else {
    reason = "zlib error " + std::to_string(result);
  }
  throw util::EFatal("Error closing gz-stream: " + fileName_ + ": " + reason);
}

GZOutStream& GZOutStream::write(const std::string& text) {
  // gzputs takes the text up to its first zero byte; the counts are compared
  // as 32-bit values, so -1 (zlib's failure) never matches a length.
  const int put = gzputs(file_, text.c_str());
  if (static_cast<uint32_t>(put) != static_cast<uint32_t>(text.size())) {
    int code = Z_OK;
    const char* message = gzerror(file_, &code);
    throw util::EFatal(std::string("Error reading gz-stream: ") + (message ? message : ""));
  }
  return *this;
}

std::unique_ptr<CompressedOutStream> open_compressed(const std::string& fileName, int level,
                                                     Compression compression) {
  if (compression == Compression::kZstd) return std::make_unique<ZstdOutStream>(fileName, level);
  return std::make_unique<GZOutStream>(fileName, level);
}

}  // namespace porter
