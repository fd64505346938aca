#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/thread_safety.h"
#include "platform/types.h"
#include "platform/vxsysutils/thread_mutex.h"

namespace stun {

// Looks names up one by one on a thread of its own, which lives as long as the look-up takes. Used by one thread.
class NameLookUp {
 public:
  using Addresses = std::map<std::string, std::vector<u32>>;

  // `wake` is called on the look-up's thread when there is something to take.
  explicit NameLookUp(std::function<void()> wake) : m_wake(std::move(wake)) {}

  // Begins; an earlier one is given up, which takes 50 ms at most.
  void Begin(std::vector<std::string> names);

  // The outcome, once: an entry for each name, empty for one without an IPv4 address; no entry when the look-up failed,
  // which the journal is told.
  std::optional<Addresses> Take();

 private:
  void Finish(Addresses found);

  const std::function<void()> m_wake;
  ThreadMutex m_mutex;
  std::optional<Addresses> m_found NAT_GUARDED_BY(m_mutex);
  std::jthread m_thread;  // the last member: it ends, within 50 ms, before the others go
};

}  // namespace stun
