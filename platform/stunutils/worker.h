#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "platform/stunutils/learner.h"
#include "platform/stunutils/name_look_up.h"
#include "platform/stunutils/transport.h"
#include "platform/thread_safety.h"
#include "platform/unique_fd.h"
#include "platform/vxsysutils/thread_mutex.h"

namespace stun {

// Shared by the manager's callers and its thread. The lock is held briefly, never while anything is
// waited for, sent, written or called back.
struct Shared {
  Shared();  // throws a system_error when there is no descriptor left

  ThreadMutex lock;
  Learner learner NAT_GUARDED_BY(lock);
  StunManager::ChangedPortsCallback callback NAT_GUARDED_BY(lock) = nullptr;
  void* context NAT_GUARDED_BY(lock) = nullptr;
  bool stop NAT_GUARDED_BY(lock) = false;

  std::atomic<bool> scanWanted{false};
  const UniqueFd wake;  // an eventfd

  // The thread looks at all of the above again. Any thread.
  void Wake() const;
  void TakeWake() const;
  bool IsStopping();
};

// The learner's hands: sends, receives, waits, writes the journal and calls back, on the thread that calls Run.
class Worker {
 public:
  Worker(Shared& shared, std::unique_ptr<Transport> transport);

  // Works until `stop` is set. Throws nothing: a turn that finds no memory is reported and given up; a moment later
  // learning begins anew.
  void Run();

 private:
  void BeginAnew();
  void Wait();
  void Receive();
  bool TakeTurn();
  bool Rest();
  void Transmit(const Learner::Turn& turn);
  bool Report();

  Shared& m_shared;
  const std::unique_ptr<Transport> m_transport;
  NameLookUp m_lookUp;
  TimePoint m_deadline = TimePoint::min();

  std::vector<std::string> m_lines;  // not in the journal yet

  // Of one turn.
  std::vector<Arrival> m_arrivals;
  std::vector<std::pair<u16, int>> m_unavailable;  // ports, each with an errno
  int m_unfiltered = 0;                            // why there is no filter, an errno
};

}  // namespace stun
