// The message classes: the literal encoding of the select message,
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
std::string decode_failure(const std::string& hex, bool legacy) {
  return ber_failure([&] { decode_as<T>(from_hex(hex), legacy); });
}

std::unique_ptr<Request> select_request() {
  auto select = std::make_unique<SelectReq>();
  select->startIds = {"X"};
  select->pattern = std::make_unique<PathPattern>();
  select->pattern->className = ".";
  auto request = std::make_unique<Request>();
  request->id = 1;
  request->req = std::move(select);
  return request;
}

TEST(Messages, SelectEncodesAsTheServerExpectsAndDecodesBack) {
  const auto select = select_request();
  EXPECT_EQ(to_hex(encode_message(*select, false)), testing_support::kSelectRequest);
  auto messages = decode_messages(from_hex(testing_support::kSelectRequest), false, guiProtocol());
  ASSERT_EQ(1u, messages.size());
  EXPECT_TRUE(*messages[0] == *select);
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

// Tag checks of plain fields, named sequences, lists, choices, value choices
// and nullable integers, each with its own text.
TEST(Messages, TagFailuresThrowWithTheirText) {
  const struct {
    std::string (*decode)(const std::string& hex, bool legacy);
    const char* hex;
    bool legacy;
    const char* text;
  } cases[] = {
      // A string of the other encoding, an unknown value kind.
      {decode_failure<Property>, "30 80 16 01 41 00 00", false,
       "Tag mismatch, got 176 expected BE_STRING_CURRENT"},
      {decode_failure<Property>, "30 80 04 00 02 01 06 AD 80 00 00 00 00", false,
       "Unexpected tag 109 received in Union Property.this->data"},
      // A pattern of the wrong kind, a legacy property list element as a set.
      {decode_failure<SelectReq>, "A0 80 31 80 00 00 31 80 00 00 00 00", false,
       "Tag mismatch, got 137 expected BE_PATH_PATTERN_CURRENT"},
      {decode_failure<GridPropertyList>, "76 80 20 80 21 80 00 00 00 00 00 00", true,
       "Tag mismatch, got 9 expected BE_PROPERTY_LEGACY"},
      // A nullable pattern number as a string.
      {decode_failure<PathPattern>, "30 80 04 00 02 01 00 04 00 00 00", false,
       "Tag mismatch, got 32 expected BE_INTEGER"},
      // A check value as BOOLEAN.
      {decode_failure<Check>, "30 80 04 00 04 00 04 00 0A 00 04 00 01 01 00 00 00", false,
       "Unexpected tag 8 received in Union Check.this->value"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.text, c.decode(c.hex, c.legacy)) << c.hex;
}

TEST(Messages, OptionalChildrenLimitsAndCopies) {
  // Three children of a DataIntervalContinuous leave the rest zero; two are too few.
  const auto interval =
      decode_as<DataIntervalContinuous>(from_hex("A5 80 02 01 0A 02 01 14 09 00 00 00"), false);
  ASSERT_NE(nullptr, interval);
  DataIntervalContinuous expected;
  expected.start = 10;
  expected.end = 20;
  EXPECT_TRUE(*interval == expected);
  EXPECT_EQ("Got to few fields of constructed value",
            decode_failure<DataIntervalContinuous>("A5 80 02 01 0A 02 01 14 00 00", false));

  // Integer ranges and string lengths of fields, written and read.
  ForgetReq forget;
  forget.id = -1;
  EXPECT_EQ("data out of range in BerIntegerTemplate<int>::write 0 <= -1 <= 2147483647",
            ber_failure([&] { encode_message(forget, false); }));
  Object object;
  object.id = std::string(33, 'i');
  EXPECT_EQ("String exceeds allowed length 33 > 32",
            ber_failure([&] { encode_message(object, false); }));
  EXPECT_EQ("data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17",
            decode_failure<GetDataResp>("A6 80 02 01 12 30 80 00 00 00 00", false));

  // List adapters refuse to be copied.
  std::vector<std::unique_ptr<Object>> objects;
  EXPECT_EQ("Copy constructor of ListOfObject invoked",
            ber_failure([&] { ListOfObject(objects).clone(); }));
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
