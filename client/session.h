// The logged-in client session and the login handshake that opens it.
//
// openSession() connects to the server, negotiates the protocol version,
// logs in and returns the Session through which every request travels
// (client/request.h). The session is never ended by a message: the
// connection closes when the Session is destroyed.
#ifndef TALVIX_CLIENT_SESSION_H_
#define TALVIX_CLIENT_SESSION_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "net/connection.h"
#include "util/bignum.h"

namespace net {
class BasicIo;
}
namespace protocol {
class BerReader;
}

namespace client {

class Request;

// The version the client asks for: major 2 in the high octet, minor 3.
constexpr int32_t PROTOCOL_VERSION = 515;

class Session {
 public:
  // Takes over `reader`, which owns the connection, and switches on its keyed
  // failures (protocol/ber_reader.h): a Response that fails to decode once its
  // id is known fails its own request.
  Session(std::unique_ptr<protocol::BerReader> reader, util::BigNum sessionId,
          std::string rootDomainId, std::string mibRootId);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  // The reader decodes everything the server sends and writes our messages.
  protocol::BerReader& reader() { return *reader_; }
  // The connection below the reader; owned by the reader.
  net::BasicIo& connection() { return *connection_; }

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

 private:
  std::unique_ptr<protocol::BerReader> reader_;
  net::BasicIo* connection_;
  uint32_t nextRequestId_ = 0;
};

// Connects through `factory` to host:port and logs in as `user` of
// `loginDomain`. The caller owns the returned session.
//
// Refusals raise util::EConnectError: "Server rejected us: " + the server's
// reason, "Protocol error: Wrong type", "Server does not support our version
// of the protocol", and "Wrong username / password" for any failure from
// sending the login to receiving its answer. Transport and decoding errors
// before the login pass out unchanged (util::ESystemError, protocol::EBer).
std::unique_ptr<Session> openSession(const net::ConnectionFactory& factory, const std::string& host,
                                     uint32_t port, const std::string& clientName,
                                     const std::string& user, const std::string& password,
                                     const std::string& loginDomain);

}  // namespace client

#endif  // TALVIX_CLIENT_SESSION_H_
