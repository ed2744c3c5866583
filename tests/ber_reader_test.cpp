// The wire encoding: primitive values, tags and lengths with their limits
// and failure texts; then the stream reader over the client's own protocol:
// the encoding sniff, values split across reads at any octet, filler octets,
// both length forms, skipped extras, every failure text of the reader,
// failures keyed to the message they occur in, the nesting limit, early ends
// and failures of the stream below.
#include "protocol/ber_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "protocol/tags.h"
#include "support/ber_streams.h"
#include "support/error_text.h"
#include "util/bignum.h"

namespace protocol {
namespace {

using namespace support;  // NOLINT(build/namespaces)
using Texts = std::vector<std::string>;

// `octet` (hex) `count` times.
std::string repeated(const std::string& octet, int count) {
  std::string hex = octet;
  for (int i = 1; i < count; ++i) hex += " " + octet;
  return hex;
}

// ---- primitive values, tags and lengths -------------------------------------

// The encoding of `value` in hex, or the EBer text when writing fails.
std::string encode(const BerValue& value) {
  ScriptedStream sink;
  const std::string error = errorText<EBer>([&] { value.write(sink, false); });
  return error == "(no error)" ? to_hex(sink.written) : error;
}

// Feeds `content` (hex) the way the reader does, one octet per readData.
void decode(BerPrimitive& value, const std::string& content) {
  const Bytes bytes = from_hex(content);
  value.readStart(bytes.size());
  for (uint8_t b : bytes) value.readData(&b, 1);
  value.readDone();
}

// What `content` decodes to through a V bound to a T (which starts out
// non-zero where it can), or the EBer text.
template <class V, class T, class... Args>
std::string read(const std::string& content, Args... args) {
  T target{};
  if constexpr (std::is_arithmetic_v<T>) target = T(5);
  V value(target, args...);
  const std::string error = errorText<EBer>([&] { decode(value, content); });
  std::ostringstream out;
  out << std::boolalpha << target;
  return error == "(no error)" ? out.str() : error;
}

template <class T>
std::string read_int(const std::string& content, T min = std::numeric_limits<T>::min(),
                     T max = std::numeric_limits<T>::max()) {
  return read<BerIntegerTemplate<T>, T>(content, min, max, BE_INTEGER);
}

template <class V, class T, class... Args>
std::string write(T field, Args... args) { return encode(V(field, args...)); }

template <class T>
void round_trip(const std::vector<std::pair<T, const char*>>& cases) {
  for (const auto& [value, encoded] : cases) {
    EXPECT_EQ(write<BerIntegerTemplate<T>>(value, std::numeric_limits<T>::min(),
                                           std::numeric_limits<T>::max(), BE_INTEGER),
              encoded);
    EXPECT_EQ(read_int<T>(std::string(encoded).substr(6)), std::to_string(value)) << encoded;
  }
}

TEST(BerPrimitiveTest, IntegersEncodeMinimallyAndDecodeBackInAllWidths) {
  round_trip<int32_t>({{0, "02 01 00"}, {127, "02 01 7F"}, {128, "02 02 00 80"}, {-128, "02 01 80"},
                       {-129, "02 02 FF 7F"}, {INT32_MIN, "02 04 80 00 00 00"}});
  round_trip<uint32_t>({{0xFFFFFFFFu, "02 05 00 FF FF FF FF"}});
  round_trip<int64_t>({{INT64_MIN, "02 08 80 00 00 00 00 00 00 00"}});
  round_trip<uint64_t>({{UINT64_MAX, "02 09 00 FF FF FF FF FF FF FF FF"}});
}

// Ordinary values of every kind (special reals too) go out and arrive in
// every export; these are the edges.
TEST(BerPrimitiveTest, EncodingsAndDecoding) {
  auto real = [](double v) { return write<BerReal>(v, BE_REAL); };
  auto tag = [](TagCode t) { ScriptedStream s; write_tag(s, t); return to_hex(s.written); };
  auto length = [](size_t n) { ScriptedStream s; write_length(s, n); return to_hex(s.written); };
  auto read_real = [](const std::string& hex) { return read<BerReal, double>(hex, BE_REAL); };
  auto boolean = [](const std::string& hex) { return read<BerBoolean, bool>(hex, BE_BOOLEAN); };
  BerNull null(BE_NULL, true);
  const std::pair<std::string, const char*> cases[] = {
      {write<BerUInt32>(0u, 1u, 65535u, BE_INTEGER),
       "data out of range in BerIntegerTemplate<unsigned int>::write 1 <= 0 <= 65535"},
      // Enumerations: zero has no content, negatives take four octets.
      {write<Severity>(0), "0A 00"}, {write<Severity>(128), "0A 02 00 80"},
      {write<Severity>(0x8000), "0A 03 00 80 00"}, {write<Severity>(INT32_MAX), "0A 04 7F FF FF FF"},
      {write<Severity>(-128), "0A 04 FF FF FF 80"},
      // Reals: zero empty, others (but the special values) as text.
      {real(0.0), "09 00"}, {real(-0.002), "09 0E 00 2D 32 2E 30 30 30 30 30 30 65 2D 30 33"},
      {write<BerBoolean>(true, BE_BOOLEAN), "01 01 01"},
      {write<BerString>(std::string("abcde"), 4, BE_STRING_CURRENT), "String exceeds allowed length 5 > 4"},
      // Big numbers: the magnitude without leading zeros.
      {write<BerBigNum>(util::BigNum(), BE_INTEGER), "02 00"},
      {write<BerBigNum>(util::BigNum(0xFFFFFFFF) + util::BigNum(1), BE_INTEGER), "02 05 01 00 00 00 00"},
      // Identifiers in one octet up to 247, then base 128; lengths.
      {tag(choice_tag(5, false)), "A5"}, {tag(choice_tag(5, true)), "65"}, {tag(243), "7E"},
      {tag(251), "7F 1F"}, {tag((1000 << 3) | 3), "7F 87 68"}, {length(127), "7F"},
      {length(128), "81 80"}, {length(256), "82 01 00"}, {length(65536), "83 01 00 00"},
      {length(0x1000000), "84 01 00 00 00"},
      // Decoding.
      {read_int<int32_t>(""), "0"},
      {read_int<int32_t>("00 00 00 00 01"), "Data value exceeds maximum allowed length 5 > 4"},
      {read_int<uint32_t>("00 00 00 00 00 01"), "Data value exceeds maximum allowed length 6 > 5"},
      {read_int<uint32_t>("01 00 00 00 00"), "data out of range in BerIntegerTemplate"},
      {read_int<int32_t>("01 00 00", 0, 65535),
       "data out of range in BerIntegerTemplate<int>::readDone 0 <= 65536 <= 65535"},
      {read_int<int64_t>("00", -5, -1),
       "data out of range in BerIntegerTemplate<__int64>::readDone -5 <= 0 <= -1"},
      {read_int<uint64_t>("0B", 0, 10),
       "data out of range in BerIntegerTemplate<unsigned __int64>::readDone 0 <= 11 <= 10"},
      {read<RelOperator, int32_t>("FF"), "-1"},
      {read<RelOperator, int32_t>("00 00 00 00 01"), "Data value exceeds maximum allowed length 5 > 4"},
      {read_real(""), "0"}, {read_real("00 2D 69 6E 66"), "-inf"},
      {read_real("00 31 78"), "Parse error in real number"},
      {read_real("03 31"), "Unsupported real number format revceived"},
      {read_real(repeated("31", 61)), "Data value exceeds maximum allowed length 61 > 60"},
      {boolean(""), "false"}, {boolean("01 01"), "Data value exceeds maximum allowed length 2 > 1"},
      {read<BerString, std::string>("77 78 79 7A 7B", 4, BE_STRING_CURRENT),
       "String exceeds allowed length 5 > 4"},
      {errorText<EBer>([&] { decode(null, "00"); }), "Data value exceeds maximum allowed length 1 > 0"},
  };
  for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
}

TEST(BerPrimitiveTest, LongestBigNumGoesOutAgainUnchanged) {
  util::BigNum field;
  BerBigNum value(field, BE_INTEGER);
  EXPECT_EQ(errorText<EBer>([&] { value.readStart(1041); }),
            "Data value exceeds maximum allowed length 1041 > 1040");
  const std::string hex = repeated("A5", 1040);
  decode(value, hex);
  EXPECT_EQ(encode(value), "02 82 04 10 " + hex);
}

TEST(BerPrimitiveDeathTest, WritingASkipperIsAProgrammingError) {
  ScriptedStream sink;
  EXPECT_DEATH(BerPrimitiveSkipper(BE_INTEGER).write(sink, false),
               "Assertion failed: BerPrimitiveSkipper::write invoked");
  EXPECT_DEATH(BerConstructedSkipper(BE_SEQ_CURRENT).write(sink, false),
               "Assertion failed: BerConstructedSkipper::write invoked");
}

// ---- the stream reader ----------------------------------------------------

const std::string kSelect = support::kSelectRequest;
// Request 1 again with two trailing extras the reader skips: a primitive
// with a long tag and a long-form length, and a constructed value.
const std::string kSelectWithExtras = kSelect.substr(0, kSelect.size() - 6) +
                                      " 5F 87 68 82 00 01 AA A3 80 02 01 01 30 80 00 00 00 00 00 00";
// A legacy ClientWants with a private key, then response 7 to a forget.
const std::string kLegacyWants =
    "60 80 02 02 01 00 61 80 16 00 16 00 16 00 01 01 00 01 01 00 01 01 00 00 00 00 00";
const std::string kLegacyForget = "75 80 02 01 07 65 80 00 00 00 00";

// Object <idHex> of class "N" with `properties` and `children` (hex).
std::string object(const std::string& idHex, const std::string& properties,
                   const std::string& children) {
  return "30 80 04 01 4E 02 01 00 04 01 " + idHex + " 04 00 30 80 " + properties + " 00 00 30 80 " +
         children + " 00 00 31 80 00 00 00 00";
}
// The string property v = "1".
const std::string kProperty = "30 80 04 01 76 02 01 06 A0 80 04 01 31 00 00 00 00";
// Response 8, a select answer: object X with kProperty and a child C with
// `nested` properties and a child G with `nested` properties.
std::string nestedAnswer(const std::string& nested) {
  const std::string g = object("47", nested, "");
  const std::string c = object("43", nested, g);
  return "75 80 02 01 08 A0 80 30 80 " + object("58", kProperty, c) + " 00 00 00 00 00 00";
}

struct Harness {
  // Scripts `bytes`: with cut 0 one octet per read, otherwise two chunks
  // split at `cut`.
  void feed(const Bytes& b, size_t cut) {
    if (cut == 0) stream->octets(b);
    else stream->chunk(Bytes(b.begin(), b.begin() + cut)).chunk(Bytes(b.begin() + cut, b.end()));
  }

