#pragma once

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "platform/stunutils/learner.h"

namespace stun {

using namespace std::chrono_literals;

inline const Endpoint kA{::inet_addr("198.51.100.1"), 3478};
inline const Endpoint kB{::inet_addr("198.51.100.2"), 3479};

// What a server says of a port: nothing at all, its mapping, that it refuses.
using Reply = std::optional<Answer>;
inline Reply Nothing() { return std::nullopt; }
inline Reply Maps(int port) {
  return Answer{Answer::Kind::MAPPED, {}, {::inet_addr("203.0.113.2"), static_cast<u16>(port)}, 0};
}
inline Reply Refuses(u16 code) { return Answer{Answer::Kind::REFUSED, {}, {}, code}; }

// Scripted servers and a network around a learner, with a clock that goes from one event to the next. Server A is
// 198.51.100.1:3478, B is 198.51.100.2:3479.
struct World {
  struct Sending {
    Millis at;
    u16 port;
    Endpoint server;
  };

  std::mt19937 random{1};
  Learner learner{[this] { return static_cast<u32>(random()); }};
  TimePoint now{100h};
  std::function<Reply(u16 port, const Endpoint& server)> respond = [](u16 port, auto&) { return Maps(port); };
  std::function<int(u16 port)> unusable = [](u16) { return 0; };  // why a port cannot be used
  std::function<std::vector<u32>()> lookUp = [] { return std::vector<u32>(); };
  int networkError = 0;  // of each sending

  std::vector<Sending> sendings;
  std::map<u16, Millis> learnt;  // when a mapping was first known
  std::vector<std::string> lines;
  std::vector<Millis> reports;
  std::vector<std::pair<u16, u16>> changes;
  std::size_t mostUnderWay = 0;

  explicit World(const std::string& servers = "198.51.100.1", u32 period = 25, bool takesPorts = false) {
    learner.Configure({{{servers, "3478"}}, period, 0, 0}, now);
    learner.Begin(takesPorts, true, now);
  }

  Millis Time() const { return std::chrono::duration_cast<Millis>(now - TimePoint{100h}); }
  // Owner 1 is the SIP user agent, others have media ports.
  void Add(u32 first, u32 last, u8 owner) {
    for (u32 port = first; port <= last; ++port) {
      learner.AddPort(static_cast<u16>(port), owner, owner != 1);
    }
  }
  std::size_t Sendings(Millis from = 0ms, Endpoint server = kA) const {
    const auto isMeant = [&](const Sending& each) { return each.server == server && each.at >= from; };
    return static_cast<std::size_t>(std::count_if(sendings.begin(), sendings.end(), isMeant));
  }
  std::size_t Said(const std::string& text) const {
    const auto holds = [&](const std::string& line) { return line.find(text) != std::string::npos; };
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), holds));
  }
  // A port by requests to one server.
  Millis LongestHeld() const {
    Millis longest = m_longestHeld;
    for (const auto& [port, held] : m_held) {
      longest = std::max(longest, Time() - held.second);
    }
    return longest;
  }
  u16 PublicPort(u16 port) const { return learner.Find(port).Mapped().port; }

  void RunUntil(Millis until) {
    const TimePoint end = TimePoint{100h} + until;
    for (int turns = 0; turns < 1'000'000; ++turns) {
      TakeTurn();
      const TimePoint next =
          std::min(learner.NextDeadline(), m_arrivals.empty() ? TimePoint::max() : m_arrivals.begin()->first);
      now = std::clamp(next, now, end);
      if (next > end) {
        return;
      }
    }
    FAIL() << "the learner never comes to rest";
  }
  void Restart() {
    learner.Begin(false, false, now);
    RunUntil(Time() + 20s);
  }
  void RunWithScans(Millis until, Millis apart) {
    for (Millis time = Time() + apart; time < until; time += apart) {
      RunUntil(time);
      learner.Scan(now);
    }
    RunUntil(until);
  }

 private:
  void TakeTurn() {
    for (; !m_arrivals.empty() && m_arrivals.begin()->first <= now; m_arrivals.erase(m_arrivals.begin())) {
      const Arrival& arrival = m_arrivals.begin()->second;
      learner.Handle(arrival, now);
      if (PublicPort(arrival.port) != 0) {
        learnt.emplace(arrival.port, Time());
      }
    }
    const Learner::Turn turn = learner.Advance(now);
    for (const u16 port : turn.ended) {
      const auto held = m_held.find(port);
      if (held != m_held.end()) {
        m_longestHeld = std::max(m_longestHeld, Time() - held->second.second);
        m_held.erase(held);
      }
    }
    for (const Order& order : turn.sends) {
      Send(order);
    }
    for (const std::string& name : turn.names) {
      learner.LookedUp({{name, lookUp()}}, now);
    }
    mostUnderWay = std::max(mostUnderWay, m_held.size());
    for (const auto& change : learner.TakeChanges(now)) {
      changes.push_back(change);
      if (reports.empty() || reports.back() != Time()) {
        reports.push_back(Time());
      }
    }
    for (auto& line : learner.TakeLines(now)) {
      lines.push_back(std::move(line));
    }
  }
  void Send(const Order& order) {
    if (const int error = unusable(order.port)) {
      learner.Unavailable(order.port, error, now);
      return;
    }
    sendings.push_back({Time(), order.port, order.server});
    const auto held = m_held.try_emplace(order.port, order.server, Time()).first;
    EXPECT_EQ(held->second.first, order.server) << order.port << " is used for two servers at once";
    if (networkError != 0) {
      learner.SendFailed(networkError, now);
    } else if (Reply reply = respond(order.port, order.server)) {
      reply->id = order.id;
      m_arrivals.emplace(now + 20ms, Arrival{order.port, order.server, *reply});
    }
  }

  std::multimap<TimePoint, Arrival> m_arrivals;
  std::map<u16, std::pair<Endpoint, Millis>> m_held;  // by requests under way
  Millis m_longestHeld{0};
};

}  // namespace stun
