#pragma once

#include <array>
#include <map>
#include <memory>

#include "platform/types.h"

// Local endpoints by public endpoint. Addresses are compared as stored, network byte order. The public addresses of a
// device are few and its ports lie close together, so a table of ports in pages serves each address: no look-up depends
// on how many endpoints there are, and none has to wait while a table grows. One thread at a time.
class EndpointTable {
 public:
  struct Local {
    u32 ip = 0;
    u16 port = 0;
    bool isUsed = false;
  };

  // Keeps the local endpoint that a public one has already.
  void Add(u32 ip, u16 port, u32 localIp, u16 localPort);
  // Null when there is none.
  const Local* Find(u32 ip, u16 port) const;
  // Does nothing when there is none.
  void Remove(u32 ip, u16 port);

 private:
  static constexpr unsigned kPagePorts = 256;

  struct Page {
    std::array<Local, kPagePorts> ports;
    unsigned used = 0;
  };
  struct Ports {
    std::array<std::unique_ptr<Page>, 65536 / kPagePorts> pages;
    unsigned used = 0;  // pages
  };

  std::map<u32, Ports> m_addresses;
};
