// Records a seed for export_fuzz from a running server:
//
//   record_export_seed HOST PORT SETTINGS-OCTET FILE
//
// Exports over TCP with the settings the octet chooses (export_replay.h),
// keeps the octets the server sends after the login, replays them the way
// export_fuzz does and writes the octet and them to FILE only when the
// replay gives the same document and messages as the real export. The
// server's root domain and MIB root must be export_replay.h's ids (e.g.
// the stand-in server's --generate databases). Exits with 1 and a message
// on any failure.
//
// The seeds in fuzz/seeds/export were made from the bundled sample with
// "dom-root" and "mib-root" renamed to "d0" and "mib" (octets 0x00, 0x62,
// 0x39 and 0x07), from --generate 2x1x5x2/1 (0x00) and from the same shape
// with --reverse-window 4 --stray-every 5 (0xB3).
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "fuzz/export_replay.h"
#include "net/connection.h"
#include "porter/export_database.h"
#include "util/error.h"

namespace {

// Forwards to a connection and keeps what is read after the login. The
// handshake alternates strictly: the client writes (ClientWants), reads the
// offer, writes (NegotiateAck, NewSession), reads the login's answer; the
// third burst of writes is the first request.
class RecordingStream : public net::BasicIo {
 public:
  RecordingStream(std::unique_ptr<net::BasicIo> target, std::string& recorded)
      : target_(std::move(target)), recorded_(recorded) {}
  uint64_t read(void* buffer, uint64_t capacity) override {
    const uint64_t count = target_->read(buffer, capacity);
    readLast_ = true;
    if (writeBursts_ >= 3) recorded_.append(static_cast<const char*>(buffer), count);
    return count;
  }
  bool readable() override { return target_->readable(); }
  void write(const void* data, size_t length) override {
    if (readLast_) ++writeBursts_;
    readLast_ = false;
    target_->write(data, length);
  }
  void flush() override { target_->flush(); }

 private:
  std::unique_ptr<net::BasicIo> target_;
  std::string& recorded_;
  bool readLast_ = true;
  int writeBursts_ = 0;
};

struct Outcome {
  std::string document;
  std::string messages;
};

Outcome run(const porter::RunSettings& settings, const net::ConnectionFactory& connector) {
  std::ostringstream document;
  std::ostringstream messages;
  porter::ExportEnvironment environment;
  environment.standardOutput = &document;
  environment.errorStream = &messages;
  environment.clock = [] { return int64_t{0}; };
  environment.connector = &connector;
  porter::export_database(settings, environment);
  return {document.str(), messages.str()};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: record_export_seed HOST PORT SETTINGS-OCTET FILE\n";
    return 1;
  }
  try {
    const uint8_t octet = static_cast<uint8_t>(std::strtoul(argv[3], nullptr, 0));
    fuzz::ReplaySettings settings = fuzz::decode_settings(octet);
    settings.run.server = argv[1];
    settings.run.port = std::atoi(argv[2]);

    std::string recorded;
    const net::ConnectionFactory tcp([&](const std::string& host, uint32_t port) {
      return std::make_unique<RecordingStream>(net::connectTcp(host, port), recorded);
    });
    const Outcome live = run(settings.run, tcp);

    const std::string input = static_cast<char>(octet) + recorded;
    const auto* octets = reinterpret_cast<const uint8_t*>(input.data());
    const net::ConnectionFactory replay([&](const std::string&, uint32_t) {
      return std::make_unique<fuzz::ReplayStream>(fuzz::handshake_octets(), octets + 1,
                                                  input.size() - 1, settings.chunk);
    });
    const Outcome replayed = run(settings.run, replay);
    if (replayed.document != live.document || replayed.messages != live.messages) {
      std::cerr << "the replay differs from the export\n";
      return 1;
    }
    std::ofstream(argv[4], std::ios::binary) << input;
    std::cerr << argv[4] << ": " << input.size() << " octets, document of "
              << live.document.size() << "\n";
    return 0;
  } catch (const util::Exception& e) {
    std::cerr << e.text() << "\n";
    return 1;
  }
}
