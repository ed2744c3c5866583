// Requests to the server and the pipeline of a Session that carries them.
//
// Every question to the server is an object derived from client::Request.
// send() gives it the next id of its session, wraps its body in a
// protocol::Request message and writes it; processResponse() reads one
// protocol::Response, matches it to the outstanding request by id and lets
// that request decode it. Any number of requests may be outstanding at once
// and answers may arrive in any order; each answer costs O(log n) in the
// number of outstanding requests.
//
// Lifetime: requests are shared through std::shared_ptr. The creator holds one
// reference; send() stores another in the session's tables until forget()
// removes it. A request therefore lives until both have let go.
//
// All of this is single-threaded: a Session and its requests must be used
// from one thread.
#ifndef TALVIX_CLIENT_REQUEST_H_
#define TALVIX_CLIENT_REQUEST_H_

#include <cstdint>
#include <memory>
#include <string>

namespace protocol {
class BerConstructed;
}

namespace client {

class Session;

class Request {
 public:
  // Values of `state`.
  static constexpr uint32_t kCreated = 0;
  static constexpr uint32_t kSent = 1;
  static constexpr uint32_t kAnswered = 2;

  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;
  virtual ~Request();

  // A text describing the request for messages; "Unknown request" here.
  virtual std::string name() const;
  // The body to send inside protocol::Request (one alternative of its `req`
  // choice). The caller owns the result.
  virtual std::unique_ptr<protocol::BerConstructed> makeBody() = 0;
  // Takes the body of the answering protocol::Response (null when the
  // response carried none) and stores the outcome. May move content out of
  // `body`. Raises util::EBerError for a body of a type it does not expect.
  virtual void decode(protocol::BerConstructed* body) = 0;
  // Called right after a successful decode().
  virtual void done(Session& session) = 0;

  // kCreated, then kSent by send(), then kAnswered by processResponse().
  uint32_t state = kCreated;
  // The server's error code, 0 after a successful answer; meaningful once
  // `state` is kAnswered.
  uint32_t error = 0;

 protected:
  Request() = default;
};

// Issues `request`: takes the session's next request id, enters the request
// into the session's tables (keeping a reference to it) and writes it through
// the session's reader, held back (BerReader::queue): requests sent before the
// next wait for an answer reach the server together. Encoding errors, and
// transport errors of a buffer that fills, pass out unchanged; the request
// then stays in the tables. Other transport errors of the request show when
// the reader next reads.
void send(Session& session, const std::shared_ptr<Request>& request);

// Dispatches answers until `request` is answered or no longer outstanding and
// returns its `error` (0 = success). A request that is not outstanding
// returns at once. Blocks without a time limit. The caller must hold its own
// reference to `request` while it waits. Errors of processResponse() pass out.
uint32_t await(Session& session, Request& request);

// Removes `request` from the session's tables and drops the reference that
// send() took; the request is destroyed if that was the last one. Nothing is
// sent to the server. Forgetting a request that is not outstanding is a
// broken invariant and aborts the process.
void forget(Session& session, Request& request);

// Reads one message, waiting as long as it takes (after calling the session's
// beforeWait when no message is queued), and dispatches it. Returns
// the request it answered, or nullptr when its id is not outstanding (the
// answer is dropped). Raises util::EBerError "Wrong type. Expected Response"
// for any other message; errors of the request's decode() pass out, leaving
// the request outstanding with `state` kAnswered and done() not called. A
// Response that fails to decode after its id is treated alike: its failure
// passes out and its request is left kAnswered. Failures before the id are
// the reader's and pass out with no request answered.
std::shared_ptr<Request> processResponse(Session& session);

}  // namespace client

#endif  // TALVIX_CLIENT_REQUEST_H_
