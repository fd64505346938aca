#include "platform/stunutils/schedule.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <tuple>

namespace stun {
namespace {

using namespace std::chrono_literals;
using Outcome = Schedule::Outcome;
using Silence = Schedule::Silence;
using Respond = std::function<std::optional<Outcome>(u16)>;
const Respond kAlways = [](u16) { return Outcome::LEARNT; };
const Respond kNever = [](u16) { return std::nullopt; };

// A server and a network behind a schedule, with a clock that goes from one event to the next.
struct World {
  static constexpr Millis kRtt{20};
  static constexpr TimePoint kStart{100h};

  std::mt19937 random{1};
  Schedule schedule{[this] { return static_cast<u32>(random()); }};
  TimePoint now = kStart;
  Respond respond = kAlways;  // what becomes of a request from the port: an answer, or nothing
  std::multimap<TimePoint, std::pair<Schedule::Order, Outcome>> replies;

  std::vector<std::pair<Millis, u16>> sendings;
  std::vector<std::pair<Millis, Silence>> silences;
  std::set<u16> answered;
  std::size_t mostInFlight = 0;

  World(u16 first, u16 last, Respond response) : respond(std::move(response)) { AddRange(first, last, false); }

  void AddRange(u16 first, u16 last, bool isUrgent) {
    for (u32 port = first; port <= last; ++port) {
      schedule.Add(static_cast<u16>(port), isUrgent);
    }
  }
  std::size_t SendingsSince(Millis from) const {
    const auto isSince = [from](const auto& sending) { return sending.first >= from; };
    return static_cast<std::size_t>(std::count_if(sendings.begin(), sendings.end(), isSince));
  }

