#include "protocol/ber_reader.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "protocol/ber_primitives.h"
#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "protocol/tags.h"
#include "support/ber_streams.h"

// A toy protocol with the shapes the real messages have: a top-level
// sequence with primitive, nested, choice and list children, skipped extras.
namespace toy {

using namespace protocol;

// What the reader needs of a message; comparisons and copies are unused.
class ToyBase : public BerConstructed {
 public:
  std::unique_ptr<BerValue> clone() const override { return nullptr; }
  bool operator==(const BerValue& other) const override { return this == &other; }
  bool operator<(const BerValue&) const override { return false; }
  bool operator>(const BerValue&) const override { return false; }
  bool disposeAfterRead() const override { return false; }
  virtual std::string describe() const = 0;
};

[[noreturn]] void mismatch(TagCode tag, const char* expected) {
  throw EBer("Tag mismatch, got " + std::to_string(tag) + " expected " + expected);
}

// A sequence with one required INTEGER; its tags are given when it is made
// (a plain sequence or a choice alternative).
class Inner : public ToyBase {
 public:
  Inner(TagCode current, TagCode legacy) : current_(current), legacy_(legacy) {}
  TagCode tag(bool legacy) const override { return legacy ? legacy_ : current_; }
  void write(BasicIo& stream, bool legacy) const override {
    int32_t v = value;
    write_tag(stream, tag(legacy));
    write_indefinite(stream);
    BerInt32(v, INT32_MIN, INT32_MAX, BE_INTEGER).write(stream, legacy);
    write_end_of_contents(stream);
  }
  ChildSlot newChild(uint32_t index, TagCode tag, bool) override {
    if (index > 0) return ChildSlot::owned_by_reader(makeSkipper(tag));
    if (tag != BE_INTEGER) mismatch(tag, "BE_INTEGER");
    return ChildSlot::owned_by_reader(
        std::make_unique<BerInt32>(value, INT32_MIN, INT32_MAX, BE_INTEGER));
  }
  uint32_t requiredFields() const override { return 1; }
  std::string describe() const override { return std::to_string(value); }

  int32_t value = 0;

 private:
  TagCode current_;
  TagCode legacy_;
};

// A set of INTEGERs bound to a vector; disposed of by the reader.
class IntSet : public BerConstructed {
 public:
  explicit IntSet(std::vector<int32_t>& items) : items_(items) {}
  std::unique_ptr<BerValue> clone() const override { return nullptr; }
  TagCode tag(bool legacy) const override { return set_tag(legacy); }
  bool operator==(const BerValue&) const override { return false; }
  bool operator<(const BerValue&) const override { return false; }
  bool operator>(const BerValue&) const override { return false; }
  void write(BasicIo&, bool) const override {}
  ChildSlot newChild(uint32_t, TagCode tag, bool) override {
    items_.push_back(0);
    if (tag != BE_INTEGER) mismatch(tag, "BE_INTEGER");
    return ChildSlot::owned_by_reader(
        std::make_unique<BerInt32>(items_.back(), INT32_MIN, INT32_MAX, BE_INTEGER));
  }
  uint32_t requiredFields() const override { return 0; }
  bool disposeAfterRead() const override { return true; }

 private:
  std::vector<int32_t>& items_;
};

// Top-level 163 (74): id INTEGER, name S(8), inner sequence, set of INTEGER.
class ToyMessage : public ToyBase {
 public:
  TagCode tag(bool) const override { return 163; }
  void write(BasicIo& stream, bool legacy) const override {
    int32_t v = id;
    std::string n = name;
    write_tag(stream, 163);
    write_indefinite(stream);
    BerInt32(v, INT32_MIN, INT32_MAX, BE_INTEGER).write(stream, legacy);
    BerString(n, 8, string_tag(legacy)).write(stream, legacy);
    write_end_of_contents(stream);
  }
  ChildSlot newChild(uint32_t index, TagCode tag, bool legacy) override {
    switch (index) {
      case 0:
        if (tag != BE_INTEGER) mismatch(tag, "BE_INTEGER");
        return ChildSlot::owned_by_reader(
            std::make_unique<BerInt32>(id, INT32_MIN, INT32_MAX, BE_INTEGER));
      case 1:
        if (tag != string_tag(legacy)) mismatch(tag, "BE_STRING");
        return ChildSlot::owned_by_reader(std::make_unique<BerString>(name, 8, tag));
      case 2:
        if (tag != seq_tag(legacy)) mismatch(tag, "BE_SEQ");
        inner = std::make_unique<Inner>(BE_SEQ_CURRENT, BE_SEQ_LEGACY);
        return ChildSlot::owned_by_parent(inner.get());
      case 3:
        if (tag != set_tag(legacy)) mismatch(tag, "BE_SET");
        return ChildSlot::owned_by_reader(std::make_unique<IntSet>(numbers));
      default:
        return ChildSlot::owned_by_reader(makeSkipper(tag));
    }
  }
  uint32_t requiredFields() const override { return 1; }
  std::string describe() const override {
    std::string text = "id=" + std::to_string(id) + " name=" + name;
    if (inner) text += " inner=" + inner->describe();
    for (int32_t n : numbers) text += " n=" + std::to_string(n);
    return text;
  }

