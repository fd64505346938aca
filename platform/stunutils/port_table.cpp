#include "platform/stunutils/port_table.h"

#include <algorithm>

namespace stun {

void PortTable::Add(u16 port, u8 owner, bool isMedia) {
  const auto found = m_ports.find(port);
  if (found != m_ports.end()) {
    found->second.owners.push_back({owner, isMedia});
  } else {
    Port fresh;
    fresh.owners.push_back({owner, isMedia});
    m_ports.emplace(port, std::move(fresh));
  }
}

void PortTable::Remove(u16 port) {
  const auto found = m_ports.find(port);
  if (found == m_ports.end()) {
    return;
  }
  found->second.owners.pop_back();
  if (found->second.owners.empty()) {
    m_knownSize -= found->second.mapping.Mapped().Known() ? 1 : 0;
    m_ports.erase(found);
    m_changed.erase(port);
    m_unsettled.erase(port);
  }
}

void PortTable::Clear() {
  m_ports.clear();
  m_knownSize = 0;
  m_changed.clear();
  m_unsettled.clear();
}

bool PortTable::IsSignalling(u16 port) const {
  const auto found = m_ports.find(port);
  return found != m_ports.end() && !std::all_of(found->second.owners.begin(), found->second.owners.end(),
                                                [](const Owner& owner) { return owner.isMedia; });
}

Mapping::News PortTable::Observe(u16 port, const Endpoint& mapped, const Endpoint& server) {
  Port& entry = m_ports.at(port);
  Mapping mapping = entry.mapping;  // until the lists have taken the port, for which they need memory
  const Mapping::News news = mapping.Observe(mapped, server);
  if (news == Mapping::News::CHANGED) {
    m_changed.insert(port);
  }
  if (mapping.IsUnsettled()) {
    m_unsettled.insert(port);
  } else {
    m_unsettled.erase(port);
  }
  const Endpoint before = entry.mapping.Mapped();
  m_knownSize += before.Known() ? 0 : 1;
  if (before.Known() && before != mapping.Mapped()) {
    entry.before = before;
  }
  entry.mapping = mapping;
  return news;
}

Mapping PortTable::Find(u16 port) const {
  const auto found = m_ports.find(port);
  return found == m_ports.end() ? Mapping() : found->second.mapping;
}

std::optional<PortTable::View> PortTable::FindFrom(u32 port) const {
  const auto found = port > UINT16_MAX ? m_ports.end() : m_ports.lower_bound(static_cast<u16>(port));
  if (found == m_ports.end()) {
    return std::nullopt;
  }
  const auto& [number, entry] = *found;
  return View{number, !IsSignalling(number), entry.mapping, entry.before, entry.heard};
}

std::optional<u16> PortTable::Unsettled() const {
  return m_unsettled.empty() ? std::nullopt : std::optional(*m_unsettled.begin());
}

void PortTable::Forget() {
  for (auto& [number, port] : m_ports) {
    if (port.mapping.Mapped().Known()) {
      port.before = port.mapping.Mapped();
    }
    port.mapping.Forget();
  }
  m_knownSize = 0;
}

std::list<std::pair<u16, u16>> PortTable::TakeChanges() {
  std::list<std::pair<u16, u16>> changes;
  for (const u16 port : m_changed) {
    for (const Owner& owner : m_ports.at(port).owners) {
      changes.emplace_back(port, owner.id);
    }
  }
  m_changed.clear();
  return changes;
}

}  // namespace stun
