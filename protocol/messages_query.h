// The request and response envelopes and the object requests: selects with
// their path patterns and result objects, erase, update, create, call,
// forget and the server's error answer.
//
// Request::req and Response::resp hold one alternative; after receiving, the
// caller tests its class with dynamic_cast. The history requests that can
// also travel in them live in messages_data.h.
#ifndef TALVIX_PROTOCOL_MESSAGES_QUERY_H_
#define TALVIX_PROTOCOL_MESSAGES_QUERY_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/message_base.h"
#include "protocol/message_lists.h"
#include "protocol/property_values.h"

namespace protocol {

// A step of a TQL path pattern, as the parser builds it.
class PathPattern : public Message<PathPattern> {
 public:
  std::string className;  // at most 128 octets
  uint32_t flags = 0;
  bool hasNumber = false;  // number is NULL on the wire when false
  uint32_t number = 0;
  std::vector<std::unique_ptr<PathPattern>> children;
  std::vector<std::unique_ptr<PathPattern>> colonChildren;
  std::vector<std::unique_ptr<RelativeExpr>> conditions;
  std::vector<std::string> properties;  // a set, each at most 128 octets
};

// A condition: the property with the constant, and the operator.
class RelativeExpr : public Message<RelativeExpr> {
 public:
  std::unique_ptr<Property> prop;  // required when written
  int32_t op = 0;                  // RelOperator
};

// One object of a select result.
class Object : public Message<Object> {
 public:
  std::string className;  // at most 128 octets
  uint32_t flags = 0;
  std::string id;    // at most 32 octets
  std::string text;  // at most 52 octets
  std::vector<std::unique_ptr<Property>> properties;
  std::vector<std::unique_ptr<Object>> children;
  std::vector<uint32_t> numbers;  // a set
  // Not on the wire: set on decoding for the objects among another object's
  // children (see Decoding::nestedProperties).
  bool nested = false;
};

class Request : public Message<Request> {
 public:
  int32_t id = 0;  // 0..0x7fffffff
  std::unique_ptr<BerConstructed> req;
};

class Response : public Message<Response> {
 public:
  int32_t id = 0;  // 0..0x7fffffff
  std::unique_ptr<BerConstructed> resp;
};

class SelectReq : public Message<SelectReq> {
 public:
  std::vector<std::string> startIds;  // a set, each at most 32 octets
  std::unique_ptr<PathPattern> pattern;  // required when written
  uint32_t flags = 0;
};

class SelectResp : public Message<SelectResp> {
 public:
  std::vector<std::unique_ptr<Object>> objects;
};

class EraseReq : public Message<EraseReq> {
 public:
  std::string id;    // at most 32 octets
  std::string text;  // at most 52 octets
};

class EraseResp : public Message<EraseResp> {};

class UpdateReq : public Message<UpdateReq> {
 public:
  std::string id;    // at most 32 octets
  std::string text;  // at most 52 octets
  std::vector<std::unique_ptr<Property>> properties;
};

class UpdateResp : public Message<UpdateResp> {
 public:
  std::string text;  // at most 52 octets, optional
};

class CreateReq : public Message<CreateReq> {
 public:
  std::string parentId;   // at most 32 octets
  std::string className;  // at most 128 octets
  std::vector<std::unique_ptr<Property>> properties;
};

class CreateResp : public Message<CreateResp> {
 public:
  std::string id;    // at most 32 octets
  std::string text;  // at most 52 octets, optional
};

class ForgetReq : public Message<ForgetReq> {
 public:
  int32_t id = 0;  // the request to forget, 0..0x7fffffff
};

class ForgetResp : public Message<ForgetResp> {};

class CallReq : public Message<CallReq> {
 public:
  int32_t method = 0;
  std::vector<std::unique_ptr<Property>> properties;
  std::vector<std::unique_ptr<Object>> objects;
};

class CallResp : public Message<CallResp> {
 public:
  std::vector<std::unique_ptr<Property>> properties;
  std::vector<std::unique_ptr<Object>> objects;
};

// The server refused a request: its error code and texts.
class ErrorResp : public Message<ErrorResp> {
 public:
  int32_t code = 0;
  std::vector<std::string> texts;  // each at most 1024 octets
};

extern template class Message<PathPattern>;
extern template class Message<RelativeExpr>;
extern template class Message<Object>;
extern template class Message<Request>;
extern template class Message<Response>;
extern template class Message<SelectReq>;
extern template class Message<SelectResp>;
extern template class Message<EraseReq>;
extern template class Message<EraseResp>;
extern template class Message<UpdateReq>;
extern template class Message<UpdateResp>;
extern template class Message<CreateReq>;
extern template class Message<CreateResp>;
extern template class Message<ForgetReq>;
extern template class Message<ForgetResp>;
extern template class Message<CallReq>;
extern template class Message<CallResp>;
extern template class Message<ErrorResp>;

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_MESSAGES_QUERY_H_
