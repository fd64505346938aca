#include "platform/stunutils/worker.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "platform/stunutils/diagnostics.h"

namespace stun {
namespace {

// How many datagrams are taken before what is due is sent: as many as can be awaited.
constexpr std::size_t kMostArrivals = Schedule::kWindow;
constexpr Millis kRest{200};

int PollTimeout(TimePoint deadline) {
  if (deadline == TimePoint::max()) {
    return -1;
  }
  const auto left = std::chrono::ceil<Millis>(deadline - std::min(deadline, Clock::now()));
  return static_cast<int>(std::min<Millis::rep>(left.count(), 3'600'000));
}

}  // namespace

Shared::Shared() : learner(KernelRandom), wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake) {
    throw std::system_error(errno, std::generic_category(), "STUN has no eventfd");
  }
}

void Shared::Wake() const {
  const u64 one = 1;
  // Fails only when the counter is at its end, and then the thread wakes all the same.
  [[maybe_unused]] const ssize_t written = ::write(wake.Get(), &one, sizeof(one));
}

void Shared::TakeWake() const {
  u64 count = 0;
  // Fails when nobody has woken the thread.
  [[maybe_unused]] const ssize_t taken = ::read(wake.Get(), &count, sizeof(count));
}

bool Shared::IsStopping() {
  const ScopedLock guard(lock);
  return stop;
}

Worker::Worker(Shared& shared, std::unique_ptr<Transport> transport)
    : m_shared(shared), m_transport(std::move(transport)), m_lookUp([&shared] { shared.Wake(); }) {}

void Worker::Run() {
  bool goesOn = true;
  bool isWhole = true;  // what the last turn took from the learner has been done
  while (goesOn) {
    try {
      if (!isWhole) {
        BeginAnew();
        isWhole = true;
      }
      Wait();
      Receive();
      const bool isStopping = !TakeTurn();
      goesOn = Report() && !isStopping;
    } catch (...) {
      Notice("out of memory: a turn is given up");
      isWhole = false;
      goesOn = Rest();
    }
  }
}

// What a turn that was given up has lost is decided again.
void Worker::BeginAnew() {
  m_transport->ReleaseAll();
  m_unavailable.clear();
  m_deadline = TimePoint::min();
  const ScopedLock lock(m_shared.lock);
  m_shared.learner.Begin(m_transport->TakesPorts(), false, Clock::now());
}

// For a while, so that a turn that fails does not fail over and over; a stop ends it. False then.
bool Worker::Rest() {
  const TimePoint end = Clock::now() + kRest;
  while (!m_shared.IsStopping() && Clock::now() < end) {
    pollfd wake{m_shared.wake.Get(), POLLIN, 0};
    ::poll(&wake, 1, PollTimeout(end));
    m_shared.TakeWake();
  }
  return !m_shared.IsStopping();
}

void Worker::Wait() {
  std::array<pollfd, 2> waiting{pollfd{m_shared.wake.Get(), POLLIN, 0}, pollfd{m_transport->PollFd(), POLLIN, 0}};
  ::poll(waiting.data(), waiting.size(), PollTimeout(m_deadline));
  m_shared.TakeWake();
}

void Worker::Receive() {
  m_arrivals.clear();
  Datagram datagram;
  for (std::size_t i = 0; i < kMostArrivals && m_transport->Receive(datagram); ++i) {
    if (const auto answer = ParseAnswer(datagram.payload)) {
      m_arrivals.push_back({datagram.localPort, datagram.source, *answer});
    }
  }
}

// Decides under the lock, then sends. False when it is to stop.
bool Worker::TakeTurn() {
  const auto found = m_lookUp.Take();
  const TimePoint now = Clock::now();
  Learner::Turn turn;
  std::vector<Endpoint> servers;
  {
    const ScopedLock lock(m_shared.lock);
    if (m_shared.stop) {
      return false;
    }
    Learner& learner = m_shared.learner;
    if (found) {
      learner.LookedUp(*found, now);
    }
    if (m_shared.scanWanted.exchange(false)) {
      learner.Scan(now);
    }
    for (const Arrival& arrival : m_arrivals) {
      learner.Handle(arrival, now);
    }
    turn = learner.Advance(now);
    if (turn.areServersNew) {
      servers = learner.Servers();
    }
  }
  if (turn.areServersNew) {
    m_unfiltered = m_transport->ListenTo(servers);
  }
  if (!turn.names.empty()) {
    m_lookUp.Begin(std::move(turn.names));
  }
  Transmit(turn);
  return true;
}

void Worker::Transmit(const Learner::Turn& turn) {
  for (const u16 port : turn.ended) {
    m_transport->Release(port);
  }
  for (const Order& order : turn.sends) {
    if (const int error = m_transport->Send(order.port, order.server, BindingRequest(order.id))) {
      m_unavailable.emplace_back(order.port, error);
    }
  }
}

// Tells the learner how the sends went, and others what it found. False when it is to stop.
bool Worker::Report() {
  const int error = m_transport->TakeError();
  const TimePoint now = Clock::now();
  std::list<std::pair<u16, u16>> changes;
  StunManager::ChangedPortsCallback callback = nullptr;
  void* context = nullptr;
  bool isStopping = false;
  {
    const ScopedLock lock(m_shared.lock);
    Learner& learner = m_shared.learner;
    for (const auto& [port, reason] : std::exchange(m_unavailable, {})) {
      learner.Unavailable(port, reason, now);
    }
    if (error != 0) {
      learner.SendFailed(error, now);
    }
    if (m_unfiltered != 0) {
      learner.Problem("each datagram to the device is read, as there is no filter: " +
                          std::generic_category().message(m_unfiltered),
                      now);
      m_unfiltered = 0;
    }
    if (m_lines.empty()) {  // else they are of a turn that was given up
      m_lines = learner.TakeLines(now);
    }
    isStopping = m_shared.stop;
    if (!isStopping) {
      changes = learner.TakeChanges(now);
    }
    m_deadline = learner.NextDeadline();
    callback = m_shared.callback;
    context = m_shared.context;
  }
  for (const std::string& line : m_lines) {
    Notice(line);
  }
  m_lines.clear();
  if (callback != nullptr && !changes.empty()) {
    callback(context, changes);
  }
  return !isStopping;
}

}  // namespace stun
