// SHA-256 digests (OpenSSL's libcrypto) and the line sha256sum writes and
// checks for one file.
#ifndef TALVIX_UTIL_SHA256_H_
#define TALVIX_UTIL_SHA256_H_

#include <memory>
#include <string>
#include <string_view>

namespace util {

class Sha256 {
 public:
  // Throws EFatal "SHA-256 is not available" when libcrypto refuses.
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  void update(std::string_view bytes);
  // The digest of everything given, in lowercase hexadecimal; ends the use.
  std::string hex_digest();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

// "<hex digest>  <name>\n", as sha256sum writes it; a name holding a
// backslash or a line feed is written with those as "\\" and "\n" and the
// line starts with a backslash.
std::string sha256sum_line(const std::string& hexDigest, std::string_view name);

// The last part of a path (all of it without a '/').
std::string base_name(const std::string& path);

}  // namespace util

#endif  // TALVIX_UTIL_SHA256_H_