  int32_t id = 0;
  std::string name;
  std::unique_ptr<Inner> inner;
  std::vector<int32_t> numbers;
};

// Top-level 3 (60): version INTEGER and alternative 1 of a choice.
class Hello : public ToyBase {
 public:
  TagCode tag(bool) const override { return 3; }
  void write(BasicIo&, bool) const override {}
  ChildSlot newChild(uint32_t index, TagCode tag, bool legacy) override {
    if (index == 0) {
      if (tag != BE_INTEGER) mismatch(tag, "BE_INTEGER");
      return ChildSlot::owned_by_reader(
          std::make_unique<BerInt32>(version, 0, 65535, BE_INTEGER));
    }
    if (index == 1) {
      if (tag != choice_tag(1, legacy)) {
        throw EBer("Unexpected tag " + std::to_string(tag) + " received in Union Hello.this->auth");
      }
      auth = std::make_unique<Inner>(choice_tag(1, false), choice_tag(1, true));
      return ChildSlot::owned_by_parent(auth.get());
    }
    return ChildSlot::owned_by_reader(makeSkipper(tag));
  }
  uint32_t requiredFields() const override { return 2; }
  std::string describe() const override {
    return "version=" + std::to_string(version) + " auth=" + (auth ? auth->describe() : "-");
  }

  int32_t version = 0;
  std::unique_ptr<Inner> auth;
};

// An empty top-level message of a given tag.
class Empty : public ToyBase {
 public:
  explicit Empty(TagCode tag) : tag_(tag) {}
  TagCode tag(bool) const override { return tag_; }
  void write(BasicIo& stream, bool) const override {
    write_tag(stream, tag_);
    write_indefinite(stream);
    write_end_of_contents(stream);
  }
  ChildSlot newChild(uint32_t, TagCode tag, bool) override {
    return ChildSlot::owned_by_reader(makeSkipper(tag));
  }
  uint32_t requiredFields() const override { return 0; }
  std::string describe() const override { return "empty " + std::to_string(tag_); }

 private:
  TagCode tag_;
};

class ToyProtocol : public BerProtocol {
 public:
  std::unique_ptr<BerConstructed> makeMessage(TagCode tag, bool) const override {
    switch (tag) {
      case 3:
        return std::make_unique<Hello>();
      case 163:
        return std::make_unique<ToyMessage>();
      case 11:
      case 171:
        return std::make_unique<Empty>(tag);
      default:
        throw EBer("Unknown tag " + std::to_string(tag));
    }
  }
};

}  // namespace toy

namespace old_protocol {
namespace {

using testing_support::Bytes;
using testing_support::from_hex;
using testing_support::ScriptedStream;

const toy::ToyProtocol kProtocol;

// A ToyMessage with every kind of child, a skipped primitive with a long tag
// and long-form length, and a skipped constructed child with nested content.
const char* const kFullCurrent =
    "74 80 02 01 05 04 02 68 69 30 80 02 01 07 00 00 31 80 02 01 01 02 01 02 00 00"
    " 5F 87 68 82 00 01 AA A3 80 02 01 01 30 80 00 00 00 00 00 00";
const char* const kFullDescribed = "id=5 name=hi inner=7 n=1 n=2";
// The legacy greeting followed by a ToyMessage in legacy tags.
const char* const kLegacyStream =
    "60 80 02 02 01 00 61 80 02 01 09 00 00 00 00"
    " 74 80 02 01 05 16 02 68 69 20 80 02 01 07 00 00 21 80 02 01 01 00 00 00 00";

struct Harness {
  explicit Harness(std::unique_ptr<ScriptedStream> s = std::make_unique<ScriptedStream>())
      : stream(s.get()), reader(kProtocol, std::move(s)) {}

