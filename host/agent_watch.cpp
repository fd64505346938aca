#include "host/agent_watch.h"

#include <algorithm>
#include <utility>

#include "host/service_notify.h"
#include "host/status_words.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kSecond = 1s;

std::string PartyNames(std::uint32_t parties) {
  constexpr std::pair<unsigned, const char*> kNames[] = {{NAT_PARTY_SIP, " sip"},
                                                         {NAT_PARTY_CM, " cm"},
                                                         {NAT_PARTY_CC, " cc"},
                                                         {NAT_PARTY_Q113, " q113"},
                                                         {NAT_PARTY_CGI, " cgi"}};
  std::string names;
  for (const auto& [bit, name] : kNames) {
    if ((parties & bit) != 0) {
      names += name;
    }
  }
  return names.empty() ? " none" : names;
}

// Four looks in the time the service manager waits, so that one answer may come late.
AgentWatch::Clock::duration LookEvery(AgentWatch::Clock::duration watchdog) {
  const AgentWatch::Clock::duration quarter = watchdog / 4;
  return watchdog == 0s ? AgentWatch::Clock::duration(kSecond)
                        : std::clamp<AgentWatch::Clock::duration>(quarter, 1ms, kSecond);
}

}  // namespace

std::string DescribeHealth(const NatHostHealth& health) {
  std::string text = "parties:" + PartyNames(health.parties);
  if (health.ports != 0) {
    text += "; STUN: " + std::to_string(health.ports_learnt) + " of " + std::to_string(health.ports) + " ports learnt";
  }
  return text + "; uplink: " + (health.uplink == 0 ? "none" : IpText(health.uplink));
}

AgentWatch::AgentWatch(const AgentLibrary& library)
    : m_library(library),
      m_aliveEvery(WatchdogInterval() / 2),
      m_lookEvery(LookEvery(WatchdogInterval())),
      m_nextLook(Clock::now()),
      m_nextAlive(m_nextLook),
      m_nextStatus(m_nextLook) {}

bool AgentWatch::Runs(const AgentLibrary& library) {
  NatHostHealth health{};
  health.size = sizeof health;
  return library.readHealth(&health) != 0;
}

AgentWatch::Clock::duration AgentWatch::UntilNext() const {
  return std::max(m_nextLook - Clock::now(), Clock::duration::zero());
}

bool AgentWatch::Look() {
  const auto now = Clock::now();
  if (now < m_nextLook) {
    return true;
  }
  m_nextLook = now + m_lookEvery;
  NatHostHealth health{};
  health.size = sizeof health;
  if (m_library.readHealth(&health) == 0) {
    return false;
  }
  if (std::exchange(m_answers, health.answers) == health.answers) {
    return true;  // no news; a stuck agent is left to the service manager
  }
  if (m_aliveEvery != 0s && now >= m_nextAlive) {
    NotifyAlive();
    m_nextAlive = now + m_aliveEvery;
  }
  TellStatus(health, now);
  return true;
}

void AgentWatch::TellStatus(const NatHostHealth& health, Clock::time_point now) {
  std::string status = DescribeHealth(health);
  if (status == m_status || now < m_nextStatus) {
    return;
  }
  NotifyStatus(status);
  m_status = std::move(status);
  m_nextStatus = now + kSecond;
}
