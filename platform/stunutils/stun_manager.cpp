#include "platform/stunutils/stun_manager.h"

#include <cerrno>
#include <system_error>
#include <thread>

#include "platform/stunutils/diagnostics.h"
#include "platform/stunutils/signals.h"
#include "platform/stunutils/worker.h"
#include "platform/vxnetutils/kernel_routes.h"

using stun::Clock;

namespace {

u32 Step(u8 interval) { return interval == 0 ? 1 : interval; }

bool MayNotBeRaw(int error) { return error == EPERM || error == EACCES; }

}  // namespace

struct StunManager::Impl {
  stun::Shared shared;

  // Held through a whole Start or Stop, which therefore never runs under it on the thread that they wait for.
  ThreadMutex control;
  std::thread thread NAT_GUARDED_BY(control);
  bool isToldNotRaw NAT_GUARDED_BY(control) = false;

  u32 localAddress NAT_GUARDED_BY(shared.lock) = 0;
  std::thread::id ownThread NAT_GUARDED_BY(shared.lock);

  bool IsOwnThread() {
    const ScopedLock lock(shared.lock);
    return std::this_thread::get_id() == ownThread;
  }

  void RequestStop() {
    {
      const ScopedLock lock(shared.lock);
      shared.stop = true;
    }
    shared.Wake();
  }

  void EndThread() NAT_REQUIRES(control) {
    if (thread.joinable()) {
      RequestStop();
      thread.join();
    }
  }

  // In the journal, once until it clears.
  void Problem(const std::string& text) {
    std::vector<std::string> lines;
    {
      const ScopedLock lock(shared.lock);
      shared.learner.Problem(text, Clock::now());
      lines = shared.learner.TakeLines(Clock::now());
    }
    for (const std::string& line : lines) {
      stun::Notice(line);
    }
  }

  std::unique_ptr<stun::Transport> OpenTransport(u32 address) NAT_REQUIRES(control) {
    auto transport = stun::OpenRawTransport(address);
    if (transport == nullptr && MayNotBeRaw(errno)) {
      if (!isToldNotRaw) {
        isToldNotRaw = true;
        stun::Notice("without CAP_NET_RAW only ports that nobody uses can be learnt");
      }
      transport = stun::OpenBoundTransport(address);
    }
    if (transport == nullptr) {
      Problem("cannot open sockets on " + stun::AddressText(address) + ": " + std::generic_category().message(errno));
    }
    return transport;
  }

  bool Begin(u32 address, std::unique_ptr<stun::Transport> transport) NAT_REQUIRES(control) {
    try {
      const bool takesPorts = transport->TakesPorts();
      auto worker = std::make_unique<stun::Worker>(shared, std::move(transport));
      {
        const ScopedLock lock(shared.lock);
        shared.stop = false;
        shared.learner.Begin(takesPorts, localAddress != address, Clock::now());
        localAddress = address;
      }
      thread = std::thread([this, worker = std::move(worker)] {
        stun::BlockSignals();
        {
          const ScopedLock lock(shared.lock);
          ownThread = std::this_thread::get_id();
        }
        worker->Run();
        const ScopedLock lock(shared.lock);
        ownThread = {};
      });
      return true;
    } catch (const std::exception& error) {  // no thread, or no memory
      Problem(std::string("cannot start learning: ") + error.what());
      return false;
    }
  }
};

StunManager::StunManager(bool, bool) : m_impl(std::make_unique<Impl>()) {}

StunManager::~StunManager() { Stop(true); }

bool StunManager::Start(bool, bool) {
  if (m_impl->IsOwnThread()) {
    return false;
  }
  const ScopedLock control(m_impl->control);
  Route uplink;
  if (KernelRoutes().FindDefault(uplink) != KernelRoutes::Answer::FOUND || uplink.address == 0) {
    m_impl->Problem("there is no uplink to learn on");
    return false;
  }
  const u32 address = uplink.address;
  auto transport = m_impl->OpenTransport(address);
  if (transport == nullptr) {
    return false;
  }
  m_impl->EndThread();
  return m_impl->Begin(address, std::move(transport));
}

