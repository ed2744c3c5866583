// The client's connection to the server with a time limit (-o timeout=S).
//
// connectTcp() waits as long as the system lets it: its socket is blocking.
// connectTcpWithin() opens the same buffered stream over a socket whose
// connect, and every later wait for the server, gives up after a limit: the
// connect must complete within it, each read must see data (or the end of
// the stream) within it, and each write must make progress within it. A
// transfer that keeps moving never expires, however long it takes.
#ifndef TALVIX_NET_TIMED_CONNECTION_H_
#define TALVIX_NET_TIMED_CONNECTION_H_

#include <cstdint>
#include <memory>
#include <string>

#include "net/basic_io.h"
#include "net/connection.h"

namespace net {

// Connects to `host` at `port` (its low 16 bits) and returns a BufferIo over
// the time-limited socket stream; the caller owns the result. `seconds` must
// be at least 1. Raises util::ESystemError with the socket layer's texts for
// a failed lookup or connect, and, when the limit expires,
//   "Could not connect to server <host>:<port> within <N> seconds",
//   "No answer from server <host>:<port> within <N> seconds" (a read),
//   "Server <host>:<port> took no data within <N> seconds" (a write).
// Later failures of the stream keep the texts of the untimed stream.
std::unique_ptr<net::BasicIo> connectTcpWithin(const std::string& host, uint32_t port,
                                               unsigned seconds);

// A connector that opens every connection with connectTcpWithin(seconds).
ConnectionFactory timedConnectionFactory(unsigned seconds);

}  // namespace net

#endif  // TALVIX_NET_TIMED_CONNECTION_H_
