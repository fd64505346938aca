#include "tests/platform/stun_world.h"

#include <cerrno>
#include <set>
#include <tuple>

namespace stun {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

const Reply kUnusable = Answer{};
const auto kNever = [](u16, const Endpoint&) { return Nothing(); };
const auto kAlways = [](u16 port, const Endpoint&) { return Maps(port); };

TEST(StunLearner, RequestIsSentAgainAsRfc8489Says) {
  World world;
  world.Add(5060, 5060, 1);
  world.respond = kNever;
  world.RunUntil(39500ms);
  std::vector<Millis> times;
  for (const auto& sending : world.sendings) {
    times.push_back(sending.at);
  }
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

TEST(StunLearner, ServerThatNeverHelpsCostsFewRequests) {
  for (const auto& reply : {Nothing(), Refuses(400), kUnusable}) {
    for (const Millis apart : {10000ms, 100ms}) {
      World world;
      world.Add(10000, 10999, 3);
      world.respond = [&reply](u16, auto&) { return reply; };
      world.RunWithScans(10s, apart);
      EXPECT_LE(world.sendings.size(), 12U) << "in 10 s";
      world.RunUntil(120s);
      EXPECT_LE(world.sendings.size(), 50U);
      EXPECT_EQ(world.lines.size(), 1U);
      world.respond = kAlways;
      world.RunUntil(140s);
      EXPECT_EQ(world.learnt.size(), 1000U) << "all ports when it does, the canaries among them";
    }
  }
}

TEST(StunLearner, ServerThatDiesIsNoticedAndItsReturnToo) {
  const std::tuple<u16, Millis, std::size_t> cases[] = {{200, 60s, 180}, {20000, 500ms, 4 * Timing{}.mostUnderWay}};
  for (const auto& [ports, death, most] : cases) {
    World world;
    world.Add(1, ports, 3);
    world.RunUntil(death);
    world.respond = kNever;
    world.RunUntil(death + 10s);
    EXPECT_THAT(world.lines, ElementsAre(HasSubstr("does not answer")));
    world.RunUntil(160s);
    EXPECT_LE(world.mostUnderWay, 256U) << "answers that the receive buffer holds";
    EXPECT_LE(world.Sendings(death), most) << "not a transaction for each port";
    world.respond = kAlways;
    world.learnt.clear();
    world.RunUntil(215s);
    EXPECT_EQ(world.learnt.size(), ports);
    EXPECT_EQ(world.Said("answers again"), 1U);
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

TEST(StunLearner, MappingThatNeverSettlesIsAskedForAtTheNormalRate) {
  const int cases[] = {60000, 16, 4, 2};  // mappings in turn
  for (const int mappings : cases) {
    World world("198.51.100.1", 2);
    world.Add(10000, 10050, 3);
    world.RunUntil(40s);
    const std::size_t normal = world.Sendings(20s);
    world.respond = [mappings, count = 0](u16, auto&) mutable { return Maps(1 + ++count % mappings); };
    world.RunUntil(60s);
    EXPECT_LE(world.Sendings(40s), 2 * normal) << mappings;
    EXPECT_EQ(world.Said("does not settle"), 1U) << mappings;
    for (std::size_t i = 1; i < world.reports.size(); ++i) {
      EXPECT_GE(world.reports[i] - world.reports[i - 1], 1s) << mappings;
    }
    world.respond = [](u16, auto&) { return Maps(61000); };
    world.RunUntil(70s);
    EXPECT_EQ(world.Said("settle again"), 1U) << mappings;
  }
}

TEST(StunLearner, LastMappingSeenTwiceInARowIsTheAnswer) {
  World world("198.51.100.1", 2);
  world.Add(10000, 10000, 3);
  world.Add(10000, 10000, 0);
  std::vector<int> said{1, 1, 2, 1, 3, 4, 5, 6, 6, 7, 8, 7, 7, 9, 7, 7, 7, 7}, answers;
  world.respond = [&, at = 0U](u16, auto&) mutable { return Maps(said[std::min<std::size_t>(at++, said.size() - 1)]); };
  while (world.Time() < 40s) {
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

TEST(StunLearner, ServerThatRefusesIsLeftForTheNext) {
  const std::pair<Reply, const char*> cases[] = {{Refuses(500), "refuses with error 500"},
                                                 {Refuses(400), "refuses with error 400"},
                                                 {Refuses(300), "refers to another server"},
                                                 {kUnusable, "answers without a usable address"}};
  for (const auto& [refusal, text] : cases) {
    for (const u32 ports : {1, 1000}) {
      World world("198.51.100.1,198.51.100.2:3479");
      world.Add(5060, 5060, 1);
      bool isRefusing = false;
      world.respond = [&, &reply = refusal](u16 port, const Endpoint& to) {
        return isRefusing && to == kA ? reply : Maps(port);
      };
      world.RunUntil(1s);
      isRefusing = true;
      world.Add(10000, 9999 + ports, 3);
      world.RunUntil(6s);
      EXPECT_EQ(world.learnt.size(), 1U + ports) << text;
      EXPECT_LE(world.Sendings(1s), 80U) << text;
      EXPECT_THAT(world.lines, ElementsAre(HasSubstr(text)));
    }
  }
}

TEST(StunLearner, SingleRefusalsMeanThePortAlone) {
  World world("198.51.100.1,198.51.100.2:3479", 100);
  world.Add(10000, 10999, 3);
  world.respond = [count = 0](u16 port, auto&) mutable { return ++count % 10 == 0 ? Refuses(500) : Maps(port); };
  world.RunUntil(5s);
  EXPECT_EQ(world.learnt.size(), 1000U);
  EXPECT_LE(world.Sendings(0ms, kB), 3U) << "but for the comparison";
  EXPECT_EQ(world.lines.size(), 1U);
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
  const std::vector<std::string> lines{"\":3478\" cannot be a server: it needs a host and a port",
                                       "\"198.51.100.8:0\" cannot be a server: it needs a host and a port",
                                       "\"198.51.100.8:65536\" cannot be a server: it needs a host and a port",
                                       "\"198.51.100.8:34 78\" cannot be a server: it needs a host and a port",
                                       "0.0.0.0 cannot be a server's address",
                                       "server 198.51.100.9:1 does not answer; known mappings are kept",
                                       "server 198.51.100.2:3479 answers again"};
  EXPECT_EQ(world.lines, lines);
  World none("");
  none.RunUntil(1s);
  EXPECT_EQ(none.Said("there is no server to ask"), 1U);
  std::string many = "198.51.100.1";
  for (int i = 2; i <= 40; ++i) {
    many += ",198.51.100." + std::to_string(i);
  }
  World full(many);
  full.RunUntil(1s);
  EXPECT_EQ(full.learner.Servers().size(), ServerList::kMost);
  EXPECT_THAT(full.lines, ElementsAre("of 40 server addresses only the first 32 are used"));
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
  EXPECT_LE(world.Sendings(0ms, kB), 5U);
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
  EXPECT_EQ(world.lines[0], "these ports cannot be bound (Permission denied): 10002-10003");
  EXPECT_EQ(world.lines[1], "these ports are in use and cannot be learnt without CAP_NET_RAW: 10000");
  EXPECT_THAT(world.lines[2], HasSubstr("does not answer"));
  EXPECT_EQ(world.lines.size(), 3U);
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
