#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/stunutils/message.h"
#include "platform/types.h"

namespace stun {

struct Datagram {
  u16 localPort = 0;
  Endpoint source;
  std::vector<u8> payload;
};

// Sends from ports that belong to others and hears what comes back to them. One thread at a time.
class Transport {
 public:
  virtual ~Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Datagrams of others than these are of no interest from now on. 0, or why those of others come all the same, an
  // errno.
  virtual int ListenTo(std::span<const Endpoint> servers) = 0;

  // 0, or why the port cannot be used, an errno; EADDRINUSE: it is its owner's alone. 0 is no promise: what the network
  // refuses is as good as lost.
  virtual int Send(u16 localPort, const Endpoint& server, std::span<const u8> message) = 0;

  // Nothing is awaited for the port, or any port, any more.
  virtual void Release(u16 localPort) = 0;
  virtual void ReleaseAll() = 0;

  // Takes one datagram, without payload when it cannot be read whole; false when none waits.
  virtual bool Receive(Datagram& datagram) = 0;

  // Readable while datagrams wait.
  virtual int PollFd() const = 0;

  // The network's refusals since the last call: an errno, or 0.
  int TakeError() {
    const int error = m_error;
    m_error = 0;
    return error;
  }

  // Whether a transaction takes the port from its owner meanwhile.
  virtual bool TakesPorts() const = 0;

 protected:
  Transport() = default;
  int m_error = 0;
};

// One raw socket, which needs CAP_NET_RAW and takes no port from anybody. Null with errno set when it cannot be had.
std::unique_ptr<Transport> OpenRawTransport(u32 localAddress);

// A socket of its own for each port under way, which needs the port to be free and keeps it from others meanwhile.
// Null with errno set when `localAddress` is not the device's or there are no descriptors.
std::unique_ptr<Transport> OpenBoundTransport(u32 localAddress);

// The datagram's header (RFC 768) with its checksum, and the message.
std::vector<u8> UdpDatagram(u32 localAddress, u16 localPort, const Endpoint& server, std::span<const u8> message);

// Reads an IPv4 packet with a whole UDP datagram. False for anything else. Checksums are not looked at: a packet that
// never left the machine may not have one yet.
bool ReadUdpPacket(std::span<const u8> packet, Datagram& datagram);

}  // namespace stun
