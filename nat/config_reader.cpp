#include "nat/config_reader.h"

#include "agent/library_state.h"

namespace {

const HostConfig* CurrentConfig() { return g_configSource != nullptr ? g_configSource->GetConfig() : nullptr; }

}  // namespace

bool HaveConfig() {
  const HostConfig* config = CurrentConfig();
  return config != nullptr && config->natConfig != nullptr;
}

const MediaConfig* CurrentMediaConfig() {
  const HostConfig* config = CurrentConfig();
  return config != nullptr ? config->mediaConfig : nullptr;
}

const NatConfig* CurrentNatConfig() {
  const HostConfig* config = CurrentConfig();
  return config != nullptr ? config->natConfig : nullptr;
}
