// The message classes: every class, filled with non-default values, written
// in both encodings, read back and copied (top-level classes also through the
// shared protocol, one octet per read); then the failures of fields of each
// kind, optional children, field limits and write assertions.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "protocol/tags.h"
#include "support/ber_streams.h"
#include "support/message_io.h"

namespace {

using namespace protocol;  // NOLINT(build/namespaces)
using support::Bytes;
using support::decode_as;
using support::decode_messages;
using support::encode_message;
using support::FactoryProtocol;
using support::from_hex;
using support::MessageFactory;

// Content octets the filler gives a primitive of each tag. 5 lies inside
// every integer range of the schema.
std::string content_for(TagCode tag) {
  switch (tag) {
    case BE_INTEGER: return "\x05";
    case BE_BOOLEAN: return "\x01";
    case BE_ENUMERATED: return "\x02";
    case BE_REAL: return std::string("\0" "1.5", 4);
    case BE_NULL: return "";
    default: return "abc";
  }
}

// The tags a filler tries at each position, most wanted first: integers
// before NULL so that nullable integers are present, sequences before
// primitives so that lists of objects get objects.
std::vector<TagCode> candidate_tags(bool legacy, bool list) {
  std::vector<TagCode> tags{BE_INTEGER, string_tag(legacy), BE_BOOLEAN, BE_REAL,
                            BE_ENUMERATED, seq_tag(legacy), set_tag(legacy)};
  if (list) tags.insert(tags.begin(), seq_tag(legacy));
  for (uint32_t n = 0; n <= 12; ++n) tags.push_back(choice_tag(n, legacy));
  tags.push_back(BE_NULL);
  return tags;
}

// Drives newChild the way the reader does, probing each position with the
// candidate tags until one is accepted: every field of a sequence gets a
// value, every list two elements (none below depth 3, so recursive classes
// end). A constructed child is a list when the reader owns it (a skipper
// never gets here).
void fill(BerConstructed& value, bool legacy, int depth, bool list = false) {
  const uint32_t limit = list ? (depth > 3 ? 0 : 2) : 64;
  for (uint32_t index = 0; index < limit; ++index) {
    ChildSlot slot;
    TagCode tag = 0;
    for (TagCode candidate : candidate_tags(legacy, list)) {
      try {
        slot = value.newChild(index, candidate, protocol::Decoding{legacy});
        tag = candidate;
        break;
      } catch (const EBer&) {
      }
    }
    ASSERT_NE(slot.value, nullptr) << "no tag fits position " << index;
    if (dynamic_cast<BerPrimitiveSkipper*>(slot.value) ||
        dynamic_cast<BerConstructedSkipper*>(slot.value)) {
      ASSERT_LE(value.requiredFields(), index);  // past the last field
      return;
    }
    ASSERT_EQ(tag, slot.value->tag(legacy));
    if (auto* c = dynamic_cast<BerConstructed*>(slot.value)) {
      fill(*c, legacy, depth + 1, slot.transient != nullptr);
      c->readDone();
      continue;
    }
    const std::string content = content_for(tag);
    auto& primitive = dynamic_cast<BerPrimitive&>(*slot.value);
    primitive.readStart(content.size());
    if (!content.empty()) {
      primitive.readData(reinterpret_cast<const uint8_t*>(content.data()), content.size());
    }
    primitive.readDone();
  }
}

struct ClassCase {
  const char* name;
  MessageFactory make;
};

#define CLASS(T) \
  ClassCase { #T, [] { return std::unique_ptr<BerConstructed>(std::make_unique<T>()); } }
const ClassCase kClasses[] = {
    // Handshake and session.
    CLASS(ClientWants), CLASS(ServerOffers), CLASS(ClientNoAuth), CLASS(ClientPrivateKey),
    CLASS(ClientPassword), CLASS(WantsLinkHandshake), CLASS(ServerNoAuth), CLASS(ServerPrivateKey),
    CLASS(ServerPassword), CLASS(LinkHandshakeInit), CLASS(NegotiateAck), CLASS(NegotiateNack),
    CLASS(NewSession), CLASS(NewSessionResp), CLASS(ReopenSession), CLASS(EndSession),
    CLASS(AuthChallenge), CLASS(AuthResponse), CLASS(SporadicBignum), CLASS(GSLNonce),
    CLASS(GSLSignedNonce), CLASS(DiffieHellmannParameters), CLASS(UpgradeReq), CLASS(UpgradeResp),
    CLASS(ServerTimeReq), CLASS(ServerTimeResp), CLASS(GridMessage), CLASS(GSLKeepAlive),
    CLASS(DowntimeReq), CLASS(DowntimeResp), CLASS(HWScanReq), CLASS(HWScanResp),
    // Envelopes, selects and object requests.
    CLASS(Request), CLASS(Response), CLASS(PathPattern), CLASS(RelativeExpr), CLASS(Object),
    CLASS(SelectReq), CLASS(SelectResp), CLASS(EraseReq), CLASS(EraseResp), CLASS(UpdateReq),
    CLASS(UpdateResp), CLASS(CreateReq), CLASS(CreateResp), CLASS(ForgetReq), CLASS(ForgetResp),
    CLASS(CallReq), CLASS(CallResp), CLASS(ErrorResp),
    // Properties.
    CLASS(Property), CLASS(StringProp), CLASS(StringListProp), CLASS(SignedIntProp),
    CLASS(UnsignedIntProp), CLASS(RealProp), CLASS(BooleanProp), CLASS(NullProp), CLASS(BlobProp),
    CLASS(UnsignedIntListProp), CLASS(SignedInt64Prop), CLASS(UnsignedInt64Prop), CLASS(BigNumProp),
    CLASS(LobProp), CLASS(GridPropertyList),
    // History.
    CLASS(GetDataReq), CLASS(GetDataResp), CLASS(PutDataReq), CLASS(PutDataResp),
    CLASS(GetLastDataReq), CLASS(GetLastDataResp), CLASS(DataInterval),
    CLASS(DataIntervalContinuous), CLASS(DataIntervalSawtooth), CLASS(DataIntervalRawElement),
    CLASS(DataIntervalEnum), CLASS(DataIntervalIncident), CLASS(DataIntervalContinuousDEPRECATED),
    CLASS(DataIntervalRawDEPRECATED), CLASS(GridDataIntervalList),
    // Checks and configuration.
    CLASS(Check), CLASS(CheckResult), CLASS(CheckDescription), CLASS(CheckGroup), CLASS(CheckConf),
    CLASS(CheckConfGroup), CLASS(ContinuousConf), CLASS(EnumConf), CLASS(LogConf),
    CLASS(RealContinuousConf), CLASS(AdvLogConf), CLASS(Rule), CLASS(ActionConf),
    CLASS(ActionConfGroup), CLASS(HostInfoLine), CLASS(ServerNamePort), CLASS(ConfigureReq),
    CLASS(ConfigureResp), CLASS(CheckinReq), CLASS(CheckinResp),
};
#undef CLASS

class EveryClass : public ::testing::TestWithParam<std::tuple<ClassCase, bool>> {};

TEST_P(EveryClass, SurvivesWriteReadAndCopy) {
  const auto& [c, legacy] = GetParam();
  auto original = c.make();
  fill(*original, legacy, 0);
  ASSERT_FALSE(HasFatalFailure());
  if (original->requiredFields() > 0) {
    EXPECT_FALSE(*original == *c.make()) << "filler left defaults";
  }
  EXPECT_FALSE(*original == ForgetReq());

  const Bytes bytes = encode_message(*original, legacy);
  auto decoded = decode_messages(bytes, legacy, FactoryProtocol(c.make));
  ASSERT_EQ(1u, decoded.size());
  EXPECT_TRUE(*decoded[0] == *original);
  EXPECT_EQ(bytes, encode_message(*decoded[0], legacy));
  auto copy = original->clone();
  EXPECT_EQ(typeid(*original), typeid(*copy));
  EXPECT_EQ(bytes, encode_message(*copy, legacy));
  EXPECT_EQ(bytes, encode_message(*decoded[0]->clone(), legacy));
  if (original->tag(false) == original->tag(true)) {  // top level
    auto received = decode_messages(bytes, legacy, guiProtocol(), true);
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(typeid(*original), typeid(*received[0]));
    EXPECT_TRUE(*received[0] == *original);
  }
}

INSTANTIATE_TEST_SUITE_P(Messages, EveryClass,
                         ::testing::Combine(::testing::ValuesIn(kClasses), ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "_legacy" : "_current");
                         });

// The text of the EBer that `action` throws; "" when none.
template <class F>
std::string ber_failure(F&& action) {
  try {
    action();
  } catch (const EBer& e) {
    return e.message();
  }
  return "";
}

// The failure of reading `hex` as one T.
template <class T>
std::string decode_failure(const std::string& hex, bool legacy = false) {
  return ber_failure([&] { decode_as<T>(from_hex(hex), legacy); });
}

TEST(Messages, FailuresOfFieldsOfEveryKind) {
  ForgetReq forget;
  forget.id = -1;
  Object object;
  object.id = std::string(33, 'i');
  std::vector<std::unique_ptr<Object>> objects;
  const struct {
    std::string got;
    const char* want;
  } cases[] = {
      // A string of the other encoding, an unknown value kind.
      {decode_failure<Property>("30 80 16 01 41 00 00"),
       "Tag mismatch, got 176 expected BE_STRING_CURRENT"},
      {decode_failure<Property>("30 80 04 00 02 01 06 AD 80 00 00 00 00"),
       "Unexpected tag 109 received in Union Property.this->data"},
      // A pattern of the wrong kind, a legacy property list element as a set.
      {decode_failure<SelectReq>("A0 80 31 80 00 00 31 80 00 00 00 00"),
       "Tag mismatch, got 137 expected BE_PATH_PATTERN_CURRENT"},
      {decode_failure<GridPropertyList>("76 80 20 80 21 80 00 00 00 00 00 00", true),
       "Tag mismatch, got 9 expected BE_PROPERTY_LEGACY"},
      // A nullable pattern number as a string.
      {decode_failure<PathPattern>("30 80 04 00 02 01 00 04 00 00 00"),
       "Tag mismatch, got 32 expected BE_INTEGER"},
      // A check value as BOOLEAN.
      {decode_failure<Check>("30 80 04 00 04 00 04 00 0A 00 04 00 01 01 00 00 00"),
       "Unexpected tag 8 received in Union Check.this->value"},
      // Three children of a DataIntervalContinuous are enough; two are too few.
      {decode_failure<DataIntervalContinuous>("A5 80 02 01 0A 02 01 14 00 00"),
       "Got to few fields of constructed value"},
      // Integer ranges and string lengths of fields, on writing.
      {ber_failure([&] { encode_message(forget, false); }),
       "data out of range in BerIntegerTemplate<int>::write 0 <= -1 <= 2147483647"},
      {ber_failure([&] { encode_message(object, false); }), "String exceeds allowed length 33 > 32"},
      // List adapters refuse to be copied.
      {ber_failure([&] { ListOfObject(objects).clone(); }), "Copy constructor of ListOfObject invoked"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.want, c.got);
  const auto interval =
      decode_as<DataIntervalContinuous>(from_hex("A5 80 02 01 0A 02 01 14 09 00 00 00"), false);
  ASSERT_NE(nullptr, interval);
  EXPECT_EQ(support::to_hex(encode_message(*interval, false)),
            "A5 80 02 01 0A 02 01 14 09 00 09 00 09 00 02 01 00 02 01 00 00 00");
}

TEST(WriteAssertions, MissingPointerNullListElementAndNullValue) {
  EXPECT_DEATH(encode_message(SelectReq(), false),
               "Assertion failed: this->pattern is NULL during BER write");
  SelectResp resp;
  resp.objects.push_back(nullptr);
  EXPECT_DEATH(encode_message(resp, false),
               "Assertion failed: \\(\\*it\\) is NULL during BER write");
  EXPECT_DEATH(encode_message(RelativeExpr(), true), "this->prop is NULL during BER write");
  PathPattern pattern;
  EXPECT_DEATH(nullable_value(pattern.hasNumber, pattern.number),
               "Assertion failed: Value of null taken");
}

}  // namespace
