#include "porter/walk_source.h"

#include "client/get_data.h"
#include "client/request.h"
#include "client/select.h"

namespace porter {

std::shared_ptr<client::Select> WalkSource::select(const WalkRequest& request) {
  return std::static_pointer_cast<client::Select>(take(request));
}

std::shared_ptr<client::GetData> WalkSource::history(const WalkRequest& request) {
  return std::static_pointer_cast<client::GetData>(take(request));
}

std::shared_ptr<client::Request> SequentialSource::take(const WalkRequest& request) {
  std::shared_ptr<client::Request> answer = make_request(request);
  client::send(session_, answer);
  client::await(session_, *answer);
  return answer;
}

}  // namespace porter
