#include "client/session.h"

#include <utility>

#include "client/request.h"
#include "protocol/ber_reader.h"
#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "util/error.h"

namespace client {

Session::Session(std::unique_ptr<protocol::BerReader> reader, util::BigNum sessionId,
                 std::string rootDomainId, std::string mibRootId)
    : sessionId(std::move(sessionId)),
      rootDomainId(std::move(rootDomainId)),
      mibRootId(std::move(mibRootId)),
      reader_(std::move(reader)),
      connection_(reader_->lower()) {
  // From the login on, a Response that fails to decode once its id is known
  // answers its request (client::processResponse).
  reader_->setKeyedFailures(true);
}

Session::~Session() = default;

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

std::unique_ptr<Session> openSession(const net::ConnectionFactory& factory, const std::string& host,
                                     uint32_t port, const std::string& clientName,
                                     const std::string& user, const std::string& password,
                                     const std::string& loginDomain) {
  auto reader =
      std::make_unique<protocol::BerReader>(protocol::guiProtocol(), factory.connect(host, port));
  negotiate(*reader);

  // A refused login may show as anything from a closed connection to a reply
  // of the wrong shape; all of it means the same to the user.
  try {
    protocol::NewSession login;
    login.loginDomain = loginDomain;
    login.userName = user;
    login.clientName = clientName;
    login.password = password;
    reader->send(login);

    std::unique_ptr<protocol::BerConstructed> answer = reader->nextMessage();
    auto* accepted = dynamic_cast<protocol::NewSessionResp*>(answer.get());
    if (accepted == nullptr) throw util::EConnectError("Protocol error: Wrong type");
    return std::make_unique<Session>(std::move(reader), accepted->sessionId,
                                     accepted->rootDomainId, accepted->mibRootId);
  } catch (const util::Exception&) {
    throw util::EConnectError("Wrong username / password");
  }
}

}  // namespace client
