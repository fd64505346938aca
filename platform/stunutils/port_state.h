#pragma once

#include "platform/stunutils/steps.h"
#include "platform/types.h"

namespace stun {

enum class PortState : u8 {
  DUE,      // asks as soon as there is room
  RESTING,  // waits for its turn
  ASKED,    // a request is under way
  LENT,     // asks another server, for comparison
};

enum class PortEvent : u8 {
  ROOM,        // there is room for it
  MAPPED,      // its mapping came
  DOUBTFUL,    // a mapping came that a second answer has to confirm
  REFUSED,     // an answer came, but no mapping
  UNANSWERED,  // it is silent by itself, or cannot be used
  PUT_BACK,    // the server is not to be asked now
  PASSED,      // it was a canary for nothing
  OUTRUN,      // it is silent by itself, and a port that has not asked yet needs the room
  RENEWED,     // the server is heard: the canary's request may have been lost
  SPARED,      // the server is heard: the port is silent by itself
  CALLED,      // it is to be the canary
  TURN,        // its turn has come
  SCAN,        // all ports are to ask now
  CHANGE,      // the mapping of another port has changed
  PERIOD,      // the period has changed
  LEND,        // it is to ask another server
  RETURNED,    // the comparison is over
  RESTART,     // all begins anew
};

enum class PortAction : u8 {
  NOTHING,
  SEND,      // a new request
  NUDGE,     // the same request once more
  FIRST,     // due before others
  AGAIN,     // due where it was
  BEHIND,    // due after all that have asked for nothing less often
  REST,      // until its place in the period
  LAPSE,     // until its place in the period, and it does not count as answered any more
  BRIEFLY,   // half a second, longer each time in a row, and after some times until its place
  HASTEN,    // until it may ask again
  PROMPT,    // the same, a second after it last asked at the latest
  HAND_OUT,  // the schedule does nothing with it
};

struct PortStep {
  PortState from;
  PortEvent event;
  PortState to;
  PortAction action;
};

// Every step there is; any other event changes nothing.
inline constexpr PortStep kPortSteps[] = {
    {PortState::DUE, PortEvent::ROOM, PortState::ASKED, PortAction::SEND},
    {PortState::DUE, PortEvent::RENEWED, PortState::DUE, PortAction::FIRST},
    {PortState::DUE, PortEvent::SPARED, PortState::RESTING, PortAction::LAPSE},
    {PortState::DUE, PortEvent::RESTART, PortState::DUE, PortAction::FIRST},

    {PortState::ASKED, PortEvent::MAPPED, PortState::RESTING, PortAction::REST},
    {PortState::ASKED, PortEvent::DOUBTFUL, PortState::DUE, PortAction::FIRST},
    {PortState::ASKED, PortEvent::REFUSED, PortState::RESTING, PortAction::BRIEFLY},
    {PortState::ASKED, PortEvent::UNANSWERED, PortState::RESTING, PortAction::LAPSE},
    {PortState::ASKED, PortEvent::PUT_BACK, PortState::DUE, PortAction::AGAIN},
    {PortState::ASKED, PortEvent::PASSED, PortState::DUE, PortAction::BEHIND},
    {PortState::ASKED, PortEvent::OUTRUN, PortState::DUE, PortAction::BEHIND},
    {PortState::ASKED, PortEvent::CALLED, PortState::DUE, PortAction::AGAIN},
    {PortState::ASKED, PortEvent::SCAN, PortState::ASKED, PortAction::NUDGE},
    {PortState::ASKED, PortEvent::RESTART, PortState::DUE, PortAction::FIRST},

    {PortState::LENT, PortEvent::RETURNED, PortState::RESTING, PortAction::REST},
    {PortState::LENT, PortEvent::RESTART, PortState::DUE, PortAction::FIRST},

    {PortState::RESTING, PortEvent::TURN, PortState::DUE, PortAction::AGAIN},
    {PortState::RESTING, PortEvent::CALLED, PortState::DUE, PortAction::AGAIN},
    {PortState::RESTING, PortEvent::SCAN, PortState::RESTING, PortAction::HASTEN},
    {PortState::RESTING, PortEvent::CHANGE, PortState::RESTING, PortAction::PROMPT},
    {PortState::RESTING, PortEvent::PERIOD, PortState::RESTING, PortAction::REST},
    {PortState::RESTING, PortEvent::LEND, PortState::LENT, PortAction::HAND_OUT},
    {PortState::RESTING, PortEvent::RESTART, PortState::DUE, PortAction::FIRST},
};

static_assert(IsUnambiguous(kPortSteps));

}  // namespace stun
