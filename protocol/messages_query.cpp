// Field tables of the envelopes, the select classes and the object requests.

#include "protocol/messages_query.h"

#include "protocol/message_schema.h"
#include "protocol/messages.h"

namespace protocol {

using namespace fields;  // NOLINT(build/namespaces): the table vocabulary

constexpr int32_t kIdMax = 0x7fffffff;

TALVIX_MESSAGE_CLASS(Request, application(163), 2,
                     int32("id", &Request::id, 0, kIdMax),
                     choice<SelectReq, EraseReq, UpdateReq, CreateReq, ForgetReq, GetDataReq,
                            PutDataReq, GetLastDataReq, CallReq>("req", &Request::req))
TALVIX_MESSAGE_CLASS(Response, application(171), 2,
                     int32("id", &Response::id, 0, kIdMax),
                     choice<SelectResp, EraseResp, UpdateResp, CreateResp, ForgetResp,
                            GetDataResp, PutDataResp, ErrorResp, GetLastDataResp, CallResp>(
                         "resp", &Response::resp))

TALVIX_MESSAGE_CLASS(PathPattern, kSequence, 7,
                     text("className", &PathPattern::className, 128),
                     uint32("flags", &PathPattern::flags),
                     nullable("number", &PathPattern::hasNumber, &PathPattern::number),
                     list<ListOfPathPattern>("children", &PathPattern::children),
                     list<ListOfPathPattern>("colonChildren", &PathPattern::colonChildren),
                     list<ListOfRelativeExpr>("conditions", &PathPattern::conditions),
                     list<SetOfString128>("properties", &PathPattern::properties))
TALVIX_MESSAGE_CLASS(RelativeExpr, kSequence, 2,
                     pointer("prop", &RelativeExpr::prop),
                     enumerated<RelOperator>("op", &RelativeExpr::op))
TALVIX_MESSAGE_CLASS(Object, kSequence, 7,
                     text("className", &Object::className, 128),
                     uint32("flags", &Object::flags),
                     text("id", &Object::id, 32),
                     text("text", &Object::text, 52),
                     droppable_list<ListOfProperty, &Object::nested>("properties",
                                                                     &Object::properties),
                     nesting_list<ListOfObject, &Object::nested>("children", &Object::children),
                     list<SetOfInteger0x0to0xffffffff>("numbers", &Object::numbers))

TALVIX_MESSAGE_CLASS(SelectReq, alternative(0), 3,
                     list<SetOfString32>("startIds", &SelectReq::startIds),
                     pointer("pattern", &SelectReq::pattern),
                     uint32("flags", &SelectReq::flags))
TALVIX_MESSAGE_CLASS(SelectResp, alternative(0), 1,
                     list<ListOfObject>("objects", &SelectResp::objects))
TALVIX_MESSAGE_CLASS(EraseReq, alternative(1), 2,
                     text("id", &EraseReq::id, 32),
                     text("text", &EraseReq::text, 52))
TALVIX_MESSAGE_CLASS(EraseResp, alternative(1), 0)
TALVIX_MESSAGE_CLASS(UpdateReq, alternative(2), 3,
                     text("id", &UpdateReq::id, 32),
                     text("text", &UpdateReq::text, 52),
                     list<ListOfProperty>("properties", &UpdateReq::properties))
TALVIX_MESSAGE_CLASS(UpdateResp, alternative(2), 0, text("text", &UpdateResp::text, 52))
TALVIX_MESSAGE_CLASS(CreateReq, alternative(3), 3,
                     text("parentId", &CreateReq::parentId, 32),
                     text("className", &CreateReq::className, 128),
                     list<ListOfProperty>("properties", &CreateReq::properties))
TALVIX_MESSAGE_CLASS(CreateResp, alternative(3), 1,
                     text("id", &CreateResp::id, 32),
                     text("text", &CreateResp::text, 52))
TALVIX_MESSAGE_CLASS(ForgetReq, alternative(5), 1, int32("id", &ForgetReq::id, 0, kIdMax))
TALVIX_MESSAGE_CLASS(ForgetResp, alternative(5), 0)
TALVIX_MESSAGE_CLASS(CallReq, alternative(9), 2,
                     int32("method", &CallReq::method),
                     list<ListOfProperty>("properties", &CallReq::properties),
                     list<ListOfObject>("objects", &CallReq::objects))
TALVIX_MESSAGE_CLASS(CallResp, alternative(10), 2,
                     list<ListOfProperty>("properties", &CallResp::properties),
                     list<ListOfObject>("objects", &CallResp::objects))
TALVIX_MESSAGE_CLASS(ErrorResp, alternative(8), 2,
                     int32("code", &ErrorResp::code),
                     list<ListOfString1024>("texts", &ErrorResp::texts))

}  // namespace protocol
