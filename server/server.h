// The stand-in monitoring server: a loopback listener whose connections are
// each served by a thread of their own.
//
// Typical use in a test:
//   server::Server s(database, options);   // listening from here on
//   s.start();
//   ... connect to 127.0.0.1:s.port() ...
//   s.stop();                              // or let the destructor do it
#ifndef TALVIX_SERVER_SERVER_H_
#define TALVIX_SERVER_SERVER_H_

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "net/listener.h"
#include "server/database.h"
#include "server/server_options.h"

namespace server {

class Connection;
struct ServerShared;

class Server {
 public:
  // Listens on options.listen at options.port (0: a free port). The database is
  // shared with the connections. Throws util::ESystemError when the port
  // cannot be listened on.
  Server(std::shared_ptr<const Database> db, const ServerOptions& options);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  // stop().
  ~Server();

  uint16_t port() const { return listener_.port(); }

  // Starts accepting connections in a thread of its own. Once only.
  void start();
  // Stops accepting, ends every open connection (closing its socket without
  // sending what it still owed) and waits for all threads. Idempotent.
  void stop();

 private:
  struct Running;
  void acceptLoop();
  void reap(bool all);

  net::Listener listener_;
  std::shared_ptr<ServerShared> shared_;
  std::atomic<bool> stopping_{false};
  std::atomic<uint64_t> accepted_{0};
  std::thread acceptor_;
  std::mutex mutex_;
  std::list<std::unique_ptr<Running>> running_;
};

}  // namespace server

#endif  // TALVIX_SERVER_SERVER_H_
