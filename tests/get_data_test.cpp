// The data query against a scripted server: the request it sends and what it
// keeps of the answer.
#include "client/get_data.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "client/session.h"
#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using support::hex;

// Three requests on one session, answered in order: an enumeration interval,
// kept; a server error, which keeps the data type all ones; an answer of
// another type, which is rejected and so not forgotten.
TEST(GetDataTest, KeepsWhatTheAnswersCarry) {
  // The walk's GetData (object "X", index "ifIn", 0, 0x7FFFFFFF, 1, 0, true).
  const support::Octets body = hex(
      "A6 80 04 01 58 04 04 69 66 49 6E 01 01 01 02 01 00 02 04 7F FF FF FF 02 01 01 02 01 00 00 00 00 00");
  support::ScriptedPeer server(support::loginThen(
      hex("74 80 02 01 00") + body + hex("74 80 02 01 01") + body + hex("74 80 02 01 02") + body,
      support::response(0, hex("A6 80 02 01 03 30 80 30 80 A4 80 02 01 0A 02 01 14 02 01 01 02 01 05 "
                               "02 01 00 00 00 00 00 00 00 00 00")) +
          support::response(1, hex("A8 80 02 01 01 30 80 04 02 6E 6F 00 00 00 00")) +
          support::response(2, support::selectResp({}))));
  auto session = support::openTestSession(server.port());
  const struct { uint32_t error, dataType; size_t intervals; const char* failure; } cases[] = {
      {0, 3, 1, "(no error)"}, {1, 0xFFFFFFFFu, 0, "(no error)"},
      {0, 0xFFFFFFFFu, 0, "Wrong type in GetData::decode."}};
  std::vector<std::shared_ptr<client::GetData>> requests;
  for (int i = 0; i < 3; ++i) {
    requests.push_back(std::make_shared<client::GetData>("X", "ifIn", 0, 0x7FFFFFFF, 1, 0, true));
    client::send(*session, requests.back());
  }
  for (int i = 0; i < 3; ++i) {
    client::GetData& request = *requests[i];
    EXPECT_EQ(support::errorText<util::EBerError>([&] { client::await(*session, request); }),
              cases[i].failure);
    EXPECT_EQ(request.state, client::Request::kAnswered);
    EXPECT_EQ(request.error, cases[i].error) << i;
    EXPECT_EQ(request.dataType, cases[i].dataType) << i;
    EXPECT_EQ(request.intervals.size(), cases[i].intervals) << i;
    EXPECT_EQ(session->idsByRequest.count(&request), i == 2 ? 1u : 0u) << i;
  }
}

}  // namespace
