#pragma once

#include <memory>

#include "platform/types.h"

// Route look-ups and route-change notification (IPv4; addresses in network byte order).
//
// NotifyRouteChange: one thread, which may be another. StopNotifyRtChange: any. The others: one thread at a time.
class RouteHelper {
 public:
  RouteHelper();
  virtual ~RouteHelper();
  RouteHelper(const RouteHelper&) = delete;
  RouteHelper& operator=(const RouteHelper&) = delete;

  // The way the system would send to `destination` now: the local address it would leave from, and the gateway's
  // address or 0 for a destination on an attached network (another nonzero value when the gateway has no IPv4 address).
  // Destination 0 asks for the default route, the uplink: lowest metric, its interface up. False when there is no
  // route; the outputs are then unchanged. A repeated question costs no route query while nothing has changed.
  bool GetOutInterface(u32 destination, u32& interfaceAddress, u32& viaGateway);

  // Between the two, changes are looked for once, by the first question: for a turn that answers messages which were
  // received together. The question comes after the receiving, so it finds every change that was finished before one of
  // them was sent.
  void BeginTurn();
  void EndTurn();

  // Waits for a change of links, addresses, routes or rules and for the burst around it to settle, or for
  // StopNotifyRtChange. Changes between two calls are not missed. False when changes cannot be watched; it has then
  // waited a while, so that a caller in a loop does not spin.
  bool NotifyRouteChange();

  // Makes the pending, or else the next, NotifyRouteChange return.
  void StopNotifyRtChange();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
