// The data query: the stored history of one index property of one object, as
// the data type of the series and its list of data intervals.
#ifndef TALVIX_CLIENT_GET_DATA_H_
#define TALVIX_CLIENT_GET_DATA_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "client/request.h"

namespace protocol {
class DataInterval;
}

namespace client {

class GetData : public Request {
 public:
  // The meaning of the four parameters and the flag is the server's; the
  // third must lie between 0 and 2000 to be sendable.
  GetData(std::string objectId, std::string indexName, int32_t p1, int32_t p2, int32_t p3,
          int32_t p4, bool flag);
  ~GetData() override;

  std::unique_ptr<protocol::BerConstructed> makeBody() override;
  // GetDataResp: sets `dataType` and moves its intervals into `intervals`
  // (the response's list is left empty). ErrorResp: stores its code in
  // `error`, `dataType` and `intervals` unchanged. Any other body raises
  // util::EBerError "Wrong type in GetData::decode.".
  void decode(protocol::BerConstructed* body) override;
  // Always forgets the request.
  void done(Session& session) override;

  // The data type number of the series; all ones until a successful answer.
  uint32_t dataType = 0xFFFFFFFF;
  // The intervals in the server's order; empty until a successful answer.
  std::vector<std::unique_ptr<protocol::DataInterval>> intervals;

 private:
  std::string objectId_;
  std::string indexName_;
  int32_t parameters_[4];
  bool flag_;
};

}  // namespace client

#endif  // TALVIX_CLIENT_GET_DATA_H_
