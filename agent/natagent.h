#pragma once

// The library's entry points, for a host that loads it. C11 and C++11. The host calls them one at a time, from any
// thread.

#define NATAGENT_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

// Starts the agent on a thread of its own; does nothing while it is started. The argument is the host's ConfigSource
// (nat/host_config.h), or what NatHostMakeConfigSource made (host.h), which must stay until StopNatMain has returned.
NATAGENT_EXPORT void NatMain(void* configSource);

// Ends the agent and waits for it, 10 s at most.
NATAGENT_EXPORT void StopNatMain(void);

// Tells what part of the configuration has changed: 0x0080, 0x0100, 0x0200 or 0x0400 reload the NAT settings, 0x2000
// hands STUN its server settings again; other bits mean nothing. Ignored while the agent is not running.
NATAGENT_EXPORT void UpdateNatMain(unsigned short changes);

#ifdef __cplusplus
}  // extern "C"
#endif
