#pragma once

#include "agent/settings_lock.h"

// What settings that were just loaded leave without a translation, for the journal. Without a configuration: nothing.
void WarnOfSignallingSettings() NAT_REQUIRES(g_settingsLock);
void WarnOfMediaSettings() NAT_REQUIRES(g_settingsLock);
