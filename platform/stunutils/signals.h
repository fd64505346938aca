#pragma once

#include <csignal>

namespace stun {

// Leaves the process's signals to the threads that were there before.
inline void BlockSignals() {
  sigset_t all;
  sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

}  // namespace stun
