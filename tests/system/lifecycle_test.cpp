// The library as a host loads it: started, stopped, started again and unloaded, with parties connected or not.

#include <atomic>

#include "tests/system/interposed.h"
#include "tests/system/library_test.h"

namespace {

using Lifecycle = LibraryTest;

TEST_F(Lifecycle, StopRightAfterStartLeavesNothing) {
  m_start(&m_source);
  m_stop();
  const std::size_t threads = EntriesOf("/proc/self/task");
  const std::size_t descriptors = EntriesOf("/proc/self/fd");
  for (int i = 0; i < 200; ++i) {
    m_start(&m_source);
    m_stop();
  }
  EXPECT_LE(ThreadsAtMost(threads), threads);
  EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
  EXPECT_FALSE(std::filesystem::exists(m_directory + "/queue-112"));
}

TEST_F(Lifecycle, CyclesWithRequestsInFlight) {
  std::size_t threads = 0;
  std::size_t descriptors = 0;
  for (std::uint64_t i = 0; i < 1000; ++i) {
    m_start(&m_source);
    natclient* sip = Connect(NATCLIENT_SIP);
    natclient* cm = Connect(NATCLIENT_CM);
    ASSERT_TRUE(sip != nullptr && cm != nullptr);
    Ask(sip, i);
    m_update(0x0080);
    Ask(cm, i);
    for (std::uint64_t id = 0; id < 20; ++id) {
      Send(sip, "127.0.0.1", id);
    }
    m_stop();
    // Each is answered at most once; what was not has its connection closed.
    std::array<int, 20> answers{};
    natclient_handlers handlers{};
    handlers.cs = [](void* context, std::uint64_t id, const natclient_item*, std::uint32_t, std::uint32_t) {
      auto& counts = *static_cast<std::array<int, 20>*>(context);
      ASSERT_LT(id, counts.size());
      EXPECT_EQ(++counts[id], 1);
    };
    int result = 0;
    while (result >= 0) {
      ASSERT_EQ(natclient_wait(sip, kPatienceMs), 1);
      result = natclient_dispatch(sip, &handlers, &answers);
    }
    EXPECT_EQ(result, -ECONNRESET);
    natclient_close(sip);
    natclient_close(cm);
    if (i == 0) {
      threads = ThreadsAtMost(1);
      descriptors = EntriesOf("/proc/self/fd");
    }
  }
  EXPECT_LE(ThreadsAtMost(threads), threads);
  EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
}

TEST_F(Lifecycle, UnloadedWhileItRuns) {
  std::size_t threads = 0;
  std::size_t descriptors = 0;
  for (std::uint64_t i = 0; i < 20; ++i) {
    m_start(&m_source);
    natclient* sip = Connect(NATCLIENT_SIP);
    ASSERT_NE(sip, nullptr);
    Ask(sip, i);
    Unload();
    EXPECT_EQ(::dlopen(NATAGENT_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr) << "the library stayed in memory";
    natclient_close(sip);
    Load();
    if (i == 0) {
      threads = EntriesOf("/proc/self/task");
      descriptors = EntriesOf("/proc/self/fd");
    }
  }
  EXPECT_LE(ThreadsAtMost(threads), threads);
  EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
}

// Both workers of a run begin after their run has ended: they take no part in the next one, and are waited for before
// the library goes.
TEST_F(Lifecycle, WorkersThatBeginLate) {
  interposed::SpareThisThread(true);
  const auto run = [this](int held) {
    interposed::HoldThreads(held);
    m_start(&m_source);
    natclient* sip = Connect(NATCLIENT_SIP);
    Ask(sip, 1);
    natclient_close(sip);
  };
  run(0);
  const std::size_t threads = ThreadsAtMost(4);  // with the agent's three
  m_stop();
  run(2);
  m_stop();  // gives both up
  run(0);
  interposed::Release();
  EXPECT_LE(ThreadsAtMost(threads), threads);
  const auto begin = std::chrono::steady_clock::now();
  m_stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
  run(2);
  m_stop();
  interposed::ReleaseSoon();
  Unload();
  EXPECT_LE(ThreadsAtMost(threads - 3), threads - 3);
  interposed::Release();
}

TEST_F(Lifecycle, UnloadedInMidLookUp) {
  if (!HasBed()) {
    GTEST_SKIP() << "test_host.py runs it";
  }
  for (std::uint64_t i = 0; i < 100; ++i) {
    m_start(&m_source);
    natclient* sip = Connect(NATCLIENT_SIP);
    ASSERT_NE(sip, nullptr);
    Send(sip, "pbx.example", i);
    Ask(sip, 1000 + i);  // behind it, so the look-up has been asked for
    const auto begin = std::chrono::steady_clock::now();
    if (i % 2 == 0) {
      m_stop();
    }
    Unload();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2500));
    natclient_close(sip);
    Load();
  }
}

TEST_F(Lifecycle, ReloadStormNeverMixesTwoConfigurations) {
  if (!HasBed()) {
    GTEST_SKIP() << "test_host.py runs it";
  }
  m_start(&m_source);
  natclient* sip = Connect(NATCLIENT_SIP);
  ASSERT_NE(sip, nullptr);
  std::atomic<bool> asked = false;
  std::array<std::size_t, 2> answers{};
  std::thread party([&] {
    natclient_handlers handlers{};
    handlers.cs = [](void* context, std::uint64_t, const natclient_item* mapped, std::uint32_t flag, std::uint32_t) {
      EXPECT_EQ(flag, NATCLIENT_MAPPED);
      for (std::size_t i = 0; i < Source::kPublicIps.size(); ++i) {
        if (mapped->ip == Source::kPublicIps[i] && mapped->port == Source::kPublicPorts[i]) {
          ++(*static_cast<std::array<std::size_t, 2>*>(context))[i];
        }
      }
    };
    constexpr std::size_t kRequests = 20000;
    std::size_t sent = 0;
    while (answers[0] + answers[1] < kRequests && !HasFailure()) {
      while (sent < kRequests && sent - answers[0] - answers[1] < 64) {
        Send(sip, "198.51.100.9", sent++);
      }
      ASSERT_EQ(natclient_wait(sip, kPatienceMs), 1);
      ASSERT_GE(natclient_dispatch(sip, &handlers, &answers), 0);
    }
    asked = true;
  });
  while (!asked) {
    m_source.ChangeOnNextReload();
    m_update(0x2080);
  }
  party.join();
  EXPECT_GT(answers[0], 0U);
  EXPECT_GT(answers[1], 0U);
  m_stop();
  natclient_close(sip);
}

}  // namespace
