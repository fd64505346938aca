#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/thread_safety.h"

struct CRITICAL_SECTION;

// An event with a lock of its own, which also guards whatever its owner likes. Any thread.
class NAT_CAPABILITY("event lock") ThreadEvent {
 public:
  ThreadEvent() = default;
  ThreadEvent(const ThreadEvent&) = delete;
  ThreadEvent& operator=(const ThreadEvent&) = delete;

  // initial nonzero: starts signalled. manual nonzero: stays signalled until ResetEvent, otherwise one wait takes it.
  void Create(long initial, long manual);
  void Destroy() {}

  void Lock() NAT_ACQUIRE() { m_mutex.lock(); }
  void Unlock() NAT_RELEASE() { m_mutex.unlock(); }

  // The three need the event's lock.
  void SetEvent() NAT_REQUIRES(this);
  void ResetEvent() NAT_REQUIRES(this);
  // Returns when the event is signalled, without time-out; the lock is given up meanwhile and held again on return.
  // Only null is accepted: the event's own lock is the one that is given up.
  void WaitForEvent(CRITICAL_SECTION* section) NAT_REQUIRES(this);

 private:
  std::mutex m_mutex;
  std::condition_variable m_signal;
  bool m_set = false;
  bool m_manual = true;
};
