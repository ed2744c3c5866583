#include "server/handshake.h"

#include <ctime>

#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "server/byte_sink.h"
#include "server/link_streams.h"

namespace server {

const char kServerText[] = "talvix-server";

namespace {

template <class T>
std::unique_ptr<T> expect(protocol::BerReader& reader) {
  std::unique_ptr<protocol::BerConstructed> message = reader.nextMessage();
  if (dynamic_cast<T*>(message.get()) == nullptr) return nullptr;
  return std::unique_ptr<T>(static_cast<T*>(message.release()));
}

std::unique_ptr<protocol::BerConstructed> offered(OfferedAuth auth) {
  switch (auth) {
    case OfferedAuth::kPrivateKey: return std::make_unique<protocol::ServerPrivateKey>();
    case OfferedAuth::kPassword: return std::make_unique<protocol::ServerPassword>();
    case OfferedAuth::kLinkHandshake: return std::make_unique<protocol::LinkHandshakeInit>();
    case OfferedAuth::kNoAuth: break;
  }
  return std::make_unique<protocol::ServerNoAuth>();
}

}  // namespace

std::string legacy_greeting() {
  protocol::ClientWants greeting;
  greeting.version = 0x0100;
  greeting.authentication = std::make_unique<protocol::ClientPrivateKey>();
  return encode(greeting, true);
}

HandshakeResult run_handshake(net::BasicIo& socket,
                              const std::function<void(const std::string&)>& send,
                              const Database& db, const HandshakeOptions& options,
                              std::atomic<uint32_t>& sessionIds) {
  HandshakeResult result;
  result.legacy = options.legacyGreeting;
  if (options.legacyGreeting) send(legacy_greeting());

  // The client's first message is in the current encoding whatever we greet with.
  auto reader = std::make_unique<protocol::BerReader>(protocol::guiProtocol(),
                                                      std::make_unique<BorrowedStream>(socket));
  if (!expect<protocol::ClientWants>(*reader)) return result;

  if (options.nackReason) {
    protocol::NegotiateNack nack;
    nack.reason = *options.nackReason;
    send(encode(nack, result.legacy));
    return result;
  }
  if (options.legacyGreeting) {
    // A fresh reader that decides for the legacy encoding on the greeting's
    // own octets, which it decodes (and we drop) before the client's next
    // message. Octets that arrived together with ClientWants are lost.
    reader = std::make_unique<protocol::BerReader>(
        protocol::guiProtocol(), std::make_unique<PrefixedStream>(legacy_greeting(), socket));
    reader->nextMessage();
  }

  protocol::ServerOffers offer;
  offer.version = options.version;
  offer.authentication = offered(options.auth);
  send(encode(offer, result.legacy));

  if (!expect<protocol::NegotiateAck>(*reader)) return result;
  std::unique_ptr<protocol::NewSession> login = expect<protocol::NewSession>(*reader);
  if (!login || !db.checkLogin(login->loginDomain, login->userName, login->password)) {
    return result;
  }

  protocol::NewSessionResp accepted;
  accepted.sessionId = util::BigNum(sessionIds.fetch_add(1) + 1);
  accepted.serverTime = static_cast<int32_t>(std::time(nullptr));
  accepted.rootDomainId = db.rootDomainId();
  accepted.text = kServerText;
  accepted.mibRootId = db.mibRootId();
  send(encode(accepted, result.legacy));
  result.reader = std::move(reader);
  return result;
}

}  // namespace server
