#pragma once

#include <memory>

// Waits on the queues of this process. Construct, select and wait on one thread; Release from any.
class CyclicQueuePoller {
 public:
  explicit CyclicQueuePoller(int);
  ~CyclicQueuePoller();
  CyclicQueuePoller(const CyclicQueuePoller&) = delete;
  CyclicQueuePoller& operator=(const CyclicQueuePoller&) = delete;

  // Adds the queue of that number, whose channel must exist and outlive the poller's last wait. A party that has
  // already connected is taken in here, so that its channel reports it online; its state handler is not called for
  // that. False when the queue could not be opened. The path and the two flags have no meaning here.
  bool SelectQueue(int queue, const char* path, bool, bool);

  // Blocks until a selected queue has something to process and returns its number, or until Release and returns -1.
  // Queues that are busy at once take turns; a release is seen before any of them.
  int WaitForEvents();

  // Makes the current, or else the next, wait return -1; several releases before it make one. False when it failed.
  bool Release();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
