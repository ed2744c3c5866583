// A gzip (or zstd) output that compresses on a thread of its own.
//
// The export spends most of its time waiting for the server; compressing in
// the same thread puts the compressor's time on top of those waits. This
// stream gathers the texts into blocks and hands each full block to a
// compressor thread, so compression overlaps the waits. The file holds the
// same text as GZOutStream (ZstdOutStream) would write (after decompression)
// and the texts of the failures are that stream's; a failure of the
// compressor is raised by the next write(), by finish() or by close().
#ifndef TALVIX_PORTER_BACKGROUND_GZ_STREAM_H_
#define TALVIX_PORTER_BACKGROUND_GZ_STREAM_H_

#include <memory>
#include <string>

#include "porter/extra_settings.h"
#include "porter/out_stream.h"

namespace porter {

class BackgroundGZOutStream : public OutStream {
 public:
  static constexpr size_t kBlockSize = 256 * 1024;  // bytes handed over at once
  static constexpr size_t kBlocksQueued = 4;        // full blocks waiting, at most

  // Opens the file as GZOutStream does (mode "wb" or "wb<level>"), or as
  // ZstdOutStream does, and starts the compressor. Throws util::EFatal
  // "Couldn't open for writing gz-stream: <fileName>" (zstd: ZstdOutStream's).
  explicit BackgroundGZOutStream(const std::string& fileName, int level = -1,
                                 Compression compression = Compression::kGzip);
  // Compresses what was written, closes the file unchecked (as the
  // compressing stream's destructor does), and stops the compressor.
  ~BackgroundGZOutStream() override;

  // gzip: takes the text up to its first zero byte; a text with a zero byte
  // then throws util::EFatal "Error reading gz-stream: " as GZOutStream does.
  // Throws the compressing stream's text for an earlier failure of the
  // compressor ("Error reading gz-stream: <zlib's text>"). May wait while
  // kBlocksQueued blocks are queued.
  BackgroundGZOutStream& write(const std::string& text) override;

  // Waits until everything written so far is compressed; throws as write()
  // for a failure of the compressor.
  void finish();

  // finish(), then completes and closes the file; throws as
  // GZOutStream::close(). Closed either way afterwards.
  void close();

 private:
  struct Shared;

  void hand_over();

  const bool stopsAtZero_;          // gzip: a text ends at its first zero byte
  const std::string closedText_;    // the failure of a write after close()
  std::string block_;               // texts not yet handed to the compressor
  std::unique_ptr<Shared> shared_;  // queue, file and thread; null once closed
};

}  // namespace porter

#endif  // TALVIX_PORTER_BACKGROUND_GZ_STREAM_H_
