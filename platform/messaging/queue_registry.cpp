#include "platform/messaging/queue_registry.h"

#include <type_traits>

#include "platform/messaging/party_queue.h"

namespace messaging {

constinit ThreadMutex QueueRegistry::s_mutex;
constinit PartyQueue* QueueRegistry::s_first = nullptr;
static_assert(std::is_trivially_destructible_v<ThreadMutex>);

std::shared_ptr<const RuntimeDirLease> QueueRegistry::Join(PartyQueue& queue, int number, const std::string& dir) {
  ScopedLock lock(s_mutex);
  std::shared_ptr<const RuntimeDirLease> lease;
  for (PartyQueue* other = s_first; other != nullptr; other = other->m_next) {
    if (other->m_number == number) return nullptr;
    if (other->m_lease->Dir() == dir) lease = other->m_lease;
  }
  if (lease == nullptr) lease = std::make_shared<const RuntimeDirLease>(dir);
  queue.m_lease = lease;
  queue.m_next = s_first;
  s_first = &queue;
  return lease;
}

void QueueRegistry::Leave(PartyQueue& queue) {
  ScopedLock lock(s_mutex);
  for (PartyQueue** link = &s_first; *link != nullptr; link = &(*link)->m_next) {
    if (*link != &queue) continue;
    *link = queue.m_next;
    queue.m_lease.reset();
    return;
  }
}

PartyQueue* QueueRegistry::Find(int number) {
  ScopedLock lock(s_mutex);
  PartyQueue* queue = s_first;
  while (queue != nullptr && queue->m_number != number) queue = queue->m_next;
  return queue;
}

void QueueRegistry::Post(const std::string& notice) {
  ScopedLock lock(s_mutex);
  for (PartyQueue* queue = s_first; queue != nullptr; queue = queue->m_next) queue->Post(notice);
}

}  // namespace messaging
