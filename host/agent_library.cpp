#include "host/agent_library.h"

#include <dlfcn.h>

namespace {

constexpr const char* kLibraryName = "libnatagent.so.0";

template <typename Function>
std::string Find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  if (function != nullptr) return {};
  return std::string("cannot use ") + kLibraryName + ": it has no " + name;
}

}  // namespace

std::string AgentLibrary::Load() {
  m_handle = ::dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
  if (m_handle == nullptr) return std::string("cannot load the agent: ") + ::dlerror();
  std::string fault = Find(m_handle, "NatMain", natMain);
  if (fault.empty()) {
    fault = Find(m_handle, "StopNatMain", stopNatMain);
  }
  if (fault.empty()) {
    fault = Find(m_handle, "UpdateNatMain", updateNatMain);
  }
  if (fault.empty()) {
    fault = Find(m_handle, "NatHostUseRuntimeDir", useRuntimeDir);
  }
  if (fault.empty()) {
    fault = Find(m_handle, "NatHostLimitQueue", limitQueue);
  }
  if (fault.empty()) {
    fault = Find(m_handle, "NatHostCheckQueues", checkQueues);
  }
  if (fault.empty()) {
    fault = Find(m_handle, "NatHostReadHealth", readHealth);
  }
  if (!fault.empty()) {
    Unload();
  }
  return fault;
}

void AgentLibrary::Unload() {
  if (m_handle != nullptr) ::dlclose(m_handle);
  m_handle = nullptr;
}
