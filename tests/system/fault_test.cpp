// Each allocation, and each call that makes a descriptor, fails once in each step of the library's life. Whatever
// fails: nothing is thrown at the host, a request of a living party is answered once or its connection is closed, the
// next attempt works and nothing is left behind.

#include <poll.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <map>

#include "tests/system/interposed.h"
#include "tests/system/library_test.h"

namespace {

using interposed::Fault;

constexpr natclient_item kItems[] = {{0x02004D0A, 5060, 0}, {0x02004D0A, 10000, 0}};  // 10.77.0.2
constexpr char kFar[] = "198.51.100.9";
constexpr std::uint64_t kId = 7;
constexpr std::uint64_t kFence = 8;

using Answers = std::map<std::uint64_t, int>;

void Count(void* answers, std::uint64_t id) { ++(*static_cast<Answers*>(answers))[id]; }

class Faults : public LibraryTest {
 protected:
  Faults() {
    interposed::SpareThisThread(true);
    m_handlers.cs = [](void* a, std::uint64_t id, const natclient_item*, std::uint32_t, std::uint32_t) {
      Count(a, id);
    };
    m_handlers.cs_list = m_handlers.rtp = m_handlers.reverse =
        [](void* a, std::uint64_t id, const natclient_answer_item*, std::size_t, std::uint32_t) { Count(a, id); };
  }

  void Host(const std::function<void()>& entry) {
    const interposed::Unspared unspared;
    entry();
  }

  std::string Log() {
    std::ifstream log(m_directory + "/natagent.log");
    return {std::istreambuf_iterator<char>(log), {}};
  }

  // Until the agent runs, or has given up: it has then taken its thread with it.
  void AwaitStart() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (Log().find("Starting Nat Agent Messenger") == std::string::npos &&
           EntriesOf("/proc/self/task") > m_threads) {
      natclient* probe = nullptr;
      if (natclient_open(&probe, m_directory.c_str(), NATCLIENT_CC, 100) == 0) {
        natclient_close(probe);
        return;
      }
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "neither started nor ended";
    }
  }

  // Takes what comes until an answer with the id is there; false when the connection is closed first.
  bool Await(natclient* party, std::uint64_t id) {
    while (m_answers[id] == 0) {
      if (natclient_wait(party, kPatienceMs) != 1) {
        ADD_FAILURE() << "neither answered nor hung up";
        return false;
      }
      if (natclient_dispatch(party, &m_handlers, &m_answers) < 0) {
        return false;
      }
    }
    return true;
  }

  void Close(natclient*& party) {
    natclient_close(party);
    party = nullptr;
  }

  // The request's answer comes once, or the connection is closed. A request behind it shows that no other follows.
  void Exchange(natclient* party, const std::function<void(natclient*)>& send, bool answered) {
    m_answers.clear();
    send(party);
    if (answered && !Await(party, kId)) {
      return;
    }
    Send(party, kFar, kFence);
    Await(party, kFence);
    EXPECT_LE(m_answers[kId], 1);
  }

  // The party is taken in and answered, or hung up on.
  void Reconnect(natclient*& party, natclient_party queue) {
    Close(party);
    const int result = natclient_open(&party, m_directory.c_str(), queue, kPatienceMs);
    EXPECT_NE(result, -ETIMEDOUT);
    if (result == 0) {
      Exchange(
          party, [](natclient*) {}, false);
    }
  }

  // Every party is taken in and answered.
  void ExpectToWork() {
    for (const natclient_party party : {NATCLIENT_SIP, NATCLIENT_CM, NATCLIENT_CC}) {
      natclient* client = Connect(party);
      ASSERT_NE(client, nullptr);
      m_answers.clear();
      Send(client, kFar, kFence);
      EXPECT_TRUE(Await(client, kFence));
      Close(client);
    }
  }

  Answers m_answers;
  natclient_handlers m_handlers{};
  std::size_t m_threads = 0;
  natclient* m_sip = nullptr;
  natclient* m_cm = nullptr;
  natclient* m_cc = nullptr;
};

TEST_F(Faults, EachStepOnceForEachAllocationAndDescriptor) {
  if (!HasBed()) {
    GTEST_SKIP() << "test_host.py runs it";
  }
  const auto ask = [this](natclient*& party, bool answered, auto send) {
    return [this, &party, answered, send] { Exchange(party, send, answered); };
  };
  const struct {
    const char* name;
    bool started;  // when the step begins, with both parties connected
    std::function<void()> step;
    bool restarts = false;  // the agent is stopped behind it, and started again
  } rows[] = {
      {"start", false, [this] { Host([this] { m_start(&m_source); }), AwaitStart(); }, true},
      {"connect", true, [this] { Reconnect(m_cc, NATCLIENT_CC); }},
      {"hang up, connect again", true, [this] { Reconnect(m_cm, NATCLIENT_CM); }},
      {"cs", true, ask(m_sip, true, [](auto p) { natclient_request_cs(p, kId, kFar, kItems, NATCLIENT_UDP, 0); })},
      {"cs list", true, ask(m_sip, true, [](auto p) { natclient_request_cs_list(p, kId, kFar, kItems, 2, 0); })},
      {"rtp", true, ask(m_cm, true, [](auto p) { natclient_request_rtp(p, kId, kFar, kItems, 2, 0); })},
      {"reverse", true, ask(m_cm, true, [](auto p) { natclient_request_reverse(p, kId, kItems, 2, 0); })},
      {"close", true, ask(m_cm, false, [](auto p) { natclient_request_close(p, kId); })},
      {"name, cs", true,
       ask(m_sip, true, [](auto p) { natclient_request_cs(p, kId, "localhost", kItems, NATCLIENT_UDP, 0); })},
      {"name, rtp", true, ask(m_cm, true, [](auto p) { natclient_request_rtp(p, kId, "localhost", kItems, 2, 0); })},
      {"reload", true,
       [this] {
         m_source.ChangeOnNextReload();
         Host([this] { m_update(0x2080); });
       }},
      {"stop", true, [this] { Host(m_stop); }, true},
  };
  m_start(&m_source);
  ExpectToWork();
  m_stop();
  m_threads = ThreadsAtMost(1);
  const std::size_t descriptors = EntriesOf("/proc/self/fd");
  const struct {
    Fault fault;
    const char* name;
  } faults[] = {{Fault::ALLOCATION, "allocation"},
                {Fault::ALLOCATIONS, "every allocation from"},
                {Fault::DESCRIPTOR, "descriptor"}};
  for (const auto& row : rows) {
    for (const auto& fault : faults) {
      bool failed = true;
      for (int nth = 1; failed && !HasFailure(); ++nth) {
        SCOPED_TRACE(std::string(row.name) + ", " + fault.name + " " + std::to_string(nth));
        std::filesystem::remove(m_directory + "/natagent.log");
        if (row.started) {
          m_start(&m_source);
          m_sip = Connect(NATCLIENT_SIP);
          m_cm = Connect(NATCLIENT_CM);
          ASSERT_TRUE(m_sip != nullptr && m_cm != nullptr);
        }
        interposed::Arm(fault.fault, nth);
        row.step();
        failed = interposed::Disarm();
        for (natclient** party : {&m_sip, &m_cm, &m_cc}) {
          Close(*party);
        }
        if (row.restarts) {
          m_stop();
          EXPECT_LE(ThreadsAtMost(m_threads), m_threads);
          m_start(&m_source);
        }
        ExpectToWork();
        m_stop();
        EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
        if (!failed) {
          std::printf("%s: %d times %s\n", row.name, nth - 1, fault.name);
        }
      }
    }
  }
}

}  // namespace
