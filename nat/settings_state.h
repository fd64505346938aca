#pragma once

#include <chrono>

#include "agent/host.h"
#include "platform/types.h"

// Which settings are in force and since when, for a host that asks. Needs the settings lock.
struct SettingsState {
  struct Part {
    u32 state = NAT_HOST_NOT_LOADED;
    std::int64_t since = 0;  // milliseconds since 1970

    void Set(u32 next) {
      state = next;
      since = Now();
    }
  };

  static std::int64_t Now() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  }

  Part signalling;
  Part media;
  std::int64_t exclusionsSince = 0;
  bool isMediaMissTold = false;  // in the journal: somebody asks for media while none are loaded
};
