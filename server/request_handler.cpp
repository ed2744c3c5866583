#include "server/request_handler.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "protocol/ber_primitives.h"
#include "server/answer_encoder.h"
#include "server/select_eval.h"

namespace server {

namespace {

// A Response with a SelectResp holding the already encoded `objects`.
std::string select_response(int32_t id, const std::string& objects) {
  std::string bytes;
  bytes.reserve(objects.size() + 16);
  append_select_response_start(bytes, id);
  bytes += objects;
  append_select_response_end(bytes);
  return bytes;
}

// A Response with a GetDataResp for the request's object and index, or the
// ErrorResp the request earns.
std::string get_data_response(const Database& db, ObjectCache& cache, int32_t id,
                              const protocol::GetDataReq& request) {
  if (!cache.find(db, request.objectId)) {
    return error_response(id, kErrorIdNotFound, "No object with id " + request.objectId);
  }
  std::shared_ptr<const History> history = db.history(request.objectId, request.indexName);
  if (!history) {
    return error_response(id, kErrorIdNotFound,
                          "No history of " + request.indexName + " for " + request.objectId);
  }
  std::string bytes;
  bytes.reserve(32 + 64 * history->intervals.size());
  try {
    append_get_data_response(bytes, id, *history);
  } catch (const protocol::EBer& e) {
    return error_response(id, kErrorBackend, "History cannot be encoded: " + e.text());
  }
  return bytes;
}

}  // namespace

std::string error_response(int32_t id, int32_t code, const std::string& text) {
  std::string bytes;
  append_error_response(bytes, id, code, text.size() <= 1024 ? text : text.substr(0, 1024));
  return bytes;
}

std::string answer_request(const Database& db, ObjectCache& cache,
                           const protocol::Request& request) {
  const protocol::BerConstructed* body = request.req.get();
  if (auto* select = dynamic_cast<const protocol::SelectReq*>(body)) {
    SelectOutcome outcome = evaluate_select(db, cache, *select);
    if (outcome.error != 0) return error_response(request.id, outcome.error, outcome.text);
    return select_response(request.id, outcome.objects);
  }
  if (auto* data = dynamic_cast<const protocol::GetDataReq*>(body)) {
    return get_data_response(db, cache, request.id, *data);
  }
  return error_response(request.id, kErrorNotImplemented, "The request is not implemented");
}

}  // namespace server
