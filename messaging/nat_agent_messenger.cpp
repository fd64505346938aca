#include "messaging/nat_agent_messenger.h"

#include "agent/faults.h"
#include "agent/host.h"
#include "agent/host_events.h"
#include "agent/nat_agent.h"
#include "platform/messaging/queue_registry.h"

namespace {

constexpr int kSipQueue = 112;
constexpr int kQueue113 = 113;
constexpr int kCmQueue = 114;
constexpr int kCcQueue = 115;
constexpr int kCgiQueue = 102;
constexpr int kPollerValue = 56;
constexpr char kQueuePath[] = "/bin/ping";

// A turn's lines go to the file together, whatever ends the turn, and before the settings lock is given up: the lines
// of a reload that comes next are in the file when the reload is over.
class HeldLog {
 public:
  explicit HeldLog(NatLogOut& log) : m_log(log) { m_log.Hold(); }
  ~HeldLog() { m_log.Flush(); }
  HeldLog(const HeldLog&) = delete;
  HeldLog& operator=(const HeldLog&) = delete;

 private:
  NatLogOut& m_log;
};

}  // namespace

NatAgentMessenger::NatAgentMessenger()
    : m_channel112(kSipQueue),
      m_channel113(kQueue113),
      m_channel114(kCmQueue),
      m_channel115(kCcQueue),
      m_cgiChannel(kCgiQueue),
      m_loopRunning(false),
      m_poller(std::make_unique<CyclicQueuePoller>(kPollerValue)) {}

bool NatAgentMessenger::Run() {
  {
    ScopedLock lock(g_settingsLock);  // a host may read already
    SelectQueues();
  }
  AnnounceOnlineParties();
  m_loopRunning = true;
  TellStart();
  if (_NatAgent.IsStopRequested()) {
    Stop();  // asked for before there was a loop to end
  }
  do {
    Turn(m_poller->WaitForEvents());
  } while (m_loopRunning);
  _NatAgent.Log().Trace("Nat Messenger stoped\r\n", kLogOrdinary);
  _NatAgent.Stop();  // this object is gone now
  return true;
}

void NatAgentMessenger::TellStart() {
  std::string fault;
  if (messaging::QueueRegistry::Check(fault) == messaging::QueueRegistry::State::OPEN) {
    HostEvents::Tell(NAT_EVENT_READY, "");
  } else {
    HostEvents::Tell(NAT_EVENT_FAILED, fault.c_str());
  }
}

void NatAgentMessenger::SelectQueues() {
  m_poller->SelectQueue(kCmQueue, kQueuePath, true, false);
  m_poller->SelectQueue(kCcQueue, kQueuePath, true, false);
  m_poller->SelectQueue(kSipQueue, kQueuePath, true, false);
  m_poller->SelectQueue(kQueue113, kQueuePath, true, true);
  m_poller->SelectQueue(kCgiQueue, kQueuePath, true, true);
}

void NatAgentMessenger::AnnounceOnlineParties() {
  ScopedLock lock(g_settingsLock);
  for (NatCAMessenger* channel : {&m_channel112, &m_channel113, &m_channel114, &m_channel115}) {
    if (channel->IsPartyOnline()) {
      channel->OnPartyStateChanged(true);
    }
  }
}

void NatAgentMessenger::Turn(int queue) {
  ScopedLock lock(g_settingsLock);
  const HeldLog held(_NatAgent.Log());
  if (queue >= 0) {
    _NatAgent.BeginTurn();  // not for what is flagged: a flag may be set after the routes were looked at
  }
  NatCAMessenger* const channel = ChannelOfQueue(queue);
  do {
    try {
      Handle(queue);
    } catch (...) {
      ReportFault("a turn of the main loop was not finished");
    }
  } while (channel != nullptr && channel->HasMore());
  _NatAgent.EndTurn();
}

void NatAgentMessenger::CheckWhatIsFlagged() {
  try {
    _NatAgent.CheckIsResolvedHostName();
    _NatAgent.CheckIpChanges();
  } catch (...) {
    ReportFault("a turn of the main loop was not finished");  // it is no reason to look dead
  }
}

void NatAgentMessenger::Handle(int queue) {
  if (queue == -1) {
    CheckWhatIsFlagged();
    _NatAgent.AnswerHealth();
  } else if (queue == kCgiQueue) {
    m_cgiChannel.ProcessMessageFromQueue(1);
  } else if (NatCAMessenger* const channel = ChannelOfQueue(queue)) {
    channel->ProcessMessageFromQueue(1);
  }
}

NatCAMessenger* NatAgentMessenger::ChannelOfQueue(int queue) {
  switch (queue) {
    case kSipQueue:
      return &m_channel112;
    case kQueue113:
      return &m_channel113;
    case kCmQueue:
      return &m_channel114;
    case kCcQueue:
      return &m_channel115;
    default:
      return nullptr;
  }
}

bool NatAgentMessenger::Stop() {
  m_loopRunning = false;
  return Wake();
}

bool NatAgentMessenger::Wake() { return m_poller->Release(); }

u32 NatAgentMessenger::OnlineParties() const {
  return (m_channel112.IsPartyOnline() ? NAT_PARTY_SIP : 0) | (m_channel113.IsPartyOnline() ? NAT_PARTY_Q113 : 0) |
         (m_channel114.IsPartyOnline() ? NAT_PARTY_CM : 0) | (m_channel115.IsPartyOnline() ? NAT_PARTY_CC : 0) |
         (m_cgiChannel.IsPartyOnline() ? NAT_PARTY_CGI : 0);
}

bool NatAgentMessenger::ReadQueue(int queue, messaging::QueueState& state) const {
  if (queue == kCgiQueue) {
    state = m_cgiChannel.State();
    return true;
  }
  const NatCAMessenger* const channels[] = {&m_channel112, &m_channel113, &m_channel114, &m_channel115};
  if (queue < kSipQueue || queue > kCcQueue) {
    return false;
  }
  state = channels[queue - kSipQueue]->State();
  return true;
}

NatCAMessenger* NatAgentMessenger::GetCAMessenger(CA_PROTO proto) {
  switch (proto) {
    case CA_PROTO_CM:
      return &m_channel114;
    case CA_PROTO_SIP:
      return &m_channel112;
    case CA_PROTO_CC:
      return &m_channel115;
  }
  return nullptr;
}
