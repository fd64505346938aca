#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "platform/unique_fd.h"

// Carries each frame from one link of a network namespace to another and back, later: a kernel without netem has no
// other delay. Runs on a thread of its own until it is destroyed; what goes wrong at first throws std::runtime_error.
class DelayRelay {
 public:
  DelayRelay(const std::string& nameSpace, const char* left, const char* right, std::chrono::milliseconds delay);
  ~DelayRelay();
  DelayRelay(const DelayRelay&) = delete;
  DelayRelay& operator=(const DelayRelay&) = delete;

 private:
  void Run(std::chrono::milliseconds delay);

  UniqueFd m_links[2];
  UniqueFd m_end;  // an eventfd
  std::thread m_thread;
};
