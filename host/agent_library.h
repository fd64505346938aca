#pragma once

#include <string>

#include "agent/host.h"
#include "agent/natagent.h"

// The agent's library as a device's host uses it: loaded at run time, reached through its C functions only.
class AgentLibrary {
 public:
  AgentLibrary() = default;
  ~AgentLibrary() { Unload(); }
  AgentLibrary(const AgentLibrary&) = delete;
  AgentLibrary& operator=(const AgentLibrary&) = delete;

  // Returns an empty text, or why the library cannot be used; it is then not loaded.
  std::string Load();

  // Stop the agent first.
  void Unload();

  // Valid while loaded.
  decltype(&::NatMain) natMain = nullptr;
  decltype(&::StopNatMain) stopNatMain = nullptr;
  decltype(&::UpdateNatMain) updateNatMain = nullptr;
  decltype(&::NatHostUseRuntimeDir) useRuntimeDir = nullptr;
  decltype(&::NatHostLimitQueue) limitQueue = nullptr;
  decltype(&::NatHostCheckQueues) checkQueues = nullptr;
  decltype(&::NatHostReadHealth) readHealth = nullptr;
  decltype(&::NatHostUseLogDir) useLogDir = nullptr;
  decltype(&::NatHostListen) listen = nullptr;
  decltype(&::NatHostReadStatus) readStatus = nullptr;
  decltype(&::NatHostReadParty) readParty = nullptr;
  decltype(&::NatHostListMappings) listMappings = nullptr;
  decltype(&::NatHostListPorts) listPorts = nullptr;
  decltype(&::NatHostListCalls) listCalls = nullptr;
  decltype(&::NatHostListExclusions) listExclusions = nullptr;
  decltype(&::NatHostListNames) listNames = nullptr;
  decltype(&::NatHostListCounters) listCounters = nullptr;
  decltype(&::NatHostExplain) explain = nullptr;

 private:
  void* m_handle = nullptr;
};
