#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "bench/figures.h"

// Calls of several contestants in blocks that take turns, so that whatever the machine does meets them all.
class Interleaved {
 public:
  static constexpr int kBlock = 500;

  // Each call is one operation.
  explicit Interleaved(std::vector<std::function<void()>> contestants, int blocks, int callsEach = kBlock)
      : m_times(contestants.size()), m_medians(contestants.size()) {
    for (int block = 0; block < blocks; ++block) {
      for (std::size_t i = 0; i < contestants.size(); ++i) {
        // Another one begins each round.
        const std::size_t which = (i + static_cast<std::size_t>(block)) % contestants.size();
        Run(contestants[which], callsEach, m_times[which], m_medians[which]);
      }
    }
  }

  // The median of the blocks' means, and the calls' percentile; in microseconds.
  double Mean(std::size_t which) const { return Median(m_medians[which]); }
  double P99(std::size_t which) const { return Percentile(m_times[which], 0.99); }

 private:
  using Clock = std::chrono::steady_clock;

  static void Run(const std::function<void()>& call, int calls, std::vector<double>& times,
                  std::vector<double>& means) {
    const Clock::time_point begin = Clock::now();
    Clock::time_point last = begin;
    for (int i = 0; i < calls; ++i) {
      call();
      const Clock::time_point now = Clock::now();
      times.push_back(std::chrono::duration<double, std::micro>(now - last).count());
      last = now;
    }
    means.push_back(std::chrono::duration<double, std::micro>(last - begin).count() / calls);
  }

  std::vector<std::vector<double>> m_times;
  std::vector<std::vector<double>> m_medians;
};
