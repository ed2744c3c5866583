// Replaying a server's side of an export from memory, shared by the export
// fuzz target and the tool that records its seeds.
//
// A replay input is one settings octet followed by the server's octets after
// the login: the answers to the exporter's requests, whose ids count from 0
// in the order the requests are sent. The handshake before them (an offer
// without authentication for our protocol version, and the login's answer
// naming the root domain kRootDomainId and the MIB root kMibRootId) is
// supplied here, so that every input starts past the login.
#ifndef TALVIX_FUZZ_EXPORT_REPLAY_H_
#define TALVIX_FUZZ_EXPORT_REPLAY_H_

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>
#include <utility>

#include "net/basic_io.h"
#include "porter/options.h"

namespace fuzz {

inline constexpr char kRootDomainId[] = "d0";
inline constexpr char kMibRootId[] = "mib";
// The -e path of a replay that exports a subdomain: a domain whose name
// matches "Brambleton*" and below it one that matches "*lab".
inline constexpr char kSubdomainPath[] = "Brambleton*.*lab";

// What the settings octet chooses:
//   bits 0-1  -o pipeline: 1 (sequential), 2, 16, 64
//   bit 2     -c (no history)
//   bit 3     -e kSubdomainPath instead of "."
//   bits 4-7  the largest piece one read delivers (kChunkSizes)
struct ReplaySettings {
  porter::RunSettings run;  // login admin/secret in "."
  size_t chunk = 0;         // 0: a read delivers all it is asked for
};
ReplaySettings decode_settings(uint8_t octet);

// ServerOffers and NewSessionResp as the server sends them before the answers.
std::string handshake_octets();

// Serves `prefix`, then `size` octets at `data`, at most `chunk` octets per
// read (no limit for 0); after that every read raises util::ESystemError, as
// a closed connection does. Writes are discarded. `data` must outlive the
// stream; `prefix` is copied.
class ReplayStream : public net::BasicIo {
 public:
  ReplayStream(std::string prefix, const uint8_t* data, size_t size, size_t chunk)
      : prefix_(std::move(prefix)), data_(data), size_(size), chunk_(chunk) {}
  uint64_t read(void* buffer, uint64_t capacity) override;
  bool readable() override { return pos_ < prefix_.size() + size_; }
  void write(const void*, size_t) override {}
  void flush() override {}

 private:
  std::string prefix_;
  const uint8_t* data_;
  size_t size_;
  size_t chunk_;
  size_t pos_ = 0;  // in prefix_ followed by data_
};

// A stream buffer that accepts and drops everything.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

}  // namespace fuzz

#endif  // TALVIX_FUZZ_EXPORT_REPLAY_H_
