#include "porter/document_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "util/error.h"

namespace porter {

namespace {

// The permissions a newly created file gets from the process's umask.
mode_t creation_mode() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

// The folder of `path`, for syncing a rename: "." when it names none.
std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

DocumentOutput::DocumentOutput(const std::string& fileName, bool gzip,
                               std::ostream& standardOutput, const OutputOptions& options)
    : fileName_(fileName), atomic_(options.atomic && !fileName.empty()) {
  std::string path = fileName;
  if (atomic_) {
    std::vector<char> pattern(fileName.begin(), fileName.end());
    const std::string suffix = ".tmp-XXXXXX";
    pattern.insert(pattern.end(), suffix.begin(), suffix.end());
    pattern.push_back('\0');
    tempFd_ = ::mkstemp(pattern.data());
    if (tempFd_ < 0) {
      throw error::EFatal("Error opening: " + fileName + suffix + ": " + last_error_text());
    }
    tempName_ = pattern.data();
    path = tempName_;
    ::fchmod(tempFd_, creation_mode());  // mkstemp's 0600 would outlive the rename
  }
  try {
    if (gzip && options.compressInBackground) {
      auto compressed = std::make_unique<BackgroundGZOutStream>(path, options.level);
      backgroundGzip_ = compressed.get();
      stream_ = std::move(compressed);
      return;
    }
    if (gzip) {
      auto compressed = std::make_unique<GZOutStream>(path, options.level);
      gzip_ = compressed.get();
      stream_ = std::move(compressed);
      return;
    }
    std::ostream* plain = &standardOutput;
    if (!fileName.empty()) {
      file_ = std::make_unique<std::ofstream>(path, std::ios::out | std::ios::trunc);
      if (!*file_) throw error::EFatal("Error opening: " + path + ": " + last_error_text());
      plain = file_.get();
    }
    auto forwarding =
        std::make_unique<CPPOutStream>(*plain, fileName.empty() ? "standard output" : fileName);
    plain_ = forwarding.get();
    stream_ = std::move(forwarding);
  } catch (...) {
    discard();
    throw;
  }
}

DocumentOutput::~DocumentOutput() {
  if (atomic_) discard();
}

void DocumentOutput::close() {
  if (atomic_) {
    close_atomic();
    return;
  }
  if (stream_ == nullptr) return;  // closed before
  try {
    complete_stream();
  } catch (...) {
    discard();
    throw;
  }
  discard();
}

void DocumentOutput::complete_stream() {
  if (backgroundGzip_ != nullptr) {
    backgroundGzip_->close();
  } else if (gzip_ != nullptr) {
    gzip_->close();
  } else {
    plain_->flush();
    if (file_ != nullptr) {
      errno = 0;
      file_->close();
      if (file_->fail()) {
        throw error::EFatal("Error writing: " + fileName_ + ": " +
                            (errno != 0 ? last_error_text() : std::string("close failed")));
      }
    }
  }
}

void DocumentOutput::close_atomic() {
  if (tempName_.empty()) return;  // closed before
  try {
    complete_stream();
    if (::fsync(tempFd_) != 0) {
      throw error::EFatal("Error writing: " + fileName_ + ": " + last_error_text());
    }
    const int closed = ::close(tempFd_);
    tempFd_ = -1;
    if (closed != 0) throw error::EFatal("Error writing: " + fileName_ + ": " + last_error_text());
    if (std::rename(tempName_.c_str(), fileName_.c_str()) != 0) {
      throw error::EFatal("Error renaming " + tempName_ + " to " + fileName_ + ": " +
                          last_error_text());
    }
  } catch (...) {
    discard();
    throw;
  }
  tempName_.clear();
  stream_.reset();
  file_.reset();
  // Make the rename itself durable; the document is complete either way.
  const int folder = ::open(folder_of(fileName_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    ::fsync(folder);
    ::close(folder);
  }
}

void DocumentOutput::discard() {
  stream_.reset();
  plain_ = nullptr;
  backgroundGzip_ = nullptr;
  gzip_ = nullptr;
  file_.reset();
  if (tempFd_ >= 0) ::close(tempFd_);
  tempFd_ = -1;
  if (!tempName_.empty()) ::unlink(tempName_.c_str());
  tempName_.clear();
}

}  // namespace porter