  void RunUntil(Millis until) {
    const TimePoint end = kStart + until;
    for (int turns = 0; turns < 10'000'000; ++turns) {
      TakeTurn(std::chrono::duration_cast<Millis>(now - kStart));
      const TimePoint next = std::min(schedule.NextDeadline(), replies.empty() ? end + 1ms : replies.begin()->first);
      now = std::clamp(next, now, end);
      if (next > end) {
        return;
      }
    }
    FAIL() << "the schedule never comes to rest";
  }
  void TakeTurn(Millis time) {
    for (; !replies.empty() && replies.begin()->first <= now; replies.erase(replies.begin())) {
      const auto& [order, outcome] = replies.begin()->second;
      if (schedule.IsAwaited(order.port, order.id)) {
        schedule.Answered(order.port, outcome, now);
        answered.insert(order.port);
      }
    }
    Schedule::Turn turn;
    schedule.Advance(now, turn);
    for (const auto& order : turn.sends) {
      sendings.emplace_back(time, order.port);
      if (const auto outcome = respond(order.port)) {
        replies.emplace(now + kRtt, std::pair(order, *outcome));
      }
    }
    if (turn.silence != Silence::NONE) {
      silences.emplace_back(time, turn.silence);
    }
    mostInFlight = std::max(mostInFlight, schedule.InFlight());
  }
};

TEST(StunSchedule, RequestIsSentAgainAsRfc8489Says) {
  World world(5060, 5060, kNever);
  world.RunUntil(39500ms);
  const std::vector<std::pair<Millis, u16>> sendings{{0ms, 5060},    {500ms, 5060},   {1500ms, 5060}, {3500ms, 5060},
                                                     {7500ms, 5060}, {15500ms, 5060}, {31500ms, 5060}};
  EXPECT_EQ(world.sendings, sendings);
  const std::vector<std::pair<Millis, Silence>> silences{{3500ms, Silence::DOUBTED}, {39500ms, Silence::GIVEN_UP}};
  EXPECT_EQ(world.silences, silences);
}

TEST(StunSchedule, OneCanaryGoesFirstThenUrgentPortsThenTheRestInAWindow) {
  std::mt19937 dice(7);  // a loss of 5 % each way
  World world(10000, 10999, [&dice](u16 port) { return dice() % 10000 < 975 ? kNever(port) : kAlways(port); });
  world.AddRange(20000, 20099, true);
  world.RunUntil(World::kRtt - 1ms);
  ASSERT_EQ(world.sendings.size(), 1U);
  world.RunUntil(1600ms);
  EXPECT_GE(world.answered.size(), 1089U) << "within two retransmissions, which make room for others";
  EXPECT_GE(world.mostInFlight, Schedule::kWindow);
  for (std::size_t i = 0; i < 100; ++i) {
    EXPECT_GE(world.sendings[i].second, 20000) << i;
  }
}

TEST(StunSchedule, DeadServerCostsOneTransactionAtATimeOnChangingPorts) {
  for (const auto outcome : {std::optional<Outcome>(), std::optional(Outcome::REFUSED)}) {
    World world(10000, 10999, [outcome](u16) { return outcome; });
    world.RunUntil(120s);
    EXPECT_EQ(world.mostInFlight, 1U);
    EXPECT_LE(world.sendings.size(), 25U);
    EXPECT_NE(world.sendings.back().second, 10000);
    world.respond = kAlways;
    world.answered.clear();
    world.RunUntil(140s);
    EXPECT_EQ(world.answered.size(), 1000U) << "all ports when the server is back, the canaries among them";
  }
}

TEST(StunSchedule, ServerThatDiesIsNoticedAndItsReturnToo) {
  const std::tuple<u16, Millis, std::size_t> cases[] = {{200, 60s, 150}, {65535, 500ms, 4 * Timing{}.mostUnderWay}};
  for (const auto& [ports, death, most] : cases) {
    World world(1, ports, kAlways);
    world.RunUntil(death);
    world.respond = kNever;
    world.RunUntil(160s);
    EXPECT_LE(world.mostInFlight, Timing{}.mostUnderWay) << "answers that the receive buffer holds";
    ASSERT_FALSE(world.silences.empty());
    EXPECT_LE(world.silences[0].first, death + 10s);
    EXPECT_LE(world.SendingsSince(death), most) << "not a transaction for each port";
    EXPECT_FALSE(world.schedule.IsServerHeard());
    world.respond = kAlways;
    world.answered.clear();
    world.RunUntil(205s);
    EXPECT_EQ(world.answered.size(), ports);
  }
}

TEST(StunSchedule, PortThatIsSilentByItselfDoesNotSpeakOfTheServer) {
  for (const u16 others : {1, 100}) {
    World world(10001, 10000 + others, [](u16 port) { return port == 5060 ? kNever(port) : kAlways(port); });
    world.AddRange(5060, 5060, true);
    world.RunUntil(60s);
    const auto silencesAtFirst = world.silences.size();  // while it was the canary
    world.RunUntil(260s);
    EXPECT_EQ(world.answered.size(), others);
    EXPECT_EQ(world.silences.size(), silencesAtFirst) << others;
    EXPECT_LE(world.SendingsSince(60s), 10U * others + 80U) << others;
  }
}

TEST(StunSchedule, PortsAreAskedForAgainOnceAPeriodSpreadOverIt) {
  World world(10000, 10999, kAlways);
  world.schedule.SetTiming({.period = 24h}, world.now);
  world.RunUntil(400ms);
  world.schedule.SetTiming({.period = 25s}, world.now);  // also for those that wait already
  world.mostInFlight = 0;
  world.RunUntil(300s);
  EXPECT_LT(world.mostInFlight, 10U);
  std::map<u16, Millis> last;
  std::map<Millis::rep, int> perSecond;
  for (const auto& [at, port] : world.sendings) {
    EXPECT_LE(at - last[port], 30s) << port << ": the NAT would forget it";
    EXPECT_TRUE(at < 35s || at - last[port] >= 20s) << port;
    EXPECT_TRUE(at < 1s || ++perSecond[at.count() / 1000] <= 80) << at.count();
    last[port] = at;
  }
}

TEST(StunSchedule, StormOfScansIsOneProbeWhichIsPutOffNotForgotten) {
  World world(10000, 10000, kAlways);
  for (Millis time = 30ms; time < 1s; ++time) {
    world.RunUntil(time);
    world.schedule.Scan(world.now);
  }
  EXPECT_EQ(world.sendings.size(), 1U);
  world.RunUntil(2600ms);
  EXPECT_EQ(world.sendings.size(), 2U);
}

TEST(StunSchedule, ScanNudgesTheCanaryOfASilentServer) {
  World world(5060, 5060, kNever);
  world.RunUntil(20s);
  world.schedule.Scan(world.now);
  world.RunUntil(21s);
  EXPECT_EQ(world.sendings.back().first, 20s) << "without waiting for the last retransmission at 31.5 s";
}

TEST(StunSchedule, PortIsAskedForAgainSoonOnlyWhenThatMayHelp) {
  constexpr auto kForNow = Outcome::REFUSED_FOR_NOW;
  const std::pair<std::vector<Outcome>, Millis> cases[] = {{{Outcome::LEARNT}, 0ms},
                                                           {{Outcome::REFUSED}, 0ms},
                                                           {{Outcome::CHECK_AGAIN, Outcome::LEARNT}, 20ms},
                                                           {{kForNow, kForNow, kForNow, kForNow}, 7060ms}};
  for (const auto& [outcomes, last] : cases) {
    World world(5060, 5060, kAlways);
    world.schedule.SetTiming({.period = 1000s}, world.now);
    world.RunUntil(100ms);
    world.respond = [&outcomes = outcomes, i = 0U](u16) mutable { return outcomes.at(i++); };
    world.AddRange(10000, 10000, false);
    world.RunUntil(50s);
    EXPECT_EQ(world.sendings.size(), 1 + outcomes.size());
    EXPECT_EQ(world.sendings.back().first, 100ms + last);
  }
}

TEST(StunSchedule, PortThatIsTakenAwayIsNotAwaitedAnyMore) {
  World world(5060, 5060, kNever);
  Schedule::Turn first, second;
  world.schedule.Advance(world.now, first);
  EXPECT_TRUE(world.schedule.IsAwaited(5060, first.sends.at(0).id));
  EXPECT_FALSE(world.schedule.IsAwaited(5060, TransactionId{}));
  world.schedule.Remove(5060);
  EXPECT_FALSE(world.schedule.IsAwaited(5060, first.sends.at(0).id));
  world.AddRange(5060, 5060, false);
  world.schedule.Advance(world.now, second);
  EXPECT_EQ(second.ended, std::vector<u16>{5060}) << "of the transaction before";
  EXPECT_EQ(second.sends.size(), 1U);
}

TEST(StunSchedule, SettingsOutOfReasonAreBroughtIntoIt) {
  const std::tuple<u32, u32, u32, Millis, u32, Millis> cases[] = {
      {0, 0, 0, 25s, 7, 500ms}, {10, 3, 100, 10s, 3, 100ms}, {1, 1, 1, 1s, 1, 10ms}, {~0U, ~0U, ~0U, 24h, 16, 60s}};
  for (const auto& [givenPeriod, givenSends, givenRto, period, sends, rto] : cases) {
    const Timing timing = MakeTiming({{}, givenPeriod, givenSends, givenRto}, false);
    EXPECT_EQ(std::tuple(timing.period, timing.sends, timing.rto), std::tuple(period, sends, rto));
  }
  EXPECT_LE(MakeTiming({}, true).sends, 3U) << "a port is not kept from its owner for half a minute";
}

}  // namespace
}  // namespace stun
