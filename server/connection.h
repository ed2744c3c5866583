// One accepted client connection, served from handshake to close.
#ifndef TALVIX_SERVER_CONNECTION_H_
#define TALVIX_SERVER_CONNECTION_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "net/socket_stream.h"
#include "server/database.h"
#include "server/object_cache.h"
#include "server/reply_writer.h"
#include "server/server_options.h"

namespace server {

// What all connections of one server share. The database and the object cache
// are thread-safe.
struct ServerShared {
  std::shared_ptr<const Database> db;
  ServerOptions options;
  ObjectCache objects;
  std::atomic<uint32_t> sessionIds{0};
};

class Connection {
 public:
  // `number`: the connection's place in the order of acceptance, from 1.
  Connection(std::unique_ptr<net::SocketStream> socket, std::shared_ptr<ServerShared> shared,
             uint64_t number);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  // Serves the connection on the calling thread until the client closes it,
  // sends something undecodable, fails to log in or hits a close fault, or
  // until abort(). Never throws; the socket is closed on return.
  void run();

  // From any thread: closes the socket so that run() returns soon.
  void abort();

 private:
  void serve();
  void closeSocket();

  std::shared_ptr<ServerShared> shared_;
  const uint64_t number_;
  std::mutex mutex_;  // guards socket_ and writer_ against abort() from another thread
  std::unique_ptr<net::SocketStream> socket_;
  ReplyWriter* writer_ = nullptr;  // while requests are served
  std::atomic<bool> aborted_{false};
};

}  // namespace server

#endif  // TALVIX_SERVER_CONNECTION_H_
