// Compresses the document into a zstd file (one frame).
#ifndef TALVIX_PORTER_ZSTD_OUT_STREAM_H_
#define TALVIX_PORTER_ZSTD_OUT_STREAM_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "porter/out_stream.h"

struct ZSTD_CCtx_s;  // libzstd's compression context

namespace porter {

// The file is opened (created or truncated, mode 0666 less the umask) by the
// constructor. The frame is complete only after close(): a file the
// destructor closes (an export that failed) ends without the frame's end,
// which zstd -t reports as truncated.
class ZstdOutStream : public CompressedOutStream {
 public:
  // Compresses at `level` (1..19; below 1, kZstdDefaultLevel). Throws
  // util::EFatal "Couldn't open for writing zstd-stream: <fileName>: <system
  // text>" when the file cannot be opened.
  explicit ZstdOutStream(const std::string& fileName, int level = -1);
  // Closes the file unchecked, without ending the frame.
  ~ZstdOutStream() override;

  // Takes the whole text (zero bytes too). Throws util::EFatal "Error writing
  // zstd-stream: <fileName>: <system text>" when the file refuses a write,
  // "... : <libzstd's text>" when the compressor fails; the stream must not
  // be written to afterwards.
  ZstdOutStream& write(const std::string& text) override;

  // Ends the frame, writes the rest and closes the file; throws as write(),
  // or "Error closing zstd-stream: <fileName>: <system text>" when the close
  // fails. Closed either way afterwards.
  void close() override;

 private:
  // Feeds `text` to the compressor with `directive` (ZSTD_EndDirective) and
  // writes all it gives out; returns when it has taken the text and, for the
  // frame's end, flushed everything.
  void compress(const char* text, size_t size, int directive);
  void write_out(size_t size);
  [[noreturn]] void fail(const std::string& reason, const char* what = "writing");

  const std::string fileName_;
  int fd_ = -1;               // owned; -1 once closed
  std::unique_ptr<ZSTD_CCtx_s, size_t (*)(ZSTD_CCtx_s*)> context_;
  std::vector<char> buffer_;  // the compressor's output before it is written
};

}  // namespace porter

#endif  // TALVIX_PORTER_ZSTD_OUT_STREAM_H_
