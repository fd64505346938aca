#include "platform/vxsysutils/thread_event.h"

#include <cassert>

void ThreadEvent::Create(long initial, long manual) {
  m_set = initial != 0;
  m_manual = manual != 0;
}

void ThreadEvent::SetEvent() {
  m_set = true;
  if (m_manual) {
    m_signal.notify_all();
  } else {
    m_signal.notify_one();
  }
}

void ThreadEvent::ResetEvent() { m_set = false; }

void ThreadEvent::WaitForEvent([[maybe_unused]] CRITICAL_SECTION* section) {
  assert(section == nullptr);
  // The caller holds the lock before and after; the wait borrows it.
  std::unique_lock lock(m_mutex, std::adopt_lock);
  m_signal.wait(lock, [this] { return m_set; });
  lock.release();
  if (!m_manual) {
    m_set = false;
  }
}
