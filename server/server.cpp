#include "server/server.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include "server/connection.h"
#include "util/error.h"

namespace server {

// A connection and the thread that serves it.
struct Server::Running {
  std::shared_ptr<Connection> connection;
  std::thread thread;
  std::atomic<bool> done{false};
};

Server::Server(std::shared_ptr<const Database> db, const ServerOptions& options)
    : listener_(options.port, 16, options.listen), shared_(std::make_shared<ServerShared>()) {
  shared_->db = std::move(db);
  shared_->options = options;
}

Server::~Server() { stop(); }

void Server::start() {
  if (acceptor_.joinable() || stopping_) return;
  acceptor_ = std::thread([this] { acceptLoop(); });
}

void Server::stop() {
  stopping_ = true;
  if (acceptor_.joinable()) acceptor_.join();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& r : running_) r->connection->abort();
  }
  reap(true);
}

void Server::acceptLoop() {
  while (!stopping_) {
    std::unique_ptr<net::SocketStream> socket;
    try {
      socket = listener_.accept(50);
    } catch (const util::Exception& e) {
      // Out of descriptors or the like: try again a little later.
      std::fprintf(stderr, "talvix-server: %s\n", e.text().c_str());
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    reap(false);
    if (!socket) continue;
    const uint64_t number = ++accepted_;
    // A server that went away: the socket closes as it goes.
    if (number > 1 && shared_->options.faults.goneAfterFirst) continue;
    auto running = std::make_unique<Running>();
    running->connection = std::make_shared<Connection>(std::move(socket), shared_, number);
    Running* r = running.get();
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) break;  // `running` goes, closing the socket unserved
    r->thread = std::thread([r] {
      r->connection->run();
      r->done = true;
    });
    running_.push_back(std::move(running));
  }
}

void Server::reap(bool all) {
  std::list<std::unique_ptr<Running>> finished;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = running_.begin(); it != running_.end();) {
      if (all || (*it)->done) {
        finished.push_back(std::move(*it));
        it = running_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& r : finished) r->thread.join();
}

}  // namespace server
