#pragma once

// Threads by handle. Any thread may start one and any one thread may wait for it.
class Thread {
 public:
  using Function = unsigned long (*)(void*);

  // Runs function(argument) on a new thread and returns its handle, or null when none could be started. `flags` must
  // be 0. Every handle is to be given to WaitForThread exactly once.
  static void* BeginThread(Function function, void* argument, unsigned long flags);

  // Waits until the thread has ended and been taken down, or timeoutMs milliseconds have passed. Either way the handle
  // is spent: a thread that is still running is abandoned and goes on by itself. A null handle returns at once. When
  // the thread ended in time and exitCode is not null, its result is stored there.
  static void WaitForThread(void* handle, unsigned long timeoutMs, unsigned long* exitCode);

  // Waits until the abandoned threads have ended, timeoutMs milliseconds at most: before the code that they run, or
  // have not begun to run, is unloaded.
  static void WaitForAbandoned(unsigned long timeoutMs);
};
