// What the stand-in server is told on its command line: where its objects
// come from, where it listens, and which faults and delays it injects into
// its replies.
#ifndef TALVIX_SERVER_SERVER_OPTIONS_H_
#define TALVIX_SERVER_SERVER_OPTIONS_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace protocol {
class Request;
}

namespace server {

// Faults and latency applied to every connection. Request numbers count the
// requests of one connection from 1; connections are counted from 1 in the
// order they were accepted.
struct FaultOptions {
  uint32_t delayMs = 0;         // each answer leaves this long after its request arrived
  uint32_t chunkSize = 0;       // >0: every reply is written in pieces of this many octets
  uint32_t filler = 0;          // octets (19 and 00 in turn) written before each answer
  uint32_t strayEvery = 0;      // >0: a Response with an unknown id before every n-th answer
  uint32_t reverseWindow = 0;   // >1: answers reversed within windows of this many requests
  uint32_t closeAtRequest = 0;  // >0: the connection closes when this request arrives
  uint32_t malformedAtRequest = 0;  // >0: this request is answered with undecodable octets
  // >0: the close and malformed faults hit only the first this many
  // connections; later ones are served without them.
  uint32_t faultConnections = 0;
  bool goneAfterFirst = false;  // every connection after the first is closed at once, unserved
};

struct ServerOptions {
  std::string dbFile;        // --db: a JSON database
  std::string generateShape; // --generate: a generated database of this shape
  uint16_t port = 0;         // 0: any free port
  std::string listen = "127.0.0.1";  // --listen: the numeric address listened on (::1 for IPv6)
  FaultOptions faults;
  // In-process servers only: sees every request of a logged-in client, on
  // the connection's thread, before it is answered. Must be thread-safe.
  std::function<void(const protocol::Request&)> onRequest;
};

// The outcome of reading the command line.
struct ParsedArgs {
  ServerOptions options;
  bool help = false;   // --help was given: print usage() and exit 0
  std::string error;   // non-empty: the arguments are wrong; print it and usage()
};

// Reads argv[1..argc-1]. Never throws and never exits.
ParsedArgs parse_server_args(int argc, const char* const* argv);

// The --help text.
std::string server_usage();

}  // namespace server

#endif  // TALVIX_SERVER_SERVER_OPTIONS_H_
