#include "platform/messaging/packet_batch.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace messaging {

void IncomingPackets::Reserve(std::size_t packetBytes) {
  m_packetBytes = packetBytes;
  m_room.reset(new char[kBatch * packetBytes]);  // not filled, so that what is never used never becomes resident
  for (std::size_t i = 0; i < kBatch; ++i) {
    m_slots[i] = {m_room.get() + i * packetBytes, packetBytes};
    m_headers[i].msg_hdr.msg_iov = &m_slots[i];
    m_headers[i].msg_hdr.msg_iovlen = 1;
  }
}

bool IncomingPackets::Receive(int socket, bool several) {
  m_next = m_count = 0;
  if (several && (m_hasBacklog || --m_untilProbe == 0)) {
    m_untilProbe = kProbe;
    return ReceiveSeveral(socket);
  }
  return ReceiveOne(socket);
}

bool IncomingPackets::ReceiveOne(int socket) {
  const ssize_t got = ::recv(socket, m_room.get(), m_packetBytes, MSG_DONTWAIT | MSG_TRUNC);
  if (got < 0) {
    return false;
  }
  m_headers[0].msg_len = static_cast<unsigned>(got);
  m_count = 1;
  return true;
}

bool IncomingPackets::ReceiveSeveral(int socket) {
  const int got = ::recvmmsg(socket, m_headers.data(), kBatch, MSG_DONTWAIT | MSG_TRUNC, nullptr);
  m_hasBacklog = got > 1;
  if (got < 0) {
    return false;
  }
  m_count = static_cast<std::size_t>(got);
  return true;
}

std::string_view IncomingPackets::Take() {
  const std::size_t slot = m_next++;
  return {m_room.get() + slot * m_packetBytes, std::min<std::size_t>(m_headers[slot].msg_len, m_packetBytes)};
}

void IncomingPackets::DropEmptyEnd() {
  while (HasEmptyEnd()) {
    --m_count;
  }
}

std::string& OutgoingPackets::Next() {
  if (m_packets.empty()) {
    m_packets.resize(kBatch);
  }
  return m_packets[m_count];
}

std::size_t OutgoingPackets::Clear() { return std::exchange(m_count, 0); }

std::size_t SendPackets(int socket, const std::string* packets, std::size_t count) {
  constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
  std::array<iovec, kBatch> slots;
  std::array<mmsghdr, kBatch> headers;
  std::size_t sent = 0;
  while (sent < count) {
    const std::string* const first = packets + sent;
    const std::size_t now = std::min(count - sent, kBatch);
    if (now == 1) {
      if (::send(socket, first->data(), first->size(), kFlags) >= 0) {
        ++sent;
      } else if (errno != EINTR) {
        break;
      }
      continue;
    }
    for (std::size_t i = 0; i < now; ++i) {
      slots[i] = {const_cast<char*>(first[i].data()), first[i].size()};
      headers[i] = {};
      headers[i].msg_hdr.msg_iov = &slots[i];
      headers[i].msg_hdr.msg_iovlen = 1;
    }
    const int taken = ::sendmmsg(socket, headers.data(), static_cast<unsigned>(now), kFlags);
    if (taken > 0) {
      sent += static_cast<std::size_t>(taken);
    } else if (errno != EINTR) {
      break;
    }
  }
  return sent;
}

}  // namespace messaging
