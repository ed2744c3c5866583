// The message classes: literal encodings of the select and forget messages,
// tag and choice failures, optional and missing children, write assertions,
// field limits, comparison and deep copies.

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
using testing_support::decode_as;
using testing_support::decode_messages;
using testing_support::encode_message;
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

std::string write_failure(const BerValue& message) {
  try {
    encode_message(message, false);
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

TEST(SelectRequest, EncodesAsTheServerExpectsAndDecodesBack) {
  EXPECT_EQ(to_hex(from_hex(kSelectRequest)), hex_of(*select_request(), false));
  auto messages = decode_messages(from_hex(kSelectRequest), false, guiProtocol());
  ASSERT_EQ(1u, messages.size());
  EXPECT_TRUE(*messages[0] == *select_request());
}

TEST(ForgetResponse, EncodesAndDecodesInBothEncodings) {
  Response response;
  response.id = 7;
  response.resp = std::make_unique<ForgetResp>();
  for (bool legacy : {false, true}) {
    const std::string hex = legacy ? "75 80 02 01 07 65 80 00 00 00 00" : "75 80 02 01 07 A5 80 00 00 00 00";
    EXPECT_EQ(hex, hex_of(response, legacy));
    auto messages = decode_messages(from_hex(hex), legacy, guiProtocol());
    ASSERT_EQ(1u, messages.size()) << legacy;
    EXPECT_TRUE(*messages[0] == response) << legacy;
  }
}

TEST(WriteAssertions, MissingPointerNullListElementAndNullValue) {
  EXPECT_DEATH(encode_message(SelectReq(), false),
               "Assertion failed: this->pattern is NULL during BER write");
  SelectResp resp;
  resp.objects.push_back(nullptr);
  EXPECT_DEATH(encode_message(resp, false), "Assertion failed: \\(\\*it\\) is NULL during BER write");
  EXPECT_DEATH(encode_message(RelativeExpr(), true), "this->prop is NULL during BER write");
  PathPattern pattern;
  EXPECT_DEATH(nullable_value(pattern.hasNumber, pattern.number),
               "Assertion failed: Value of null taken");
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
    {"property list element sent as a set (legacy)", decode_failure<GridPropertyList>,
     "76 80 20 80 21 80 00 00 00 00 00 00", true,
     "Tag mismatch, got 9 expected BE_PROPERTY_LEGACY"},
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
    {"legacy response alternative in the current encoding", decode_failure<Response>,
     "75 80 02 01 07 65 80 00 00 00 00", false,
     "Unexpected tag 43 received in Union Response.this->resp"},
};

class TagFailures : public ::testing::TestWithParam<TagFailure> {};

TEST_P(TagFailures, ThrowWithTheirText) {
  const TagFailure& c = GetParam();
  EXPECT_EQ(c.text, c.decode(c.hex, c.legacy)) << c.what;
}

INSTANTIATE_TEST_SUITE_P(Messages, TagFailures, ::testing::ValuesIn(kTagFailures));

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

TEST(Limits, RangesAndLengthsOfFieldsAreEnforced) {
  ForgetReq forget;
  forget.id = -1;
  EXPECT_EQ("data out of range in BerIntegerTemplate<int>::write 0 <= -1 <= 2147483647",
            write_failure(forget));
  Object object;
  object.id = std::string(33, 'i');
  EXPECT_EQ("String exceeds allowed length 33 > 32", write_failure(object));
  EXPECT_EQ("data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17",
            decode_failure<GetDataResp>("A6 80 02 01 12 30 80 00 00 00 00"));
}

TEST(ListAdapters, RefuseToBeCopied) {
  std::vector<std::unique_ptr<Object>> objects;
  try {
    ListOfObject(objects).clone();
    FAIL() << "list adapter copied";
  } catch (const EBer& e) {
    EXPECT_EQ("Copy constructor of ListOfObject invoked", e.message());
  }
}

TEST(Messages, CompareFieldByFieldAndCopyDeeply) {
  auto a = select_request();
  auto b = select_request();
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

}  // namespace
