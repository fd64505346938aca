#include <exception>
#include <string>

#include "agent/library_state.h"
#include "agent/nat_agent.h"
#include "platform/journal.h"
#include "platform/loader/library_entry.h"
#include "platform/stunutils/stun_logger.h"
#include "platform/vxsysutils/thread.h"

// Before _NatAgent, whose destructor still uses them: statics of one file go in the reverse order of their definition.
SettingsLock g_settingsLock;
ConfigSource* g_configSource = nullptr;
void* g_agentThread = nullptr;
NatAgent _NatAgent;

namespace {

constexpr unsigned long kAgentWaitMs = 10000;

constexpr unsigned short kNatSettingsChanged = 0x0080 | 0x0100 | 0x0200 | 0x0400;
constexpr unsigned short kStunSettingsChanged = 0x2000;

unsigned long NatAgentThread(void*) {
  _NatAgent.Init();
  _NatAgent.Start();
  return 0;
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
    DisableThreadLibraryCalls(module);
  }
  return 1;
}

void NatMain(void* configSource) {
  if (g_agentThread != nullptr) {
    return;
  }
  g_configSource = static_cast<ConfigSource*>(configSource);
  StunLogger::Create();
  _NatAgent.ForgetStopRequest();
  g_agentThread = Thread::BeginThread(NatAgentThread, nullptr, 0);
}

void StopNatMain() {
  if (g_agentThread == nullptr) {
    return;
  }
  _NatAgent.RequestStop();
  Thread::WaitForThread(g_agentThread, kAgentWaitMs, nullptr);
  g_agentThread = nullptr;
  StunLogger::Destroy();
}

void UpdateNatMain(unsigned short changes) {
  if (g_agentThread == nullptr) {
    return;
  }
  try {
    ApplyChanges(changes);
  } catch (const std::exception& fault) {
    // Out of memory, or the host's own fault in GetConfig: what was loaded until then stays.
    JournalError(std::string("the changed settings were not loaded: ") + fault.what());
  }
}
