#pragma once

#include <atomic>

#include "agent/host.h"
#include "platform/thread_safety.h"
#include "platform/types.h"
#include "platform/vxsysutils/thread_mutex.h"

// Tells the host's listener what happens. Any thread; the listener's calls come one at a time. Events of kinds that
// nobody wants cost one load. Its state needs no destructor.
class HostEvents {
 public:
  static bool Wants(u32 kind) { return (s_kinds.load(std::memory_order_relaxed) & kind) != 0; }

  // Ready to be filled in: everything but the kind is 0 or empty.
  static NatHostEvent Make(u32 kind);
  static void Tell(const NatHostEvent& event) NAT_EXCLUDES(s_mutex);
  // One that consists of a text.
  static void Tell(u32 kind, const char* text) NAT_EXCLUDES(s_mutex);

  static void Listen(u32 kinds, NatHostListener listener, void* context) NAT_EXCLUDES(s_mutex);

 private:
  static std::atomic<u32> s_kinds;
  static ThreadMutex s_mutex;
  static NatHostListener s_listener NAT_GUARDED_BY(s_mutex);
  static void* s_context NAT_GUARDED_BY(s_mutex);
};
