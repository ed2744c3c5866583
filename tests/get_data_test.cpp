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
using peer::PeerLink;
using peer::ScriptedPeer;

// The request the walk makes: object "X", index "ifIn", 0, 0x7FFFFFFF, 1, 0,
// true, as request id 0.
const char* const kWalkRequest =
    "74 80 02 01 00 A6 80 04 01 58 04 04 69 66 49 6E 01 01 01 "
    "02 01 00 02 04 7F FF FF FF 02 01 01 02 01 00 00 00 00 00";

// Sends the walk's GetData to a server answering `answer` (a Response body)
// and hands the awaited request and its result to `check`.
template <class Check>
void getDataWithAnswer(const Bytes& answer, Check check) {
  ScriptedPeer server([&answer](PeerLink& link) {
    peer::acceptLogin(link, peer::freshSessionId());
    link.expect(hex(kWalkRequest), "GetData request");
    link.send(peer::response(0, answer));
    link.expectEnd("after the answer");
  });
  {
    auto session = peer::openTestSession(server.port());
    auto request = std::make_shared<dataquery::GetData>("X", "ifIn", 0, 0x7FFFFFFF, 1, 0, true);
    EXPECT_EQ(request->dataType, 0xFFFFFFFFu);
    comquery::send(*session, request);
    const uint32_t error = comquery::await(*session, *request);
    EXPECT_TRUE(session->idsByRequest.empty());  // forgotten whatever the answer
    EXPECT_EQ(request.use_count(), 1);
    check(*request, error);
  }
  for (const std::string& complaint : server.finish()) ADD_FAILURE() << complaint;
}

TEST(GetDataTest, KeepsTheIntervalsInTheServersOrder) {
  // Two enumeration intervals (4) around an incident (1).
  const Bytes answer = hex(
      "A6 80 02 01 03 30 80 "
      "30 80 A4 80 02 01 0A 02 01 14 02 01 01 02 01 05 02 01 00 00 00 00 00 "
      "30 80 A1 80 02 01 0F 0A 01 02 04 02 68 69 00 00 00 00 "
      "30 80 A4 80 02 01 14 02 01 1E 02 01 02 02 01 06 02 01 01 00 00 00 00 "
      "00 00 00 00");
  getDataWithAnswer(answer, [](dataquery::GetData& request, uint32_t error) {
    EXPECT_EQ(error, 0u);
    EXPECT_EQ(request.error, 0u);
    EXPECT_EQ(request.dataType, 3u);
    ASSERT_EQ(request.intervals.size(), 3u);
    auto* first = dynamic_cast<protocol::DataIntervalEnum*>(request.intervals[0]->data.get());
    auto* incident =
        dynamic_cast<protocol::DataIntervalIncident*>(request.intervals[1]->data.get());
    auto* last = dynamic_cast<protocol::DataIntervalEnum*>(request.intervals[2]->data.get());
    ASSERT_NE(first, nullptr);
    ASSERT_NE(incident, nullptr);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(first->start, 10);
    EXPECT_EQ(first->end, 20);
    EXPECT_EQ(first->ngood, 5u);
    EXPECT_EQ(incident->time, 15);
    EXPECT_EQ(incident->severity, 2);
    EXPECT_EQ(incident->message, "hi");
    EXPECT_EQ(last->start, 20);
    EXPECT_EQ(last->nbad, 1u);
  });
}

TEST(GetDataTest, EmptyIntervalListIsASuccess) {
  getDataWithAnswer(hex("A6 80 02 01 05 30 80 00 00 00 00"),
                    [](dataquery::GetData& request, uint32_t error) {
                      EXPECT_EQ(error, 0u);
                      EXPECT_EQ(request.dataType, 5u);
                      EXPECT_TRUE(request.intervals.empty());
                    });
}

TEST(GetDataTest, ServerErrorLeavesTheDataTypeAllOnes) {
  getDataWithAnswer(peer::errorResp(1, {"no such object"}),
                    [](dataquery::GetData& request, uint32_t error) {
                      EXPECT_EQ(error, 1u);
                      EXPECT_EQ(request.state, comquery::Request::kAnswered);
                      EXPECT_EQ(request.dataType, 0xFFFFFFFFu);
                      EXPECT_TRUE(request.intervals.empty());
                    });
}

TEST(GetDataTest, AnswerOfAnotherTypeIsRejected) {
  ScriptedPeer server([](PeerLink& link) {
    peer::acceptLogin(link, peer::freshSessionId());
    link.readMessage();
    link.send(peer::response(0, peer::selectResp(Bytes())));
    link.expectEnd("after the answer");
  });
  {
    auto session = peer::openTestSession(server.port());
    auto request = std::make_shared<dataquery::GetData>("X", "ifIn", 0, 0x7FFFFFFF, 1, 0, true);
    comquery::send(*session, request);
    try {
      comquery::await(*session, *request);
      ADD_FAILURE() << "no error";
    } catch (const errors::bererror& e) {
      EXPECT_EQ(e.text(), "Wrong type in GetData::decode.");
    }
    EXPECT_EQ(request->dataType, 0xFFFFFFFFu);
  }
  for (const std::string& complaint : server.finish()) ADD_FAILURE() << complaint;
}

}  // namespace
