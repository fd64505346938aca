#include "platform/stunutils/learner.h"

#include <algorithm>
#include <system_error>

namespace stun {
namespace {

// Changes come in bursts: one report for all that are found within this time, and none sooner after the last.
constexpr Millis kSettle{1000};

constexpr std::size_t kSpread = 4;
constexpr Millis kSpreading{2000};  // within it no port is asked twice

}  // namespace

void Learner::AddPort(u16 port, u8 owner, bool isMedia) {
  m_table.Add(port, owner, isMedia);
  try {
    m_schedule.Add(port, m_table.IsSignalling(port));
  } catch (...) {
    m_table.Remove(port);
    throw;
  }
}

void Learner::RemovePort(u16 port) {
  m_table.Remove(port);
  if (m_table.Has(port)) {
    m_schedule.Add(port, m_table.IsSignalling(port));
    return;
  }
  m_schedule.Remove(port);
  if (m_natCheck.IsUnderWay() && m_natCheck.Port() == port) {
    EndComparison(TimePoint{});
  }
}

std::optional<Endpoint> Learner::Before(u16 port) const {
  const auto found = m_table.FindFrom(port);
  return found && found->port == port && found->before.Known() ? std::optional(found->before) : std::nullopt;
}

bool Learner::Describe(u32 port, StunPort& description, TimePoint now) const {
  const auto found = m_table.FindFrom(port);
  if (!found) {
    return false;
  }
  const auto ms = [](Clock::duration span) { return std::chrono::duration_cast<Millis>(span).count(); };
  const auto [state, turn] = m_schedule.StateOf(found->port);
  description.port = found->port;
  description.isMedia = found->isMedia;
  description.isUnsettled = found->mapping.IsUnsettled();
  description.mappedIp = found->mapping.Mapped().address;
  description.mappedPort = found->mapping.Mapped().port;
  description.serverIp = found->mapping.Server().address;
  description.serverPort = found->mapping.Server().port;
  description.ageMs = found->heard == TimePoint{} ? -1 : ms(now - found->heard);
  description.nextMs = state == PortState::RESTING ? ms(std::max(turn - now, Clock::duration::zero()))
                       : state == PortState::DUE   ? 0
                                                   : -1;
  return true;
}

void Learner::RemoveAllPorts() {
  m_table.Clear();
  m_schedule.Clear();
  if (m_natCheck.IsUnderWay()) {
    EndComparison(TimePoint{});
  }
}

void Learner::Begin(bool takesPorts, bool isElsewhere, TimePoint now) {
  if (isElsewhere) {
    m_table.Forget();
  }
  m_takesPorts = takesPorts;
  m_timing = MakeTiming(m_settings, takesPorts);
  m_schedule.SetTiming(m_timing, now);
  m_diagnosis.SetPeriod(m_timing.period);
  m_servers.Restart();
  if (m_table.HasChanges()) {
    m_changedSince = m_changedSince.value_or(now);
  }
  StartOver(now);
}

void Learner::Configure(const Settings& settings, TimePoint now) {
  m_settings = settings;
  m_timing = MakeTiming(settings, m_takesPorts);
  m_schedule.SetTiming(m_timing, now);
  m_diagnosis.SetPeriod(m_timing.period);
  if (!m_servers.Configure(settings.servers)) {
    return;
  }
  m_diagnosis.Configured(m_servers.All());
  if (m_servers.IsEmpty()) {
    m_diagnosis.Problem("there is no server to ask", now);
  }
  StartOver(now);
}

void Learner::StartOver(TimePoint now) {
  if (m_natCheck.IsUnderWay()) {
    EndComparison(now);
  }
  m_natCheck.Reset();
  m_server = m_servers.Current();
  m_schedule.Restart(now);
  m_areServersNew = true;
}

void Learner::LookedUp(const ServerList::Addresses& found, TimePoint now) {
  m_servers.LookedUp(found, now);
  m_areServersNew = true;
}

Learner::Turn Learner::Advance(TimePoint now) {
  Turn turn;
  turn.areServersNew = std::exchange(m_areServersNew, false);
  turn.names = m_servers.NamesToLookUp(now);
  FollowAdvice(now);
  ChooseServer(now);
  if (m_natCheck.GiveUp(now)) {
    EndComparison(now);
  }
  std::vector<Order> sends;
  if (m_server) {
    sends = m_schedule.Advance(now);
    FollowAdvice(now);
  }
  turn.ended = m_schedule.TakeEnded();
  turn.ended.insert(turn.ended.end(), m_ended.begin(), m_ended.end());
  m_ended.clear();
  if (m_servers.Current() == m_server) {  // else they are put back in the next turn
    turn.sends = std::move(sends);
  }
  for (Order& order : turn.sends) {
    order.server = *m_server;
  }
  if (const auto order = m_natCheck.Advance(now, m_timing.rto)) {
    turn.sends.push_back(*order);
  }
  return turn;
}

void Learner::ChooseServer(TimePoint now) {
  if (m_servers.Current() != m_server) {
    m_server = m_servers.Current();
    m_schedule.SwitchServer(m_servers.IsUntried(), now);
  }
}

// The server is asked from the next turn on.
void Learner::FollowAdvice(TimePoint now) {
  const ServerAction advice = m_schedule.TakeAdvice();
  if (advice == ServerAction::NOTHING || !m_server) {
    return;
  }
  if (advice != ServerAction::LEAVE) {
    m_diagnosis.Silent(*m_server);
  }
  if (advice == ServerAction::GIVE_UP) {
    m_servers.Refresh(now);
  }
  if (advice != ServerAction::TELL || m_servers.HasUntried()) {
    m_servers.Next();
  }
}

void Learner::Handle(const Arrival& arrival, TimePoint now) {
  if (m_natCheck.IsAwaited(arrival.port, arrival.source, arrival.answer.id)) {
    HandleComparison(arrival, now);
  } else if (arrival.source != m_server || !m_schedule.IsAwaited(arrival.port, arrival.answer.id)) {
    return;
  } else if (arrival.answer.kind == Answer::Kind::MAPPED) {
    HandleMapping(arrival, now);
  } else {
    m_diagnosis.Refused(*m_server, arrival.answer, now);
    m_schedule.Refused(arrival.port, now);
  }
}

void Learner::HandleMapping(const Arrival& arrival, TimePoint now) {
  m_servers.Heard();
  m_diagnosis.Mapped(arrival.port, *m_server, now);
  const Mapping::News news = m_table.Observe(arrival.port, arrival.answer.mapped, *m_server);
  m_table.SetHeard(arrival.port, now);
  m_diagnosis.Unsettled(m_table.Unsettled(), now);
  m_schedule.Mapped(arrival.port, news == Mapping::News::DOUBTFUL, now);
  if (news == Mapping::News::CHANGED) {
    m_changedSince = m_changedSince.value_or(now);
  }
  if (m_table.Find(arrival.port).IsRestless()) {
    return;
  }
  if (news == Mapping::News::NONE) {
    BeginComparison(arrival.port, now);
  } else if (news == Mapping::News::CHANGED) {
    m_natCheck.Doubt();
    SpreadDoubt(now);
  }
}

// What changed one port's mapping has likely changed others. For each change a few ports more are asked, and those that
// have changed too bring more in turn: so all are found soon, and a change of one port alone costs little.
void Learner::SpreadDoubt(TimePoint now) {
  if (now >= m_doubtSince + kSpreading) {
    m_doubtSince = now;
  }
  m_schedule.PromptNext(kSpread, m_doubtSince, now);
}

void Learner::BeginComparison(u16 port, TimePoint now) {
  const auto second = m_servers.Second(m_natCheck.Silences());
  if (second && m_natCheck.IsDue(now) && m_schedule.Lend(port, now)) {
    m_natCheck.Begin(port, m_table.Find(port).Mapped(), *second, now);
  }
}

void Learner::HandleComparison(const Arrival& arrival, TimePoint now) {
  EndComparison(now);
  if (m_natCheck.Answered(arrival.answer, now)) {
    m_diagnosis.NatMaps(m_natCheck.Conclusion(), m_natCheck.Mapped(), m_table.Find(arrival.port).Server(), arrival);
  }
}

void Learner::EndComparison(TimePoint now) {
  m_ended.push_back(m_natCheck.Port());
  m_natCheck.Cancel();
  m_schedule.Return(m_natCheck.Port(), now);
}

void Learner::Unavailable(u16 port, int error, TimePoint now) {
  if (m_natCheck.IsUnderWay() && m_natCheck.Port() == port) {
    EndComparison(now);
  } else {
    m_schedule.Unavailable(port, now);
  }
  m_diagnosis.Unavailable(port, error, now);
}

void Learner::SendFailed(int error, TimePoint now) {
  m_diagnosis.Problem("cannot send: " + std::generic_category().message(error), now);
}

bool Learner::IsReportDue(TimePoint now) const {
  return m_changedSince && now >= m_lastReport + kSettle && (m_schedule.IsIdle() || now >= *m_changedSince + kSettle);
}

std::list<std::pair<u16, u16>> Learner::TakeChanges(TimePoint now) {
  if (!IsReportDue(now)) {
    return {};
  }
  auto changes = m_table.TakeChanges();
  m_changedSince.reset();
  m_lastReport = now;
  return changes;
}

std::vector<std::string> Learner::TakeLines(TimePoint now) {
  m_diagnosis.ReportUnavailable(now, m_schedule.IsIdle());
  return m_diagnosis.TakeLines();
}

TimePoint Learner::NextDeadline() const {
  TimePoint next = std::min({m_servers.NextDeadline(), m_natCheck.NextDeadline(), m_diagnosis.NextDeadline()});
  if (m_server != m_servers.Current() || !m_ended.empty() || m_schedule.HasEnded()) {
    next = TimePoint::min();
  } else if (m_server) {
    next = std::min(next, m_schedule.NextDeadline());
  }
  return m_changedSince ? std::min(next, std::max(*m_changedSince, m_lastReport) + kSettle) : next;
}

}  // namespace stun
