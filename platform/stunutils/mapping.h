#pragma once

#include "platform/stunutils/message.h"
#include "platform/types.h"

namespace stun {

// What a server told of a port's public side, answer by answer. The first mapping is the answer at once, any other when
// it was told twice in a row.
class Mapping {
 public:
  enum class Told {
    KNOWN,      // no news
    DOUBTFUL,   // another mapping than the answer: to be confirmed by asking again
    CHANGED,    // the confirmation of that
    UNSETTLED,  // another mapping nearly each time: not to be confirmed, the next turn does as well
  };
  Told Tell(const Endpoint& mapped, const Endpoint& server);

  const Endpoint& Mapped() const { return m_mapped; }
  const Endpoint& Server() const { return m_server; }
  // From the fourth different answer on until three in a row agree.
  bool IsUnsettled() const { return m_isUnsettled; }

  // The device is elsewhere. The next mapping is the answer at once, and is compared with the one that was known.
  void Forget();

 private:
  static constexpr u8 kMostDifferent = 3;
  static constexpr u8 kAgreed = 3;

  void Count(const Endpoint& mapped);

  Endpoint m_mapped;   // the answer
  Endpoint m_server;   // that told it
  Endpoint m_settled;  // what a change is compared with
  Endpoint m_last;     // told last
  u8 m_agreed = 0;     // how often in a row, up to kAgreed
  u8 m_different = 0;  // answers unlike the one before, since kAgreed agreed
  bool m_isUnsettled = false;
};

}  // namespace stun
