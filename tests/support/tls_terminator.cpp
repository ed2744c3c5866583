#include "support/tls_terminator.h"

#include <stdexcept>

#include "net/listener.h"

namespace support {

namespace {

const auto kLimit = std::chrono::seconds(20);

// The CA (ca.pem, self-signed), another one that issued nothing here, and the
// certificates the CA issued to the server and the client, all with P-256 keys.
const char kMakeCertificates[] =
    "set -e; req='openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2'\n"
    "$req -subj /CN=CA -keyout ca.key -out ca.pem\n"
    "$req -subj /CN=Other -keyout other-ca.key -out other-ca.pem\n"
    "issued='-CA ca.pem -CAkey ca.key -addext'\n"
    "$req -subj /CN=localhost $issued subjectAltName=IP:127.0.0.1,DNS:localhost -keyout server.key -out server.pem\n"
    "$req -subj /CN=exporter $issued basicConstraints=critical,CA:FALSE -keyout client.key -out client.pem\n";

}  // namespace

// stunnel cannot be told to pick a free port: it gets ports that were free a moment ago.
TlsTerminator::TlsTerminator(uint16_t serverPort)
    : port_(net::Listener().port()), mutualPort_(net::Listener().port()) {
  const RunResult made = run_process("/bin/sh", {"-c", kMakeCertificates}, dir_.path(), kLimit);
  if (made.exitCode != 0) throw std::runtime_error("openssl failed: " + made.err);
  const std::string service = "connect = 127.0.0.1:" + std::to_string(serverPort) + "\ncert = server.pem\nkey = server.key\n";
  write_file(dir_.file("stunnel.conf"),
             "foreground = yes\npid =\ndebug = 6\n[tls]\naccept = 127.0.0.1:" + std::to_string(port_) + "\n" +
                 service + "[mutual]\naccept = 127.0.0.1:" + std::to_string(mutualPort_) + "\n" + service +
                 "CAfile = ca.pem\nverifyChain = yes\nrequireCert = yes\n");
  // stunnel logs each service once it is bound to its port.
  auto bound = [this](const std::string& log) {
    return log.find("bound to 127.0.0.1:" + std::to_string(port_) + "\n") != std::string::npos &&
           log.find("bound to 127.0.0.1:" + std::to_string(mutualPort_) + "\n") != std::string::npos;
  };
  stunnel_ = std::make_unique<ServerProcess>("/bin/sh", std::vector<std::string>{"-c", "exec /usr/bin/stunnel4 stunnel.conf 2>&1"},
                                             dir_.path(), bound);
}

}  // namespace support
