#include <algorithm>
#include <exception>
#include <string>

#include "agent/host.h"
#include "platform/messaging/queue_registry.h"
#include "platform/messaging/queue_users.h"

using messaging::QueueRegistry;
using messaging::QueueUsers;

static_assert(NAT_HOST_MAX_USERS == QueueUsers::kMax && NAT_HOST_EVERYONE == QueueUsers::kEveryone);
static_assert(NAT_HOST_QUEUES_OPENING == static_cast<int>(QueueRegistry::State::OPENING));
static_assert(NAT_HOST_QUEUES_OPEN == static_cast<int>(QueueRegistry::State::OPEN));
static_assert(NAT_HOST_QUEUES_LOST == static_cast<int>(QueueRegistry::State::LOST));

int NatHostUseRuntimeDir(const char* dir, int lock) { return QueueRegistry::UseLease(dir, lock); }

int NatHostLimitQueue(int queue, const uid_t* users, size_t count) { return QueueUsers::Limit(queue, users, count); }

int NatHostCheckQueues(char* why, size_t size) {
  std::string fault;
  int state = NAT_HOST_QUEUES_LOST;
  try {
    state = static_cast<int>(QueueRegistry::Check(fault));
  } catch (const std::exception&) {
    // There is a fault, and no memory to say which.
  }
  if (why != nullptr && size > 0) {
    const size_t length = std::min(fault.size(), size - 1);
    std::copy_n(fault.data(), length, why);
    why[length] = '\0';
  }
  return state;
}
