#include "agent/health.h"

#include <algorithm>
#include <cstring>

#include "agent/nat_agent.h"
#include "messaging/nat_agent_messenger.h"

NatHostHealth Health::LastAnswer() {
  ScopedLock lock(m_mutex);
  return m_answer;
}

void Health::Answer(const NatHostHealth& found) {
  ScopedLock lock(m_mutex);
  const uint64_t answers = m_answer.answers + 1;
  m_answer = found;
  m_answer.answers = answers;
}

void NatAgent::AnswerHealth() {
  if (!m_health.TakeQuestion()) {
    return;
  }
  NatHostHealth found{};
  found.parties = m_messenger->OnlineParties();
  m_stunWrapper.CountPorts(found.ports, found.ports_learnt);
  // Not GetUpLinkIp: what was forgotten on purpose stays forgotten.
  found.uplink = m_upLinkIp;
  u32 viaGateway = 0;
  if (found.uplink == 0 && !m_routeHelper.GetOutInterface(0, found.uplink, viaGateway)) {
    found.uplink = 0;
  }
  m_health.Answer(found);
}

bool NatAgent::ReadHealth(NatHostHealth& health) {
  const auto run = CurrentRun();
  if (!run) {
    return false;
  }
  health = m_health.LastAnswer();
  m_health.Ask();
  run->Wake();
  return true;
}

int NatHostReadHealth(NatHostHealth* health) {
  NatHostHealth found{};
  if (!_NatAgent.ReadHealth(found)) {
    return 0;
  }
  found.size = std::min(health->size, sizeof found);
  std::memcpy(health, &found, found.size);
  return 1;
}
