#include "tests/unit/fake_platform/fake.h"

#include <algorithm>
#include <chrono>

namespace fake {

namespace {

// Made on first use, which is the construction of the agent before main.
State& TheState() {
  static State state;
  return state;
}

template <class Condition>
bool WaitUntil(Condition condition) {
  Device device;
  return device->changed.wait_for(device.Lock(), std::chrono::seconds(20), [&] { return condition(device); });
}

}  // namespace

Device::Device() : m_state(TheState()), m_lock(m_state.mutex) {}

void Reset() {
  JoinAbandonedThreads();
  static_cast<Script&>(*Device().operator->()) = Script{};
}

Strings Calls(std::initializer_list<std::string> kinds) {
  Strings calls = Device()->journal;
  std::erase_if(calls, [&](const std::string& entry) {
    return std::find(kinds.begin(), kinds.end(), entry.substr(0, entry.find(' '))) == kinds.end();
  });
  return calls;
}

Strings Take(std::initializer_list<std::string> kinds) {
  Strings calls = Calls(kinds);
  Device()->journal.clear();
  return calls;
}

std::string Log() {
  std::string text;
  for (const std::string& entry : Calls({"log4", "log0"})) {
    text += entry.substr(5);
  }
  return text;
}

void OnLog(const std::string& text, std::function<void()> then) {
  Device device;
  std::tie(device->hookText, device->hook) = std::pair(text, std::move(then));
}

bool WaitForCall(const std::string& entry, int times) {
  return WaitUntil([&](Device& device) { return std::ranges::count(device->journal, entry) >= times; });
}

bool WaitUntilIdle() {
  return WaitUntil([](Device& device) { return device->waiting && device->events.empty() && !device->released; });
}

void JoinAbandonedThreads() {
  for (std::thread& thread : std::exchange(Device()->abandoned, {})) {
    thread.join();
  }
}

void ReportChangedPorts(std::list<std::pair<u16, u16>> ports) {
  const auto [callback, context] = Device()->callback;
  callback(context, ports);
}

}  // namespace fake
