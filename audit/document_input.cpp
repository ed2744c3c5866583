#include "audit/document_input.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <cerrno>
#include <cstring>

#include "audit/faults.h"
#include "util/error.h"
#include "util/sha256.h"

namespace audit {

namespace {

constexpr size_t kRawPiece = 1 << 16;
constexpr unsigned char kGzipMagic[] = {0x1f, 0x8b};
constexpr unsigned char kZstdMagic[] = {0x28, 0xb5, 0x2f, 0xfd};

bool starts_with(const char* data, size_t size, const unsigned char* magic, size_t length) {
  return size >= length && std::memcmp(data, magic, length) == 0;
}

}  // namespace

// The decompressor of a gzip or zstd container; one of the two is in use.
struct DocumentInput::Decoder {
  ~Decoder() {
    if (gzipStarted) inflateEnd(&gzip);
    ZSTD_freeDStream(zstd);
  }
  z_stream gzip{};
  bool gzipStarted = false;
  bool memberEnded = false;  // gzip: a member ended and no other began yet
  ZSTD_DStream* zstd = nullptr;
  size_t zstdPending = 0;  // zstd: the last hint; 0 when a frame is complete
};

DocumentInput::DocumentInput(const std::string& path) : path_(path), hash_(std::make_unique<util::Sha256>()) {
  if (path == "-") {
    fd_ = STDIN_FILENO;
  } else {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) throw Trouble(path + ": " + util::last_error_text());
    ownsFd_ = true;
  }
  raw_.resize(kRawPiece);
}

DocumentInput::DocumentInput(InMemory, std::string_view bytes)
    : path_("(memory)"), memory_(bytes), hash_(std::make_unique<util::Sha256>()) {
  raw_.resize(kRawPiece);
}

DocumentInput::~DocumentInput() {
  if (ownsFd_) ::close(fd_);
}

size_t DocumentInput::read_raw(char* buffer, size_t size) {
  if (fd_ < 0) {
    const size_t n = std::min(size, memory_.size());
    std::memcpy(buffer, memory_.data(), n);
    memory_.remove_prefix(n);
    return n;
  }
  for (;;) {
    const ssize_t n = ::read(fd_, buffer, size);
    if (n >= 0) return static_cast<size_t>(n);
    if (errno != EINTR) throw Trouble(path_ + ": " + util::last_error_text());
  }
}

bool DocumentInput::fill() {
  if (rawEof_) return false;
  rawPos_ = 0;
  rawEnd_ = read_raw(raw_.data(), raw_.size());
  note_raw(raw_.data(), rawEnd_);
  return rawEnd_ > 0;
}

void DocumentInput::note_raw(const char* bytes, size_t size) {
  fileBytes_ += size;
  hash_->update(std::string_view(bytes, size));
  if (size == 0 && !rawEof_) {
    rawEof_ = true;
    digest_ = hash_->hex_digest();
  }
}

void DocumentInput::sniff() {
  sniffed_ = true;
  // The magic numbers may arrive in more than one read (a pipe).
  while (!rawEof_ && rawEnd_ < 4) {
    const size_t n = read_raw(raw_.data() + rawEnd_, raw_.size() - rawEnd_);
    note_raw(raw_.data() + rawEnd_, n);
    rawEnd_ += n;
  }
  if (starts_with(raw_.data(), rawEnd_, kGzipMagic, sizeof kGzipMagic)) {
    container_ = Container::kGzip;
    decoder_ = std::make_unique<Decoder>();
    // 16 + 15: a gzip wrapper only, the largest window.
    if (inflateInit2(&decoder_->gzip, 16 + MAX_WBITS) != Z_OK) throw Trouble("zlib: out of memory");
    decoder_->gzipStarted = true;
  } else if (starts_with(raw_.data(), rawEnd_, kZstdMagic, sizeof kZstdMagic)) {
    container_ = Container::kZstd;
    decoder_ = std::make_unique<Decoder>();
    decoder_->zstd = ZSTD_createDStream();
    if (decoder_->zstd == nullptr) throw Trouble("zstd: out of memory");
    ZSTD_initDStream(decoder_->zstd);
    decoder_->zstdPending = 1;
  }
}

Container DocumentInput::container() {
  if (!sniffed_) sniff();
  return container_;
}

size_t DocumentInput::read(char* buffer, size_t size) {
  if (!sniffed_) sniff();
  if (container_ == Container::kPlain) {
    if (rawPos_ == rawEnd_ && !rawEof_) {
      // Past the sniffed piece the text is read straight into `buffer`.
      const size_t n = read_raw(buffer, size);
      note_raw(buffer, n);
      return n;
    }
    if (rawPos_ == rawEnd_) return 0;
    const size_t n = std::min(size, rawEnd_ - rawPos_);
    std::memcpy(buffer, raw_.data() + rawPos_, n);
    rawPos_ += n;
    return n;
  }
  Decoder& d = *decoder_;
  for (;;) {
    // At the end of the file the decoder is still asked once more: it may
    // hold text that did not fit into the last buffer.
    const bool atEnd = rawPos_ == rawEnd_ && !fill();
    if (container_ == Container::kGzip) {
      if (d.memberEnded) {
        if (atEnd) return 0;
        // Another member may follow, as gzip itself writes for appended data.
        if (raw_[rawPos_] != static_cast<char>(kGzipMagic[0])) {
          throw Fault(0, 0, "gzip: data after the end of the compressed stream");
        }
        inflateReset(&d.gzip);
        d.memberEnded = false;
      }
      d.gzip.next_in = reinterpret_cast<Bytef*>(raw_.data() + rawPos_);
      d.gzip.avail_in = static_cast<uInt>(rawEnd_ - rawPos_);
      d.gzip.next_out = reinterpret_cast<Bytef*>(buffer);
      d.gzip.avail_out = static_cast<uInt>(size);
      const int status = inflate(&d.gzip, Z_NO_FLUSH);
      rawPos_ = rawEnd_ - d.gzip.avail_in;
      const size_t produced = size - d.gzip.avail_out;
      if (status == Z_STREAM_END) {
        d.memberEnded = true;
      } else if (status == Z_DATA_ERROR || status == Z_NEED_DICT) {
        throw Fault(0, 0, std::string("gzip: ") + (d.gzip.msg ? d.gzip.msg : "damaged data"));
      } else if (status == Z_MEM_ERROR) {
        throw Trouble("zlib: out of memory");
      }
      if (produced > 0) return produced;
      if (atEnd && !d.memberEnded) {
        throw Fault(0, 0, "gzip: the file ends before the end of the compressed stream (truncated)");
      }
    } else {
      if (atEnd && d.zstdPending == 0) return 0;  // the last frame is complete
      ZSTD_inBuffer in{raw_.data() + rawPos_, rawEnd_ - rawPos_, 0};
      ZSTD_outBuffer out{buffer, size, 0};
      const size_t hint = ZSTD_decompressStream(d.zstd, &out, &in);
      rawPos_ += in.pos;
      if (ZSTD_isError(hint)) throw Fault(0, 0, std::string("zstd: ") + ZSTD_getErrorName(hint));
      d.zstdPending = hint;
      if (out.pos > 0) return out.pos;
      if (atEnd) {
        throw Fault(0, 0, "zstd: the file ends before the end of the frame (truncated)");
      }
    }
  }
}

std::string DocumentInput::sha256_hex() const { return digest_; }

}  // namespace audit
