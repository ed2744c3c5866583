#include "client/request.h"

#include <exception>
#include <utility>

#include "client/session.h"
#include "protocol/ber_reader.h"
#include "protocol/messages.h"
#include "util/error.h"

namespace client {

Request::~Request() = default;

std::string Request::name() const { return "Unknown request"; }

void send(Session& session, const std::shared_ptr<Request>& request) {
  const int32_t id = session.takeRequestId();
  session.requestsById.emplace(id, request);
  session.idsByRequest.emplace(request.get(), id);

  protocol::Request message;
  message.id = id;
  message.req = request->makeBody();
  // Requests sent one after another without an answer taken in between go
  // out together, before the reader next waits for the server.
  try {
    session.reader().queue(message);
  } catch (const util::ESystemError&) {
    if (!session.reconnects()) throw;
    // Sent again with every other outstanding request on the new connection.
    session.keep_body(id, std::move(message.req));
    request->state = Request::kSent;
    session.recover(std::current_exception());
    return;
  }
  if (session.reconnects()) session.keep_body(id, std::move(message.req));
  request->state = Request::kSent;
}

namespace {

// The next message, over as many connections as the session's
// reconnecting allows.
protocol::BerReader::Received receive(Session& session) {
  for (;;) {
    if (session.beforeWait && !session.reader().hasReceived()) session.beforeWait();
    try {
      return session.reader().nextReceived();
    } catch (const util::ESystemError&) {
      session.recover(std::current_exception());
    }
  }
}

}  // namespace

std::shared_ptr<Request> processResponse(Session& session) {
  protocol::BerReader::Received received = receive(session);

  auto* response = dynamic_cast<protocol::Response*>(received.message.get());
  if (response == nullptr) {
    if (received.failure) std::rethrow_exception(received.failure);
    throw util::EBerError("Wrong type. Expected Response");
  }

  auto found = session.requestsById.find(response->id);
  if (found == session.requestsById.end()) {
    // An answer nobody waits for, whether it decoded or not.
    return nullptr;
  }

  // Our own reference keeps the request alive while done() forgets it.
  std::shared_ptr<Request> request = found->second;
  request->state = Request::kAnswered;
  session.answered();
  // Its answer failed to decode: the failure is this request's, as if its
  // decode() had raised it.
  if (received.failure) std::rethrow_exception(received.failure);
  request->decode(response->resp.get());
  request->done(session);
  return request;
}

uint32_t await(Session& session, Request& request) {
  while (session.idsByRequest.count(&request) != 0) {
    if (processResponse(session).get() == &request) break;
  }
  return request.error;
}

void forget(Session& session, Request& request) {
  auto byRequest = session.idsByRequest.find(&request);
  if (byRequest == session.idsByRequest.end()) {
    util::assert_failed("forget called with unknown request");
  }
  auto byId = session.requestsById.find(byRequest->second);
  if (byId == session.requestsById.end()) {
    util::assert_failed("forget called with unknown request.");
  }
  session.idsByRequest.erase(byRequest);
  if (session.reconnects()) session.drop_body(byId->first);
  // Last: this may drop the final reference and destroy the request.
  session.requestsById.erase(byId);
}

}  // namespace client
