// Each allocation, call of the network, descriptor and thread of the STUN client fails once, while it learns and while
// a mapping changes. It learns all the same and reports the change once; when it cannot begin, it can the next time;
// and nothing is left behind.

#include "tests/platform/stun_manager_fixture.h"
#include "tests/system/interposed.h"
#include "tests/system/left_behind.h"

namespace {

using interposed::Fault;

class StunFaults : public StunManagerTest {
 protected:
  void SetUp() override {
    interposed::SpareThisThread(true);
    said = testing::_;
    StunManagerTest::SetUp();
    if (!IsSkipped()) {
      server.emplace("127.0.0.1", [] { interposed::SpareThisThread(true); });
    }
  }

  // False when something failed.
  bool Begin() {
    const interposed::Unspared unspared;
    try {
      if (!manager) {
        manager.emplace(true, true);
      }
      manager->SetChangedPortsCallback(&Report, this);
      Configure({{"localhost", "3478"}});
      manager->RemoveAllPorts();
      Add(5060, 5060, 1);
      return manager->Start(true, true);
    } catch (const std::exception&) {
      return false;
    }
  }

  // How often the fault struck until a run had none.
  int Strike(Fault fault, bool isChange) {
    int nth = 0;
    for (bool failed = true; failed && !HasFailure();) {
      SCOPED_TRACE(++nth);
      server->offset = 1000;
      bool begun = !isChange || (Begin() && Learns({5060}));
      EXPECT_TRUE(begun);
      interposed::Arm(fault, nth);
      if (isChange) {
        server->offset = 2000;
        manager->SendScanEvent();
      } else {
        begun = Begin();
      }
      const auto isDone = [&] { return isChange ? !Reported().empty() : PublicPort(5060) != 0; };
      EXPECT_TRUE(!begun || Eventually([&] { return interposed::HasFailed() || isDone(); }));
      if (fault == Fault::ALLOCATIONS && begun) {
        manager->Stop(true);  // while it fails
        begun = false;
      }
      failed = interposed::Disarm();
      EXPECT_TRUE(begun || (isChange ? manager->Start(true, true) : Begin()));
      EXPECT_TRUE(Learns({5060}, server->offset) && Eventually(isDone));
      manager.reset();
      EXPECT_EQ(TakeReported(), isChange ? Changes({{5060, 1}}) : Changes());
    }
    return nth - 1;
  }
};

TEST_F(StunFaults, EachOnceInEachStep) {
  const std::pair<Fault, const char*> faults[] = {{Fault::ALLOCATION, "allocation"},
                                                  {Fault::ALLOCATIONS, "every allocation from"},
                                                  {Fault::DESCRIPTOR, "descriptor"},
                                                  {Fault::NO_MEMORY, "network call without memory"},
                                                  {Fault::NO_BUFFERS, "network call without buffers"},
                                                  {Fault::THREAD, "thread"}};
  manager.reset();
  const std::size_t descriptors = EntriesOf("/proc/self/fd");
  const std::size_t threads = ThreadsAtMost(2);
  const std::tuple<const char*, bool, bool> steps[] = {
      {"learn", false, false}, {"take a change", false, true}, {"learn with bound sockets", true, false}};
  for (const auto& [step, isBound, isChange] : steps) {
    BeUnableToBeRaw(isBound);
    for (const auto& [fault, name] : faults) {
      SCOPED_TRACE(std::string(step) + ", " + name);
      const int times = Strike(fault, isChange);
      std::printf("%s: %d times %s\n", step, times, name);
      EXPECT_LE(ThreadsAtMost(threads), threads);
      EXPECT_EQ(EntriesOf("/proc/self/fd"), descriptors);
    }
  }
  BeUnableToBeRaw(false);
}

}  // namespace
