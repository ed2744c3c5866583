#include "porter/export_state.h"

#include <iostream>

#include "client/get_data.h"
#include "client/request.h"
#include "client/select.h"
#include "client/session.h"

namespace porter {

namespace {

// The parameters every history request of the export carries.
constexpr int32_t kFrom = 0;
constexpr int32_t kTo = 2147483647;
constexpr int32_t kStep = 1;
constexpr int32_t kLast = 0;

}  // namespace

std::shared_ptr<tqlquery::Select> SequentialSource::select(const std::string& startId,
                                                           const std::string& pattern) {
  auto request = std::make_shared<tqlquery::Select>(startId, pattern, 0);
  comquery::send(session_, request);
  comquery::await(session_, *request);
  return request;
}

std::shared_ptr<dataquery::GetData> SequentialSource::history(const std::string& objectId,
                                                              const std::string& indexName) {
  auto request =
      std::make_shared<dataquery::GetData>(objectId, indexName, kFrom, kTo, kStep, kLast, true);
  comquery::send(session_, request);
  comquery::await(session_, *request);
  return request;
}

ExportState& export_state() {
  static ExportState state{nullptr, nullptr, ClassFilter{}, true, &std::cerr};
  return state;
}

}  // namespace porter
