// The uplink address: one thread waits for route changes and flags them; comparing and reacting is the main loop's.

#include <utility>

#include "agent/faults.h"
#include "agent/host_events.h"
#include "agent/nat_agent.h"

namespace {

void TellUplink(u32 before, u32 now) {
  if (before != now && HostEvents::Wants(NAT_EVENT_UPLINK)) {
    NatHostEvent event = HostEvents::Make(NAT_EVENT_UPLINK);
    event.before.ip = before;
    event.now.ip = now;
    HostEvents::Tell(event);
  }
}

}  // namespace

unsigned long IpUpDownInformer(void* argument) {
  const auto run = RunLink::Take(argument);
  NatAgent& self = run->Agent();
  run->Trace("Starting IpUpDownInformer Thread\r\n");
  while (!run->Closed()) {
    ScopedLock lock(self.m_watchMutex);
    if (run->Closed()) {
      break;  // late: the waits are those of the next run
    }
    // Waits also when the run has ended already: what ends the last wait is then not left over for the next run.
    Contain("route changes are not waited for", [&self] { self.m_routeHelper.NotifyRouteChange(); });
    if (!run->Running()) {
      break;  // the run's end, not a change; one that came with it is the next wait's
    }
    self.m_routeChanged = true;
    run->Wake();
  }
  return 0;
}

unsigned long NatAgent::GetUpLinkIp() {
  if (m_upLinkIp == 0) {
    u32 address = 0;
    u32 viaGateway = 0;
    if (m_routeHelper.GetOutInterface(0, address, viaGateway)) {
      m_upLinkIp = address;
    }
  }
  return m_upLinkIp;
}

bool NatAgent::CheckIpChanges() {
  if (!m_routeChanged) {
    return false;
  }
  m_routeChanged = false;
  const u32 before = m_upLinkIp;
  try {
    FollowUplink();
  } catch (...) {
    m_upLinkIp = before;  // the change is handled again
    m_routeChanged = true;
    throw;
  }
  return true;
}

void NatAgent::FollowUplink() {
  u32 address = 0;
  u32 viaGateway = 0;
  const bool found = m_routeHelper.GetOutInterface(0, address, viaGateway);
  if (found && address != m_upLinkIp) {
    TellUplink(std::exchange(m_toldUplink, address), address);
    m_upLinkIp = address;
    Log().Trace("UpLink IP Up\r\n", kLogOrdinary);
    m_qorStorage->FollowUplink(address);
    m_stunWrapper.OnUpLinkChanged(true);
  } else if (!found && m_upLinkIp != 0) {
    Log().Trace("UpLink IP Down\r\n", kLogOrdinary);
    m_qorStorage->FollowUplink(m_upLinkIp);
    m_stunWrapper.OnUpLinkChanged(false);
    // Forgotten, so that the loss is handled once and its return, also with this address, counts as coming up.
    m_upLinkIp = 0;
    TellUplink(std::exchange(m_toldUplink, 0), 0);
  }
}
