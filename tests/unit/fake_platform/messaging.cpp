#include "platform/messaging/cfg_update_messenger.h"
#include "platform/messaging/cgi_messenger.h"
#include "platform/messaging/cyclic_queue_poller.h"
#include "platform/messaging/late_request.h"
#include "platform/messaging/nat_messenger.h"
#include "platform/sockets/inet.h"
#include "tests/unit/fake_platform/fake.h"

using fake::Message;

class PartyQueue {
 public:
  u32 number;
  std::shared_ptr<messaging::PartyAccount> account;
};

// Of every party that the queue has.
class messaging::PartyAccount {
 public:
  u32 queue;
};

namespace {

RequestScope* s_scope = nullptr;  // main loop's thread only

}  // namespace

RequestScope::RequestScope(const std::shared_ptr<messaging::PartyAccount>& account)
    : m_account(account), m_outer(std::exchange(s_scope, this)), m_open(true) {}
RequestScope::~RequestScope() { s_scope = m_outer; }
void RequestScope::Answered() { s_scope->m_open = false; }
bool RequestScope::IsOpen() { return s_scope != nullptr && s_scope->m_open; }

LateRequest::LateRequest(std::size_t bytes) : m_account(s_scope->m_account) {
  s_scope->m_open = false;
  ++fake::Device()->kept[m_account->queue].requests;
  Resize(bytes);
}

LateRequest& LateRequest::operator=(LateRequest other) noexcept {
  swap(other);
  return *this;
}

LateRequest::~LateRequest() {
  if (m_account != nullptr) {
    Resize(0);
    --fake::Device()->kept[m_account->queue].requests;
  }
}

bool LateRequest::HasParty() const { return m_account != nullptr && fake::Device()->online.contains(m_account->queue); }

void LateRequest::Resize(std::size_t bytes) {
  fake::Device()->kept[m_account->queue].bytes += bytes - m_bytes;
  m_bytes = bytes;
}

bool LateRequest::DropIfBeyondBounds() {
  {
    fake::Device device;
    const u32 queue = m_account->queue;
    if (device->online.contains(queue) || device->kept[queue].requests <= device->mayBeLeft) {
      return false;
    }
  }
  *this = {};
  return true;
}

void LateRequest::swap(LateRequest& other) noexcept {
  m_account.swap(other.m_account);
  std::swap(m_bytes, other.m_bytes);
}

struct CyclicQueuePoller::Impl {};

CyclicQueuePoller::CyclicQueuePoller(int value) {
  fake::Record("poll new ", value);
  fake::Device()->released = false;
}

CyclicQueuePoller::~CyclicQueuePoller() = default;

bool CyclicQueuePoller::SelectQueue(int queue, const char*, bool, bool) {
  fake::Record("poll select ", queue);
  return true;
}

int CyclicQueuePoller::WaitForEvents() {
  fake::Device device;
  device->waiting = true;
  device->changed.notify_all();
  device->changed.wait(device.Lock(), [&] { return device->released || !device->events.empty(); });
  device->waiting = false;
  if (std::exchange(device->released, false)) {
    return -1;
  }
  const int queue = device->events.front();
  device->events.pop_front();
  return queue;
}

bool CyclicQueuePoller::Release() {
  fake::Device device;
  device->released = true;
  device->journal.push_back("poll release");
  return true;
}

namespace {

constexpr u32 kProtocols[] = {CA_PROTO_SIP, 2, CA_PROTO_CM, CA_PROTO_CC};  // of queues 112 to 115

u32 RecordAnswer(u32 queue, const char* kind, u64 id, const std::list<NatRespItem>& items, u32 value) {
  std::ostringstream text;
  for (const NatRespItem& item : items) {
    text << ' ' << sockets::inet_ntoa(item.ip) << ':' << item.port << '=' << sockets::inet_ntoa(item.mappedIp) << ':'
         << item.mappedPort << '/' << item.flag;
  }
  fake::Record("send ", queue, ' ', kind, ' ', id, text.str(), " value ", value);
  RequestScope::Answered();
  return 1;
}

}  // namespace

