#include "porter/checksum_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "util/error.h"
#include "util/sha256.h"

namespace porter {

namespace {

// Closes a descriptor it owns.
struct Descriptor {
  explicit Descriptor(int fd) : fd(fd) {}
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int fd;
};

std::string digest_of(const std::string& path) {
  // Without O_NONBLOCK a FIFO would wait for a writer before fstat says what it is.
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file.fd < 0) throw util::EFatal("Error reading: " + path + ": " + util::last_error_text());
  struct stat info {};
  if (::fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    throw util::EFatal("Cannot write a checksum of " + path + ": not a regular file");
  }
  util::Sha256 hash;
  std::vector<char> buffer(1 << 18);
  for (;;) {
    const ssize_t n = ::read(file.fd, buffer.data(), buffer.size());
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      throw util::EFatal("Error reading: " + path + ": " + util::last_error_text());
    }
    hash.update(std::string_view(buffer.data(), static_cast<size_t>(n)));
  }
  return hash.hex_digest();
}

}  // namespace

void write_checksum_file(const std::string& path) {
  const std::string line = util::sha256sum_line(digest_of(path), util::base_name(path));
  const std::string sidecar = path + ".sha256";
  std::string pattern = sidecar + ".tmp-XXXXXX";
  Descriptor temp(::mkstemp(pattern.data()));
  if (temp.fd < 0) throw util::EFatal("Error writing: " + sidecar + ": " + util::last_error_text());
  const mode_t mask = ::umask(0);
  ::umask(mask);
  size_t written = 0;
  bool ok = ::fchmod(temp.fd, 0666 & ~mask) == 0;
  while (ok && written < line.size()) {
    const ssize_t n = ::write(temp.fd, line.data() + written, line.size() - written);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) written += static_cast<size_t>(n);
  }
  ok = ok && ::fsync(temp.fd) == 0;
  if (ok) {
    ok = ::close(temp.fd) == 0;
    temp.fd = -1;
  }
  ok = ok && std::rename(pattern.c_str(), sidecar.c_str()) == 0;
  if (!ok) {
    const std::string failure = "Error writing: " + sidecar + ": " + util::last_error_text();
    ::unlink(pattern.c_str());
    throw util::EFatal(failure);
  }
}

}  // namespace porter
