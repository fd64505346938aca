#include "tests/platform/stun_world.h"

#include <cerrno>
#include <numeric>
#include <set>
#include <tuple>

namespace stun {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

const Reply kUnusable = Answer{};
const auto kNever = [](u16, const Endpoint&) { return Nothing(); };
const auto kAlways = [](u16 port, const Endpoint&) { return Maps(port); };

TEST(StunLearner, RequestIsSentAgainAsRfc8489Says) {
  World world;
  world.Add(5060, 5060, 1);
  std::vector<Millis> times;
  world.respond = [&](u16, auto&) { return times.push_back(world.Time()), Nothing(); };
  world.RunUntil(39500ms);
  EXPECT_THAT(times, ElementsAre(0ms, 500ms, 1500ms, 3500ms, 7500ms, 15500ms, 31500ms));
  EXPECT_THAT(world.lines, ElementsAre(HasSubstr("198.51.100.1:3478 does not answer")));
}

TEST(StunLearner, OneCanaryGoesFirstThenSignallingPortsThenTheRestInAWindow) {
  std::mt19937 dice(7);  // a loss of 5 % each way
  World world;
  world.Add(10000, 10999, 3);
  world.Add(20000, 20099, 1);
  world.respond = [&dice](u16 port, auto&) { return dice() % 10000 < 975 ? Nothing() : Maps(port); };
  world.RunUntil(19ms);
  ASSERT_EQ(world.sendings.size(), 1U);
  world.RunUntil(1600ms);
  EXPECT_GE(world.learnt.size(), 1089U) << "within two retransmissions, which make room for others";
  EXPECT_GE(world.mostUnderWay, Schedule::kWindow);
  for (std::size_t i = 0; i < 100; ++i) {
    EXPECT_GE(world.sendings[i].port, 20000) << i;
  }
}

TEST(StunLearner, RouterThatLimitsTheRateIsNotOverrun) {
  World world;
  world.Add(10000, 10999, 3);
  double tokens = 5;
  world.respond = [&, last = 0ms](u16 port, auto&) mutable {  // 200 requests a second, five at once
    tokens =
        std::min(5.0, tokens + 0.2 * static_cast<double>((world.Time() - std::exchange(last, world.Time())).count()));
    return tokens < 1 ? Nothing() : (--tokens, Maps(port));
  };
  world.RunUntil(10s);
  EXPECT_GE(world.learnt.size(), 990U);
  EXPECT_LE(world.sendings.size(), 3000U);
}

TEST(StunLearner, ServerThatDoesNotHelpCostsFewRequestsUntilItDoes) {
  const std::tuple<u16, Millis, Reply, Millis, std::size_t> cases[] = {
      // ports, death, scans, most in 10 s
      {1000, 0ms, Nothing(), 1h, 12},
      {1000, 0ms, Nothing(), 100ms, 12},
      {1000, 0ms, Refuses(400), 1h, 12},
      {1000, 0ms, Refuses(400), 100ms, 12},
      {1000, 0ms, kUnusable, 100ms, 12},
      {200, 60s, Nothing(), 1h, 150},
      {20000, 500ms, Nothing(), 1h, 4 * Timing{}.mostUnderWay}};
  for (const auto& [ports, death, reply, scans, most] : cases) {
    SCOPED_TRACE(testing::Message() << ports << " ports, scans each " << scans.count() << " ms");
    World world;
    world.Add(1, ports, 3);
    world.respond = [&, &reply = reply, &death = death](u16 port, auto&) {
      return world.Time() < death ? Maps(port) : reply;
    };
    world.RunWithScans(death + 10s, scans);
    EXPECT_LE(world.Sendings(death), most);
    world.RunUntil(death + 110s);
    EXPECT_LE(world.Sendings(death + 10s), 38U);
    EXPECT_LE(world.mostUnderWay, 256U) << "answers that the receive buffer holds";
    EXPECT_EQ(world.lines.size(), 1U);
    world.respond = kAlways;
    world.learnt.clear();
    world.RunUntil(death + 155s);
    EXPECT_EQ(world.learnt.size(), ports) << "the canaries among them";
    EXPECT_EQ(world.Said("answers again"), world.Said("does not answer"));
  }
}

TEST(StunLearner, PortThatIsSilentByItselfHoldsNothingUpAndSaysNothingOfTheServer) {
  const std::pair<u16, u32> cases[] = {{1, 0}, {100, 0}, {100, 1}};  // ports, sends of a probe
  for (const auto& [others, sends] : cases) {
    World world;
    world.learner.Configure({{{"198.51.100.1", "3478"}}, 25, sends, 0}, world.now);
    world.respond = [](u16 port, auto&) { return port == 5060 ? Nothing() : Maps(port); };
    world.Add(10001, 10000U + others, 3);
    world.Add(5060, 5060, 1);
    world.RunWithScans(60s, 100ms);
    EXPECT_EQ(world.learnt.size(), others);
    EXPECT_LT(world.learnt.rbegin()->second, 2s);
    world.learner.Begin(false, true, world.now);
    world.learnt.clear();
    world.RunUntil(260s);
    EXPECT_LT(world.learnt.rbegin()->second, 62s) << "on another uplink as well";
    EXPECT_THAT(world.lines, ElementsAre());
    EXPECT_LE(world.Sendings(62s), 10U * others + 80U);
  }
}

TEST(StunLearner, PortIsLearntAmongManyThatAreSilentByThemselves) {
  for (const bool takesPorts : {false, true}) {
    World world("198.51.100.1", 25, takesPorts);
    world.respond = [](u16 port, auto&) { return port == 5060 || port == 10999 ? Maps(port) : Nothing(); };
    world.Add(5060, 5060, 1);
    world.Add(10000, 10999, 3);
    world.RunUntil(takesPorts ? 20s : 7s);
    EXPECT_TRUE(world.learnt.contains(10999));
    world.RunUntil(120s);
    EXPECT_THAT(world.lines, ElementsAre());
    EXPECT_LE(world.sendings.size(), 18000U);
  }
}

TEST(StunLearner, PortsAskOnceAPeriodSpreadOverIt) {
  World world("198.51.100.1", 86400);
  world.Add(10000, 10999, 3);
  world.RunUntil(400ms);
  world.learner.Configure({{{"198.51.100.1", "3478"}}, 25, 0, 0}, world.now);  // also for those that wait already
  world.mostUnderWay = 0;
  world.RunUntil(300s);
  EXPECT_LT(world.mostUnderWay, 10U);
  std::map<u16, Millis> last;
  std::map<Millis::rep, int> perSecond;
  for (const auto& [at, port, server] : world.sendings) {
    EXPECT_LE(at - last[port], 30s) << port << ": the NAT would forget it";
    EXPECT_TRUE(at < 35s || at - last[port] >= 20s) << port;
    EXPECT_TRUE(at < 1s || ++perSecond[at.count() / 1000] <= 80) << at.count();
    last[port] = at;
  }
}

TEST(StunLearner, StormOfScansIsOneProbeWhichIsPutOffNotForgotten) {
  World world;
  world.Add(10000, 10000, 3);
  world.RunUntil(30ms);
  world.RunWithScans(1s, 1ms);
  EXPECT_EQ(world.sendings.size(), 1U);
  world.RunUntil(2600ms);
  EXPECT_EQ(world.sendings.size(), 2U);
}

TEST(StunLearner, ScanReachesAPortUnderWay) {
  for (const u16 others : {0, 1}) {  // without another port the server is not heard
    for (const Millis before : {8000ms, 8990ms}) {
      World world;
      world.respond = [&](u16 port, auto&) { return port == 5060 && world.Time() < 9s ? Nothing() : Maps(port); };
      world.Add(5060, 5060, 1);
      world.Add(10000, 9999U + others, 3);
      for (const Millis scan : {before, 9010ms}) {  // the second may be in the shadow of the first
        world.RunUntil(scan);
        world.learner.Scan(world.now);
      }
      world.RunUntil(9510ms);
      EXPECT_TRUE(world.learnt.contains(5060)) << others << ", " << before.count();
    }
  }
}

TEST(StunLearner, MappingsThatComeAndGoCostAtMostTwiceTheNormalRate) {
  // Of a hundred answers so many show one of so many other mappings in turn.
  const std::pair<unsigned, int> cases[] = {{100, 60000}, {100, 16}, {100, 4}, {100, 2},
                                            {50, 1},      {20, 1},   {5, 1},   {1, 1}};
  for (const auto& [percent, mappings] : cases) {
    for (const u16 ports : {51, 200}) {
      SCOPED_TRACE(testing::Message() << percent << " %, " << mappings << " mappings, " << ports << " ports");
      World world("198.51.100.1", 2);
      world.Add(10000, 9999U + ports, 3);
      world.RunUntil(60s);
      const std::size_t normal = world.Sendings(40s);
      world.respond = [&, count = 0, &most = percent, &all = mappings](u16 port, auto&) mutable {
        return Maps(world.random() % 100 < most ? 1 + ++count % all : port);
      };
      world.RunUntil(80s);
      EXPECT_LE(world.Sendings(60s), 2 * normal);
      EXPECT_GE(world.Said("does not settle"), percent >= 50 ? 1U : 0U);
      EXPECT_LE(world.Said("does not settle"), percent >= 20 ? 1U : 0U);
      EXPECT_EQ(world.Said("settle again"), 0U);
      const auto isSoon = [](Millis one, Millis next) { return next < one + 1s; };
      EXPECT_EQ(std::adjacent_find(world.reports.begin(), world.reports.end(), isSoon), world.reports.end());
      world.respond = kAlways;
      world.RunUntil(120s);
      EXPECT_EQ(world.Said("settle again"), world.Said("does not settle"));
    }
  }
}

TEST(StunLearner, ChangeBehindTheNatIsFoundSoonThoughAPortNeverSettles) {
  World world;
  world.Add(9999, 10099, 3);
  int moved = 0;
  world.respond = [&](u16 port, auto&) { return Maps(port == 9999 ? 1 + int(world.random() % 9000) : port + moved); };
  const auto found = [&] {
    int count = 0;
    for (u16 port = 10000; port <= 10099; ++port) {
      count += world.PublicPort(port) == port + moved;
    }
    return count;
  };
  for (moved = 0; moved <= 3000; moved += 1000, world.RunUntil(world.Time() + 1min)) {
    for (; found() == 0; world.RunUntil(world.Time() + 10ms)) {
    }
    world.RunUntil(world.Time() + 1s);
    EXPECT_EQ(found(), 100) << moved;
  }
}

TEST(StunLearner, LastMappingSeenTwiceInARowIsTheAnswer) {
  World world("198.51.100.1", 2);
  world.Add(10000, 10000, 3);
  world.Add(10000, 10000, 0);
  std::vector<int> said{1, 1, 2, 1, 3, 4, 5, 6, 6, 7, 8, 7, 7, 9, 7, 7, 7, 7}, answers;
  world.respond = [&, at = 0U](u16, auto&) mutable { return Maps(said[std::min<std::size_t>(at++, said.size() - 1)]); };
  while (world.Time() < 100s) {
    world.RunUntil(world.Time() + 10ms);
    const int answer = world.PublicPort(10000);
    if (answers.empty() || answers.back() != answer) {
      answers.push_back(answer);
    }
  }
  EXPECT_THAT(answers, ElementsAre(0, 1, 6, 7));
  EXPECT_THAT(world.changes, ElementsAre(Pair(10000, 3), Pair(10000, 0), Pair(10000, 3), Pair(10000, 0)));
  EXPECT_THAT(world.lines, ElementsAre(HasSubstr("port 10000 does not settle"), "mappings settle again"));
}

TEST(StunLearner, ServerThatFailsIsLeftForTheNextAndThatIsReportedOnce) {
  const std::string a = "server 198.51.100.1:3478 ", b = "server 198.51.100.2:3479 ";
  const std::tuple<Reply, Millis, std::size_t, const char*, const char*> cases[] = {
      {Refuses(500), 5s, 80, "refuses with error 500", "is asked instead"},
      {Refuses(400), 5s, 80, "refuses with error 400", "is asked instead"},
      {Refuses(300), 5s, 80, "refers to another server", "is asked instead"},
      {kUnusable, 5s, 80, "answers without a usable address", "is asked instead"},
      {Nothing(), 10s, 4 * Timing{}.mostUnderWay, "does not answer", "answers again"}};
  for (const auto& [failure, time, most, text, back] : cases) {
    for (const u32 ports : {1, 1000}) {
      World world("198.51.100.1,198.51.100.2:3479");
      world.Add(5060, 5060, 1);
      bool isFailing = false;
      world.respond = [&, &reply = failure](u16 port, const Endpoint& to) {
        return isFailing && to == kA ? reply : Maps(port);
      };
      world.RunUntil(1s);
      isFailing = true;
      world.Add(10000, 9999 + ports, 3);
      world.RunUntil(1s + time);
      EXPECT_EQ(world.learnt.size(), 1U + ports) << text;
      EXPECT_LE(world.Sendings(1s), most) << text;
      world.Restart();
      world.Restart();
      EXPECT_THAT(world.lines, ElementsAre(HasSubstr(a + text), b + "is asked instead"));
      isFailing = false;
      world.Restart();
      EXPECT_THAT(world.lines, ElementsAre(_, _, a + back));
    }
  }
}

TEST(StunLearner, SingleRefusalsMeanThePortAloneAndAreReportedOnce) {
  const std::function<bool(u16)> cases[] = {[answers = 0](u16) mutable { return ++answers % 10 == 0; },
                                            [](u16 port) { return port == 10500; }};
  for (const auto& isRefused : cases) {
    World world("198.51.100.1,198.51.100.2:3479");
    world.Add(10000, 10999, 3);
    world.respond = [&isRefused](u16 port, auto&) { return isRefused(port) ? Refuses(500) : Maps(port); };
    world.RunUntil(5s);
    EXPECT_GE(world.learnt.size(), 999U);
    EXPECT_LE(world.Sendings(0ms, kB), 3U) << "but for the comparison";
    world.RunUntil(10min);
    EXPECT_EQ(world.lines.size(), 1U);
  }
}

TEST(StunLearner, ServerIsKeptWhileItIsHeardWhateverAddressesItsNameHas) {
  World world("stun.example");
  world.Add(10000, 10009, 3);
  world.lookUp = [looks = 0U]() mutable {  // 40 in another order each time, then two others
    std::vector<u32> found(++looks < 4 ? 40 : 2);
    std::iota(found.begin(), found.end(), kA.address + (looks < 4 ? 0 : 99));
    std::rotate(found.begin(), found.begin() + looks % 2, found.end());
    return found;
  };
  world.RunUntil(2h);
  EXPECT_EQ(world.learner.Servers().size(), 3U);
  const Endpoint first = world.learner.Find(10000).Server();
  EXPECT_LE(world.sendings.size() - world.Sendings(0ms, first), 13U) << "comparisons";
  world.respond = [&](u16 port, const Endpoint& to) { return to == first ? Nothing() : Maps(port); };
  world.RunUntil(2h + 1min);
  EXPECT_NE(world.learner.Find(10000).Server(), first);
  EXPECT_THAT(world.lines, ElementsAre("of 40 server addresses only the first 32 are used",
                                       HasSubstr("does not answer"), HasSubstr("is asked instead")));
}

TEST(StunLearner, ServersAreAskedInTheirOrder) {
  World world(
      "198.51.100.9:1,,198.51.100.8:0,198.51.100.8:65536,198.51.100.8:34 78,0.0.0.0,198.51.100.2:3479,198.51.100.1");
  world.Add(10000, 10099, 3);
  world.respond = [](u16 port, const Endpoint& to) { return to == kA || to == kB ? Maps(port) : Nothing(); };
  world.RunUntil(5s);
  EXPECT_EQ(world.learnt.size(), 100U);
  EXPECT_EQ(world.learner.Find(10000).Server(), kB);
  EXPECT_EQ(world.learner.Nat(), NatMapping::SAME) << "the third was compared with";
  for (const std::string text : {":3478", "198.51.100.8:0", "198.51.100.8:65536", "198.51.100.8:34 78"}) {
    EXPECT_EQ(world.Said("\"" + text + "\" cannot be a server: it needs a host and a port"), 1U);
  }
  EXPECT_THAT(world.lines, ElementsAre(_, _, _, _, "0.0.0.0 cannot be a server's address",
                                       "server 198.51.100.9:1 does not answer; known mappings are kept",
                                       "server 198.51.100.2:3479 is asked instead"));
  World none("");
  none.RunUntil(1s);
  EXPECT_EQ(none.Said("there is no server to ask"), 1U);
}

TEST(StunLearner, NatThatMapsEachDestinationDifferentlyIsToldWhenItChanges) {
  World world("198.51.100.1,198.51.100.2:3479");
  world.Add(10000, 10009, 3);
  int difference = 0;
  world.respond = [&](u16 port, const Endpoint& to) { return Maps(to == kB ? port + difference : port); };
  const std::pair<int, NatMapping> cases[] = {
      {0, NatMapping::SAME}, {1, NatMapping::DIFFERENT}, {2, NatMapping::DIFFERENT}, {0, NatMapping::SAME}};
  EXPECT_EQ(world.learner.Nat(), NatMapping::UNKNOWN);
  for (const auto& [now, conclusion] : cases) {
    difference = now;
    world.RunUntil(world.Time() + 11min);
    EXPECT_EQ(world.learner.Nat(), conclusion);
  }
  EXPECT_THAT(world.lines, ElementsAre(HasSubstr("differently"), HasSubstr("the same way")));
  EXPECT_LE(world.Sendings(0ms, kB), 7U) << "another conclusion takes two comparisons";
  world.learner.Begin(false, true, world.now);
  EXPECT_EQ(world.learner.Nat(), NatMapping::UNKNOWN) << "on another uplink";
}

TEST(StunLearner, WherePortsAreTakenEachIsHeldBrieflyForOneServerAtATime) {
  World world("198.51.100.1,198.51.100.2:3479", 1, true);
  world.Add(5060, 5060, 1);
  world.Add(10000, 10003, 3);
  world.unusable = [](u16 port) { return port == 10000 ? EADDRINUSE : port >= 10002 ? EACCES : 0; };
  world.respond = [&](u16 port, const Endpoint& to) { return to == kA && world.Time() < 20s ? Maps(port) : Nothing(); };
  world.RunWithScans(60s, 100ms);
  EXPECT_EQ(world.LongestHeld(), kMostHeld);
  EXPECT_THAT(world.lines,
              ElementsAre("these ports cannot be bound (Permission denied): 10002-10003",
                          "these ports are in use and cannot be learnt without CAP_NET_RAW: 10000",
                          HasSubstr("198.51.100.1:3478 does not"), HasSubstr("198.51.100.2:3479 does not")));
}

TEST(StunLearner, WherePortsAreTakenNothingHoldsThemForLonger) {
  const struct {
    const char* name;
    u32 mediaPorts;
    std::function<Reply(u16 port, Millis now)> respond;
    Millis serverGoes;
  } cases[] = {
      {"companion", 4, [](u16 p, Millis now) { return p == 5060 && now >= 600ms ? Maps(p) : Nothing(); }, 50s},
      {"paced", 1000,
       [last = 0ms](u16 p, Millis now) mutable { return now < last + 50ms ? Nothing() : (last = now, Maps(p)); }, 50s},
      {"refused", 200, [](u16, Millis) { return Refuses(500); }, 50s},
      {"no server left", 4, [](u16, Millis) { return Nothing(); }, 600ms}};
  for (const auto& row : cases) {
    World world("198.51.100.1", 25, true);
    world.respond = [&](u16 port, auto&) { return row.respond(port, world.Time()); };
    world.Add(5060, 5060, 1);
    world.Add(10000, 9999 + row.mediaPorts, 3);
    world.RunUntil(row.serverGoes);
    world.learner.Configure({{{"nowhere.example", "3478"}}, 25, 0, 0}, world.now);
    world.RunUntil(60s);
    EXPECT_LE(world.LongestHeld(), kMostHeld) << row.name;
  }
}

TEST(StunLearner, ProblemIsToldOnceUntilItClears) {
  World world;
  world.Add(5060, 5060, 1);
  world.Add(10000, 10199, 3);
  for (Millis time = 0ms; time < 8s; time += 45ms) {
    world.networkError = world.networkError == 0 ? ENETUNREACH : 0;
    if (time.count() % 20 == 0) {
      world.learner.Begin(false, false, world.now);
    }
    world.RunUntil(time);
  }
  EXPECT_THAT(world.lines, ElementsAre("cannot send: Network is unreachable"));
  world.networkError = 0;
  world.RunUntil(60s);
  world.networkError = ENETUNREACH;
  world.RunUntil(61s);
  EXPECT_EQ(world.Said("cannot send"), 2U) << "it had cleared";
}

TEST(StunLearner, PortThatIsTakenAwayIsNotAwaitedAnyMore) {
  World world("198.51.100.1,198.51.100.2:3479");
  world.respond = kNever;
  world.Add(5060, 5060, 1);
  world.Add(10000, 10000, 3);
  world.RunUntil(600ms);
  world.learner.RemovePort(5060);  // the canary; its companion takes its place
  world.respond = kAlways;
  EXPECT_THAT(world.learner.Advance(world.now).ended, ElementsAre(5060));
  world.RunUntil(2s);
  EXPECT_TRUE(world.learnt.contains(10000));
  world.learner.RemoveAllPorts();
  world.Add(10000, 10000, 3);
  EXPECT_EQ(world.PublicPort(10000), 0);
}

TEST(StunLearner, SettingsOutOfReasonAreBroughtIntoIt) {
  const std::tuple<u32, u32, u32, Millis, u32, Millis> cases[] = {
      {0, 0, 0, 25s, 7, 500ms}, {10, 3, 100, 10s, 3, 100ms}, {1, 1, 1, 1s, 2, 10ms}, {~0U, ~0U, ~0U, 24h, 16, 60s}};
  for (const auto& [givenPeriod, givenSends, givenRto, period, sends, rto] : cases) {
    const Timing timing = MakeTiming({{}, givenPeriod, givenSends, givenRto}, false);
    EXPECT_EQ(std::tuple(timing.period, timing.sends, timing.rto), std::tuple(period, sends, rto));
  }
}

}  // namespace
}  // namespace stun
