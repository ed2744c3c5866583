// Runs a whole export against arbitrary server octets: the login succeeds
// (export_replay.h supplies it), and everything after it, the answers to the
// domain lookup, the selects, the property values and the history, comes
// from the input. The first input octet chooses sequential or pipelined
// requests, history, the export domain and how the octets are cut into
// reads (see decode_settings()).
//
// An export may end in any util::Exception; a crash, sanitizer report, leak,
// hang, runaway allocation or another exception escaping is a fault.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "fuzz/export_replay.h"
#include "net/connection.h"
#include "porter/export_database.h"
#include "util/error.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const fuzz::ReplaySettings settings = fuzz::decode_settings(data[0]);

  bool connected = false;
  const net::ConnectionFactory connector(
      [&](const std::string&, uint32_t) -> std::unique_ptr<net::BasicIo> {
        // An export opens one connection; a second one finds the server gone.
        if (connected) throw util::ESystemError("Error connecting: refused");
        connected = true;
        return std::make_unique<fuzz::ReplayStream>(fuzz::handshake_octets(), data + 1, size - 1,
                                                    settings.chunk);
      });
  fuzz::NullBuffer discard;
  std::ostream null(&discard);
  porter::ExportEnvironment environment;
  environment.standardOutput = &null;
  environment.errorStream = &null;
  environment.clock = [] { return int64_t{0}; };
  environment.connector = &connector;
  try {
    porter::export_database(settings.run, environment);
  } catch (const util::Exception&) {
    // A refused answer: the exporter reports it and exits with 1.
  }
  return 0;
}
