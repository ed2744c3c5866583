// The message classes: literal encodings of the select, forget and pattern
// messages, tag and choice failures, skipped and missing children, write
// assertions, the top-level factory, and a round trip of every class in
// both encodings through the stream reader.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "protocol/tags.h"
#include "support/ber_streams.h"
#include "support/message_io.h"

namespace {

using namespace protocol;  // NOLINT(build/namespaces)
using testing_support::Bytes;
using testing_support::decode_as;
using testing_support::decode_messages;
using testing_support::encode_message;
using testing_support::FactoryProtocol;
using testing_support::from_hex;
using testing_support::to_hex;

std::string hex_of(const BerValue& message, bool legacy) {
  return to_hex(encode_message(message, legacy));
}

// The text of the EBer that reading `hex` as one T throws; "" when none.
template <class T>
std::string decode_failure(const std::string& hex, bool legacy = false) {
  try {
    decode_as<T>(from_hex(hex), legacy);
  } catch (const EBer& e) {
    return e.message();
  }
  return "";
}

std::unique_ptr<Request> select_request() {
  auto pattern = std::make_unique<PathPattern>();
  pattern->className = ".";
  auto select = std::make_unique<SelectReq>();
  select->startIds = {"X"};
  select->pattern = std::move(pattern);
  auto request = std::make_unique<Request>();
  request->id = 1;
  request->req = std::move(select);
  return request;
}

const char kSelectRequest[] =
    "74 80 02 01 01 A0 80 31 80 04 01 58 00 00 "
    "30 80 04 01 2E 02 01 00 05 00 30 80 00 00 30 80 00 00 30 80 00 00 31 80 00 00 00 00 "
    "02 01 00 00 00 00 00";

TEST(SelectRequest, EncodesAsTheServerExpects) {
  EXPECT_EQ(to_hex(from_hex(kSelectRequest)), hex_of(*select_request(), false));
}

TEST(SelectRequest, DecodesBackToTheSameRequest) {
  auto messages = decode_messages(from_hex(kSelectRequest), false, guiProtocol());
  ASSERT_EQ(1u, messages.size());
  auto* request = dynamic_cast<Request*>(messages[0].get());
  ASSERT_NE(nullptr, request);
  EXPECT_TRUE(*request == *select_request());
  auto* select = dynamic_cast<SelectReq*>(request->req.get());
  ASSERT_NE(nullptr, select);
  ASSERT_NE(nullptr, select->pattern);
  EXPECT_EQ(".", select->pattern->className);
  EXPECT_FALSE(select->pattern->hasNumber);
}

TEST(SelectRequest, WritingWithoutPatternIsAnAssertion) {
  SelectReq select;
  EXPECT_DEATH(encode_message(select, false),
               "Assertion failed: this->pattern is NULL during BER write");
}

TEST(WriteAssertions, NullListElementAndNullValue) {
  SelectResp resp;
  resp.objects.push_back(nullptr);
  EXPECT_DEATH(encode_message(resp, false), "Assertion failed: \\(\\*it\\) is NULL during BER write");
  RelativeExpr expr;
  EXPECT_DEATH(encode_message(expr, true), "this->prop is NULL during BER write");
  PathPattern pattern;
  EXPECT_DEATH(nullable_value(pattern.hasNumber, pattern.number),
               "Assertion failed: Value of null taken");
  pattern.hasNumber = true;
  pattern.number = 4;
  EXPECT_EQ(4u, nullable_value(pattern.hasNumber, pattern.number));
}

Response forget_response() {
  Response response;
  response.id = 7;
  response.resp = std::make_unique<ForgetResp>();
  return response;
}

TEST(ForgetResponse, EncodesInBothEncodings) {
  EXPECT_EQ("75 80 02 01 07 A5 80 00 00 00 00", hex_of(forget_response(), false));
  EXPECT_EQ("75 80 02 01 07 65 80 00 00 00 00", hex_of(forget_response(), true));
}

TEST(ForgetResponse, LegacyAlternativeIsRejectedInTheCurrentEncoding) {
  try {
    decode_messages(from_hex("75 80 02 01 07 65 80 00 00 00 00"), false, guiProtocol());
    FAIL() << "no failure";
  } catch (const EBer& e) {
    EXPECT_EQ("Unexpected tag 43 received in Union Response.this->resp", e.message());
    EXPECT_EQ(", BerReader: protocol::Response:2", e.detail);
  }
}

TEST(ForgetResponse, EachEncodingReadsItsOwnForm) {
  for (bool legacy : {false, true}) {
    auto messages = decode_messages(encode_message(forget_response(), legacy), legacy, guiProtocol());
    ASSERT_EQ(1u, messages.size()) << legacy;
    EXPECT_TRUE(*messages[0] == forget_response()) << legacy;
  }
}

// Tag checks: plain fields, named sequences, lists, choices, value choices
// and nullable integers, each with its own text.
struct TagFailure {
  const char* what;
  std::string (*decode)(const std::string& hex, bool legacy);
  const char* hex;
  bool legacy;
  const char* text;
};

const TagFailure kTagFailures[] = {
    {"Property name sent as INTEGER", decode_failure<Property>, "30 80 02 01 05 00 00", false,
     "Tag mismatch, got 16 expected BE_STRING_CURRENT"},
    {"legacy string in the current encoding", decode_failure<Property>, "30 80 16 01 41 00 00",
     false, "Tag mismatch, got 176 expected BE_STRING_CURRENT"},
    {"current string in the legacy encoding", decode_failure<Property>, "20 80 04 01 41 00 00",
     true, "Tag mismatch, got 32 expected BE_STRING_LEGACY"},
    {"type word sent as BOOLEAN", decode_failure<Property>, "30 80 04 00 01 01 00 00 00", false,
     "Tag mismatch, got 8 expected BE_INTEGER"},
    {"property value of an unknown alternative", decode_failure<Property>,
     "30 80 04 00 02 01 06 AD 80 00 00 00 00", false,
     "Unexpected tag 109 received in Union Property.this->data"},
    {"pattern sent as a set", decode_failure<SelectReq>, "A0 80 31 80 00 00 31 80 00 00 00 00",
     false, "Tag mismatch, got 137 expected BE_PATH_PATTERN_CURRENT"},
    {"start ids sent as a sequence", decode_failure<SelectReq>, "A0 80 30 80 00 00 00 00", false,
     "Tag mismatch, got 129 expected BE_SET_CURRENT"},
    {"object properties sent as a set (legacy)", decode_failure<Object>,
     "20 80 16 00 02 01 00 16 00 16 00 21 80 00 00 00 00", true,
     "Tag mismatch, got 9 expected BE_SEQ_LEGACY"},
    {"property list element sent as a set (legacy)", decode_failure<GridPropertyList>,
     "76 80 20 80 21 80 00 00 00 00 00 00", true,
     "Tag mismatch, got 9 expected BE_PROPERTY_LEGACY"},
    {"raw element list element as a string", decode_failure<DataIntervalRawDEPRECATED>,
     "A0 80 30 80 04 00 00 00 00 00", false,
     "Tag mismatch, got 32 expected BE_DATA_INTERVAL_RAW_ELEMENT_CURRENT"},
    {"pattern number sent as a string", decode_failure<PathPattern>,
     "30 80 04 00 02 01 00 04 00 00 00", false, "Tag mismatch, got 32 expected BE_INTEGER"},
    {"operator sent as INTEGER", decode_failure<RelativeExpr>,
     "30 80 30 80 04 00 02 01 06 A6 80 00 00 00 00 02 01 00 00 00", false,
     "Tag mismatch, got 16 expected BE_ENUMERATED"},
    {"check value sent as BOOLEAN", decode_failure<Check>,
     "30 80 04 00 04 00 04 00 0A 00 04 00 01 01 00 00 00", false,
     "Unexpected tag 8 received in Union Check.this->value"},
    {"check value as a legacy string in the current encoding", decode_failure<Check>,
     "30 80 04 00 04 00 04 00 0A 00 04 00 16 00 00 00", false,
     "Unexpected tag 176 received in Union Check.this->value"},
    {"interval of an unknown kind", decode_failure<DataInterval>, "30 80 A6 80 00 00 00 00", false,
     "Unexpected tag 53 received in Union DataInterval.this->data"},
};

class TagFailures : public ::testing::TestWithParam<TagFailure> {};

TEST_P(TagFailures, ThrowWithTheirText) {
  const TagFailure& c = GetParam();
  EXPECT_EQ(c.text, c.decode(c.hex, c.legacy)) << c.what;
}

INSTANTIATE_TEST_SUITE_P(Messages, TagFailures, ::testing::ValuesIn(kTagFailures));

TEST(Object, UnknownTrailingChildIsSkipped) {
  const std::string seven =
      "30 80 04 04 4E 6F 64 65 02 01 03 04 02 69 64 04 00 30 80 00 00 30 80 00 00 31 80 02 01 09 00 00";
  auto object = decode_as<Object>(from_hex(seven + " A3 80 04 01 41 30 80 02 01 01 00 00 00 00 00 00"),
                                  false);
  ASSERT_NE(nullptr, object);
  EXPECT_EQ("Node", object->className);
  EXPECT_EQ(3u, object->flags);
  EXPECT_EQ("id", object->id);
  EXPECT_EQ(std::vector<uint32_t>{9}, object->numbers);
  EXPECT_EQ(seven + " 00 00", hex_of(*object, false));
}

TEST(Object, SixChildrenAreTooFew) {
  EXPECT_EQ("Got to few fields of constructed value",
            decode_failure<Object>("30 80 04 00 02 01 00 04 00 04 00 30 80 00 00 30 80 00 00 00 00"));
}

TEST(DataIntervalContinuous, ThreeChildrenLeaveTheRestZero) {
  auto interval = decode_as<DataIntervalContinuous>(
      from_hex("A5 80 02 01 0A 02 01 14 09 00 00 00"), false);
  ASSERT_NE(nullptr, interval);
  EXPECT_EQ(10, interval->start);
  EXPECT_EQ(20, interval->end);
  EXPECT_EQ(0.0, interval->max);
  EXPECT_EQ(0.0, interval->avg);
  EXPECT_EQ(0u, interval->ngood);
  EXPECT_EQ(0u, interval->nbad);
  EXPECT_EQ("Got to few fields of constructed value",
            decode_failure<DataIntervalContinuous>("A5 80 02 01 0A 02 01 14 00 00"));
}

TEST(PathPattern, NullNumberIsReadAndWrittenBack) {
  const std::string hex = "30 80 04 01 2A 02 01 01 05 00 30 80 00 00 30 80 00 00 30 80 00 00 31 80 00 00 00 00";
  auto pattern = decode_as<PathPattern>(from_hex(hex), false);
  ASSERT_NE(nullptr, pattern);
  EXPECT_FALSE(pattern->hasNumber);
  EXPECT_EQ(hex, hex_of(*pattern, false));

  pattern->hasNumber = true;
  pattern->number = 0x80000000u;
  auto again = decode_as<PathPattern>(encode_message(*pattern, true), true);
  ASSERT_NE(nullptr, again);
  EXPECT_TRUE(again->hasNumber);
  EXPECT_EQ(0x80000000u, again->number);
}

TEST(Limits, RangesAndLengthsOfFieldsAreEnforced) {
  ForgetReq forget;
  forget.id = -1;
  try {
    encode_message(forget, false);
    FAIL() << "negative request id written";
  } catch (const EBer& e) {
    EXPECT_EQ("data out of range in BerIntegerTemplate<int>::write 0 <= -1 <= 2147483647",
              e.message());
  }
  Object object;
  object.id = std::string(33, 'i');
  try {
    encode_message(object, false);
    FAIL() << "overlong id written";
  } catch (const EBer& e) {
    EXPECT_EQ("String exceeds allowed length 33 > 32", e.message());
  }
  EXPECT_EQ("data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17",
            decode_failure<GetDataResp>("A6 80 02 01 12 30 80 00 00 00 00"));
}

TEST(ListAdapters, RefuseToBeCopied) {
  std::vector<std::unique_ptr<Object>> objects;
  std::vector<std::string> ids;
  std::vector<uint32_t> numbers;
  struct {
    std::unique_ptr<BerConstructed> adapter;
    const char* text;
  } cases[] = {
      {std::make_unique<ListOfObject>(objects), "Copy constructor of ListOfObject invoked"},
      {std::make_unique<SetOfString32>(ids), "Copy constructor of SetOfString32 invoked"},
      {std::make_unique<SetOfInteger0x0to0xffffffff>(numbers),
       "Copy constructor of SetOfInteger0x0to0xffffffff invoked"},
  };
  for (auto& c : cases) {
    try {
      c.adapter->clone();
      ADD_FAILURE() << c.text;
    } catch (const EBer& e) {
      EXPECT_EQ(c.text, e.message());
    }
    EXPECT_TRUE(c.adapter->disposeAfterRead());
    EXPECT_EQ(0u, c.adapter->requiredFields());
  }
  EXPECT_EQ(BE_SET_LEGACY, SetOfString32(ids).tag(true));
  EXPECT_EQ(BE_SEQ_CURRENT, ListOfObject(objects).tag(false));
}

TEST(Messages, CompareFieldByField) {
  auto a = select_request();
  auto b = select_request();
  EXPECT_TRUE(*a == *b);
  EXPECT_FALSE(*a < *b || *a > *b);
  dynamic_cast<SelectReq&>(*b->req).pattern->className = "..";
  EXPECT_FALSE(*a == *b);
  EXPECT_TRUE(*a < *b);
  EXPECT_TRUE(*b > *a);
  EXPECT_FALSE(*a == ForgetReq());
  auto copy = b->copy();
  EXPECT_TRUE(*copy == *b);
  EXPECT_NE(b->req.get(), copy->req.get());
}

TEST(GuiProtocol, MakesEveryTopLevelMessageAndNothingElse) {
  const TagCode tags[] = {3,   11,  19,  27,  35,  43,  51,  59,  67,  75,  83,
                          91,  99,  107, 131, 139, 147, 155, 163, 171, 179, 187,
                          195, 203, 211, 219, 227, 235, 243, 251, 259, 267};
  for (TagCode tag : tags) {
    for (bool legacy : {false, true}) {
      auto message = guiProtocol().makeMessage(tag, legacy);
      ASSERT_NE(nullptr, message) << tag;
      EXPECT_EQ(tag, message->tag(legacy)) << tag;
    }
  }
  EXPECT_NE(nullptr, dynamic_cast<Request*>(guiProtocol().makeMessage(163, false).get()));
  EXPECT_NE(nullptr, dynamic_cast<HWScanResp*>(guiProtocol().makeMessage(267, true).get()));
  for (TagCode tag : {115u, 123u, 129u, 1u, 165u, 275u}) {
    try {
      guiProtocol().makeMessage(tag, false);
      ADD_FAILURE() << tag;
    } catch (const EBer& e) {
      EXPECT_EQ("Unknown tag " + std::to_string(tag), e.message());
    }
  }
}

}  // namespace
