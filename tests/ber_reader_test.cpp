// The stream reader over the client's own protocol: the encoding sniff,
// values split across reads at any octet, filler octets, both length forms,
// skipped extras, every failure text of the reader, failures keyed to the
// message they occur in, early ends and failures of the stream below.
#include "protocol/ber_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "support/ber_streams.h"
#include "support/error_text.h"
#include "support/message_io.h"

namespace protocol {
namespace {

using support::Bytes;
using support::encode_message;
using support::from_hex;
using support::ScriptedStream;
using support::to_hex;
using Texts = std::vector<std::string>;

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
  Harness() : Harness(std::make_unique<ScriptedStream>()) {}
  explicit Harness(std::unique_ptr<ScriptedStream> s)
      : stream(s.get()), reader(protocol::guiProtocol(), std::move(s)) {}

  // Scripts `bytes`: with cut 0 one octet per read, otherwise two chunks
  // split at `cut`.
  void feed(const Bytes& bytes, size_t cut) {
    if (cut == 0) {
      stream->octets(bytes);
    } else {
      stream->chunk(Bytes(bytes.begin(), bytes.begin() + cut));
      stream->chunk(Bytes(bytes.begin() + cut, bytes.end()));
    }
  }

  // readSome until the script is used up; every message written back in
  // the connection's encoding.
  Texts drain() {
    while (stream->readable()) reader.readSome(false);
    Texts out;
    while (auto m = reader.takeMessage()) out.push_back(to_hex(encode_message(*m, reader.legacy())));
    return out;
  }

  // The text of the EBer that drain() ends with.
  std::string error() {
    try {
      drain();
    } catch (const protocol::EBer& e) {
      return e.text();
    }
    return "no EBer";
  }

  // With keyed failures: every message written back, a failed Response as
  // "#<id> failed: <text>", until readSome throws ("thrown: <text>"; the
  // script's end throws "end of script").
  Texts drainKeyed() {
    reader.setKeyedFailures(true);
    Texts out;
    for (;;) {
      for (auto r = reader.takeReceived(); r.message; r = reader.takeReceived()) {
        if (!r.failure) {
          out.push_back(to_hex(encode_message(*r.message, reader.legacy())));
          continue;
        }
        try {
          std::rethrow_exception(r.failure);
        } catch (const util::Exception& e) {
          auto* response = dynamic_cast<protocol::Response*>(r.message.get());
          out.push_back("#" + (response ? std::to_string(response->id) : "?") + " failed: " + e.text());
        }
      }
      try {
        reader.readSome(false);
      } catch (const util::Exception& e) {
        out.push_back("thrown: " + e.text());
        return out;
      }
    }
  }

  ScriptedStream* stream;
  BerReader reader;
};

TEST(BerReaderTest, AnySplitDecodesTheSame) {
  const struct {
    std::string stream;
    bool legacy;
    Texts messages;
    bool nestedProperties = true;
  } cases[] = {
      {kSelectWithExtras, false, {to_hex(from_hex(kSelect))}},
      {nestedAnswer(kProperty), false, {to_hex(from_hex(nestedAnswer(kProperty)))}},
      // Objects below the answer's own objects, at any depth, lose theirs.
      {nestedAnswer(kProperty + kProperty), false, {to_hex(from_hex(nestedAnswer("")))}, false},
      {kLegacyWants + kLegacyForget, true, {to_hex(from_hex(kLegacyWants)), kLegacyForget}},
      // Differs from the legacy marker in the sixth octet only.
      {"60 80 02 02 01 01 A0 80 00 00 00 00", false, {"60 80 02 02 01 01 A0 80 00 00 00 00"}},
  };
  for (const auto& c : cases) {
    const Bytes bytes = from_hex(c.stream);
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
      SCOPED_TRACE("cut at " + std::to_string(cut));
      Harness h;
      h.reader.setNestedProperties(c.nestedProperties);
      h.feed(bytes, cut);
      EXPECT_EQ(h.drain(), c.messages);
      EXPECT_EQ(h.reader.legacy(), c.legacy);
      // Destroyed with a value cut short at any depth (in a string, a set, a
      // list, a skipped extra): the sanitizer run checks for leaks and double frees.
      Harness partial;
      partial.stream->chunk(Bytes(bytes.begin(), bytes.begin() + cut));
      EXPECT_EQ(partial.drain().size() < c.messages.size(), cut < bytes.size());
    }
  }
}

// Only the start of the legacy marker: wait for more before deciding.
TEST(BerReaderTest, PartialMarkerWaitsForMore) {
  Harness h;
  h.stream->chunk("60 80 02").chunk(kLegacyWants.substr(9));
  EXPECT_FALSE(h.reader.readSome(false));
  EXPECT_FALSE(h.reader.takeMessage());
  EXPECT_TRUE(h.reader.readSome(false));
  EXPECT_TRUE(h.reader.legacy());
  EXPECT_EQ(h.drain(), Texts{kLegacyWants});
}