NatMessenger::NatMessenger(u32 queue)
    : m_proto(static_cast<CA_PROTO>(kProtocols[queue - 112])),
      m_queue(new PartyQueue{queue, std::shared_ptr<messaging::PartyAccount>(new messaging::PartyAccount{queue})}) {}
NatMessenger::~NatMessenger() = default;

bool NatMessenger::IsPartyOnline() const { return fake::Device()->online.contains(m_queue->number); }

messaging::QueueState NatMessenger::State() const {
  return {.isOnline = IsPartyOnline(), .pid = 4711, .uid = 1001, .program = "agent", .since = 1};
}

bool NatMessenger::ProcessMessageFromQueue(int count) {
  Message message;
  {
    fake::Device device;
    auto& waiting = device->messages[m_queue->number];
    if (waiting.empty() || count != 1) {
      return false;
    }
    message = std::move(waiting.front());
    waiting.pop_front();
  }
  const auto& [kind, id, destination, items, value, portType] = message;
  const RequestScope scope(m_queue->account);
  switch (kind) {
    case Message::CONNECT:
      fake::Device()->online.insert(m_queue->number);
      OnPartyStateChanged(true);
      break;
    case Message::HANG_UP:
      fake::Device()->online.erase(m_queue->number);
      OnPartyStateChanged(false);
      break;
    case Message::CS:
      OnRequestCSNatMapping(id, destination, items.front(), portType, value);
      break;
    case Message::CS_LIST:
      OnRequestCSNatMapping(id, destination, items, value);
      break;
    case Message::RTP:
      OnRequestRTPNatMapping(id, destination, items, value);
      break;
    case Message::REVERSE:
      OnRequestReverceRTPNatMapping(id, items, value);
      break;
    case Message::CLOSE:
      OnCloseRTPNatMapping(id);
      break;
  }
  return true;
}

// All that a test has scripted at once came together.
bool NatMessenger::HasMore() const { return !fake::Device()->messages[m_queue->number].empty(); }

void NatMessenger::HangUp() noexcept { fake::Record("hang up ", m_queue->number); }

u32 NatMessenger::ResponseCSNatMapping(const u64& id, const NatItem& item, const NatFlag& flag, const u32& value) {
  fake::Record("send ", m_queue->number, " cs ", id, ' ', sockets::inet_ntoa(item.ip), ':', item.port, '/', flag,
               " value ", value);
  RequestScope::Answered();
  return 1;
}
u32 NatMessenger::ResponseCSNatMapping(const u64& id, const std::list<NatRespItem>& items, const u32& value) {
  return RecordAnswer(m_queue->number, "cs-list", id, items, value);
}
u32 NatMessenger::ResponseRTPNatMapping(const u64& id, const std::list<NatRespItem>& items, const u32& value) {
  return RecordAnswer(m_queue->number, "rtp", id, items, value);
}
u32 NatMessenger::ResponseReverceRTPNatMapping(const u64& id, const std::list<NatRespItem>& items, u32 value) {
  return RecordAnswer(m_queue->number, "reverse", id, items, value);
}

// Configuration updates from outside are the system tests'.
CGIMessenger::CGIMessenger(int) {}
CGIMessenger::~CGIMessenger() = default;
bool CGIMessenger::IsPartyOnline() const { return false; }
messaging::QueueState CGIMessenger::State() const { return {}; }
bool CGIMessenger::ProcessMessageFromQueue(int) { return false; }
int CGIMessenger::Update(UpdateType, const std::list<std::string>&, unsigned) { return 0; }
void CGIMessenger::OnCgiPartyStateChanged(bool) {}

void CfgUpdateMessenger::SendMessageA(UpdateType type, const std::list<std::string>& texts, bool flag) {
  fake::Record("notice ", type, ' ', texts.size(), ' ', flag);
}
