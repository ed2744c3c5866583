// The stand-in server's fast request decoder against the protocol's reader,
// on whole requests, requests cut short and requests with an octet changed:
// what it takes must be what the reader makes of the same octets. The
// requests the exporter sends are answered in every end-to-end export.
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "protocol/gui_protocol.h"
#include "server/request_decoder.h"
#include "server/select_eval.h"
#include "support/ber_streams.h"
#include "support/server_harness.h"

namespace {

using support::select_req;
using Outcome = server::RequestDecoder::Outcome;

// Requests of every form, and whether the decoder takes them: it takes
// history requests and selects whose steps have no number, colon children,
// conditions or property list, and declines the rest, which the protocol's
// reader decodes.
std::vector<std::pair<std::unique_ptr<protocol::BerConstructed>, bool>> sample_bodies() {
  std::string deep = ".";
  for (size_t i = 0; i < server::kMaxPatternDepth; ++i) deep += " > .";
  const std::tuple<std::vector<std::string>, std::string, bool> selects[] = {
      {{"root"}, ". > Node", true}, {{"root"}, ".! > (Domain : Node)", false},
      {{"root"}, ". > Domain=1", false}, {{"root"}, ".![name] > Node", false},
      {{"root"}, ". > Node[load]", false}, {{"root"}, ". > Domain { id in {\"a\", \"b\"} }", false},
      {{"a", "b"}, ".! > (Domain | Node)", true}, {{}, ".!", true}, {{"root"}, ".* > .", true},
      {{"root"}, deep, true}};
  std::vector<std::pair<std::unique_ptr<protocol::BerConstructed>, bool>> bodies;
  for (const auto& [starts, pattern, taken] : selects) bodies.emplace_back(select_req(starts, pattern), taken);
  auto flagged = select_req({"root"}, ". > Node");
  flagged->flags = 0xffffffffu;
  bodies.emplace_back(std::move(flagged), true);
  for (bool extreme : {false, true}) {
    auto data = std::make_unique<protocol::GetDataReq>();
    data->objectId = extreme ? std::string(32, 'o') : "c2";
    data->indexName = extreme ? std::string(16, 'i') : "cpu";
    data->p1 = extreme ? -1 : 0;
    data->p2 = extreme ? std::numeric_limits<int32_t>::min() : 0x7FFFFFFF;
    data->p3 = extreme ? 2000 : 1;
    data->p4 = extreme ? 128 : 0;
    data->flag = !extreme;
    bodies.emplace_back(std::move(data), true);
  }
  bodies.emplace_back(std::make_unique<protocol::EraseReq>(), false);
  return bodies;
}

// A request taken whole is the original; cut short it waits for more; with
// any octet changed it is declined, or decoded as the reader decodes it.
TEST(ServerCodec, FastDecoderAgreesWithTheProtocolReader) {
  const server::RequestDecoder decoder;
  const int32_t ids[] = {0x7fffffff, 0, 128, 977, 40000};
  size_t n = 0;
  for (auto& [body, taken] : sample_bodies()) {
    protocol::Request original;
    original.id = ids[n++ % 5];
    original.req = std::move(body);
    const support::Bytes bytes = support::encode_message(original, false);
    const std::string what = support::to_hex(bytes);
    server::RequestDecoder::Result r = decoder.decode(bytes.data(), bytes.size());
    if (!taken) {
      EXPECT_EQ(r.outcome, Outcome::kDeclined) << what;
      continue;
    }
    ASSERT_EQ(r.outcome, Outcome::kComplete) << what;
    EXPECT_EQ(r.length, bytes.size()) << what;
    EXPECT_TRUE(*r.request == original) << what;
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
      EXPECT_EQ(decoder.decode(bytes.data(), cut).outcome, Outcome::kIncomplete) << what << " cut at " << cut;
    }
    for (size_t at = 0; at < bytes.size(); ++at) {
      for (uint8_t flip : {0x01, 0x20, 0x80, 0xff}) {
        support::Bytes changed = bytes;
        changed[at] ^= flip;
        r = decoder.decode(changed.data(), changed.size());
        if (r.outcome != Outcome::kComplete) continue;
        SCOPED_TRACE(what + " octet " + std::to_string(at));
        support::MessageList read;
        changed.resize(r.length);
        EXPECT_NO_THROW(read = support::decode_messages(changed, false, protocol::guiProtocol()));
        ASSERT_EQ(read.size(), 1u);
        EXPECT_TRUE(*read.front() == *r.request);
      }
    }
  }
}

}  // namespace
