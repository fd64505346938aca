#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/journal.h"
#include "platform/messaging/party_queue.h"

// How a queue's packets go in and out.

using messaging::FrameKind;

PartyQueue::Turn PartyQueue::Receive() {
  while (!m_incoming.Receive(m_peer.Get(), m_way == messaging::FrameWay::TO_AGENT)) {
    // A party that died with answers unread leaves ECONNRESET in front of the requests it had sent.
    if (errno == EINTR || errno == ECONNRESET) continue;
    if (errno == EAGAIN) return Turn::IDLE;
    JournalError("queue " + std::to_string(m_number) + " cannot be read: " + ::strerrordesc_np(errno));
    HangUp();
    return Turn::HUNG_UP;
  }
  if (m_incoming.HasEmptyEnd() && !IsEmptyPacket()) {
    // Behind messages, the end is found again by the next turn.
    m_incoming.DropEmptyEnd();
    if (m_incoming.IsEmpty()) {
      HangUp();
      return Turn::HUNG_UP;
    }
  }
  return TakeNext();
}

PartyQueue::Turn PartyQueue::TakeNext() {
  const std::string_view packet = m_incoming.Take();
  m_gathering = m_gathering || !m_incoming.IsEmpty();
  return TakePacket(packet);
}

PartyQueue::Turn PartyQueue::TakePacket(std::string_view packet) {
  try {
    messaging::FrameFault fault;
    if (messaging::DecodeFrame(packet, m_way, m_message, fault)) {
      return Turn::MESSAGE;
    }
    RefuseMessage(fault);
    return Turn::DONE;
  } catch (...) {
    GiveUpParty();  // its message is lost
    throw;
  }
}

void PartyQueue::GiveUpParty() noexcept {
  if (!m_peer) {
    return;
  }
  SendGathered();
  ::shutdown(m_peer.Get(), SHUT_RDWR);
  m_peerReads = false;
  m_waiting.clear();
}

// An empty packet and the end of the connection look alike to recv. Empty packets right before the end may count as
// the end: nothing is lost with them.
bool PartyQueue::IsEmptyPacket() const {
  if (!HasPeerHungUp(/*inFull=*/false)) {
    return true;
  }
  int unread = 0;
  return ::ioctl(m_peer.Get(), SIOCINQ, &unread) == 0 && unread > 0;
}

void PartyQueue::RefuseMessage(const messaging::FrameFault& fault) {
  NoteRefusal(m_party, fault.reason, fault.text);
  SendFrame(FrameKind::REFUSED, m_message.queryId, static_cast<u32>(fault.reason), fault.text);
}

bool PartyQueue::SendAnswer(bool encoded) {
  const bool sent = RequestScope::IsFor(m_account) && Send(encoded);
  m_counts.undelivered += sent ? 0 : 1;
  RequestScope::Answered();
  return sent;
}

bool PartyQueue::SendFrame(FrameKind kind, u64 queryId, u32 value, const std::string& text) {
  return Send(messaging::EncodeFrame({.kind = kind, .queryId = queryId, .value = value, .text = text}, Packet()));
}

bool PartyQueue::Send(bool encoded) {
  if (!m_peer || !m_peerReads) return false;
  if (!encoded) {
    JournalError("an answer of queue " + std::to_string(m_number) + " is beyond the limits of a frame");
    return false;
  }
  SendPacket();
  return m_peerReads;
}

void PartyQueue::SendPacket() {
  if (m_gathering) {
    m_gathered.Add();
    if (m_gathered.IsFull()) {
      SendGathered();
    }
    return;
  }
  if (m_waiting.empty() && TrySend(&m_packet, 1) == 1) return;
  if (!m_peerReads) return;
  m_waiting.push_back(m_packet);
  if (m_waiting.size() == 1) WatchPeer();
}

void PartyQueue::SendGathered() noexcept {
  m_gathering = false;
  const std::size_t count = m_gathered.Clear();
  if (count == 0 || !m_peer || !m_peerReads) return;
  try {
    std::string* const packets = m_gathered.Packets().data();
    std::size_t sent = m_waiting.empty() ? TrySend(packets, count) : 0;
    if (sent == count || !m_peerReads) return;
    const bool isFirst = m_waiting.empty();
    for (; sent < count; ++sent) m_waiting.push_back(packets[sent]);
    if (isFirst) WatchPeer();
  } catch (...) {
    GiveUpParty();  // an answer is lost
  }
}

// Fewer than asked for: there is no room now, or the peer does not read any more at all.
std::size_t PartyQueue::TrySend(const std::string* packets, std::size_t count) {
  const std::size_t sent = messaging::SendPackets(m_peer.Get(), packets, count);
  if (sent == count || errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM) return sent;
  if (errno != EPIPE && errno != ECONNRESET) {
    JournalError("the party of queue " + std::to_string(m_number) +
                 " cannot be answered and is hung up on: " + ::strerrordesc_np(errno));
    ::shutdown(m_peer.Get(), SHUT_RDWR);
  }
  m_peerReads = false;
  return sent;
}

void PartyQueue::Flush() {
  while (!m_waiting.empty() && TrySend(&m_waiting.front(), 1) == 1) m_waiting.pop_front();
  if (!m_peerReads) m_waiting.clear();
  if (!m_waiting.empty()) return;
  WatchPeer();
  SendNotices();
}

void PartyQueue::SendNotices() {
  while (m_peer && m_waiting.empty() && m_peerReads && m_inbox.TakeForParty(m_packet)) SendPacket();
}
