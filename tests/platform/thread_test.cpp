#include "platform/vxsysutils/thread.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <latch>

namespace {

constexpr unsigned long kLongMs = 60'000;

TEST(ThreadTest, ItsResultArrivesAndSignalsAreLeftToTheHost) {
  sigset_t blocked;
  const auto body = [](void* argument) {
    ::pthread_sigmask(SIG_SETMASK, nullptr, static_cast<sigset_t*>(argument));
    return 0x1'2345'678AUL;
  };
  unsigned long result = 0;
  Thread::WaitForThread(Thread::BeginThread(body, &blocked, 0), kLongMs, &result);
  EXPECT_EQ(result, 0x1'2345'678AU);
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
  EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
  for (const unsigned long forever : {0xFFFFFFFFUL, ~0UL}) {
    Thread::WaitForThread(Thread::BeginThread(body, &blocked, 0), forever, nullptr);
  }
  ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
}

TEST(ThreadTest, AThreadThatOutlivesTheWaitGoesOnAlone) {
  struct Gates {
    std::latch go{1};
    std::latch done{2};
  } gates;
  const auto body = [](void* argument) {
    auto& own = *static_cast<Gates*>(argument);
    own.go.wait();
    own.done.count_down();
    return 5UL;
  };
  unsigned long result = 7;
  Thread::WaitForThread(nullptr, kLongMs, &result);
  for (const unsigned long timeout : {0UL, 20UL}) {
    Thread::WaitForThread(Thread::BeginThread(body, &gates, 0), timeout, &result);
    EXPECT_EQ(result, 7U);
  }
  gates.go.count_down();
  gates.done.wait();
  Thread::WaitForAbandoned(kLongMs);
}

}  // namespace
