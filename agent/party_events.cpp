#include "agent/party_events.h"

#include "agent/host_events.h"

void TellParty(bool online, int queue, const messaging::QueueState& state) {
  const u32 kind = online ? NAT_EVENT_CONNECTED : NAT_EVENT_HUNG_UP;
  if (!HostEvents::Wants(kind)) {
    return;
  }
  NatHostEvent event = HostEvents::Make(kind);
  event.queue = queue;
  event.pid = state.pid;
  event.uid = state.uid;
  event.text = state.program.c_str();
  HostEvents::Tell(event);
}

void TellRefusal(int queue, const messaging::Refusal& refusal) {
  if (!HostEvents::Wants(NAT_EVENT_REFUSED)) {
    return;
  }
  NatHostEvent event = HostEvents::Make(NAT_EVENT_REFUSED);
  event.queue = queue;
  event.pid = refusal.pid;
  event.uid = refusal.uid;
  event.reason = refusal.reason;
  event.text = refusal.text.c_str();
  HostEvents::Tell(event);
}

void TellNotice(int queue, u32 type) {
  if (HostEvents::Wants(NAT_EVENT_NOTICE)) {
    NatHostEvent event = HostEvents::Make(NAT_EVENT_NOTICE);
    event.queue = queue;
    event.reason = type;
    HostEvents::Tell(event);
  }
}
