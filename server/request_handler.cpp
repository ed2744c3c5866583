#include "server/request_handler.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "protocol/ber_primitives.h"
#include "server/byte_sink.h"
#include "server/select_eval.h"

namespace server {

namespace {

// The largest datatype number the protocol carries.
constexpr int32_t kMaxDataType = 17;

// A GetDataResp whose datatype is written as it is, outside the range the
// protocol allows too, so that clients can be tested against one. The
// intervals are written as GetDataResp writes them.
class UncheckedDatatypeResp : public protocol::GetDataResp {
 public:
  void write(net::ByteOutput& stream, bool legacy) const override {
    protocol::write_tag(stream, staticTag(legacy));
    protocol::write_indefinite(stream);
    int32_t value = dataType;
    protocol::BerInt32(value, std::numeric_limits<int32_t>::min(),
                       std::numeric_limits<int32_t>::max(), protocol::BE_INTEGER).write(stream, legacy);
    // Writing reads the list and leaves it as it is.
    protocol::ListOfDataInterval(const_cast<std::vector<std::unique_ptr<protocol::DataInterval>>&>(intervals))
        .write(stream, legacy);
    protocol::write_end_of_contents(stream);
  }
};

std::string response(int32_t id, std::unique_ptr<protocol::BerConstructed> body, bool legacy) {
  protocol::Response message;
  message.id = id;
  message.resp = std::move(body);
  return encode(message, legacy);
}

// A Response with a SelectResp holding the already encoded `objects`: the
// empty answer ends with the list's, the SelectResp's and the Response's
// ends of contents, and the objects go in front of them.
std::string select_response(int32_t id, const std::string& objects, bool legacy) {
  const std::string empty = response(id, std::make_unique<protocol::SelectResp>(), legacy);
  std::string bytes;
  bytes.reserve(empty.size() + objects.size());
  bytes.append(empty, 0, empty.size() - 6);
  bytes += objects;
  bytes.append(empty, empty.size() - 6, 6);
  return bytes;
}

}  // namespace

std::string error_response(int32_t id, int32_t code, const std::string& text, bool legacy) {
  auto error = std::make_unique<protocol::ErrorResp>();
  error->code = code;
  error->texts.push_back(text.substr(0, 1024));
  return response(id, std::move(error), legacy);
}

std::string get_data_response(const Database& db, int32_t id, const protocol::GetDataReq& request,
                              bool legacy) {
  if (!db.find(request.objectId)) {
    return error_response(id, kErrorIdNotFound, "No object with id " + request.objectId, legacy);
  }
  std::shared_ptr<const History> history = db.history(request.objectId, request.indexName);
  if (!history) {
    return error_response(id, kErrorIdNotFound,
                          "No history of " + request.indexName + " for " + request.objectId, legacy);
  }
  const bool inRange = history->dataType >= 0 && history->dataType <= kMaxDataType;
  auto body = inRange ? std::make_unique<protocol::GetDataResp>()
                      : std::make_unique<UncheckedDatatypeResp>();
  body->dataType = history->dataType;
  body->intervals.reserve(history->intervals.size());
  for (const Interval& row : history->intervals) body->intervals.push_back(to_interval(row));
  try {
    return response(id, std::move(body), legacy);
  } catch (const protocol::EBer& e) {
    return error_response(id, kErrorBackend, "History cannot be encoded: " + e.text(), legacy);
  }
}

std::string answer_request(const Database& db, ObjectEncoder& encoder,
                           const protocol::Request& request, bool legacy) {
  const protocol::BerConstructed* body = request.req.get();
  if (auto* select = dynamic_cast<const protocol::SelectReq*>(body)) {
    SelectOutcome outcome = evaluate_select(db, encoder, *select, legacy);
    if (outcome.error != 0) return error_response(request.id, outcome.error, outcome.text, legacy);
    return select_response(request.id, outcome.objects, legacy);
  }
  if (auto* data = dynamic_cast<const protocol::GetDataReq*>(body)) {
    return get_data_response(db, request.id, *data, legacy);
  }
  return error_response(request.id, kErrorNotImplemented, "The request is not implemented", legacy);
}

}  // namespace server
