#include "agent/host_events.h"

constinit std::atomic<u32> HostEvents::s_kinds = 0;
constinit ThreadMutex HostEvents::s_mutex;
constinit NatHostListener HostEvents::s_listener = nullptr;
constinit void* HostEvents::s_context = nullptr;

NatHostEvent HostEvents::Make(u32 kind) {
  NatHostEvent event{};
  event.size = sizeof event;
  event.kind = kind;
  event.text = "";
  return event;
}

void HostEvents::Tell(const NatHostEvent& event) {
  ScopedLock lock(s_mutex);
  if (Wants(event.kind)) {
    s_listener(s_context, &event);
  }
}

void HostEvents::Tell(u32 kind, const char* text) {
  if (Wants(kind)) {
    NatHostEvent event = Make(kind);
    event.text = text;
    Tell(event);
  }
}

void HostEvents::Listen(u32 kinds, NatHostListener listener, void* context) {
  ScopedLock lock(s_mutex);
  s_listener = listener;
  s_context = context;
  s_kinds = listener != nullptr ? kinds : 0;
}

void NatHostListen(uint32_t kinds, NatHostListener listener, void* context) {
  HostEvents::Listen(kinds, listener, context);
}
