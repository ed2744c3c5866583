#include "server/handshake.h"

#include <ctime>

#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "server/byte_sink.h"
#include "server/link_streams.h"

namespace server {

namespace {

// The text the server sends in the fourth field of NewSessionResp.
constexpr char kServerText[] = "talvix-server";

template <class T>
std::unique_ptr<T> expect(protocol::BerReader& reader) {
  std::unique_ptr<protocol::BerConstructed> message = reader.nextMessage();
  if (dynamic_cast<T*>(message.get()) == nullptr) return nullptr;
  return std::unique_ptr<T>(static_cast<T*>(message.release()));
}

}  // namespace

std::unique_ptr<protocol::BerReader> run_handshake(
    net::BasicIo& socket, const std::function<void(const std::string&)>& send, const Database& db,
    std::atomic<uint32_t>& sessionIds) {
  auto reader = std::make_unique<protocol::BerReader>(protocol::guiProtocol(),
                                                      std::make_unique<BorrowedStream>(socket));
  if (!expect<protocol::ClientWants>(*reader)) return nullptr;

  protocol::ServerOffers offer;
  offer.version = 0x0203;
  offer.authentication = std::make_unique<protocol::ServerNoAuth>();
  send(encode(offer));

  if (!expect<protocol::NegotiateAck>(*reader)) return nullptr;
  std::unique_ptr<protocol::NewSession> login = expect<protocol::NewSession>(*reader);
  if (!login || !db.checkLogin(login->loginDomain, login->userName, login->password)) {
    return nullptr;
  }

  protocol::NewSessionResp accepted;
  accepted.sessionId = util::BigNum(sessionIds.fetch_add(1) + 1);
  accepted.serverTime = static_cast<int32_t>(std::time(nullptr));
  accepted.rootDomainId = db.rootDomainId();
  accepted.text = kServerText;
  accepted.mibRootId = db.mibRootId();
  send(encode(accepted));
  return reader;
}

}  // namespace server
