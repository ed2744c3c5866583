#include "util/sha256.h"

#include <openssl/evp.h>

#include "util/error.h"

namespace util {

struct Sha256::Context {
  ~Context() { EVP_MD_CTX_free(md); }
  EVP_MD_CTX* md = EVP_MD_CTX_new();
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
  if (context_->md == nullptr || EVP_DigestInit_ex(context_->md, EVP_sha256(), nullptr) != 1) {
    throw EFatal("SHA-256 is not available");
  }
}

Sha256::~Sha256() = default;

void Sha256::update(std::string_view bytes) { EVP_DigestUpdate(context_->md, bytes.data(), bytes.size()); }

std::string Sha256::hex_digest() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context_->md, digest, &length);
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += kHex[digest[i] >> 4];
    text += kHex[digest[i] & 15];
  }
  return text;
}

std::string sha256sum_line(const std::string& hexDigest, std::string_view name) {
  std::string escaped;
  bool needsEscape = false;
  for (char c : name) {
    if (c == '\\' || c == '\n') {
      needsEscape = true;
      escaped += c == '\\' ? "\\\\" : "\\n";
    } else {
      escaped += c;
    }
  }
  return (needsEscape ? "\\" : "") + hexDigest + "  " + escaped + "\n";
}

std::string base_name(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace util