  // Every message written back, a failed Response as "#<id> failed: <text>",
  // until readSome throws ("thrown: <text>"; the script's end throws "end of
  // script").
  Texts drainReceived() {
    Texts out;
    for (;;) {
      for (auto r = reader.takeReceived(); r.message; r = reader.takeReceived()) {
        if (!r.failure) {
          out.push_back(to_hex(encode_message(*r.message, reader.legacy())));
          continue;
        }
        auto* response = dynamic_cast<Response*>(r.message.get());
        out.push_back("#" + (response ? std::to_string(response->id) : "?") + " failed: " +
                      errorText<util::Exception>([&] { std::rethrow_exception(r.failure); }));
      }
      const std::string failure = errorText<util::Exception>([&] { reader.readSome(false); });
      if (failure != "(no error)") {
        out.push_back("thrown: " + failure);
        return out;
      }
    }
  }

  std::unique_ptr<ScriptedStream> owned = std::make_unique<ScriptedStream>();
  ScriptedStream* stream = owned.get();
  BerReader reader{guiProtocol(), std::move(owned)};
};

// Response 5 carrying GetDataResp with datatype 18 and one enum interval
// (start 1, end 2, mask 5), then Response 6 (a ForgetResp).
const std::string kDatatype18 =
    "75 80 02 01 05 A6 80 02 01 12 30 80 30 80 A4 80 02 01 01 02 01 02 02 01 05 00 00 00 00 00 00 "
    "00 00 00 00";
const std::string kForget6 = "75 80 02 01 06 A5 80 00 00 00 00";
const std::string kEnd = "thrown: end of script";
const std::string kRange18 = "data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17";

// The same failure whether nested properties are kept or dropped.
const Texts kNestedFailure = {"#8 failed: Tag mismatch, got 16 expected BE_STRING_CURRENT, BerReader: "
    "protocol::Response:2, protocol::SelectResp:1, protocol::ListOfObject:1, protocol::Object:6, "
    "protocol::ListOfObject:1, protocol::Object:5, protocol::ListOfProperty:1, "
    "protocol::Property:3, protocol::StringProp:1",
    kForget6, kEnd};

// Every stream split at every octet. With keyed failures a failure after the
// id travels with its Response, which is read to its end, and the next
// message is decoded; a broken framing ends decoding after delivering the
// Response. Without them, and before the id is complete, failures throw.
TEST(BerReaderTest, AnySplitDecodesTheSame) {
  const struct {
    std::string stream;
    Texts received;
    bool keyed = true;
    Texts dropped = {};  // when nested objects' properties are dropped, if that is tried
  } cases[] = {
      {kSelectWithExtras, {to_hex(from_hex(kSelect)), kEnd}},
      // Objects below the answer's own objects, at any depth, may lose theirs.
      {nestedAnswer(kProperty + kProperty), {to_hex(from_hex(nestedAnswer(kProperty + kProperty))), kEnd},
       true, {to_hex(from_hex(nestedAnswer(""))), kEnd}},
      {kLegacyWants + kLegacyForget, {to_hex(from_hex(kLegacyWants)), kLegacyForget, kEnd}},
      // Differs from the legacy marker in the sixth octet only.
      {"60 80 02 02 01 01 A0 80 00 00 00 00", {"60 80 02 02 01 01 A0 80 00 00 00 00", kEnd}},
      // 00 between messages, 19 anywhere; definite lengths in short and long
      // form, a nested definite value ending both at once, and an indefinite
      // value inside a definite one.
      {"00 19 00 75 80 19 02 01 07 19 A5 80 00 00 00 00 75 05 02 01 08 A5 00 "
       "75 84 00 00 00 08 19 02 01 09 A5 82 00 00 74 0A 02 01 0A A5 80 02 01 03 00 00",
       {"75 80 02 01 07 A5 80 00 00 00 00", "75 80 02 01 08 A5 80 00 00 00 00",
        "75 80 02 01 09 A5 80 00 00 00 00", "74 80 02 01 0A A5 80 02 01 03 00 00 00 00", kEnd}},
      {kDatatype18 + kForget6, {"thrown: " + kRange18}, false},
      // A string property holding an integer, two objects deep.
      {nestedAnswer("30 80 04 01 76 02 01 06 A0 80 02 01 05 00 00 00 00") + kForget6, kNestedFailure, true,
       kNestedFailure},
      // A datatype of five octets: its content skipped unread.
      {"75 80 02 01 05 A6 80 02 05 00 00 00 00 12 30 80 00 00 00 00 00 00" + kForget6,
       {"#5 failed: Data value exceeds maximum allowed length 5 > 4", kForget6, kEnd}},
      // A datatype of the wrong tag, then a list that is skipped whole.
      {"75 80 02 01 05 A6 80 04 01 41 30 80 30 80 00 00 00 00 00 00 00 00" + kForget6,
       {"#5 failed: Tag mismatch, got 32 expected BE_INTEGER, BerReader: protocol::Response:2, "
        "protocol::GetDataResp:1",
        kForget6, kEnd}},
      // Too few children, found at the end of the last child of a definite
      // value, at an end of contents and at an empty definite value.
      {"75 03 02 01 05" + kForget6, {"#5 failed: Got to few fields of constructed value", kForget6, kEnd}},
      {"75 80 00 00", {"thrown: Got to few fields of constructed value"}, false},
      {"75 00", {"thrown: Got to few fields of constructed value"}, false},
      // The first failure is kept; the framing breaks later.
      {"75 80 02 01 05 A6 80 02 01 12 30 80 02 80" + kForget6,
       {"#5 failed: " + kRange18, "thrown: Indefinite length on tag 16"}},
      {"75 80 02 01 05 A6 80 02 85 00" + kForget6,
       {"#5 failed: Length field too long", "thrown: Length field too long"}},
      {"75 80 02 01 05 00 01", {"thrown: Length field nonzero after zero tag 1"}, false},
      {"75 80 02 01 05 00 01" + kForget6,
       {"#5 failed: Length field nonzero after zero tag 1", "thrown: Length field nonzero after zero tag 1"}},
      {"75 80 02 04 80 00 00 00 A5 80 00 00 00 00",  // the id
       {"thrown: data out of range in BerIntegerTemplate<int>::readDone 0 <= -2147483648 <= 2147483647"}},
      {"6E 80 00 00", {"thrown: Unknown tag 115, BerReader: "}, false},
      {"74 80 02 01 05 A0 80 30 80",
       {"thrown: Tag mismatch, got 129 expected BE_SET_CURRENT, BerReader: protocol::Request:2, "
        "protocol::SelectReq:1"}, false},
      {"74 80 02 01 05 A0 80 31 80 04 21", {"thrown: String exceeds allowed length 33 > 32"}, false},
      // The legacy choice tag is refused once the connection is current.
      {"60 80 02 02 01 01 61 80 16 00 16 00 16 00 01 01 00 00 00",
       {"thrown: Unexpected tag 11 received in Union ClientWants.this->authentication, BerReader: "
        "protocol::ClientWants:2"}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stream);
    const Bytes bytes = from_hex(c.stream);
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
      for (bool nested : {true, false}) {
        if (!nested && c.dropped.empty()) continue;
        const std::string at = nested ? "" : ", nested properties dropped";
        const Texts& want = nested ? c.received : c.dropped;
        Harness h, partial;
        for (Harness* x : {&h, &partial}) {
          x->reader.setKeyedFailures(c.keyed);
          x->reader.setNestedProperties(nested);
        }
        h.feed(bytes, cut);
        EXPECT_EQ(h.drainReceived(), want) << "cut at " << cut << at;
        // Cut short at any depth (in a string, a set, a list, a skipped
        // extra), what comes out starts what the whole gives; the sanitizer
        // run checks the destruction for leaks and double frees.
        partial.stream->chunk(Bytes(bytes.begin(), bytes.begin() + cut));
        Texts got = partial.drainReceived();
        got.pop_back();  // the end of the script, or a failure before it
        ASSERT_LE(got.size() + (cut < bytes.size() && want.back() == kEnd), want.size() - 1) << cut << at;
        EXPECT_TRUE(std::equal(got.begin(), got.end(), want.begin())) << "cut at " << cut << at;
      }
    }
  }
  // takeMessage() gives no failed message: it throws its failure.
  Harness h;
  h.reader.setKeyedFailures(true);
  h.stream->chunk(kDatatype18);
  while (h.stream->readable()) h.reader.readSome(false);
  EXPECT_EQ(errorText<util::Exception>([&] { h.reader.takeMessage(); }), kRange18);
}

// Only the start of the legacy marker: no progress until the rest decides.
TEST(BerReaderTest, PartialMarkerWaitsForMore) {
  Harness h;
  h.stream->chunk("60 80 02").chunk(kLegacyWants.substr(9));
  EXPECT_FALSE(h.reader.readSome(false));
  EXPECT_TRUE(h.reader.readSome(false));
  EXPECT_EQ(h.drainReceived(), (Texts{kLegacyWants, kEnd}));
}

// Response 7 with a SelectResp holding a chain of 510 objects "N" (id "i"),
// each the only child of the one before, and `extra` (hex) skipped at the
// end of the innermost one. Open values: Response, SelectResp, the objects
// list, per object the object and one of its lists: 1023, and in `extra`
// one less than its depth.
Bytes object_chain(const std::string& extra) {
  const std::string open = "30 80 04 01 4E 02 01 00 04 01 69 04 00 30 80 00 00 30 80 ";
  std::string hex = "75 80 02 01 07 A0 80 30 80 ";
  for (int i = 0; i < 510; ++i) hex += open;
  for (int i = 0; i < 510; ++i) hex += "00 00 31 80 00 00 " + (i ? "" : extra) + "00 00 ";
  return from_hex(hex + "00 00 00 00 00 00");
}

// A hostile peer may nest values up to the reader's limit of 1024 open
// constructed values: decoding, copying, comparing, writing and destroying
// the deepest message must all work on the ordinary thread stack (the
// sanitizer build runs this with its larger frames); one more is refused.
TEST(BerReaderTest, DeepestAcceptedMessageSurvivesEveryOperationAndOneMoreIsRefused) {
  auto messages = decode_messages(object_chain("30 80 30 80 00 00 00 00 "), false, guiProtocol());
  ASSERT_EQ(messages.size(), 1u);
  const Bytes stream = object_chain("");
  EXPECT_EQ(encode_message(*messages[0], false), stream);  // every level was read
  std::unique_ptr<BerValue> copy = messages[0]->clone();
  EXPECT_TRUE(*copy == *messages[0]);
  messages.clear();  // the original goes first; the copy must not share with it
  EXPECT_EQ(encode_message(*copy, false), stream);
  const Bytes deeper = object_chain("30 80 30 80 30 80 00 00 00 00 00 00 ");
  EXPECT_EQ(errorText<EBer>([&] { decode_messages(deeper, false, guiProtocol()); }),
            "Constructed values nested too deeply");
}

// With stopWhenQueued the rest of a chunk is dropped once a message is complete.
TEST(BerReaderTest, StopWhenQueuedDropsTheRestOfTheChunk) {
  const std::string two = "75 80 02 01 01 A5 80 00 00 00 00 75 80 02 01 02 A5 80 00 00 00 00";
  Harness h;
  h.stream->chunk("00 00 00 00 00 00 00 00").chunk(two).chunk("75 05 02 01 03 A5 00");
  EXPECT_TRUE(h.reader.readSome(true));
  EXPECT_FALSE(h.reader.readSome(true));
  EXPECT_EQ(h.drainReceived(),
            (Texts{"75 80 02 01 01 A5 80 00 00 00 00", "75 80 02 01 03 A5 80 00 00 00 00", kEnd}));
}

// The text of the failure the next readSome throws from the stream below.
std::string read_failure(BerReader& reader) {
  return errorText<util::ESystemError>([&] { reader.readSome(false); });
}

TEST(BerReaderTest, ReadFailures) {
  const std::string forget = "75 80 02 01 07 A5 80 00 00 00 00";
  // A failure after a complete message is held back while it is queued and
  // shows on the next read (a broken socket fails again).
  Harness held;
  held.stream->chunk(forget).failure("connection lost").failure("connection lost");
  EXPECT_TRUE(held.reader.readSome(false));  // the first eight octets
  EXPECT_TRUE(held.reader.readSome(false));
  EXPECT_FALSE(held.reader.readSome(false));
  EXPECT_TRUE(held.reader.takeMessage());
  EXPECT_EQ(read_failure(held.reader), "connection lost");
  Harness inside;  // within a message it propagates at once
  inside.stream->chunk(forget.substr(0, 8)).failure("connection lost");
  EXPECT_TRUE(inside.reader.readSome(false));
  EXPECT_EQ(read_failure(inside.reader), "connection lost");
  Harness first;  // as during the first eight octets
  first.stream->failure("refused");
  EXPECT_EQ(read_failure(first.reader), "refused");
  Harness empty;
  empty.stream->chunk(Bytes{});
  EXPECT_FALSE(empty.reader.readSome(false));
}

TEST(BerReaderTest, SendAndQueueWriteInTheConnectionsEncodingAndFlushInBatches) {
  Harness h;
  h.stream->chunk(kLegacyWants);
  h.drainReceived();
  Response response;
  response.id = 7;
  response.resp = std::make_unique<ForgetResp>();
  h.reader.send(response);
  EXPECT_EQ(h.stream->flushes, 1);
  for (size_t i = 1; i < BerReader::kSendBatch; ++i) h.reader.queue(response);
  EXPECT_EQ(h.stream->flushes, 1);  // still held
  h.reader.queue(response);
  EXPECT_EQ(h.stream->flushes, 2);  // the batch went out
  EXPECT_EQ(to_hex(h.stream->written), repeated(kLegacyForget, BerReader::kSendBatch + 1));
}

}  // namespace
}  // namespace protocol
