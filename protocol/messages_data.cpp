// Field tables of the history requests and the interval classes.

#include "protocol/messages_data.h"

#include "protocol/message_schema.h"
#include "protocol/messages.h"

namespace protocol {

using namespace fields;  // NOLINT(build/namespaces): the table vocabulary

constexpr int32_t kMaxDataType = 17;

TALVIX_MESSAGE_CLASS(GetDataReq, alternative(6), 6,
                     text("objectId", &GetDataReq::objectId, 32),
                     text("indexName", &GetDataReq::indexName, 16),
                     boolean("flag", &GetDataReq::flag),
                     int32("p1", &GetDataReq::p1),
                     int32("p2", &GetDataReq::p2),
                     int32("p3", &GetDataReq::p3, 0, 2000),
                     int32("p4", &GetDataReq::p4))
TALVIX_MESSAGE_CLASS(GetDataResp, alternative(6), 2,
                     int32("dataType", &GetDataResp::dataType, 0, kMaxDataType),
                     list<ListOfDataInterval>("intervals", &GetDataResp::intervals))
TALVIX_MESSAGE_CLASS(PutDataReq, alternative(7), 4,
                     text("objectId", &PutDataReq::objectId, 32),
                     text("indexName", &PutDataReq::indexName, 16),
                     int32("dataType", &PutDataReq::dataType, 0, kMaxDataType),
                     list<ListOfDataInterval>("intervals", &PutDataReq::intervals))
TALVIX_MESSAGE_CLASS(PutDataResp, alternative(7), 0)
TALVIX_MESSAGE_CLASS(GetLastDataReq, alternative(8), 2,
                     text("objectId", &GetLastDataReq::objectId, 32),
                     text("indexName", &GetLastDataReq::indexName, 16))
TALVIX_MESSAGE_CLASS(GetLastDataResp, alternative(9), 2,
                     int32("dataType", &GetLastDataResp::dataType, 0, kMaxDataType),
                     pointer("data", &GetLastDataResp::data))

TALVIX_MESSAGE_CLASS(DataInterval, kSequence, 1,
                     choice<DataIntervalRawDEPRECATED, DataIntervalIncident,
                            DataIntervalContinuousDEPRECATED, DataIntervalSawtooth,
                            DataIntervalEnum, DataIntervalContinuous>("data",
                                                                      &DataInterval::data))

// The three measurement classes share one layout.
#define TALVIX_MEASUREMENT_CLASS(Self, tagPair)                         \
  TALVIX_MESSAGE_CLASS(Self, tagPair, 3,                                \
                       int32("start", &Self::start),                   \
                       int32("end", &Self::end),                       \
                       real("max", &Self::max),                        \
                       real("avg", &Self::avg),                        \
                       real("min", &Self::min),                        \
                       uint32("ngood", &Self::ngood),                  \
                       uint32("nbad", &Self::nbad))
TALVIX_MEASUREMENT_CLASS(DataIntervalContinuous, alternative(5))
TALVIX_MEASUREMENT_CLASS(DataIntervalSawtooth, alternative(3))
TALVIX_MEASUREMENT_CLASS(DataIntervalRawElement, kSequence)
#undef TALVIX_MEASUREMENT_CLASS

TALVIX_MESSAGE_CLASS(DataIntervalEnum, alternative(4), 3,
                     int32("start", &DataIntervalEnum::start),
                     int32("end", &DataIntervalEnum::end),
                     uint32("mask", &DataIntervalEnum::mask),
                     uint32("ngood", &DataIntervalEnum::ngood),
                     uint32("nbad", &DataIntervalEnum::nbad))
TALVIX_MESSAGE_CLASS(DataIntervalIncident, alternative(1), 3,
                     int32("time", &DataIntervalIncident::time),
                     enumerated<Severity>("severity", &DataIntervalIncident::severity),
                     text("message", &DataIntervalIncident::message, 65536))
TALVIX_MESSAGE_CLASS(DataIntervalContinuousDEPRECATED, alternative(2), 3,
                     int32("start", &DataIntervalContinuousDEPRECATED::start),
                     int32("end", &DataIntervalContinuousDEPRECATED::end),
                     real("max", &DataIntervalContinuousDEPRECATED::max),
                     real("min", &DataIntervalContinuousDEPRECATED::min),
                     list<ListOfReal>("values", &DataIntervalContinuousDEPRECATED::values))
TALVIX_MESSAGE_CLASS(DataIntervalRawDEPRECATED, alternative(0), 1,
                     list<ListOfDataIntervalRawElement>("elements",
                                                        &DataIntervalRawDEPRECATED::elements))

TALVIX_MESSAGE_CLASS(GridDataIntervalList, application(203), 1,
                     list<ListOfDataInterval>("intervals", &GridDataIntervalList::intervals))
TALVIX_MESSAGE_CLASS(GridPropertyList, application(179), 1,
                     list<ListOfProperty>("properties", &GridPropertyList::properties))

}  // namespace protocol
