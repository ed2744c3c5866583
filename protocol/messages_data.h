// Historical data: the requests that fetch and store the measurements and
// incidents of an object's index property, and the interval classes they
// carry.
//
// DataInterval::data holds one interval class; the client tests which with
// dynamic_cast. Times are signed seconds since 1970 (32-bit on the wire).
#ifndef TALVIX_PROTOCOL_MESSAGES_DATA_H_
#define TALVIX_PROTOCOL_MESSAGES_DATA_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/message_base.h"
#include "protocol/message_lists.h"
#include "protocol/property_values.h"

namespace protocol {

class GetDataReq : public Message<GetDataReq> {
 public:
  std::string objectId;   // at most 32 octets
  std::string indexName;  // at most 16 octets
  bool flag = false;
  int32_t p1 = 0;
  int32_t p2 = 0;
  int32_t p3 = 0;  // 0..2000
  int32_t p4 = 0;
};

class GetDataResp : public Message<GetDataResp> {
 public:
  int32_t dataType = 0;  // 0..17
  std::vector<std::unique_ptr<DataInterval>> intervals;
};

class PutDataReq : public Message<PutDataReq> {
 public:
  std::string objectId;   // at most 32 octets
  std::string indexName;  // at most 16 octets
  int32_t dataType = 0;   // 0..17
  std::vector<std::unique_ptr<DataInterval>> intervals;
};

class PutDataResp : public Message<PutDataResp> {};

class GetLastDataReq : public Message<GetLastDataReq> {
 public:
  std::string objectId;   // at most 32 octets
  std::string indexName;  // at most 16 octets
};

class GetLastDataResp : public Message<GetLastDataResp> {
 public:
  int32_t dataType = 0;  // 0..17
  std::unique_ptr<DataInterval> data;  // required when written
};

class DataInterval : public Message<DataInterval> {
 public:
  std::unique_ptr<BerConstructed> data;  // one of the interval classes
};

// Measurements aggregated over [start, end].
class DataIntervalContinuous final : public Message<DataIntervalContinuous> {
 public:
  int32_t start = 0;
  int32_t end = 0;
  double max = 0.0;
  double avg = 0.0;
  double min = 0.0;
  uint32_t ngood = 0;
  uint32_t nbad = 0;
};

class DataIntervalSawtooth final : public Message<DataIntervalSawtooth> {
 public:
  int32_t start = 0;
  int32_t end = 0;
  double max = 0.0;
  double avg = 0.0;
  double min = 0.0;
  uint32_t ngood = 0;
  uint32_t nbad = 0;
};

class DataIntervalRawElement final : public Message<DataIntervalRawElement> {
 public:
  int32_t start = 0;
  int32_t end = 0;
  double max = 0.0;
  double avg = 0.0;
  double min = 0.0;
  uint32_t ngood = 0;
  uint32_t nbad = 0;
};

class DataIntervalEnum final : public Message<DataIntervalEnum> {
 public:
  int32_t start = 0;
  int32_t end = 0;
  uint32_t mask = 0;
  uint32_t ngood = 0;
  uint32_t nbad = 0;
};

class DataIntervalIncident final : public Message<DataIntervalIncident> {
 public:
  int32_t time = 0;
  int32_t severity = 0;  // Severity
  std::string message;   // at most 65536 octets
};

class DataIntervalContinuousDEPRECATED final : public Message<DataIntervalContinuousDEPRECATED> {
 public:
  int32_t start = 0;
  int32_t end = 0;
  double max = 0.0;
  double min = 0.0;
  std::vector<double> values;
};

class DataIntervalRawDEPRECATED final : public Message<DataIntervalRawDEPRECATED> {
 public:
  std::vector<std::unique_ptr<DataIntervalRawElement>> elements;
};

// Top-level messages of the grid link.
class GridDataIntervalList : public Message<GridDataIntervalList> {
 public:
  std::vector<std::unique_ptr<DataInterval>> intervals;
};

class GridPropertyList : public Message<GridPropertyList> {
 public:
  std::vector<std::unique_ptr<Property>> properties;
};

extern template class Message<GetDataReq>;
extern template class Message<GetDataResp>;
extern template class Message<PutDataReq>;
extern template class Message<PutDataResp>;
extern template class Message<GetLastDataReq>;
extern template class Message<GetLastDataResp>;
extern template class Message<DataInterval>;
extern template class Message<DataIntervalContinuous>;
extern template class Message<DataIntervalSawtooth>;
extern template class Message<DataIntervalRawElement>;
extern template class Message<DataIntervalEnum>;
extern template class Message<DataIntervalIncident>;
extern template class Message<DataIntervalContinuousDEPRECATED>;
extern template class Message<DataIntervalRawDEPRECATED>;
extern template class Message<GridDataIntervalList>;
extern template class Message<GridPropertyList>;

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_MESSAGES_DATA_H_
