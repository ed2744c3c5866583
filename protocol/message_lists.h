// The ListOf and SetOf classes of the protocol: transient adapters that write
// and read a std::vector member of the enclosing message (see ListAdapter in
// message_base.h). Sets are stored and written in stored order, like lists;
// they differ only in their tag (SET instead of SEQUENCE).
//
// Elements of structured type are owned objects (std::unique_ptr); elements
// of primitive type are plain values.
#ifndef TALVIX_PROTOCOL_MESSAGE_LISTS_H_
#define TALVIX_PROTOCOL_MESSAGE_LISTS_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/message_base.h"

namespace protocol {

class ActionConf;
class ActionConfGroup;
class Check;
class CheckConf;
class CheckConfGroup;
class CheckDescription;
class CheckGroup;
class CheckResult;
class DataInterval;
class DataIntervalRawElement;
class HostInfoLine;
class Object;
class PathPattern;
class Property;
class RelativeExpr;
class Rule;
class ServerNamePort;

#define TALVIX_DECLARE_LIST(NAME, ELEMENT)                         \
  class NAME final : public ListAdapter<NAME, ELEMENT> {           \
   public:                                                         \
    using ListAdapter::ListAdapter;                                \
  };                                                               \
  extern template class ListAdapter<NAME, ELEMENT>;

// Primitive elements: strings of at most 32, 128 and 1024 octets, unsigned
// 32-bit integers, reals and CheckStatus enumeration values.
TALVIX_DECLARE_LIST(SetOfString32, std::string)
TALVIX_DECLARE_LIST(SetOfString128, std::string)
TALVIX_DECLARE_LIST(ListOfString128, std::string)
TALVIX_DECLARE_LIST(ListOfString1024, std::string)
TALVIX_DECLARE_LIST(ListOfInteger0x0to0xffffffff, uint32_t)
TALVIX_DECLARE_LIST(SetOfInteger0x0to0xffffffff, uint32_t)
TALVIX_DECLARE_LIST(ListOfReal, double)
TALVIX_DECLARE_LIST(ListOfCheckStatus, int32_t)

// Structured elements, each tagged as a plain sequence.
TALVIX_DECLARE_LIST(ListOfPathPattern, std::unique_ptr<PathPattern>)
TALVIX_DECLARE_LIST(ListOfRelativeExpr, std::unique_ptr<RelativeExpr>)
TALVIX_DECLARE_LIST(ListOfObject, std::unique_ptr<Object>)
TALVIX_DECLARE_LIST(ListOfProperty, std::unique_ptr<Property>)
TALVIX_DECLARE_LIST(ListOfDataInterval, std::unique_ptr<DataInterval>)
TALVIX_DECLARE_LIST(ListOfDataIntervalRawElement, std::unique_ptr<DataIntervalRawElement>)
TALVIX_DECLARE_LIST(ListOfActionConf, std::unique_ptr<ActionConf>)
TALVIX_DECLARE_LIST(ListOfActionConfGroup, std::unique_ptr<ActionConfGroup>)
TALVIX_DECLARE_LIST(ListOfCheck, std::unique_ptr<Check>)
TALVIX_DECLARE_LIST(ListOfCheckConf, std::unique_ptr<CheckConf>)
TALVIX_DECLARE_LIST(ListOfCheckConfGroup, std::unique_ptr<CheckConfGroup>)
TALVIX_DECLARE_LIST(ListOfCheckDescription, std::unique_ptr<CheckDescription>)
TALVIX_DECLARE_LIST(ListOfCheckGroup, std::unique_ptr<CheckGroup>)
TALVIX_DECLARE_LIST(ListOfCheckResult, std::unique_ptr<CheckResult>)
TALVIX_DECLARE_LIST(ListOfHostInfoLine, std::unique_ptr<HostInfoLine>)
TALVIX_DECLARE_LIST(ListOfRule, std::unique_ptr<Rule>)
TALVIX_DECLARE_LIST(ListOfServerNamePort, std::unique_ptr<ServerNamePort>)

#undef TALVIX_DECLARE_LIST

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_MESSAGE_LISTS_H_
