#pragma once

#include <list>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "platform/stunutils/mapping.h"
#include "platform/stunutils/timing.h"
#include "platform/types.h"

namespace stun {

// The registered ports, whose they are, and what is known of their public side.
class PortTable {
 public:
  // A registration of a port; several of the same port are kept.
  void Add(u16 port, u8 owner, bool isMedia);
  // Takes back the latest registration. With the last one goes what was known.
  void Remove(u16 port);
  void Clear();

  bool Has(u16 port) const { return m_ports.contains(port); }
  // It has a registration that is not for media.
  bool IsSignalling(u16 port) const;

  // What a server answered of a registered port.
  Mapping::News Observe(u16 port, const Endpoint& mapped, const Endpoint& server);
  // Not known: all 0.
  Mapping Find(u16 port) const;
  // The registered port of this number, or the next one above.
  struct View {
    u16 port = 0;
    bool isMedia = false;
    const Mapping& mapping;
    Endpoint before;  // what was answered before the present mapping, if anything
    TimePoint heard;  // the last answer; the epoch: none
  };
  std::optional<View> FindFrom(u32 port) const;
  void SetHeard(u16 port, TimePoint now) { m_ports.at(port).heard = now; }

  std::size_t Size() const { return m_ports.size(); }
  // Of how many ports a mapping is answered.
  std::size_t KnownSize() const { return m_knownSize; }

  // One whose mapping does not settle.
  std::optional<u16> Unsettled() const;
  // The device is elsewhere: see Mapping::Forget.
  void Forget();

  bool HasChanges() const { return !m_changed.empty(); }
  // Ports whose mapping has changed and is confirmed, since the last call, once for each of their registrations.
  std::list<std::pair<u16, u16>> TakeChanges();

 private:
  struct Owner {
    u8 id = 0;
    bool isMedia = false;
  };
  struct Port {
    std::vector<Owner> owners;
    Mapping mapping;
    Endpoint before;
    TimePoint heard{};
  };

  std::map<u16, Port> m_ports;
  std::size_t m_knownSize = 0;
  std::set<u16> m_changed;
  std::set<u16> m_unsettled;
};

}  // namespace stun
