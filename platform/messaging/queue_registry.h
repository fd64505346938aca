#pragma once

#include <memory>
#include <string>

#include "platform/messaging/runtime_dir_lease.h"
#include "platform/thread_safety.h"
#include "platform/vxsysutils/thread_mutex.h"

class PartyQueue;

namespace messaging {

// The queues of this process, by number. Any thread. Its state needs no destructor, so that queues may still leave
// while the process or the library is being taken down.
class QueueRegistry {
 public:
  // Adds a queue and gives it the lease of the directory: the one that a queue of this process has already, held or
  // failed, or a new one. Null when the process has a queue of that number; it is not added then.
  static std::shared_ptr<const RuntimeDirLease> Join(PartyQueue& queue, int number, const std::string& dir)
      NAT_EXCLUDES(s_mutex);

  // Takes the queue out and gives up its lease. From the return on no other thread touches the queue.
  static void Leave(PartyQueue& queue) NAT_EXCLUDES(s_mutex);

  // The open queue of a number, or null. It stays valid as long as its channel does.
  static PartyQueue* Find(int number) NAT_EXCLUDES(s_mutex);

  // Hands an encoded notice to every queue.
  static void Post(const std::string& notice) NAT_EXCLUDES(s_mutex);

 private:
  static ThreadMutex s_mutex;
  static PartyQueue* s_first NAT_GUARDED_BY(s_mutex);
};

}  // namespace messaging
