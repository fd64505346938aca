#pragma once

#include <chrono>
#include <filesystem>
#include <thread>

inline constexpr int kPatienceMs = 20000;

inline std::size_t EntriesOf(const char* directory) {
  std::size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory)) {
    ++entries;
  }
  return entries;
}

// Threads that have been joined leave /proc a moment later.
inline std::size_t ThreadsAtMost(std::size_t expected) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  std::size_t threads = EntriesOf("/proc/self/task");
  while (threads > expected && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
    threads = EntriesOf("/proc/self/task");
  }
  return threads;
}
