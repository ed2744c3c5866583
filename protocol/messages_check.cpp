// Field tables of the check configuration and check-in messages.

#include "protocol/messages_check.h"

#include "protocol/message_schema.h"
#include "protocol/messages.h"

namespace protocol {

using namespace fields;  // NOLINT(build/namespaces): the table vocabulary

constexpr int32_t kMinInterval = -1;
constexpr int32_t kMaxInterval = 86400;

TALVIX_MESSAGE_CLASS(Check, kSequence, 7,
                     text("name", &Check::name, 128),
                     text("description", &Check::description, 128),
                     text("command", &Check::command, 512),
                     enumerated<CheckType>("type", &Check::type),
                     text("unit", &Check::unit, 128),
                     value("value", &Check::value),
                     value("min", &Check::min),
                     value("max", &Check::max),
                     int32("interval", &Check::interval))
TALVIX_MESSAGE_CLASS(CheckResult, kSequence, 5,
                     int32("time", &CheckResult::time),
                     text("name", &CheckResult::name, 128),
                     enumerated<CheckStatus>("status", &CheckResult::status),
                     list<ListOfString128>("texts", &CheckResult::texts),
                     value("value", &CheckResult::value),
                     text("id", &CheckResult::id, 32))
TALVIX_MESSAGE_CLASS(CheckDescription, kSequence, 4,
                     int32("id", &CheckDescription::id),
                     text("name", &CheckDescription::name, 128),
                     text("description", &CheckDescription::description, 128),
                     text("text", &CheckDescription::text, 128))
TALVIX_MESSAGE_CLASS(CheckGroup, kSequence, 4,
                     text("name", &CheckGroup::name, 128),
                     text("description", &CheckGroup::description, 128),
                     list<ListOfCheck>("checks", &CheckGroup::checks),
                     list<ListOfCheckGroup>("groups", &CheckGroup::groups),
                     text("text", &CheckGroup::text, 128),
                     boolean("enabled", &CheckGroup::enabled))
TALVIX_MESSAGE_CLASS(CheckConf, kSequence, 3,
                     int32("interval", &CheckConf::interval, kMinInterval, kMaxInterval),
                     text("name", &CheckConf::name, 128),
                     choice<ContinuousConf, EnumConf, LogConf, RealContinuousConf, AdvLogConf>(
                         "conf", &CheckConf::conf),
                     text("id", &CheckConf::id, 32))
TALVIX_MESSAGE_CLASS(CheckConfGroup, kSequence, 3,
                     text("name", &CheckConfGroup::name, 128),
                     list<ListOfCheckConf>("checks", &CheckConfGroup::checks),
                     list<ListOfCheckConfGroup>("groups", &CheckConfGroup::groups))

// The two threshold classes share one layout.
#define TALVIX_THRESHOLD_CLASS(Self, n)                                   \
  TALVIX_MESSAGE_CLASS(Self, alternative(n), 2,                          \
                       value("alertIfAbove", &Self::alertIfAbove),       \
                       value("alertIfBelow", &Self::alertIfBelow),       \
                       value("warnIfAbove", &Self::warnIfAbove),         \
                       value("warnIfBelow", &Self::warnIfBelow))
TALVIX_THRESHOLD_CLASS(ContinuousConf, 0)
TALVIX_THRESHOLD_CLASS(RealContinuousConf, 3)
#undef TALVIX_THRESHOLD_CLASS

TALVIX_MESSAGE_CLASS(EnumConf, alternative(1), 1,
                     list<ListOfCheckStatus>("statuses", &EnumConf::statuses))
TALVIX_MESSAGE_CLASS(LogConf, alternative(2), 0)
TALVIX_MESSAGE_CLASS(AdvLogConf, alternative(4), 3,
                     text("separator", &AdvLogConf::separator, 1024),
                     enumerated<SeparatorInclusion>("inclusion", &AdvLogConf::inclusion),
                     list<ListOfRule>("rules", &AdvLogConf::rules),
                     nullable("first", &AdvLogConf::hasFirst, &AdvLogConf::first),
                     nullable("last", &AdvLogConf::hasLast, &AdvLogConf::last))
TALVIX_MESSAGE_CLASS(Rule, kSequence, 3,
                     text("pattern", &Rule::pattern, 1024),
                     enumerated<CheckStatus>("status", &Rule::status),
                     enumerated<Decision>("decision", &Rule::decision),
                     text("id", &Rule::id, 32))
TALVIX_MESSAGE_CLASS(ActionConf, kSequence, 1, text("name", &ActionConf::name, 128))
TALVIX_MESSAGE_CLASS(ActionConfGroup, kSequence, 3,
                     text("name", &ActionConfGroup::name, 128),
                     list<ListOfActionConfGroup>("groups", &ActionConfGroup::groups),
                     list<ListOfActionConf>("actions", &ActionConfGroup::actions))
TALVIX_MESSAGE_CLASS(HostInfoLine, kSequence, 2,
                     text("name", &HostInfoLine::name, 128),
                     text("value", &HostInfoLine::value, 1024))
TALVIX_MESSAGE_CLASS(ServerNamePort, kSequence, 2,
                     text("name", &ServerNamePort::name, 256),
                     int32("port", &ServerNamePort::port, 1, 65535))

TALVIX_MESSAGE_CLASS(ConfigureReq, application(67), 5,
                     int32("param1", &ConfigureReq::param1),
                     int32("param2", &ConfigureReq::param2),
                     int32("param3", &ConfigureReq::param3),
                     int32("param4", &ConfigureReq::param4),
                     int32("param5", &ConfigureReq::param5),
                     list<ListOfHostInfoLine>("hostInfo", &ConfigureReq::hostInfo),
                     list<ListOfCheckGroup>("checkGroups", &ConfigureReq::checkGroups),
                     list<ListOfCheckDescription>("checkDescriptions",
                                                  &ConfigureReq::checkDescriptions))
TALVIX_MESSAGE_CLASS(ConfigureResp, application(75), 4,
                     text("name", &ConfigureResp::name, 128),
                     int32("interval", &ConfigureResp::interval, kMinInterval, kMaxInterval),
                     list<ListOfServerNamePort>("servers", &ConfigureResp::servers),
                     list<ListOfCheckConfGroup>("checkConfGroups",
                                                &ConfigureResp::checkConfGroups))
TALVIX_MESSAGE_CLASS(CheckinReq, application(83), 1,
                     list<ListOfCheckResult>("results", &CheckinReq::results))
TALVIX_MESSAGE_CLASS(CheckinResp, application(91), 5,
                     boolean("flag1", &CheckinResp::flag1),
                     boolean("flag2", &CheckinResp::flag2),
                     boolean("flag3", &CheckinResp::flag3),
                     list<ListOfActionConfGroup>("actionConfGroups",
                                                 &CheckinResp::actionConfGroups),
                     boolean("flag4", &CheckinResp::flag4))

}  // namespace protocol
