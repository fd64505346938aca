#pragma once

#include "agent/settings_lock.h"
#include "nat/host_config.h"

// The host's configuration, asked for anew by every read: nothing of it is kept between two. The settings lock keeps
// two loads apart, which the host may rely on.

// Whether a record with the NAT settings is available.
bool HaveConfig() NAT_REQUIRES(g_settingsLock);

// The current record's blocks, or null.
const MediaConfig* CurrentMediaConfig() NAT_REQUIRES(g_settingsLock);
const NatConfig* CurrentNatConfig() NAT_REQUIRES(g_settingsLock);

// One field of the current record; an empty value when the host has withdrawn its record since HaveConfig.
template <class Field>
Field ReadConfig(Field MediaConfig::*field) NAT_REQUIRES(g_settingsLock) {
  const MediaConfig* config = CurrentMediaConfig();
  return config != nullptr ? config->*field : Field{};
}
template <class Field>
Field ReadConfig(Field NatConfig::*field) NAT_REQUIRES(g_settingsLock) {
  const NatConfig* config = CurrentNatConfig();
  return config != nullptr ? config->*field : Field{};
}
