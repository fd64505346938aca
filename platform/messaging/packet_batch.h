#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace messaging {

inline constexpr std::size_t kBatch = 16;  // packets that travel together at most

// Packets received together from a socket and not taken yet. Several are asked for while there was a backlog at the
// last time, and now and then to find out about one: asking for several costs more than for one when there is only one.
class IncomingPackets {
 public:
  // Reserves address space for packets of so many bytes; memory is used as packets come.
  void Reserve(std::size_t packetBytes);

  // While there is none, without waiting; `several`: up to kBatch. False with errno set. The end of the connection
  // looks like empty packets.
  bool Receive(int socket, bool several);
  bool IsEmpty() const { return m_next == m_count; }
  // The oldest, cut at the reserved size; it stays valid until the next Receive.
  std::string_view Take();

  bool HasEmptyEnd() const { return !IsEmpty() && m_headers[m_count - 1].msg_len == 0; }
  void DropEmptyEnd();

 private:
  static constexpr unsigned kProbe = 64;  // receivings of one packet until several are asked for

  bool ReceiveOne(int socket);
  bool ReceiveSeveral(int socket);

  std::size_t m_packetBytes = 0;
  std::unique_ptr<char[]> m_room;
  std::array<iovec, kBatch> m_slots{};
  std::array<mmsghdr, kBatch> m_headers{};
  std::size_t m_next = 0;
  std::size_t m_count = 0;
  bool m_hasBacklog = false;
  unsigned m_untilProbe = kProbe;
};

// Packets to be sent together. Their room is used again.
class OutgoingPackets {
 public:
  bool IsEmpty() const { return m_count == 0; }
  bool IsFull() const { return m_count == kBatch; }

  // The packet to fill in before Add takes it in. Only while not full.
  std::string& Next();
  void Add() { ++m_count; }

  // Empties it.
  std::size_t Clear();
  std::vector<std::string>& Packets() { return m_packets; }

 private:
  std::vector<std::string> m_packets;
  std::size_t m_count = 0;
};

// Sends packets in order, without waiting; how many the socket took. Fewer than asked for: errno says why.
std::size_t SendPackets(int socket, const std::string* packets, std::size_t count);

}  // namespace messaging
