#include "platform/stunutils/learner.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>

namespace stun {
namespace {

// Changes come in bursts: one report for all that are found within this time.
constexpr Millis kSettle{1000};

// How many datagrams are taken before what is due is sent: as many as can be awaited.
constexpr std::size_t kMostArrivals = Schedule::kWindow;

int PollTimeout(TimePoint deadline) {
  if (deadline == TimePoint::max()) {
    return -1;
  }
  const auto left = std::chrono::ceil<Millis>(deadline - std::min(deadline, Clock::now()));
  return static_cast<int>(std::min<Millis::rep>(left.count(), 3'600'000));
}

}  // namespace

Shared::Shared() : schedule(KernelRandom), wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Shared::Wake() const {
  const u64 one = 1;
  // Fails only when the counter is at its end, and then the thread wakes all the same.
  [[maybe_unused]] const ssize_t written = ::write(wake.Get(), &one, sizeof(one));
}

Learner::Learner(Shared& shared, std::unique_ptr<Transport> transport)
    : m_shared(shared),
      m_transport(std::move(transport)),
      m_lookUp([&shared] { shared.Wake(); }),
      m_natCheck(KernelRandom) {}

void Learner::Run() {
  do {
    Wait();
  } while (TakeTurn());
  m_diagnosis.Write();
}

// One round: hear, decide under the lock, send. False when it is to stop.
bool Learner::TakeTurn() {
  Receive();
  TakeSettings();
  const TimePoint now = Clock::now();
  TendServers(now);
  m_turn = {};
  {
    const ScopedLock lock(m_shared.lock);
    if (m_shared.stop) {
      return false;
    }
    if (m_shared.scanWanted.exchange(false)) {
      m_shared.schedule.Scan(now);
    }
    for (const Arrival& arrival : m_arrivals) {
      HeedAnswer(arrival, now);
    }
    ChooseServer();
    if (m_server) {
      m_shared.schedule.Advance(now, m_turn);
      HeedSilence(now);
    }
  }
  Transmit(now);
  Settle(now);
  m_diagnosis.Write();
  ReportChanges();
  return true;
}

void Learner::ChooseServer() {
  const bool isOther = m_servers.Current() != m_server;
  m_server = m_servers.Current();
  if (m_isStartingOver && m_server) {
    m_shared.schedule.Restart();
    m_isStartingOver = false;
  } else if (isOther) {
    m_shared.schedule.ServerChanged(m_servers.IsUntried());
  }
}

void Learner::Wait() {
  std::array<pollfd, 2> waiting{pollfd{m_shared.wake.Get(), POLLIN, 0}, pollfd{m_transport->PollFd(), POLLIN, 0}};
  ::poll(waiting.data(), waiting.size(), PollTimeout(m_deadline));
  if (waiting[0].revents != 0) {
    u64 count = 0;
    [[maybe_unused]] const ssize_t read = ::read(m_shared.wake.Get(), &count, sizeof(count));
  }
}

void Learner::Receive() {
  m_arrivals.clear();
  Datagram datagram;
  for (std::size_t i = 0; i < kMostArrivals && m_transport->Receive(datagram); ++i) {
    if (const auto answer = ParseAnswer(datagram.payload)) {
      m_arrivals.push_back({datagram.localPort, datagram.source, *answer});
    }
  }
}

void Learner::TakeSettings() {
  Settings settings;
  {
    const ScopedLock lock(m_shared.lock);
    if (m_settingsVersion == m_shared.settingsVersion) {
      return;
    }
    m_settingsVersion = m_shared.settingsVersion;
    settings = m_shared.settings;
    m_timing = MakeTiming(settings, m_transport->TakesPorts());
    m_shared.schedule.SetTiming(m_timing, Clock::now());
  }
  if (!m_servers.Configure(settings.servers)) {
    return;
  }
  if (m_servers.IsEmpty()) {
    m_diagnosis.NoServer();
  }
  m_transport->ListenTo(m_servers.All());
  m_natCheck.Reset();
  m_isStartingOver = true;
}

void Learner::TendServers(TimePoint now) {
  if (const auto found = m_lookUp.Take()) {
    m_servers.LookedUp(*found, now);
    m_transport->ListenTo(m_servers.All());
  }
  auto names = m_servers.NamesToLookUp(now);
  if (!names.empty()) {
    m_lookUp.Begin(std::move(names));
  }
}

void Learner::HeedAnswer(const Arrival& arrival, TimePoint now) {
  if (m_natCheck.Answered(arrival.port, arrival.source, arrival.answer.id)) {
    HeedComparison(arrival);
  } else if (m_server && arrival.source == *m_server && m_shared.schedule.IsAwaited(arrival.port, arrival.answer.id)) {
    if (arrival.answer.kind == Answer::Kind::MAPPED) {
      HeedMapping(arrival, now);
    } else {
      HeedRefusal(arrival, now);
    }
  }
}

void Learner::HeedMapping(const Arrival& arrival, TimePoint now) {
  m_servers.Heard();
  m_diagnosis.Mapped(arrival.port, *m_server);
  if (m_shared.table.Tell(arrival.port, arrival.answer.mapped, *m_server) == PortTable::Told::DOUBTFUL) {
    m_shared.schedule.Answered(arrival.port, Schedule::Outcome::CHECK_AGAIN, now);
    m_shared.schedule.Scan(now);  // what changed one port's mapping has likely changed others
    return;
  }
  m_shared.schedule.Answered(arrival.port, Schedule::Outcome::LEARNT, now);
  const auto second = m_servers.Second();
  if (second && !m_natCheck.IsDone()) {
    m_natCheck.Begin(arrival.port, *second, now);
  }
}

void Learner::HeedRefusal(const Arrival& arrival, TimePoint now) {
  const u16 code = arrival.answer.errorCode;
  const bool isCanary = !m_shared.schedule.IsServerHeard();
  m_diagnosis.Refused(*m_server, arrival.answer);
  m_shared.schedule.Answered(arrival.port,
                             code / 100 == 5 ? Schedule::Outcome::REFUSED_FOR_NOW : Schedule::Outcome::REFUSED, now);
  if (isCanary) {
    m_servers.Next();
  }
}

void Learner::HeedComparison(const Arrival& arrival) {
  const auto known = m_shared.table.Find(arrival.port);
  m_turn.ended.push_back(arrival.port);
  if (arrival.answer.kind == Answer::Kind::MAPPED && known.mapped.Known() && known.server != arrival.source &&
      known.mapped != arrival.answer.mapped) {
    m_diagnosis.Differs(arrival.port, known.mapped, known.server, arrival.answer.mapped, arrival.source);
  }
}

void Learner::HeedSilence(TimePoint now) {
  if (m_turn.silence == Schedule::Silence::NONE) {
    return;
  }
  m_diagnosis.Silent(*m_server);
  const bool isGivenUp = m_turn.silence == Schedule::Silence::GIVEN_UP;
  if (isGivenUp) {
    m_servers.Refresh(now);
  }
  if (isGivenUp || m_servers.HasUntried()) {
    m_servers.Next();  // asked in the next turn
  }
}

void Learner::Transmit(TimePoint now) {
  for (const u16 port : m_turn.ended) {
    m_transport->Release(port);
  }
  m_refused.clear();
  for (const Schedule::Order& order : m_turn.sends) {
    if (m_transport->Send(order.port, *m_server, BindingRequest(order.id)) == Transport::Sent::UNAVAILABLE) {
      m_refused.push_back(order.port);
    }
  }
  const bool wasComparing = m_natCheck.IsUnderWay();
  if (const auto order = m_natCheck.Advance(now, m_timing.rto)) {
    m_transport->Send(order->port, m_natCheck.Server(), BindingRequest(order->id));
  } else if (wasComparing && !m_natCheck.IsUnderWay()) {
    m_transport->Release(m_natCheck.Port());
  }
  const int error = m_transport->TakeError();
  if (error != 0) {
    m_diagnosis.SendFailed(error);
  }
}

// Takes stock after a turn: what could not be asked for, what has settled, and when to look again.
void Learner::Settle(TimePoint now) {
  const ScopedLock lock(m_shared.lock);
  for (const u16 port : m_refused) {
    m_shared.schedule.Unavailable(port, now);
    m_diagnosis.Unavailable(port, now);
  }
  if (m_shared.table.HasChanges()) {
    m_changedSince = m_changedSince.value_or(now);
  }
  const bool isIdle = m_shared.schedule.IsIdle();
  m_diagnosis.TellUnavailable(now, isIdle);
  m_isReportDue = m_changedSince && (isIdle || now - *m_changedSince >= kSettle);

  m_deadline = std::min({m_servers.NextDeadline(), m_natCheck.NextDeadline(), m_diagnosis.NextDeadline()});
  if (m_server != m_servers.Current()) {
    m_deadline = TimePoint::min();
  } else if (m_server) {
    m_deadline = std::min(m_deadline, m_shared.schedule.NextDeadline());
  }
  if (m_changedSince) {
    m_deadline = std::min(m_deadline, *m_changedSince + kSettle);
  }
}

void Learner::ReportChanges() {
  if (!m_isReportDue) {
    return;
  }
  StunManager::ChangedPortsCallback callback = nullptr;
  void* context = nullptr;
  std::list<std::pair<u16, u16>> changes;
  {
    const ScopedLock lock(m_shared.lock);
    if (m_shared.stop) {
      return;
    }
    changes = m_shared.table.TakeChanges();
    callback = m_shared.callback;
    context = m_shared.context;
  }
  m_changedSince.reset();
  if (callback != nullptr && !changes.empty()) {
    callback(context, changes);
  }
}

}  // namespace stun
