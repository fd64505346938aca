#pragma once

#include <unistd.h>

#include <utility>

// Owns a descriptor, or none (-1).
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
  }
  ~UniqueFd() { Reset(); }

  explicit operator bool() const { return m_fd >= 0; }
  int Get() const { return m_fd; }
  void Reset() {
    if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
  }

 private:
  int m_fd = -1;
};
