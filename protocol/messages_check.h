// The agent side of the protocol: configuring checks, checking in their
// results and the actions the server asks for. The exporter never sends or
// expects these, but it must decode any of them that arrives.
//
// Value choices (Check::value, ContinuousConf::alertIfAbove, ...) hold an
// owned INTEGER, string, NULL or REAL primitive.
#ifndef TALVIX_PROTOCOL_MESSAGES_CHECK_H_
#define TALVIX_PROTOCOL_MESSAGES_CHECK_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/message_base.h"
#include "protocol/message_lists.h"

namespace protocol {

class Check : public Message<Check> {
 public:
  std::string name;         // at most 128 octets
  std::string description;  // at most 128 octets
  std::string command;      // at most 512 octets
  int32_t type = 0;         // CheckType
  std::string unit;         // at most 128 octets
  std::unique_ptr<BerPrimitive> value;
  std::unique_ptr<BerPrimitive> min;
  std::unique_ptr<BerPrimitive> max;
  int32_t interval = 0;
};

class CheckResult : public Message<CheckResult> {
 public:
  int32_t time = 0;
  std::string name;  // at most 128 octets
  int32_t status = 0;  // CheckStatus
  std::vector<std::string> texts;  // each at most 128 octets
  std::unique_ptr<BerPrimitive> value;
  std::string id;  // at most 32 octets
};

class CheckDescription : public Message<CheckDescription> {
 public:
  int32_t id = 0;
  std::string name;         // at most 128 octets
  std::string description;  // at most 128 octets
  std::string text;         // at most 128 octets
};

class CheckGroup : public Message<CheckGroup> {
 public:
  std::string name;         // at most 128 octets
  std::string description;  // at most 128 octets
  std::vector<std::unique_ptr<Check>> checks;
  std::vector<std::unique_ptr<CheckGroup>> groups;
  std::string text;  // at most 128 octets
  bool enabled = false;
};

class CheckConf : public Message<CheckConf> {
 public:
  int32_t interval = 0;  // -1..86400
  std::string name;      // at most 128 octets
  std::unique_ptr<BerConstructed> conf;  // one of the *Conf classes below
  std::string id;  // at most 32 octets
};

class CheckConfGroup : public Message<CheckConfGroup> {
 public:
  std::string name;  // at most 128 octets
  std::vector<std::unique_ptr<CheckConf>> checks;
  std::vector<std::unique_ptr<CheckConfGroup>> groups;
};

// Alternatives of CheckConf::conf.
class ContinuousConf : public Message<ContinuousConf> {
 public:
  std::unique_ptr<BerPrimitive> alertIfAbove;
  std::unique_ptr<BerPrimitive> alertIfBelow;
  std::unique_ptr<BerPrimitive> warnIfAbove;
  std::unique_ptr<BerPrimitive> warnIfBelow;
};

class EnumConf : public Message<EnumConf> {
 public:
  std::vector<int32_t> statuses;  // CheckStatus values
};

class LogConf : public Message<LogConf> {};

class RealContinuousConf : public Message<RealContinuousConf> {
 public:
  std::unique_ptr<BerPrimitive> alertIfAbove;
  std::unique_ptr<BerPrimitive> alertIfBelow;
  std::unique_ptr<BerPrimitive> warnIfAbove;
  std::unique_ptr<BerPrimitive> warnIfBelow;
};

class AdvLogConf : public Message<AdvLogConf> {
 public:
  std::string separator;  // at most 1024 octets
  int32_t inclusion = 0;  // SeparatorInclusion
  std::vector<std::unique_ptr<Rule>> rules;
  bool hasFirst = false;  // nullable
  int32_t first = 0;
  bool hasLast = false;  // nullable
  int32_t last = 0;
};

class Rule : public Message<Rule> {
 public:
  std::string pattern;   // at most 1024 octets
  int32_t status = 0;    // CheckStatus
  int32_t decision = 0;  // Decision
  std::string id;        // at most 32 octets
};

class ActionConf : public Message<ActionConf> {
 public:
  std::string name;  // at most 128 octets
};

class ActionConfGroup : public Message<ActionConfGroup> {
 public:
  std::string name;  // at most 128 octets
  std::vector<std::unique_ptr<ActionConfGroup>> groups;
  std::vector<std::unique_ptr<ActionConf>> actions;
};

class HostInfoLine : public Message<HostInfoLine> {
 public:
  std::string name;   // at most 128 octets
  std::string value;  // at most 1024 octets
};

class ServerNamePort : public Message<ServerNamePort> {
 public:
  std::string name;  // at most 256 octets
  int32_t port = 0;  // 1..65535
};

// Top-level messages.
class ConfigureReq : public Message<ConfigureReq> {
 public:
  int32_t param1 = 0;
  int32_t param2 = 0;
  int32_t param3 = 0;
  int32_t param4 = 0;
  int32_t param5 = 0;
  std::vector<std::unique_ptr<HostInfoLine>> hostInfo;
  std::vector<std::unique_ptr<CheckGroup>> checkGroups;
  std::vector<std::unique_ptr<CheckDescription>> checkDescriptions;
};

class ConfigureResp : public Message<ConfigureResp> {
 public:
  std::string name;      // at most 128 octets
  int32_t interval = 0;  // -1..86400
  std::vector<std::unique_ptr<ServerNamePort>> servers;
  std::vector<std::unique_ptr<CheckConfGroup>> checkConfGroups;
};

class CheckinReq : public Message<CheckinReq> {
 public:
  std::vector<std::unique_ptr<CheckResult>> results;
};

class CheckinResp : public Message<CheckinResp> {
 public:
  bool flag1 = false;
  bool flag2 = false;
  bool flag3 = false;
  std::vector<std::unique_ptr<ActionConfGroup>> actionConfGroups;
  bool flag4 = false;
};

extern template class Message<Check>;
extern template class Message<CheckResult>;
extern template class Message<CheckDescription>;
extern template class Message<CheckGroup>;
extern template class Message<CheckConf>;
extern template class Message<CheckConfGroup>;
extern template class Message<ContinuousConf>;
extern template class Message<EnumConf>;
extern template class Message<LogConf>;
extern template class Message<RealContinuousConf>;
extern template class Message<AdvLogConf>;
extern template class Message<Rule>;
extern template class Message<ActionConf>;
extern template class Message<ActionConfGroup>;
extern template class Message<HostInfoLine>;
extern template class Message<ServerNamePort>;
extern template class Message<ConfigureReq>;
extern template class Message<ConfigureResp>;
extern template class Message<CheckinReq>;
extern template class Message<CheckinResp>;

}  // namespace protocol

#endif  // TALVIX_PROTOCOL_MESSAGES_CHECK_H_
