#pragma once

#include <chrono>
#include <string>

// Tells a service manager that listens (systemd's Type=notify) how the daemon is doing; without one, nothing.
void NotifyReady();
void NotifyReloading();
void NotifyStopping();
void NotifyAlive();
void NotifyStatus(const std::string& text);

// How often the service manager wants to be told that the daemon is alive; 0: not at all.
std::chrono::microseconds WatchdogInterval();
