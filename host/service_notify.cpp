#include "host/service_notify.h"

#ifdef NATAGENT_HAVE_SYSTEMD

#include <systemd/sd-daemon.h>
#include <time.h>

#include <cstdint>
#include <string>

void NotifyReady() { sd_notify(0, "READY=1"); }

void NotifyReloading() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const long long microseconds = now.tv_sec * 1'000'000LL + now.tv_nsec / 1'000;
  sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds)).c_str());
}

void NotifyStopping() { sd_notify(0, "STOPPING=1"); }
void NotifyAlive() { sd_notify(0, "WATCHDOG=1"); }
void NotifyStatus(const std::string& text) { sd_notify(0, ("STATUS=" + text).c_str()); }

std::chrono::microseconds WatchdogInterval() {
  std::uint64_t microseconds = 0;
  return std::chrono::microseconds(sd_watchdog_enabled(0, &microseconds) > 0 ? microseconds : 0);
}

#else

void NotifyReady() {}
void NotifyReloading() {}
void NotifyStopping() {}
void NotifyAlive() {}
void NotifyStatus(const std::string&) {}
std::chrono::microseconds WatchdogInterval() { return {}; }

#endif
