#include "platform/stunutils/stun_logger.h"
#include "tests/unit/fake_platform/fake.h"

struct StunManager::Impl {};

void StunLogger::Create() { fake::Record("stunlogger create"); }
void StunLogger::Destroy() { fake::Record("stunlogger destroy"); }

StunManager::StunManager(bool first, bool second) { fake::Record("stun new ", first, ' ', second); }

StunManager::~StunManager() { fake::Record("stun delete"); }

bool StunManager::Start(bool first, bool second) {
  fake::Record("stun Start ", first, ' ', second);
  return fake::Device()->stunStarts;
}

void StunManager::Stop(bool flag) { fake::Record("stun Stop ", flag); }

void StunManager::AddPorts(u16 start, u16 end, u8 interval, u8 owner, bool first, bool second) {
  fake::Record("stun AddPorts ", start, ' ', end, ' ', unsigned{interval}, ' ', unsigned{owner}, ' ', first, ' ',
               second);
}

void StunManager::RemovePorts(u16 start, u16 end, u8 interval) {
  fake::Record("stun RemovePorts ", start, ' ', end, ' ', unsigned{interval});
}

void StunManager::RemoveAllPorts() { fake::Record("stun RemoveAllPorts"); }

void StunManager::GetPortResult(u16 port, StunResult& result) {
  fake::Record("stun GetPortResult ", port);
  if (fake::Device device; device->stunPorts.contains(port)) {
    std::tie(result.address2, result.port2) = device->stunPorts[port];
  }
}

void StunManager::GetMappingBefore(u16, u32& mappedIp, u16& mappedPort) { mappedIp = mappedPort = 0; }

std::size_t StunManager::ListPorts(u32 from, std::span<StunPort> ports) {
  fake::Device device;
  std::size_t count = 0;
  for (auto port = device->stunPorts.lower_bound(static_cast<u16>(from));
       port != device->stunPorts.end() && count < ports.size(); ++port) {
    ports[count++] = {.port = port->first, .mappedIp = port->second.first, .mappedPort = port->second.second};
  }
  return count;
}

StunServerState StunManager::GetServer() { return {StunServerState::State::HEARD, 1, 3478}; }
NatMapping StunManager::GetNatMapping() { return NatMapping::SAME; }

void StunManager::CountPorts(u32& registered, u32& known) {
  registered = 200;
  known = static_cast<u32>(fake::Device()->stunPorts.size());
}

void StunManager::SendScanEvent() { fake::Record("stun SendScanEvent"); }

void StunManager::SetChangedPortsCallback(ChangedPortsCallback callback, void* context) {
  fake::Record("stun SetChangedPortsCallback");
  fake::Device()->callback = {callback, context};
}

void StunManager::UpdateSettings(const std::list<StunServInfo>& servers, u32 first, u32 second, u32 third) {
  fake::Record("stun UpdateSettings ", servers.front().serverHost, ':', servers.front().serverPort, ' ', first, ' ',
               second, ' ', third);
}
