#pragma once

#include <list>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "platform/stunutils/message.h"
#include "platform/types.h"

namespace stun {

// The registered ports, whose they are, and what is known of their public side.
class PortTable {
 public:
  // A registration of a port; several of the same port are kept.
  void Add(u16 port, u8 owner) { m_ports[port].owners.push_back(owner); }
  // Takes back the latest registration. With the last one goes what was known.
  void Remove(u16 port);
  void Clear();

  bool Has(u16 port) const { return m_ports.contains(port); }
  bool HasOwner(u16 port, u8 owner) const;

  // What a server told of a port: LEARNT is the answer from now on, or was so before. A mapping that differs from the
  // known one is DOUBTFUL until it is told a second time; until then the known one stays.
  enum class Told { LEARNT, DOUBTFUL };
  Told Tell(u16 port, const Endpoint& mapped, const Endpoint& server);

  struct Known {
    Endpoint mapped;
    Endpoint server;
  };
  // Not known: all 0.
  Known Find(u16 port) const;

  std::size_t Size() const { return m_ports.size(); }
  // Of how many ports a mapping is answered.
  std::size_t KnownSize() const { return m_knownSize; }

  // The device is elsewhere: mappings are not answered any more. A port's next mapping is still compared with the last.
  void Forget();

  // Ports whose mapping has changed and is confirmed, since the last call, once for each of their registrations.
  bool HasChanges() const { return !m_changed.empty(); }
  std::list<std::pair<u16, u16>> TakeChanges();

 private:
  struct Port {
    std::vector<u8> owners;
    Known current;
    Endpoint settled;    // what current is compared with: the last mapping that is no news
    Endpoint candidate;  // told once
  };

  std::map<u16, Port> m_ports;
  std::size_t m_knownSize = 0;
  std::set<u16> m_changed;
};

}  // namespace stun
