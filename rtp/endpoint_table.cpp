#include "rtp/endpoint_table.h"

void EndpointTable::Add(u32 ip, u16 port, u32 localIp, u16 localPort) {
  Ports& ports = m_addresses[ip];
  std::unique_ptr<Page>& page = ports.pages[port / kPagePorts];
  if (page == nullptr) {
    page = std::make_unique<Page>();
    ++ports.used;
  }
  Local& local = page->ports[port % kPagePorts];
  if (!local.isUsed) {
    local = {localIp, localPort, true};
    ++page->used;
  }
}

const EndpointTable::Local* EndpointTable::Find(u32 ip, u16 port) const {
  const auto address = m_addresses.find(ip);
  if (address == m_addresses.end()) {
    return nullptr;
  }
  const Page* const page = address->second.pages[port / kPagePorts].get();
  if (page == nullptr || !page->ports[port % kPagePorts].isUsed) {
    return nullptr;
  }
  return &page->ports[port % kPagePorts];
}

void EndpointTable::Remove(u32 ip, u16 port) {
  const auto address = m_addresses.find(ip);
  if (address == m_addresses.end()) {
    return;
  }
  Ports& ports = address->second;
  std::unique_ptr<Page>& page = ports.pages[port / kPagePorts];
  if (page == nullptr || !page->ports[port % kPagePorts].isUsed) {
    return;
  }
  page->ports[port % kPagePorts] = {};
  if (--page->used == 0) {
    page.reset();
    --ports.used;
  }
  if (ports.used == 0) {
    m_addresses.erase(address);
  }
}
