#include "platform/messaging/queue_users.h"

#include <algorithm>
#include <cerrno>
#include <type_traits>

namespace messaging {

constinit ThreadMutex QueueUsers::s_mutex;
constinit QueueUsers::Limits QueueUsers::s_limits[std::size(kQueues)]{};
static_assert(std::is_trivially_destructible_v<ThreadMutex>);

int QueueUsers::Limit(int queue, const uid_t* users, std::size_t count) {
  const bool limited = count != kEveryone;
  if (limited && count > kMax) {
    return E2BIG;
  }
  ScopedLock lock(s_mutex);
  Limits* limits = Find(queue);
  if (limits == nullptr) {
    return EINVAL;
  }
  limits->limited = limited;
  limits->count = limited ? count : 0;
  std::copy_n(users, limits->count, limits->users);
  return 0;
}

bool QueueUsers::Admits(int queue, uid_t user) {
  ScopedLock lock(s_mutex);
  const Limits* limits = Find(queue);
  if (limits == nullptr || !limits->limited) {
    return true;
  }
  const uid_t* end = limits->users + limits->count;
  return std::find(limits->users, end, user) != end;
}

QueueUsers::Limits* QueueUsers::Find(int queue) {
  for (std::size_t i = 0; i < std::size(kQueues); ++i) {
    if (kQueues[i].number == queue) {
      return &s_limits[i];
    }
  }
  return nullptr;
}

}  // namespace messaging
