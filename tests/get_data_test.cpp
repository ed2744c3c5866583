// The data query against a scripted server: the request it sends and what it
// keeps of the answer.
#include "client/get_data.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "client/session.h"
#include "protocol/messages.h"
#include "support/scripted_peer.h"
#include "util/error.h"

namespace {

using peer::Bytes;
using peer::hex;

// Sends the walk's GetData (object "X", index "ifIn", 0, 0x7FFFFFFF, 1, 0,
// true; checked as request id 0) to a server answering `answer` and hands the
// awaited request to `check`. Returns the text of the errors::bererror the
// answer raised, or "" when there was none.
template <class Check>
std::string getDataWithAnswer(const Bytes& answer, Check check) {
  peer::ScriptedPeer server(peer::loginThen(
      hex("74 80 02 01 00 A6 80 04 01 58 04 04 69 66 49 6E 01 01 01 "
          "02 01 00 02 04 7F FF FF FF 02 01 01 02 01 00 00 00 00 00"),
      peer::response(0, answer)));
  auto session = peer::openTestSession(server.port());
  auto request = std::make_shared<dataquery::GetData>("X", "ifIn", 0, 0x7FFFFFFF, 1, 0, true);
  comquery::send(*session, request);
  const std::string failure =
      peer::errorText<errors::bererror>([&] { comquery::await(*session, *request); });
  EXPECT_EQ(request->state, comquery::Request::kAnswered);
  if (failure == "(no error)") {
    EXPECT_TRUE(session->idsByRequest.empty());  // forgotten whatever the answer
    EXPECT_EQ(request.use_count(), 1);
  }
  check(*request);
  return failure == "(no error)" ? "" : failure;
}

TEST(GetDataTest, KeepsTheIntervalsInTheServersOrder) {
  // Two enumeration intervals (4) around an incident (1).
  const Bytes answer = hex(
      "A6 80 02 01 03 30 80 "
      "30 80 A4 80 02 01 0A 02 01 14 02 01 01 02 01 05 02 01 00 00 00 00 00 "
      "30 80 A1 80 02 01 0F 0A 01 02 04 02 68 69 00 00 00 00 "
      "30 80 A4 80 02 01 14 02 01 1E 02 01 02 02 01 06 02 01 01 00 00 00 00 "
      "00 00 00 00");
  EXPECT_EQ(getDataWithAnswer(answer, [](dataquery::GetData& request) {
    EXPECT_EQ(request.error, 0u);
    EXPECT_EQ(request.dataType, 3u);
    ASSERT_EQ(request.intervals.size(), 3u);
    auto* first = dynamic_cast<protocol::DataIntervalEnum*>(request.intervals[0]->data.get());
    auto* incident =
        dynamic_cast<protocol::DataIntervalIncident*>(request.intervals[1]->data.get());
    auto* last = dynamic_cast<protocol::DataIntervalEnum*>(request.intervals[2]->data.get());
    ASSERT_TRUE(first != nullptr && incident != nullptr && last != nullptr);
    EXPECT_EQ(first->start, 10);
    EXPECT_EQ(first->ngood, 5u);
    EXPECT_EQ(incident->time, 15);
    EXPECT_EQ(incident->message, "hi");
    EXPECT_EQ(last->start, 20);
    EXPECT_EQ(last->nbad, 1u);
  }), "");
}

// An empty list is a success; a server error keeps the data type all ones;
// an answer of another type is rejected.
TEST(GetDataTest, AnswersWithoutIntervals) {
  const struct {
    Bytes answer;
    uint32_t error;
    uint32_t dataType;
    const char* failure;
  } cases[] = {
      {hex("A6 80 02 01 05 30 80 00 00 00 00"), 0, 5, ""},
      {hex("A8 80 02 01 01 30 80 04 02 6E 6F 00 00 00 00"), 1, 0xFFFFFFFFu, ""},
      {peer::selectResp(Bytes()), 0, 0xFFFFFFFFu, "Wrong type in GetData::decode."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << (&c - cases));
    EXPECT_EQ(getDataWithAnswer(c.answer, [&c](dataquery::GetData& request) {
      EXPECT_EQ(request.error, c.error);
      EXPECT_EQ(request.dataType, c.dataType);
      EXPECT_TRUE(request.intervals.empty());
    }), c.failure);
  }
}

}  // namespace
