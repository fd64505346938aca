#include "host/agent_library.h"

#include <dlfcn.h>

#include <type_traits>
#include <utility>

namespace {

constexpr const char* kLibraryName = "libnatagent.so.0";

// Finds each function; returns an empty text, or which one is missing.
template <class... Functions>
std::string FindAll(void* library, std::pair<const char*, Functions&>... wanted) {
  std::string fault;
  const auto find = [&](const char* name, auto& function) {
    function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(::dlsym(library, name));
    if (function == nullptr && fault.empty()) {
      fault = std::string("cannot use ") + kLibraryName + ": it has no " + name;
    }
  };
  (find(wanted.first, wanted.second), ...);
  return fault;
}

template <class Function>
std::pair<const char*, Function&> Named(const char* name, Function& function) {
  return {name, function};
}

}  // namespace

std::string AgentLibrary::Load() {
  m_handle = ::dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
  if (m_handle == nullptr) return std::string("cannot load the agent: ") + ::dlerror();
  std::string fault = FindAll(m_handle, Named("NatMain", natMain), Named("StopNatMain", stopNatMain),
                              Named("UpdateNatMain", updateNatMain), Named("NatHostUseRuntimeDir", useRuntimeDir),
                              Named("NatHostUseLogDir", useLogDir), Named("NatHostLimitQueue", limitQueue),
                              Named("NatHostCheckQueues", checkQueues), Named("NatHostReadHealth", readHealth),
                              Named("NatHostListen", listen), Named("NatHostReadStatus", readStatus),
                              Named("NatHostReadParty", readParty), Named("NatHostListMappings", listMappings),
                              Named("NatHostListPorts", listPorts), Named("NatHostListCalls", listCalls),
                              Named("NatHostListExclusions", listExclusions), Named("NatHostListNames", listNames),
                              Named("NatHostListCounters", listCounters), Named("NatHostExplain", explain));
  if (!fault.empty()) {
    Unload();
  }
  return fault;
}

void AgentLibrary::Unload() {
  if (m_handle != nullptr) ::dlclose(m_handle);
  m_handle = nullptr;
}
