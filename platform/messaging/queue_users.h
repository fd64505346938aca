#pragma once

#include <sys/types.h>

#include <cstddef>

#include "platform/messaging/runtime_dir.h"
#include "platform/thread_safety.h"
#include "platform/vxsysutils/thread_mutex.h"

namespace messaging {

// Which users may be the party of which queue of this process. Any thread. Its state needs no destructor.
class QueueUsers {
 public:
  static constexpr std::size_t kMax = 64;  // users of one queue
  static constexpr std::size_t kEveryone = static_cast<std::size_t>(-1);

  // Of a queue, from the next connection on; the superuser is no exception. kEveryone: no limit, as at first. Returns
  // 0, EINVAL for a number that is no queue's, or E2BIG; nothing changes then.
  static int Limit(int queue, const uid_t* users, std::size_t count) NAT_EXCLUDES(s_mutex);

  static bool Admits(int queue, uid_t user) NAT_EXCLUDES(s_mutex);

 private:
  struct Limits {
    bool limited;
    std::size_t count;
    uid_t users[kMax];
  };
  static Limits* Find(int queue) NAT_REQUIRES(s_mutex);

  static ThreadMutex s_mutex;
  static Limits s_limits[std::size(kQueues)] NAT_GUARDED_BY(s_mutex);
};

}  // namespace messaging
