#include "platform/vxnetutils/route_helper.h"

#include "platform/vxnetutils/route_cache.h"
#include "platform/vxnetutils/route_watch.h"

struct RouteHelper::Impl {
  RouteCache m_cache;
  RouteWatch m_watch;
};

RouteHelper::RouteHelper() : m_impl(std::make_unique<Impl>()) {}
RouteHelper::~RouteHelper() = default;

bool RouteHelper::GetOutInterface(u32 destination, u32& interfaceAddress, u32& viaGateway) {
  Route route;
  if (!m_impl->m_cache.LookUp(destination, route)) {
    return false;
  }
  interfaceAddress = route.address;
  viaGateway = route.gateway;
  return true;
}

void RouteHelper::BeginTurn() { m_impl->m_cache.BeginTurn(); }

void RouteHelper::EndTurn() { m_impl->m_cache.EndTurn(); }

bool RouteHelper::NotifyRouteChange() { return m_impl->m_watch.Wait(); }

void RouteHelper::StopNotifyRtChange() { m_impl->m_watch.Stop(); }
