#include "porter/out_stream.h"

#include <zlib.h>

#include <cstdint>

#include "util/error.h"

namespace porter {

CPPOutStream& CPPOutStream::write(const std::string& text) {
  stream_->write(text.data(), static_cast<std::streamsize>(text.size()));
  return *this;
}

GZOutStream::GZOutStream(const std::string& fileName) : file_(gzopen(fileName.c_str(), "wb")) {
  if (file_ == nullptr) {
    throw error::EFatal("Couldn't open for writing gz-stream: " + fileName);
  }
}

GZOutStream::~GZOutStream() { gzclose(file_); }

GZOutStream& GZOutStream::write(const std::string& text) {
  // gzputs takes the text up to its first zero byte; the counts are compared
  // as 32-bit values, so -1 (zlib's failure) never matches a length.
  const int put = gzputs(file_, text.c_str());
  if (static_cast<uint32_t>(put) != static_cast<uint32_t>(text.size())) {
    int code = Z_OK;
    const char* message = gzerror(file_, &code);
    throw error::EFatal(std::string("Error reading gz-stream: ") + (message ? message : ""));
  }
  return *this;
}

}  // namespace porter