TEST(BerReaderTest, FillerOctetsAndDefiniteLengths) {
  Harness h;
  // 00 between messages, 19 anywhere; then definite lengths in short and
  // long form, a nested definite value ending both at once, and an
  // indefinite value inside a definite one.
  h.stream->chunk("00 19 00 75 80 19 02 01 07 19 A5 80 00 00 00 00")
      .chunk("75 05 02 01 08 A5 00")
      .chunk("75 84 00 00 00 08 19 02 01 09 A5 82 00 00")
      .chunk("74 0A 02 01 0A A5 80 02 01 03 00 00");
  EXPECT_EQ(h.drain(), (Texts{"75 80 02 01 07 A5 80 00 00 00 00", "75 80 02 01 08 A5 80 00 00 00 00",
                              "75 80 02 01 09 A5 80 00 00 00 00",
                              "74 80 02 01 0A A5 80 02 01 03 00 00 00 00"}));
}

TEST(BerReaderTest, DecodingFailures) {
  const struct {
    const char* stream;
    const char* error;
  } cases[] = {
      // Framing failures before the id are in KeyedFailures; this one after it.
      {"75 80 02 01 05 00 01", "Length field nonzero after zero tag 1"},
      // Too few children, found at an end of contents, at an empty definite
      // value and at the end of the last child of a definite value.
      {"75 80 00 00", "Got to few fields of constructed value"},
      {"75 00", "Got to few fields of constructed value"},
      {"75 03 02 01 05", "Got to few fields of constructed value"},
      {"6E 80 00 00", "Unknown tag 115, BerReader: "},
      // Refused while keyed failures are off: after the id too.
      {"75 80 02 01 05 A6 80 02 01 12 30 80 00 00 00 00 00 00",
       "data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17"},
      {"74 80 02 01 05 A0 80 30 80",
       "Tag mismatch, got 129 expected BE_SET_CURRENT, BerReader: protocol::Request:2, "
       "protocol::SelectReq:1"},
      {"74 80 02 01 05 A0 80 31 80 04 21", "String exceeds allowed length 33 > 32"},
      // The legacy choice tag is refused once the connection is current.
      {"60 80 02 02 01 01 61 80 16 00 16 00 16 00 01 01 00 00 00",
       "Unexpected tag 11 received in Union ClientWants.this->authentication, BerReader: "
       "protocol::ClientWants:2"},
  };
  for (const auto& c : cases) {
    Harness h;
    h.stream->chunk(c.stream);
    EXPECT_EQ(h.error(), c.error) << c.stream;
  }
}

// Response 5 carrying GetDataResp with datatype 18 and one enum interval
// (start 1, end 2, mask 5), then Response 6 (a ForgetResp).
const std::string kDatatype18 =
    "75 80 02 01 05 A6 80 02 01 12 30 80 30 80 A4 80 02 01 01 02 01 02 02 01 05 00 00 00 00 00 00 "
    "00 00 00 00";
const std::string kForget6 = "75 80 02 01 06 A5 80 00 00 00 00";
const std::string kEnd = "thrown: end of script";
const std::string kRange18 = "data out of range in BerIntegerTemplate<int>::readDone 0 <= 18 <= 17";

