#include "porter/document_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
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

// Whether a rename may replace `path`: it names nothing yet or a regular
// file (through symbolic links). Anything else, or a path that cannot be
// looked at, is written in place, where its open reports what is wrong.
bool renaming_is_right(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) return S_ISREG(info.st_mode);
  return errno == ENOENT;
}

// `path` with its symbolic links followed to the file they lead to, which
// need not exist (a dangling link). Gives up after as many links as the
// system follows; the open then reports the loop.
std::string follow_links(std::string path) {
  std::vector<char> buffer(PATH_MAX);
  for (int hops = 0; hops < 40; ++hops) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) break;
    const ssize_t length = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (length <= 0) break;
    const std::string link(buffer.data(), static_cast<size_t>(length));
    const size_t slash = path.rfind('/');
    path = link[0] == '/' || slash == std::string::npos ? link : path.substr(0, slash + 1) + link;
  }
  return path;
}

// Gives the finished temporary file `fd` the owner, group and mode of the
// file at `target`, or the mode of a new file when there is none. An owner
// or group the process may not set stays the process's own; the group's
// permissions are then dropped rather than handed to another group.
// Returns false (errno set) when the mode cannot be set.
bool take_over_permissions(int fd, const std::string& target) {
  struct stat old {};
  if (::stat(target.c_str(), &old) != 0 || !S_ISREG(old.st_mode)) {
    return ::fchmod(fd, creation_mode()) == 0;
  }
  mode_t mode = old.st_mode & 07777;
  if (::fchown(fd, old.st_uid, old.st_gid) != 0 &&
      ::fchown(fd, static_cast<uid_t>(-1), old.st_gid) != 0) {
    mode &= ~static_cast<mode_t>(S_IRWXG | S_ISGID);
  }
  return ::fchmod(fd, mode) == 0;
}

}  // namespace

DocumentOutput::DocumentOutput(const std::string& fileName, bool gzip,
                               std::ostream& standardOutput, const OutputOptions& options)
    : fileName_(fileName), targetBytes_(options.targetBytes) {
  atomic_ = options.atomic && !fileName.empty() && renaming_is_right(fileName);
  std::string path = fileName;
  if (atomic_) {
    target_ = follow_links(fileName);
    std::vector<char> pattern(target_.begin(), target_.end());
    const std::string suffix = ".tmp-XXXXXX";
    pattern.insert(pattern.end(), suffix.begin(), suffix.end());
    pattern.push_back('\0');
    // mkstemp's mode 0600 stays until close() sets the final one.
    tempFd_ = ::mkstemp(pattern.data());
    if (tempFd_ < 0) {
      throw util::EFatal("Error opening: " + target_ + suffix + ": " + util::last_error_text());
    }
    tempName_ = pattern.data();
    path = tempName_;
  }
  try {
    if (gzip && options.compressInBackground) {
      auto compressed =
          std::make_unique<BackgroundGZOutStream>(path, options.level, options.compression);
      backgroundGzip_ = compressed.get();
      stream_ = std::move(compressed);
      return;
    }
    if (gzip) {
      std::unique_ptr<CompressedOutStream> compressed =
          open_compressed(path, options.level, options.compression);
      compressed_ = compressed.get();
      stream_ = std::move(compressed);
      return;
    }
    std::ostream* plain = &standardOutput;
    if (!fileName.empty()) {
      file_ = std::make_unique<std::ofstream>(path, std::ios::out | std::ios::trunc);
      if (!*file_) throw util::EFatal("Error opening: " + path + ": " + util::last_error_text());
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

DocumentOutput::~DocumentOutput() { discard(); }

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
  } else if (compressed_ != nullptr) {
    compressed_->close();
  } else {
    plain_->flush();
    if (file_ != nullptr) {
      errno = 0;
      file_->close();
      if (file_->fail()) {
        throw util::EFatal("Error writing: " + fileName_ + ": " +
                            (errno != 0 ? util::last_error_text() : std::string("close failed")));
      }
    }
  }
}

void DocumentOutput::close_atomic() {
  if (tempName_.empty()) return;  // closed before
  try {
    complete_stream();
    if (!take_over_permissions(tempFd_, target_) || ::fsync(tempFd_) != 0) {
      throw util::EFatal("Error writing: " + fileName_ + ": " + util::last_error_text());
    }
    const int closed = ::close(tempFd_);
    tempFd_ = -1;
    if (closed != 0) throw util::EFatal("Error writing: " + fileName_ + ": " + util::last_error_text());
    if (std::rename(tempName_.c_str(), target_.c_str()) != 0) {
      throw util::EFatal("Error renaming " + tempName_ + " to " + target_ + ": " +
                          util::last_error_text());
    }
  } catch (...) {
    discard();
    throw;
  }
  tempName_.clear();
  stream_.reset();
  file_.reset();
  count_target_bytes(false);
  // Make the rename itself durable; the document is complete either way.
  const int folder = ::open(folder_of(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    ::fsync(folder);
    ::close(folder);
  }
}

void DocumentOutput::discard() {
  const bool open = stream_ != nullptr;
  const bool atomicFailed = !tempName_.empty();
  // plain_ and the others are left dangling by a successful atomic close.
  if (open && plain_ != nullptr) documentBytes_ = plain_->accepted();
  stream_.reset();
  plain_ = nullptr;
  backgroundGzip_ = nullptr;
  compressed_ = nullptr;
  file_.reset();
  if (tempFd_ >= 0) ::close(tempFd_);
  tempFd_ = -1;
  if (!tempName_.empty()) ::unlink(tempName_.c_str());
  tempName_.clear();
  if (open) count_target_bytes(atomicFailed);
}

void DocumentOutput::count_target_bytes(bool atomicFailed) {
  if (targetBytes_ == nullptr) return;
  struct stat info {};
  if (atomicFailed) {
    *targetBytes_ = 0;
  } else if (!fileName_.empty() && ::stat((atomic_ ? target_ : fileName_).c_str(), &info) == 0 &&
             S_ISREG(info.st_mode)) {
    *targetBytes_ = static_cast<uint64_t>(info.st_size);
  } else {
    *targetBytes_ = documentBytes_;
  }
}

}  // namespace porter
