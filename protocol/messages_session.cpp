// Field tables of the handshake and the small top-level messages.

#include "protocol/messages_session.h"

#include "protocol/message_schema.h"

namespace protocol {

using namespace fields;  // NOLINT(build/namespaces): the table vocabulary

TALVIX_MESSAGE_CLASS(ClientWants, application(3), 2,
                     int32("version", &ClientWants::version, 0, 65535),
                     choice<ClientNoAuth, ClientPrivateKey, ClientPassword, WantsLinkHandshake>(
                         "authentication", &ClientWants::authentication))
TALVIX_MESSAGE_CLASS(ServerOffers, application(11), 2,
                     int32("version", &ServerOffers::version, 0, 65535),
                     choice<ServerNoAuth, ServerPrivateKey, ServerPassword, LinkHandshakeInit>(
                         "authentication", &ServerOffers::authentication))

TALVIX_MESSAGE_CLASS(ClientNoAuth, alternative(0), 0)
TALVIX_MESSAGE_CLASS(ClientPrivateKey, alternative(1), 4,
                     text("keyName", &ClientPrivateKey::keyName, 256),
                     text("publicKey", &ClientPrivateKey::publicKey, 1024),
                     text("userName", &ClientPrivateKey::userName, 128),
                     boolean("option1", &ClientPrivateKey::option1),
                     boolean("option2", &ClientPrivateKey::option2),
                     boolean("option3", &ClientPrivateKey::option3))
TALVIX_MESSAGE_CLASS(ClientPassword, alternative(2), 0)
TALVIX_MESSAGE_CLASS(ServerNoAuth, alternative(0), 0)
TALVIX_MESSAGE_CLASS(ServerPrivateKey, alternative(1), 1,
                     boolean("option1", &ServerPrivateKey::option1),
                     boolean("option2", &ServerPrivateKey::option2))
TALVIX_MESSAGE_CLASS(ServerPassword, alternative(2), 0)

// The two link handshake classes share one layout.
#define TALVIX_LINK_HANDSHAKE_CLASS(Self)                    \
  TALVIX_MESSAGE_CLASS(Self, alternative(3), 5,             \
                       uint32("version", &Self::version),   \
                       bignum("prime", &Self::prime),       \
                       bignum("generator", &Self::generator), \
                       bignum("publicValue", &Self::publicValue), \
                       bignum("nonce", &Self::nonce))
TALVIX_LINK_HANDSHAKE_CLASS(WantsLinkHandshake)
TALVIX_LINK_HANDSHAKE_CLASS(LinkHandshakeInit)
#undef TALVIX_LINK_HANDSHAKE_CLASS

TALVIX_MESSAGE_CLASS(NegotiateAck, application(19), 0)
TALVIX_MESSAGE_CLASS(NegotiateNack, application(27), 1,
                     text("reason", &NegotiateNack::reason, 1024))
TALVIX_MESSAGE_CLASS(NewSession, application(131), 4,
                     text("loginDomain", &NewSession::loginDomain, 1024),
                     text("userName", &NewSession::userName, 128),
                     text("clientName", &NewSession::clientName, 256),
                     text("password", &NewSession::password, 128))
TALVIX_MESSAGE_CLASS(NewSessionResp, application(139), 5,
                     bignum("sessionId", &NewSessionResp::sessionId),
                     int32("serverTime", &NewSessionResp::serverTime),
                     text("rootDomainId", &NewSessionResp::rootDomainId, 32),
                     text("text", &NewSessionResp::text, 32),
                     text("mibRootId", &NewSessionResp::mibRootId, 32))

TALVIX_MESSAGE_CLASS(ReopenSession, application(147), 1,
                     bignum("sessionId", &ReopenSession::sessionId))
TALVIX_MESSAGE_CLASS(EndSession, application(155), 1,
                     bignum("sessionId", &EndSession::sessionId))
TALVIX_MESSAGE_CLASS(AuthChallenge, application(51), 1,
                     bignum("challenge", &AuthChallenge::challenge))
TALVIX_MESSAGE_CLASS(AuthResponse, application(59), 1,
                     bignum("response", &AuthResponse::response))
TALVIX_MESSAGE_CLASS(SporadicBignum, application(43), 1,
                     bignum("value", &SporadicBignum::value))
TALVIX_MESSAGE_CLASS(GSLNonce, application(211), 1, bignum("nonce", &GSLNonce::nonce))
TALVIX_MESSAGE_CLASS(GSLSignedNonce, application(219), 1,
                     bignum("signedNonce", &GSLSignedNonce::signedNonce))
TALVIX_MESSAGE_CLASS(DiffieHellmannParameters, application(35), 1,
                     bignum("prime", &DiffieHellmannParameters::prime),
                     bignum("generator", &DiffieHellmannParameters::generator))

TALVIX_MESSAGE_CLASS(UpgradeReq, application(99), 3,
                     int32("param1", &UpgradeReq::param1),
                     int32("param2", &UpgradeReq::param2),
                     int32("param3", &UpgradeReq::param3),
                     int32("param4", &UpgradeReq::param4),
                     int32("param5", &UpgradeReq::param5))
TALVIX_MESSAGE_CLASS(UpgradeResp, application(107), 2,
                     int32("code", &UpgradeResp::code),
                     text("data", &UpgradeResp::data, 1048576))

TALVIX_MESSAGE_CLASS(ServerTimeReq, application(187), 2,
                     int32("seconds", &ServerTimeReq::seconds),
                     int32("microseconds", &ServerTimeReq::microseconds, 0, 999999))
TALVIX_MESSAGE_CLASS(ServerTimeResp, application(195), 2,
                     int32("seconds", &ServerTimeResp::seconds),
                     int32("microseconds", &ServerTimeResp::microseconds, 0, 999999))
TALVIX_MESSAGE_CLASS(GridMessage, application(227), 5,
                     int32("type", &GridMessage::type, 0, 65535),
                     uint32("source", &GridMessage::source),
                     uint32("destination", &GridMessage::destination),
                     boolean("flag", &GridMessage::flag),
                     text("text", &GridMessage::text, 65536))
TALVIX_MESSAGE_CLASS(GSLKeepAlive, application(235), 1,
                     int32("value", &GSLKeepAlive::value))
TALVIX_MESSAGE_CLASS(DowntimeReq, application(243), 1,
                     int32("duration", &DowntimeReq::duration))
TALVIX_MESSAGE_CLASS(DowntimeResp, application(251), 2,
                     boolean("ok", &DowntimeResp::ok),
                     text("text", &DowntimeResp::text, 1024))
TALVIX_MESSAGE_CLASS(HWScanReq, application(259), 0)
TALVIX_MESSAGE_CLASS(HWScanResp, application(267), 1, boolean("ok", &HWScanResp::ok))

}  // namespace protocol
