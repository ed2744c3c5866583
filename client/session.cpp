#include "client/session.h"

#include <utility>

#include "client/request.h"
#include "protocol/ber_reader.h"
#include "protocol/messages.h"
#include "util/error.h"

namespace client {

Session::Session(LoggedIn loggedIn, std::unique_ptr<Reconnector> reconnector)
    : sessionId(std::move(loggedIn.sessionId)),
      rootDomainId(std::move(loggedIn.rootDomainId)),
      mibRootId(std::move(loggedIn.mibRootId)),
      reconnector_(std::move(reconnector)) {
  adopt(std::move(loggedIn));
}

Session::~Session() = default;

void Session::adopt(LoggedIn loggedIn) {
  reader_ = std::move(loggedIn.reader);
  connection_ = reader_->lower();
  // From the login on, a Response that fails to decode once its id is known
  // answers its request (client::processResponse).
  reader_->setKeyedFailures(true);
  reader_->setNestedProperties(nestedProperties_);
}

void Session::keepNestedProperties(bool keep) {
  nestedProperties_ = keep;
  reader_->setNestedProperties(keep);
}

void Session::keep_body(int32_t id, std::unique_ptr<protocol::BerConstructed> body) {
  bodies_[id] = std::move(body);
}

void Session::drop_body(int32_t id) { bodies_.erase(id); }

void Session::recover(std::exception_ptr lost) {
  if (reconnector_ == nullptr) std::rethrow_exception(lost);
  // The old connection stays until a new one replaces it, so that the
  // session stays whole when no try is left.
  LoggedIn fresh = reconnector_->connect(lost, [this](protocol::BerReader& reader) {
    for (auto& [id, body] : bodies_) {
      protocol::Request message;
      message.id = id;
      message.req = std::move(body);
      // Given back even when queue() fails, so that the next try has it.
      struct GiveBack {
        protocol::Request& message;
        std::unique_ptr<protocol::BerConstructed>& body;
        ~GiveBack() { body = std::move(message.req); }
      } giveBack{message, body};
      reader.queue(message);
    }
  });
  if (fresh.rootDomainId != rootDomainId || fresh.mibRootId != mibRootId) {
    throw util::EConnectError("Server changed its root objects between logins");
  }
  adopt(std::move(fresh));
  ++reconnections_;
}

std::unique_ptr<Session> openSession(const net::ConnectionFactory& factory, const Login& login,
                                     const ReconnectPolicy& policy) {
  if (policy.attempts == 0) return std::make_unique<Session>(log_in(factory, login));
  auto reconnector = std::make_unique<Reconnector>(factory, login, policy);
  LoggedIn loggedIn = reconnector->connect(nullptr);
  return std::make_unique<Session>(std::move(loggedIn), std::move(reconnector));
}

}  // namespace client
