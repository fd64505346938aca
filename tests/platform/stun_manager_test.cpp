#include "platform/stunutils/stun_manager.h"

#include <future>
#include <set>

#include "tests/platform/stun_manager_fixture.h"

namespace {

using testing::Pair;
using testing::UnorderedElementsAre;

TEST_F(StunManagerTest, LearnsEachPortOfTheRangesAndNoOther) {
  const std::vector<u16> ports{2, 5060, 10000, 10002, 10008, 65534, 65535};
  server->offset = -1;
  Add(10000, 10003, 3, 2);
  Start();
  Add(10008, 10009, 3, 2);
  Add(5060, 5060, 1);
  Add(0, 2, 3, 2);
  Add(65534, 65535, 3, 0);  // does not run over
  Add(20001, 20000, 3);
  EXPECT_TRUE(Learns(ports, -1));
  const auto asked = server->Asked();
  EXPECT_EQ(std::set(asked.begin(), asked.end()), std::set(ports.begin(), ports.end()));
  StunResult result;
  manager->GetPortResult(5060, result);
  EXPECT_EQ(result.address2, ::inet_addr("203.0.113.2"));
}

TEST_F(StunManagerTest, RegistrationsAreCounted) {
  Start();
  Add(10000, 10001, 3);
  Add(10000, 10003, 3);
  ASSERT_TRUE(Learns({10000, 10001, 10002, 10003}));
  const auto counts = [this] {
    std::pair<u32, u32> watchedAndKnown;
    manager->CountPorts(watchedAndKnown.first, watchedAndKnown.second);
    return watchedAndKnown;
  };
  EXPECT_THAT(counts(), Pair(4, 4));
  manager->RemovePorts(9990, 10003, 1);
  EXPECT_THAT(counts(), Pair(2, 2));
  EXPECT_EQ(PublicPort(10000), 11000) << "registered once more";
  manager->RemovePorts(10000, 10000, 1);
  EXPECT_EQ(PublicPort(10000), 0);
  manager->RemoveAllPorts();
  EXPECT_EQ(PublicPort(10001), 0);
  EXPECT_THAT(counts(), Pair(0, 0));
}

TEST_F(StunManagerTest, WithoutTheCapabilityFreePortsAreLearntAndOwnedOnesToldOnce) {
  said =
      "stun: without CAP_NET_RAW only ports that nobody uses can be learnt\n"
      "stun: these ports are in use and cannot be learnt without CAP_NET_RAW: 5060 10001-10002\n";
  const int owners[] = {BoundSocket("0.0.0.0", 5060), BoundSocket(kDevice, 10001), BoundSocket(kDevice, 10002)};
  Add(5060, 5060, 1);
  Add(10000, 10099, 3);
  BeUnableToBeRaw(true);
  Start();
  BeUnableToBeRaw(false);
  EXPECT_TRUE(Learns({10000, 10003, 10099}));
  ASSERT_TRUE(IsAskedAgain(200)) << "two periods";
  for (const int owner : owners) {
    ::close(owner);
  }
  EXPECT_TRUE(Learns({5060, 10001})) << "as soon as they are free";
  for (const u16 port : {5060, 10000, 10099}) {
    int late = -1;
    EXPECT_TRUE(Eventually([&] { return (late = BoundSocket("0.0.0.0", port)) >= 0; })) << port << " is kept";
    ::close(late);
  }
}

TEST_F(StunManagerTest, AnswersNobodyAskedForAreNotBelieved) {
  said = testing::_;
  const int own = server->socket;
  const int stranger = BoundSocket(kServer, 9999);
  const int otherServer = BoundSocket(kOtherServer, 3478);  // heard, but not believed for the one that was asked
  Start({kFirst, kSecond});
  for (const int from : {stranger, otherServer, own}) {
    server->socket = from;
    server->hasOtherId = from == own;
    Add(5060, 5060, 1);
    ASSERT_TRUE(IsAskedAgain(3));
    EXPECT_EQ(PublicPort(5060), 0) << from;
    manager->RemoveAllPorts();
  }
  ::close(stranger);
  ::close(otherServer);
}

TEST_F(StunManagerTest, StopFromTheCallbackIsTheLastOfIt) {
  std::promise<bool> couldStart;
  std::function<void()> stop = [&] {
    manager->Stop(false);
    couldStart.set_value(manager->Start(true, true));  // a second call would throw
  };
  manager->SetChangedPortsCallback([](void* context, Changes&) { (*static_cast<decltype(stop)*>(context))(); }, &stop);
  Add(5060, 5060, 1);
  Start();
  ASSERT_TRUE(Learns({5060}));
  server->offset = 2000;
  EXPECT_FALSE(couldStart.get_future().get());
  Start();  // from any other thread it can
}

TEST_F(StunManagerTest, CallsFromManyThreadsAtOnce) {
  said = testing::_;
  Add(5060, 5060, 1);
  const std::function<void()> calls[] = {
      [&] { manager->Start(true, true); }, [&] { Add(10000, 10099, 3); },
      [&] { Configure({kSecond}); },       [&] { manager->SendScanEvent(); },
      [&] { PublicPort(10000); },          [&] { manager->RemovePorts(10000, 10099, 1); },
      [&] { manager->Stop(false); },       [&] { manager->SetChangedPortsCallback(nullptr, nullptr); }};
  std::vector<std::thread> threads;
  for (std::size_t id = 0; id < 4; ++id) {
    threads.emplace_back([&calls, id] {
      for (std::size_t i = 0; i < 50; ++i) {
        calls[(i + id) % std::size(calls)]();
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  Start();
  EXPECT_TRUE(Learns({5060}));
}

TEST_F(StunManagerTest, WithoutAnUplinkTheOldOneGoesOnAndTheNextIsComparedWithIt) {
  said =
      "stun: there is no uplink to learn on\n"
      "stun: server 10.77.0.3:3478 does not answer; known mappings are kept\n"
      "stun: server 10.77.0.3:3478 answers again\n";
  Add(5060, 5060, 1);
  Start();
  ASSERT_TRUE(Learns({5060}));
  Sh("ip route del default");
  EXPECT_FALSE(manager->Start(true, true));
  Add(5061, 5061, 1);
  EXPECT_TRUE(Learns({5060, 5061}));

  server->isSilent = true;
  ASSERT_TRUE(IsAskedAgain(12)) << "several transactions are given up";
  EXPECT_TRUE(Learns({5060, 5061}));
  server->offset = 7;
  server->isSilent = false;
  manager->Stop(true);
  Sh("ip addr del 10.77.0.2/24 dev up0 && ip addr add 10.77.0.9/24 dev up0 && ip route add default via 10.77.0.1");
  Start();
  EXPECT_TRUE(Learns({5060, 5061}, 7));
  EXPECT_TRUE(Eventually([&] { return Reported().size() >= 2; }));
  EXPECT_THAT(Reported(), UnorderedElementsAre(Pair(5060, 1), Pair(5061, 1)));
}

TEST_F(StunManagerTest, NameWithoutAddressDelaysNothing) {
  const auto begin = std::chrono::steady_clock::now();
  Start({{"stun.invalid", "3478"}});
  manager->Stop(true);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms) << "though the look-up is not over";
}

}  // namespace
