#pragma once

#include <mutex>

#include "platform/thread_safety.h"

// A plain, non-recursive mutex. Any thread; Unlock by the thread that locked.
class NAT_CAPABILITY("mutex") ThreadMutex {
 public:
  ThreadMutex() = default;
  ThreadMutex(const ThreadMutex&) = delete;
  ThreadMutex& operator=(const ThreadMutex&) = delete;

  void Lock() NAT_ACQUIRE() { m_mutex.lock(); }
  bool TryLock() NAT_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
  void Unlock() NAT_RELEASE() { m_mutex.unlock(); }

 private:
  std::mutex m_mutex;
};

// Holds a lock (anything with Lock and Unlock) from construction to the end of the scope.
template <class Lockable>
class NAT_SCOPED_CAPABILITY ScopedLock {
 public:
  explicit ScopedLock(Lockable& lock) NAT_ACQUIRE(lock) : m_lock(lock) { m_lock.Lock(); }
  ~ScopedLock() NAT_RELEASE() { m_lock.Unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Lockable& m_lock;
};
