// Element types and tags of the list and set classes.

#include "protocol/message_lists.h"

#include "protocol/message_schema.h"
#include "protocol/messages.h"

namespace protocol {

using fields::EnumCodec;
using fields::IntegerCodec;
using fields::PlainCodec;
using fields::PointerCodec;
using fields::RealCodec;
using fields::StringCodec;

constexpr bool kSet = true;
constexpr bool kList = false;

TALVIX_LIST_CLASS(SetOfString32, kSet, StringCodec(32))
TALVIX_LIST_CLASS(SetOfString128, kSet, StringCodec(128))
TALVIX_LIST_CLASS(ListOfString128, kList, StringCodec(128))
TALVIX_LIST_CLASS(ListOfString1024, kList, StringCodec(1024))
TALVIX_LIST_CLASS(ListOfInteger0x0to0xffffffff, kList, IntegerCodec<uint32_t>(0, 0xffffffffu))
TALVIX_LIST_CLASS(SetOfInteger0x0to0xffffffff, kSet, IntegerCodec<uint32_t>(0, 0xffffffffu))
TALVIX_LIST_CLASS(ListOfReal, kList, RealCodec())
TALVIX_LIST_CLASS(ListOfCheckStatus, kList, EnumCodec<CheckStatus>())

TALVIX_LIST_CLASS(ListOfPathPattern, kList, PointerCodec<PathPattern>())
TALVIX_LIST_CLASS(ListOfRelativeExpr, kList, PointerCodec<RelativeExpr>())
TALVIX_LIST_CLASS(ListOfObject, kList, PointerCodec<Object>())
TALVIX_LIST_CLASS(ListOfProperty, kList, PointerCodec<Property>())
TALVIX_LIST_CLASS(ListOfDataInterval, kList, PointerCodec<DataInterval>())
TALVIX_LIST_CLASS(ListOfDataIntervalRawElement, kList, PointerCodec<DataIntervalRawElement>())
TALVIX_LIST_CLASS(ListOfActionConf, kList, PointerCodec<ActionConf>())
TALVIX_LIST_CLASS(ListOfActionConfGroup, kList, PointerCodec<ActionConfGroup>())
TALVIX_LIST_CLASS(ListOfCheck, kList, PointerCodec<Check>())
TALVIX_LIST_CLASS(ListOfCheckConf, kList, PointerCodec<CheckConf>())
TALVIX_LIST_CLASS(ListOfCheckConfGroup, kList, PointerCodec<CheckConfGroup>())
TALVIX_LIST_CLASS(ListOfCheckDescription, kList, PointerCodec<CheckDescription>())
TALVIX_LIST_CLASS(ListOfCheckGroup, kList, PointerCodec<CheckGroup>())
TALVIX_LIST_CLASS(ListOfCheckResult, kList, PointerCodec<CheckResult>())
TALVIX_LIST_CLASS(ListOfHostInfoLine, kList, PointerCodec<HostInfoLine>())
TALVIX_LIST_CLASS(ListOfRule, kList, PointerCodec<Rule>())
TALVIX_LIST_CLASS(ListOfServerNamePort, kList, PointerCodec<ServerNamePort>())

}  // namespace protocol
