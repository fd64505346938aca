#include "platform/messaging/party_queue.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <new>
#include <utility>

#include "platform/journal.h"
#include "platform/messaging/queue_users.h"
#include "platform/messaging/runtime_dir.h"

using messaging::FrameKind;
using messaging::FrameWay;

PartyQueue::PartyQueue(int number, FrameWay way) : m_number(number), m_way(way) {
  const auto lease = messaging::QueueRegistry::Join(*this, number);
  if (lease == nullptr) {
    JournalError("queue " + std::to_string(number) + " is open in this process already");
    return;
  }
  try {
    Open(*lease);
    messaging::QueueRegistry::SetSocket(*this, m_socket ? std::optional(m_socket->File()) : std::nullopt);
  } catch (...) {
    messaging::QueueRegistry::Leave(*this);
    throw;
  }
}

void PartyQueue::Open(const messaging::RuntimeDirLease& lease) {
  if (!lease.IsHeld()) {
    return;
  }
  if (m_inbox.Doorbell() < 0) {
    JournalError("queue " + std::to_string(m_number) + " stays closed: no eventfd can be made for its notices");
    return;
  }
  m_incoming.Reserve(messaging::MaxFrameBytes() + 1);
  m_socket.emplace(lease, m_number);
  if (!m_socket->IsOpen()) {
    m_socket.reset();
  }
}

PartyQueue::~PartyQueue() {
  if (m_account != nullptr) {
    m_account->Orphan();
  }
  m_socket.reset();
  messaging::QueueRegistry::Leave(*this);
}

PartyQueue::Turn PartyQueue::Process() {
  if (!m_socket) return Turn::IDLE;
  if (m_gathering && HasMore()) return TakeNext();
  const unsigned ready = (m_ready != 0 ? std::exchange(m_ready, 0U) : AskReady()) | (HasMore() ? PEER : 0U);
  if (ready == 0) return Turn::IDLE;

  const bool noticeYields = m_noticeWasLast && (ready & ~DOORBELL) != 0;
  m_noticeWasLast = false;
  if ((ready & DOORBELL) != 0 && !noticeYields) {
    m_inbox.Silence();
    SendNotices();
    if (TakeOwnNotice()) return Turn::OWN_NOTICE;
  }
  if (!m_peer) return (ready & LISTENER) != 0 && Adopt() ? Turn::CONNECTED : Turn::DONE;
  if ((ready & LISTENER) != 0 && !MakesWay()) RefuseNext();
  if ((ready & PEER) == 0) return Turn::DONE;
  if (!m_waiting.empty()) {
    Flush();
    return Turn::DONE;
  }
  if (m_heldBack && HasPeerHungUp(/*inFull=*/true)) {
    m_account->Orphan();
  }
  if (m_heldBack) return Turn::DONE;
  return m_incoming.IsEmpty() ? Receive() : TakeNext();
}

unsigned PartyQueue::AskReady() const {
  const int wanted = !m_waiting.empty() ? POLLOUT : m_heldBack ? 0 : POLLIN;  // a full hang-up is reported anyway
  pollfd asked[] = {
      {m_socket->Get(), POLLIN, 0}, {m_peer.Get(), static_cast<short>(wanted), 0}, {m_inbox.Doorbell(), POLLIN, 0}};
  if (::poll(asked, std::size(asked), 0) <= 0) return 0;
  return (asked[0].revents != 0 ? LISTENER : 0U) | (asked[1].revents != 0 ? PEER : 0U) |
         (asked[2].revents != 0 ? DOORBELL : 0U);
}

// Whether nothing comes from the peer any more; in full: and it cannot read any more either.
bool PartyQueue::HasPeerHungUp(bool inFull) const {
  pollfd asked{m_peer.Get(), static_cast<short>(inFull ? 0 : POLLRDHUP), 0};
  return ::poll(&asked, 1, 0) > 0 && (asked.revents & (POLLHUP | POLLRDHUP)) != 0;
}

