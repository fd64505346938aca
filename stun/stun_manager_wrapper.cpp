#include "stun/stun_manager_wrapper.h"

#include "agent/faults.h"
#include "agent/host.h"
#include "agent/log_text.h"
#include "agent/nat_agent.h"
#include "platform/stunutils/stun_logger.h"

namespace {

// The banners' rules; those of a restart end with one dash less.
constexpr char kStarting[] =
    "--------------------------------------------------\r\nStarting Stun agent\r\n"
    "--------------------------------------------------\r\n";
constexpr char kStartFailed[] =
    "--------------------------------------------------\r\nError:Can't start Stun agent\r\n"
    "--------------------------------------------------\r\n";
constexpr char kRestarting[] =
    "--------------------------------------------------\r\nStarting Stun agent\r\n"
    "-------------------------------------------------\r\n";
constexpr char kRestartFailed[] =
    "--------------------------------------------------\r\nError:Can't start Stun agent\r\n"
    "-------------------------------------------------\r\n";

}  // namespace

StunManagerWrapper::~StunManagerWrapper() {
  ScopedLock lock(g_settingsLock);
  Stop();
}

// --- life ---

bool StunManagerWrapper::Start() {
  if (m_useCount == 0 && !m_manager && !StartFirst()) {
    return false;
  }
  ++m_useCount;
  return true;
}

bool StunManagerWrapper::StartFirst() {
  try {
    if (StartManager()) {
      return true;
    }
  } catch (...) {  // GetConfig or an allocation threw: undo, so that the next use tries again
    DropManager();
    throw;
  }
  DropManager();
  return false;
}

bool StunManagerWrapper::StartManager() {
  NatLogOut& log = _NatAgent.Log();
  StunLogger::Create();
  m_manager = std::make_unique<StunManager>(true, true);
  m_stunRunning = true;
  if (!UpdateServerSettings()) {
    log.Trace("Error reading stun cfg:Can't Start Stun agent\r\n", kLogOrdinary);
    return false;
  }
  if (_NatAgent.GetUpLinkIp() == 0) {
    return true;  // started when the uplink comes up
  }
  log.Trace(kStarting, kLogDump);
  m_manager->RemoveAllPorts();
  if (!m_manager->Start(true, true)) {
    log.Trace(kStartFailed, kLogOrdinary);
    return false;
  }
  m_manager->SetChangedPortsCallback(OnChangedPorts, m_manager.get());
  return true;
}

void StunManagerWrapper::DropManager() {
  m_stunRunning = false;
  m_manager.reset();
}

void StunManagerWrapper::EndManager(bool forGood) {
  m_stunRunning = false;
  Contain("STUN is not stopped cleanly", [manager = m_manager.get(), forGood] {
    manager->RemoveAllPorts();
    manager->Stop(forGood);
  });
  m_manager.reset();
  StunLogger::Destroy();
}

bool StunManagerWrapper::Release() {
  if (m_useCount == 0) {
    return true;  // the mapping's Start had failed
  }
  --m_useCount;
  if (m_useCount != 0 || !m_manager) {
    return true;
  }
  _NatAgent.Log().Trace("Stoping Stun agent\r\n", kLogOrdinary);
  EndManager(false);
  return true;
}

bool StunManagerWrapper::Stop() {
  if (!m_stunRunning) {
    return false;
  }
  m_useCount = 0;
  EndManager(true);
  return true;
}

bool StunManagerWrapper::OnUpLinkChanged(bool upLinkUp) {
  if (!m_stunRunning) {
    return true;
  }
  NatLogOut& log = _NatAgent.Log();
  if (upLinkUp) {
    const bool started = m_manager->Start(true, true);
    log.Trace(started ? kRestarting : kRestartFailed, kLogOrdinary);
    return started;
  }
  log.Trace("Stoping Stun agent\r\n", kLogOrdinary);
  m_manager->Stop(false);
  log.Trace("Stun Agent Stopped\r\n", kLogOrdinary);
  return true;
}

