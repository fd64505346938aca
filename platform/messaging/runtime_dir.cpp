#include "platform/messaging/runtime_dir.h"

#include <cstdlib>

namespace messaging {

std::string RuntimeDir() {
  const char* dir = ::getenv("NATAGENT_RUNTIME_DIR");
  return dir != nullptr && *dir != '\0' ? dir : "/run/natagent";
}

std::string QueueFile(int queue) { return "queue-" + std::to_string(queue); }

std::string QueuePath(const std::string& dir, int queue) { return dir + "/" + QueueFile(queue); }

std::string LockPath(const std::string& dir) { return dir + "/" + kLockFile; }

}  // namespace messaging