// Whether the party has hung up and is gone within a few turns, so that the peer that waits behind it is the next
// party. One that has closed its sending side only, and waits for answers or does not read them, may stay for ever.
bool PartyQueue::MakesWay() const { return HasPeerHungUp(/*inFull=*/m_heldBack || !m_waiting.empty()); }

bool PartyQueue::Adopt() {
  messaging::Peer from;
  UniqueFd peer = AcceptAdmitted(from);
  if (!peer) {
    return false;
  }
  // A throw from here on hangs up on the peer, which would otherwise wait for ever.
  m_account = std::make_shared<messaging::PartyAccount>(*this);
  from.LookAtProgram();
  m_party = std::move(from);
  m_since = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
                .count();
  m_peer = std::move(peer);
  m_peerReads = true;
  try {
    if (m_epoll && !AddToEpoll(m_peer.Get(), PEER)) {
      m_peer.Reset();
      return false;
    }
    const std::string connected = "the party of " + Name() + " connected";
    JournalNotice(connected + ": " + m_party.Text(), connected);
    SendFrame(FrameKind::WELCOME, 0, static_cast<u32>(m_number));
  } catch (...) {
    m_peer.Reset();
    throw;
  }
  m_inbox.SetPartyOnline(true);
  return true;
}

void PartyQueue::AdoptWaiting() {
  if (m_socket && !m_peer) {
    Adopt();
  }
}

void PartyQueue::RefuseNext() {
  messaging::Peer from;
  if (const UniqueFd peer = AcceptAdmitted(from)) {
    Refuse(peer.Get(), from, messaging::RefusalReason::QUEUE_TAKEN,
           "another party is connected to queue " + std::to_string(m_number) + ": " + m_party.ProcessText());
  }
}

UniqueFd PartyQueue::AcceptAdmitted(messaging::Peer& from) {
  UniqueFd peer = m_socket->Accept();
  if (!peer) {
    if (m_socket->IsExhausted()) {
      Rest();
    }
    return {};
  }
  from = messaging::Peer::Of(peer.Get());
  if (messaging::QueueUsers::Admits(m_number, from.uid)) {
    return peer;
  }
  const std::string user = "user " + std::to_string(from.uid);
  Refuse(peer.Get(), from, messaging::RefusalReason::NOT_ALLOWED,
         user + " may not use queue " + std::to_string(m_number));
  // Without the process, so that a user who tries over and over makes equal lines.
  JournalNotice(Name() + " refused " + user + ", who is not among its users");
  return {};
}

void PartyQueue::Refuse(int peer, const messaging::Peer& from, messaging::RefusalReason reason,
                        const std::string& text) {
  NoteRefusal(from, reason, text);
  messaging::EncodeFrame({.kind = FrameKind::REFUSED, .value = static_cast<u32>(reason), .text = text}, m_packet);
  // A fresh socket has room for it; a peer that is gone already needs no reason.
  messaging::SendPackets(peer, &m_packet, 1);
}

void PartyQueue::NoteRefusal(const messaging::Peer& from, messaging::RefusalReason reason, const std::string& text) {
  ++m_counts.refusals[static_cast<std::size_t>(reason) % m_counts.refusals.size()];
  m_refusal = {static_cast<u32>(reason), from.pid, from.uid, text};
}

messaging::QueueState PartyQueue::State() const {
  messaging::QueueState state = m_counts;
  state.isOnline = IsPartyOnline();
  state.pid = m_party.pid;
  state.uid = m_party.uid;
  state.program = m_party.program;
  state.since = m_since;
  return state;
}

void PartyQueue::Rest() {
  m_resting = m_epoll && ControlEpoll(EPOLL_CTL_MOD, m_socket->Get(), LISTENER, 0);
  m_restEnd = std::chrono::steady_clock::now() + kRest;
}

void PartyQueue::EndRest() {
  if (std::chrono::steady_clock::now() >= m_restEnd) {
    m_resting = !ControlEpoll(EPOLL_CTL_MOD, m_socket->Get(), LISTENER, EPOLLIN);
  }
}

