#include "platform/vxnetutils/route_cache.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>

#include "platform/sockets/inet.h"
#include "platform/vxnetutils/netlink_request.h"
#include "platform/vxnetutils/route_helper.h"
#include "tests/platform/own_namespace.h"

namespace {

using RoutesTest = NamespaceTest;
using Clock = std::chrono::steady_clock;

// "address gateway", or "none".
std::string LookUp(RouteCache& cache, const char* destination) {
  Route route;
  if (!cache.LookUp(sockets::inet_addr(destination), route)) return "none";
  const std::string address = sockets::inet_ntoa(route.address);
  return address + " " + (route.gateway == kOtherGateway ? "other" : sockets::inet_ntoa(route.gateway));
}

// Until the destination is answered without asking the kernel.
void MakeKnown(RouteCache& cache, const char* destination) {
  for (u64 before = cache.Requests() + 1; before != cache.Requests();) {
    before = cache.Requests();
    LookUp(cache, destination);
  }
}

// One device, changed step by step: each answer is asked for, hence known, before the change and asked for again at
// once after it.
TEST_F(RoutesTest, EveryKindOfChangeIsSeenByTheNextLookUp) {
  constexpr const char* kFar = "198.51.100.9";
  constexpr const char* kOther = "203.0.113.9";
  const struct {
    std::string change;
    const char* destination;
    const char* expected;
  } steps[] = {
      {"true", kFar, "10.1.0.2 10.1.0.1"},
      {"ip route add 198.51.100.0/24 via 10.2.0.1", kFar, "10.2.0.2 10.2.0.1"},
      {"ip addr add 10.2.0.9/24 dev b0; ip route change 198.51.100.0/24 via 10.2.0.1 src 10.2.0.9", kFar,
       "10.2.0.9 10.2.0.1"},
      {"ip link set b0 down", kFar, "10.1.0.2 10.1.0.1"},
      {"ip link set b0 up", kOther, "10.1.0.2 10.1.0.1"},
      {"ip route add default via 10.2.0.1 table 100", kFar, "10.1.0.2 10.1.0.1"},
      {"ip rule add to 198.51.100.0/24 lookup 100", kFar, "10.2.0.2 10.2.0.1"},
      {"ip rule del to 198.51.100.0/24 lookup 100", kFar, "10.1.0.2 10.1.0.1"},
      {"ip nexthop add id 7 via 10.1.0.5 dev a0; ip route add 198.51.100.9 nhid 7", kFar, "10.1.0.2 10.1.0.5"},
      {"ip nexthop replace id 7 via 10.2.0.5 dev b0", kFar, "10.2.0.2 10.2.0.5"},
      {"ip route add unreachable 203.0.113.9", kOther, "none"},
      {"ip route del unreachable 203.0.113.9", kOther, "10.1.0.2 10.1.0.1"},
      {"ip route add default via 10.2.0.1 metric 500", kOther, "10.1.0.2 10.1.0.1"},
      {PullOut("a"), kOther, "10.1.0.2 10.1.0.1"},
      {"echo 1 > /proc/sys/net/ipv4/conf/a0/ignore_routes_with_linkdown", kOther, "10.2.0.2 10.2.0.1"},
      {PlugIn("a"), kOther, "10.1.0.2 10.1.0.1"},
      {"ip addr del 10.1.0.2/24 dev a0", kOther, "10.2.0.2 10.2.0.1"},
      {"ip link del b0", kOther, "none"},
  };
  InOwnNetwork([&steps] {
    AddLink("a", "10.1.0.2/24");
    AddLink("b", "10.2.0.2/24");
    Sh("ip route add default via 10.1.0.1 metric 100");
    RouteCache cache;
    for (const auto& step : steps) {
      MakeKnown(cache, step.destination);
      Sh(step.change);
      EXPECT_EQ(LookUp(cache, step.destination), step.expected) << step.change;
      MakeKnown(cache, step.destination);
      EXPECT_EQ(LookUp(cache, step.destination), step.expected) << "remembered, " << step.change;
    }
  });
}

// A change is made, then a message is sent, and whoever receives it looks the route up: the way of every request. That
// the change is found rests on the order in which the kernel queues its notice, tells of it and ends the change.
TEST_F(RoutesTest, AMessageIsAnsweredWithEveryChangeThatWasFinishedBeforeItWasSent) {
  InOwnNetwork([] {
    AddLink("a", "10.1.0.2/24");
    Sh("ip route add default via 10.1.0.1");
    const u32 far = sockets::inet_addr("198.51.100.9");
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    std::thread answering([&] {
      RouteCache cache;
      for (u32 gateway = 0; ::recv(ends[1], &gateway, sizeof gateway, 0) > 0;) {
        Route route;
        cache.BeginTurn();
        cache.LookUp(far, route);
        cache.EndTurn();
        ::send(ends[1], &route.gateway, sizeof route.gateway, 0);
      }
    });
    NetlinkSocket changer;
    u32 stale = 0;
    for (u32 i = 0; i < 60'000; ++i) {
      const u32 expected = sockets::inet_addr("10.1.0.3") + (i % 200 << 24);
      NetlinkRequest<rtmsg> change(RTM_NEWROUTE, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE);
      change->rtm_family = AF_INET;
      change->rtm_dst_len = 32;
      change->rtm_table = RT_TABLE_MAIN;
      change->rtm_protocol = RTPROT_STATIC;
      change->rtm_type = RTN_UNICAST;
      change.Put(RTA_DST, far);
      change.Put(RTA_GATEWAY, expected);
      ASSERT_EQ(changer.Ask(
                    change.Message(), [](const nlmsghdr*, void*) { return MNL_CB_OK; }, nullptr),
                0);
      u32 answer = 0;
      ::send(ends[0], &expected, sizeof expected, 0);
      ::recv(ends[0], &answer, sizeof answer, 0);
      stale += answer != expected ? 1 : 0;
    }
    EXPECT_EQ(stale, 0U);
    ::close(ends[0]);
    answering.join();
    ::close(ends[1]);
  });
}

TEST_F(RoutesTest, UnchangedRoutesAreNotAskedForAgain) {
  InOwnNetwork([] {
    AddLink("a", "10.1.0.2/24");
    Sh("ip route add default via 10.1.0.1; ip route add unreachable 192.0.2.0/24");
    RouteCache cache;
    const auto lookUpAll = [&cache] {
      for (int i = 0; i < 100; ++i) LookUp(cache, ("198.51.100." + std::to_string(i)).c_str());
      EXPECT_EQ(LookUp(cache, "0.0.0.0"), "10.1.0.2 10.1.0.1");
      EXPECT_EQ(LookUp(cache, "192.0.2.1"), "none");
    };
    lookUpAll();
    MakeKnown(cache, "0.0.0.0");
    lookUpAll();
    const u64 requests = cache.Requests();
    for (int i = 0; i < 150; ++i) lookUpAll();
    EXPECT_EQ(cache.Requests(), requests);
    // Changes are looked for once in a turn, and again in the next and outside.
    for (const bool isInTurn : {true, false}) {
      if (isInTurn) cache.BeginTurn();
      EXPECT_EQ(LookUp(cache, "198.51.100.9"), "10.1.0.2 10.1.0.1");
      Sh("ip route add 198.51.100.9 via 10.1.0.5");
      EXPECT_EQ(LookUp(cache, "198.51.100.9"), isInTurn ? "10.1.0.2 10.1.0.1" : "10.1.0.2 10.1.0.5");
      cache.EndTurn();
      EXPECT_EQ(LookUp(cache, "198.51.100.9"), "10.1.0.2 10.1.0.5");
      Sh("ip route del 198.51.100.9");
    }
  });
}

// Toward address 0: the uplink. Each case in a network of its own with a0 (10.1.0.2) and b0 (10.2.0.2).
TEST_F(RoutesTest, DefaultRouteIsTheLowestMetricWhoseLinkIsUp) {
  // The kernel then names next hops by their ids only.
  const std::string kShort = "sysctl -qw net.ipv4.nexthop_compat_mode=0; ";
  const struct {
    std::string setUp;
    const char* expected;
  } cases[] = {
      {"ip route add default via 10.1.0.1", "10.1.0.2 10.1.0.1"},
      {"ip route add default via 10.1.0.1 metric 20; ip route add default via 10.2.0.1 metric 10", "10.2.0.2 10.2.0.1"},
      {"ip route add default via 10.1.0.1 metric 4000000000; ip route add default via 10.2.0.1 metric 3000000000",
       "10.2.0.2 10.2.0.1"},
      {"ip route add default via 10.1.0.1 metric 10; ip route add default via 10.2.0.1 metric 20; " + PullOut("a"),
       "10.2.0.2 10.2.0.1"},
      {"ip route add default via 10.1.0.1 metric 10; ip route add default via 10.2.0.1 metric 20; ip link set a0 down",
       "10.2.0.2 10.2.0.1"},
      {"ip addr add 10.1.0.9/24 dev a0; ip route add default via 10.1.0.1 src 10.1.0.9", "10.1.0.9 10.1.0.1"},
      {"ip route add default dev a0", "10.1.0.2 0.0.0.0"},
      {"ip -4 route add default via inet6 fe80::1 dev a0", "10.1.0.2 other"},
      {"ip route add default nexthop via 10.1.0.1 nexthop via 10.2.0.1; " + PullOut("a"), "10.2.0.2 10.2.0.1"},
      {"ip nexthop add id 7 via 10.1.0.1 dev a0; ip nexthop add id 8 via 10.2.0.1 dev b0;"
       "ip nexthop add id 9 group 7/8; ip route add default nhid 9; " +
           PullOut("a"),
       "10.2.0.2 10.2.0.1"},
      {kShort +
           "ip nexthop add id 7 via 10.1.0.1 dev a0; ip nexthop add id 8 via 10.2.0.1 dev b0;"
           "ip nexthop add id 9 group 7/8; ip route add default nhid 9; " +
           PullOut("a"),
       "10.2.0.2 10.2.0.1"},
      {kShort + "ip nexthop add id 7 via 10.1.0.1 dev a0; ip route add default nhid 7", "10.1.0.2 10.1.0.1"},
      {"ip route add unreachable default metric 10; ip route add default via 10.1.0.1 metric 20", "none"},
      {"ip route add default via 10.1.0.1 tos 0x10", "none"},
  };
  for (const auto& one : cases) {
    InOwnNetwork([&one] {
      AddLink("a", "10.1.0.2/24");
      AddLink("b", "10.2.0.2/24");
      RouteCache cache;
      EXPECT_EQ(LookUp(cache, "0.0.0.0"), "none") << "before: " << one.setUp;
      Sh(one.setUp);
      EXPECT_EQ(LookUp(cache, "0.0.0.0"), one.expected) << one.setUp;
    });
  }
}

TEST_F(RoutesTest, AStopBeforeTheWaitEndsItAndItsSettling) {
  InOwnNetwork([] {
    RouteHelper helper;
    helper.StopNotifyRtChange();
    helper.StopNotifyRtChange();
    EXPECT_TRUE(helper.NotifyRouteChange());
    // Both stops are spent: only the change ends the next wait, and only a further stop the one after it.
    Sh("ip link set lo up");
    EXPECT_TRUE(helper.NotifyRouteChange());
    std::jthread stopper([&helper] { helper.StopNotifyRtChange(); });
    EXPECT_TRUE(helper.NotifyRouteChange());
    Sh("ip link set lo down");
    helper.StopNotifyRtChange();
    const Clock::time_point begin = Clock::now();
    EXPECT_TRUE(helper.NotifyRouteChange());
    EXPECT_TRUE(helper.NotifyRouteChange()) << "the change that came with the stop is still to be told";
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(1));
    std::jthread([&helper] { helper.StopNotifyRtChange(); }).join();
    EXPECT_TRUE(helper.NotifyRouteChange());
  });
}

