#include "platform/messaging/party_queue.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <utility>

#include "platform/journal.h"
#include "platform/messaging/runtime_dir.h"

using messaging::FrameKind;
using messaging::FrameWay;

PartyQueue::PartyQueue(int number, FrameWay way) : m_number(number), m_way(way) {
  const auto lease = messaging::QueueRegistry::Join(*this, number, messaging::RuntimeDir());
  if (lease == nullptr) {
    JournalError("queue " + std::to_string(number) + " is open in this process already");
    return;
  }
  if (!lease->IsHeld()) return;
  if (m_inbox.Doorbell() < 0) {
    JournalError("queue " + std::to_string(number) + " stays closed: no eventfd can be made for its notices");
    return;
  }
  m_socket.emplace(*lease, number);
  if (!m_socket->IsOpen()) m_socket.reset();
  m_buffer.resize(messaging::MaxFrameBytes() + 1);
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
  const unsigned ready = m_ready != 0 ? std::exchange(m_ready, 0U) : AskReady();
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
  return m_heldBack ? Turn::DONE : Receive();
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
  auto account = std::make_shared<messaging::PartyAccount>(*this);
  m_peer = m_socket->Accept();
  if (!m_peer) return false;
  m_account = std::move(account);
  m_peerReads = true;
  if (m_epoll && !AddToEpoll(m_peer.Get(), PEER)) {
    m_peer.Reset();
    return false;
  }
  Answer(FrameKind::WELCOME, 0, static_cast<u32>(m_number));
  SendFrame();
  m_inbox.SetPartyOnline(true);
  return true;
}

void PartyQueue::AdoptWaiting() {
  if (m_socket && !m_peer) Adopt();
}

void PartyQueue::RefuseNext() {
  const UniqueFd peer = m_socket->Accept();
  if (!peer) return;
  messaging::Frame& refusal = Answer(FrameKind::REFUSED, 0, static_cast<u32>(messaging::RefusalReason::QUEUE_TAKEN));
  refusal.text = "another party is connected to queue " + std::to_string(m_number);
  messaging::EncodeFrame(refusal, m_packet);
  // A fresh socket has room for it; a peer that is gone already needs no reason.
  ::send(peer.Get(), m_packet.data(), m_packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
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

void PartyQueue::ReportDropped() const {
  if (const std::size_t dropped = messaging::PartyAccount::TakeDropped(m_number)) {
    JournalError("queue " + std::to_string(m_number) + ": dropped " + std::to_string(dropped) +
                 " requests for host names, the oldest that parties had left unanswered when they hung up: at most " +
                 std::to_string(LateRequest::kMaxRequests) + " of them are kept, or 1 MB");
  }
}

void PartyQueue::HangUp() {
  m_account->Orphan();
  m_inbox.SetPartyOnline(false);
  if (m_epoll) ::epoll_ctl(m_epoll->Get(), EPOLL_CTL_DEL, m_peer.Get(), nullptr);
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
  return false;
}

bool PartyQueue::AddToEpoll(int fd, unsigned role) const {
  epoll_event event{};
  event.events = role == PEER ? PeerEvents() : EPOLLIN;
  event.data.u64 = static_cast<u64>(static_cast<u32>(m_number)) << 8 | role;
  if (::epoll_ctl(m_epoll->Get(), EPOLL_CTL_ADD, fd, &event) == 0) return true;
  JournalError("queue " + std::to_string(m_number) + " cannot be watched");
  return false;
}

// A full hang-up is reported in any case.
u32 PartyQueue::PeerEvents() const {
  if (!m_waiting.empty()) {
    return EPOLLOUT;
  }
  return m_heldBack ? 0 : static_cast<u32>(EPOLLIN);
}

void PartyQueue::WatchPeer() {
  if (!m_epoll) return;
  epoll_event event{};
  event.events = PeerEvents();
  event.data.u64 = static_cast<u64>(static_cast<u32>(m_number)) << 8 | PEER;
  if (::epoll_ctl(m_epoll->Get(), EPOLL_CTL_MOD, m_peer.Get(), &event) != 0) {
    JournalError("the party of queue " + std::to_string(m_number) + " cannot be watched");
  }
}
