#include "client/login.h"

#include <string.h>

#include <utility>

#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "util/error.h"

namespace client {

Login::Login(std::string host, uint32_t port, std::string clientName, std::string user,
             std::string password, std::string loginDomain)
    : host(std::move(host)),
      port(port),
      clientName(std::move(clientName)),
      user(std::move(user)),
      password(std::move(password)),
      loginDomain(std::move(loginDomain)) {}

Login::~Login() { explicit_bzero(password.data(), password.size()); }

namespace {

// Whether the server's offer is one we can speak: no authentication and the
// same major version (the high octet of the 16-bit version).
bool acceptableOffer(const protocol::ServerOffers& offer) {
  if (dynamic_cast<const protocol::ServerNoAuth*>(offer.authentication.get()) == nullptr) {
    return false;
  }
  return ((offer.version ^ PROTOCOL_VERSION) & 0xFF00) == 0;
}

// Negotiates version and authentication (everything before the login).
void negotiate(protocol::BerReader& reader) {
  protocol::ClientWants wants;
  wants.version = PROTOCOL_VERSION;
  wants.authentication = std::make_unique<protocol::ClientNoAuth>();
  reader.send(wants);

  std::unique_ptr<protocol::BerConstructed> answer = reader.nextMessage();
  if (auto* nack = dynamic_cast<protocol::NegotiateNack*>(answer.get())) {
    throw util::EConnectError("Server rejected us: " + nack->reason);
  }
  auto* offer = dynamic_cast<protocol::ServerOffers*>(answer.get());
  if (offer == nullptr) throw util::EConnectError("Protocol error: Wrong type");
  if (!acceptableOffer(*offer)) {
    throw util::EConnectError("Server does not support our version of the protocol");
  }

  reader.send(protocol::NegotiateAck());
}

}  // namespace

LoggedIn log_in(const net::ConnectionFactory& factory, const Login& login) {
  auto reader = std::make_unique<protocol::BerReader>(protocol::guiProtocol(),
                                                      factory.connect(login.host, login.port));
  negotiate(*reader);

  // A refused login may show as anything from a closed connection to a reply
  // of the wrong shape; all of it means the same to the user.
  try {
    protocol::NewSession message;
    message.loginDomain = login.loginDomain;
    message.userName = login.user;
    message.clientName = login.clientName;
    message.password = login.password;
    reader->send(message);
    explicit_bzero(message.password.data(), message.password.size());

    std::unique_ptr<protocol::BerConstructed> answer = reader->nextMessage();
    auto* accepted = dynamic_cast<protocol::NewSessionResp*>(answer.get());
    if (accepted == nullptr) throw util::EConnectError("Protocol error: Wrong type");
    return LoggedIn{std::move(reader), accepted->sessionId, accepted->rootDomainId,
                    accepted->mibRootId};
  } catch (const util::Exception&) {
    throw util::EConnectError("Wrong username / password");
  }
}

}  // namespace client