// Counts the notifications on a thread of its own, as the agent does.
TEST_F(RoutesTest, ABurstIsOneNotificationAndNothingBetweenTwoWaitsIsMissed) {
  InOwnNetwork([] {
    AddLink("a", "10.1.0.2/24");
    RouteHelper helper;
    // Before the first wait, and far more than the kernel keeps for a reader.
    Sh("for i in $(seq 2000); do echo route add 198.51.100.9 via 10.1.0.7; echo route del 198.51.100.9; done | ip "
       "-batch -");
    std::atomic<int> notifications{0};
    std::atomic<bool> running{true};
    std::thread watcher([&] {
      for (; running; ++notifications) helper.NotifyRouteChange();
    });
    int expected = 0;
    for (const char* change : {"true", "ip addr add 10.1.0.3/24 dev a0", "ip route add 198.51.100.9 via 10.1.0.7",
                               "ip route del 198.51.100.9", "ip rule add to 198.51.100.9 lookup 100",
                               "ip nexthop add id 7 via 10.1.0.5 dev a0", "ip link set lo up"}) {
      Sh(change);
      ++expected;
      const Clock::time_point end = Clock::now() + std::chrono::seconds(10);
      while (notifications < expected && Clock::now() < end) std::this_thread::yield();
      EXPECT_EQ(notifications, expected) << change;
    }
    running = false;
    helper.StopNotifyRtChange();
    watcher.join();
    EXPECT_EQ(notifications, expected + 1);
  });
}

}  // namespace
