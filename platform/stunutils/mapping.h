#pragma once

#include "platform/stunutils/message.h"
#include "platform/types.h"

namespace stun {

// What a server answered of a port's public side, answer by answer. The first mapping is the answer at once, any other
// when it came twice in a row.
class Mapping {
 public:
  enum class News {
    NONE,
    DOUBTFUL,  // another mapping than the answer: to be confirmed by asking again
    CHANGED,   // the confirmation of that
    RESTLESS,  // another mapping, as so often: not to be confirmed, the next turn does as well
  };
  News Observe(const Endpoint& mapped, const Endpoint& server);

  const Endpoint& Mapped() const { return m_mapped; }
  const Endpoint& Server() const { return m_server; }
  // It changes so often that nothing follows for other ports.
  bool IsRestless() const { return m_unrest >= kRestless; }
  // It was so restless that a person is to know, and still is restless.
  bool IsUnsettled() const { return m_isUnsettled; }

  // The device is elsewhere. The next mapping is the answer at once, and is compared with the one that was known.
  void Forget();

 private:
  // Unrest goes up with an answer unlike the one before, and down with one that is no news. Single odd answers do not
  // add up, not even one in ten; answers that differ every other time do.
  static constexpr u8 kUnlike = 2;
  static constexpr u8 kLike = 1;
  static constexpr u8 kRestless = 4 * kUnlike;
  static constexpr u8 kMostUnrest = 8 * kUnlike;

  void MeasureUnrest(const Endpoint& mapped);

  Endpoint m_mapped;   // the answer
  Endpoint m_server;   // that told it
  Endpoint m_settled;  // what a change is compared with
  Endpoint m_last;     // the latest
  u8 m_unrest = 0;
  bool m_isUnsettled = false;  // from the most unrest until it is not restless
};

}  // namespace stun
