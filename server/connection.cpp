#include "server/connection.h"

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "protocol/messages.h"
#include "server/handshake.h"
#include "server/link_streams.h"
#include "server/reply_writer.h"
#include "server/request_decoder.h"
#include "server/request_handler.h"
#include "util/error.h"

namespace server {

namespace {

// How long a partly filled reverse window waits for more requests.
constexpr auto kWindowGrace = std::chrono::milliseconds(20);
// Octets asked for per read, as many as the reader asks for.
constexpr size_t kReadSize = 65536;

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
                       std::shared_ptr<ServerShared> shared, uint64_t number)
    : shared_(std::move(shared)), number_(number), socket_(std::move(socket)) {}

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

  FeedStream feed(socket);
  std::unique_ptr<protocol::BerReader> login =
      run_handshake(feed, send, *shared_->db, shared_->sessionIds);
  if (!login) return;
  protocol::BerReader& reader = *login;
  // The requests are decoded here as long as they take the fast decoder's
  // form, which needs the reader to have stopped right behind the login:
  // exactly the three messages of the handshake were read, nothing more.
  bool decodingHere = is_whole_values(feed.recorded(), 3);
  feed.stopRecording();

  ReplyWriter writer(socket, faults);
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
  const bool faulty = faults.faultConnections == 0 || number_ <= faults.faultConnections;
  // Answers `request`; false when the connection is to end.
  auto answer = [&](const protocol::Request& request) {
    const Clock::time_point due = Clock::now() + std::chrono::milliseconds(faults.delayMs);
    ++requests;
    if (shared_->options.onRequest) shared_->options.onRequest(request);
    if (faulty && faults.closeAtRequest != 0 && requests == faults.closeAtRequest) return false;
    if (faulty && faults.malformedAtRequest != 0 && requests == faults.malformedAtRequest) {
      writer.submit(malformed_reply(), due);
      return true;
    }
    writer.submit(answer_request(*shared_->db, shared_->objects, request), due);
    return true;
  };

  if (decodingHere) {
    // Each read is decoded completely before anything of it is answered, as
    // the reader does: octets the fast decoder declines go to the reader
    // (which decodes everything from then on), and when the reader refuses
    // them, nothing of that read is answered.
    const RequestDecoder decoder;
    std::string pending;  // octets read but not decoded yet: an incomplete message
    std::vector<std::unique_ptr<protocol::Request>> ready;
    auto chunk = std::make_unique<char[]>(kReadSize);
    bool ended = false;
    while (decodingHere && !aborted_ && writer.healthy()) {
      if (writer.windowPending() && !readable_within(socket, kWindowGrace)) writer.flushWindow();
      uint64_t got = 0;
      try {
        got = socket.read(chunk.get(), kReadSize);
      } catch (const util::Exception&) {
        ended = true;
        break;
      }
      pending.append(chunk.get(), static_cast<size_t>(got));
      size_t pos = 0;
      ready.clear();
      while (pos < pending.size()) {
        if (pending[pos] == '\0' || pending[pos] == '\x19') {  // ignored between messages
          ++pos;
          continue;
        }
        RequestDecoder::Result r = decoder.decode(
            reinterpret_cast<const uint8_t*>(pending.data()) + pos, pending.size() - pos);
        if (r.outcome == RequestDecoder::Outcome::kIncomplete) break;
        if (r.outcome == RequestDecoder::Outcome::kDeclined) {
          decodingHere = false;
          break;
        }
        ready.push_back(std::move(r.request));
        pos += r.length;
      }
      if (!decodingHere) {
        feed.feed(pending.data() + pos, pending.size() - pos);
        pending.clear();
        try {
          while (feed.fedPending()) reader.readSome(false);
        } catch (const util::Exception&) {
          ended = true;
          break;
        }
      } else {
        pending.erase(0, pos);
      }
      writer.hold();
      for (const auto& request : ready) {
        if (!answer(*request)) {
          ended = true;
          break;
        }
      }
      writer.release();
      if (ended) break;
    }
    if (ended) {
      if (aborted_) writer.abort();
      writer.finish();
      return;
    }
  }

  while (!aborted_ && writer.healthy()) {
    std::unique_ptr<protocol::BerConstructed> message = reader.takeMessage();
    if (!message) {
      // The answers to the messages of one read go out together.
      writer.release();
      if (writer.windowPending() && !readable_within(feed, kWindowGrace)) writer.flushWindow();
      try {
        reader.readSome(false);
      } catch (const util::Exception&) {
        break;  // the answers already queued still go out
      }
      continue;
    }
    writer.hold();
    auto* request = dynamic_cast<protocol::Request*>(message.get());
    if (request == nullptr) {
      if (dynamic_cast<protocol::EndSession*>(message.get()) != nullptr) break;
      continue;  // nothing else a logged-in client sends is answered
    }
    if (!answer(*request)) break;
  }
  if (aborted_) writer.abort();
  writer.finish();
}

}  // namespace server
