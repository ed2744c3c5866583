// A stand-in server for client tests: it accepts one connection on
// 127.0.0.1 and plays a script of literal octets against the client in a
// thread of its own.
//
// Every wait of the peer is bounded by a limit of ten seconds. When
// the limit passes, the peer records a complaint and closes the connection,
// so a client that waits for an answer fails with a read error instead of
// hanging. The connection is also closed when the script returns. The
// complaints are reported as test failures when the peer is destroyed, so a
// test declares the peer before the session that talks to it.
#ifndef TALVIX_TESTS_SUPPORT_SCRIPTED_PEER_H_
#define TALVIX_TESTS_SUPPORT_SCRIPTED_PEER_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/session.h"
#include "net/socket_stream.h"
#include "support/ber_streams.h"
#include "support/error_text.h"

namespace support {

// Hand-made encodings (indefinite form) for building answers in tests.
// A Response with `id` and `body` (one alternative of its choice).
Octets response(int32_t id, const Octets& body);
// A SelectResp body with the concatenated `objects`.
Octets selectResp(const Octets& objects);
// An Object with the concatenated `properties` and `children`.
Octets object(const std::string& className, uint32_t flags, const std::string& id,
             const Octets& properties, const Octets& children = Octets());
// A String property (type word 6) and a property of type word `type` with
// the null value.
Octets stringProperty(const std::string& name, const std::string& value);
Octets nullProperty(const std::string& name, uint32_t type);

// The peer's end of the connection, handed to the script. A failed read or
// send, or the time limit, is a complaint and abandons the script.
class PeerLink {
 public:
  // Reads bytes.size() octets and complains, naming `what`, when they differ.
  void expect(const Octets& bytes, const std::string& what);
  // Waits until the client closes the connection; complains about any octet
  // it sends before that.
  void expectEnd(const std::string& what);
  void send(const Octets& bytes);

 private:
  friend class ScriptedPeer;
  PeerLink(int fd, std::chrono::steady_clock::time_point deadline,
           std::vector<std::string>& complaints)
      : fd_(fd), stream_(std::make_unique<net::SocketStream>(fd)), deadline_(deadline),
        complaints_(complaints) {}
  [[noreturn]] void abandon(const std::string& complaint);
  // Appends what one read delivers to pending_; false at the end of the
  // stream when `endAllowed`, else the end is a complaint.
  bool fill(bool endAllowed = false);

  int fd_;  // of stream_
  std::unique_ptr<net::SocketStream> stream_;
  std::chrono::steady_clock::time_point deadline_;
  std::vector<std::string>& complaints_;
  Octets pending_;
};

class ScriptedPeer {
 public:
  using Script = std::function<void(PeerLink&)>;

  // Starts listening and runs `script` on the first connection, all within
  // ten seconds.
  explicit ScriptedPeer(Script script);
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;
  // Waits for the script and reports its complaints as test failures.
  ~ScriptedPeer();

  uint16_t port() const { return port_; }

 private:
  uint16_t port_ = 0;
  int listenFd_;
  std::vector<std::string> complaints_;  // written by the thread only until it is joined
  std::thread thread_;
};

// The octets a client sends to open a session: ClientWants for version
// 0x0203 without authentication, and the NewSession of openTestSession().
Octets clientWants();
Octets testLogin();

// A script that logs the client in under session id 4096 (root domain
// "root", MIB root "mib"), expects `requests`, sends `answers` and then
// expects the client to close the connection.
ScriptedPeer::Script loginThen(const Octets& requests, const Octets& answers);

// Opens a session to the peer on 127.0.0.1 as user "admin" of domain "lab"
// with password "secret" and client name "Exporter".
std::unique_ptr<client::Session> openTestSession(uint16_t port);

}  // namespace support


#endif  // TALVIX_TESTS_SUPPORT_SCRIPTED_PEER_H_
