#include "platform/messaging/cgi_messenger.h"

#include <cassert>
#include <utility>

#include "platform/messaging/party_queue.h"

CGIMessenger::CGIMessenger(int queue)
    : m_queue(std::make_unique<PartyQueue>(queue, messaging::FrameWay::TO_CGI_QUEUE)) {}

CGIMessenger::~CGIMessenger() = default;

bool CGIMessenger::IsPartyOnline() const { return m_queue->IsPartyOnline(); }

messaging::QueueState CGIMessenger::State() const { return m_queue->State(); }

void CGIMessenger::OnCgiPartyStateChanged(bool) {}

bool CGIMessenger::ProcessMessageFromQueue([[maybe_unused]] int count) {
  assert(count == 1);
  const PartyQueue::Turn turn = m_queue->Process();
  if (m_queue->HasRefusal()) OnRefused(m_queue->TakeRefusal());
  if (turn == PartyQueue::Turn::CONNECTED) OnCgiPartyStateChanged(true);
  if (turn == PartyQueue::Turn::HUNG_UP) OnCgiPartyStateChanged(false);
  if (turn == PartyQueue::Turn::MESSAGE || turn == PartyQueue::Turn::OWN_NOTICE) {
    const messaging::Frame& update = m_queue->Message();
    m_updateId = update.queryId;
    m_updateFromParty = turn == PartyQueue::Turn::MESSAGE;
    try {
      OnUpdate(static_cast<UpdateType>(update.updateType), update.texts, update.value);
    } catch (...) {
      if (std::exchange(m_updateFromParty, false)) {
        m_queue->GiveUpParty();  // it would wait for its acknowledgement
      }
      throw;
    }
    m_updateFromParty = false;
  }
  return turn != PartyQueue::Turn::IDLE;
}

int CGIMessenger::Update(UpdateType type, const std::list<std::string>&, unsigned value) {
  if (!m_updateFromParty) return 0;
  const messaging::Frame answer{
      .kind = messaging::FrameKind::UPDATE_ANSWER, .queryId = m_updateId, .value = value, .updateType = type};
  return m_queue->SendAnswer(messaging::EncodeFrame(answer, m_queue->Packet())) ? 1 : 0;
}
