#include "platform/stunutils/port_table.h"

#include <algorithm>

namespace stun {

void PortTable::Remove(u16 port) {
  const auto found = m_ports.find(port);
  if (found == m_ports.end()) {
    return;
  }
  found->second.owners.pop_back();
  if (found->second.owners.empty()) {
    m_knownSize -= found->second.current.mapped.Known() ? 1 : 0;
    m_ports.erase(found);
    m_changed.erase(port);
  }
}

void PortTable::Clear() {
  m_ports.clear();
  m_knownSize = 0;
  m_changed.clear();
}

bool PortTable::HasOwner(u16 port, u8 owner) const {
  const auto found = m_ports.find(port);
  return found != m_ports.end() &&
         std::find(found->second.owners.begin(), found->second.owners.end(), owner) != found->second.owners.end();
}

PortTable::Told PortTable::Tell(u16 port, const Endpoint& mapped, const Endpoint& server) {
  const auto found = m_ports.find(port);
  if (found == m_ports.end()) {
    return Told::LEARNT;
  }
  Port& entry = found->second;
  const bool isSecondTime = mapped == entry.candidate;
  if (isSecondTime || !entry.current.mapped.Known() || mapped == entry.settled) {
    m_knownSize += entry.current.mapped.Known() ? 0 : 1;
    entry.current = {mapped, server};
  }
  if (!entry.settled.Known() || mapped == entry.settled) {
    entry.settled = mapped;
    entry.candidate = {};
    return Told::LEARNT;
  }
  if (isSecondTime) {
    entry.settled = mapped;
    entry.candidate = {};
    m_changed.insert(port);
    return Told::LEARNT;
  }
  entry.candidate = mapped;
  return Told::DOUBTFUL;
}

PortTable::Known PortTable::Find(u16 port) const {
  const auto found = m_ports.find(port);
  return found == m_ports.end() ? Known{} : found->second.current;
}

void PortTable::Forget() {
  m_knownSize = 0;
  for (auto& [port, entry] : m_ports) {
    entry.current = {};
    entry.candidate = {};
  }
}

std::list<std::pair<u16, u16>> PortTable::TakeChanges() {
  std::list<std::pair<u16, u16>> changes;
  for (const u16 port : m_changed) {
    for (const u8 owner : m_ports.at(port).owners) {
      changes.emplace_back(port, owner);
    }
  }
  m_changed.clear();
  return changes;
}

}  // namespace stun
