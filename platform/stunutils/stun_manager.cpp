#include "platform/stunutils/stun_manager.h"

#include <cerrno>
#include <system_error>
#include <thread>

#include "nat/nat_records.h"
#include "platform/stunutils/diagnostics.h"
#include "platform/stunutils/learner.h"
#include "platform/stunutils/signals.h"
#include "platform/vxnetutils/route_helper.h"

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
      stun::Notice("cannot open sockets on " + stun::AddressText(address) + ": " +
                   std::generic_category().message(errno));
    }
    return transport;
  }

  bool BeginThread(std::unique_ptr<stun::Transport> transport) NAT_REQUIRES(control) {
    try {
      thread = std::thread([this, learner = std::make_unique<stun::Learner>(shared, std::move(transport))] {
        stun::BlockSignals();
        {
          const ScopedLock lock(shared.lock);
          ownThread = std::this_thread::get_id();
        }
        learner->Run();
        const ScopedLock lock(shared.lock);
        ownThread = {};
      });
      return true;
    } catch (const std::system_error& error) {
      stun::Notice(std::string("cannot start a thread: ") + error.what());
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
  u32 address = 0;
  u32 gateway = 0;
  if (!RouteHelper().GetOutInterface(0, address, gateway) || address == 0) {
    stun::Notice("there is no uplink to learn on");
    return false;
  }
  auto transport = m_impl->OpenTransport(address);
  if (transport == nullptr || !m_impl->shared.wake) {
    return false;
  }
  m_impl->EndThread();
  {
    const ScopedLock lock(m_impl->shared.lock);
    m_impl->shared.stop = false;
    if (m_impl->localAddress != address) {
      m_impl->shared.table.Forget();
      m_impl->localAddress = address;
    }
  }
  return m_impl->BeginThread(std::move(transport));
}

void StunManager::Stop(bool) {
  if (m_impl->IsOwnThread()) {
    m_impl->RequestStop();
    return;
  }
  const ScopedLock control(m_impl->control);
  m_impl->EndThread();
}

void StunManager::AddPorts(u16 start, u16 end, u8 interval, u8 owner, bool, bool) {
  {
    const ScopedLock lock(m_impl->shared.lock);
    for (u32 each = start; each <= end; each += Step(interval)) {
      if (each != 0) {  // a datagram cannot be answered there
        const auto port = static_cast<u16>(each);
        m_impl->shared.table.Add(port, owner);
        m_impl->shared.schedule.Add(port, m_impl->shared.table.HasOwner(port, CA_PROTO_SIP));
      }
    }
  }
  m_impl->shared.Wake();
}

void StunManager::RemovePorts(u16 start, u16 end, u8 interval) {
  {
    const ScopedLock lock(m_impl->shared.lock);
    for (u32 each = start; each <= end; each += Step(interval)) {
      const auto port = static_cast<u16>(each);
      m_impl->shared.table.Remove(port);
      if (m_impl->shared.table.Has(port)) {
        m_impl->shared.schedule.Add(port, m_impl->shared.table.HasOwner(port, CA_PROTO_SIP));
      } else {
        m_impl->shared.schedule.Remove(port);
      }
    }
  }
  m_impl->shared.Wake();
}

void StunManager::RemoveAllPorts() {
  {
    const ScopedLock lock(m_impl->shared.lock);
    m_impl->shared.table.Clear();
    m_impl->shared.schedule.Clear();
  }
  m_impl->shared.Wake();
}

void StunManager::GetPortResult(u16 port, StunResult& result) {
  result = StunResult{};
  const ScopedLock lock(m_impl->shared.lock);
  if (!m_impl->shared.table.Has(port)) {
    return;
  }
  const auto known = m_impl->shared.table.Find(port);
  result.address1 = m_impl->localAddress;
  result.port1 = port;
  result.address2 = known.mapped.address;
  result.port2 = known.mapped.port;
  result.address3 = known.server.address;
  result.port3 = known.server.port;
}

void StunManager::CountPorts(u32& registered, u32& known) {
  const ScopedLock lock(m_impl->shared.lock);
  registered = static_cast<u32>(m_impl->shared.table.Size());
  known = static_cast<u32>(m_impl->shared.table.KnownSize());
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
    m_impl->shared.settings = {servers, periodSeconds, sends, rtoMs};
    ++m_impl->shared.settingsVersion;
  }
  m_impl->shared.Wake();
}
