#include "porter/zstd_out_stream.h"

#include <fcntl.h>
#include <unistd.h>
#include <zstd.h>

#include <cerrno>

#include "porter/extra_settings.h"
#include "util/error.h"

namespace porter {

ZstdOutStream::ZstdOutStream(const std::string& fileName, int level)
    : fileName_(fileName),
      context_(ZSTD_createCCtx(), ZSTD_freeCCtx),
      buffer_(ZSTD_CStreamOutSize()) {
  if (context_ == nullptr) throw util::EFatal("Couldn't open for writing zstd-stream: " + fileName);
  fd_ = ::open(fileName.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd_ < 0) {
    throw util::EFatal("Couldn't open for writing zstd-stream: " + fileName + ": " +
                       util::last_error_text());
  }
  const int chosen = level >= 1 ? level : kZstdDefaultLevel;
  ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, chosen);
  ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1);
}

ZstdOutStream::~ZstdOutStream() {
  if (fd_ >= 0) ::close(fd_);
}

ZstdOutStream& ZstdOutStream::write(const std::string& text) {
  if (fd_ < 0) fail("the stream is closed");
  compress(text.data(), text.size(), ZSTD_e_continue);
  return *this;
}

void ZstdOutStream::close() {
  if (fd_ < 0) return;
  try {
    compress(nullptr, 0, ZSTD_e_end);
  } catch (...) {
    ::close(fd_);
    fd_ = -1;
    throw;
  }
  const int closed = ::close(fd_);
  fd_ = -1;
  if (closed != 0) fail(util::last_error_text(), "closing");
}

void ZstdOutStream::compress(const char* text, size_t size, int directive) {
  ZSTD_inBuffer in{text, size, 0};
  for (;;) {
    ZSTD_outBuffer out{buffer_.data(), buffer_.size(), 0};
    const size_t left =
        ZSTD_compressStream2(context_.get(), &out, &in, static_cast<ZSTD_EndDirective>(directive));
    if (ZSTD_isError(left)) fail(ZSTD_getErrorName(left));
    write_out(out.pos);
    const bool done = directive == ZSTD_e_end ? left == 0 : in.pos == in.size;
    if (done) return;
  }
}

void ZstdOutStream::write_out(size_t size) {
  for (size_t written = 0; written < size;) {
    const ssize_t n = ::write(fd_, buffer_.data() + written, size - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) fail(n < 0 ? util::last_error_text() : std::string("nothing written"));
    written += static_cast<size_t>(n);
  }
}

void ZstdOutStream::fail(const std::string& reason, const char* what) {
  throw util::EFatal(std::string("Error ") + what + " zstd-stream: " + fileName_ + ": " + reason);
}

}  // namespace porter
