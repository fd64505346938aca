#pragma once

#include <string>

namespace messaging {

// Where the queues' sockets are: NATAGENT_RUNTIME_DIR, or /run/natagent.
std::string RuntimeDir();

// The socket of a queue, `<dir>/queue-<number>`.
std::string QueuePath(const std::string& dir, int queue);

// The lock file of the one agent that serves a runtime directory, `<dir>/agent.lock`. Its holder has an open file
// description lock on the whole file and has written its process id into it as decimal text.
std::string LockPath(const std::string& dir);

}  // namespace messaging
