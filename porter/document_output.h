// Where the export document goes: standard output, a plain file or a gzip
// or zstd file (compressed in the writing thread, or on a thread of its own
// when asked), written in place or (atomic)
// into a temporary file that replaces the target only once the document is
// complete.
#ifndef TALVIX_PORTER_DOCUMENT_OUTPUT_H_
#define TALVIX_PORTER_DOCUMENT_OUTPUT_H_

#include <cstdint>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>

#include "porter/background_gz_stream.h"
#include "porter/out_stream.h"

namespace porter {

struct OutputOptions {
  // With a file name that names no file or a regular one: write
  // "<file>.tmp-XXXXXX" (mode 0600) in the same folder, and rename it over
  // the file in close(). A symbolic link is followed: the temporary file goes
  // beside the file it leads to, which is replaced, and the link stays. The
  // replacement gets the mode (and, where the process may set them, the owner
  // and group) of the file it replaces, a new file the mode a plain export
  // would give it. Any other target (FIFO, device, socket) and standard
  // output are written in place as without the setting.
  bool atomic = false;
  int32_t level = -1;  // gzip 0..9, zstd 1..19; -1 = the compressor's default
  Compression compression = Compression::kGzip;  // what `gzip` compresses with
  // Compress on a thread of its own (BackgroundGZOutStream) instead of in
  // every write; the file's text is the same, but a compressor failure may
  // surface at a later write or at close().
  bool compressInBackground = false;
  // When given: set when the output is done with (closed or destroyed) to the
  // bytes the target holds from this run: the size of a file written (0 when
  // an atomic output failed and left the target as it was); for standard
  // output and a plain target that is not a regular file, the document's
  // bytes written to it (a compressed one counts 0). Must outlive the output.
  uint64_t* targetBytes = nullptr;
};

class DocumentOutput {
 public:
  // Opens the output: a compressed file with `gzip` (the file name is then never
  // empty), standard output when `fileName` is empty, else a plain file that
  // is created or truncated (in place; or the temporary file when atomic).
  // Throws util::EFatal: "Error opening: <name>: <system text>" for a plain
  // file, "Couldn't open for writing gz-stream: <name>" for a gzip file.
  // `standardOutput` must outlive the object.
  //
  // Every write failure is thrown as util::EFatal as soon as it is seen: by
  // a write of stream(), at the latest by close(). Plain file and standard
  // output: "Error writing: <name>: <system text>" (<name> is "standard
  // output" for it); gzip: GZOutStream's texts; zstd: ZstdOutStream's.
  DocumentOutput(const std::string& fileName, bool gzip, std::ostream& standardOutput,
                 const OutputOptions& options = OutputOptions());
  DocumentOutput(const DocumentOutput&) = delete;
  DocumentOutput& operator=(const DocumentOutput&) = delete;
  // Without a successful close(): an atomic output removes its temporary
  // file, leaving the target as it was; an output in place is closed as far
  // as it was written.
  ~DocumentOutput();

  // Valid until close() or destruction.
  OutStream& stream() { return *stream_; }

  // Flushes a plain output, closes the file (a gzip file is completed).
  // Every step is checked (flush, file close, gzip close; atomic also mode,
  // fsync and rename) and a failure throws util::EFatal naming the file;
  // atomic, the temporary file was removed before and the target is as it
  // was. Standard output is flushed, not closed.
  void close();

 private:
  void complete_stream();
  void close_atomic();
  void discard();
  void count_target_bytes(bool atomicFailed);

  const std::string fileName_;
  bool atomic_ = false;
  std::string target_;    // the file the rename replaces: fileName_ with links followed
  std::string tempName_;  // the temporary file while it exists (atomic only)
  int tempFd_ = -1;       // kept open to fsync the finished file (atomic only)
  CPPOutStream* plain_ = nullptr;  // the stream_ when it is standard output or a plain file
  std::unique_ptr<std::ofstream> file_;
  // The stream_ when it is a compressed file, of one kind or the other.
  BackgroundGZOutStream* backgroundGzip_ = nullptr;
  CompressedOutStream* compressed_ = nullptr;
  std::unique_ptr<OutStream> stream_;
  uint64_t* const targetBytes_;
  uint64_t documentBytes_ = 0;  // handed to a plain stream that was dropped since
};

}  // namespace porter

#endif  // TALVIX_PORTER_DOCUMENT_OUTPUT_H_
