#pragma once

#include <string>
#include <vector>

#include "platform/types.h"

// An IPv4 address.
class SockAddr {
 public:
  SockAddr() = default;
  explicit SockAddr(u32 netOrder) : m_ip(netOrder) {}
  // Network byte order; 0 when there is none.
  u32 IPAddrNetOrder() const { return m_ip; }

 private:
  u32 m_ip = 0;
};

// One address of a local interface; an interface without an IPv4 address stands there once, with the address 0.
struct InterfaceInfo {
  SockAddr address;
  std::string name;  // the interface's name, without an address label's suffix
};

class BsdSocket {
 public:
  // Fills the list with the local interfaces that are up, loopback included, in the system's order, and returns their
  // number; 0 when they cannot be listed. hostName, when not null, gets the host's name. Any thread.
  static unsigned int GetLocalHostEx(std::vector<InterfaceInfo>* interfaces, std::string* hostName);
};
