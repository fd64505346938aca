#pragma once

#include <atomic>

#include "agent/host.h"
#include "platform/thread_safety.h"
#include "platform/vxsysutils/thread_mutex.h"

// Where the host asks for a sign of life and the agent thread leaves its answer: neither waits for the other.
class Health {
 public:
  // Any thread.
  void Ask() { m_asked.store(true, std::memory_order_relaxed); }
  NatHostHealth LastAnswer() NAT_EXCLUDES(m_mutex);

  // Agent thread. True when an answer is due.
  bool TakeQuestion() { return m_asked.exchange(false, std::memory_order_relaxed); }
  // Counts as one more answer.
  void Answer(const NatHostHealth& found) NAT_EXCLUDES(m_mutex);

 private:
  std::atomic<bool> m_asked = false;
  ThreadMutex m_mutex;
  NatHostHealth m_answer NAT_GUARDED_BY(m_mutex){};
};