void StunManager::Stop(bool) {
  if (m_impl->IsOwnThread()) {
    m_impl->RequestStop();
    return;
  }
  const ScopedLock control(m_impl->control);
  m_impl->EndThread();
}

void StunManager::AddPorts(u16 start, u16 end, u8 interval, u8 owner, bool isMedia, bool) {
  {
    const ScopedLock lock(m_impl->shared.lock);
    for (u32 each = start; each <= end; each += Step(interval)) {
      if (each != 0) {  // a datagram cannot be answered there
        m_impl->shared.learner.AddPort(static_cast<u16>(each), owner, isMedia);
      }
    }
  }
  m_impl->shared.Wake();
}

void StunManager::RemovePorts(u16 start, u16 end, u8 interval) {
  {
    const ScopedLock lock(m_impl->shared.lock);
    for (u32 each = start; each <= end; each += Step(interval)) {
      m_impl->shared.learner.RemovePort(static_cast<u16>(each));
    }
  }
  m_impl->shared.Wake();
}

void StunManager::RemoveAllPorts() {
  {
    const ScopedLock lock(m_impl->shared.lock);
    m_impl->shared.learner.RemoveAllPorts();
  }
  m_impl->shared.Wake();
}

void StunManager::GetPortResult(u16 port, StunResult& result) {
  result = StunResult{};
  const ScopedLock lock(m_impl->shared.lock);
  if (!m_impl->shared.learner.Has(port)) {
    return;
  }
  const auto known = m_impl->shared.learner.Find(port);
  result.address1 = m_impl->localAddress;
  result.port1 = port;
  result.address2 = known.Mapped().address;
  result.port2 = known.Mapped().port;
  result.address3 = known.Server().address;
  result.port3 = known.Server().port;
}

void StunManager::GetMappingBefore(u16 port, u32& mappedIp, u16& mappedPort) {
  const ScopedLock lock(m_impl->shared.lock);
  const auto before = m_impl->shared.learner.Before(port);
  mappedIp = before ? before->address : 0;
  mappedPort = before ? before->port : u16{0};
}

std::size_t StunManager::ListPorts(u32 from, std::span<StunPort> ports) {
  const stun::TimePoint now = Clock::now();
  const ScopedLock lock(m_impl->shared.lock);
  std::size_t count = 0;
  while (count < ports.size() && m_impl->shared.learner.Describe(from, ports[count], now)) {
    from = ports[count++].port + 1U;
  }
  return count;
}

StunServerState StunManager::GetServer() {
  static_assert(static_cast<int>(StunServerState::State::REFUSING) ==
                static_cast<int>(stun::ServerState::REFUSING) + 1);
  const ScopedLock lock(m_impl->shared.lock);
  const auto [server, state] = m_impl->shared.learner.Server();
  if (!server || m_impl->ownThread == std::thread::id()) {
    return {};
  }
  return {static_cast<StunServerState::State>(static_cast<int>(state) + 1), server->address, server->port};
}

void StunManager::CountPorts(u32& registered, u32& known) {
  const ScopedLock lock(m_impl->shared.lock);
  registered = static_cast<u32>(m_impl->shared.learner.Size());
  known = static_cast<u32>(m_impl->shared.learner.KnownSize());
}

NatMapping StunManager::GetNatMapping() {
  const ScopedLock lock(m_impl->shared.lock);
  return m_impl->shared.learner.Nat();
}

void StunManager::SendScanEvent() {
  if (!m_impl->shared.scanWanted.exchange(true)) {
    m_impl->shared.Wake();
  }
}

void StunManager::SetChangedPortsCallback(ChangedPortsCallback callback, void* context) {
  const ScopedLock lock(m_impl->shared.lock);
  m_impl->shared.callback = callback;
  m_impl->shared.context = context;
}

void StunManager::UpdateSettings(const std::list<StunServInfo>& servers, u32 periodSeconds, u32 sends, u32 rtoMs) {
  {
    const ScopedLock lock(m_impl->shared.lock);
    m_impl->shared.learner.Configure({servers, periodSeconds, sends, rtoMs}, Clock::now());
  }
  m_impl->shared.Wake();
}
