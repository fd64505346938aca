#include "platform/messaging/queue_registry.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <type_traits>

#include "platform/journal.h"
#include "platform/messaging/party_queue.h"
#include "platform/messaging/runtime_dir.h"

namespace messaging {

constinit ThreadMutex QueueRegistry::s_mutex;
constinit QueueRegistry::HostsLease QueueRegistry::s_hostsLease{{}, -1};
constinit PartyQueue* QueueRegistry::s_first = nullptr;
static_assert(std::is_trivially_destructible_v<ThreadMutex>);

int QueueRegistry::UseLease(const char* dir, int lock) {
  const std::string_view name = dir != nullptr ? dir : "";
  HostsLease lease{{}, lock};
  if (name.size() >= sizeof lease.dir) {
    return ENAMETOOLONG;
  }
  if (name.empty() && lock >= 0) {
    return EINVAL;
  }
  std::copy(name.begin(), name.end(), lease.dir);
  ScopedLock guard(s_mutex);
  s_hostsLease = lease;
  return 0;
}

std::shared_ptr<const RuntimeDirLease> QueueRegistry::Join(PartyQueue& queue, int number) {
  ScopedLock lock(s_mutex);
  const std::string dir = s_hostsLease.dir[0] != '\0' ? s_hostsLease.dir : RuntimeDir();
  std::shared_ptr<const RuntimeDirLease> lease;
  for (PartyQueue* other = s_first; other != nullptr; other = other->m_next) {
    if (other->m_number == number) {
      return nullptr;
    }
    if (other->m_lease->Dir() == dir) {
      lease = other->m_lease;
    }
  }
  if (lease == nullptr) {
    lease = MakeLease(dir);
  }
  queue.m_lease = lease;
  queue.m_next = s_first;
  s_first = &queue;
  return lease;
}

std::shared_ptr<const RuntimeDirLease> QueueRegistry::MakeLease(const std::string& dir) {
  auto lease = s_hostsLease.lock >= 0 ? std::make_shared<const RuntimeDirLease>(dir, s_hostsLease.lock)
                                      : std::make_shared<const RuntimeDirLease>(dir);
  if (!lease->IsHeld()) {
    JournalError(lease->Fault());
  }
  return lease;
}

void QueueRegistry::Leave(PartyQueue& queue) {
  ScopedLock lock(s_mutex);
  for (PartyQueue** link = &s_first; *link != nullptr; link = &(*link)->m_next) {
    if (*link != &queue) {
      continue;
    }
    *link = queue.m_next;
    queue.m_lease.reset();
    return;
  }
}

void QueueRegistry::SetSocket(PartyQueue& queue, std::optional<FileId> socket) {
  ScopedLock lock(s_mutex);
  queue.m_file = socket;
  queue.m_closed = !socket;
}

QueueRegistry::State QueueRegistry::Check(std::string& fault) {
  ScopedLock lock(s_mutex);
  fault = s_first != nullptr && s_first->m_lease->IsHeld() ? s_first->m_lease->Loss() : "";
  std::size_t open = 0;
  for (const PartyQueue* queue = s_first; queue != nullptr && fault.empty(); queue = queue->m_next) {
    fault = FaultOf(*queue);
    open += queue->m_file ? 1 : 0;
  }
  if (!fault.empty()) {
    return State::LOST;
  }
  return open == std::size(kQueues) ? State::OPEN : State::OPENING;
}

std::string QueueRegistry::FaultOf(const PartyQueue& queue) {
  if (queue.m_closed) {
    return "queue " + std::to_string(queue.m_number) + " is not open";
  }
  const std::string name = QueueFile(queue.m_number);
  if (queue.m_file && FindFile(queue.m_lease->DirFd(), name.c_str()) != queue.m_file) {
    return queue.m_lease->Dir() + "/" + name + " was removed or replaced";
  }
  return {};
}

PartyQueue* QueueRegistry::Find(int number) {
  ScopedLock lock(s_mutex);
  PartyQueue* queue = s_first;
  while (queue != nullptr && queue->m_number != number) {
    queue = queue->m_next;
  }
  return queue;
}

void QueueRegistry::Post(const std::string& notice) {
  ScopedLock lock(s_mutex);
  for (PartyQueue* queue = s_first; queue != nullptr; queue = queue->m_next) {
    queue->Post(notice);
  }
}

}  // namespace messaging
