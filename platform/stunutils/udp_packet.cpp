#include <arpa/inet.h>

#include <algorithm>
#include <bit>

#include "platform/stunutils/transport.h"

namespace stun {
namespace {

constexpr u8 kUdp = 17;
constexpr std::size_t kUdpHeader = 8;
constexpr std::size_t kIpHeader = 20;

void Put16(u8* at, u16 value) {
  at[0] = static_cast<u8>(value >> 8);
  at[1] = static_cast<u8>(value);
}
u16 Read16(const u8* at) { return static_cast<u16>(at[0] << 8 | at[1]); }

// RFC 1071, over the pseudo header of RFC 768 and the datagram.
u16 Checksum(u32 source, u32 destination, std::span<const u8> datagram) {
  u32 sum = kUdp + static_cast<u32>(datagram.size());
  for (const u32 address : {ntohl(source), ntohl(destination)}) {
    sum += (address >> 16) + (address & 0xFFFF);
  }
  for (std::size_t i = 0; i < datagram.size(); i += 2) {
    sum += static_cast<u32>(datagram[i]) << 8 | (i + 1 < datagram.size() ? datagram[i + 1] : 0U);
  }
  while (sum >> 16 != 0) {
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  const auto checksum = static_cast<u16>(~sum);
  return checksum == 0 ? u16{0xFFFF} : checksum;  // 0 would say that there is none
}

}  // namespace

std::vector<u8> UdpDatagram(u32 localAddress, u16 localPort, const Endpoint& server, std::span<const u8> message) {
  std::vector<u8> datagram(kUdpHeader + message.size());
  Put16(&datagram[0], localPort);
  Put16(&datagram[2], server.port);
  Put16(&datagram[4], static_cast<u16>(datagram.size()));
  std::copy(message.begin(), message.end(), datagram.begin() + kUdpHeader);
  Put16(&datagram[6], Checksum(localAddress, server.address, datagram));
  return datagram;
}

bool ReadUdpPacket(std::span<const u8> packet, Datagram& datagram) {
  if (packet.size() < kIpHeader || packet[0] >> 4 != 4 || packet[9] != kUdp) {
    return false;
  }
  const std::size_t headerSize = static_cast<std::size_t>(packet[0] & 0x0FU) * 4;
  const std::size_t total = Read16(&packet[2]);
  if (headerSize < kIpHeader || total > packet.size() || total < headerSize + kUdpHeader) {
    return false;
  }
  const auto udp = packet.subspan(headerSize, total - headerSize);
  const std::size_t length = Read16(&udp[4]);
  if (length < kUdpHeader || length > udp.size()) {
    return false;
  }
  datagram.source.address = std::bit_cast<u32>(std::array<u8, 4>{packet[12], packet[13], packet[14], packet[15]});
  datagram.source.port = Read16(&udp[0]);
  datagram.localPort = Read16(&udp[2]);
  const auto payload = udp.subspan(kUdpHeader, length - kUdpHeader);
  datagram.payload.assign(payload.begin(), payload.end());
  return true;
}

}  // namespace stun
