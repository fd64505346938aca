#include "platform/vxsysutils/thread.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

namespace {

// How a thread's end is told to the one that waits for it. Shared by both, since either may be gone first.
struct Ending {
  std::mutex mutex;
  std::condition_variable signal;
  bool reached = false;      // guarded by mutex
  unsigned long result = 0;  // guarded by mutex
};

using Clock = std::chrono::steady_clock;

struct Handle {
  std::shared_ptr<Ending> ending;
  std::thread thread;
  Handle* next = nullptr;  // of the abandoned ones

  // Waits for the end; true when it has come.
  bool HasEndedBy(Clock::time_point deadline) const {
    std::unique_lock lock(ending->mutex);
    return ending->signal.wait_until(lock, deadline, [this] { return ending->reached; });
  }
};

// Without destructors: the library's own static objects wait for threads when they are destroyed.
constinit std::mutex s_mutex;
constinit Handle* s_abandoned = nullptr;  // guarded by s_mutex
static_assert(std::is_trivially_destructible_v<std::mutex>);

void Abandon(std::unique_ptr<Handle> handle) {
  const std::lock_guard lock(s_mutex);
  handle->next = s_abandoned;
  s_abandoned = handle.release();
}

std::unique_ptr<Handle> TakeAbandoned() {
  const std::lock_guard lock(s_mutex);
  std::unique_ptr<Handle> first(s_abandoned);
  if (first != nullptr) {
    s_abandoned = first->next;
  }
  return first;
}

// Takes down the abandoned threads, one after the other, until one has not ended by then.
void TakeDownAbandoned(Clock::time_point deadline) {
  while (std::unique_ptr<Handle> handle = TakeAbandoned()) {
    if (!handle->HasEndedBy(deadline)) {
      Abandon(std::move(handle));
      return;
    }
    handle->thread.join();
  }
}

// Signals belong to the host's own threads, so a thread started here takes none but those it caused itself. The mask is
// inherited at creation, which leaves no moment in which the new thread could be chosen for one.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    ::sigfillset(&blocked);
    for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGPROF}) {
      ::sigdelset(&blocked, own);
    }
    ::pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
  }
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t m_before;
};

}  // namespace

void* Thread::BeginThread(Function function, void* argument, unsigned long) {
  try {
    auto handle = std::make_unique<Handle>();
    handle->ending = std::make_shared<Ending>();
    const SignalsBlocked blocked;
    handle->thread = std::thread([function, argument, ending = handle->ending]() noexcept {
      const unsigned long result = function(argument);
      const std::lock_guard lock(ending->mutex);
      ending->result = result;
      ending->reached = true;
      ending->signal.notify_all();
    });
    return handle.release();
  } catch (const std::exception&) {
    return nullptr;
  }
}

void Thread::WaitForThread(void* handle, unsigned long timeoutMs, unsigned long* exitCode) {
  if (handle == nullptr) {
    return;
  }
  TakeDownAbandoned(Clock::now());  // what can be had for nothing
  std::unique_ptr<Handle> owned(static_cast<Handle*>(handle));
  // Far enough for "for ever", near enough not to overflow the clock.
  constexpr unsigned long kLongestMs = 0xFFFFFFFF;
  const std::chrono::milliseconds timeout(std::min(timeoutMs, kLongestMs));
  if (!owned->HasEndedBy(Clock::now() + timeout)) {
    Abandon(std::move(owned));
    return;
  }
  // Only the last few instructions are left; after this the thread runs no code of the library any more.
  owned->thread.join();
  if (exitCode != nullptr) {
    *exitCode = owned->ending->result;
  }
}

void Thread::WaitForAbandoned(unsigned long timeoutMs) {
  TakeDownAbandoned(Clock::now() + std::chrono::milliseconds(timeoutMs));
}