// --- ports ---

bool StunManagerWrapper::AddPorts(u16 startPort, u16 endPort, u16 interval, u16 owner) {
  NatLogOut& log = _NatAgent.Log();
  if (!m_manager) {
    log.Trace("Can't Set ports: Stun not started\r\n", kLogOrdinary);
    return false;
  }
  log.TraceFormat("Add Port(s) to Stun start = %u end = %u interval = %u\r\n", static_cast<unsigned>(startPort),
                  static_cast<unsigned>(endPort), static_cast<unsigned>(interval));
  const bool mediaPorts = owner == CA_PROTO_CM || owner == CA_PROTO_CC;
  m_manager->AddPorts(startPort, endPort, static_cast<u8>(interval), static_cast<u8>(owner), mediaPorts, true);
  return true;
}

bool StunManagerWrapper::AddPorts(const StunPortRange& range) {
  return AddPorts(range.startPort, range.endPort, range.interval, range.owner);
}

bool StunManagerWrapper::RemovePorts(u16 startPort, u16 endPort, u16 interval) {
  NatLogOut& log = _NatAgent.Log();
  if (!m_manager) {
    log.Trace("Can't Remove ports: Stun not started\r\n", kLogOrdinary);
    return false;
  }
  log.TraceFormat("Remove Stun Ports start = %u\t end = %u\r\n interval = %u\r\n", static_cast<unsigned>(startPort),
                  static_cast<unsigned>(endPort), static_cast<unsigned>(interval));
  m_manager->RemovePorts(startPort, endPort, static_cast<u8>(interval));
  return true;
}

bool StunManagerWrapper::UpdatePorts(const StunPortRange& oldRange, const StunPortRange& newRange) {
  NatLogOut& log = _NatAgent.Log();
  if (oldRange.startPort == newRange.startPort && oldRange.endPort == newRange.endPort) {
    const u16 firstRtcp = static_cast<u16>(newRange.startPort + 1);
    if (oldRange.interval == 1 && newRange.interval == 2) {
      log.Trace("Disabling rtcp\r\n", kLogDump);
      RemovePorts(firstRtcp, oldRange.endPort, 2);
    } else if (oldRange.interval == 2 && newRange.interval == 1) {
      log.Trace("Enabling rtcp\r\n", kLogDump);
      AddPorts(firstRtcp, newRange.endPort, 2, newRange.owner);
    }
    return true;
  }
  if (m_manager) {
    m_manager->RemovePorts(oldRange.startPort, oldRange.endPort, static_cast<u8>(oldRange.interval));
  }
  AddPorts(newRange);
  return true;
}

void StunManagerWrapper::CountPorts(u32& watched, u32& learnt) const {
  watched = 0;
  learnt = 0;
  if (m_manager) {
    m_manager->CountPorts(watched, learnt);
  }
}

u32 StunManagerWrapper::FindStunMapping(u16 port, u32& mappedIp, u16& mappedPort) const {
  mappedIp = 0;
  mappedPort = 0;
  if (!m_manager) {
    return NAT_WHY_NOT_WATCHED;
  }
  StunResult result;
  m_manager->GetPortResult(port, result);
  if (result.address2 == 0 || result.port2 == 0) {
    return result.port1 == 0 ? NAT_WHY_NOT_WATCHED : NAT_WHY_NOT_LEARNT;
  }
  mappedIp = result.address2;
  mappedPort = result.port2;
  return NAT_WHY_MAPPED_BY_STUN;
}

bool StunManagerWrapper::GetStunMapping(u16 port, u32& mappedIp, u16& mappedPort) {
  if (FindStunMapping(port, mappedIp, mappedPort) == NAT_WHY_MAPPED_BY_STUN) {
    return true;
  }
  Scan();
  return false;
}

void StunManagerWrapper::Scan() {
  if (m_manager) {
    m_manager->SendScanEvent();
  }
}
