#include "platform/messaging/runtime_dir.h"

#include <cstdlib>

namespace messaging {

std::string RuntimeDir() {
  const char* dir = ::getenv("NATAGENT_RUNTIME_DIR");
  return dir != nullptr && *dir != '\0' ? dir : "/run/natagent";
}

std::string QueuePath(const std::string& dir, int queue) { return dir + "/queue-" + std::to_string(queue); }

std::string LockPath(const std::string& dir) { return dir + "/agent.lock"; }

}  // namespace messaging
