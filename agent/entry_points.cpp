#include <atomic>

#include "agent/faults.h"
#include "agent/library_state.h"
#include "agent/nat_agent.h"
#include "platform/loader/library_entry.h"
#include "platform/stunutils/stun_logger.h"
#include "platform/vxsysutils/thread.h"

// Before _NatAgent, whose destructor still uses them: statics of one file go in the reverse order of their definition.
SettingsLock g_settingsLock;
std::shared_ptr<void> g_hostsSource;
ConfigSource* g_configSource = nullptr;
void* g_agentThread = nullptr;
NatAgent _NatAgent;

namespace {

constexpr unsigned long kAgentWaitMs = 10000;

constexpr unsigned short kNatSettingsChanged = 0x0080 | 0x0100 | 0x0200 | 0x0400;
constexpr unsigned short kStunSettingsChanged = 0x2000;

// Agent threads that have been asked for and have not ended: a stop request may still be theirs.
std::atomic<int> s_agentThreads = 0;

unsigned long NatAgentThread(void*) {
  Contain("the agent thread ends", [] {
    _NatAgent.Init();
    _NatAgent.Start();
  });
  --s_agentThreads;
  return 0;
}

void BeginAgentThread() {
  StunLogger::Create();
  if (s_agentThreads == 0) {
    _NatAgent.ForgetStopRequest();
  }
  ++s_agentThreads;
  g_agentThread = Thread::BeginThread(NatAgentThread, nullptr, 0);
  if (g_agentThread == nullptr) {
    --s_agentThreads;
  }
}

void EndAgentThread() {
  _NatAgent.RequestStop();
  Thread::WaitForThread(g_agentThread, kAgentWaitMs, nullptr);
  g_agentThread = nullptr;
  if (s_agentThreads == 0) {
    _NatAgent.ForgetStopRequest();  // the loop had ended before
  }
  StunLogger::Destroy();
}

void ApplyChanges(unsigned short changes) {
  ScopedLock lock(g_settingsLock);
  NatConfigManager* manager = _NatAgent.m_configManager;
  if (manager == nullptr) {
    return;
  }
  if ((changes & kNatSettingsChanged) != 0) {
    manager->ReloadNatSettings();
  }
  if ((changes & kStunSettingsChanged) != 0) {
    manager->UpdateStunServerSettings();
  }
}

}  // namespace

int LibraryEntry(void* module, unsigned long reason) {
  if (reason == kLibraryAttached) {
    Contain("the library's load is not noted", [module] { DisableThreadLibraryCalls(module); });
  }
  return 1;
}

void NatMain(void* configSource) {
  if (g_agentThread != nullptr) {
    return;
  }
  g_configSource = static_cast<ConfigSource*>(configSource);
  Contain("the agent is not started", BeginAgentThread);
}

void StopNatMain() {
  if (g_agentThread == nullptr) {
    return;
  }
  Contain("the agent is not stopped", EndAgentThread);
}

void UpdateNatMain(unsigned short changes) {
  if (g_agentThread == nullptr) {
    return;
  }
  // What was loaded until a fault stays.
  Contain("the changed settings were not loaded", [changes] { ApplyChanges(changes); });
}
