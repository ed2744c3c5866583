// A stand-in server for client tests: it accepts one connection on
// 127.0.0.1 and plays a script of literal octets against the client in a
// thread of its own.
//
// Every wait of the peer is bounded by the limit given at construction. When
// the limit passes, the peer records a complaint and closes the connection,
// so a client that waits for an answer fails with a read error instead of
// hanging. The connection is also closed when the script returns.
#ifndef TALVIX_TESTS_SUPPORT_SCRIPTED_PEER_H_
#define TALVIX_TESTS_SUPPORT_SCRIPTED_PEER_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "net/listener.h"

class Session;

namespace peer {

// Octets are kept in a std::string.
using Bytes = std::string;

// The octets written as hex pairs, e.g. "61 80 02"; spaces and commas are
// ignored. Any other text is a test failure.
Bytes hex(std::string_view text);
// "61 80 02" for the octets 61 80 02.
std::string toHex(const Bytes& bytes);

// Hand-made encodings for building answers in tests, in the current encoding.
// A length octet (short or long form) for `length`.
Bytes berLength(size_t length);
// INTEGER with the minimal two's-complement content of `value`.
Bytes berInt(int64_t value);
// INTEGER with the magnitude of `value` (no sign octet), as big numbers go.
Bytes berMagnitude(uint32_t value);
// OCTET STRING 04 with `text`.
Bytes berString(const std::string& text);
// A constructed value in the indefinite form: `identifier` 80 `content` 00 00.
Bytes berIndefinite(std::string_view identifierHex, const Bytes& content);

// Answers and their parts, in the current encoding.
// A Response with `id` and `body` (one alternative of its choice, e.g.
// berIndefinite("A0", ...) for a SelectResp).
Bytes response(int32_t id, const Bytes& body);
// A SelectResp body with the concatenated `objects`.
Bytes selectResp(const Bytes& objects);
// An ErrorResp body with `code` and `texts`.
Bytes errorResp(int32_t code, const std::vector<std::string>& texts);
// An Object with the concatenated `properties` and `children`.
Bytes object(const std::string& className, uint32_t flags, const std::string& id,
             const Bytes& properties, const Bytes& children = Bytes());
// A String property (type word 6) and a property of type word `type` with
// the null value.
Bytes stringProperty(const std::string& name, const std::string& value);
Bytes nullProperty(const std::string& name, uint32_t type);

// The peer's end of the connection, handed to the script.
class PeerLink {
 public:
  // Reads exactly bytes.size() octets and complains, naming `what`, when
  // they differ from `bytes`. Returns whether they matched.
  bool expect(const Bytes& bytes, const std::string& what);
  // Reads one complete top-level BER value sent by the client.
  Bytes readMessage();
  // Waits until the client closes the connection; complains about any octet
  // it sends before that.
  void expectEnd(const std::string& what);
  // Sends the octets as they are.
  void send(const Bytes& bytes);
  // Closes the connection; later reads and sends are complaints.
  void close();
  // Records a failure of the client's side of the conversation.
  void complain(const std::string& text);

 private:
  friend class ScriptedPeer;
  PeerLink(std::unique_ptr<old_protocol::SocketStream> stream,
           std::chrono::steady_clock::time_point deadline, std::vector<std::string>* complaints,
           std::mutex* mutex);
  uint8_t nextOctet(Bytes* out);
  bool readValue(Bytes* out, int depth);
  // Appends what one read delivers to pending_; false at the end of the
  // stream when `endAllowed`, else the end is a complaint.
  bool fill(bool endAllowed = false);

  std::unique_ptr<old_protocol::SocketStream> stream_;
  std::chrono::steady_clock::time_point deadline_;
  std::vector<std::string>* complaints_;
  std::mutex* mutex_;
  Bytes pending_;
  size_t cursor_ = 0;
};

class ScriptedPeer {
 public:
  using Script = std::function<void(PeerLink&)>;

  // Starts listening and runs `script` on the first connection, all within
  // `limit`.
  explicit ScriptedPeer(Script script,
                        std::chrono::milliseconds limit = std::chrono::seconds(10));
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;
  // Waits for the script; complaints that finish() has not returned are
  // reported as test failures (e.g. when the test left by an exception).
  ~ScriptedPeer();

  uint16_t port() const { return listener_.port(); }

  // Waits for the script to end (at most the limit) and returns its
  // complaints; empty when the client did all the script expected.
  std::vector<std::string> finish();

 private:
  void run(Script script);

  old_protocol::Listener listener_;
  std::chrono::steady_clock::time_point deadline_;
  std::mutex mutex_;
  std::vector<std::string> complaints_;
  bool reported_ = false;
  std::thread thread_;
};

// The octets a client sends to open a session: ClientWants for version
// 0x0203 without authentication.
Bytes clientWants();
// A NewSessionResp with the given session id, root domain id and MIB root id.
Bytes newSessionResp(uint32_t sessionId, const std::string& rootDomainId,
                     const std::string& mibRootId);
// The server side of a successful login: checks ClientWants, offers 0x0203
// without authentication, checks NegotiateAck, takes NewSession and answers
// with newSessionResp(sessionId, "root", "mib"). Returns NewSession's octets.
Bytes acceptLogin(PeerLink& link, uint32_t sessionId);

// A session id no other test of the process has used, so that request ids
// start at 0.
uint32_t freshSessionId();

// Opens a session to the peer on 127.0.0.1 as user "admin" of domain "lab"
// with password "secret" and client name "Exporter".
std::unique_ptr<Session> openTestSession(uint16_t port);

}  // namespace peer

#endif  // TALVIX_TESTS_SUPPORT_SCRIPTED_PEER_H_
