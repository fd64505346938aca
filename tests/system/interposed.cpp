#include "tests/system/interposed.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdlib>
#include <initializer_list>
#include <mutex>
#include <new>

namespace {

using interposed::Fault;

std::atomic<Fault> s_fault = Fault::NONE;
std::atomic<int> s_left = 0;
thread_local bool s_spared = false;

bool Fails(Fault fault) { return s_fault == fault && !s_spared && --s_left == 0; }

bool AllocationFails() {
  return Fails(Fault::ALLOCATION) || (s_fault == Fault::ALLOCATIONS && !s_spared && --s_left <= 0);
}

bool RunsOut(std::initializer_list<Fault> ways) {
  const bool fails = std::any_of(ways.begin(), ways.end(), Fails);
  if (fails) {
    errno = static_cast<int>(s_fault.load());
  }
  return fails;
}

// The function behind an interposed one. All are looked up before the tests begin: dlsym waits for the loader's lock,
// which an unloading library holds while it waits for its threads.
template <class Function>
class Next {
 public:
  explicit constexpr Next(const char* name) : m_name(name) {}
  Function* operator*() {
    if (m_function == nullptr) {
      m_function = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, m_name));
    }
    return m_function;
  }

 private:
  const char* m_name;
  Function* m_function = nullptr;
};

constinit Next<int(const char*, int, ...)> s_open("open");
constinit Next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> s_pthread_create("pthread_create");

// A call that makes a descriptor, and one that works with it.
template <class Function, class... Arguments>
int Make(Next<Function>& next, Arguments... arguments) {
  return RunsOut({Fault::DESCRIPTOR, Fault::NO_MEMORY}) ? -1 : (*next)(arguments...);
}
template <class Function, class... Arguments>
auto Use(Next<Function>& next, Arguments... arguments) {
  using Result = decltype((*next)(arguments...));
  return RunsOut({Fault::NO_MEMORY, Fault::NO_BUFFERS}) ? Result{-1} : (*next)(arguments...);
}

void* Allocate(std::size_t size) {
  void* const memory = AllocationFails() ? nullptr : std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  int toHold = 0;
  unsigned released = 0;  // how often
  unsigned soon = 0;
} s_gate;

struct Held {
  void* (*function)(void*);
  void* argument;
  unsigned generation;
};

void* BeginHeld(void* argument) {
  const Held held = *static_cast<Held*>(argument);
  delete static_cast<Held*>(argument);
  {
    std::unique_lock lock(s_gate.mutex);
    const auto released = [&held] { return s_gate.released > held.generation; };
    s_gate.changed.wait(lock, [&] { return released() || s_gate.soon > held.generation; });
    s_gate.changed.wait_for(lock, std::chrono::milliseconds(300), released);
  }
  return held.function(held.argument);
}

}  // namespace

void interposed::Arm(Fault fault, int nth) {
  s_left = nth;
  s_fault = fault;
}

bool interposed::HasFailed() { return s_left <= 0; }

bool interposed::Disarm() {
  s_fault = Fault::NONE;
  return HasFailed();
}

void interposed::SpareThisThread(bool spared) { s_spared = spared; }

void interposed::HoldThreads(int count) {
  const std::lock_guard lock(s_gate.mutex);
  s_gate.toHold = count;
}

void interposed::ReleaseSoon() {
  const std::lock_guard lock(s_gate.mutex);
  s_gate.soon = s_gate.released + 1;
  s_gate.changed.notify_all();
}

void interposed::Release() {
  const std::lock_guard lock(s_gate.mutex);
  ++s_gate.released;
  s_gate.changed.notify_all();
}

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return AllocationFails() ? nullptr : std::malloc(size != 0 ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

// A function of the C library, taken over: which way, its result, name, parameters and arguments.
#define TAKE_OVER(how, result, name, parameters, ...)       \
  static constinit Next<result parameters> s_##name(#name); \
  extern "C" result name parameters { return how(s_##name, __VA_ARGS__); }

TAKE_OVER(Make, int, socket, (int domain, int type, int protocol) noexcept, domain, type, protocol)
TAKE_OVER(Make, int, accept4, (int fd, sockaddr* from, socklen_t* size, int flags), fd, from, size, flags)
TAKE_OVER(Make, int, eventfd, (unsigned count, int flags) noexcept, count, flags)
TAKE_OVER(Make, int, epoll_create1, (int flags) noexcept, flags)
TAKE_OVER(Use, int, bind, (int fd, const sockaddr* at, socklen_t size) noexcept, fd, at, size)
TAKE_OVER(Use, int, connect, (int fd, const sockaddr* to, socklen_t size), fd, to, size)
TAKE_OVER(Use, int, setsockopt, (int fd, int level, int name, const void* value, socklen_t size) noexcept, fd, level,
          name, value, size)
TAKE_OVER(Use, int, epoll_ctl, (int poller, int what, int fd, epoll_event* event) noexcept, poller, what, fd, event)
TAKE_OVER(Use, ssize_t, send, (int fd, const void* data, std::size_t size, int flags), fd, data, size, flags)
TAKE_OVER(Use, ssize_t, sendto,
          (int fd, const void* data, std::size_t size, int flags, const sockaddr* to, socklen_t toSize), fd, data, size,
          flags, to, toSize)
TAKE_OVER(Use, ssize_t, recv, (int fd, void* data, std::size_t size, int flags), fd, data, size, flags)
TAKE_OVER(Use, ssize_t, recvfrom,
          (int fd, void* data, std::size_t size, int flags, sockaddr* from, socklen_t* fromSize), fd, data, size, flags,
          from, fromSize)

template <class... Each>
static void Find(Each&... each) {
  (static_cast<void>(*each), ...);
}

[[gnu::constructor]] static void FindAll() {
  Find(s_socket, s_accept4, s_eventfd, s_epoll_create1, s_open, s_pthread_create, s_bind, s_connect, s_setsockopt,
       s_epoll_ctl, s_send, s_sendto, s_recv, s_recvfrom);
}

extern "C" {

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);  // not read where there is none
  va_end(arguments);
  return Make(s_open, path, flags, mode);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) noexcept {
  if (RunsOut({Fault::THREAD})) {
    return EAGAIN;
  }
  const std::lock_guard lock(s_gate.mutex);
  if (s_spared || s_gate.toHold == 0) {
    return (*s_pthread_create)(thread, attributes, function, argument);
  }
  --s_gate.toHold;
  return (*s_pthread_create)(thread, attributes, BeginHeld, new Held{function, argument, s_gate.released});
}

}  // extern "C"
