// The message classes: every class, filled with non-default values, written
// in both encodings, read back and copied (top-level classes also through the
// shared protocol, one octet per read); then the failures of fields of each
// kind, optional children and write assertions.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "protocol/tags.h"
#include "support/ber_streams.h"
#include "support/error_text.h"

namespace {

using namespace protocol;  // NOLINT(build/namespaces)
using namespace support;  // NOLINT(build/namespaces)

// Drives newChild the way the reader does, probing each position with
// candidate tags until one is accepted: every field of a sequence gets a
// value, every list two elements (none below depth 3, so recursive classes
// end). A constructed child is a list when the reader owns it.
void fill(BerConstructed& value, bool legacy, int depth, bool list = false) {
  // The tags tried at each position, most wanted first: integers before
  // NULL so that nullable integers are present, sequences before primitives
  // so that lists of objects get objects.
  std::vector<TagCode> tags{BE_INTEGER, string_tag(legacy), BE_BOOLEAN, BE_REAL,
                            BE_ENUMERATED, seq_tag(legacy), set_tag(legacy)};
  if (list) tags.insert(tags.begin(), seq_tag(legacy));
  for (uint32_t n = 0; n <= 12; ++n) tags.push_back(choice_tag(n, legacy));
  tags.push_back(BE_NULL);
  const uint32_t limit = list ? (depth > 3 ? 0 : 2) : 64;
  for (uint32_t index = 0; index < limit; ++index) {
    ChildSlot slot;
    TagCode tag = 0;
    for (TagCode candidate : tags) {
      tag = candidate;
      const auto tried = [&] { slot = value.newChild(index, tag, Decoding{legacy}); };
      if (errorText<EBer>(tried) == "(no error)") break;
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
    // 5 lies inside every integer range of the schema.
    const std::string content = tag == BE_INTEGER ? "\x05" : tag == BE_BOOLEAN ? "\x01"
        : tag == BE_ENUMERATED ? "\x02" : tag == BE_REAL ? std::string("\0" "1.5", 4)
        : tag == BE_NULL ? "" : "abc";
    auto& primitive = dynamic_cast<BerPrimitive&>(*slot.value);
    primitive.readStart(content.size());
    if (!content.empty()) {
      primitive.readData(reinterpret_cast<const uint8_t*>(content.data()), content.size());
    }
    primitive.readDone();
  }
}

struct ClassCase {
  std::string name;
  MessageFactory make;
};

template <class... T>
std::vector<ClassCase> classes() {
  return {ClassCase{T::typeName(), [] {
    return std::unique_ptr<BerConstructed>(std::make_unique<T>());
  }}...};
}

const std::vector<ClassCase> kClasses = classes<
    // Handshake and session.
    ClientWants, ServerOffers, ClientNoAuth, ClientPrivateKey, ClientPassword, WantsLinkHandshake,
    ServerNoAuth, ServerPrivateKey, ServerPassword, LinkHandshakeInit, NegotiateAck, NegotiateNack,
    NewSession, NewSessionResp, ReopenSession, EndSession, AuthChallenge, AuthResponse,
    SporadicBignum, GSLNonce, GSLSignedNonce, DiffieHellmannParameters, UpgradeReq, UpgradeResp,
    ServerTimeReq, ServerTimeResp, GridMessage, GSLKeepAlive, DowntimeReq, DowntimeResp, HWScanReq,
    HWScanResp,
    // Envelopes, selects and object requests.
    Request, Response, PathPattern, RelativeExpr, Object, SelectReq, SelectResp, EraseReq,
    EraseResp, UpdateReq, UpdateResp, CreateReq, CreateResp, ForgetReq, ForgetResp, CallReq,
    CallResp, ErrorResp,
    // Properties.
    Property, StringProp, StringListProp, SignedIntProp, UnsignedIntProp, RealProp, BooleanProp,
    NullProp, BlobProp, UnsignedIntListProp, SignedInt64Prop, UnsignedInt64Prop, BigNumProp,
    LobProp, GridPropertyList,
    // History.
    GetDataReq, GetDataResp, PutDataReq, PutDataResp, GetLastDataReq, GetLastDataResp,
    DataInterval, DataIntervalContinuous, DataIntervalSawtooth, DataIntervalRawElement,
    DataIntervalEnum, DataIntervalIncident, DataIntervalContinuousDEPRECATED,
    DataIntervalRawDEPRECATED, GridDataIntervalList,
    // Checks and configuration.
    Check, CheckResult, CheckDescription, CheckGroup, CheckConf, CheckConfGroup, ContinuousConf,
    EnumConf, LogConf, RealContinuousConf, AdvLogConf, Rule, ActionConf, ActionConfGroup,
    HostInfoLine, ServerNamePort, ConfigureReq, ConfigureResp, CheckinReq, CheckinResp>();

TEST(Messages, EveryClassSurvivesWriteReadAndCopy) {
  for (const ClassCase& c : kClasses) {
    for (bool legacy : {false, true}) {
      SCOPED_TRACE(c.name + (legacy ? " legacy" : " current"));
      auto original = c.make();
      fill(*original, legacy, 0);
      if (HasFailure()) return;
      EXPECT_TRUE(original->requiredFields() == 0 || !(*original == *c.make())) << "defaults left";
      EXPECT_FALSE(*original == ForgetReq());
      const Bytes bytes = encode_message(*original, legacy);
      auto decoded = decode_messages(bytes, legacy, FactoryProtocol(c.make));
      ASSERT_EQ(1u, decoded.size());
      EXPECT_TRUE(*decoded[0] == *original);
      EXPECT_EQ(bytes, encode_message(*decoded[0], legacy));
      auto copy = original->clone();
      EXPECT_EQ(typeid(*original), typeid(*copy));
      EXPECT_EQ(bytes, encode_message(*copy, legacy));
      if (original->tag(false) != original->tag(true)) continue;  // not top level
      auto received = decode_messages(bytes, legacy, guiProtocol(), true);
      ASSERT_EQ(1u, received.size());
      EXPECT_EQ(typeid(*original), typeid(*received[0]));
      EXPECT_TRUE(*received[0] == *original);
    }
  }
}

// The text of the EBer from reading `hex` as one T.
template <class T>
std::string decode_failure(const std::string& hex, bool legacy = false) {
  try {
    decode_as<T>(from_hex(hex), legacy);
  } catch (const EBer& e) {
    return e.message();
  }
  return "";
}

// One row per kind of field; the reader's tests meet strings, integers,
// lists and choices of the wrong tag.
TEST(Messages, FailuresOfFieldsOfEveryKind) {
  std::vector<std::unique_ptr<Object>> objects;
  const std::pair<std::string, const char*> cases[] = {
      // A pattern of the wrong kind, a legacy property list element as a set.
      {decode_failure<SelectReq>("A0 80 31 80 00 00 31 80 00 00 00 00"),
       "Tag mismatch, got 137 expected BE_PATH_PATTERN_CURRENT"},
      {decode_failure<GridPropertyList>("76 80 20 80 21 80 00 00 00 00 00 00", true),
       "Tag mismatch, got 9 expected BE_PROPERTY_LEGACY"},
      {decode_failure<PathPattern>("30 80 04 00 02 01 00 04 00 00 00"),  // nullable number
       "Tag mismatch, got 32 expected BE_INTEGER"},
      {decode_failure<Check>("30 80 04 00 04 00 04 00 0A 00 04 00 01 01 00 00 00"),  // value
       "Unexpected tag 8 received in Union Check.this->value"},
      {errorText<EBer>([&] { ListOfObject(objects).clone(); }),
       "Copy constructor of ListOfObject invoked"},
  };
  for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
  // Three children of a DataIntervalContinuous are enough.
  const auto interval =
      decode_as<DataIntervalContinuous>(from_hex("A5 80 02 01 0A 02 01 14 09 00 00 00"), false);
  ASSERT_NE(nullptr, interval);
  EXPECT_EQ(to_hex(encode_message(*interval, false)),
            "A5 80 02 01 0A 02 01 14 09 00 09 00 09 00 02 01 00 02 01 00 00 00");
}

TEST(WriteAssertions, MissingPointerNullListElementAndNullValue) {
  EXPECT_DEATH(encode_message(SelectReq(), false),
               "Assertion failed: this->pattern is NULL during BER write");
  SelectResp resp;
  resp.objects.push_back(nullptr);
  EXPECT_DEATH(encode_message(resp, false), "Assertion failed: \\(\\*it\\) is NULL during BER write");
  EXPECT_DEATH(encode_message(RelativeExpr(), true), "this->prop is NULL during BER write");
  PathPattern pattern;
  EXPECT_DEATH(nullable_value(pattern.hasNumber, pattern.number), "Assertion failed: Value of null taken");
}

}  // namespace
