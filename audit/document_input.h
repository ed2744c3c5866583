// The text of one export document from a file, standard input or memory,
// plain or compressed (gzip or zstd, told apart by their first bytes),
// decompressed as it is read in fixed-size pieces, with the SHA-256 of the
// file's own bytes computed on the way.
#ifndef TALVIX_AUDIT_DOCUMENT_INPUT_H_
#define TALVIX_AUDIT_DOCUMENT_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace util {
class Sha256;
}

namespace audit {

enum class Container { kPlain, kGzip, kZstd };

class DocumentInput {
 public:
  // Opens `path` ("-" is standard input). Throws Trouble "<path>: <system
  // text>" when it cannot be opened.
  explicit DocumentInput(const std::string& path);
  // Reads `bytes`, which must outlive the object.
  struct InMemory {};
  DocumentInput(InMemory, std::string_view bytes);
  ~DocumentInput();
  DocumentInput(const DocumentInput&) = delete;
  DocumentInput& operator=(const DocumentInput&) = delete;

  // Puts up to `size` bytes of document text into `buffer`; 0 only at the
  // end. Throws Fault (position 0, set by the caller) when the compressed
  // stream is damaged or cut short, Trouble when the file cannot be read.
  size_t read(char* buffer, size_t size);

  Container container();
  // The file's own bytes read so far, and their SHA-256 in lowercase hex
  // once read() returned 0.
  uint64_t file_bytes() const { return fileBytes_; }
  std::string sha256_hex() const;

 private:
  struct Decoder;
  size_t read_raw(char* buffer, size_t size);
  bool fill();  // reads the next raw piece; false at the end of the file
  // Counts and hashes `size` bytes just read; 0 marks the end of the file.
  void note_raw(const char* bytes, size_t size);
  void sniff();

  std::string path_;
  int fd_ = -1;
  bool ownsFd_ = false;
  std::string_view memory_;
  bool sniffed_ = false;
  Container container_ = Container::kPlain;
  std::vector<char> raw_;  // the raw piece being consumed
  size_t rawPos_ = 0, rawEnd_ = 0;
  bool rawEof_ = false;
  uint64_t fileBytes_ = 0;
  std::unique_ptr<Decoder> decoder_;
  std::string digest_;  // set once the end was reached
  std::unique_ptr<util::Sha256> hash_;
};

}  // namespace audit

#endif  // TALVIX_AUDIT_DOCUMENT_INPUT_H_