// A failure after the id travels with its Response, which is read to its
// end, and the next message is decoded; a broken framing ends decoding after
// delivering the Response; before the id complete, failures throw as ever.
TEST(BerReaderTest, KeyedFailures) {
  const struct {
    std::string stream;
    Texts received;
  } cases[] = {
      {kDatatype18 + kForget6, {"#5 failed: " + kRange18, kForget6, kEnd}},
      // A string property holding an integer, two objects deep: the same
      // failure whether nested properties are kept or dropped.
      {nestedAnswer("30 80 04 01 76 02 01 06 A0 80 02 01 05 00 00 00 00") + kForget6,
       {"#8 failed: Tag mismatch, got 16 expected BE_STRING_CURRENT, BerReader: "
        "protocol::Response:2, protocol::SelectResp:1, protocol::ListOfObject:1, protocol::Object:6, "
        "protocol::ListOfObject:1, protocol::Object:5, protocol::ListOfProperty:1, "
        "protocol::Property:3, protocol::StringProp:1",
        kForget6, kEnd}},
      // A datatype of five octets: its content skipped unread.
      {"75 80 02 01 05 A6 80 02 05 00 00 00 00 12 30 80 00 00 00 00 00 00" + kForget6,
       {"#5 failed: Data value exceeds maximum allowed length 5 > 4", kForget6, kEnd}},
      // A datatype of the wrong tag, then a list that is skipped whole.
      {"75 80 02 01 05 A6 80 04 01 41 30 80 30 80 00 00 00 00 00 00 00 00" + kForget6,
       {"#5 failed: Tag mismatch, got 32 expected BE_INTEGER, BerReader: protocol::Response:2, "
        "protocol::GetDataResp:1",
        kForget6, kEnd}},
      // Definite lengths: a Response without its body.
      {"75 03 02 01 05" + kForget6, {"#5 failed: Got to few fields of constructed value", kForget6, kEnd}},
      // The first failure is kept; the framing breaks later.
      {"75 80 02 01 05 A6 80 02 01 12 30 80 02 80" + kForget6,
       {"#5 failed: " + kRange18, "thrown: Indefinite length on tag 16"}},
      {"75 80 02 01 05 A6 80 02 85 00" + kForget6,
       {"#5 failed: Length field too long", "thrown: Length field too long"}},
      {"75 80 02 01 05 00 01" + kForget6,
       {"#5 failed: Length field nonzero after zero tag 1", "thrown: Length field nonzero after zero tag 1"}},
      // Before the id is complete.
      {"75 80 02 05 01 00 00 00 00" + kForget6, {"thrown: Data value exceeds maximum allowed length 5 > 4"}},
      {"75 80 04 01 41" + kForget6,
       {"thrown: Tag mismatch, got 32 expected BE_INTEGER, BerReader: protocol::Response:1"}},
      {"75 80 02 04 80 00 00 00 A5 80 00 00 00 00",
       {"thrown: data out of range in BerIntegerTemplate<int>::readDone 0 <= -2147483648 <= 2147483647"}},
  };
  for (const auto& c : cases) {
    const Bytes bytes = from_hex(c.stream);
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
      for (bool nestedProperties : {true, false}) {
        SCOPED_TRACE(c.stream + ", cut at " + std::to_string(cut) +
                     (nestedProperties ? "" : ", nested properties dropped"));
        Harness h;
        h.reader.setNestedProperties(nestedProperties);
        h.feed(bytes, cut);
        EXPECT_EQ(h.drainKeyed(), c.received);
      }
    }
  }
  // takeMessage() gives no failed message: it throws its failure.
  Harness h;
  h.reader.setKeyedFailures(true);
  h.stream->chunk(kDatatype18);
  while (h.stream->readable()) h.reader.readSome(false);
  EXPECT_EQ(support::errorText<util::Exception>([&] { h.reader.takeMessage(); }), kRange18);
}

// With stopWhenQueued the rest of a chunk is dropped once a message is complete.
TEST(BerReaderTest, StopWhenQueuedDropsTheRestOfTheChunk) {
  const std::string two = "75 80 02 01 01 A5 80 00 00 00 00 75 80 02 01 02 A5 80 00 00 00 00";
  Harness h;
  h.stream->chunk("00 00 00 00 00 00 00 00").chunk(two).chunk("75 05 02 01 03 A5 00");
  EXPECT_TRUE(h.reader.readSome(true));
  EXPECT_FALSE(h.reader.readSome(true));
  EXPECT_EQ(h.drain(), (Texts{"75 80 02 01 01 A5 80 00 00 00 00", "75 80 02 01 03 A5 80 00 00 00 00"}));
}

// The text of the failure the next readSome throws from the stream below.
std::string read_failure(BerReader& reader) {
  try {
    reader.readSome(false);
  } catch (const util::ESystemError& e) {
    return e.text();
  }
  return "no failure";
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
  empty.stream->chunk(support::Bytes{});
  EXPECT_FALSE(empty.reader.readSome(false));
}

TEST(BerReaderTest, SendAndQueueWriteInTheConnectionsEncodingAndFlushInBatches) {
  Harness h;
  h.stream->chunk(kLegacyWants);
  h.drain();
  protocol::Response response;
  response.id = 7;
  response.resp = std::make_unique<protocol::ForgetResp>();
  h.reader.send(response);
  EXPECT_EQ(to_hex(h.stream->written), kLegacyForget);
  EXPECT_EQ(h.stream->flushes, 1);

  std::string expected = kLegacyForget;
  for (size_t i = 1; i < BerReader::kSendBatch; ++i) {
    h.reader.queue(response);
    expected += " " + kLegacyForget;
  }
  EXPECT_EQ(h.stream->flushes, 1);  // still held
  h.reader.queue(response);
  expected += " " + kLegacyForget;
  EXPECT_EQ(h.stream->flushes, 2);  // the batch went out
  EXPECT_EQ(to_hex(h.stream->written), expected);
}

}  // namespace
}  // namespace protocol
