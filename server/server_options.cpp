#include "server/server_options.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string_view>

namespace server {

namespace {

// A whole decimal or 0x-prefixed hexadecimal number up to `max`.
bool parse_number(const std::string& text, uint64_t max, uint64_t* out) {
  if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (errno != 0 || end == text.c_str() || *end != '\0' || value > max) return false;
  *out = value;
  return true;
}

}  // namespace

ParsedArgs parse_server_args(int argc, const char* const* argv) {
  ParsedArgs parsed;
  ServerOptions& o = parsed.options;
  auto fail = [&parsed](std::string text) {
    parsed.error = std::move(text);
    return parsed;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--help" || name == "-h") {
      parsed.help = true;
      return parsed;
    }
    if (name == "--gone-after-first") {
      o.faults.goneAfterFirst = true;
      continue;
    }
    if (i + 1 >= argc) return fail("option " + name + " needs a value");
    const std::string value = argv[++i];
    uint64_t n = 0;
    auto number = [&](uint64_t max) { return parse_number(value, max, &n); };
    const uint64_t u32 = std::numeric_limits<uint32_t>::max();
    if (name == "--db") {
      o.dbFile = value;
    } else if (name == "--generate") {
      o.generateShape = value;
    } else if (name == "--port") {
      if (!number(65535)) return fail("bad port: " + value);
      o.port = static_cast<uint16_t>(n);
    } else if (name == "--listen") {
      o.listen = value;
    } else if (name == "--delay-ms") {
      if (!number(3600000)) return fail("bad delay: " + value);
      o.faults.delayMs = static_cast<uint32_t>(n);
    } else if (name == "--chunk") {
      if (!number(u32)) return fail("bad chunk size: " + value);
      o.faults.chunkSize = static_cast<uint32_t>(n);
    } else if (name == "--filler") {
      if (!number(1 << 20)) return fail("bad filler count: " + value);
      o.faults.filler = static_cast<uint32_t>(n);
    } else if (name == "--stray-every") {
      if (!number(u32)) return fail("bad stray interval: " + value);
      o.faults.strayEvery = static_cast<uint32_t>(n);
    } else if (name == "--reverse-window") {
      if (!number(1 << 16)) return fail("bad window: " + value);
      o.faults.reverseWindow = static_cast<uint32_t>(n);
    } else if (name == "--close-at") {
      if (!number(u32)) return fail("bad request number: " + value);
      o.faults.closeAtRequest = static_cast<uint32_t>(n);
    } else if (name == "--malformed-at") {
      if (!number(u32)) return fail("bad request number: " + value);
      o.faults.malformedAtRequest = static_cast<uint32_t>(n);
    } else if (name == "--fault-connections") {
      if (!number(u32)) return fail("bad connection count: " + value);
      o.faults.faultConnections = static_cast<uint32_t>(n);
    } else {
      return fail("unknown option " + name);
    }
  }
  if (o.dbFile.empty() == o.generateShape.empty()) {
    return fail("give exactly one of --db FILE and --generate SHAPE");
  }
  return parsed;
}

std::string server_usage() {
  return "usage: talvix-server (--db FILE | --generate SHAPE) [options]\n"
         "\n"
         "A stand-in monitoring server for tests and benchmarks. It listens on\n"
         "127.0.0.1 (or --listen) only, prints the port it listens on as the first line of\n"
         "standard output, serves every connection in a thread of its own and\n"
         "stops on SIGINT or SIGTERM.\n"
         "\n"
         "Database (exactly one):\n"
         "  --db FILE             objects, history and users from a JSON file\n"
         "  --generate SHAPE      a generated database of that shape, written\n"
         "                        FANOUTxNODESxCHECKSxROWS/DEPTH (e.g. 3x10x5x20/2)\n"
         "\n"
         "Listening:\n"
         "  --port N              port to listen on; 0 (default) picks a free one\n"
         "  --listen ADDRESS      numeric address to listen on (default 127.0.0.1;\n"
         "                        ::1 for IPv6)\n"
         "\n"
         "Faults and latency (requests of a connection count from 1):\n"
         "  --delay-ms N          send each answer N ms after its request arrived\n"
         "  --chunk N             write every reply in separate pieces of N octets\n"
         "  --filler N            write N filler octets (19 and 00 in turn) before\n"
         "                        each answer\n"
         "  --stray-every N       send a Response with an id never asked for before\n"
         "                        every N-th answer\n"
         "  --reverse-window K    answer in reverse order within windows of K\n"
         "                        requests (a partial window goes out when the\n"
         "                        client sends nothing more for 20 ms)\n"
         "  --close-at N          close the connection when request N arrives; the\n"
         "                        answers to earlier requests are sent first\n"
         "  --malformed-at N      answer request N with octets no reader accepts\n"
         "                        (75 80 02 85 01 01 01 01 01)\n"
         "  --fault-connections K only the first K connections get --close-at and\n"
         "                        --malformed-at (0, the default: every one)\n"
         "  --gone-after-first    close every connection after the first at once,\n"
         "                        unserved (a server that went away)\n"
         "\n"
         "  --help                this text\n";
}

}  // namespace server
