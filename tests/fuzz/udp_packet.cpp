// What the raw socket hears: IPv4 packets of any sender.

#include <algorithm>

#include "platform/stunutils/transport.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  stun::Datagram datagram;
  if (!stun::ReadUdpPacket({data, size}, datagram)) {
    return 0;
  }
  const std::size_t headerSize = (data[0] & 0x0FU) * std::size_t{4};
  fuzz::Require(headerSize + 8 + datagram.payload.size() <= size, "the payload lies inside the packet");
  // The same datagram, sent back: behind its header it reads the same.
  std::vector<u8> packet(data, data + headerSize);
  const auto udp = stun::UdpDatagram(0, datagram.localPort, datagram.source, datagram.payload);
  packet.insert(packet.end(), udp.begin(), udp.end());
  packet[2] = static_cast<u8>(packet.size() >> 8);
  packet[3] = static_cast<u8>(packet.size());
  stun::Datagram back;
  fuzz::Require(stun::ReadUdpPacket(packet, back), "a datagram of ours can be read");
  fuzz::Require(back.payload == datagram.payload && back.localPort == datagram.source.port &&
                    back.source.port == datagram.localPort && back.source.address == datagram.source.address,
                "and holds what was put into it");
  return 0;
}
