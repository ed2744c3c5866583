#include "audit/verify.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "audit/document_input.h"
#include "audit/document_reader.h"
#include "audit/faults.h"
#include "util/error.h"
#include "util/sha256.h"

namespace audit {

namespace {

constexpr size_t kMaxSidecarBytes = 4096;

// The sidecar's text, or nothing when there is none. Throws Trouble when it
// is there but cannot be read.
std::optional<std::string> read_sidecar(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw Trouble(path + ": " + util::last_error_text());
  }
  std::string text(kMaxSidecarBytes + 1, '\0');
  size_t size = 0;
  for (;;) {
    const ssize_t n = ::read(fd, text.data() + size, text.size() - size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const std::string failure = path + ": " + util::last_error_text();
      ::close(fd);
      throw Trouble(failure);
    }
    size += static_cast<size_t>(n);
    if (n == 0 || size == text.size()) break;
  }
  ::close(fd);
  text.resize(size);
  return text;
}

// What is wrong with `sidecar` for the file `path` whose SHA-256 is `digest`;
// empty when it matches.
std::string check_sidecar(const std::string& sidecar, const std::string& path,
                          const std::string& digest) {
  const std::string name = path + ".sha256";
  const std::string expected = util::sha256sum_line(digest, util::base_name(path));
  if (sidecar == expected) return "";
  const size_t hex = sidecar.starts_with('\\') ? 1 : 0;
  if (sidecar.size() < hex + 66 || sidecar.find('\n') != sidecar.size() - 1 ||
      sidecar.find_first_not_of("0123456789abcdef", hex) != hex + 64) {
    return name + " is not one line of sha256sum's format";
  }
  if (sidecar.compare(hex, 64, digest) != 0) return "SHA-256 differs from the one in " + name;
  return name + " names another file";
}

}  // namespace

int verify_files(const std::vector<std::string>& files, const VerifyOptions& options,
                 std::ostream& out, std::ostream& err) {
  int result = 0;
  for (const std::string& file : files) {
    try {
      DocumentInput input(file);
      DocumentEvents nothing;
      try {
        read_document(input, nothing);
      } catch (const Fault& fault) {
        err << fault_text(file, fault) << '\n';
        result = std::max(result, 1);
        continue;
      }
      std::string note;
      if (file != "-") {
        const std::optional<std::string> sidecar = read_sidecar(file + ".sha256");
        if (sidecar) {
          if (std::string problem = check_sidecar(*sidecar, file, input.sha256_hex()); !problem.empty()) {
            err << file << ": " << problem << '\n';
            result = std::max(result, 1);
            continue;
          }
          note = ", checksum OK";
        } else if (options.requireChecksum) {
          err << file << ": no checksum file " << file << ".sha256\n";
          result = std::max(result, 1);
          continue;
        }
      }
      out << file << ": OK" << note << '\n';
    } catch (const Trouble& trouble) {
      err << "talvix-audit: " << trouble.what() << '\n';
      result = 2;
    }
  }
  out.flush();
  err.flush();
  return result;
}

}  // namespace audit
