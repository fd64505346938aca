#include "platform/messaging/nat_messenger.h"

#include <cassert>

#include "platform/messaging/late_request.h"
#include "platform/messaging/party_queue.h"

using messaging::Frame;
using messaging::FrameKind;

namespace {

CA_PROTO ProtocolOf(u32 queue) {
  switch (queue) {
    case 112:
      return CA_PROTO_SIP;
    case 114:
      return CA_PROTO_CM;
    case 115:
      return CA_PROTO_CC;
    default:
      return static_cast<CA_PROTO>(2);
  }
}

// Behind the last of the messages that were received together, their answers go out.
class Answering {
 public:
  explicit Answering(PartyQueue& queue) : m_queue(queue) {}
  ~Answering() {
    if (!m_queue.HasMore()) {
      m_queue.SendGathered();
    }
  }
  Answering(const Answering&) = delete;
  Answering& operator=(const Answering&) = delete;

 private:
  PartyQueue& m_queue;
};

}  // namespace

NatMessenger::NatMessenger(u32 queue)
    : m_proto(ProtocolOf(queue)),
      m_queue(std::make_unique<PartyQueue>(static_cast<int>(queue), messaging::FrameWay::TO_AGENT)) {}

NatMessenger::~NatMessenger() = default;

bool NatMessenger::IsPartyOnline() const { return m_queue->IsPartyOnline(); }

messaging::QueueState NatMessenger::State() const { return m_queue->State(); }

bool NatMessenger::ProcessMessageFromQueue([[maybe_unused]] int count) {
  assert(count == 1);
  const Answering answering(*m_queue);
  const PartyQueue::Turn turn = m_queue->Process();
  if (m_queue->HasRefusal()) OnRefused(m_queue->TakeRefusal());
  if (turn == PartyQueue::Turn::CONNECTED) OnPartyStateChanged(true);
  if (turn == PartyQueue::Turn::HUNG_UP) {
    OnPartyStateChanged(false);
    m_queue->ReportDropped();
  }
  if (turn != PartyQueue::Turn::MESSAGE) return turn != PartyQueue::Turn::IDLE;

  const RequestScope scope(m_queue->Account());
  Dispatch(m_queue->Message());
  return true;
}

void NatMessenger::Dispatch(const Frame& request) {
  switch (request.kind) {
    case FrameKind::CS_REQUEST:
      OnRequestCSNatMapping(request.queryId, request.text, request.items.front(),
                            static_cast<NatPortType>(request.portType), request.value);
      break;
    case FrameKind::CS_LIST_REQUEST:
      OnRequestCSNatMapping(request.queryId, request.text, request.items, request.value);
      break;
    case FrameKind::RTP_REQUEST:
      OnRequestRTPNatMapping(request.queryId, request.text, request.items, request.value);
      break;
    case FrameKind::REVERSE_REQUEST:
      OnRequestReverceRTPNatMapping(request.queryId, request.items, request.value);
      break;
    case FrameKind::CLOSE_REQUEST:
      OnCloseRTPNatMapping(request.queryId);
      break;
    default:
      assert(false && "the decoder lets only requests through");
  }
}

bool NatMessenger::HasMore() const { return m_queue->HasMore(); }

void NatMessenger::HangUp() noexcept { m_queue->GiveUpParty(); }

u32 NatMessenger::ResponseCSNatMapping(const u64& queryId, const NatItem& item, const NatFlag& flag, const u32& value) {
  messaging::EncodeCsAnswer(queryId, value, {item, flag}, m_queue->Packet());
  return m_queue->SendAnswer(true) ? 1 : 0;
}

u32 NatMessenger::ResponseCSNatMapping(const u64& queryId, const std::list<NatRespItem>& items, const u32& value) {
  return SendList(FrameKind::CS_LIST_ANSWER, queryId, items, value);
}

u32 NatMessenger::ResponseRTPNatMapping(const u64& queryId, const std::list<NatRespItem>& items, const u32& value) {
  return SendList(FrameKind::RTP_ANSWER, queryId, items, value);
}

u32 NatMessenger::ResponseReverceRTPNatMapping(const u64& queryId, const std::list<NatRespItem>& items, u32 value) {
  return SendList(FrameKind::REVERSE_ANSWER, queryId, items, value);
}

u32 NatMessenger::SendList(FrameKind kind, const u64& queryId, const std::list<NatRespItem>& items, u32 value) {
  return m_queue->SendAnswer(messaging::EncodeListAnswer(kind, queryId, value, items, m_queue->Packet())) ? 1 : 0;
}
