// The login handshake: connect, negotiate the protocol version, log in.
#ifndef TALVIX_CLIENT_LOGIN_H_
#define TALVIX_CLIENT_LOGIN_H_

#include <cstdint>
#include <memory>
#include <string>

#include "net/connection.h"
#include "util/bignum.h"

namespace protocol {
class BerReader;
}

namespace client {

// The version the client asks for: major 2 in the high octet, minor 3.
constexpr int32_t PROTOCOL_VERSION = 515;

// Where and as whom to log in. Every copy wipes its password when it is
// destroyed, so a Login kept for logging in again holds the only copy that
// outlives the command line.
struct Login {
  std::string host;
  uint32_t port = 0;
  std::string clientName;
  std::string user;
  std::string password;
  std::string loginDomain;

  Login() = default;
  Login(std::string host, uint32_t port, std::string clientName, std::string user,
        std::string password, std::string loginDomain);
  Login(const Login&) = default;
  Login& operator=(const Login&) = default;
  ~Login();
};

// A connection that has logged in: its reader and the server's answer.
struct LoggedIn {
  std::unique_ptr<protocol::BerReader> reader;  // owns the connection
  util::BigNum sessionId;
  std::string rootDomainId;
  std::string mibRootId;
};

// Connects through `factory` to login.host:login.port, negotiates and logs in.
//
// Refusals raise util::EConnectError: "Server rejected us: " + the server's
// reason, "Protocol error: Wrong type", "Server does not support our version
// of the protocol", and "Wrong username / password" for any failure from
// sending the login to receiving its answer. Transport and decoding errors
// before the login pass out unchanged (util::ESystemError, protocol::EBer).
LoggedIn log_in(const net::ConnectionFactory& factory, const Login& login);

}  // namespace client

#endif  // TALVIX_CLIENT_LOGIN_H_
