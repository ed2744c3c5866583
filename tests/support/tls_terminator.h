// A TLS terminator in front of a server on the loopback interface: a
// throwaway certificate authority with server and client certificates, made
// with the openssl command in a temporary directory, and stunnel accepting
// TLS on free loopback ports and forwarding in clear to the server.
#ifndef TALVIX_TESTS_SUPPORT_TLS_TERMINATOR_H_
#define TALVIX_TESTS_SUPPORT_TLS_TERMINATOR_H_

#include <cstdint>
#include <memory>
#include <string>

#include "support/process.h"

namespace support {

class TlsTerminator {
 public:
  // Makes the certificates and starts stunnel for 127.0.0.1:`serverPort`;
  // returns once both of its ports accept connections. Throws
  // std::runtime_error when the openssl command or stunnel fails (within
  // 20 seconds). The server certificate is valid for 127.0.0.1 and
  // localhost. Nothing listens beyond 127.0.0.1. stunnel stops, and the
  // files go, with the object.
  explicit TlsTerminator(uint16_t serverPort);

  // TLS without a client certificate.
  uint16_t port() const { return port_; }
  // TLS that demands a client certificate issued by the CA.
  uint16_t mutualPort() const { return mutualPort_; }
  // ca.pem (the issuer), other-ca.pem (a CA that issued nothing here),
  // client.pem and client.key (mode 0600).
  std::string file(const std::string& name) const { return dir_.file(name); }

 private:
  TempDir dir_;
  uint16_t port_ = 0;
  uint16_t mutualPort_ = 0;
  std::unique_ptr<ServerProcess> stunnel_;
};

}  // namespace support

#endif  // TALVIX_TESTS_SUPPORT_TLS_TERMINATOR_H_
