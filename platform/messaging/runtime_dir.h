#pragma once

#include <string>

// The layout of a runtime directory.
namespace messaging {

struct QueueInfo {
  int number;
  const char* party;  // a short name, for people and for configuration keys
};

// Every queue of an agent.
inline constexpr QueueInfo kQueues[] = {{102, "cgi"}, {112, "sip"}, {113, "q113"}, {114, "cm"}, {115, "cc"}};

// Where the queues' sockets are: NATAGENT_RUNTIME_DIR, or /run/natagent.
std::string RuntimeDir();

// The socket of a queue: `queue-<number>` in the directory.
std::string QueueFile(int queue);
std::string QueuePath(const std::string& dir, int queue);

// The lock file of the one agent that serves a runtime directory, `agent.lock` in it. Its holder has an open file
// description lock on the whole file, for writing, and has written its process id into it as decimal text.
inline constexpr const char* kLockFile = "agent.lock";
std::string LockPath(const std::string& dir);

}  // namespace messaging
