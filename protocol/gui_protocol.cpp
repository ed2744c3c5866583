#include "protocol/gui_protocol.h"

#include <string>

#include "protocol/messages.h"

namespace protocol {
namespace {

template <class T>
std::unique_ptr<BerConstructed> make() {
  return std::make_unique<T>();
}

struct TopLevel {
  TagCode tag;
  std::unique_ptr<BerConstructed> (*make)();
};

// Tag numbers 14 and 15 are not used.
const TopLevel kMessages[] = {
    {3, make<ClientWants>},        {11, make<ServerOffers>},
    {19, make<NegotiateAck>},      {27, make<NegotiateNack>},
    {35, make<DiffieHellmannParameters>}, {43, make<SporadicBignum>},
    {51, make<AuthChallenge>},     {59, make<AuthResponse>},
    {67, make<ConfigureReq>},      {75, make<ConfigureResp>},
    {83, make<CheckinReq>},        {91, make<CheckinResp>},
    {99, make<UpgradeReq>},        {107, make<UpgradeResp>},
    {131, make<NewSession>},       {139, make<NewSessionResp>},
    {147, make<ReopenSession>},    {155, make<EndSession>},
    {163, make<Request>},          {171, make<Response>},
    {179, make<GridPropertyList>}, {187, make<ServerTimeReq>},
    {195, make<ServerTimeResp>},   {203, make<GridDataIntervalList>},
    {211, make<GSLNonce>},         {219, make<GSLSignedNonce>},
    {227, make<GridMessage>},      {235, make<GSLKeepAlive>},
    {243, make<DowntimeReq>},      {251, make<DowntimeResp>},
    {259, make<HWScanReq>},        {267, make<HWScanResp>},
};

class GuiProtocol final : public BerProtocol {
 public:
  std::unique_ptr<BerConstructed> makeMessage(TagCode tag, bool) const override {
    for (const TopLevel& m : kMessages) {
      if (m.tag == tag) return m.make();
    }
    throw EBer("Unknown tag " + std::to_string(tag));
  }
};

}  // namespace

const BerProtocol& guiProtocol() {
  static const GuiProtocol instance;
  return instance;
}

}  // namespace protocol
