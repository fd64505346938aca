#include "host/event_feed.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

#include "host/status_words.h"

namespace {

using Json = nlohmann::ordered_json;

Json Endpoint(const NatHostEndpoint& endpoint) {
  return endpoint.ip == 0 ? Json(nullptr) : Json(EndpointText(endpoint));
}

Json Address(std::uint32_t ip) { return ip == 0 ? Json(nullptr) : Json(IpText(ip)); }

const char* EventWord(std::uint32_t kind) {
  switch (kind) {
    case NAT_EVENT_READY:
      return "ready";
    case NAT_EVENT_FAILED:
      return "failed";
    case NAT_EVENT_CONNECTED:
      return "connected";
    case NAT_EVENT_HUNG_UP:
      return "hung up";
    case NAT_EVENT_REFUSED:
      return "refused";
    case NAT_EVENT_LOADED:
      return "settings loaded";
    case NAT_EVENT_UPLINK:
      return "uplink";
    case NAT_EVENT_MAPPING:
      return "mapping changed";
    case NAT_EVENT_NOTICE:
      return "notice";
    case NAT_EVENT_STOPPED:
      return "stopped";
    default:
      return "log";
  }
}

void AddPeer(const EventFeed::Entry& entry, const char* textKey, Json& object) {
  object["party"] = PartyWord(entry.event.queue);
  object["pid"] = entry.event.pid;
  object["uid"] = entry.event.uid;
  object[textKey] = entry.text;
}

}  // namespace

EventFeed::EventFeed() : m_bell(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void EventFeed::Hear(void* context, const NatHostEvent* event) {
  try {
    static_cast<EventFeed*>(context)->Add(*event);
  } catch (const std::bad_alloc&) {
    const std::lock_guard lock(static_cast<EventFeed*>(context)->m_mutex);
    ++static_cast<EventFeed*>(context)->m_dropped;
  }
}

void EventFeed::Add(const NatHostEvent& event) {
  bool isFirst = false;
  {
    const std::lock_guard lock(m_mutex);
    const std::string_view text(event.text);
    if (m_entries.size() >= kMaxEntries || m_bytes + text.size() > kMaxBytes) {
      ++m_dropped;
      return;
    }
    using namespace std::chrono;
    const auto now = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    isFirst = m_entries.empty();
    m_entries.push_back({event, std::string(text), now});
    m_entries.back().event.text = nullptr;
    m_bytes += text.size();
  }
  if (isFirst) {
    ::eventfd_write(m_bell.Get(), 1);
  }
}

std::vector<EventFeed::Entry> EventFeed::Take(std::uint64_t& dropped) {
  eventfd_t rings = 0;
  ::eventfd_read(m_bell.Get(), &rings);
  const std::lock_guard lock(m_mutex);
  dropped = std::exchange(m_dropped, 0);
  m_bytes = 0;
  return std::exchange(m_entries, {});
}

Json EventObject(const EventFeed::Entry& entry) {
  const NatHostEvent& event = entry.event;
  Json object{{"event", EventWord(event.kind)}, {"time", TimeText(entry.time)}};
  switch (event.kind) {
    case NAT_EVENT_FAILED:
      object["text"] = entry.text;
      break;
    case NAT_EVENT_CONNECTED:
    case NAT_EVENT_HUNG_UP:
      AddPeer(entry, "program", object);
      break;
    case NAT_EVENT_REFUSED:
      AddPeer(entry, "text", object);
      object["reason"] = RefusalWord(event.reason);
      break;
    case NAT_EVENT_LOADED:
      object["party"] = event.queue == 0 ? Json(nullptr) : Json(PartyWord(event.queue));
      object["loaded"] = event.reason == 1;
      break;
    case NAT_EVENT_UPLINK:
      object["before"] = Address(event.before.ip);
      object["now"] = Address(event.now.ip);
      break;
    case NAT_EVENT_MAPPING:
      object["port"] = event.local_port;
      object["before"] = Endpoint(event.before);
      object["now"] = Endpoint(event.now);
      break;
    case NAT_EVENT_NOTICE:
      object["party"] = event.queue == 0 ? Json(nullptr) : Json(PartyWord(event.queue));
      object["type"] = event.reason;
      break;
    default:
      break;
  }
  return object;
}

std::vector<Json> LogLines::Take(const EventFeed::Entry& entry) {
  std::vector<Json> lines;
  for (const char c : entry.text) {
    if (c != '\n' && m_begun.size() < kMaxLine) {
      m_begun += c;
      continue;
    }
    if (m_begun.ends_with('\r')) {
      m_begun.pop_back();
    }
    lines.push_back(Json{{"event", "log"}, {"time", TimeText(entry.time)}, {"line", std::exchange(m_begun, {})}});
    if (c != '\n') {
      m_begun += c;
    }
  }
  return lines;
}
