#include "support/tls_terminator.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

#include "net/listener.h"

namespace support {

namespace {

const auto kLimit = std::chrono::seconds(20);

// Runs the openssl command with `args` in `dir`.
void openssl(const TempDir& dir, std::vector<std::string> args) {
  const RunResult run = run_process("/usr/bin/openssl", args, dir.path(), kLimit);
  if (run.exitCode != 0) throw std::runtime_error("openssl " + args.at(0) + " failed: " + run.err);
}

// A P-256 key `name`.key and its certificate `name`.pem for `subject`,
// issued by ca.pem (self-signed when `issuer` is false) with the extension
// `extension`.
void certificate(const TempDir& dir, const std::string& name, const std::string& subject,
                 bool issued, const std::string& extension) {
  std::vector<std::string> args = {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                                   "-nodes", "-days", "2", "-subj", "/CN=" + subject, "-keyout",
                                   name + ".key", "-out", name + ".pem", "-addext", extension};
  if (issued) args.insert(args.end(), {"-CA", "ca.pem", "-CAkey", "ca.key"});
  openssl(dir, args);
}

// A port that was free a moment ago (stunnel cannot be told to pick one).
uint16_t free_port() { return net::Listener().port(); }

}  // namespace

TlsTerminator::TlsTerminator(uint16_t serverPort) {
  certificate(dir_, "ca", "Throwaway CA", false, "keyUsage=critical,keyCertSign");
  certificate(dir_, "other-ca", "Other CA", false, "keyUsage=critical,keyCertSign");
  certificate(dir_, "server", "localhost", true, "subjectAltName=IP:127.0.0.1,DNS:localhost");
  certificate(dir_, "client", "exporter", true, "basicConstraints=critical,CA:FALSE");
  port_ = free_port();
  mutualPort_ = free_port();
  const std::string service = "connect = 127.0.0.1:" + std::to_string(serverPort) +
                              "\ncert = server.pem\nkey = server.key\n";
  write_file(dir_.file("stunnel.conf"),
             "foreground = yes\npid =\ndebug = 6\n"
             "[tls]\naccept = 127.0.0.1:" + std::to_string(port_) + "\n" + service +
             "[mutual]\naccept = 127.0.0.1:" + std::to_string(mutualPort_) + "\n" + service +
             "CAfile = ca.pem\nverifyChain = yes\nrequireCert = yes\n");

  int errPipe[2];
  if (pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const std::string binary = access("/usr/bin/stunnel4", X_OK) == 0 ? "/usr/bin/stunnel4" : "/usr/bin/stunnel";
  const std::string& dir = dir_.path();
  stunnel_ = std::make_unique<Child>([&] {
    if (dup2(errPipe[1], 2) < 0 || chdir(dir.c_str()) != 0) _exit(126);
    execl(binary.c_str(), binary.c_str(), "stunnel.conf", static_cast<char*>(nullptr));
    _exit(127);
  });
  close(errPipe[1]);
  logFd_ = errPipe[0];
  // Each service reports on its error stream once it is bound to its port.
  const Clock::time_point deadline = Clock::now() + kLimit;
  std::string log;
  auto bound = [&log](uint16_t port) {
    return log.find("bound to 127.0.0.1:" + std::to_string(port) + "\n") != std::string::npos;
  };
  while (!(bound(port_) && bound(mutualPort_))) {
    if (!wait_readable(logFd_, deadline) || read_once(logFd_, log) == 0) {
      close(logFd_);
      throw std::runtime_error("stunnel did not start: " + log);
    }
  }
}

TlsTerminator::~TlsTerminator() {
  stunnel_->stop(SIGTERM, std::chrono::seconds(10));
  close(logFd_);
}

}  // namespace support
