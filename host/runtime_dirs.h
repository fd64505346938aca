#pragma once

#include <string>

// The two directories the agent works in. What goes for the runtime directory stands in platform/messaging.
struct RuntimeDirs {
  std::string runtime;  // the queues' sockets and the lock file
  std::string log;
};

// Fills what is empty from NATAGENT_RUNTIME_DIR and NATAGENT_LOG_DIR, else with /run/natagent and /var/log/natagent.
RuntimeDirs ResolveDirs(RuntimeDirs given);

// Makes the directories when they are missing and checks that they can be used. Returns an empty text, or what is
// wrong.
std::string PrepareDirs(const RuntimeDirs& dirs);
