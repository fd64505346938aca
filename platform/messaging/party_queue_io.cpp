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

using messaging::Frame;
using messaging::FrameKind;

PartyQueue::Turn PartyQueue::Receive() {
  for (;;) {
    const ssize_t got = ::recv(m_peer.Get(), m_buffer.data(), m_buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (got < 0) {
      // A party that died with answers unread leaves ECONNRESET in front of the requests it had sent.
      if (errno == EINTR || errno == ECONNRESET) continue;
      if (errno == EAGAIN) return Turn::IDLE;
      JournalError("queue " + std::to_string(m_number) + " cannot be read: " + ::strerrordesc_np(errno));
      HangUp();
      return Turn::HUNG_UP;
    }
    if (got == 0 && !IsEmptyPacket()) {
      HangUp();
      return Turn::HUNG_UP;
    }
    return TakePacket({m_buffer.data(), std::min(static_cast<std::size_t>(got), m_buffer.size())});
  }
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
  Answer(FrameKind::REFUSED, m_message.queryId, static_cast<u32>(fault.reason)).text = fault.text;
  SendFrame();
}

Frame& PartyQueue::Answer(FrameKind kind, u64 queryId, u32 value) {
  m_answer.kind = kind;
  m_answer.queryId = queryId;
  m_answer.value = value;
  return m_answer;
}

bool PartyQueue::SendAnswer() {
  const bool sent = RequestScope::IsFor(m_account) && SendFrame();
  m_counts.undelivered += sent ? 0 : 1;
  RequestScope::Answered();
  return sent;
}

bool PartyQueue::SendFrame() {
  if (!m_peer || !m_peerReads) return false;
  if (!messaging::EncodeFrame(m_answer, m_packet)) {
    JournalError("an answer of queue " + std::to_string(m_number) + " is beyond the limits of a frame");
    return false;
  }
  SendPacket();
  return m_peerReads;
}

void PartyQueue::SendPacket() {
  if (m_waiting.empty() && TrySend(m_packet)) return;
  if (!m_peerReads) return;
  m_waiting.push_back(m_packet);
  if (m_waiting.size() == 1) WatchPeer();
}

// False when the packet did not go out: there is no room now, or the peer does not read any more at all.
bool PartyQueue::TrySend(const std::string& packet) {
  for (;;) {
    if (::send(m_peer.Get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return true;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM) return false;
    if (errno != EPIPE && errno != ECONNRESET) {
      JournalError("the party of queue " + std::to_string(m_number) +
                   " cannot be answered and is hung up on: " + ::strerrordesc_np(errno));
      ::shutdown(m_peer.Get(), SHUT_RDWR);
    }
    m_peerReads = false;
    return false;
  }
}

void PartyQueue::Flush() {
  while (!m_waiting.empty() && TrySend(m_waiting.front())) m_waiting.pop_front();
  if (!m_peerReads) m_waiting.clear();
  if (!m_waiting.empty()) return;
  WatchPeer();
  SendNotices();
}

void PartyQueue::SendNotices() {
  while (m_peer && m_waiting.empty() && m_peerReads && m_inbox.TakeForParty(m_packet)) SendPacket();
}
