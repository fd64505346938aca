#include "tests/system/interposed.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdlib>
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

bool RunsOut() {
  const bool fails = Fails(Fault::DESCRIPTOR);
  if (fails) {
    errno = EMFILE;
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

constinit Next<int(int, int, int)> s_socket("socket");
constinit Next<int(int, sockaddr*, socklen_t*, int)> s_accept4("accept4");
constinit Next<int(unsigned, int)> s_eventfd("eventfd");
constinit Next<int(int)> s_epollCreate1("epoll_create1");
constinit Next<int(const char*, int, ...)> s_open("open");
constinit Next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> s_pthreadCreate("pthread_create");

[[gnu::constructor]] void FindAll() {
  static_cast<void>(*s_socket);
  static_cast<void>(*s_accept4);
  static_cast<void>(*s_eventfd);
  static_cast<void>(*s_epollCreate1);
  static_cast<void>(*s_open);
  static_cast<void>(*s_pthreadCreate);
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

bool interposed::Disarm() {
  s_fault = Fault::NONE;
  return s_left <= 0;
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

extern "C" {

int socket(int domain, int type, int protocol) noexcept { return RunsOut() ? -1 : (*s_socket)(domain, type, protocol); }

int accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  return RunsOut() ? -1 : (*s_accept4)(listener, address, length, flags);
}

int eventfd(unsigned count, int flags) noexcept { return RunsOut() ? -1 : (*s_eventfd)(count, flags); }

int epoll_create1(int flags) noexcept { return RunsOut() ? -1 : (*s_epollCreate1)(flags); }

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);  // not read where there is none
  va_end(arguments);
  return RunsOut() ? -1 : (*s_open)(path, flags, mode);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) noexcept {
  const std::lock_guard lock(s_gate.mutex);
  if (s_spared || s_gate.toHold == 0) {
    return (*s_pthreadCreate)(thread, attributes, function, argument);
  }
  --s_gate.toHold;
  return (*s_pthreadCreate)(thread, attributes, BeginHeld, new Held{function, argument, s_gate.released});
}

}  // extern "C"
