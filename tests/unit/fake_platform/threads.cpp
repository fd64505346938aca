#include <chrono>
#include <memory>

#include "platform/vxsysutils/thread.h"
#include "platform/vxsysutils/thread_event.cpp"  // needs no device: the real one
#include "tests/unit/fake_platform/fake.h"

namespace {
struct Handle {
  std::thread thread;
  std::shared_ptr<bool> ended;  // under the device's lock
};
}  // namespace

void* Thread::BeginThread(Function function, void* argument, unsigned long flags) {
  fake::Record("thread begin ", flags);
  fake::Device device;
  if (device->refusedThreads.contains(++device->threadsAsked)) {
    return nullptr;
  }
  const auto ended = std::make_shared<bool>(false);
  return new Handle{std::thread([=] {
                      function(argument);
                      const fake::Device end;
                      *ended = true;
                    }),
                    ended};
}

void Thread::WaitForThread(void* handle, unsigned long timeoutMs, unsigned long*) {
  fake::Record("thread wait ", timeoutMs);
  const std::unique_ptr<Handle> owned(static_cast<Handle*>(handle));
  if (owned == nullptr) {
    return;
  }
  {
    fake::Device device;
    if ((device->giveUpWaits && timeoutMs <= 1000) ||
        !device->changed.wait_for(device.Lock(), std::chrono::milliseconds(timeoutMs), [&] { return *owned->ended; })) {
      device->abandoned.push_back(std::move(owned->thread));
      return;
    }
  }
  owned->thread.join();
}

void Thread::WaitForAbandoned(unsigned long) { fake::JoinAbandonedThreads(); }
