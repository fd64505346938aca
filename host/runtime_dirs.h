#pragma once

#include <string>

// The two directories the agent works in, and what in them tells whether an agent is there. The functions that return a
// text return an empty one for success, else what is wrong.
struct RuntimeDirs {
  std::string runtime;  // the queues' sockets and the lock file
  std::string log;
};

// Fills what is empty from NATAGENT_RUNTIME_DIR and NATAGENT_LOG_DIR, else with /run/natagent and /var/log/natagent.
RuntimeDirs ResolveDirs(RuntimeDirs given);

// Makes the directories when they are missing and checks that they can be used.
std::string PrepareDirs(const RuntimeDirs& dirs);

// Hands the directories to the library that is loaded next.
void ExportDirs(const RuntimeDirs& dirs);

// Refuses a runtime directory that an agent serves already. Otherwise removes the sockets that one which crashed has
// left behind, so that sockets seen later are those of the agent started now; anything else in their place is refused.
std::string ClaimRuntimeDir(const std::string& runtimeDir);

// Whether an agent in this process serves the runtime directory: it holds the lock and all its queues are open.
bool QueuesOpen(const std::string& runtimeDir);

// Of a claimed directory: whether an agent of another process was faster, in words; else an empty text.
std::string TakenByAnother(const std::string& runtimeDir);
