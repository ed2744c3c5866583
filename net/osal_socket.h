// Byte streams over one connected TCP socket.
//
// SocketStream owns a connected socket and turns the socket layer's failure
// texts into util::ESystemError. OsalSocket is the stream the client opens to
// the server; the loopback listener hands out SocketStreams for the sockets it
// accepts.
#ifndef TALVIX_NET_OSAL_SOCKET_H_
#define TALVIX_NET_OSAL_SOCKET_H_

#include <cstdint>
#include <string>

#include "net/basic_io.h"
#include "net/socket.h"

namespace net {

class SocketStream : public BasicIo {
 public:
  // Takes ownership of the connected socket `sock`.
  explicit SocketStream(socket_t sock) : sock_(sock) {}
  SocketStream(const SocketStream&) = delete;
  SocketStream& operator=(const SocketStream&) = delete;
  // Closes the socket if close() has not. A failure to close cannot be raised
  // from here (it might end the program while another exception propagates),
  // so it is dropped; a caller that must know calls close() first.
  ~SocketStream() override;

  // Sends all bytes; failure: "Error writing to socket: " + the socket text.
  void write(const void* data, size_t length) override;
  // Nothing is buffered at this level; never fails.
  void flush() override;
  // A capacity of 0 returns 0 without touching the socket. Otherwise one
  // receive, returning what it delivered (at least one byte). Failures:
  // "Error reading from socket: " + the socket text, and the fixed text
  // "Error reading: OsalSocket::read end of stream" when the peer has closed.
  uint64_t read(void* buffer, uint64_t capacity) override;
  // An immediate poll: whether a read would not block.
  bool readable() override;

  // Closes the socket now; failure: "Error closing socket: " + the socket
  // text. The stream is closed afterwards either way (the descriptor is
  // released), and later calls on it fail with the system's texts. Closing a
  // closed stream does nothing.
  void close();

 private:
  socket_t sock_;
};

// The client's connection to the server: blocking, with Nagle's algorithm on.
class OsalSocket : public SocketStream {
 public:
  // Resolves `host` and connects to it at `port`. Raises util::ESystemError
  // with the socket layer's text alone for a failed lookup or connect. A
  // constructed OsalSocket is connected.
  OsalSocket(const std::string& host, uint16_t port);
};

}  // namespace net

#endif  // TALVIX_NET_OSAL_SOCKET_H_
