#include "client/get_data.h"

#include <utility>

#include "client/session.h"
#include "protocol/messages.h"
#include "util/error.h"

namespace client {

GetData::GetData(std::string objectId, std::string indexName, int32_t p1, int32_t p2,
                 int32_t p3, int32_t p4, bool flag)
    : objectId_(std::move(objectId)),
      indexName_(std::move(indexName)),
      parameters_{p1, p2, p3, p4},
      flag_(flag) {}

// Out of line: DataInterval is complete here.
GetData::~GetData() = default;

std::unique_ptr<protocol::BerConstructed> GetData::makeBody() {
  auto body = std::make_unique<protocol::GetDataReq>();
  body->objectId = objectId_;
  body->indexName = indexName_;
  body->flag = flag_;
  body->p1 = parameters_[0];
  body->p2 = parameters_[1];
  body->p3 = parameters_[2];
  body->p4 = parameters_[3];
  return body;
}

void GetData::decode(protocol::BerConstructed* body) {
  if (auto* answer = dynamic_cast<protocol::GetDataResp*>(body)) {
    error = 0;
    dataType = static_cast<uint32_t>(answer->dataType);
    intervals = std::move(answer->intervals);
    answer->intervals.clear();
  } else if (auto* refusal = dynamic_cast<protocol::ErrorResp*>(body)) {
    error = static_cast<uint32_t>(refusal->code);
  } else {
    throw util::EBerError("Wrong type in GetData::decode.");
  }
}

void GetData::done(Session& session) { client::forget(session, *this); }

}  // namespace client
