#pragma once

// Tells a service manager that listens (systemd's Type=notify-reload) how the daemon is doing; without one, nothing.
void NotifyReady();
void NotifyReloading();
void NotifyStopping();
