#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/host.h"
#include "platform/unique_fd.h"

// What the agent's listener hears, until the status thread takes it. Bounded: what comes beyond is counted and dropped,
// so that nobody who reads slowly, or not at all, costs the agent more than a moment.
class EventFeed {
 public:
  struct Entry {
    NatHostEvent event{};  // without its text
    std::string text;
    std::int64_t time = 0;  // milliseconds since 1970
  };

  EventFeed();

  // The listener, whose context is a feed. Any thread.
  static void Hear(void* context, const NatHostEvent* event);

  // Can be read while there is something to take. -1: there was no descriptor for it.
  int Fd() const { return m_bell.Get(); }
  // Everything that was heard, oldest first, and how many events were dropped before the first.
  std::vector<Entry> Take(std::uint64_t& dropped);

 private:
  static constexpr std::size_t kMaxEntries = 4096;
  static constexpr std::size_t kMaxBytes = 1 << 20;  // of texts

  void Add(const NatHostEvent& event);

  const UniqueFd m_bell;
  std::mutex m_mutex;
  // guarded by m_mutex
  std::vector<Entry> m_entries;
  std::size_t m_bytes = 0;
  std::uint64_t m_dropped = 0;
};

// The line of an event; of NAT_EVENT_LOG see LogLines.
nlohmann::ordered_json EventObject(const EventFeed::Entry& entry);

// Puts the log's texts, which are parts of lines or several, together to lines; each has the time of its end.
class LogLines {
 public:
  std::vector<nlohmann::ordered_json> Take(const EventFeed::Entry& entry);

 private:
  static constexpr std::size_t kMaxLine = 8192;

  std::string m_begun;
};
