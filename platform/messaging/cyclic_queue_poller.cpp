#include "platform/messaging/cyclic_queue_poller.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/journal.h"
#include "platform/messaging/party_queue.h"

namespace {

constexpr std::uint64_t kReleaseEvent = 0;  // no queue's event: theirs have a bit set

}  // namespace

struct CyclicQueuePoller::Impl {
  struct Selected {
    PartyQueue* queue;
    bool ready = false;
  };

  Impl();
  bool IsUsable() const { return *epoll && wakeUp; }
  // Asks the kernel; marks what is ready. A queue that rests is asked about again after a while.
  void Ask();
  // How long it may wait, in ms; -1: for ever.
  int Patience() const;
  void Mark(std::uint64_t data);
  // The next marked queue, unmarked; null when there is none left.
  PartyQueue* Next();

  // Any thread.
  std::atomic<bool> released{false};
  const UniqueFd wakeUp{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};

  // The waiting thread's. The queues share the epoll instance, since they know best what to watch.
  const std::shared_ptr<const UniqueFd> epoll =
      std::make_shared<const UniqueFd>(UniqueFd(::epoll_create1(EPOLL_CLOEXEC)));
  std::vector<Selected> queues;
  std::size_t next = 0;
};

CyclicQueuePoller::Impl::Impl() {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kReleaseEvent;
  if (!IsUsable() || ::epoll_ctl(epoll->Get(), EPOLL_CTL_ADD, wakeUp.Get(), &event) != 0) {
    JournalError("the queues cannot be waited for: out of descriptors or memory");
  }
}

void CyclicQueuePoller::Impl::Ask() {
  epoll_event events[32];
  const int count = ::epoll_wait(epoll->Get(), events, std::size(events), Patience());
  for (int i = 0; i < count; ++i) {
    Mark(events[i].data.u64);
  }
  for (Selected& selected : queues) {
    if (selected.queue->IsResting()) {
      selected.queue->EndRest();
    }
    selected.ready = selected.ready || selected.queue->HasMore();
  }
  next = 0;
}

int CyclicQueuePoller::Impl::Patience() const {
  int patience = -1;
  for (const Selected& selected : queues) {
    if (selected.queue->HasMore()) return 0;  // what a party left when it was held back
    if (selected.queue->IsResting()) {
      patience = static_cast<int>(PartyQueue::kRest.count());
    }
  }
  return patience;
}

void CyclicQueuePoller::Impl::Mark(std::uint64_t data) {
  if (data == kReleaseEvent) {
    std::uint64_t wakes = 0;
    [[maybe_unused]] const ssize_t got = ::read(wakeUp.Get(), &wakes, sizeof wakes);
    return;
  }
  const int number = static_cast<int>(data >> 8);
  const auto found = std::find_if(queues.begin(), queues.end(),
                                  [number](const Selected& selected) { return selected.queue->Number() == number; });
  if (found == queues.end()) return;
  found->queue->NoteReady(static_cast<unsigned>(data & 0xFF));
  found->ready = true;
}

PartyQueue* CyclicQueuePoller::Impl::Next() {
  while (next < queues.size()) {
    Selected& selected = queues[next++];
    if (std::exchange(selected.ready, false)) return selected.queue;
  }
  return nullptr;
}

CyclicQueuePoller::CyclicQueuePoller(int) : m_impl(std::make_unique<Impl>()) {}

CyclicQueuePoller::~CyclicQueuePoller() = default;

bool CyclicQueuePoller::SelectQueue(int queue, const char*, bool, bool) {
  PartyQueue* found = messaging::QueueRegistry::Find(queue);
  if (found == nullptr || !m_impl->IsUsable() || !found->Watch(m_impl->epoll)) return false;
  m_impl->queues.push_back({found});
  found->AdoptWaiting();
  return true;
}

int CyclicQueuePoller::WaitForEvents() {
  for (;;) {
    if (m_impl->released.exchange(false)) return -1;
    if (const PartyQueue* queue = m_impl->Next()) return queue->Number();
    if (m_impl->IsUsable()) {
      m_impl->Ask();
    } else {
      m_impl->released.wait(false);
    }
  }
}

bool CyclicQueuePoller::Release() {
  m_impl->released.store(true);
  m_impl->released.notify_all();
  // The flag is what is waited for; a full counter has woken the wait already.
  const std::uint64_t one = 1;
  return !m_impl->IsUsable() || ::write(m_impl->wakeUp.Get(), &one, sizeof one) >= 0 || errno == EAGAIN;
}