bool PartyQueue::TakeOwnNotice() {
  if (m_way != FrameWay::TO_CGI_QUEUE || !m_inbox.TakeOwn(m_packet)) return false;
  messaging::FrameFault fault;
  m_noticeWasLast = messaging::DecodeFrame(m_packet, FrameWay::TO_PARTY, m_message, fault);
  return m_noticeWasLast;
}

void PartyQueue::HoldBack(bool held) {
  if (std::exchange(m_heldBack, held) != held && m_peer && m_waiting.empty()) WatchPeer();
}

void PartyQueue::ReportDropped() {
  if (const std::size_t dropped = messaging::PartyAccount::TakeDropped(m_number)) {
    m_counts.dropped += dropped;
    JournalNotice("queue " + std::to_string(m_number) + ": dropped " + std::to_string(dropped) +
                  " look-ups, the oldest that parties had left when they hung up: at most " +
                  std::to_string(LateRequest::kMaxRequests) + " of them are kept, or 1 MB");
  }
}

void PartyQueue::HangUp() {
  try {
    const std::string hungUp = "the party of " + Name() + " hung up";
    JournalNotice(hungUp + ": " + m_party.Text(), hungUp);
  } catch (const std::bad_alloc&) {
    JournalNotice("a party hung up");
  }
  m_account->Orphan();
  m_inbox.SetPartyOnline(false);
  if (m_epoll) {
    ::epoll_ctl(m_epoll->Get(), EPOLL_CTL_DEL, m_peer.Get(), nullptr);
  }
  m_peer.Reset();
}

void PartyQueue::Post(const std::string& notice) { m_inbox.Post(notice, m_way == FrameWay::TO_CGI_QUEUE); }

bool PartyQueue::Watch(std::shared_ptr<const UniqueFd> epoll) {
  if (!m_socket) return false;
  m_epoll = std::move(epoll);
  if (AddToEpoll(m_socket->Get(), LISTENER) && AddToEpoll(m_inbox.Doorbell(), DOORBELL) &&
      (!m_peer || AddToEpoll(m_peer.Get(), PEER))) {
    return true;
  }
  // Nobody would ever be taken in.
  m_peer.Reset();
  m_socket.reset();
  messaging::QueueRegistry::SetSocket(*this, std::nullopt);
  return false;
}

// With its party, for people.
std::string PartyQueue::Name() const {
  const auto* found = std::find_if(std::begin(messaging::kQueues), std::end(messaging::kQueues),
                                   [this](const messaging::QueueInfo& queue) { return queue.number == m_number; });
  const std::string name = "queue " + std::to_string(m_number);
  return found != std::end(messaging::kQueues) ? name + " (" + found->party + ")" : name;
}

bool PartyQueue::AddToEpoll(int fd, unsigned role) const {
  if (ControlEpoll(EPOLL_CTL_ADD, fd, role, role == PEER ? PeerEvents() : static_cast<u32>(EPOLLIN))) {
    return true;
  }
  JournalError("queue " + std::to_string(m_number) + " cannot be watched");
  return false;
}

bool PartyQueue::ControlEpoll(int operation, int fd, unsigned role, u32 events) const {
  epoll_event event{};
  event.events = events;
  event.data.u64 = static_cast<u64>(static_cast<u32>(m_number)) << 8 | role;
  return ::epoll_ctl(m_epoll->Get(), operation, fd, &event) == 0;
}

// A full hang-up is reported in any case.
u32 PartyQueue::PeerEvents() const {
  if (!m_waiting.empty()) {
    return EPOLLOUT;
  }
  return m_heldBack ? 0 : static_cast<u32>(EPOLLIN);
}

void PartyQueue::WatchPeer() {
  if (m_epoll && !ControlEpoll(EPOLL_CTL_MOD, m_peer.Get(), PEER, PeerEvents())) {
    JournalError("the party of queue " + std::to_string(m_number) + " cannot be watched");
  }
}
