// A byte stream over one connected TCP socket.
//
// SocketStream owns the descriptor and waits with poll() for it to become
// ready, for at most a limit per wait when one is given: a read must see data
// (or the end of the stream) within it, a write must make progress within
// it. A transfer that keeps moving never expires, however long it takes.
// The client's connection (connect_socket()) and the loopback listener's
// accepted connections are both such streams.
#ifndef TALVIX_NET_SOCKET_STREAM_H_
#define TALVIX_NET_SOCKET_STREAM_H_

#include <cstdint>
#include <string>

#include "net/basic_io.h"

namespace net {

class SocketStream : public BasicIo {
 public:
  // Takes ownership of the connected descriptor `fd`. `seconds`: the limit
  // of each wait (0: none); `server`: "<host>:<port>", named by the texts of
  // an expired wait.
  explicit SocketStream(int fd, unsigned seconds = 0, std::string server = {});
  SocketStream(const SocketStream&) = delete;
  SocketStream& operator=(const SocketStream&) = delete;
  // Closes the socket if close() has not. A failure to close cannot be raised
  // from here (it might end the program while another exception propagates),
  // so it is dropped; a caller that must know calls close() first.
  ~SocketStream() override;

  // Sends all bytes (a length of 0 makes one empty send). Never raises
  // SIGPIPE. Failures: "Error writing to socket: Bad error without sleep
  // happened in socket_send(): <system text> (<code>)", and when the limit
  // passes without progress "Server <server> took no data within <N> seconds".
  void write(const void* data, size_t length) override;
  // Nothing is buffered at this level; never fails.
  void flush() override;
  // A capacity of 0 returns 0 without touching the socket. Otherwise returns
  // what one receive delivered (at least one byte) as soon as anything has
  // arrived. Failures: "Error reading from socket: Bad error happened without
  // sleep in socket_recv(): <system text> (<code>)", the fixed text "Error
  // reading: OsalSocket::read end of stream" when the peer has closed, and
  // "No answer from server <server> within <N> seconds" past the limit.
  uint64_t read(void* buffer, uint64_t capacity) override;
  // An immediate poll: whether a read would not block.
  bool readable() override;

  // Closes the socket now; failure: "Error closing socket: <system text>
  // (<code>)". The descriptor is released either way, and later calls fail
  // with the system's texts. Closing a closed stream does nothing.
  void close();

  // For a layer that speaks over the descriptor itself (TLS): the
  // descriptor, valid while the stream is open.
  int descriptor() const { return fd_; }
  // Waits for `events` (POLLIN or POLLOUT) under the limit. When it passes
  // first, raises the text of an expired read or write, or with `connecting`
  // "Could not connect to server <server> within <N> seconds"; a failed wait
  // raises the prefix of a read or a write + "Bad error happened in poll(): "
  // + the system's text.
  void wait(short events, bool connecting = false) const;

 private:

  int fd_;
  const unsigned seconds_;
  const std::string server_;
};

}  // namespace net

#endif  // TALVIX_NET_SOCKET_STREAM_H_
