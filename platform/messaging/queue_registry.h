#pragma once

#include <sys/un.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/messaging/file_id.h"
#include "platform/messaging/runtime_dir_lease.h"
#include "platform/thread_safety.h"
#include "platform/vxsysutils/thread_mutex.h"

class PartyQueue;

namespace messaging {

// The queues of this process, by number. Any thread. Its state needs no destructor, so that queues may still leave
// while the process or the library is being taken down.
class QueueRegistry {
 public:
  enum class State {
    OPENING,  // not every queue of an agent is there yet
    OPEN,
    LOST,  // one could not be opened, or parties do not find it under its path any more
  };

  // From the next Join without other queues on, the runtime directory is this one (null or empty: RuntimeDir), and its
  // lease the one that `lock` belongs to, which must stay open as long as there are queues. Negative: one of our own.
  // Returns 0 or an errno.
  static int UseLease(const char* dir, int lock) NAT_EXCLUDES(s_mutex);

  // Adds a queue and gives it the lease of the runtime directory: the one that a queue of this process has already,
  // held or failed, or a new one, whose failure is reported in the journal. Null when the process has a queue of that
  // number; it is not added then.
  static std::shared_ptr<const RuntimeDirLease> Join(PartyQueue& queue, int number) NAT_EXCLUDES(s_mutex);

  // A queue that has joined is open, with that file as its socket; or it is closed for good.
  static void SetSocket(PartyQueue& queue, std::optional<FileId> socket) NAT_EXCLUDES(s_mutex);

  // Whether parties can reach the queues. `fault` says why when they are lost.
  static State Check(std::string& fault) NAT_EXCLUDES(s_mutex);

  // Takes the queue out and gives up its lease. From the return on no other thread touches the queue.
  static void Leave(PartyQueue& queue) NAT_EXCLUDES(s_mutex);

  // The open queue of a number, or null. It stays valid as long as its channel does.
  static PartyQueue* Find(int number) NAT_EXCLUDES(s_mutex);

  // Hands an encoded notice to every queue.
  static void Post(const std::string& notice) NAT_EXCLUDES(s_mutex);

 private:
  // The directory that the host has chosen, and the lease that it holds.
  struct HostsLease {
    char dir[sizeof(sockaddr_un::sun_path)];
    int lock;
  };
  static std::shared_ptr<const RuntimeDirLease> MakeLease(const std::string& dir) NAT_REQUIRES(s_mutex);
  static std::string FaultOf(const PartyQueue& queue) NAT_REQUIRES(s_mutex);

  static ThreadMutex s_mutex;
  static HostsLease s_hostsLease NAT_GUARDED_BY(s_mutex);
  static PartyQueue* s_first NAT_GUARDED_BY(s_mutex);
};

}  // namespace messaging
