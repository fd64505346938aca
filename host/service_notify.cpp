#include "host/service_notify.h"

#ifdef NATAGENT_HAVE_SYSTEMD

#include <systemd/sd-daemon.h>
#include <time.h>

#include <string>

void NotifyReady() { sd_notify(0, "READY=1"); }

void NotifyReloading() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const long long microseconds = now.tv_sec * 1'000'000LL + now.tv_nsec / 1'000;
  sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds)).c_str());
}

void NotifyStopping() { sd_notify(0, "STOPPING=1"); }

#else

void NotifyReady() {}
void NotifyReloading() {}
void NotifyStopping() {}

#endif
