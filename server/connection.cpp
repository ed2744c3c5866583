#include "server/connection.h"

#include <chrono>
#include <thread>
#include <utility>

#include "protocol/messages.h"
#include "server/handshake.h"
#include "server/reply_writer.h"
#include "server/request_handler.h"
#include "util/error.h"

namespace server {

namespace {

// How long a partly filled reverse window waits for more requests.
constexpr auto kWindowGrace = std::chrono::milliseconds(20);

// Whether `stream` becomes readable within `limit`.
bool readable_within(net::BasicIo& stream, std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    if (stream.readable()) return true;
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace

Connection::Connection(std::unique_ptr<net::SocketStream> socket,
                       std::shared_ptr<ServerShared> shared)
    : shared_(std::move(shared)), socket_(std::move(socket)) {}

Connection::~Connection() = default;

void Connection::run() {
  try {
    serve();
  } catch (const util::Exception&) {
    // The client closed, broke off or sent something undecodable.
  } catch (const std::exception&) {
    // Out of memory or the like: this connection ends, the server goes on.
  }
  closeSocket();
}

void Connection::abort() {
  aborted_ = true;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (writer_ != nullptr) writer_->abort();
  }
  closeSocket();
}

void Connection::closeSocket() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!socket_) return;
  try {
    socket_->close();
  } catch (const util::Exception&) {
    // Released either way.
  }
}

void Connection::serve() {
  net::SocketStream& socket = *socket_;
  const ServerOptions& options = shared_->options;
  const FaultOptions& faults = options.faults;
  auto send = [&](const std::string& bytes) { write_in_chunks(socket, bytes, faults.chunkSize); };

  HandshakeResult login =
      run_handshake(socket, send, *shared_->db, options.handshake, shared_->sessionIds);
  if (!login.reader) return;
  protocol::BerReader& reader = *login.reader;

  ReplyWriter writer(socket, faults, login.legacy);
  // Makes the writer reachable for abort() while it lives.
  struct Registration {
    Connection& c;
    Registration(Connection& c, ReplyWriter* w) : c(c) { set(w); }
    ~Registration() { set(nullptr); }
    void set(ReplyWriter* w) {
      std::lock_guard<std::mutex> lock(c.mutex_);
      c.writer_ = w;
    }
  } registration(*this, &writer);
  uint64_t requests = 0;
  while (!aborted_ && writer.healthy()) {
    std::unique_ptr<protocol::BerConstructed> message = reader.takeMessage();
    if (!message) {
      if (writer.windowPending() && !readable_within(socket, kWindowGrace)) writer.flushWindow();
      try {
        reader.readSome(false);
      } catch (const util::Exception&) {
        break;  // the answers already queued still go out
      }
      continue;
    }
    auto* request = dynamic_cast<protocol::Request*>(message.get());
    if (request == nullptr) {
      if (dynamic_cast<protocol::EndSession*>(message.get()) != nullptr) break;
      continue;  // nothing else a logged-in client sends is answered
    }
    const Clock::time_point due = Clock::now() + std::chrono::milliseconds(faults.delayMs);
    ++requests;
    if (shared_->options.onRequest) shared_->options.onRequest(*request);
    if (faults.closeAtRequest != 0 && requests == faults.closeAtRequest) break;
    if (faults.malformedAtRequest != 0 && requests == faults.malformedAtRequest) {
      writer.submit(malformed_reply(), due);
      continue;
    }
    writer.submit(answer_request(*shared_->db, shared_->encoder, *request, login.legacy), due);
  }
  if (aborted_) writer.abort();
  writer.finish();
}

}  // namespace server
