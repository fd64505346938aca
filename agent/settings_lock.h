#pragma once

#include "platform/thread_safety.h"
#include "platform/vxsysutils/thread_mutex.h"

// Serialises the agent thread and the host's thread over everything that configuration reaches: the port-mapping
// storage, the STUN wrapper and its settings, the configuration manager. The main loop holds it for each turn after its
// wait, UpdateNatMain while it reloads, the agent while its parts are made and destroyed.
//
// First in the order of locks: settings lock, resolved-names mutex, exclusion table's mutex.
//
// A host that reads what the agent knows (agent/host_reads.cpp) takes it for a few microseconds at a time.
//
// Fair between two: whoever waits is next, so that neither a reload storm nor a busy loop keeps the other out.
class NAT_CAPABILITY("settings lock") SettingsLock {
 public:
  void Lock() NAT_ACQUIRE() NAT_NO_THREAD_SAFETY_ANALYSIS {
    m_next.Lock();
    m_held.Lock();
    m_next.Unlock();
  }
  // Takes it when it is free and nobody waits for it.
  bool TryLock() NAT_TRY_ACQUIRE(true) NAT_NO_THREAD_SAFETY_ANALYSIS {
    if (!m_next.TryLock()) {
      return false;
    }
    const bool taken = m_held.TryLock();
    m_next.Unlock();
    return taken;
  }
  void Unlock() NAT_RELEASE() NAT_NO_THREAD_SAFETY_ANALYSIS { m_held.Unlock(); }

 private:
  ThreadMutex m_next;
  ThreadMutex m_held;
};

extern SettingsLock g_settingsLock;
