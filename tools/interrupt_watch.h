#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "platform/unique_fd.h"

// SIGINT and SIGTERM as something to read, while it exists.
class InterruptWatch {
 public:
  InterruptWatch() {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &signals, &m_before);
    m_fd = UniqueFd(::signalfd(-1, &signals, SFD_CLOEXEC));
  }
  ~InterruptWatch() {
    signalfd_siginfo taken;  // one that ended the watch must not end the program when it is let in again
    pollfd waiting{m_fd.Get(), POLLIN, 0};
    while (::poll(&waiting, 1, 0) == 1 && ::read(m_fd.Get(), &taken, sizeof taken) == sizeof taken) {
    }
    ::sigprocmask(SIG_SETMASK, &m_before, nullptr);
  }
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;
  int Fd() const { return m_fd.Get(); }

 private:
  sigset_t m_before;
  UniqueFd m_fd;
};
