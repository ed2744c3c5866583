// The session handshake (version negotiation and login) and the small
// top-level messages of sessions, clocks, the grid link, downtimes,
// hardware scans and upgrades.
//
// ClientWants::authentication and ServerOffers::authentication hold one
// alternative; the exporter sends ClientNoAuth and expects ServerNoAuth.
#ifndef TALVIX_PROTOCOL_MESSAGES_SESSION_H_
#define TALVIX_PROTOCOL_MESSAGES_SESSION_H_

#include <cstdint>
#include <memory>
#include <string>

#include "protocol/message_base.h"
#include "util/bignum.h"

namespace protocol {

class ClientWants : public Message<ClientWants> {
 public:
  int32_t version = 0;  // major in the high octet, minor in the low one
  std::unique_ptr<BerConstructed> authentication;
};

class ServerOffers : public Message<ServerOffers> {
 public:
  int32_t version = 0;
  std::unique_ptr<BerConstructed> authentication;
};

// Alternatives of ClientWants::authentication.
class ClientNoAuth : public Message<ClientNoAuth> {};
class ClientPrivateKey : public Message<ClientPrivateKey> {
 public:
  std::string keyName;    // at most 256 octets
  std::string publicKey;  // at most 1024 octets
  std::string userName;   // at most 128 octets
  bool option1 = false;
  bool option2 = false;
  bool option3 = false;
};
class ClientPassword : public Message<ClientPassword> {};
class WantsLinkHandshake : public Message<WantsLinkHandshake> {
 public:
  uint32_t version = 0;
  util::BigNum prime;
  util::BigNum generator;
  util::BigNum publicValue;
  util::BigNum nonce;
};

// Alternatives of ServerOffers::authentication.
class ServerNoAuth : public Message<ServerNoAuth> {};
class ServerPrivateKey : public Message<ServerPrivateKey> {
 public:
  bool option1 = false;
  bool option2 = false;
};
class ServerPassword : public Message<ServerPassword> {};
class LinkHandshakeInit : public Message<LinkHandshakeInit> {
 public:
  uint32_t version = 0;
  util::BigNum prime;
  util::BigNum generator;
  util::BigNum publicValue;
  util::BigNum nonce;
};

class NegotiateAck : public Message<NegotiateAck> {};
class NegotiateNack : public Message<NegotiateNack> {
 public:
  std::string reason;  // at most 1024 octets
};

class NewSession : public Message<NewSession> {
 public:
  std::string loginDomain;  // at most 1024 octets
  std::string userName;     // at most 128 octets
  std::string clientName;   // at most 256 octets
  std::string password;     // at most 128 octets
};

class NewSessionResp : public Message<NewSessionResp> {
 public:
  util::BigNum sessionId;
  int32_t serverTime = 0;    // the server's clock, seconds since 1970
  std::string rootDomainId;  // at most 32 octets
  std::string text;          // at most 32 octets
  std::string mibRootId;     // at most 32 octets
};

class ReopenSession : public Message<ReopenSession> {
 public:
  util::BigNum sessionId;
};
class EndSession : public Message<EndSession> {
 public:
  util::BigNum sessionId;
};
class AuthChallenge : public Message<AuthChallenge> {
 public:
  util::BigNum challenge;
};
class AuthResponse : public Message<AuthResponse> {
 public:
  util::BigNum response;
};
class SporadicBignum : public Message<SporadicBignum> {
 public:
  util::BigNum value;
};
class GSLNonce : public Message<GSLNonce> {
 public:
  util::BigNum nonce;
};
class GSLSignedNonce : public Message<GSLSignedNonce> {
 public:
  util::BigNum signedNonce;
};
class DiffieHellmannParameters : public Message<DiffieHellmannParameters> {
 public:
  util::BigNum prime;
  util::BigNum generator;
};

class UpgradeReq : public Message<UpgradeReq> {
 public:
  int32_t param1 = 0;
  int32_t param2 = 0;
  int32_t param3 = 0;
  int32_t param4 = 0;
  int32_t param5 = 0;
};
class UpgradeResp : public Message<UpgradeResp> {
 public:
  int32_t code = 0;
  std::string data;  // at most 1048576 octets
};

class ServerTimeReq : public Message<ServerTimeReq> {
 public:
  int32_t seconds = 0;
  int32_t microseconds = 0;  // 0..999999
};
class ServerTimeResp : public Message<ServerTimeResp> {
 public:
  int32_t seconds = 0;
  int32_t microseconds = 0;  // 0..999999
};

class GridMessage : public Message<GridMessage> {
 public:
  int32_t type = 0;  // 0..65535
  uint32_t source = 0;
  uint32_t destination = 0;
  bool flag = false;
  std::string text;  // at most 65536 octets
};
class GSLKeepAlive : public Message<GSLKeepAlive> {
 public:
  int32_t value = 0;
};

class DowntimeReq : public Message<DowntimeReq> {
 public:
  int32_t duration = 0;
};
class DowntimeResp : public Message<DowntimeResp> {
 public:
  bool ok = false;
  std::string text;  // at most 1024 octets
};

class HWScanReq : public Message<HWScanReq> {};
class HWScanResp : public Message<HWScanResp> {
 public:
  bool ok = false;
};

extern template class Message<ClientWants>;
extern template class Message<ServerOffers>;
extern template class Message<ClientNoAuth>;
extern template class Message<ClientPrivateKey>;
extern template class Message<ClientPassword>;
extern template class Message<WantsLinkHandshake>;
extern template class Message<ServerNoAuth>;
extern template class Message<ServerPrivateKey>;
extern template class Message<ServerPassword>;
extern template class Message<LinkHandshakeInit>;
extern template class Message<NegotiateAck>;
extern template class Message<NegotiateNack>;
extern template class Message<NewSession>;
extern template class Message<NewSessionResp>;
extern template class Message<ReopenSession>;
extern template class Message<EndSession>;
extern template class Message<AuthChallenge>;
extern template class Message<AuthResponse>;
extern template class Message<SporadicBignum>;
extern template class Message<GSLNonce>;
extern template class Message<GSLSignedNonce>;
extern template class Message<DiffieHellmannParameters>;
extern template class Message<UpgradeReq>;
extern template class Message<UpgradeResp>;
extern template class Message<ServerTimeReq>;
extern template class Message<ServerTimeResp>;
extern template class Message<GridMessage>;
extern template class Message<GSLKeepAlive>;
extern template class Message<DowntimeReq>;
extern template class Message<DowntimeResp>;
extern template class Message<HWScanReq>;
extern template class Message<HWScanResp>;

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_MESSAGES_SESSION_H_
