#include "platform/vxsysutils/thread.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

namespace {

// How a thread's end is told to the one that waits for it. Shared by both, since either may be gone first.
struct Ending {
  std::mutex mutex;
  std::condition_variable signal;
  bool reached = false;      // guarded by mutex
  unsigned long result = 0;  // guarded by mutex
};

struct Handle {
  std::shared_ptr<Ending> ending;
  std::thread thread;
};

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
  const std::unique_ptr<Handle> owned(static_cast<Handle*>(handle));
  // Far enough for "for ever", near enough not to overflow the clock.
  constexpr unsigned long kLongestMs = 0xFFFFFFFF;
  const std::chrono::milliseconds timeout(std::min(timeoutMs, kLongestMs));
  bool reached = false;
  {
    Ending& ending = *owned->ending;
    std::unique_lock lock(ending.mutex);
    reached = ending.signal.wait_for(lock, timeout, [&ending] { return ending.reached; });
    if (reached && exitCode != nullptr) {
      *exitCode = ending.result;
    }
  }
  if (reached) {
    // Only the last few instructions are left; after this the thread runs no code of the library any more.
    owned->thread.join();
  } else {
    owned->thread.detach();
  }
}
