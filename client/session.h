// The logged-in client session and the login handshake that opens it.
//
// openSession() connects to the server, negotiates the protocol version,
// logs in and returns the Session through which every request travels
// (client/request.h). The session is never ended by a message: the
// connection closes when the Session is destroyed. With a ReconnectPolicy
// that allows tries, a session survives lost connections: it logs in again
// and sends once more every request still outstanding, with its old id.
#ifndef TALVIX_CLIENT_SESSION_H_
#define TALVIX_CLIENT_SESSION_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "client/login.h"
#include "client/reconnect.h"
#include "net/connection.h"
#include "util/bignum.h"

namespace net {
class BasicIo;
}
namespace protocol {
class BerConstructed;
class BerReader;
}

namespace client {

class Request;

class Session {
 public:
  // Takes over the connection of `loggedIn` and switches on its reader's
  // keyed failures (protocol/ber_reader.h): a Response that fails to decode
  // once its id is known fails its own request. With a `reconnector`, lost
  // connections are replaced through it (recover()).
  explicit Session(LoggedIn loggedIn, std::unique_ptr<Reconnector> reconnector = nullptr);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  // The reader decodes everything the server sends and writes our messages.
  protocol::BerReader& reader() { return *reader_; }
  // The connection below the reader; owned by the reader.
  net::BasicIo& connection() { return *connection_; }

  // The first login's answer; a later login must give the same root objects.
  const util::BigNum sessionId;
  const std::string rootDomainId;  // start of the domain lookups
  const std::string mibRootId;     // start object of the MIB query

  // The outstanding requests, kept by client::send and client::forget
  // only: both tables hold exactly the same requests.
  std::map<int32_t, std::shared_ptr<Request>> requestsById;
  std::unordered_map<const Request*, int32_t> idsByRequest;

  // Called by processResponse() before it waits for the server (no complete
  // message queued), e.g. to show output held back until then; may be empty.
  // What it raises passes out of processResponse().
  std::function<void()> beforeWait;

  // The id for the next request sent through this Session: 0, 1, 2, ... in
  // the order of client::send, each Session counting on its own.
  int32_t takeRequestId() { return static_cast<int32_t>(nextRequestId_++); }
  // The requests sent so far (a request sent again after a new login counts
  // once).
  uint32_t requestsSent() const { return nextRequestId_; }
  // The lost connections replaced by a new login so far.
  uint32_t reconnections() const { return reconnections_; }

  // Whether the objects among the children of the objects in an answer keep
  // their properties (true unless switched off): without them, each is
  // decoded and checked, so that it fails its answer as ever, and freed at
  // once (protocol::Decoding). Applies to the answers read from now on, on
  // this connection and every later one.
  void keepNestedProperties(bool keep);

  // Whether lost connections are replaced; then client::send keeps each
  // request's body (keep_body) until forget() drops it.
  bool reconnects() const { return reconnector_ != nullptr; }
  void keep_body(int32_t id, std::unique_ptr<protocol::BerConstructed> body);
  void drop_body(int32_t id);

  // Called with the transport failure (util::ESystemError) that ended the
  // connection. Without a reconnector the failure is rethrown. Otherwise the
  // session logs in again and sends every outstanding request once more, in
  // the order of their ids, on the new connection; the Reconnector's
  // failures pass out (the one that began the row of tries when none is
  // left). A later login with other root objects raises util::EConnectError.
  // After a new login, references to the old reader() and connection() are
  // invalid; when recover() throws, the old ones stay.
  void recover(std::exception_ptr lost);
  // An outstanding request was answered (resets the count of tries).
  void answered() {
    if (reconnector_ != nullptr) reconnector_->answered();
  }

 private:
  void adopt(LoggedIn loggedIn);

  std::unique_ptr<protocol::BerReader> reader_;
  net::BasicIo* connection_ = nullptr;
  uint32_t nextRequestId_ = 0;
  uint32_t reconnections_ = 0;
  bool nestedProperties_ = true;
  std::unique_ptr<Reconnector> reconnector_;
  // The bodies of the outstanding requests, kept only when reconnecting.
  std::map<int32_t, std::unique_ptr<protocol::BerConstructed>> bodies_;
};

// Connects through `factory` and logs in (client::log_in) as `login` says.
// Transport failures of the first connection are retried as `policy` allows,
// and so are later lost connections (Session::recover). The caller owns the
// returned session. Failures are log_in()'s.
std::unique_ptr<Session> openSession(const net::ConnectionFactory& factory, const Login& login,
                                     const ReconnectPolicy& policy = ReconnectPolicy());

}  // namespace client

#endif  // TALVIX_CLIENT_SESSION_H_
