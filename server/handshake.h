// The server's side of the session handshake: version negotiation and
// login, on a freshly accepted connection.
//
// In order, all in the current encoding: the client's ClientWants;
// ServerOffers with version 0x0203 and no authentication (ServerNoAuth); the
// client's NegotiateAck; the client's NewSession, checked against the
// database's users; NewSessionResp with a new session id, the server's
// clock, the root domain id and the MIB root id. Anything unexpected ends the
// handshake without an answer and the connection is to be closed.
#ifndef TALVIX_SERVER_HANDSHAKE_H_
#define TALVIX_SERVER_HANDSHAKE_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "net/basic_io.h"
#include "protocol/ber_reader.h"
#include "server/database.h"

namespace server {

// Runs the handshake over `socket`, which the caller keeps owning; every
// reply goes out through `send` as complete encoded octets. `sessionIds`
// hands out session ids. Returns the reader that decodes the client's
// requests from here on, or null when the handshake ended without a login.
// Transport and decoding failures of the client's messages pass out as
// exceptions of the util:: family.
std::unique_ptr<protocol::BerReader> run_handshake(
    net::BasicIo& socket, const std::function<void(const std::string&)>& send, const Database& db,
    std::atomic<uint32_t>& sessionIds);

}  // namespace server

#endif  // TALVIX_SERVER_HANDSHAKE_H_
