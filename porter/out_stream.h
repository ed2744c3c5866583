// The sink of the export document: a sequence of texts written to a standard
// output stream or into a compressed file (gzip or zstd).
#ifndef TALVIX_PORTER_OUT_STREAM_H_
#define TALVIX_PORTER_OUT_STREAM_H_

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "porter/extra_settings.h"

struct gzFile_s;  // zlib's gzip file handle

namespace porter {

class OutStream {
 public:
  OutStream() = default;
  OutStream(const OutStream&) = delete;
  OutStream& operator=(const OutStream&) = delete;
  virtual ~OutStream() = default;

  // Appends `text` to the document; returns this stream so that writes can
  // be chained. Implementations throw util::EFatal when they notice a
  // failure.
  virtual OutStream& write(const std::string& text) = 0;
};

// Forwards the texts to a standard output stream that it does not own; the
// stream must outlive this object. `name` names the target in failures.
// Texts are gathered into pieces of kPieceSize octets or more, each handed to
// the stream in one write, so the stream's own (smaller) buffer is bypassed.
class CPPOutStream : public OutStream {
 public:
  static constexpr size_t kPieceSize = 64 * 1024;

  explicit CPPOutStream(std::ostream& stream, std::string name = "output stream")
      : stream_(&stream), name_(std::move(name)) {}
  // Hands what is gathered to the stream, unchecked (the end of a failed
  // export: what was written reaches the target).
  ~CPPOutStream() override;

  // Throws util::EFatal "Error writing: <name>: <system text>" when the
  // stream does not take a whole piece (a failed or short write of its
  // buffer), or is in a failed state from before; a text may be gathered
  // before the failure shows.
  CPPOutStream& write(const std::string& text) override;

  // Hands what is gathered to the stream and flushes the stream's buffer;
  // throws as write() when that fails.
  void flush();

  // The bytes of every text written so far.
  uint64_t accepted() const { return accepted_; }

 private:
  void hand_over();
  void check() const;

  std::ostream* stream_;
  const std::string name_;
  std::string gathered_;
  uint64_t accepted_ = 0;
};

// A compressed file: opened by the constructor, completed by close() or,
// unchecked, by the destructor.
class CompressedOutStream : public OutStream {
 public:
  // Completes and closes the file; throws util::EFatal naming the file when
  // that fails. Closed either way afterwards; closing again does nothing.
  virtual void close() = 0;
};

// Compresses the document into a gzip file. The file is opened (created or
// truncated) by the constructor and completed (compressor flushed, gzip
// trailer written) by close() or, unchecked, by the destructor.
class GZOutStream : public CompressedOutStream {
 public:
  // Opens with zlib's mode "wb" (default level) or, for a `level` from 0 to
  // 9, "wb<level>". Throws util::EFatal "Couldn't open for writing
  // gz-stream: <fileName>" when the file cannot be opened.
  explicit GZOutStream(const std::string& fileName, int level = -1);
  // Closes the file unless close() did; the result is not checked.
  ~GZOutStream() override;

  // Completes and closes the file; throws util::EFatal "Error closing
  // gz-stream: <fileName>: <zlib's text>" when zlib reports a failure. The
  // stream is closed afterwards either way and must not be written to.
  void close() override;

  // Throws util::EFatal "Error reading gz-stream: <zlib's text>" when fewer
  // bytes than the text has were taken; a zero byte in the text ends what
  // zlib takes, so such a text always fails.
  GZOutStream& write(const std::string& text) override;

 private:
  const std::string fileName_;
  gzFile_s* file_;  // owned; null once closed
};

// Opens `fileName` as a GZOutStream or, for Compression::kZstd, a
// ZstdOutStream (porter/zstd_out_stream.h); throws as their constructors.
std::unique_ptr<CompressedOutStream> open_compressed(const std::string& fileName, int level,
                                                     Compression compression);

}  // namespace porter

#endif  // TALVIX_PORTER_OUT_STREAM_H_
