// The deepest messages the reader accepts: a hostile peer may nest values up
// to the reader's limit of 1024 open constructed values, so decoding,
// copying, comparing, writing and destroying such a message must all work on
// the ordinary thread stack (the sanitizer build runs this with its larger
// frames). One level more is refused with the reader's own text.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "protocol/gui_protocol.h"
#include "protocol/messages.h"
#include "support/ber_streams.h"
#include "support/message_io.h"

namespace {

using support::Bytes;
using support::decode_messages;
using support::encode_message;
using support::from_hex;
using support::MessageList;

// The open constructed values the reader allows at once.
constexpr int kMaxOpenValues = 1024;

std::string repeated(const std::string& hex, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += hex;
  return out;
}

// Request 1 with a SelectReq from start id "X" whose pattern is a chain of
// `depth` steps ".", each the only child of the one before. Open values:
// Request, SelectReq, then per step the pattern and (below the first) the
// children list holding it, and at the innermost step its empty lists:
// 2 * depth + 2 in all.
Bytes select_chain(int depth) {
  const std::string open = "30 80 04 01 2E 02 01 00 05 00 30 80 ";  // step, its children list
  const std::string rest = "30 80 00 00 30 80 00 00 31 80 00 00 00 00 ";  // the other lists, end
  std::string hex = "74 80 02 01 01 A0 80 31 80 04 01 58 00 00 ";
  hex += repeated(open, depth);
  for (int i = 0; i < depth; ++i) hex += "00 00 " + rest;  // close children list, then step
  hex += "02 01 00 00 00 00 00";
  return from_hex(hex);
}

// Response 7 with a SelectResp holding a chain of `depth` objects "N" (id
// "i"), each the only child of the one before. Open values: Response,
// SelectResp, the objects list, then per object the object and its children
// list, and at the innermost object its empty lists: 2 * depth + 3 in all.
Bytes object_chain(int depth) {
  const std::string open = "30 80 04 01 4E 02 01 00 04 01 69 04 00 30 80 00 00 30 80 ";
  std::string hex = "75 80 02 01 07 A0 80 30 80 ";
  hex += repeated(open, depth);
  for (int i = 0; i < depth; ++i) hex += "00 00 31 80 00 00 00 00 ";  // children, numbers, object
  hex += "00 00 00 00 00 00";
  return from_hex(hex);
}

TEST(DeepNestingTest, DeepestAcceptedMessageSurvivesEveryOperationAndOneMoreIsRefused) {
  const struct {
    Bytes (*make)(int depth);
    int deepest;  // the longest chain whose open values stay within the limit
  } chains[] = {{select_chain, (kMaxOpenValues - 2) / 2}, {object_chain, (kMaxOpenValues - 3) / 2}};
  for (const auto& chain : chains) {
    SCOPED_TRACE(chain.deepest);
    const Bytes stream = chain.make(chain.deepest);
    MessageList messages = decode_messages(stream, false, protocol::guiProtocol());
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(encode_message(*messages[0], false), stream);  // every level was read

    std::unique_ptr<protocol::BerValue> copy = messages[0]->clone();
    EXPECT_TRUE(*copy == *messages[0]);
    messages.clear();  // the original goes first; the copy must not share with it
    EXPECT_EQ(encode_message(*copy, false), stream);
    copy.reset();

    try {
      decode_messages(chain.make(chain.deepest + 1), false, protocol::guiProtocol());
      ADD_FAILURE() << "one level deeper was accepted";
    } catch (const protocol::EBer& e) {
      EXPECT_EQ(e.text(), "Constructed values nested too deeply");
    }
  }
}

}  // namespace