  // readSome until the script is used up; the descriptions of all messages.
  std::vector<std::string> drain() {
    while (stream->readable()) reader.readSome(false);
    std::vector<std::string> out;
    while (auto message = reader.takeMessage()) {
      out.push_back(dynamic_cast<toy::ToyBase&>(*message).describe());
    }
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

  ScriptedStream* stream;
  BerReader reader;
};

std::vector<std::string> decode_in_chunks(const std::vector<Bytes>& chunks, bool* legacy) {
  Harness h;
  for (const Bytes& c : chunks) h.stream->chunk(c);
  std::vector<std::string> out = h.drain();
  *legacy = h.reader.legacy();
  return out;
}

TEST(BerReaderTest, DecodesEveryKindOfChild) {
  Harness h;
  h.stream->chunk(kFullCurrent);
  EXPECT_EQ(h.drain(), std::vector<std::string>{kFullDescribed});
  EXPECT_FALSE(h.reader.legacy());
}

TEST(BerReaderTest, AnySplitDecodesTheSame) {
  const struct {
    std::string stream;
    bool legacy;
    std::vector<std::string> messages;
  } cases[] = {
      {kFullCurrent, false, {kFullDescribed}},
      {kLegacyStream, true, {"version=256 auth=9", "id=5 name=hi inner=7 n=1"}},
  };
  for (const auto& c : cases) {
    const Bytes bytes = from_hex(c.stream);
    bool legacy = !c.legacy;
    std::vector<Bytes> single;
    for (uint8_t b : bytes) single.push_back(Bytes{b});
    EXPECT_EQ(decode_in_chunks(single, &legacy), c.messages) << c.stream;
    EXPECT_EQ(legacy, c.legacy);
    for (size_t cut = 1; cut < bytes.size(); ++cut) {
      std::vector<Bytes> two = {Bytes(bytes.begin(), bytes.begin() + cut),
                                Bytes(bytes.begin() + cut, bytes.end())};
      EXPECT_EQ(decode_in_chunks(two, &legacy), c.messages) << "cut at " << cut;
      EXPECT_EQ(legacy, c.legacy) << "cut at " << cut;
    }
  }
}

TEST(BerReaderTest, EncodingSniff) {
  {
    // Only the start of the marker: wait for more before deciding.
    Harness h;
    h.stream->chunk("60 80 02").chunk("02 01 00 61 80 02 01 09 00 00 00 00");
    EXPECT_FALSE(h.reader.readSome(false));
    EXPECT_FALSE(h.reader.takeMessage());
    EXPECT_TRUE(h.reader.readSome(false));
    EXPECT_TRUE(h.reader.legacy());
    EXPECT_TRUE(h.reader.readSome(false));
    EXPECT_EQ(h.drain(), std::vector<std::string>{"version=256 auth=9"});
  }
  {
    // A current-encoding greeting starts 61 80 and is decoded normally.
    Harness h;
    h.stream->chunk("61 80 00 00");
    EXPECT_EQ(h.drain(), std::vector<std::string>{"empty 11"});
    EXPECT_FALSE(h.reader.legacy());
  }
  {
    // Differs from the marker in the sixth octet only.
    Harness h;
    h.stream->chunk("60 80 02 02 01 01 A1 80 02 01 09 00 00 00 00");
    EXPECT_EQ(h.drain(), std::vector<std::string>{"version=257 auth=9"});
    EXPECT_FALSE(h.reader.legacy());
  }
  {
    // The legacy choice tag is refused once the connection is current.
    Harness h;
    h.stream->chunk("60 80 02 02 01 01 61 80 02 01 09 00 00 00 00");
    EXPECT_EQ(h.error(), "Unexpected tag 11 received in Union Hello.this->auth, BerReader: toy::Hello:2");
  }
}

TEST(BerReaderTest, FillerOctetsAndDefiniteLengths) {
  Harness h;
  // 00 between messages, 19 anywhere; then definite lengths in short and
  // long form, including a nested definite value that ends both at once.
  h.stream->chunk("00 19 00 75 80 19 00 00 00")
      .chunk("74 0A 02 01 05 04 00 30 03 02 01 07")
      .chunk("74 84 00 00 00 07 02 01 06 04 82 00 00")
      .chunk("75 00");
  EXPECT_EQ(h.drain(), (std::vector<std::string>{"empty 171", "id=5 name= inner=7",
                                                  "id=6 name=", "empty 171"}));
}

TEST(BerReaderTest, DecodingFailures) {
  const struct {
    const char* stream;
    const char* error;
  } cases[] = {
      {"74 85 00 00 00 00 01", "Length field too long"},
      {"74 80 02 01 05 04 80", "Indefinite length on tag 32"},
      {"74 80 02 01 05 00 01", "Length field nonzero after zero tag 1"},
      {"74 80 00 00", "Got to few fields of constructed value"},
      {"74 00", "Got to few fields of constructed value"},
      {"74 80 02 01 05 04 00 30 80 00 00", "Got to few fields of constructed value"},
      {"7E 80 00 00", "Unknown tag 243, BerReader: "},
      {"74 80 04 01 41", "Tag mismatch, got 32 expected BE_INTEGER, BerReader: toy::ToyMessage:1"},
      {"74 80 02 01 05 04 00 30 80 04 00",
       "Tag mismatch, got 32 expected BE_INTEGER, BerReader: toy::ToyMessage:3, toy::Inner:1"},
      {"74 80 02 01 05 04 09", "String exceeds allowed length 9 > 8"},
      {"74 80 02 05 01 00 00 00 00", "Data value exceeds maximum allowed length 5 > 4"},
  };
  for (const auto& c : cases) {
    Harness h;
    h.stream->chunk(c.stream);
    EXPECT_EQ(h.error(), c.error) << c.stream;
  }
}

TEST(BerReaderTest, TwoMessagesInOneChunkAndEarlyEnd) {
  {
    Harness h;
    h.stream->chunk("75 80 00 00 74 80 02 01 03 00 00");
    EXPECT_TRUE(h.reader.readSome(false));
    EXPECT_EQ(h.drain(), (std::vector<std::string>{"empty 171", "id=3 name="}));
  }
  {
    // With stopWhenQueued the rest of the chunk is dropped once a message is
    // complete.
    Harness h;
    h.stream->chunk("00 00 00 00 00 00 00 00")
        .chunk("75 80 00 00 74 80 02 01 03 00 00")
        .chunk("75 00");
    EXPECT_TRUE(h.reader.readSome(true));
    EXPECT_FALSE(h.reader.readSome(true));
    EXPECT_EQ(h.drain(), (std::vector<std::string>{"empty 171", "empty 171"}));
  }
}

TEST(BerReaderTest, ReadFailures) {
  {
    // A failure after a complete message is held back while it is queued.
    Harness h;
    h.stream->chunk("75 80 00 00").failure("connection lost");
    EXPECT_TRUE(h.reader.readSome(false));
    EXPECT_FALSE(h.reader.readSome(false));
    EXPECT_TRUE(h.reader.takeMessage());
    EXPECT_THROW(h.reader.readSome(false), error::ESystemError);
  }
  {
    Harness h;
    h.stream->chunk("75 80").failure("connection lost");
    EXPECT_TRUE(h.reader.readSome(false));
    try {
      h.reader.readSome(false);
      ADD_FAILURE() << "no exception";
    } catch (const error::ESystemError& e) {
      EXPECT_EQ(e.text(), "connection lost");
    }
  }
  {
    // A failure during the first eight octets always propagates.
    Harness h;
    h.stream->failure("refused");
    EXPECT_THROW(h.reader.readSome(false), error::ESystemError);
  }
  {
    Harness h;
    h.stream->chunk(Bytes{});
    EXPECT_FALSE(h.reader.readSome(false));
  }
}

TEST(BerReaderTest, SendWritesInTheConnectionsEncodingAndFlushes) {
  Harness h;
  h.stream->chunk("60 80 02 02 01 00 61 80 02 01 09 00 00 00 00");
  h.drain();
  toy::ToyMessage message;
  message.id = 1;
  message.name = "X";
  h.reader.send(message);
  EXPECT_EQ(testing_support::to_hex(h.stream->written), "74 80 02 01 01 16 01 58 00 00");
  EXPECT_EQ(h.stream->flushes, 1);
}

TEST(BerReaderTest, DestroysPartlyReadMessages) {
  // Stopped inside a string of an element of a list inside a message: the
  // sanitizer run checks that nothing leaks or is freed twice.
  const char* const prefixes[] = {"74 80 02 01 05 04 04 68", "74 80 02 01 05 04 00 30 80 02 01 07 00 00 31 80 02 02 01",
                                  "74 80 02 01 05 04 00 30 80", "74 80 02 01 05 04 00 30 80 02 01 07 A3 80 30 80 04 01"};
  for (const char* prefix : prefixes) {
    Harness h;
    h.stream->chunk(prefix);
    while (h.stream->readable()) EXPECT_TRUE(h.reader.readSome(false));
    EXPECT_FALSE(h.reader.takeMessage());
  }
}

TEST(BerReaderTest, RefusesEndlessNesting) {
  std::string stream = "74 80 02 01 05 04 00 30 80 02 01 07";
  for (int i = 0; i < 2000; ++i) stream += " A3 80";
  Harness h;
  h.stream->chunk(stream);
  EXPECT_EQ(h.error(), "Constructed values nested too deeply");
}

// ---- the client's own messages ----------------------------------------------

// Reads `stream` (hex) with the client's protocol; the messages in order.
std::vector<std::unique_ptr<protocol::BerConstructed>> read_real(const std::string& stream,
                                                                  bool* legacy = nullptr) {
  auto owned = std::make_unique<ScriptedStream>();
  ScriptedStream* scripted = owned.get();
  scripted->octets(from_hex(stream));
  BerReader reader(protocol::guiProtocol(), std::move(owned));
  while (scripted->readable()) reader.readSome(false);
  std::vector<std::unique_ptr<protocol::BerConstructed>> out;
  while (auto message = reader.takeMessage()) out.push_back(std::move(message));
  if (legacy != nullptr) *legacy = reader.legacy();
  return out;
}

// A legacy ClientWants (version 256, ClientPrivateKey with empty texts).
const char* const kLegacyClientWants =
    "60 80 02 02 01 00 61 80 16 00 16 00 16 00 01 01 00 00 00 00 00 ";

TEST(BerReaderMessagesTest, ForgetResponseInBothEncodings) {
  const struct {
    std::string stream;
    bool legacy;
  } cases[] = {{"75 80 02 01 07 A5 80 00 00 00 00", false},
               {std::string(kLegacyClientWants) + "75 80 02 01 07 65 80 00 00 00 00", true}};
  for (const auto& c : cases) {
    bool legacy = !c.legacy;
    auto messages = read_real(c.stream, &legacy);
    EXPECT_EQ(legacy, c.legacy);
    ASSERT_FALSE(messages.empty()) << c.stream;
    auto* response = dynamic_cast<protocol::Response*>(messages.back().get());
    ASSERT_NE(response, nullptr) << c.stream;
    EXPECT_EQ(response->id, 7);
    EXPECT_NE(dynamic_cast<protocol::ForgetResp*>(response->resp.get()), nullptr);
  }
  try {
    read_real("75 80 02 01 07 65 80 00 00 00 00");
    ADD_FAILURE() << "legacy alternative accepted in the current encoding";
  } catch (const protocol::EBer& e) {
    EXPECT_EQ(e.text(),
              "Unexpected tag 43 received in Union Response.this->resp, BerReader: "
              "protocol::Response:2");
  }
}

TEST(BerReaderMessagesTest, SelectRequestReadsAndWritesBackUnchanged) {
  const std::string request =
      "74 80 02 01 01 A0 80 31 80 04 01 58 00 00 30 80 04 01 2E 02 01 00 05 00 30 80 00 00"
      " 30 80 00 00 30 80 00 00 31 80 00 00 00 00 02 01 00 00 00 00 00";
  auto owned = std::make_unique<ScriptedStream>();
  ScriptedStream* scripted = owned.get();
  scripted->octets(from_hex(request));
  BerReader reader(protocol::guiProtocol(), std::move(owned));
  while (scripted->readable()) reader.readSome(false);
  auto message = reader.takeMessage();
  ASSERT_NE(message, nullptr);
  auto* typed = dynamic_cast<protocol::Request*>(message.get());
  ASSERT_NE(typed, nullptr);
  auto* select = dynamic_cast<protocol::SelectReq*>(typed->req.get());
  ASSERT_NE(select, nullptr);
  EXPECT_EQ(select->startIds, std::vector<std::string>{"X"});
  ASSERT_NE(select->pattern, nullptr);
  EXPECT_EQ(select->pattern->className, ".");
  EXPECT_FALSE(select->pattern->hasNumber);
  reader.send(*message);
  EXPECT_EQ(testing_support::to_hex(scripted->written), testing_support::to_hex(from_hex(request)));
}

}  // namespace
}  // namespace old_protocol
