#include <arpa/inet.h>

#include "platform/loader/library_entry.h"
#include "platform/sockets/host_lookup.h"
#include "platform/sockets/inet.h"
#include "platform/vxnetutils/route_helper.h"
#include "tests/unit/fake_platform/fake.h"

struct RouteHelper::Impl {};

RouteHelper::RouteHelper() = default;
RouteHelper::~RouteHelper() = default;

bool RouteHelper::GetOutInterface(u32 destination, u32& interfaceAddress, u32& viaGateway) {
  fake::Record("route ", sockets::inet_ntoa(destination));
  fake::Device device;
  if (device->routesThrow > 0) {
    --device->routesThrow;
    throw std::bad_alloc();
  }
  const auto found = device->routes.find(destination);
  const std::optional<fake::Route>& route = found != device->routes.end() ? found->second : device->otherRoutes;
  if (route) {
    std::tie(interfaceAddress, viaGateway) = *route;
  }
  return route.has_value();
}

void RouteHelper::BeginTurn() {}
void RouteHelper::EndTurn() {}

bool RouteHelper::NotifyRouteChange() {
  fake::Device device;
  device->changed.wait(device.Lock(), [&] { return device->watchStopped || device->routeChanges > 0; });
  if (!std::exchange(device->watchStopped, false)) {
    --device->routeChanges;
  }
  return true;
}

void RouteHelper::StopNotifyRtChange() { fake::Device()->watchStopped = true; }

unsigned int BsdSocket::GetLocalHostEx(std::vector<InterfaceInfo>* interfaces, std::string*) {
  *interfaces = fake::Device()->interfaces;
  return static_cast<unsigned int>(interfaces->size());
}

u32 sockets::inet_addr(const char* text) { return ::inet_addr(text); }
const char* sockets::inet_ntoa(u32 address) { return ::inet_ntoa(in_addr{address}); }

u32 sockets::LookUpHost(const char* name, const std::stop_token& stop) {
  fake::Record("lookup ", name);
  fake::Device device;
  const bool answered = device->changed.wait(device.Lock(), device->lookUpsIgnoreStop ? std::stop_token() : stop,
                                             [&] { return device->lookUpsToReturn > 0; });
  device->lookUpsToReturn -= answered ? 1 : 0;
  return answered && device->hosts.contains(name) ? device->hosts[name] : 0;
}

bool DisableThreadLibraryCalls(void*) { return true; }
