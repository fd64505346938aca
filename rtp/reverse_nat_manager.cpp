#include "rtp/reverse_nat_manager.h"

#include <string>

#include "platform/journal.h"

void ReverseNatManager::AddRevTarget(const u64& queryId, const NatSetting& setting) {
  revTargets[queryId].push_back({setting.mappedIp, setting.mappedPort});
  revMappings.Add(setting.mappedIp, setting.mappedPort, setting.localIp, setting.selfPort);
  if (revTargets.size() >= m_manyIds) {
    TellManyIds();
  }
}

void ReverseNatManager::TellManyIds() {
  JournalNotice(std::to_string(m_manyIds) + " RTP query ids are open; a call agent may not close them");
  m_manyIds *= 10;
}

bool ReverseNatManager::GetRevSettings(NatSetting& setting) const {
  const EndpointTable::Local* const found = revMappings.Find(setting.mappedIp, setting.mappedPort);
  if (found == nullptr) {
    return false;
  }
  setting.localIp = found->ip;
  setting.selfPort = found->port;
  return true;
}

bool ReverseNatManager::DeleteRevTarget(const u64& queryId) {
  const auto target = revTargets.find(queryId);
  if (target == revTargets.end()) {
    return false;
  }
  for (const NatItem& endpoint : target->second) {
    revMappings.Remove(endpoint.ip, endpoint.port);
  }
  revTargets.erase(target);
  if (m_manyIds > kFirstManyIds && revTargets.size() < m_manyIds / 20) {
    m_manyIds /= 10;
  }
  return true;
}

std::size_t ReverseNatManager::List(NatHostPlace& place, std::span<NatHostCall> rows) const {
  std::size_t count = 0;
  auto target = revTargets.lower_bound(place.at);
  if (target != revTargets.end() && target->first != place.at) {
    place.within = 0;
  }
  while (target != revTargets.end() && count < rows.size()) {
    const auto& [id, endpoints] = *target;
    if (place.within >= endpoints.size()) {
      ++target;
      place.within = 0;
      continue;
    }
    const NatItem& mapped = endpoints[place.within++];
    NatHostCall& row = rows[count++];
    row.id = id;
    row.mapped = {mapped.ip, mapped.port};
    const EndpointTable::Local* const local = revMappings.Find(mapped.ip, mapped.port);
    row.local = local == nullptr ? NatHostEndpoint{} : NatHostEndpoint{local->ip, local->port};
    place.at = id;
  }
  return count;
}
