#include "rtp/reverse_nat_manager.h"

void ReverseNatManager::AddRevTarget(const u64& queryId, const NatSetting& setting) {
  revTargets[queryId].push_back({setting.mappedIp, setting.mappedPort});
  revMappings.try_emplace({setting.mappedIp, setting.mappedPort}, Endpoint{setting.localIp, setting.selfPort});
}

bool ReverseNatManager::GetRevSettings(NatSetting& setting) const {
  const auto found = revMappings.find({setting.mappedIp, setting.mappedPort});
  if (found == revMappings.end()) {
    return false;
  }
  setting.localIp = found->second.ip;
  setting.selfPort = found->second.port;
  return true;
}

bool ReverseNatManager::DeleteRevTarget(const u64& queryId) {
  const auto target = revTargets.find(queryId);
  if (target == revTargets.end()) {
    return false;
  }
  for (const NatItem& endpoint : target->second) {
    revMappings.erase({endpoint.ip, endpoint.port});
  }
  revTargets.erase(target);
  return true;
}
